"""The limits of new connections and of concurrent sessions, with real connections that are refused."""

import os
import pathlib
import re
import signal
import subprocess
import time

import pytest
import router
from router import run, ssh

NFT = pathlib.Path("/usr/sbin/nft")

CONNECT = """
import socket, sys
for target in sys.argv[1:]:
    address, port = target.split()
    try:
        connection = socket.create_connection((address, int(port)), 5)
        print("+" if connection.recv(4) == b"SSH-" else "-")
    except ConnectionRefusedError:
        print("refused")
"""


def connect(vrf, *targets):
    """Connects to each "ADDRESS PORT" in turn: "+" for a server that answers, or "refused"."""
    return router.in_vrf(vrf, "/usr/bin/python3", "-c", CONNECT, *targets).stdout.split()


def wait_until_listening(vrf, port=22):
    """Without a connection, which would count."""
    router.wait_until(lambda: f":{port} " in router.in_vrf(vrf, "ss", "-Hltn").stdout, what=f"port {port} listens")


def limit_of(vrf):
    """The rate in the VRF's table; None without a table."""
    rules = router.in_vrf(vrf, "nft", "list", "ruleset").stdout
    rates = re.findall(r"limit rate over (\d+)/minute burst (\d+) packets", rules)
    assert len(rates) == rules.count("table inet norvo_limits") <= 1, rules
    return rates[0] if rates else None


def set_limit(vrf, **items):
    router.load({f"cmn/{name}": value for name, value in items.items()})
    wait_until_listening(vrf)


@pytest.fixture(name="both")
def fixture_both(server, netconf_proxy):
    """A VRF with an SSH and a NETCONF server."""
    vrf = server("red")
    return server(vrf, "vrf-netconf", 830)


# --- New connections


def test_connections_above_the_rate_limit_are_refused(both):
    set_limit(both, rate_limit=20)
    assert limit_of(both) == ("20", "20")
    targets = ["127.0.0.1 22", "::1 22", "127.0.0.1 830", "::1 830"] * 5
    assert connect(both, *targets) == ["+"] * 20
    assert connect(both, *targets[:4]) == ["refused"] * 4
    assert "Connection refused" in ssh(both, "true", check=False).stderr
    # Twenty a minute: one more every three seconds.
    time.sleep(3.2)
    assert connect(both, "::1 22", "127.0.0.1 22") == ["+", "refused"]


def test_a_refused_connection_does_not_disturb_an_open_one(both):
    set_limit(both, rate_limit=1)
    words = ["ip", "netns", "exec", f"vrf-{both}", "ssh", "-o", "BatchMode=yes", "-o", "UserKnownHostsFile=/dev/null",
             "-o", "StrictHostKeyChecking=no", "operator@127.0.0.1", "cat"]
    with subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as session:
        session.stdin.write("one\n")
        session.stdin.flush()
        assert session.stdout.readline() == "one\n"
        assert connect(both, "127.0.0.1 22", "::1 830") == ["refused"] * 2
        assert session.communicate("two\n", timeout=10)[0] == "two\n"


def test_another_rate_replaces_the_rule_and_deleting_it_restores_the_default(both):
    assert limit_of(both) == ("60", "60")
    for rate in (600, 1, 7):
        set_limit(both, rate_limit=rate)
        assert limit_of(both) == (str(rate), str(rate))
    router.delete_item("cmn/rate_limit")
    wait_until_listening(both)
    assert limit_of(both) == ("60", "60")


def test_a_server_that_has_ended_leaves_no_rule(both):
    unit = router.server_unit(both)
    os.kill(router.main_pid(unit), signal.SIGKILL)
    router.wait_until(lambda: router.unit_property(unit, "NRestarts") == "1", what="systemd starts the server again")
    wait_until_listening(both)
    assert limit_of(both) == ("60", "60")
    router.delete_item("sshd/vrf/red")
    wait_until_listening(both, 830)
    assert limit_of(both) == ("60", "60")
    router.delete_item("sshd/vrf-netconf/red")
    assert not router.is_active(unit)
    assert limit_of(both) is None


def test_the_end_of_a_namespace_is_no_failure(server, journal):
    unit = router.server_unit(server("red"))
    router.delete_namespace("red")
    router.wait_until(lambda: not router.is_active(unit), what="the server is stopped")
    assert not any("limit" in message for message in journal.messages(unit))


def test_no_rule_remains_in_the_machines_own_network():
    router.set_item("sshd/v2", True)
    router.wait_for_server("default")
    assert limit_of("default") == ("60", "60")
    router.delete_item("sshd/v2")
    assert limit_of("default") is None


def restart_with(vrf, line):
    """Adds a line to a server's file, as an administrator might, and restarts the server."""
    with router.server_file(vrf).open("a", encoding="utf-8") as file:
        file.write(line + "\n")
    run("systemctl", "restart", router.server_unit(vrf))
    router.wait_for_server(vrf)


def test_an_invalid_limit_causes_one_log_line(server, journal):
    vrf = server("red")
    restart_with(vrf, "RateLimitQd many")
    message = journal.wait_for("RateLimitQd ignored")
    assert message.endswith('RateLimitQd ignored: "many" is not a number from 1 to 1000')
    assert limit_of(vrf) == ("60", "60")


