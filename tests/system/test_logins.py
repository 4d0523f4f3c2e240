"""Logins to running servers inside their VRFs."""

import os
import signal
import subprocess

import pytest
import router
from router import OPEN, ssh


@pytest.mark.parametrize("key", ["id_rsa", "id_ed25519"])
def test_login_inside_the_vrf(server, key):
    server("red")
    options = ["IdentitiesOnly=yes", f"IdentityFile=/root/.ssh/{key}"]
    inside = ssh("red", "readlink", "/proc/self/ns/net", options=options).stdout
    assert inside == router.in_vrf("red", "readlink", "/proc/self/ns/net").stdout


def test_default_vrf_is_the_machines_own_network():
    router.set_item("sshd/v2", True)
    router.wait_for_server("default")
    assert ssh("default", "readlink", "/proc/self/ns/net").stdout.strip() == os.readlink("/proc/1/ns/net")


def test_a_server_is_reachable_only_in_its_own_vrf(server, vrf):
    server("red")
    vrf("blue")
    assert not router.port_answers("blue")
    assert not router.port_answers("default")


def test_ssh_and_netconf_share_one_server(server, netconf_proxy):
    server("both")
    server("both", "vrf-netconf", 830)
    assert router.netconf("both", "<hello/>").stdout == "proxy -i 0 -o 1\n<hello/>"
    router.delete_item("sshd/vrf/both")
    router.wait_until(lambda: not router.port_answers("both", 22), what="port 22 is closed")
    router.wait_for_server("both", 830)


def test_item_first_and_namespace_later(vrf):
    router.set_item("sshd/vrf/later", OPEN)
    assert not router.is_active(router.server_unit("later"))
    vrf("later")
    router.wait_for_server("later", seconds=30)
    assert ssh("later", "whoami").stdout == "operator\n"


def test_server_stops_and_starts_with_its_namespace(server):
    server("red")
    router.delete_namespace("red")
    router.wait_until(lambda: not router.is_active(router.server_unit("red")), what="the server is stopped")
    router.wait_until(lambda: not (router.UNITS / router.server_unit("red")).exists(), what="the unit is gone")
    router.add_namespace("red")
    router.wait_for_server("red", seconds=30)


def open_session(vrf, script):
    """A session that has begun to run a script, which is fed through the pipes of the returned process."""
    session = subprocess.Popen(
        ["ip", "netns", "exec", f"vrf-{vrf}", "ssh", "-o", "BatchMode=yes", "-o", "StrictHostKeyChecking=no", "-o",
         "UserKnownHostsFile=/dev/null", "-o", "LogLevel=ERROR", "operator@127.0.0.1", "echo in; " + script],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
    )
    assert session.stdout.readline() == "in\n"
    return session


def test_servers_and_sessions_survive_when_the_agent_is_killed(server):
    server("red")
    before = router.main_pid(router.server_unit("red"))
    session = open_session("red", "read -r _; echo still here")
    router.kill_agent(signal.SIGKILL)
    assert router.main_pid(router.server_unit("red")) == before
    assert ssh("red", "whoami").stdout == "operator\n"
    assert session.poll() is None
    assert session.communicate("go\n", timeout=20)[0] == "still here\n"


def test_configuration_survives_a_restart(server):
    server("red")
    router.set_item("cmn/timeout", 77)
    configured = router.configuration()
    router.run("systemctl", "stop", router.AGENT, timeout=60)
    # Only the stored configuration is left.
    for file in router.FILES.iterdir():
        file.unlink()
    router.restart_agent()
    router.wait_for_server("red")
    assert router.configuration() == configured
    assert "LoginGraceTime 77" in router.server_lines()
    assert "LoginGraceTime 77" in router.server_lines("red")


def test_session_survives_the_restart_of_its_server(server):
    server("red")
    # The session must still produce output after the change.
    session = open_session("red", "read -r _; echo still here")
    before = router.main_pid(router.server_unit("red"))
    router.set_item("cmn/timeout", 66)
    assert router.main_pid(router.server_unit("red")) != before
    assert session.communicate("go\n", timeout=20)[0] == "still here\n"


def test_walk_through_of_the_examples():
    router.run(os.path.join(os.path.dirname(__file__), "../../examples/run"), timeout=120, stdin=subprocess.DEVNULL)
