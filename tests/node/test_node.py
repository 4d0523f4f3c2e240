"""Tests of the throw-away node itself, without the agent."""

import os
import pathlib
import pty
import signal
import subprocess

import pytest
from node_runs import MARK, NODE, NODE_COMMAND, node_processes, wait_until

pytestmark = pytest.mark.usefixtures("untouched_machine")


@pytest.mark.parametrize("status", [0, 1, 77, 255])
def test_exit_status_is_the_commands(node, status):
    assert node("run", "--", "sh", "-c", f"exit {status}").returncode == status


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGINT, signal.SIGSEGV])
def test_command_ended_by_a_signal_gives_128_and_its_number(node, number):
    assert node("run", "--", "sh", "-c", f"kill -{int(number)} $$").returncode == 128 + number


def test_missing_command_gives_127(node):
    assert node("run", "--", "/no/such/command").returncode == 127


def test_input_output_and_error_are_passed_through_unchanged(node):
    data = os.urandom(1 << 20)
    result = node("run", "--", "tee", "/dev/stderr", input=data)
    assert result.stdout == data
    assert result.stderr == data


def test_end_of_input_reaches_the_command(node):
    assert node("run", "--", "wc", "-c", stdin=subprocess.DEVNULL).stdout == b"0\n"


def test_arguments_are_not_interpreted(node):
    arguments = ["a b", "", "$HOME", "*", "quote'\"s", "new\nline", "--option"]
    result = node("run", "--", "printf", "%s\\0", *arguments)
    assert result.stdout.split(b"\0")[:-1] == [argument.encode() for argument in arguments]


def test_working_directory_and_the_machines_files_are_there(node, tmp_path):
    (tmp_path / "file").write_text("of the machine", encoding="utf-8")
    result = node("run", "--", "sh", "-c", "pwd; cat file", cwd=tmp_path)
    assert result.stdout.decode() == f"{tmp_path}\nof the machine"


def test_other_file_systems_of_the_machine_are_there_too(tmp_path):
    # The machine has its own mounts here; commas and colons are valid in their names.
    names = ["disk", "with, comma", "a:colon", "file"]
    mounts = "".join(f"mkdir '{tmp_path}/{name}'; mount -t tmpfs t '{tmp_path}/{name}'; echo {index} > '{tmp_path}/{name}/x';"
                     for index, name in enumerate(names[:3]))
    mounts += f"echo bound > '{tmp_path}/source'; touch '{tmp_path}/file'; mount --bind '{tmp_path}/source' '{tmp_path}/file';"
    look = f"cd {tmp_path}; cat disk/x 'with, comma/x' a:colon/x file; echo changed | tee disk/x a:colon/x file >/dev/null"
    script = f"{mounts} {' '.join(NODE_COMMAND)} run -- sh -c \"{look}\"; cat {tmp_path}/*/x {tmp_path}/file"
    result = subprocess.run(
        ["unshare", "--mount", "sh", "-c", script], capture_output=True, timeout=60, text=True, check=False
    )
    assert result.stderr == ""
    assert result.stdout.split() == ["0", "1", "2", "bound", "2", "0", "1", "bound"]


def test_command_without_an_input_has_an_empty_one(node):
    script = f"exec 0<&-; {' '.join(NODE_COMMAND)} run -- wc -c"
    assert subprocess.run(["sh", "-c", script], capture_output=True, timeout=60, check=False).stdout == b"0\n"


def test_callers_umask_does_not_matter():
    script = f"umask 077; {' '.join(NODE_COMMAND)} run -- sh -c 'umask; stat -c %a / /root/.ssh /dev/null /run'"
    result = subprocess.run(["sh", "-c", script], capture_output=True, timeout=60, text=True, check=False)
    assert result.stdout.split() == ["0022", "755", "700", "666", "755"]


def test_writes_stay_inside(node, tmp_path):
    script = f"echo changed > {tmp_path}/file; touch /etc/from_node /usr/from_node /tmp/from_node; hostname changed"
    (tmp_path / "file").write_text("of the machine", encoding="utf-8")
    assert node("run", "--", "sh", "-c", script).returncode == 0
    assert (tmp_path / "file").read_text(encoding="utf-8") == "of the machine"
    for directory in ("/etc", "/usr", "/tmp"):
        assert not pathlib.Path(directory, "from_node").exists()


def test_systemd_manages_the_node(node):
    script = "cat /proc/1/comm; systemctl is-system-running; systemd-run --quiet --wait sh -c 'exit 3'; echo $?"
    assert node("run", "--", "sh", "-c", script).stdout == b"systemd\nrunning\n3\n"