def test_without_nft_the_server_starts(server, journal):
    vrf = server("red")
    NFT.rename("/usr/sbin/nft.away")
    try:
        restart_with(vrf, "")
        journal.wait_for("the limit of 60 new connections per minute is not in force: /usr/sbin/nft cannot be started")
    finally:
        pathlib.Path("/usr/sbin/nft.away").rename(NFT)
    assert ssh(vrf, "id", "-un").stdout == "operator\n"


# --- Sessions


class Sessions:
    """Logins that stay until they are ended."""

    def __init__(self):
        self.open = []

    def log_in(self, vrf, host="127.0.0.1", port=22, options=(), environment=None):
        words = ["ip", "netns", "exec", f"vrf-{vrf}", "ssh", "-p", str(port), "-o", "UserKnownHostsFile=/dev/null"]
        words += ["-o", "StrictHostKeyChecking=no", "-o", "LogLevel=ERROR"]
        for option in options or ["BatchMode=yes"]:
            words += ["-o", option]
        words += [f"operator@{host}", *(["-s", "netconf"] if port == 830 else ["echo in; exec cat"])]
        session = subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                   env={**os.environ, **(environment or {})})
        self.open.append(session)
        assert session.stdout.readline() == ("proxy -i 0 -o 1\n" if port == 830 else "in\n")
        return session

    def end(self, session):
        self.open.remove(session)
        session.stdin.close()
        session.stdout.close()
        session.wait(10)


@pytest.fixture(name="sessions")
def fixture_sessions():
    sessions = Sessions()
    yield sessions
    for session in list(sessions.open):
        sessions.end(session)


def may_log_in(vrf):
    result = ssh(vrf, "id", "-un", check=False)
    assert result.returncode in (0, 255)
    return result.returncode == 0


def expect_refusal(vrf, is_open, limit, host="127.0.0.1", port=22, options=("BatchMode=yes",), environment=None):
    words = ["ssh", "-p", port, "-o", "UserKnownHostsFile=/dev/null", "-o", "StrictHostKeyChecking=no"]
    words += [word for option in options for word in ("-o", option)]
    result = router.in_vrf(vrf, *words, f"operator@{host}", "id", "-un", check=False,
                           env={**os.environ, **(environment or {})})
    assert result.returncode == 255 and result.stdout == ""
    assert f"Too many sessions: {is_open} of at most {limit} are open." in result.stderr


def test_sessions_above_the_limit_are_refused_with_a_message(both, sessions, journal):
    set_limit(both, session_limit=3)
    sessions.log_in(both)
    sessions.log_in(both, host="::1")
    last = sessions.log_in(both, port=830)
    for target in ({"host": "127.0.0.1"}, {"host": "::1"}, {"port": 830}):
        expect_refusal(both, 3, 3, **target)
    journal.wait_for("session refused: 3 of at most 3 sessions are open in this VRF")
    sessions.end(last)
    router.wait_until(lambda: may_log_in(both), what="a session has ended")


def test_open_sessions_count_across_a_restart_of_the_server(server, sessions):
    vrf = server("red")
    set_limit(vrf, session_limit=2)
    for _ in range(2):
        sessions.log_in(vrf)
    router.set_item("cmn/timeout", 77)
    wait_until_listening(vrf)
    assert not may_log_in(vrf)
    set_limit(vrf, session_limit=1)
    expect_refusal(vrf, 2, 1)
    set_limit(vrf, session_limit=3)
    assert may_log_in(vrf)


def test_a_killed_session_no_longer_counts(server, sessions):
    vrf = server("red")
    set_limit(vrf, session_limit=1)
    sessions.log_in(vrf)
    assert not may_log_in(vrf)
    for process in run("pgrep", "-f", "^norvosshd: operator|^sshd: operator").stdout.split():
        os.kill(int(process), signal.SIGKILL)
    router.wait_until(lambda: may_log_in(vrf), what="the killed session is gone")


def test_each_vrf_has_its_own_sessions(server, sessions):
    red, blue = server("red"), server("blue")
    router.set_item("cmn/session_limit", 1)
    wait_until_listening(red)
    wait_until_listening(blue)
    sessions.log_in(red)
    assert not may_log_in(red)
    assert may_log_in(blue)


@pytest.mark.parametrize("method", ["password", "keyboard-interactive"])
def test_a_session_with_a_password_counts_and_is_refused(server, sessions, tmp_path, method):
    vrf = server("red")
    set_limit(vrf, session_limit=1)
    answer = tmp_path / "answer"
    answer.write_text("#!/bin/sh\necho operator\n", encoding="utf-8")
    answer.chmod(0o755)
    environment = {"SSH_ASKPASS": str(answer), "SSH_ASKPASS_REQUIRE": "force"}
    options = ["PubkeyAuthentication=no", f"PreferredAuthentications={method}", "NumberOfPasswordPrompts=1"]
    session = sessions.log_in(vrf, options=options, environment=environment)
    assert not may_log_in(vrf)
    sessions.end(session)
    router.wait_until(lambda: may_log_in(vrf), what="the session has ended")
    sessions.log_in(vrf)
    expect_refusal(vrf, 1, 1, options=options, environment=environment)
