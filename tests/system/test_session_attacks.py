"""Sessions are found and shown with all their facts, whatever users do, and even if the responder was down meanwhile."""

import contextlib
import json
import os
import pathlib
import re
import signal
import subprocess
import sys

import pytest
import router
import sessions

RESPONDER = "ssh_session_responder.service"
SHOW = "/oper/crypto-ssh/"
PAGES = pathlib.Path("/run/ssh_cfg_agent/sessions")
ASKPASS = pathlib.Path("/run/askpass")
ASKED = {"SSH_ASKPASS": str(ASKPASS), "SSH_ASKPASS_REQUIRE": "force", "PATH": os.environ["PATH"], "HOME": "/root"}
HOST_KEYS = ["-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null"]
CLIENT = "/pkg/bin/ssh_csm"


@pytest.fixture(autouse=True, scope="module")
def askpass():
    ASKPASS.write_text("#!/bin/sh\necho operator\n", encoding="utf-8")
    ASKPASS.chmod(0o755)


@pytest.fixture
def roomy(server):
    """A server that accepts many logins at once."""
    router.load({"cmn/session_limit": 100, "cmn/rate_limit": 600})
    return server("red")


@pytest.fixture(autouse=True)
def nothing_left():
    yield
    router.run("systemctl", "start", RESPONDER)
    router.wait_until(lambda: sessions.are_none_shown("gl/sshddata", "client"), seconds=60, what="no session is left")


def answer_of(path):
    return router.ctl("show", SHOW + path, check=False)


def show(path):
    result = answer_of(path)
    return json.loads(result.stdout) if result.returncode == 0 else []


def in_red(*words, run_as=None):
    user = ["setpriv", "--reuid", run_as, "--regid", run_as, "--clear-groups"] if run_as else []
    return ["ip", "netns", "exec", "vrf-red", *user, *words]


@contextlib.contextmanager
def logins(number, *words, program="ssh", run_as=None, environment=None):
    """Sessions that last as long as the block. sshd drops connections if too many log in at the same time."""
    line = in_red(program, *HOST_KEYS, *words, "operator@127.0.0.1", "echo ready; read -r word", run_as=run_as)
    at_a_time = 5
    begun = []
    try:
        while len(begun) < number:
            new = [subprocess.Popen(line, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                    env=environment) for _ in range(min(at_a_time, number - len(begun)))]
            begun += new
            for session in new:
                while (said := session.stdout.readline()).strip() != b"ready":
                    assert said, "the login failed"
        yield begun
    finally:
        for session in begun:
            session.communicate(b"bye\n", timeout=60)


def assert_complete(number, tree="gl/sshddata", methods=("rsa-pubkey", "ed25519-pubkey")):
    """Every fact about every session is known, and no session is listed twice."""
    briefs = show(f"{tree}/brief")
    assert len(briefs) == number
    assert len({brief["SessionID"] for brief in briefs}) == number
    assert len({brief["SessionPID"] for brief in briefs}) == number
    for brief in briefs:
        assert (brief["State"], brief["UserID"], brief["Host"]) == (2, "operator", "127.0.0.1"), brief
        assert brief["AuthenMethod"] in methods, brief
        assert brief["SessionPID"] > 0, brief
    for detail in show(f"{tree}/detail"):
        for fact in ("KexName", "HostKeyAlg", "InCipher", "OutCipher", "InMac", "OutMac"):
            assert detail[fact] != "" or "chacha" in detail["InCipher"], detail
    return briefs


def assert_in_use(briefs, kind=2):
    assert [[channel["ConnectionType"] for channel in brief["McInfo"]] for brief in briefs] == [[kind]] * len(briefs)


@contextlib.contextmanager
def responder_stopped():
    router.run("systemctl", "stop", RESPONDER)
    try:
        yield
    finally:
        router.run("systemctl", "start", RESPONDER)


# A responder that is down


def test_a_hundred_sessions_that_began_while_the_responder_was_stopped_are_complete(roomy):
    with contextlib.ExitStack() as stack:
        with responder_stopped():
            for _ in range(10):
                stack.enter_context(logins(10))
        assert_in_use(assert_complete(100))


