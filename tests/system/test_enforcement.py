"""Stored but not in force: exit status 6, the repair, and standby nodes."""

import json

import pytest
import router

TIMEOUT = router.SERVER + "cmn/timeout"
PLATFORM_FILE = "/etc/ssh_cfg_agent/platform.conf"


def tool(*arguments, **options):
    """Runs the tool without --json, as people do."""
    return router.run("ssh_cfg_ctl", *arguments, check=False, **options)


@pytest.fixture
def broken_unit():
    """Makes the unit of a VRF's server fail to start: broken_unit("red"). It works again after the test."""
    drop_ins = []

    def make(vrf):
        drop_in = router.UNITS / f"{router.server_unit(vrf)}.d" / "broken.conf"
        drop_in.parent.mkdir()
        drop_in.write_text("[Service]\nExecStart=\nExecStart=/bin/false\nType=oneshot\n")
        drop_ins.append(drop_in)
        router.run("systemctl", "daemon-reload")
        return drop_in

    yield make
    for drop_in in drop_ins:
        drop_in.unlink(missing_ok=True)
        drop_in.parent.rmdir()
    router.run("systemctl", "daemon-reload")


def test_a_server_that_fails_to_restart_is_named(server, broken_unit, journal):
    server("red")
    drop_in = broken_unit("red")
    result = tool("set", TIMEOUT, "45")
    assert result.returncode == 6
    assert "stored, not in force: server red: systemctl restart sshd_service_red failed" in result.stderr
    assert json.loads(tool("get", TIMEOUT).stdout) == 45
    assert any("result:=not_in_force" in line and "server red" in line for line in journal.messages(router.AGENT))

    # Setting the same value again fails, too, while the server is not running.
    again = router.ctl("set", TIMEOUT, "45", check=False)
    assert again.returncode == 6
    assert json.loads(again.stdout)["not_in_force"][0]["subject"] == "server red"

    drop_in.unlink()
    router.run("systemctl", "daemon-reload")
    assert tool("set", TIMEOUT, "46").returncode == 0
    router.wait_for_server("red")


def test_eleven_trustpoints_in_one_commit_are_refused(tmp_path):
    items = {f"{router.SERVER}cmn/trustpoint/user/T{number}": 1 for number in range(11)}
    file = tmp_path / "items.json"
    file.write_text(json.dumps(items))
    result = tool("load", file)
    assert result.returncode == 5
    assert "More than 10 trustpoints cannot be configured" in result.stderr
    assert not router.configuration()
    items.popitem()
    file.write_text(json.dumps(items))
    assert tool("load", file).returncode == 0
    assert len(tool("list", router.SERVER + "cmn/trustpoint/user/").stdout.split()) == 10


@pytest.fixture
def standby():
    """The agent of a standby node, whose configuration has a timeout of 45 seconds."""
    router.set_item("cmn/timeout", 45)
    file = router.pathlib.Path(PLATFORM_FILE)
    before = file.read_text() if file.exists() else None
    file.write_text("role = standby\n")
    router.run("systemctl", "restart", router.AGENT, timeout=120)
    yield file
    if before is None:
        file.unlink(missing_ok=True)
    else:
        file.write_text(before)
    router.wait_until(lambda: router.ctl("status")["role"] == "primary", 30, "the node is the primary one")


def test_a_standby_answers_but_refuses_changes(standby):
    status = router.ctl("status", timeout=10)
    assert status["role"] == "standby"
    assert tool("get", TIMEOUT, timeout=10).stdout == "45\n"
    result = tool("set", TIMEOUT, "46", timeout=10)
    assert result.returncode == 5
    assert "this node is a standby" in result.stderr
    standby.write_text("role = primary\n")
    router.wait_until(lambda: router.ctl("status", check=False).returncode == 0, 30, "the primary answers")
    router.wait_until(lambda: router.ctl("status")["role"] == "primary", 30, "the node is the primary one")
    assert tool("set", TIMEOUT, "46").returncode == 0


def test_a_file_that_sshd_rejects_only_when_it_starts_is_named_with_sshds_words(server, sshd_script):
    server("red")
    # A rehearsal cannot see the service manager's socket.
    sshd_script('[ ! -S /run/systemd/private ] || { echo "no more files" >&2; exit 255; }')
    result = tool("set", TIMEOUT, "45")
    assert result.returncode == 6
    # The last good file is tested as well, and rejected for the same reason.
    assert "stored, not in force: " in result.stderr and "red" in result.stderr
    assert json.loads(tool("get", TIMEOUT).stdout) == 45
    assert tool("verify").returncode == 1
