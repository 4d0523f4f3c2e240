"""Why logins failed: the servers' events in the journal, and what the operator's tool shows of them."""

import contextlib
import json
import os
import pathlib
import re
import signal
import subprocess

import pytest
import router
from router import ctl, run, ssh

FAILED = "57bf9bef7e7f4f33af0ee093e0c74180"
STRANGE = pathlib.Path("/root/strange_key")


@pytest.fixture(scope="module", autouse=True)
def strange_key():
    run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", STRANGE)
    yield
    for path in (STRANGE, STRANGE.with_suffix(".pub")):
        path.unlink()


@pytest.fixture
def red(server):
    return server("red")


def log_in(vrf, *options, user="operator", key=STRANGE):
    options = [f"IdentityFile={key}", "IdentitiesOnly=yes", "PreferredAuthentications=publickey", *options]
    return ssh(vrf, "true", user=user, options=options, check=False)


def events(journal, kind):
    return [entry for entry in journal.entries() if entry.get("SSH_CFG_EVENT") == kind]


def wait_for_events(journal, kind, number=1):
    router.wait_until(lambda: len(events(journal, kind)) >= number, what=f"{number} events {kind}")
    return events(journal, kind)


def failures(*arguments):
    return ctl("failures", *arguments)


def connect(vrf, text, then):
    """Sends a text to the server's port, and waits until the server hangs up, or hangs up itself."""
    script = (f"import socket; s = socket.create_connection(('127.0.0.1', 22)); s.sendall({text!r})\n"
              + ("while s.recv(4096): pass" if then == "wait" else "s.recv(10)"))
    router.in_vrf(vrf, "python3", "-c", script, check=False)


# Events


def test_a_failed_login_is_one_event_with_its_reason(red, journal):
    assert log_in(red).returncode == 255
    [event] = wait_for_events(journal, "login-failed")
    fingerprint = run("ssh-keygen", "-l", "-f", STRANGE).stdout.split()[1]
    assert {name: event.get(name) for name in event if name.startswith("SSH_CFG_") and name != "SSH_CFG_PORT"} == {
        "SSH_CFG_EVENT": "login-failed",
        "SSH_CFG_VRF": "red",
        "SSH_CFG_USER": "operator",
        "SSH_CFG_SOURCE": "127.0.0.1",
        "SSH_CFG_METHOD": "publickey",
        "SSH_CFG_REASON": "key not accepted",
        "SSH_CFG_KEY": f"ED25519 {fingerprint}",
        "SSH_CFG_REFUSED": "1",
    }
    assert event["MESSAGE_ID"] == FAILED
    assert event["_UID"] == "0"
    assert event["SYSLOG_IDENTIFIER"] == "norvosshd-red"
    port = event["SSH_CFG_PORT"]
    assert event["MESSAGE"] == (
        f"Login failed in VRF red from 127.0.0.1 port {port} with publickey: key not accepted (user operator)"
    )
    assert event["SYSLOG_PID"] == event["_PID"]
    in_sshds_words = [entry for entry in journal.entries() if entry["MESSAGE"].startswith("Failed publickey for operator")]
    assert {entry["SYSLOG_IDENTIFIER"] for entry in in_sshds_words} == {"norvosshd-red"}
    assert f"port {port} ssh2" in in_sshds_words[0]["MESSAGE"]


def test_login_and_logout_are_events(red, journal):
    assert ssh(red, "true").returncode == 0
    [login] = wait_for_events(journal, "login")
    [logout] = wait_for_events(journal, "logout")
    assert (login["SSH_CFG_VRF"], login["SSH_CFG_USER"], login["SSH_CFG_METHOD"]) == ("red", "operator", "publickey")
    assert login["SSH_CFG_KEY"].startswith(("RSA SHA256:", "ED25519 SHA256:"))
    assert login["SSH_CFG_PORT"] == logout["SSH_CFG_PORT"]
    assert int(logout["SSH_CFG_DURATION"]) < 60
    assert not events(journal, "login-failed")


def test_each_reason_is_told(red, journal):
    log_in(red, user="nobody_of_this_name")
    ssh(red, "true", options=["PreferredAuthentications=none"], check=False)
    log_in(red, "KexAlgorithms=diffie-hellman-group-exchange-sha256")
    connect(red, b"GET / HTTP/1.0\r\n\r\n", "wait")
    run("chmod", "777", "/home/operator")
    try:
        ssh(red, "true", check=False)
    finally:
        run("chmod", "755", "/home/operator")
    run("chage", "-E", "1", "operator")
    try:
        ssh(red, "true", check=False)
    finally:
        run("chage", "-E", "-1", "operator")
    found = [(e.get("SSH_CFG_USER"), e.get("SSH_CFG_METHOD"), e["SSH_CFG_REASON"]) for e in
             wait_for_events(journal, "login-failed", 6)]
    assert found == [
        ("nobody_of_this_name", None, "unknown user"),
        ("operator", None, "the client tried no key and no password"),
        (None, None, "no common key exchange algorithm"),
        (None, None, "not an SSH client: invalid format"),
        ("operator", "publickey", "bad ownership or modes for directory /home/operator"),
        ("operator", "publickey", "account refused by PAM"),
    ]
    assert events(journal, "login-failed")[2]["SSH_CFG_DETAIL"].startswith(
        "the client offers diffie-hellman-group-exchange-sha256")
    assert events(journal, "login-failed")[5]["SSH_CFG_DETAIL"] == "account operator has expired (account expired)"


