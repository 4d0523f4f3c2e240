"""What system tests do to the router they run in: commands, configuration, namespaces, logins, the journal.

Everything here works inside a throw-away node only (`node/node run -- /usr/bin/python3 -m pytest tests/system`).
"""

import contextlib
import json
import os
import pathlib
import signal
import subprocess
import time

SERVER = "/cfg/gl/crypto/ssh/server/"
CLIENT = "/cfg/gl/crypto/ssh/client/"
FILES = pathlib.Path("/var/opt/norvo/norvossh")
UNITS = pathlib.Path("/etc/systemd/system")
RUNTIME = pathlib.Path("/run/ssh_cfg_agent")
# The directory that the agent sees as /tmp.
AGENT_TMP = RUNTIME / "tmp"
AGENT = "ssh_cfg_agent.service"

# A tuple without access lists: anyone can reach the VRF's server.
OPEN = [None, None, None]


def run(*command, check=True, timeout=60, **options):
    """Runs a command and returns its CompletedProcess with text output. With check, a failure shows the output."""
    result = subprocess.run(
        [str(word) for word in command], capture_output=True, text=True, timeout=timeout, check=False, **options
    )
    if check:
        assert result.returncode == 0, f"{command}: status {result.returncode}\n{result.stdout}{result.stderr}"
    return result


def wait_until(condition, seconds=15.0, what=None):
    """Waits until condition() is true and returns its value; fails after the time limit."""
    end = time.monotonic() + seconds
    while not (value := condition()):
        assert time.monotonic() < end, f"after {seconds} seconds still not: {what or condition}"
        time.sleep(0.05)
    return value


# The operator's tool


def ctl(*arguments, check=True, **options):
    """Runs `ssh_cfg_ctl --json`. Returns the answer with check, otherwise the CompletedProcess."""
    result = run("ssh_cfg_ctl", "--json", *arguments, check=check, **options)
    return (json.loads(result.stdout) if result.stdout.strip() else None) if check else result


def set_item(path, value, **options):
    """Sets one item. A relative path is below the server's settings."""
    return ctl("set", path if path.startswith("/") else SERVER + path, json.dumps(value), **options)


def delete_item(path, **options):
    return ctl("delete", path if path.startswith("/") else SERVER + path, **options)


def load(items, **options):
    """Changes several items in one commit; the value None deletes an item."""
    items = {path if path.startswith("/") else SERVER + path: value for path, value in items.items()}
    return ctl("load", "-", input=json.dumps(items), **options)


def configuration():
    """The items; access lists and imported keys belong to the tests that make them."""
    return {path: value for path, value in ctl("dump").items() if path.startswith("/cfg/")}


@contextlib.contextmanager
def member_of(user, *groups):
    """Puts a user into groups until the end of the block."""
    for group in groups:
        run("usermod", "--append", "--groups", group, user)
    try:
        yield
    finally:
        for group in groups:
            run("gpasswd", "--delete", user, group)


# Network namespaces and servers


def add_namespace(vrf):
    run("ip", "netns", "add", f"vrf-{vrf}")
    in_vrf(vrf, "ip", "link", "set", "lo", "up")


def delete_namespace(vrf):
    run("ip", "netns", "del", f"vrf-{vrf}")


def namespaces():
    return sorted(path.name for path in pathlib.Path("/run/netns").glob("vrf-*"))


def in_vrf(vrf, *command, **options):
    """Runs a command inside the VRF's namespace."""
    return run("ip", "netns", "exec", f"vrf-{vrf}", *command, **options)


def server_file(vrf):
    return FILES / f"sshd_config_{vrf}"


def server_lines(vrf=None):
    """The lines of a VRF's server file, or of the default file."""
    path = server_file(vrf) if vrf else FILES / "sshd_config"
    return path.read_text(encoding="utf-8").splitlines()


def server_unit(vrf):
    return f"sshd_service_{vrf}.service"


def is_active(unit):
    return run("systemctl", "is-active", "--quiet", unit, check=False).returncode == 0


def unit_property(unit, name):
    return run("systemctl", "show", "--value", f"--property={name}", unit).stdout.strip()


def main_pid(unit):
    return int(unit_property(unit, "MainPID"))


def port_answers(vrf, port=22, address="127.0.0.1"):
    """Whether an SSH server sends its version string there. /dev/tcp/ is a feature of bash."""
    script = f"read -r -t 2 line < /dev/tcp/{address}/{port} && [[ $line == SSH-2.0-* ]]"
    return in_vrf(vrf, "bash", "-c", script, check=False).returncode == 0


def wait_for_server(vrf, port=22, seconds=15.0):
    wait_until(lambda: port_answers(vrf, port), seconds, f"a server in {vrf} on port {port}")


def ssh(vrf, *command, user="operator", host="127.0.0.1", port=22, options=(), **run_options):
    """Logs in from inside the VRF's namespace, runs a command and returns the CompletedProcess."""
    words = ["ssh", "-p", port, "-o", "BatchMode=yes", "-o", "ConnectTimeout=10", "-o", "LogLevel=ERROR"]
    words += ["-o", "UserKnownHostsFile=/dev/null", "-o", "StrictHostKeyChecking=no"]
    for option in options:
        words += ["-o", option]
    return in_vrf(vrf, *words, f"{user}@{host}", *command, **run_options)


def netconf(vrf, text, user="operator", port=830, **options):
    """Opens the NETCONF subsystem, sends it a text and returns the CompletedProcess."""
    return ssh(vrf, "-s", "netconf", user=user, port=port, input=text, **options)


# The agent's process


def agent_answers():
    return ctl("status", check=False).returncode == 0


def wait_for_agent():
    """Waits until the agent has applied the stored configuration and answers calls."""
    wait_until(lambda: is_active(AGENT) and agent_answers(), 60, "the agent answers")


def restart_agent():
    """Stops the agent cleanly and starts it again, as an administrator would."""
    run("systemctl", "restart", AGENT, timeout=120)
    wait_for_agent()


def kill_agent(number=signal.SIGKILL):
    """Kills the agent and waits until systemd has started it again."""
    before = main_pid(AGENT)
    os.kill(before, number)
    wait_until(lambda: main_pid(AGENT) not in (0, before), 30, "systemd starts the agent again")
    wait_for_agent()


def respawn_count():
    return ctl("status")["respawn_count"]


class Journal:
    """The journal from the moment this object was created."""

    def __init__(self):
        entries = self._read("--lines=1")
        self._cursor = entries[-1]["__CURSOR"] if entries else None

    @staticmethod
    def _read(*arguments):
        run("journalctl", "--sync")
        lines = run("journalctl", "--output=json", "--all", *arguments).stdout.splitlines()
        return [json.loads(line) for line in lines]

    def entries(self, unit=None):
        """Entries as dictionaries of journal fields; only those of one unit when it is given."""
        arguments = [f"--unit={unit}"] if unit else []
        if self._cursor:
            arguments.append(f"--after-cursor={self._cursor}")
        return self._read(*arguments)

    def messages(self, unit=None):
        return [entry.get("MESSAGE", "") for entry in self.entries(unit)]

    def wait_for(self, text, unit=None, seconds=15.0):
        """The first message that contains the text."""
        return wait_until(lambda: next((m for m in self.messages(unit) if text in m), None), seconds, f"journal: {text}")