def test_journal_takes_messages_of_services(node):
    script = "systemd-run --quiet --wait echo hello from a service; journalctl --sync; journalctl -o cat | grep hello"
    assert b"hello from a service" in node("run", "--", "sh", "-c", script).stdout


def test_new_units_can_be_written_and_started(node):
    script = """
printf '[Service]\\nType=oneshot\\nRemainAfterExit=yes\\nExecStart=/bin/true\\n' > /etc/systemd/system/fresh.service
systemctl daemon-reload && systemctl restart fresh && systemctl is-active fresh"""
    assert node("run", "--", "sh", "-c", script).stdout == b"active\n"


def test_network_is_the_nodes_own(node):
    result = node("run", "--", "sh", "-c", "ls /sys/class/net; ping -c1 -W1 127.0.0.1 >/dev/null 2>&1; ip -br addr show lo")
    assert result.stdout.startswith(b"lo\n")
    assert b"127.0.0.1/8" in result.stdout


def test_network_namespaces_and_nft_inside_them(node):
    script = """
set -e
ip netns add vrf-red
ip netns exec vrf-red nft add table inet confined
ip netns exec vrf-red nft list tables
nft list tables
stat -f -c %T /run/netns/vrf-red
ip netns del vrf-red
ls /run/netns"""
    result = node("run", "--", "sh", "-c", script)
    assert (result.returncode, result.stdout) == (0, b"table inet confined\nnsfs\n"), result.stderr


def test_namespace_reaches_a_service_with_a_mount_namespace_of_its_own(node):
    script = """
set -e
mkdir -p /run/private /run/netns
mount --bind /run/netns /run/netns && mount --make-shared /run/netns
systemd-run --quiet --unit=confined -p BindPaths=/run/private:/tmp sleep 100
ip netns add vrf-late
nsenter --target "$(systemctl show --value -p MainPID confined)" --mount stat -f -c %T /run/netns/vrf-late"""
    result = node("run", "--", "sh", "-c", script)
    assert (result.returncode, result.stdout) == (0, b"nsfs\n"), result.stderr


SSHD = "mkdir -p /run/sshd && ssh-keygen -q -A && /usr/sbin/sshd -t && /usr/sbin/sshd && "


@pytest.mark.parametrize("key", ["id_rsa", "id_ed25519"])
def test_operator_logs_in_with_each_key(node, key):
    script = SSHD + f"ssh -o ConnectionAttempts=20 -o IdentitiesOnly=yes -i /root/.ssh/{key} operator@127.0.0.1 whoami"
    result = node("run", "--", "sh", "-c", script)
    assert (result.returncode, result.stdout) == (0, b"operator\n"), result.stderr


def test_operators_password_is_the_given_one(node):
    # Without a terminal the client runs this program to get the password.
    script = (
        SSHD
        + "printf '#!/bin/sh\\necho \"$ANSWER\"\\n' > /ask && chmod +x /ask && export SSH_ASKPASS=/ask SSH_ASKPASS_REQUIRE=force;"
        "for ANSWER in wrong 'pass phrase'; do export ANSWER;"
        "ssh -o ConnectionAttempts=20 -o PubkeyAuthentication=no -o NumberOfPasswordPrompts=1 operator@127.0.0.1 whoami; done"
    )
    result = node("--password", "pass phrase", "run", "--", "sh", "-c", script)
    assert result.stdout == b"operator\n", result.stderr
    assert result.stderr.count(b"Permission denied") == 1


def test_agents_state_starts_empty_on_a_machine_that_has_some(node):
    # A node plays the machine that has state, which also shows that a node boots under a running systemd.
    script = f"""
mkdir -p /var/lib/ssh_cfg_agent /var/opt/norvo/norvossh /pkg/bin /tmp/norvo-ssh /root/.ssh
touch /etc/systemd/system/sshd_service_x.service /etc/systemd/system/sshd_conf_x.conf /etc/pam.d/norvosshd /tmp/norvo.txt
touch /root/.ssh/config_of_the_machine
look='ls -d /var/lib/ssh_cfg_agent /var/opt/norvo /pkg /etc/systemd/system/sshd_* /etc/pam.d/norvosshd /tmp/norvo*
      cat /proc/1/comm; ls /root/.ssh'
{NODE} --no-agent run -- sh -c "$look"
echo outer; ls -d /var/opt/norvo /pkg /tmp/norvo*"""
    result = node("run", "--", "sh", "-c", script)
    inner, outer = result.stdout.decode().split("outer\n")
    assert inner.split() == ["systemd", "config", "id_ed25519", "id_ed25519.pub", "id_rsa", "id_rsa.pub"], result.stderr
    assert outer.split() == ["/pkg", "/tmp/norvo-ssh", "/tmp/norvo.txt", "/var/opt/norvo"]


