"""Commits that concern many servers: each is restarted once, at the end, behind closed ports, and none hides another."""

import ctypes
import json
import os
import pathlib
import signal
import socket
import subprocess
import threading
import time

import pytest
import router

VRFS = ("blue", "green", "red")
EIGHT = {
    "cmn/timeout": 42,
    "cmn/rate_limit": 500,
    "cmn/session_limit": 50,
    "cmn/dscp": 8,
    "cmn/rekey_time": 45,
    "cmn/rekey_volume": 2000,
    "cmn/max_auth_limit": 5,
    "cmn/port_forwarding": 1,
}


def starts(journal, vrf):
    """The invocations of a server that have begun since the journal's cursor."""
    entries = [entry for entry in journal.entries() if entry.get("UNIT") == router.server_unit(vrf)]
    return {entry["INVOCATION_ID"] for entry in entries if entry.get("MESSAGE", "").startswith("Start")}


def daemon_reloads(journal):
    return [message for message in journal.messages() if message == "Reloading."]


def is_blocked(vrf):
    return next(each for each in router.ctl("status")["vrfs"] if each["name"] == vrf)["blocked"]


@pytest.fixture
def drop_in():
    """Adds lines to the service section of a server's unit: drop_in("red", "ExecStartPre=/bin/sleep 3")."""
    files = []

    def make(vrf, lines):
        file = router.UNITS / f"{router.server_unit(vrf)}.d" / "test.conf"
        file.parent.mkdir()
        file.write_text(f"[Service]\n{lines}\n", encoding="ascii")
        files.append(file)
        router.run("systemctl", "daemon-reload")

    def remove():
        while files:
            file = files.pop()
            file.unlink()
            file.parent.rmdir()
        router.run("systemctl", "daemon-reload")

    make.remove = remove
    yield make
    remove()


def test_eight_settings_restart_each_server_once(server, journal):
    for vrf in VRFS:
        server(vrf)
    journal = router.Journal()
    router.load(EIGHT)
    for vrf in VRFS:
        assert len(starts(journal, vrf)) == 1, vrf
        assert router.unit_property(router.server_unit(vrf), "NRestarts") == "0"
        assert "LoginGraceTime 42" in router.server_lines(vrf)
        assert "MaxAuthTries 5" in router.server_lines(vrf)
        # The call has returned, so the port answers already.
        assert router.port_answers(vrf), vrf
        assert not is_blocked(vrf)


def test_servers_are_added_and_removed_with_one_command_of_each_kind(vrf, journal):
    for name in VRFS:
        vrf(name)
    router.load({f"sshd/vrf/{name}": router.OPEN for name in VRFS})
    for name in VRFS:
        assert len(starts(journal, name)) == 1
        assert router.port_answers(name)
    assert len(daemon_reloads(journal)) == 1
    router.load({f"sshd/vrf/{name}": None for name in VRFS})
    for name in VRFS:
        assert not router.is_active(router.server_unit(name))
        assert not router.server_file(name).exists()


def test_fips_mode_restarts_each_server_once(server):
    for vrf in VRFS:
        server(vrf)
    for change in (1, None):
        journal = router.Journal()
        router.load({"/cfg/gl/crypto/fipsmode/value": change})
        for vrf in VRFS:
            assert len(starts(journal, vrf)) == 1, (change, vrf)
            assert router.port_answers(vrf)


class Caller(threading.Thread):
    """Connects to a VRF's SSH port again and again, and remembers when which attempt ended how."""

    def __init__(self, vrf):
        super().__init__()
        self._namespace = os.open(f"/run/netns/vrf-{vrf}", os.O_RDONLY)
        self._ended = threading.Event()
        self.attempts = []

    def run(self):
        # Of this thread only.
        assert ctypes.CDLL(None).setns(self._namespace, 0) == 0
        while not self._ended.is_set():
            begun = time.monotonic()
            self.attempts.append((begun, self._attempt()))
            time.sleep(0.05)

    @staticmethod
    def _attempt():
        try:
            with socket.create_connection(("127.0.0.1", 22), timeout=0.3):
                return "connected"
        except ConnectionRefusedError:
            return "refused"
        except (TimeoutError, socket.timeout):
            return "dropped"

    def finish(self):
        self._ended.set()
        self.join()
        os.close(self._namespace)


def test_a_vrf_is_closed_to_strangers_from_its_first_change_to_the_end_of_its_restart(server, drop_in):
    server("red")
    drop_in("red", "ExecStartPre=/bin/sleep 3")
    router.ctl("acl", "set", "ipv4", "loopback", "-", input="10 permit tcp host 127.0.0.1 any\n")
    caller = Caller("red")
    caller.start()
    router.wait_until(lambda: "connected" in [how for _, how in caller.attempts])
    begun = time.monotonic()
    router.load({"cmn/timeout": 50, "sshd/vrf/red": [None, "loopback", None]})
    ended = time.monotonic()
    router.wait_until(lambda: caller.attempts[-1][0] > ended and caller.attempts[-1][1] == "connected")
    caller.finish()
    during = [how for when, how in caller.attempts if begun + 0.5 < when < ended - 0.5]
    assert during and set(during) == {"dropped"}, caller.attempts
    # A filter that opened late would drop the first connections after the answer.
    assert [how for when, how in caller.attempts if when > ended][0] == "connected"
    router.ctl("acl", "delete", "ipv4", "loopback", check=False)


