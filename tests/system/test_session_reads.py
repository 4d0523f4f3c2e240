"""Operational reads of live sessions, compared with the reports of the other end."""

import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import tempfile
import threading

import pytest
import router
import sessions

SHOW = "/oper/crypto-ssh/"
RESPONDER = "ssh_session_responder.service"
TOTALS = pathlib.Path("/run/ssh_cfg_agent/session_totals.sock")
PAGES = pathlib.Path("/run/ssh_cfg_agent/sessions")
NUMBERS = pathlib.Path("/run/ssh_cfg_agent/session_numbers")
# The operator's password in a node.
ASKED = {"SSH_ASKPASS": "/run/askpass", "SSH_ASKPASS_REQUIRE": "force", "PATH": os.environ["PATH"], "HOME": "/root"}
NO_DATA = 4
SSH_OPTIONS = ["StrictHostKeyChecking=no", "UserKnownHostsFile=/dev/null", "ConnectTimeout=10"]
CHACHA = "chacha20-poly1305@openssh.com"
GCM = "aes256-gcm@openssh.com"


def show(path):
    """One operational read; None when there is no data."""
    result = router.ctl("show", SHOW + path, check=False)
    assert result.returncode in (0, NO_DATA), result.stderr
    return json.loads(result.stdout) if result.returncode == 0 else []


def established(path="gl/sshddata/brief"):
    return [session for session in show(path) if session["State"] == 2]


