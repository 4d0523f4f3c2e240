"""`ssh_cfg_ctl status` shows the real state: namespaces, units, listening ports, files, rules, blocks and failures."""

import json
import shutil
import time

import access_lists
import pytest
import router
from access_lists import ALLOWED, set_list


@pytest.fixture(autouse=True)
def no_lists(clean_router):
    """Removes the lists before the router is cleaned up."""
    yield
    access_lists.delete_all_lists()


def state(name="red"):
    """The status of one VRF; None if it is not shown."""
    return next((vrf for vrf in router.ctl("status")["vrfs"] if vrf["name"] == name), None)


def problems():
    return [f"{problem['subject']}: {problem['text']}" for problem in router.ctl("status")["problems"]]


def table_line(name="red"):
    """The VRF's line of the table for people."""
    lines = router.run("ssh_cfg_ctl", "status").stdout.splitlines()
    return next(line for line in lines if line.split()[:1] == [name])


def check():
    """The exit status of `status --check`."""
    return router.run("ssh_cfg_ctl", "status", "--check", check=False).returncode


def test_a_server_without_problems_is_one_line(server):
    server("red")
    server("red", "vrf-netconf", 830)
    vrf = state()
    assert vrf["services"] == ["ssh", "netconf"] and vrf["namespace"] is True and vrf["ports"] == [22, 830]
    assert (vrf["unit"]["active"], vrf["unit"]["sub"]) == ("active", "running")
    assert vrf["unit"]["process"] == router.main_pid(router.server_unit("red"))
    assert vrf["file"] == {
        "path": str(router.server_file("red")), "in_use": "current", "reason": "", "not_in_force": [],
        "local": {"in_use": "none", "problems": []},
    }
    assert vrf["access_lists"] == [] and vrf["failures"] == []
    assert vrf["blocked"] is False and vrf["closed"] == [] and vrf["blocked_since"] is None
    assert problems() == []
    assert check() == 0
    assert table_line().split() == "red ssh netconf present running 22 830 current none no".split()


def test_a_restart_of_the_agent_changes_nothing(server):
    server("red")
    before = state()
    router.restart_agent()
    assert state() == before
    assert problems() == [] and check() == 0


def test_a_stopped_server(server):
    server("red")
    router.run("systemctl", "stop", router.server_unit("red"))
    assert state()["ports"] == []
    assert problems() == ["VRF red: its server is not running: sshd_service_red.service is inactive (dead)"]
    assert "inactive (dead)" in table_line()
    assert check() == 1


def test_a_failed_unit(server):
    server("red")
    drop_in = router.UNITS / f"{router.server_unit('red')}.d"
    drop_in.mkdir()
    try:
        (drop_in / "false.conf").write_text("[Service]\nExecStart=\nExecStart=/bin/false\nRestart=no\n", encoding="ascii")
        router.run("systemctl", "daemon-reload")
        router.run("systemctl", "restart", router.server_unit("red"), check=False)
        router.wait_until(lambda: state()["unit"]["active"] == "failed", what="a failed unit")
        assert state()["unit"]["result"] == "exit-code" and state()["unit"]["process"] == 0
        assert "VRF red: its server is not running: sshd_service_red.service is failed (failed), exit-code" in problems()
        assert check() == 1
    finally:
        shutil.rmtree(drop_in)
        router.run("systemctl", "daemon-reload")


def test_a_server_that_does_not_listen(server):
    """systemd considers the unit running although its process never listens."""
    server("red")
    drop_in = router.UNITS / f"{router.server_unit('red')}.d"
    drop_in.mkdir()
    try:
        (drop_in / "sleep.conf").write_text("[Service]\nType=simple\nExecStart=\nExecStart=/bin/sleep 1000\n", encoding="ascii")
        router.run("systemctl", "daemon-reload")
        router.run("systemctl", "restart", router.server_unit("red"))
        assert state()["unit"]["sub"] == "running" and state()["ports"] == [] and state()["file"] is None
        assert "VRF red: its server does not listen on port 22 (ssh)" in problems()
        assert "VRF red: its server runs in another namespace than vrf-red" in problems()
    finally:
        shutil.rmtree(drop_in)
        router.run("systemctl", "daemon-reload")


def test_a_missing_namespace():
    router.set_item("sshd/vrf/red", router.OPEN)
    vrf = state()
    assert vrf["services"] == ["ssh"] and vrf["namespace"] is False and vrf["ports"] == []
    assert problems() == ["VRF red: its namespace vrf-red does not exist, so it can have no server"]
    assert "missing" in table_line()
    assert check() == 1


def vrf_list():
    """The lines of `vrf list` by VRF: namespace, ssh, netconf, waiting."""
    lines = [line.split() for line in router.run("ssh_cfg_ctl", "vrf", "list").stdout.splitlines()[1:]]
    as_json = {vrf["name"]: vrf["waiting"] for vrf in router.ctl("vrf", "list")}
    assert list(as_json) == [line[0] for line in lines]
    return {line[0]: (*line[2:5], as_json[line[0]]) for line in lines}


