"""The agent as a systemd service: stopped during a change, and restarted when it hangs."""

import os
import pathlib
import signal
import subprocess
import time

import pytest
import router

VRFS = [f"v{number}" for number in range(1, 7)]

# Is slow when the agent runs it.
SLOW = """#!/bin/sh
if grep -q ssh_cfg_agent.service /proc/self/cgroup; then
    sleep {seconds}
fi
exec /usr/bin/systemctl.real "$@"
"""


@pytest.fixture
def slow_systemctl():
    """Makes each systemctl of the agent take longer: slow_systemctl(2)."""
    program = pathlib.Path("/usr/bin/systemctl")
    real = program.with_name("systemctl.real")
    program.rename(real)

    def make(seconds):
        program.unlink(missing_ok=True)
        program.write_text(SLOW.format(seconds=seconds), encoding="ascii")
        program.chmod(0o755)

    make(0)
    yield make
    real.rename(program)


@pytest.fixture
def service_setting():
    """Changes settings of the agent's unit for the rest of the test and restarts it: service_setting("WatchdogSec=3")."""
    drop_in = pathlib.Path("/run/systemd/system") / f"{router.AGENT}.d" / "test.conf"

    def make(*lines):
        drop_in.parent.mkdir(parents=True, exist_ok=True)
        drop_in.write_text("[Service]\n" + "".join(line + "\n" for line in lines), encoding="ascii")
        router.run("systemctl", "daemon-reload")
        router.restart_agent()

    yield make
    drop_in.unlink(missing_ok=True)
    router.run("systemctl", "daemon-reload")
    router.run("systemctl", "restart", router.AGENT, timeout=120)
    router.wait_for_agent()


def start_change(value):
    """Starts to set the timeout; the caller waits for the tool."""
    words = ["ssh_cfg_ctl", "set", router.SERVER + "cmn/timeout", str(value)]
    return subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def files_with(value, vrfs=VRFS):
    return [vrf for vrf in vrfs if f"LoginGraceTime {value}" in router.server_lines(vrf)]


def started(vrf):
    """When the VRF's server started, in seconds since the epoch."""
    seconds = router.run("date", "+%s.%N", "--date",
                         router.unit_property(router.server_unit(vrf), "ExecMainStartTimestamp")).stdout
    return float(seconds)


def test_a_restart_during_a_change_lets_it_finish(server, slow_systemctl):
    for vrf in VRFS:
        server(vrf)
    before = router.main_pid(router.AGENT)
    slow_systemctl(2)
    # systemd reports whole seconds.
    time.sleep(1.1)
    begin = int(time.time())
    change = start_change(77)
    router.wait_until(lambda: files_with(77) == VRFS, what="the change is under way")
    assert change.poll() is None, "the servers are still to be restarted"
    slow_systemctl(0)
    router.restart_agent()
    output, errors = change.communicate(timeout=30)
    assert change.returncode == 0, output + errors
    assert router.main_pid(router.AGENT) != before
    assert router.ctl("get", router.SERVER + "cmn/timeout") == 77
    assert "LoginGraceTime 77" in router.server_lines()
    assert files_with(77) == VRFS
    for vrf in VRFS:
        router.wait_for_server(vrf)
        assert started(vrf) >= begin, f"the server of {vrf} was not restarted"
    assert respawns_are_clean()


def respawns_are_clean():
    """Whether the agent's last end was a clean stop."""
    return router.respawn_count() == 1


def test_a_stop_ends_with_status_0(journal):
    router.run("systemctl", "stop", router.AGENT, timeout=60)
    assert router.unit_property(router.AGENT, "ExecMainCode") == "1", "exited, not killed"
    assert router.unit_property(router.AGENT, "ExecMainStatus") == "0"
    assert router.unit_property(router.AGENT, "Result") == "success"
    assert not (router.RUNTIME / "control.sock").exists()
    # Only by text: journald does not know the unit of a process that has ended.
    assert journal.wait_for("Ending after signal 15")


def test_a_long_change_survives_the_stop_timeout(server, slow_systemctl, service_setting):
    for vrf in VRFS[:4]:
        server(vrf)
    service_setting("TimeoutStopSec=3")
    slow_systemctl(2)
    change = start_change(78)
    router.wait_until(lambda: files_with(78, VRFS[:4]), what="the change is under way")
    router.run("systemctl", "stop", router.AGENT, timeout=60)
    assert change.wait(timeout=10) == 0
    assert files_with(78, VRFS[:4]) == VRFS[:4]
    assert router.unit_property(router.AGENT, "Result") == "success"


def watchdog_restart(before):
    router.wait_until(lambda: router.main_pid(router.AGENT) not in (0, before), 30, "the watchdog restarts the agent")
    router.wait_for_agent()


def test_a_hanging_agent_is_restarted(server, service_setting, journal):
    server("red")
    service_setting("WatchdogSec=3")
    router.wait_for_server("red")
    server_before = router.main_pid(router.server_unit("red"))
    before = router.main_pid(router.AGENT)
    time.sleep(5)
    assert router.main_pid(router.AGENT) == before, "an idle agent feeds its watchdog"
    os.kill(before, signal.SIGSTOP)
    watchdog_restart(before)
    assert journal.wait_for("Watchdog timeout", router.AGENT)
    assert router.respawn_count() == 2
    assert router.main_pid(router.server_unit("red")) == server_before


def test_a_hanging_handler_is_killed(server, slow_systemctl, service_setting):
    server("red")
    service_setting("WatchdogSec=3")
    before = router.main_pid(router.AGENT)
    slow_systemctl(20)
    change = start_change(79)
    router.wait_until(lambda: router.main_pid(router.AGENT) != before, 30, "the watchdog ends the agent")
    assert change.wait(timeout=10) == 3
    assert "closed the connection before answering" in change.stderr.read()
    slow_systemctl(0)
    watchdog_restart(before)


def test_a_long_change_is_no_hang(server, slow_systemctl, service_setting):
    for vrf in VRFS[:4]:
        server(vrf)
    service_setting("WatchdogSec=3")
    before = router.main_pid(router.AGENT)
    slow_systemctl(2)
    assert router.set_item("cmn/timeout", 80, timeout=60)
    assert router.main_pid(router.AGENT) == before