class Login:
    """A session that stays open until it is closed. `said` is the output of ssh -v."""

    def __init__(self, *words, vrf="red", user="operator", options=(), program="ssh", run_as=None, command=None,
                 environment=None, host="127.0.0.1"):
        self._said = tempfile.TemporaryFile(mode="w+")
        command = command or "tty; echo ready; read -r word; echo $word"
        line = ["ip", "netns", "exec", f"vrf-{vrf}"]
        line += ["setpriv", "--reuid", run_as, "--regid", run_as, "--clear-groups"] if run_as else []
        line += [program, "-v", *words]
        for option in [*SSH_OPTIONS, *options]:
            line += ["-o", option]
        self._ssh = subprocess.Popen([*line, f"{user}@{host}", command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=self._said, text=True, env=environment)
        self.output = []
        while not self.output or self.output[-1] != "ready":
            text = self._ssh.stdout.readline()
            assert text, self.said
            self.output.append(text.strip())
        self.pid = self._ssh.pid

    @property
    def said(self):
        self._said.seek(0)
        return self._said.read()

    def heard(self, pattern):
        """The groups of the last line of ssh's output that matches."""
        found = re.findall(pattern, self.said)
        assert found, f"{pattern} in {self.said}"
        return found[-1]

    def finish(self, word="bye"):
        rest, _ = self._ssh.communicate(f"{word}\n", timeout=20)
        return rest, self._ssh.returncode

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self._ssh.poll() is None:
            self.finish()


@pytest.fixture(autouse=True, scope="module")
def askpass():
    program = pathlib.Path("/run/askpass")
    program.write_text("#!/bin/sh\necho operator\n", encoding="utf-8")
    program.chmod(0o755)


@pytest.fixture(autouse=True)
def no_session_before_and_after():
    router.wait_until(lambda: sessions.are_none_shown("gl/sshddata"), what="no session is left of the test before")
    yield
    router.wait_until(lambda: sessions.are_none_shown("gl/sshddata", "client"), what="no session is left")


def negotiated(login):
    """What ssh reported of its connection, under the names that the read uses."""
    up = login.heard(r"kex: client->server cipher: (\S+) MAC: (\S+)")
    down = login.heard(r"kex: server->client cipher: (\S+) MAC: (\S+)")

    def mac(cipher, name):
        return name if name != "<implicit>" else "aes-gcm" if "gcm" in cipher else ""

    return {"KexName": login.heard(r"kex: algorithm: (\S+)"),
            "HostKeyAlg": login.heard(r"kex: host key algorithm: (\S+)"),
            "InCipher": up[0], "InMac": mac(*up), "OutCipher": down[0], "OutMac": mac(*down)}


def algorithms(session):
    return {name: session[name] for name in ("KexName", "HostKeyAlg", "InCipher", "InMac", "OutCipher", "OutMac")}


@pytest.mark.parametrize(("cipher", "mac", "kex", "key", "numbers"), [
    ("aes128-ctr", "hmac-sha2-256", "ecdh-sha2-nistp521", "ssh-ed25519", [8, 5, 4, 4, 2, 2]),
    ("aes256-ctr", "hmac-sha2-512", "diffie-hellman-group14-sha256", "rsa-sha2-512", [10, 7, 6, 6, 3, 3]),
    (GCM, "hmac-sha1", "curve25519-sha256", "ecdsa-sha2-nistp384", [9, 3, 8, 8, 4, 4]),
    (CHACHA, "hmac-sha1", "ecdh-sha2-nistp256", "ecdsa-sha2-nistp256", [6, 4, 9, 9, -1, -1]),
])
def test_the_algorithms_are_those_that_the_client_reports(server, cipher, mac, kex, key, numbers):
    server("red")
    options = [f"Ciphers={cipher}", f"MACs={mac}", f"KexAlgorithms={kex}", f"HostKeyAlgorithms={key}"]
    with Login(options=options) as login:
        assert [algorithms(session) for session in show("gl/sshddata/detail")] == [negotiated(login)]
        [session] = show("gl/session_xml/detail")["IncomingSessions"]
        fields = ("KeyExchange", "PublicKey", "InCipher", "OutCipher", "InMAC", "OutMAC")
        assert [session[field] for field in fields] == numbers


def test_directions_are_distinguished(server):
    server("red")
    with Login(options=["Ciphers=aes128-ctr,aes256-ctr", "MACs=hmac-sha2-256"]) as login:
        [session] = show("gl/sshddata/detail")
        assert algorithms(session) == negotiated(login)


@pytest.mark.parametrize(("options", "method", "number"), [
    (["PreferredAuthentications=password"], "password", 0),
    (["PreferredAuthentications=keyboard-interactive"], "key-intr", 2),
    (["IdentitiesOnly=yes", "IdentityFile=/root/.ssh/id_rsa"], "rsa-pubkey", 1),
    (["IdentitiesOnly=yes", "IdentityFile=/root/.ssh/id_ed25519"], "ed25519-pubkey", -1),
])
def test_authentication_method(server, options, method, number):
    server("red")
    with Login(options=options, environment=ASKED):
        [session] = established()
        assert (session["AuthenMethod"], session["UserID"], session["Host"]) == (method, "operator", "127.0.0.1")
        [session] = show("gl/session_xml/brief")["IncomingSessions"]
        assert (session["AuthenticationType"], session["UserID"], session["Version"]) == (number, "operator", 1)


def test_a_failed_attempt_with_another_method_does_not_count(server):
    server("red")
    wrong = pathlib.Path("/run/wrong")
    wrong.write_text("#!/bin/sh\necho wrong\n", encoding="utf-8")
    wrong.chmod(0o755)
    # The wrong password first, then the key.
    options = ["PreferredAuthentications=password,publickey", "NumberOfPasswordPrompts=1"]
    with Login(options=options, environment={**ASKED, "SSH_ASKPASS": str(wrong)}) as login:
        assert "Next authentication method: password" in login.said
        assert established()[0]["AuthenMethod"] == "rsa-pubkey"


def test_a_terminal_is_a_line_and_a_session_without_one_has_none(server):
    server("red")
    with Login("-tt") as with_terminal, Login("-T") as without:
        lines = [session["McInfo"][0]["Line"] for session in established()]
        number = with_terminal.output[0].removeprefix("/dev/pts/")
        assert lines == [f"vty {number}", "XXXXX"]
        assert without.output[0] == "not a tty"
        channels = [session["McInfo"][0] for session in show("gl/session_xml/brief")["IncomingSessions"]]
        assert [channel["VTYAssigned"] for channel in channels] == [True, False]
        assert [channel["VTYLineNumber"] for channel in channels] == [int(number), 0]


@pytest.mark.parametrize(("words", "command", "kind"), [
    ((), "exec", 2),
    (("-s",), "sftp", 4),
])
def test_what_a_channel_is_used_for(server, words, command, kind):
    server("red")
    if command == "exec":
        with Login(*words):
            assert [channel["ConnectionType"] for channel in established()[0]["McInfo"]] == [kind]
        return
    session = subprocess.Popen(["ip", "netns", "exec", "vrf-red", "ssh", *words, "operator@127.0.0.1", command],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    shown = []

    def is_shown():
        shown[:] = established()
        return [channel["ConnectionType"] for one in shown for channel in one["McInfo"]] == [kind]

    try:
        router.wait_until(is_shown)
    except AssertionError as error:
        raise AssertionError(f"shown instead: {shown}") from error
    finally:
        # Otherwise every later test would wait for this session to end.
        session.communicate(timeout=20)


def test_channels_of_one_connection(server):
    server("red")
    master = "/run/mux"
    with Login("-M", "-S", master) as first:
        shared = subprocess.Popen(["ssh", "-tt", "-S", master, "operator@127.0.0.1", "tty; sleep 30"],
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        number = shared.stdout.readline().strip().removeprefix("/dev/pts/")
        [session] = established()
        assert [(c["ChannelID"], c["Line"]) for c in session["McInfo"]] == [(0, "XXXXX"), (1, f"vty {number}")]
        shared.terminate()
        shared.wait(timeout=10)
        router.wait_until(lambda: len(established()[0]["McInfo"]) == 1, what="the second channel is gone")
        assert established()[0]["McInfo"][0]["ChannelID"] == 0
        assert first.finish() == ("bye\n", 0)


def test_rekeying_is_counted(server):
    server("red")
    command = "head -c 700000 /dev/zero | od -v >&2; echo ready; read -r word"
    with Login(options=["RekeyLimit=200K"], command=command) as login:
        def count():
            return len(re.findall(r"rekeying out", login.said))

        # The last data may arrive after the marker.
        router.wait_until(lambda: [session["SessionRekeyCount"] for session in show("gl/sshddata/rekey")] == [count()])
        assert count() > 1
        assert algorithms(show("gl/sshddata/detail")[0]) == negotiated(login)


def test_time_and_volume_to_the_next_rekey(server):
    server("red")
    command = "head -c 3000000 /dev/zero; echo; echo ready; read -r word"
    with Login(), Login(command=command):
        quiet, busy = show("gl/sshddata/rekey")
        limit = 1024 * 1024 * 1024
        assert limit - 100_000 < quiet["DataToRekey"] < limit
        assert limit - 3_200_000 < busy["DataToRekey"] < limit - 2_900_000
        assert 3590 <= int(quiet["NextRekeyTimeStr"]) <= 3600
        [session, _] = show("gl/session_xml/rekey")["IncomingSessions"]
        assert (session["SessionRekeyCount"], session["VolumeToRekey"]) == (0, "1024.0")
        assert 59 < float(session["TimeToRekey"]) <= 60


def test_logout_leaves_nothing(server):
    server("red")
    with Login():
        assert len(list(pathlib.Path("/run").glob("norvossh_oper*"))) == 1
    router.wait_until(lambda: not list(pathlib.Path("/run").glob("norvossh_oper*")), what="the socket is gone")
    assert not list(PAGES.iterdir())
    assert [path.name for path in NUMBERS.iterdir()] == ["last"]


def test_sockets_are_accessible_only_to_root(server):
    server("red")
    with Login():
        [path] = pathlib.Path("/run").glob("norvossh_oper*")
        assert path.stat().st_mode & 0o777 == 0o600
        assert PAGES.stat().st_mode & 0o777 == 0o700
        [page] = PAGES.iterdir()
        assert (page.stat().st_mode & 0o777, page.stat().st_uid) == (0o600, 0)


def test_twenty_sessions_at_once(server):
    server("red")
    logins = [Login("-tt" if number % 2 else "-T") for number in range(20)]
    try:
        sessions = established()
        assert len(sessions) == 20
        assert len({session["SessionID"] for session in sessions}) == 20
        assert len({session["SessionPID"] for session in sessions}) == 20
        terminals = {login.output[0].replace("/dev/pts/", "vty ") for login in logins if login.output[0] != "not a tty"}
        assert {s["McInfo"][0]["Line"] for s in sessions} == terminals | {"XXXXX"}
        kept = {session["SessionID"] for session in sessions}
        logins.pop().finish()
        router.wait_until(lambda: len(established()) == 19)
        assert {session["SessionID"] for session in established()} < kept
    finally:
        for login in logins:
            login.finish()


def test_sessions_of_root_are_shown(server):
    server("red")
    keys = pathlib.Path("/root/.ssh/authorized_keys")
    keys.write_text(pathlib.Path("/root/.ssh/id_rsa.pub").read_text(encoding="utf-8"), encoding="utf-8")
    try:
        with Login("-tt", user="root") as login:
            [session] = established()
            line = login.output[0].replace("/dev/pts/", "vty ")
            assert (session["UserID"], session["AuthenMethod"]) == ("root", "rsa-pubkey")
            assert session["McInfo"][0]["Line"] == line
            assert algorithms(show("gl/sshddata/detail")[0]) == negotiated(login)
    finally:
        keys.unlink()


def test_sessions_in_several_vrfs(server):
    server("red")
    server("blue")
    with Login(vrf="red"), Login(vrf="blue"):
        assert len(established()) == 2


def test_a_session_survives_its_server_and_is_still_shown(server):
    server("red")
    with Login("-tt") as login:
        before = show("gl/sshddata/brief")
        router.set_item("cmn/timeout", 66)
        router.wait_for_server("red")
        router.wait_until(lambda: len(show("gl/sshddata/brief")) == 1)
        assert show("gl/sshddata/brief") == before
        assert algorithms(show("gl/sshddata/detail")[0]) == negotiated(login)


@pytest.mark.parametrize("end", [signal.SIGKILL, signal.SIGTERM])
def test_facts_survive_the_responder(server, end):
    server("red")
    with Login("-tt"):
        before = (show("gl/sshddata/brief"), show("gl/sshddata/detail"))
        pid = router.main_pid(RESPONDER)
        os.kill(pid, end)
        router.wait_until(lambda: router.main_pid(RESPONDER) not in (0, pid), what="the responder is started again")
        router.wait_until(lambda: show("gl/sshddata/brief"))
        assert (show("gl/sshddata/brief"), show("gl/sshddata/detail")) == before
        with Login():
            first, second = established()
            assert second["SessionID"] > first["SessionID"]


def test_leftovers_of_a_killed_responder_are_removed(server):
    server("red")
    with Login():
        router.run("systemctl", "stop", RESPONDER)
        [page] = PAGES.iterdir()
        (PAGES / "1.1").write_bytes(page.read_bytes())
        (PAGES / "of_another_kind").write_bytes(b"")
        stale = pathlib.Path("/run/norvossh_oper1")
        router.run("python3", "-c", f"import socket; socket.socket(socket.AF_UNIX, 5).bind('{stale}')")
        router.run("systemctl", "start", RESPONDER)
        router.wait_until(lambda: len(established()) == 1)
        assert not stale.exists()
        assert list(PAGES.iterdir()) == [page]


def test_logins_do_not_wait_for_a_stopped_responder(server):
    server("red")
    assert router.ssh("red", "true").returncode == 0
    pid = router.main_pid(RESPONDER)
    os.kill(pid, signal.SIGSTOP)
    try:
        for _ in range(30):
            assert router.ssh("red", "echo", "in", timeout=10).stdout == "in\n"
    finally:
        os.kill(pid, signal.SIGCONT)


def test_the_journal_contains_none_of_the_lines(server, journal):
    server("red")
    with Login("-tt"):
        assert established()
    lines = [entry["MESSAGE"] for entry in journal.entries() if "norvosshd" in entry.get("SYSLOG_IDENTIFIER", "")]
    assert [line for line in lines if "Accepted publickey" in line]
    assert not [line for line in lines if "(pid=" in line or line.startswith("debug")]


@pytest.mark.parametrize(("debug_level", "detailed"), [(None, True), ("server-l1", False), ("server-l2", True)])
def test_the_journal_contains_the_requested_log_level(server, journal, debug_level, detailed):
    server("red")
    if detailed:
        router.set_item("cmn/logging", True)
    if debug_level:
        router.ctl("debug", debug_level, "on")
    try:
        router.wait_for_server("red")
        with Login("-tt") as login:
            [session] = established()
            assert (session["UserID"], session["AuthenMethod"]) == ("operator", "rsa-pubkey")
            assert algorithms(show("gl/sshddata/detail")[0]) == negotiated(login)
    finally:
        if debug_level:
            router.ctl("debug", debug_level, "off")
    lines = [entry["MESSAGE"] for entry in journal.entries() if "norvosshd" in entry.get("SYSLOG_IDENTIFIER", "")]
    assert not [line for line in lines if "(pid=" in line]
    kex = "debug1: kex: algorithm: " + negotiated(login)["KexName"] + " [preauth]"
    assert (kex in lines) == (debug_level is not None)
    assert bool([line for line in lines if line.startswith("debug2: mode 1")]) == (debug_level == "server-l2")
    if not debug_level:
        assert [line for line in lines if line.startswith("Starting session: command on pts/")]
        assert not [line for line in lines if line.startswith("debug")]


def test_the_client_prints_the_requested_log_level(server):
    server("red")
    router.ctl("debug", "client-l1", "on")
    try:
        result = subprocess.run(["ip", "netns", "exec", "vrf-red", "/pkg/bin/ssh_csm", "operator@127.0.0.1", "true"],
                                capture_output=True, text=True, env=ASKED, check=True)
    finally:
        router.ctl("debug", "client-l1", "off")
    assert "debug1: kex: algorithm: " in result.stderr
    assert "(pid=" not in result.stderr
    assert "debug2:" not in result.stderr


# Outgoing sessions


@pytest.mark.parametrize("run_as", [None, "operator"])
def test_outgoing_session(server, run_as):
    server("red")
    environment = {**ASKED, "HOME": "/home/operator"} if run_as else ASKED
    with Login("-tt", program="/pkg/bin/ssh_csm", run_as=run_as, environment=environment) as login:
        [session] = established("client/brief")
        assert (session["UserID"], session["Host"], session["SessionPID"]) == ("operator", "127.0.0.1", login.pid)
        assert session["AuthenMethod"] in ("password", "key-intr")
        assert [(c["ChannelID"], c["ConnectionType"]) for c in session["McInfo"]] == [(0, 2)]
        up, down = negotiated(login), algorithms(show("client/detail")[0])
        # The client's inbound direction is the server's outbound one.
        assert down == {**up, "InCipher": up["OutCipher"], "OutCipher": up["InCipher"], "InMac": up["OutMac"],
                        "OutMac": up["InMac"]}
        [server_side] = established()
        both = show("gl/session_xml/brief")
        assert [session["SessionID"]] == [one["SessionID"] for one in both["OutgoingSessions"]]
        assert [server_side["SessionID"]] == [one["SessionID"] for one in both["IncomingSessions"]]
        assert session["SessionID"] != server_side["SessionID"]


def test_the_client_behaves_like_ssh(server):
    server("red")
    ssh = ["ip", "netns", "exec", "vrf-red", "/pkg/bin/ssh_csm", "-o", "LogLevel=ERROR"]

    def client(*words, **options):
        environment = {**ASKED, "LD_PRELOAD": "", "MINE": "1"}
        return subprocess.run([*ssh, *words], capture_output=True, check=False, timeout=30, env=environment, **options)

    result = client("operator@127.0.0.1", "cat; echo err >&2; exit 7", input=b"in\n")
    assert (result.stdout, result.stderr, result.returncode) == (b"in\n", b"err\n", 7)
    # Output of the remote side is never taken for the client's own report.
    line = "debug1: kex.c:choose_kex():1 (pid=1): kex: algorithm: x\r\n"
    result = client("operator@127.0.0.1", "cat; sleep 1; printf '%s' \"$0\" >&2".replace("$0", line),
                    input=line.encode())
    assert result.stdout == result.stderr == line.encode()
    # Programs that the client starts do not inherit its reporting library.
    result = client("-o", "PermitLocalCommand=yes", "-o", "LocalCommand=env", "operator@127.0.0.1", "true")
    assert b"MINE=1" in result.stdout
    assert b"ssh_session_reporter" not in result.stdout
    assert b"SSH_CSM" not in result.stdout


def test_the_clients_messages_are_ssh_s(server):
    server("red")
    ssh = ["ip", "netns", "exec", "vrf-red", "/pkg/bin/ssh_csm"]
    quiet = subprocess.run([*ssh, "operator@127.0.0.1", "true"], capture_output=True, text=True, env=ASKED, check=True)
    assert "debug" not in quiet.stderr
    wordy = subprocess.run([*ssh, "-v", "operator@127.0.0.1", "true"], capture_output=True, text=True, env=ASKED,
                           check=True)
    assert "debug1: kex: algorithm: " in wordy.stderr
    assert "debug1: Next authentication method: " in wordy.stderr
    assert "debug2:" not in wordy.stderr
    assert "(pid=" not in wordy.stderr
    # A failed connection is reported in ssh's own words.
    failed = [subprocess.run(["ip", "netns", "exec", "vrf-red", program, "-T", "-p", "1", "operator@127.0.0.1"],
                             capture_output=True, check=False) for program in ("ssh", "/pkg/bin/ssh_csm")]
    assert failed[0].returncode == failed[1].returncode == 255
    assert b"Connection refused" in failed[0].stderr
    assert failed[0].stderr == failed[1].stderr


def test_a_jump_host_is_a_session_of_its_own(server):
    server("red")
    router.set_item("cmn/port_forwarding", 1)
    router.wait_for_server("red")
    with Login("-J", "operator@127.0.0.1", program="/pkg/bin/ssh_csm", environment=ASKED, host="::1"):
        sessions = established("client/brief")
        assert sorted(c["ConnectionType"] for s in sessions for c in s["McInfo"]) == [2, 6]
        assert {(s["UserID"], s["Host"]) for s in sessions} == {("operator", "127.0.0.1"), ("operator", "::1")}
        assert sorted(c["ConnectionType"] for s in established() for c in s["McInfo"]) == [2, 6]
        # The bytes of the session behind the jump host are not counted.
        hosts = {session["SessionID"]: session["Host"] for session in sessions}
        data = {hosts[rekey["SessionID"]]: rekey["DataToRekey"] for rekey in show("client/rekey")}
        assert data["::1"] == 2**32 - 1
        assert 0 < data["127.0.0.1"] < 2**32 - 1


def test_a_users_log_file_contains_what_ssh_writes(server):
    server("red")
    log = pathlib.Path("/run/client.log")
    with Login("-E", str(log), program="/pkg/bin/ssh_csm", environment=ASKED) as login:
        assert login.said == ""
        text = log.read_text(encoding="utf-8")
        assert "debug1: kex: algorithm: " in text
        assert "(pid=" not in text
        [session] = established("client/brief")
        assert session["UserID"] == "operator"
    log.unlink()


def test_a_client_that_writes_to_the_system_log(server, journal):
    server("red")
    with Login("-y", program="/pkg/bin/ssh_csm", environment=ASKED) as login:
        assert "debug" not in login.said
        assert established("client/brief")[0]["UserID"] == "operator"
    lines = [entry["MESSAGE"] for entry in journal.entries()]
    assert [line for line in lines if line.startswith("debug1: kex: algorithm: ")]
    assert not [line for line in lines if "(pid=" in line]


def test_the_agents_restart_changes_nothing(server):
    server("red")
    with Login("-tt") as login:
        before = show("gl/sshddata/brief")
        router.restart_agent()
        assert show("gl/sshddata/brief") == before
        assert algorithms(show("gl/sshddata/detail")[0]) == negotiated(login)


@contextlib.contextmanager
def reported_totals(*totals):
    """Numbers of incoming sessions that a responder reports, one after the other."""
    router.run("systemctl", "stop", RESPONDER)
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener:
        TOTALS.unlink(missing_ok=True)
        listener.bind(str(TOTALS))
        listener.listen()

        def report():
            for incoming in totals:
                with listener.accept()[0] as peer:
                    peer.send(struct.pack("=II", incoming, 0))

        reporter = threading.Thread(target=report, daemon=True)
        reporter.start()
        try:
            yield
            reporter.join()
        finally:
            TOTALS.unlink()
            router.run("systemctl", "start", RESPONDER)


@pytest.mark.parametrize("before, after, said", [
    (0, 0, "no sessions"), (2, 2, "2 sessions did not answer"),
    (3, 1, "1 session did not answer"), (1, 3, "1 session did not answer"), (1, 0, "no sessions")])
def test_sessions_that_begin_or_end_during_the_read_are_not_missing(before, after, said):
    with reported_totals(before, after):
        assert router.ctl("show", SHOW + "gl/sshddata/brief", check=False).stderr.endswith(f": {said}\n")


def test_a_client_with_its_own_configuration_file_works_and_reports_nothing(server):
    server("red")
    with Login("-F", "/dev/null", program="/pkg/bin/ssh_csm", environment=ASKED) as login:
        assert not show("client/brief")
        unknown = router.ctl("show", SHOW + "client/brief", check=False)
        assert unknown.stderr.endswith(": 1 session did not answer\n")
        assert login.finish() == ("bye\n", 0)


@pytest.mark.parametrize("words", [("-f", "-N"), ("-M", "-S", "/run/mux", "-o", "ControlPersist=20", "-N", "-f")])
def test_a_client_in_the_background_keeps_its_session(server, words):
    server("red")
    line = ["ip", "netns", "exec", "vrf-red", "/pkg/bin/ssh_csm", "-v", *words, "operator@127.0.0.1"]
    with tempfile.TemporaryFile(mode="w+") as said:
        subprocess.run(line, env=ASKED, check=True, stdout=subprocess.DEVNULL, stderr=said)
        [session] = router.wait_until(lambda: established("client/brief"))
        assert (session["UserID"], session["Host"]) == ("operator", "127.0.0.1")
        assert session["AuthenMethod"] in ("password", "key-intr")
        said.seek(0)
        assert show("client/detail")[0]["KexName"] == re.findall(r"kex: algorithm: (\S+)", said.read())[-1]
        os.kill(session["SessionPID"], signal.SIGTERM)


def test_a_window_on_a_shared_connection_is_no_session(server):
    server("red")
    options = ["ControlMaster=auto", "ControlPath=/run/mux", "ControlPersist=5"]
    with Login(program="/pkg/bin/ssh_csm", options=options, environment=ASKED), \
            Login(program="/pkg/bin/ssh_csm", options=options, environment=ASKED):
        [session] = established("client/brief")
        assert session["UserID"] == "operator"
        assert len(established()[0]["McInfo"]) == 2
        master = session["SessionPID"]
    os.kill(master, signal.SIGTERM)