def test_clients_that_went_to_the_background_while_the_responder_was_stopped_are_complete(roomy):
    with responder_stopped():
        for _ in range(100):
            subprocess.run(in_red(CLIENT, *HOST_KEYS, "-f", "-N", "operator@127.0.0.1"), env=ASKED, check=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=60)
    router.wait_until(lambda: len([one for one in show("client/brief") if one["State"] == 2]) == 100, seconds=60)
    for brief in assert_complete(100, "client", ("password", "key-intr")):
        os.kill(brief["SessionPID"], signal.SIGTERM)


def test_sessions_that_end_while_the_responder_is_stopped_leave_no_files(roomy):
    """Otherwise a user who logs in again and again would fill /run."""
    with responder_stopped():
        with logins(5):
            assert len(os.listdir(PAGES)) == 5
        router.wait_until(lambda: not os.listdir(PAGES))


def test_a_responder_that_hangs_is_noticed_and_restarted(roomy):
    with logins(1):
        pid = router.main_pid(RESPONDER)
        os.kill(pid, signal.SIGSTOP)
        said = answer_of("gl/sshddata/brief").stderr
        assert said.endswith("the session responder does not answer, so sessions may be missing\n")
        router.wait_until(lambda: router.main_pid(RESPONDER) not in (0, pid), seconds=90, what="the watchdog acts")
        router.wait_until(lambda: show("gl/sshddata/brief"), seconds=60)
        assert_complete(1)


# Sessions that cannot be shown


@contextlib.contextmanager
def full_folder():
    """Fills up the folder of the pages."""
    router.run("mount", "-t", "tmpfs", "-o", "size=4k", "tmpfs", PAGES)
    try:
        yield
    finally:
        router.run("umount", PAGES)


def test_a_session_whose_page_cannot_be_made_goes_on_and_is_counted(roomy, journal):
    with logins(1):
        with full_folder():
            assert router.ssh("red", "echo in").stdout == "in\n"
            with logins(2):
                journal.wait_for("the session is not shown, because it cannot be recorded: No space left on device")
                result = answer_of("gl/sshddata/brief")
                assert result.stderr == "ssh_cfg_ctl: warning: 2 sessions did not answer\n"
                assert len(json.loads(result.stdout)) == 1
    with full_folder(), logins(1):
        result = answer_of("gl/session_xml/brief")
        assert result.returncode == 4
        assert result.stderr == f"ssh_cfg_ctl: {SHOW}gl/session_xml/brief: 1 session did not answer\n"


def test_a_session_that_the_listing_hides_is_counted(roomy):
    router.run("useradd", "--create-home", "grepper")
    try:
        keys = pathlib.Path("/home/grepper/.ssh/authorized_keys")
        keys.parent.mkdir(mode=0o700)
        keys.write_text(pathlib.Path("/root/.ssh/id_ed25519.pub").read_text(encoding="utf-8"), encoding="utf-8")
        router.run("chown", "-R", "grepper:", "/home/grepper")
        words = in_red("ssh", *HOST_KEYS, "grepper@127.0.0.1", "echo ready; read -r word")
        with subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as hidden:
            assert hidden.stdout.readline() == b"ready\n"
            assert answer_of("gl/sshddata/brief").stderr.endswith(": 1 session did not answer\n")
            hidden.communicate(b"bye\n", timeout=60)
    finally:
        router.wait_until(lambda: router.run("userdel", "-r", "-f", "grepper", check=False).returncode in (0, 12))


# Attacks by an ordinary user

# Tries to open the responder's files and sockets, and starts clients that never connect.
FLOOD = """
import os, socket, subprocess, sys
held = []
for _ in range(100):
    held.append(subprocess.Popen(["/pkg/bin/ssh_csm", "-o", "ProxyCommand=sleep 300", "x@nowhere"],
                                 stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
print("flooding", flush=True)
done = 0
while True:
    for path in ["/run/ssh_cfg_agent/session_totals.sock", *["/run/" + name for name in os.listdir("/run")
                                                             if name.startswith("norvossh_oper")]]:
        try:
            with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as peer:
                peer.connect(path)
            print("connected to", path, flush=True)
            sys.exit(1)
        except OSError:
            done += 1
    try:
        os.listdir("/run/ssh_cfg_agent/sessions")
        print("listed", flush=True)
        sys.exit(1)
    except PermissionError:
        pass
"""