def test_a_limit_that_is_exceeded_is_the_reason(red, journal):
    router.load({"cmn/timeout": 5, "cmn/max_auth_limit": 4})
    router.wait_for_server(red)
    connect(red, b"", "wait")
    keys = []
    for number in range(5):
        keys.append(f"/root/strange_key_{number}")
        run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", keys[-1])
    try:
        log_in(red, *[f"IdentityFile={key}" for key in keys])
    finally:
        for key in keys:
            os.unlink(key)
            os.unlink(key + ".pub")
    over, exceeded = wait_for_events(journal, "login-failed", 2)
    assert over["SSH_CFG_REASON"] == "login grace time over"
    assert exceeded["SSH_CFG_REASON"] == "attempts exceeded (key not accepted)"
    assert exceeded["SSH_CFG_REFUSED"] == "4"


def test_a_client_that_only_looks_is_no_failed_login(red, journal):
    for _ in range(3):
        connect(red, b"", "leave")
    log_in(red)
    assert len(wait_for_events(journal, "login-failed")) == 1


# ssh_cfg_ctl failures


def test_the_table_and_its_json(red, server, journal):
    server("blue")
    log_in(red)
    log_in("blue", user="stranger")
    wait_for_events(journal, "login-failed", 2)
    first, second = failures("--lines", "2")
    assert (first["vrf"], first["user"], first["reason"]) == ("red", "operator", "key not accepted")
    assert (second["vrf"], second["user"], second["reason"]) == ("blue", "stranger", "unknown user")
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", first["time"])
    assert first["address"] == "127.0.0.1" and first["port"] > 0 and first["method"] == "publickey"
    assert [entry["vrf"] for entry in failures("--lines=1", "red")] == ["red"]
    text = run("ssh_cfg_ctl", "failures", "--lines", "2").stdout
    heading, *lines = text.splitlines()
    assert heading.split() == ["Time", "VRF", "User", "Source", "Method", "Reason"]
    assert lines[0].split()[:5] == [first["time"], "red", "operator", f"127.0.0.1:{first['port']}", "publickey"]
    assert lines[0].endswith("key not accepted") and first["key"] in lines[1]
    assert run("ssh_cfg_ctl", "failures", "no_such_vrf").stdout == "no failed logins\n"


def test_what_an_ordinary_user_writes_to_the_journal_is_not_shown(red, journal):
    log_in(red)
    wait_for_events(journal, "login-failed")
    before = failures()
    forged = f"MESSAGE=forged\nMESSAGE_ID={FAILED}\n_UID=0\nSSH_CFG_EVENT=login-failed\nSSH_CFG_VRF=red\nSSH_CFG_USER=forged\n"
    run("runuser", "-u", "operator", "--", "logger", "--journald", input=forged)
    run("journalctl", "--sync")
    assert run("journalctl", "SSH_CFG_USER=forged", "--output=cat").stdout == "forged\n"
    assert failures() == before
    # Nor does it reach those who watch.
    denied = run("runuser", "-u", "operator", "--", "python3", "-c",
                 "import socket; socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).sendto(b'SSH_CFG_EVENT=login', "
                 "'/run/ssh_cfg_agent/login_events')", check=False)
    assert "PermissionError" in denied.stderr


@pytest.mark.parametrize("name", ["root from 6.6.6.6 port 1 ssh2", "a" * 60000, "\u202eevil"])
def test_names_cannot_pretend_anything(red, journal, name):
    log_in(red, user=name)
    [event] = wait_for_events(journal, "login-failed")
    [failure] = failures("--lines", "1", "red")
    assert failure["address"] == "127.0.0.1" and failure["reason"] == "unknown user"
    assert failure["user"] == event["SSH_CFG_USER"] and len(failure["user"]) < 100
    text = run("ssh_cfg_ctl", "failures", "--lines", "1").stdout
    assert all(character == "\n" or " " <= character <= "~" for character in text)


def test_readers_see_them_and_others_do_not(red):
    log_in(red)
    refused = run("runuser", "-u", "operator", "--", "ssh_cfg_ctl", "failures", check=False)
    assert refused.returncode != 0
    with router.member_of("operator", "sshcfg"):
        assert "key not accepted" in run("runuser", "-u", "operator", "--", "ssh_cfg_ctl", "failures").stdout


