"""Commands that never end: the agent kills them, reports them, and continues."""

import pathlib
import time

import access_lists
import pytest
import router

# The limits of src/core/shell_command.h in seconds, with a margin for a busy machine.
SYSTEMCTL_LIMIT = 30
LOAD_LIMIT = 30
LISTING_LIMIT = 10
ROOM = 15

# Hangs with a child process when the agent runs it, and is the real program for everyone else.
STUB = """#!/bin/sh
if grep -q ssh_cfg_agent.service /proc/self/cgroup; then
    sleep 123456 &
    wait
    sleep 123456
fi
exec {program} "$@"
"""


def agents_processes():
    """Names of the processes in the agent's control group."""
    group = router.unit_property(router.AGENT, "ControlGroup")
    pids = pathlib.Path("/sys/fs/cgroup", group.lstrip("/"), "cgroup.procs").read_text(encoding="ascii").split()
    return sorted(pathlib.Path("/proc", pid, "comm").read_text(encoding="ascii").strip() for pid in pids)


@pytest.fixture
def hanging():
    """Makes a program hang for the agent: hanging("/usr/bin/ps"). Called again without an argument, ends that."""
    replaced = []

    def restore():
        while replaced:
            real, program = replaced.pop()
            real.rename(program)

    def make(program=None):
        restore()
        if program is not None:
            program = pathlib.Path(program).resolve()
            real = program.with_name(program.name + ".real")
            program.rename(real)
            program.write_text(STUB.format(program=real), encoding="ascii")
            program.chmod(0o755)
            replaced.append((real, program))

    yield make
    restore()


class Stopwatch:
    def __init__(self):
        self._start = time.monotonic()

    def seconds(self):
        return time.monotonic() - self._start


def test_systemctl_times_out_once_per_change(server, hanging, journal):
    for vrf in ("blue", "green", "red"):
        server(vrf)
    pids = {vrf: router.main_pid(router.server_unit(vrf)) for vrf in ("blue", "green", "red")}
    hanging("/usr/bin/systemctl")
    watch = Stopwatch()
    result = router.set_item("cmn/timeout", 77, check=False, timeout=90)
    assert SYSTEMCTL_LIMIT <= watch.seconds() < SYSTEMCTL_LIMIT + ROOM
    assert result.returncode == 6
    for vrf in pids:
        assert f"server {vrf}: systemctl restart sshd_service_{vrf} timed out" in result.stderr
        assert "LoginGraceTime 77" in router.server_lines(vrf)
    assert journal.wait_for("Command did not end in time: systemctl restart sshd_service_red", router.AGENT)
    assert agents_processes() == ["ssh_cfg_agent"]

    hanging()
    assert router.set_item("cmn/timeout", 78, timeout=30)
    for vrf, pid in pids.items():
        router.wait_for_server(vrf)
        assert router.main_pid(router.server_unit(vrf)) not in (0, pid)


def test_nft_times_out(server, hanging, journal):
    server("red")
    access_lists.set_list("ipv4", "hosts", "10 permit ipv4 any any")
    hanging("/usr/sbin/nft")
    watch = Stopwatch()
    router.set_item("sshd/vrf/red", [None, "hosts", None], check=False, timeout=150)
    assert watch.seconds() >= LOAD_LIMIT
    assert journal.wait_for("Error:=Connection timed out(0x6e), Failed to apply nft rules", router.AGENT)
    assert agents_processes() == ["ssh_cfg_agent"]
    hanging()
    assert router.set_item("cmn/timeout", 78)


def test_ps_times_out(server, hanging):
    server("red")
    hanging("/usr/bin/ps")
    watch = Stopwatch()
    router.ctl("show", "/oper/crypto-ssh/gl/sshddata/brief", check=False, timeout=90)
    assert LISTING_LIMIT <= watch.seconds() < LISTING_LIMIT + ROOM
    assert agents_processes() == ["ssh_cfg_agent"]
    hanging()
    assert router.ctl("show", "/oper/crypto-ssh/gl/sshddata/brief", check=False).returncode in (0, 4)