def test_environment_is_passed_with_a_usable_path(node):
    environment = {"PATH": "/usr/bin", "COLOUR": "blue", "NOTIFY_SOCKET": "/run/of/the/machine", "HOME": "/nowhere"}
    environment |= {"NODE_PASSWORD": "secret"}
    result = node("run", "--", "env", env=environment).stdout.decode().splitlines()
    values = dict(line.split("=", 1) for line in result)
    assert values["COLOUR"] == "blue"
    assert values["HOME"] == "/root"
    assert "/usr/sbin" in values["PATH"].split(":") and values["PATH"].startswith("/usr/bin")
    assert "NOTIFY_SOCKET" not in values and "NODE_PASSWORD" not in values


def test_kernel_switches_of_the_machine_are_read_only(node):
    script = "echo 1 > /proc/sys/kernel/panic; echo $?; echo 1 > /proc/sys/net/ipv4/ip_forward; echo $?"
    assert node("run", "--", "bash", "-c", script).stdout == b"1\n0\n"


def test_journal_is_kept_on_request(node, tmp_path):
    journal = tmp_path / "journal"
    assert node("--journal", str(journal), "run", "--", "sh", "-c", "logger -t test kept words; exit 4").returncode == 4
    assert "kept words" in journal.read_text(encoding="utf-8")


@pytest.mark.parametrize("arguments", [[], ["run"], ["run", "--"], ["fly"], ["shell", "x"], ["--timeout", "0", "run", "x"]])
def test_wrong_use_gives_status_2(node, arguments):
    result = node(*arguments)
    assert result.returncode == 2
    assert result.stderr.startswith(b"node: ")


def test_node_that_does_not_come_up_is_an_error_with_its_journal(tmp_path):
    # An installation whose agent fails at every start.
    (tmp_path / "cmake_install.cmake").write_text(
        "file(WRITE /etc/systemd/system/ssh_cfg_agent.service [[\n[Service]\nType=notify\nExecStart=/bin/false\n"
        "Restart=on-failure\nRestartSec=50ms\n[Install]\nWantedBy=multi-user.target\n]])\n",
        encoding="utf-8",
    )
    result = subprocess.run(
        [NODE, "--hostname", MARK, "--build", tmp_path, "--timeout", "20", "run", "--", "true"], capture_output=True, timeout=60, check=False
    )
    assert result.returncode == 125
    assert b"ssh_cfg_agent.service: Failed with result" in result.stderr


def test_node_that_hangs_is_ended_at_the_time_limit(tmp_path):
    (tmp_path / "cmake_install.cmake").write_text(
        "file(WRITE /etc/systemd/system/ssh_cfg_agent.service [[\n[Service]\nType=notify\nExecStart=/bin/sleep 1000\n"
        "[Install]\nWantedBy=multi-user.target\n]])\n",
        encoding="utf-8",
    )
    result = subprocess.run(
        [NODE, "--hostname", MARK, "--build", tmp_path, "--timeout", "3", "run", "--", "true"], capture_output=True, timeout=30, check=False
    )
    assert result.returncode == 125
    assert b"did not boot" in result.stderr


def test_installation_that_fails_is_an_error(tmp_path):
    (tmp_path / "cmake_install.cmake").write_text("message(FATAL_ERROR no)\n", encoding="utf-8")
    result = subprocess.run([NODE, "--hostname", MARK, "--build", tmp_path, "run", "--", "true"], capture_output=True, timeout=60, check=False)
    assert result.returncode == 125


def test_several_nodes_at_once_do_not_see_each_other(node):
    def start(name):
        script = f"touch /only_{name}; ip netns add {name}; read -r _; ls /only_*; ls /run/netns; hostname"
        return subprocess.Popen(
            [*NODE_COMMAND, "--hostname", name, "run", "--", "sh", "-c", script],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE,
        )

    names = ("one", "two", "three")
    nodes = [start(name) for name in names]
    for name, process in zip(names, nodes):
        assert process.communicate(b"\n", timeout=60)[0].decode() == f"/only_{name}\n{name}\n{name}\n"


def start_sleeper():
    """Starts a node whose command reports that it is running and then sleeps; returns the process."""
    process = subprocess.Popen(
        [*NODE_COMMAND, "run", "--", "sh", "-c", "echo up; exec sleep 1000"], stdout=subprocess.PIPE
    )
    assert process.stdout.readline() == b"up\n"
    return process


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP, signal.SIGINT])
def test_signal_ends_the_node(number):
    process = start_sleeper()
    process.send_signal(number)
    assert process.wait(timeout=10) == 128 + number