def test_services_wait_for_a_missing_namespace(vrf):
    items = {"sshd/vrf/red": router.OPEN, "sshd/vrf-netconf/red": router.OPEN}
    paths = [router.SERVER + path for path in items]
    checked = router.run("ssh_cfg_ctl", "load", "--check", "-", input=json.dumps(dict.fromkeys(paths, router.OPEN)))
    for path in paths:
        assert f"{path}: would be stored, waits for namespace vrf-red" in checked.stderr
    for path in paths:
        answer = router.run("ssh_cfg_ctl", "set", path, json.dumps(router.OPEN))
        assert f"{path}: stored, waits for namespace vrf-red" in answer.stderr
    assert vrf_list()["red"] == ("no", "no", "no", ["ssh", "netconf"])
    router.restart_agent()
    assert vrf_list()["red"] == ("no", "no", "no", ["ssh", "netconf"])

    vrf("red")
    router.wait_for_server("red", 830)
    assert vrf_list()["red"] == ("yes", "yes", "yes", [])
    assert router.run("ssh_cfg_ctl", "set", paths[0], json.dumps(router.OPEN)).stderr == ""
    router.delete_item("sshd/vrf-netconf/red")
    assert vrf_list()["red"] == ("yes", "yes", "no", [])

    router.delete_namespace("red")
    router.wait_until(lambda: vrf_list()["red"] == ("no", "no", "no", ["ssh"]), what="the service waits again")
    router.delete_item("sshd/vrf/red")
    assert vrf_list().get("red", (..., ..., ..., []))[3] == []


def test_a_list_that_does_not_exist(server):
    server("red")
    set_list("ipv6", "ops", "permit tcp any any")
    router.set_item("sshd/vrf/red", [None, "absent", "ops"])
    states = {(entry["family"], entry["name"]): entry["state"] for entry in state()["access_lists"]}
    assert states == {("ipv4", "absent"): "no_list", ("ipv6", "ops"): "loaded"}
    assert any("there is no IPv4 access list absent" in problem for problem in problems())
    assert "1 of 2 loaded" in table_line()
    assert check() == 1


def test_rules_removed_by_hand(server):
    server("red")
    set_list("ipv4", "ops", "permit tcp any any")
    router.set_item("sshd/vrf/red", [None, "ops", None])
    assert state()["access_lists"][0]["state"] == "loaded" and problems() == []
    router.in_vrf("red", "nft", "flush", "table", "ip", "norvossh_v4acl")
    assert state()["access_lists"][0]["state"] == "not_loaded"
    assert problems() == ["VRF red: IPv4 access list ops of SSH is not loaded"]


def test_a_service_blocked_because_its_list_is_not_loaded(server, nft_that_rejects):
    server("red")
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    accept_again = nft_that_rejects("norvossh_v4acl")
    before = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
    assert router.set_item("sshd/vrf/red", [None, "ops", None], check=False).returncode == 6
    vrf = state()
    assert vrf["closed"] == ["ssh ipv4"] and before <= vrf["blocked_since"]
    assert vrf["access_lists"][0]["state"] == "not_loaded"
    assert "rules red ssh ipv4" in [failure["subject"] for failure in vrf["failures"]]
    since = vrf["blocked_since"]
    closed = f"VRF red: new connections to ssh ipv4 are blocked since {since} for want of the access list"
    assert closed in problems()
    assert "ssh ipv4" in table_line()
    assert check() == 1

    accept_again()
    router.run("ssh_cfg_ctl", "vrf", "unblock", "red")
    assert state()["closed"] == [] and state()["blocked_since"] is None


def test_a_blocked_vrf(server):
    """A VRF whose server does not start stays blocked."""
    server("red")
    drop_in = router.UNITS / f"{router.server_unit('red')}.d"
    drop_in.mkdir()
    try:
        (drop_in / "false.conf").write_text("[Service]\nExecStart=\nExecStart=/bin/false\nRestart=no\n", encoding="ascii")
        router.run("systemctl", "daemon-reload")
        assert router.set_item("cmn/timeout", 33, check=False).returncode == 6
        vrf = state()
        assert vrf["blocked"] is True
        failure = vrf["failures"][0]
        assert failure["subject"] == "server red" and failure["reason"]
        blocked = f"VRF red: new connections are blocked since {vrf['blocked_since']}: {failure['reason']}"
        assert blocked in problems()
    finally:
        shutil.rmtree(drop_in)
        router.run("systemctl", "daemon-reload")
        router.ctl("repair", check=False)


def test_the_last_good_file(server):
    server("red")
    with router.server_file("red").open("a", encoding="utf-8") as file:
        file.write("MaxStartups nonsense\n")
    router.run("systemctl", "restart", router.server_unit("red"))
    router.wait_for_server("red")
    vrf = state()
    assert vrf["file"]["in_use"] == "last_good" and "Invalid MaxStartups spec" in vrf["file"]["reason"]
    (problem,) = problems()
    assert problem.startswith("VRF red: its server runs with an earlier, last good file: sshd rejects the file")
    assert "last good" in table_line()
    assert check() == 1


def test_a_hanging_systemd_delays_nobody(server):
    server("red")
    stub = router.RUNTIME / "hanging_systemctl"
    stub.write_text("#!/bin/sh\nsleep 1000\n", encoding="ascii")
    stub.chmod(0o755)
    router.run("mount", "--bind", stub, "/usr/bin/systemctl")
    try:
        begin = time.monotonic()
        status = router.ctl("status")
        assert time.monotonic() - begin < 10
    finally:
        router.run("umount", "/usr/bin/systemctl")
    assert status["vrfs"][0]["unit"] is None
    assert [problem["subject"] for problem in status["problems"]] == ["servers"]


def test_many_vrfs_are_shown_quickly():
    names = [f"n{number}" for number in range(64)]
    router.load({f"sshd/vrf/{name}": router.OPEN for name in names})
    begin = time.monotonic()
    assert len(router.ctl("status")["vrfs"]) == 64
    assert time.monotonic() - begin < 3
