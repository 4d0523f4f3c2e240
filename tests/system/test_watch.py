"""Live telemetry: what a watcher receives, how a watch ends, and that a slow watcher delays nobody."""

import json
import os
import pathlib
import resource
import select
import signal
import socket
import struct
import subprocess
import time

import pytest
import router

STATE = "/openconfig-system:system/ssh-server/state"
SOCKET = router.RUNTIME / "control.sock"


class Watch:
    """`ssh_cfg_ctl watch`, line by line."""

    def __init__(self, *options):
        self.process = subprocess.Popen(
            ["ssh_cfg_ctl", *options, "watch"], stdout=subprocess.PIPE, stderr=subprocess.PIPE
        )
        self._rest = b""

    def line(self, seconds=15.0):
        """The next document; None at the time limit or at the end of the output."""
        end = time.monotonic() + seconds
        while b"\n" not in self._rest:
            ready, _, _ = select.select([self.process.stdout], [], [], max(0.0, end - time.monotonic()))
            chunk = os.read(self.process.stdout.fileno(), 65536) if ready else b""
            if not chunk:
                return None
            self._rest += chunk
        line, self._rest = self._rest.split(b"\n", 1)
        return json.loads(line)

    def state(self, **options):
        """The values of the next notification by leaf."""
        notification = self.line(**options)
        assert notification is not None, self.process.poll()
        assert notification["prefix"] == STATE
        return {update["path"]: update["val"] for update in notification["update"]}

    def state_until(self, **wanted):
        """Reads notifications until one has these values."""
        end = time.monotonic() + 20
        while time.monotonic() < end:
            state = self.state()
            if all(state.get(leaf.replace("_", "-")) == value for leaf, value in wanted.items()):
                return state
        raise AssertionError(f"never {wanted}")

    def end(self, number=signal.SIGINT):
        """Interrupts the watcher and returns its exit status and standard error."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        errors = self.process.stderr.read().decode()
        status = self.process.wait(timeout=10)
        self.process.stdout.close()
        self.process.stderr.close()
        return status, errors


@pytest.fixture
def watch():
    """Starts watchers, which end with the test: watch()."""
    started = []

    def start(*options):
        started.append(Watch(*options))
        return started[-1]

    yield start
    for one in started:
        if one.process.returncode is None:
            one.end(signal.SIGKILL)


def test_begins_with_the_state_in_force(watch):
    router.set_item("cmn/timeout", 45)
    before = time.time_ns()
    first = watch().line()
    assert before <= first["timestamp"] <= time.time_ns()
    assert first == {
        "timestamp": first["timestamp"],
        "prefix": STATE,
        "update": [
            {"path": "enable", "val": False},
            {"path": "protocol-version", "val": "V2"},
            {"path": "timeout", "val": 45},
            {"path": "rate-limit", "val": 60},
            {"path": "session-limit", "val": 64},
        ],
    }


def test_changes_of_settings_are_reported(watch):
    watcher = watch()
    assert watcher.state()["timeout"] == 30
    router.set_item("cmn/timeout", 77)
    assert watcher.state() == {
        "enable": False,
        "protocol-version": "V2",
        "timeout": 77,
        "rate-limit": 60,
        "session-limit": 64,
    }
    router.set_item("cmn/rate_limit", 120)
    assert watcher.state()["rate-limit"] == 120
    router.set_item("cmn/session_limit", 10)
    assert watcher.state()["session-limit"] == 10
    router.delete_item("cmn/timeout")
    assert watcher.state()["timeout"] == 30
    assert watcher.line(seconds=1.0) is None and watcher.process.poll() is None


def test_the_server_of_the_default_vrf_is_reported(watch):
    watcher = watch()
    assert watcher.state()["enable"] is False
    router.set_item("sshd/vrf/default", router.OPEN)
    watcher.state_until(enable=True)
    router.delete_item("sshd/vrf/default")
    watcher.state_until(enable=False)


def test_timestamps_increase(watch):
    watcher = watch()
    stamps = [watcher.line()["timestamp"]]
    for timeout in range(30, 40):
        router.set_item("cmn/timeout", timeout + 5)
        stamps.append(watcher.line()["timestamp"])
    assert stamps == sorted(set(stamps))


def test_every_watcher_receives_events(watch):
    watchers = [watch() for _ in range(5)]
    for watcher in watchers:
        watcher.state()
    router.set_item("cmn/timeout", 99)
    assert [watcher.state()["timeout"] for watcher in watchers] == [99] * 5


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_ends_when_it_is_interrupted(watch, number):
    watcher = watch()
    watcher.state()
    assert watcher.end(number) == (0, "")


def test_ends_with_its_reader():
    result = router.run("bash", "-c", "set -o pipefail; ssh_cfg_ctl watch | head -n 1")
    assert json.loads(result.stdout)["prefix"] == STATE


def test_ends_with_the_agent(watch):
    watcher = watch()
    as_json = watch("--json")
    watcher.state()
    as_json.state()
    router.restart_agent()
    assert watcher.line() is None
    assert watcher.end() == (3, "ssh_cfg_ctl: the agent closed the connection\n")
    assert as_json.line() == {"result": "unreachable", "message": "the agent closed the connection"}
    assert as_json.end()[0] == 3


def test_ends_with_an_agent_that_is_killed(watch):
    watcher = watch()
    watcher.state()
    router.kill_agent()
    assert watcher.line() is None
    assert watcher.end()[0] == 3


def test_survives_the_idle_timeout_of_other_connections(watch):
    """An idle connection is dropped after a minute; a watcher may be silent for longer."""
    watcher = watch()
    watcher.state()
    time.sleep(63)
    router.set_item("cmn/timeout", 41)
    assert watcher.state()["timeout"] == 41


def test_the_number_of_watchers_is_limited(watch):
    watchers = [watch() for _ in range(16)]
    for watcher in watchers:
        watcher.state()
    one_more = watch()
    assert one_more.line() is None
    status, errors = one_more.end()
    assert (status, errors) == (1, "ssh_cfg_ctl: too many watchers: the limit is 16\n")
    assert watchers[0].end()[0] == 0
    router.wait_until(lambda: watch().line(seconds=2.0) is not None, what="a place is free")


def resident_memory(pid):
    pages = int(pathlib.Path(f"/proc/{pid}/statm").read_text(encoding="ascii").split()[1])
    return pages * resource.getpagesize()


def deaf_watcher():
    """A connection that requests a watch and never reads."""
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    connection.connect(str(SOCKET))
    request = b'{"call":"watch"}'
    connection.sendall(struct.pack(">I", len(request)) + request)
    return connection


def test_watchers_that_do_not_read_delay_nobody(watch):
    """Hundreds of events with a stopped watcher and one that never reads do not slow the agent down."""
    reader = watch()
    reader.state()
    stopped = watch()
    stopped.state()
    stopped.process.send_signal(signal.SIGSTOP)
    with deaf_watcher():
        before = resident_memory(router.main_pid(router.AGENT))
        for number in range(100):
            start = time.monotonic()
            router.set_item("cmn/rate_limit", 1 + number % 50)
            assert time.monotonic() - start < 10
            assert reader.state()["rate-limit"] == 1 + number % 50
        assert resident_memory(router.main_pid(router.AGENT)) - before < 4 * 1024 * 1024
        stopped.process.send_signal(signal.SIGCONT)
        assert [stopped.state()["rate-limit"] for _ in range(100)] == [1 + number % 50 for number in range(100)]
    assert router.ctl("status")["ready"] is True