def test_killed_script_takes_its_node_along():
    process = start_sleeper()
    process.kill()
    process.wait(timeout=10)
    # The fixture checks that nothing is left.


def test_killed_keeper_takes_its_node_along(node):
    process = start_sleeper()
    subprocess.run(["pkill", "-KILL", "-P", str(process.pid), "-f", f"{NODE.parent}/keeper"], check=True)
    assert process.wait(timeout=10) == 128 + signal.SIGKILL
    # The next node removes what the keeper could not.
    assert node("run", "--", "true").returncode == 0


def test_signal_while_it_boots_ends_the_node():
    process = subprocess.Popen([*NODE_COMMAND, "run", "--", "sleep", "1000"])
    wait_until(lambda: node_processes())
    process.terminate()
    assert process.wait(timeout=10) == 128 + signal.SIGTERM


def test_command_that_ignores_the_signal_goes_with_the_node():
    process = subprocess.Popen(
        [*NODE_COMMAND, "run", "--", "sh", "-c", "trap '' TERM; echo up; sleep 1000"], stdout=subprocess.PIPE
    )
    assert process.stdout.readline() == b"up\n"
    process.terminate()
    assert process.wait(timeout=15) == 128 + signal.SIGTERM


def test_command_handles_the_interrupt_itself():
    # Not bash, which can lose an interrupt just as it starts to wait for a program.
    script = "trap 'echo handled; exit 9' INT; echo up; while :; do sleep 0.1; done"
    process = subprocess.Popen([*NODE_COMMAND, "run", "--", "sh", "-c", script], stdout=subprocess.PIPE)
    assert process.stdout.readline() == b"up\n"
    process.send_signal(signal.SIGINT)
    assert process.stdout.readline() == b"handled\n"
    assert process.wait(timeout=10) == 9


def test_shell_on_a_terminal_has_job_control_and_takes_the_interrupt():
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(NODE, [*NODE_COMMAND, "shell"])
    seen = b""

    def read_until(text):
        nonlocal seen
        while text not in seen:
            seen += os.read(terminal, 4096)
        seen = seen[seen.index(text) + len(text):]

    read_until(b"[node]")
    os.write(terminal, b"sleep 1000\n")
    read_until(b"sleep 1000\r\n")
    assert wait_until(lambda: b"sleep\x001000\x00" in node_processes())
    os.write(terminal, b"\x03")
    read_until(b"[node]")
    os.write(terminal, b"echo status $?; cat /proc/1/comm; exit 5\n")
    read_until(b"status 130\r\nsystemd\r\n")
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 5
    os.close(terminal)


def test_node_that_is_switched_off_from_inside_ends():
    result = subprocess.run(
        [*NODE_COMMAND, "run", "--", "sh", "-c", "systemctl poweroff --force --force; sleep 1000"],
        capture_output=True, timeout=60, check=False,
    )
    assert result.returncode == 128 + signal.SIGKILL


# An ordinary user cannot read a clone in root's home directory.
REACHABLE_NODE = "/stub/node/node"
MAKE_REACHABLE = f"mkdir /stub && cp -r {NODE.parent} /stub/node"


def test_ordinary_user_is_told_and_goes_on_with_sudo(node):
    # This test's sudo only prints its arguments.
    script = f"""
{MAKE_REACHABLE}; printf '#!/bin/sh\\nprintf "<%%s>" "$@"\\n' > /stub/sudo; chmod +x /stub/sudo
runuser -u operator -- env PATH=/stub:/usr/bin {REACHABLE_NODE} --no-agent --password 'a b' run -- echo 'x y'"""
    result = node("run", "--", "sh", "-c", script)
    assert b"node: namespaces and mounts need root: continuing with sudo\n" in result.stderr
    assert b"<NODE_PASSWORD=a b>" in result.stdout
    assert result.stdout.endswith(
        f"<{REACHABLE_NODE}><--no-agent><--password><a b><run><--><echo><x y>".encode()
    )


def test_ordinary_user_without_sudo_is_told(node):
    script = f"runuser -u operator -- env PATH=/usr/bin {REACHABLE_NODE} --no-agent run -- true"
    script = f"rm -f /usr/bin/sudo; {MAKE_REACHABLE}; {script}"
    result = node("run", "--", "sh", "-c", script)
    assert result.returncode == 125
    assert b"sudo is not installed" in result.stderr