def test_a_flood_loses_nothing_of_others(roomy):
    line = ["setpriv", "--reuid", "operator", "--regid", "operator", "--clear-groups", sys.executable, "-c", FLOOD]
    flood = subprocess.Popen(line, stdout=subprocess.PIPE, env={**ASKED, "HOME": "/home/operator"}, process_group=0)
    try:
        assert flood.stdout.readline() == b"flooding\n"
        with contextlib.ExitStack() as stack:
            for _ in range(5):
                stack.enter_context(logins(10))
            assert_in_use(assert_complete(50))
            assert flood.poll() is None, flood.stdout.read()
    finally:
        os.killpg(flood.pid, signal.SIGKILL)
        flood.wait()
        router.run("pkill", "-KILL", "-u", "operator", "-f", "sleep 300", check=False)


@pytest.mark.parametrize("run_as", ["operator", "root"])
def test_an_outgoing_session_with_the_title_of_a_server_is_not_shown_as_incoming(roomy, run_as):
    words = in_red(CLIENT, *HOST_KEYS, "operator@127.0.0.1", "echo ready; read -r word; : sshd: root [priv]",
                   run_as=run_as)
    environment = {**ASKED, "HOME": f"/home/{run_as}" if run_as != "root" else "/root"}
    with subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                          env=environment) as client:
        assert client.stdout.readline() == b"ready\n"
        listed = router.run("sh", "-c", "ps -ef | grep 'sshd:' | grep 'priv' | grep -v 'grep'").stdout
        assert re.search(rf"^\S+\s+{client.pid} ", listed, re.MULTILINE), listed
        [incoming] = show("gl/sshddata/brief")
        [outgoing] = show("client/brief")
        assert outgoing["SessionPID"] == client.pid
        assert incoming["SessionPID"] != client.pid
        both = show("gl/session_xml/brief")
        assert [one["SessionID"] for one in both["IncomingSessions"]] == [incoming["SessionID"]]
        assert [one["SessionID"] for one in both["OutgoingSessions"]] == [outgoing["SessionID"]]
        client.communicate(b"bye\n", timeout=60)


def test_files_that_no_sshd_made_are_no_sessions(roomy):
    with logins(1):
        [page] = PAGES.iterdir()
        content = page.read_bytes()
        process = subprocess.Popen(["sleep", "300"])
        try:
            start = pathlib.Path(f"/proc/{process.pid}/stat").read_text(encoding="utf-8").rpartition(")")[2].split()[19]
            forged = PAGES / f"{process.pid}.{start}"
            forged.write_bytes(content)
            router.wait_until(lambda: not forged.exists(), what="the forged file is removed")
            assert_complete(1)
        finally:
            process.kill()
            process.wait()


def test_a_session_of_a_killed_sshd_is_forgotten(roomy):
    with logins(3):
        [first, *_] = PAGES.iterdir()
        os.kill(int(first.name.partition(".")[0]), signal.SIGKILL)
        router.wait_until(lambda: not first.exists(), what="its file is removed")
        router.wait_until(lambda: len(show("gl/sshddata/brief")) == 2)
        assert_complete(2)


# Many at once


def test_sessions_of_all_kinds_are_complete(roomy):
    with logins(15), logins(15, "-tt"), logins(10, program=CLIENT, environment=ASKED), \
            logins(10, program=CLIENT, run_as="operator", environment={**ASKED, "HOME": "/home/operator"}):
        methods = ("rsa-pubkey", "ed25519-pubkey", "password", "key-intr")
        assert_in_use(assert_complete(50, methods=methods))
        assert_in_use(assert_complete(20, "client", methods))
        lines = [brief["McInfo"][0]["Line"] for brief in show("gl/sshddata/brief")]
        assert len([line for line in lines if line.startswith("vty ")]) == 15


def test_a_link_local_peer_keeps_its_zone(roomy):
    router.in_vrf("red", "ip", "link", "add", "lan0", "type", "veth", "peer", "name", "lan1")
    for name in ("lan0", "lan1"):
        router.in_vrf("red", "ip", "link", "set", name, "up")

    def address():
        shown = router.in_vrf("red", "ip", "-6", "-o", "addr", "show", "dev", "lan0", "scope", "link").stdout
        found = re.search(r"inet6 (fe80:\S+)/64", shown)
        return found and "tentative" not in shown and found[1]

    host = router.wait_until(address) + "%lan0"
    words = in_red("ssh", *HOST_KEYS, f"operator@{host}", "echo ready; read -r word")
    with subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as session:
        assert session.stdout.readline() == b"ready\n"
        assert [brief["Host"] for brief in show("gl/sshddata/brief")] == [host]
        session.communicate(b"bye\n", timeout=60)