def test_a_server_that_fails_is_named_and_the_others_run(server, drop_in):
    for vrf in VRFS:
        server(vrf)
    drop_in("green", "ExecStartPre=/bin/false")
    before = {vrf: router.main_pid(router.server_unit(vrf)) for vrf in VRFS}
    result = router.run("ssh_cfg_ctl", "set", router.SERVER + "cmn/timeout", "47", check=False)
    assert result.returncode == 6
    assert "stored, not in force: server green: systemctl restart sshd_service_green failed" in result.stderr
    assert "server blue" not in result.stderr and "server red" not in result.stderr
    for vrf in ("blue", "red"):
        assert router.main_pid(router.server_unit(vrf)) not in (0, before[vrf])
        assert router.port_answers(vrf)
    assert is_blocked("green")
    drop_in.remove()
    assert router.run("ssh_cfg_ctl", "set", router.SERVER + "cmn/timeout", "48", check=False).returncode == 0
    router.wait_for_server("green")


def test_others_are_answered_while_a_commit_restarts_servers(server, drop_in):
    server("red")
    drop_in("red", "ExecStartPre=/bin/sleep 4")
    progress = ("ssh_cfg_ctl", "--json", "--progress", "set")
    timeout, limit = router.SERVER + "cmn/timeout", router.SERVER + "cmn/session_limit"
    begun = time.monotonic()
    with subprocess.Popen([*progress, timeout, "51"], stdout=subprocess.PIPE, text=True) as first:
        router.wait_until(lambda: router.ctl("status")["in_progress"] is not None)
        with subprocess.Popen([*progress, limit, "7"], stdout=subprocess.PIPE, text=True) as second:
            assert router.ctl("get", timeout) == 51
            assert router.ctl("status")["in_progress"]["work"] == "restarting servers"
            assert "In progress: 0 of " in router.run("ssh_cfg_ctl", "status").stdout
            assert limit not in router.ctl("dump"), "a second change waits for the first"
            assert first.poll() is None and time.monotonic() - begun < 4
            first_lines = [json.loads(line) for line in first.communicate()[0].splitlines()]
            drop_in.remove()
            second_lines = [json.loads(line) for line in second.communicate()[0].splitlines()]
    for lines, waiting in ((first_lines, False), (second_lines, True)):
        assert lines[0]["progress"]["work"] == "restarting servers"
        assert lines[0]["progress"]["waiting"] is waiting
        assert lines[-1]["result"] == "done"
    assert router.ctl("get", limit) == 7
    assert router.ctl("status")["in_progress"] is None


# Hangs where the agent restarts servers, and is the real program for everybody else.
STUB = """#!/bin/sh
if [ "$1" = restart ] && grep -q ssh_cfg_agent.service /proc/self/cgroup && [ ! -e /run/restart_reached ]; then
    touch /run/restart_reached
    exec sleep 1000
fi
exec /usr/bin/systemctl "$@"
"""


def test_a_kill_between_the_files_and_the_restarts_is_made_good(server):
    for vrf in VRFS:
        server(vrf)
    # First in the agent's PATH.
    stub = pathlib.Path("/usr/local/sbin/systemctl")
    stub.write_text(STUB, encoding="ascii")
    stub.chmod(0o755)
    try:
        before = {vrf: router.main_pid(router.server_unit(vrf)) for vrf in VRFS}
        items = {router.SERVER + path: value for path, value in EIGHT.items()}
        with subprocess.Popen(["ssh_cfg_ctl", "load", "-"], stdin=subprocess.PIPE, stderr=subprocess.DEVNULL) as load:
            load.stdin.write(json.dumps(items).encode())
            load.stdin.close()
            router.wait_until(pathlib.Path("/run/restart_reached").exists)
            assert {vrf: router.main_pid(router.server_unit(vrf)) for vrf in VRFS} == before
            router.kill_agent(signal.SIGKILL)
    finally:
        stub.unlink()
        pathlib.Path("/run/restart_reached").unlink(missing_ok=True)
    for vrf in VRFS:
        assert router.main_pid(router.server_unit(vrf)) not in (0, before[vrf])
        assert "LoginGraceTime 42" in router.server_lines(vrf)
        assert "MaxAuthTries 5" in router.server_lines(vrf)
        assert router.port_answers(vrf)
        assert not is_blocked(vrf)
    assert router.ctl("verify") == []