@pytest.mark.parametrize(("arguments", "complaint"), [
    (["--lines", "0"], "--lines: expected a number from 1 to 1000, not '0'"),
    (["--lines", "x"], "--lines: expected a number from 1 to 1000, not 'x'"),
    (["--lines"], "usage: ssh_cfg_ctl [OPTION...] failures [--lines N] [VRF]"),
    (["red", "blue"], "usage: ssh_cfg_ctl [OPTION...] failures [--lines N] [VRF]"),
])
def test_wrong_arguments_are_explained(arguments, complaint):
    result = run("ssh_cfg_ctl", "failures", *arguments, check=False)
    assert result.returncode == 2 and complaint in result.stderr


def test_a_journal_that_cannot_be_read_is_reported(red):
    real = "/usr/local/lib/failing_journalctl"
    pathlib.Path(real).write_text("#!/bin/sh\nexit 1\n", encoding="utf-8")
    os.chmod(real, 0o755)
    run("mount", "--bind", real, "/usr/bin/journalctl")
    try:
        result = run("ssh_cfg_ctl", "failures", check=False)
        assert result.returncode == 1
        assert "the failed logins cannot be read: journalctl has failed" in result.stderr
    finally:
        run("umount", "/usr/bin/journalctl")


# ssh_cfg_ctl watch --sessions


@contextlib.contextmanager
def watching(*arguments):
    with subprocess.Popen(["ssh_cfg_ctl", *arguments, "watch", "--sessions"], stdout=subprocess.PIPE, text=True) as watch:
        # It catches this signal once the agent has accepted it as a watcher.
        caught = re.compile(r"^SigCgt:\t([0-9a-f]+)$", re.MULTILINE)
        status = pathlib.Path(f"/proc/{watch.pid}/status")
        router.wait_until(lambda: int(caught.search(status.read_text())[1], 16) >> (signal.SIGTERM - 1) & 1)
        try:
            yield watch
        finally:
            watch.terminate()


def test_logins_are_shown_as_they_happen(red):
    with watching() as people, watching("--json") as program:
        log_in(red)
        assert ssh(red, "true").returncode == 0
        lines = [people.stdout.readline().split("  ", 4) for _ in range(3)]
        documents = [json.loads(program.stdout.readline()) for _ in range(3)]
    assert [line[1:3] for line in lines] == [["red", "operator"]] * 3
    assert lines[0][4] == "login failed with publickey: key not accepted\n"
    assert lines[1][4] == "login with publickey\n"
    assert re.fullmatch(r"logout after \d+s\n", lines[2][4])
    assert [document["event"] for document in documents] == ["login-failed", "login", "logout"]
    assert documents[0]["reason"] == "key not accepted"


def test_telemetry_and_sessions_are_watched_separately(red):
    with watching("--json") as program:
        router.set_item("cmn/timeout", 45)
        router.wait_for_server(red)
        log_in(red)
        assert json.loads(program.stdout.readline())["event"] == "login-failed"


# What access lists log


LOGS_OF_ALL_NAMESPACES = pathlib.Path("/proc/sys/net/netfilter/nf_log_all_netns")


def test_the_setting_for_logging_lists_is_installed():
    settings = run("/lib/systemd/systemd-sysctl", "--cat-config").stdout
    assert "\n-net.netfilter.nf_log_all_netns = 1\n" in settings


@pytest.mark.skipif(
    not LOGS_OF_ALL_NAMESPACES.exists(),
    reason="the kernel shows nf_log_all_netns only in the machine's own network namespace, which a node does not share",
)
def test_a_denied_packet_is_logged(mgmt):
    assert LOGS_OF_ALL_NAMESPACES.read_text(encoding="ascii") == "1\n"
    ctl("acl", "set", "ipv4", "guests", "-", input="deny tcp 127.0.0.9/32 any log\npermit tcp any any\n")
    router.set_item(f"sshd/vrf/{mgmt}", [None, "guests", None])
    router.wait_for_server(mgmt)
    router.in_vrf(mgmt, "bash", "-c", "timeout 1 ssh-keyscan -T 1 127.0.0.1", check=False)
    router.in_vrf(mgmt, "timeout", "1", "nc", "-s", "127.0.0.9", "127.0.0.1", "22", check=False)
    router.wait_until(lambda: "SRC=127.0.0.9" in run("journalctl", "--dmesg", "--output=cat").stdout)


# What the agent logs


def test_the_agents_messages_are_found_by_name(red, journal):
    unit = router.UNITS / router.server_unit(red)
    text = unit.read_bytes()
    unit.unlink()
    try:
        router.set_item("cmn/timeout", 45, check=False)
        found = router.wait_until(
            lambda: [entry for entry in journal.entries() if entry.get("SSH_CFG_MESSAGE") == "ERR_GENERAL"])
    finally:
        unit.write_bytes(text)
    assert found[0]["MESSAGE"] == "Service file doesn't exist"
    assert found[0]["SSH_CFG_NUMBER"] == "0x1E000021"
