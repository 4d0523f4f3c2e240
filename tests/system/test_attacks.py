"""What an ordinary user of the router tries against its agent and its operators, and what comes of it."""

import contextlib
import json
import os
import pathlib
import pwd
import resource
import signal
import socket
import struct
import subprocess
import sys
import time

import pytest
import router
import sessions
from router import run

ORDINARY = "operator"

# Attacks run as programs of an ordinary user, who must have been let in for nothing but a login.
HOLD_CONNECTIONS = """
import socket, sys, time
held = []
for _ in range(int(sys.argv[1])):
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    peer.connect("/run/ssh_cfg_agent/control.sock")
    held.append(peer)
print("ready", flush=True)
time.sleep(60)
"""

HOLD_LOCK = """
import fcntl, time
try:
    file = open("/run/ssh_cfg_agent/agent.lock")
    fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
except OSError as failure:
    pass
print("ready", flush=True)
time.sleep(60)
"""

KEEP_CALLING = """
import socket, struct, sys
peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
peer.connect("/run/ssh_cfg_agent/control.sock")
call = b'{"call":"verify"}'
print("ready", flush=True)
while True:
    peer.sendall(struct.pack(">I", len(call)) + call)
    size = struct.unpack(">I", peer.recv(4, socket.MSG_WAITALL))[0]
    peer.recv(size, socket.MSG_WAITALL)
"""


def as_user(*command, user=ORDINARY):
    return ["setpriv", f"--reuid={user}", f"--regid={pwd.getpwnam(user).pw_gid}", "--init-groups", *map(str, command)]


@contextlib.contextmanager
def attack(*command, user=ORDINARY):
    """Runs a program of an ordinary user until the end of the block; it says "ready" on its first line."""
    with subprocess.Popen(as_user(*command, user=user), stdout=subprocess.PIPE, text=True) as process:
        try:
            assert process.stdout.readline() == "ready\n"
            yield process
        finally:
            process.kill()


@pytest.fixture
def member():
    """An ordinary user who may read the agent's state."""
    with router.member_of(ORDINARY, "sshcfg"):
        yield ORDINARY


@pytest.fixture
def administrator():
    """One who may also change the configuration."""
    with router.member_of(ORDINARY, "sshcfg", "sshcfg-admin"):
        yield ORDINARY


def connected():
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    peer.settimeout(20)
    peer.connect(str(router.RUNTIME / "control.sock"))
    return peer


def ask(peer, request):
    """One call on a connection of its own."""
    document = json.dumps(request).encode()
    peer.sendall(struct.pack(">I", len(document)) + document)
    size = struct.unpack(">I", peer.recv(4, socket.MSG_WAITALL))[0]
    return json.loads(peer.recv(size, socket.MSG_WAITALL))


def seconds_of_a_call(user="root"):
    start = time.monotonic()
    run(*as_user("ssh_cfg_ctl", "status", user=user))
    return time.monotonic() - start


# --- Denial


def test_a_user_who_locks_the_lock_file_does_not_keep_the_agent_from_starting():
    run("systemctl", "stop", router.AGENT)
    with attack(sys.executable, "-c", HOLD_LOCK):
        run("systemctl", "start", router.AGENT, timeout=30)
        router.wait_for_agent()


@pytest.mark.parametrize("made", ["mkdir {0}", "ln -s /root {0}", "touch {0}"])
def test_a_folder_that_somebody_else_has_made_does_not_disable_the_client(server, made):
    vrf = server("red")
    taken = f"/tmp/ssh_csm-{pwd.getpwnam(ORDINARY).pw_uid}"
    run(*as_user("sh", "-c", made.format(taken), user="nobody"))
    try:
        result = router.in_vrf(vrf, *as_user("env", "-u", "XDG_RUNTIME_DIR", "/pkg/bin/ssh_csm", "-G", "router"))
        assert "stricthostkeychecking false" in result.stdout
    finally:
        run("rm", "-rf", taken)


@pytest.fixture
def few_descriptors():
    """Leaves the agent a handful of descriptors for connections."""
    agent = router.main_pid(router.AGENT)
    opened = max(int(entry.name) for entry in pathlib.Path(f"/proc/{agent}/fd").iterdir())
    soft, hard = resource.prlimit(agent, resource.RLIMIT_NOFILE)
    resource.prlimit(agent, resource.RLIMIT_NOFILE, (opened + 25, hard))
    yield
    resource.prlimit(agent, resource.RLIMIT_NOFILE, (soft, hard))


@pytest.mark.usefixtures("few_descriptors")
def test_idle_connections_do_not_lock_the_operator_out(member):
    with attack(sys.executable, "-c", HOLD_CONNECTIONS, 300, user=member):
        assert seconds_of_a_call() < 2
        assert seconds_of_a_call(member) < 2
        # The agent's own work has its descriptors, too.
        router.set_item("cmn/timeout", 40)
        assert "LoginGraceTime 40" in router.server_lines()


def test_roots_calls_do_not_wait_behind_those_of_others(server, member):
    for name in ("red", "blue", "green"):
        server(name)
    with contextlib.ExitStack() as crowd:
        for _ in range(40):
            crowd.enter_context(attack(sys.executable, "-c", KEEP_CALLING, user=member))
        time.sleep(1)
        waits = sorted(seconds_of_a_call() for _ in range(5))
        assert waits[2] < 1.5, waits


# --- Becoming root


@pytest.fixture(scope="module")
def key(tmp_path_factory):
    file = tmp_path_factory.mktemp("keys", numbered=True) / "id_rsa"
    run("ssh-keygen", "-q", "-t", "rsa", "-b", "2048", "-N", "", "-f", file)
    return file


def text_of(key):
    return key.with_suffix(".pub").read_text(encoding="ascii").strip()


def log_in_as_root(vrf, key):
    return router.ssh(vrf, "id", "-u", user="root", options=[f"IdentityFile={key}", "IdentitiesOnly=yes"], check=False)


def attempts(key):
    """Everything that would give root a key, and what it needs on standard input."""
    item = router.SERVER + "cmn/username/root/keystr"
    return [
        (["key", "import", "root", "-"], text_of(key)),
        (["set", item, text_of(key)], ""),
        (["load", "-"], json.dumps({router.SERVER + "cmn/timeout": 33, item: text_of(key)})),
    ]


def test_a_reader_changes_nothing(member):
    for words in (["set", router.SERVER + "cmn/timeout", "30"], ["debug", "cfg-agent", "on"], ["reload"]):
        result = run(*as_user("ssh_cfg_ctl", *words, user=member), check=False)
        assert result.returncode == 5 and "members of the group sshcfg-admin" in result.stderr
    assert router.configuration() == {}
    run(*as_user("ssh_cfg_ctl", "verify", user=member))


@pytest.mark.parametrize("attempt", [0, 1, 2])
def test_an_administrator_does_not_become_root_by_a_key(server, administrator, key, attempt):
    vrf = server("red")
    words, text = attempts(key)[attempt]
    result = run(*as_user("ssh_cfg_ctl", *words, user=administrator), input=text, check=False)
    assert result.returncode == 5 and "user root has user ID 0, and only root may change such a key" in result.stderr
    assert log_in_as_root(vrf, key).returncode != 0
    assert "LoginGraceTime 33" not in router.server_lines()


def test_an_administrator_does_not_take_roots_key_away(server, administrator, key):
    vrf = server("red")
    run("ssh_cfg_ctl", "key", "import", "root", "-", input=text_of(key))
    try:
        result = run(*as_user("ssh_cfg_ctl", "key", "delete", "root", user=administrator), check=False)
        assert result.returncode == 5 and "only root may change" in result.stderr
        assert log_in_as_root(vrf, key).stdout == "0\n"
    finally:
        run("ssh_cfg_ctl", "key", "delete", "root")
    assert log_in_as_root(vrf, key).returncode != 0


def test_a_key_does_not_wait_for_a_user_to_come(administrator, key):
    result = run(*as_user("ssh_cfg_ctl", "key", "import", "eve", "-", user=administrator), input=text_of(key), check=False)
    assert result.returncode == 5 and "user eve does not exist" in result.stderr


@pytest.mark.parametrize("path", ["/root/known #hosts", "/root/known#hosts", '/root/"hosts"', "/root/'hosts", "/root/a b"])
def test_a_file_of_known_hosts_is_named_as_the_client_reads_it(path):
    result = router.set_item(router.CLIENT + "host_pubkey", path, check=False)
    assert result.returncode == 5 and "without blanks, quotes" in result.stderr


@pytest.mark.usefixtures("clean_router")
def test_a_banner_contains_nothing_that_a_terminal_interprets():
    resolver = pathlib.Path("/etc/resolv.conf")
    before = resolver.read_bytes()
    try:
        resolver.write_bytes(b"search a\x1b[2Jb\xe2\x80\xaec\n")
        router.set_item("/cfg/gl/banner/0x3", "#in $(domain)#")
        files = [path for path in router.FILES.iterdir() if path.is_file() and b"in a[2Jbc" in path.read_bytes()]
        assert files, [path.name for path in router.FILES.iterdir()]
    finally:
        resolver.write_bytes(before)
    for text in ("#a\u202eb#", "#a\u200bb#", "#\u2066#"):
        assert router.set_item("/cfg/gl/banner/0x3", text, check=False).returncode == 5


# --- Faults


def test_a_stopped_journal_does_not_stop_the_agent(journal):
    journald = router.main_pid("systemd-journald.service")
    os.kill(journald, signal.SIGSTOP)
    try:
        start = time.monotonic()
        # Each is logged; the journal's socket takes about 500 messages.
        with connected() as peer:
            for number in range(900):
                request = {"call": "set", "path": router.SERVER + "cmn/timeout", "value": 500 + number}
                assert ask(peer, request)["result"] == "refused"
        assert time.monotonic() - start < 20
        assert router.set_item("cmn/timeout", 50, check=False).returncode == 0
        assert "LoginGraceTime 50" in router.server_lines()
    finally:
        os.kill(journald, signal.SIGCONT)
    time.sleep(1)
    router.set_item("cmn/timeout", 51)
    dropped = journal.wait_for("messages were dropped before this", router.AGENT)
    assert int(dropped.split()[0]) > 100
    journal.wait_for("cmn/timeout", router.AGENT)


DATABASE = pathlib.Path("/var/lib/ssh_cfg_agent/datastore.db")


@pytest.mark.parametrize("suffix", ["", "-wal"])
@pytest.mark.parametrize("replaced", [False, True])
def test_a_database_that_has_gone_takes_no_commits(suffix, replaced):
    router.set_item("cmn/timeout", 60)
    file, aside = DATABASE.with_name(DATABASE.name + suffix), DATABASE.with_name("aside")
    file.rename(aside)
    try:
        if replaced:
            file.write_bytes(aside.read_bytes())
        result = router.set_item("cmn/timeout", 61, check=False)
        assert result.returncode == 1 and "has been removed or replaced" in result.stderr
        assert "LoginGraceTime 60" in router.server_lines()
        assert router.configuration() == {router.SERVER + "cmn/timeout": 60}
    finally:
        aside.rename(file)
    router.kill_agent()
    assert router.configuration() == {router.SERVER + "cmn/timeout": 60}


def test_a_frame_that_takes_all_memory_does_not_end_the_agent():
    agent = router.main_pid(router.AGENT)
    size = int(pathlib.Path(f"/proc/{agent}/statm").read_text(encoding="ascii").split()[0]) * 4096
    soft, hard = resource.prlimit(agent, resource.RLIMIT_AS)
    items = b",".join(b'"/%d":["a text of some length"]' % number for number in range(160_000))
    document = b'{"call":"load","check":true,"items":{' + items + b"}}"
    try:
        for megabytes in range(12, 80, 4):
            resource.prlimit(agent, resource.RLIMIT_AS, (size + megabytes * 1024 * 1024, hard))
            with connected() as peer, contextlib.suppress(OSError):
                peer.sendall(struct.pack(">I", len(document)) + document)
                peer.recv(4)
            assert router.main_pid(router.AGENT) == agent, f"{megabytes} MB more"
    finally:
        resource.prlimit(agent, resource.RLIMIT_AS, (soft, hard))
    assert router.agent_answers()


def seconds_of_commits():
    """The shortest of several measurements."""
    def measure():
        start = time.monotonic()
        with connected() as peer:
            for number in range(20):
                items = {router.CLIENT + "dscp": number, router.CLIENT + "rekey_time": number + 1}
                assert ask(peer, {"call": "load", "items": items})["result"] == "done"
        return time.monotonic() - start

    return min(measure() for _ in range(3))


def test_a_long_access_list_does_not_slow_commits(lists_and_wires, tmp_path):
    before = seconds_of_commits()
    file = tmp_path / "list"
    lines = (f"{10 * n} permit tcp 10.{n >> 8}.{n & 255}.0 0.0.0.255 any\n" for n in range(1, 20001))
    file.write_text("".join(lines), encoding="ascii")
    run("ssh_cfg_ctl", "acl", "set", "ipv4", "long", file, timeout=120)
    after = seconds_of_commits()
    print(f"20 commits: {before:.3f} s, with a list of 20,000 entries {after:.3f} s")
    assert after < 2 * before + 0.2


def test_the_client_offers_nothing_that_fips_mode_excludes(server):
    vrf = server("red")
    router.set_item("/cfg/gl/crypto/fipsmode/value", True)
    words = as_user("/pkg/bin/ssh_csm", "-o", "BatchMode=yes")
    for arguments in (["-c", "chacha20-poly1305@openssh.com"], ["-oCiphers=+chacha20-poly1305@openssh.com"], ["-oKexAlgorithms=curve25519-sha256"]):
        result = router.in_vrf(vrf, *words, *arguments, "operator@127.0.0.1", "true", check=False)
        assert result.returncode == 255 and "not approved in FIPS mode" in result.stderr
    assert router.in_vrf(vrf, *words, "-c", "aes256-ctr", "-G", "router").returncode == 0


# --- NETCONF as a second way in


@pytest.fixture
def netconf(server):
    return server("red", "vrf-netconf", 830)


# The beginning of an SFTP session, which an SFTP server answers.
SFTP = "\0\0\0\5\1\0\0\0\3"


def refused_on_830(vrf, *command, **options):
    result = router.ssh(vrf, *command, port=830, check=False, **options)
    # sshd does not pass on what a subsystem writes to its standard error.
    told = "-s" in command or "NETCONF subsystem only" in result.stderr
    return result.returncode == 1 and result.stdout == "" and told


@pytest.mark.parametrize(
    "command",
    [[], ["id"], ["/pkg/bin/netconf_sshd_proxy -i 0 -o 1; id"], ["-s", "sftp"], ["scp", "-t", "/tmp"]],
    ids=["shell", "command", "appended", "sftp", "scp"],
)
def test_the_netconf_port_gives_nothing_but_netconf(netconf, netconf_proxy, command):
    assert refused_on_830(netconf, *command, input=SFTP if "sftp" in command else "id\n")
    assert router.netconf(netconf, "<hello/>").stdout == "proxy -i 0 -o 1\n<hello/>"


def test_the_netconf_port_forwards_nothing_and_gives_no_terminal(netconf, netconf_proxy):
    words = sessions.ssh_words(netconf, "-s", "netconf", port=830, options=["BatchMode=yes", "ExitOnForwardFailure=yes"])
    through = run(*words[:-3], "-L", "4711:127.0.0.1:22", "-tt", *words[-3:], check=False, input="<hello/>")
    assert "PTY allocation request failed" in through.stderr
    direct = run(*words[:-3], "-W", "127.0.0.1:830", words[-3], check=False, input="")
    assert direct.returncode != 0 and "SSH-2.0" not in direct.stdout


def restricted_key(options, tmp_path):
    """Gives the ordinary user a further key with options in its line. Returns its file, and what takes it away again."""
    file = tmp_path / "restricted"
    run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", file)
    authorized = pathlib.Path(pwd.getpwnam(ORDINARY).pw_dir) / ".ssh/authorized_keys"
    before = authorized.read_text(encoding="utf-8")
    authorized.write_text(f"{before}{options} {file.with_suffix('.pub').read_text(encoding='utf-8')}", encoding="utf-8")
    return file, lambda: authorized.write_text(before, encoding="utf-8")


@pytest.mark.parametrize("command", ["internal-sftp", "/pkg/bin/sftp-server", "echo in"])
def test_a_restricted_key_is_no_way_around_it(netconf, netconf_proxy, tmp_path, command):
    key, undo = restricted_key(f'restrict,command="{command}"', tmp_path)
    try:
        options = [f"IdentityFile={key}", "IdentitiesOnly=yes"]
        assert refused_on_830(netconf, "-s", "sftp", options=options, input=SFTP)
        refused = router.netconf(netconf, "<hello/>", options=options, check=False)
        assert refused.returncode != 0 and "hello" not in refused.stdout
    finally:
        undo()


def test_a_missing_netconf_proxy_is_told(netconf, journal):
    router.run("systemctl", "restart", router.server_unit(netconf))
    text = "port 830 is open, but NETCONF sessions fail: /pkg/bin/netconf_sshd_proxy is missing or cannot be executed"
    journal.wait_for(text)
    assert sum(text in message for message in journal.messages()) == 1


# --- A session's own processes

START_AND_OPEN = """
import os, struct, sys
program, count = sys.argv[1], int(sys.argv[2])
opened = 0
for _ in range(count):
    command = struct.pack("II", 3, 0) + b"\\0".join([b"/bin/sh", b"sh", b"-c", b"sleep 0.05", b""])
    file = os.memfd_create("session", 0)
    os.write(file, command)
    ends = os.pipe()
    child = os.fork()
    if child == 0:
        os.dup2(ends[0], 0)
        os.dup2(file, 3)
        os.execv(program, [program])
    while open(f"/proc/{child}/cmdline").read().split("\\0")[0] != program:
        pass
    try:
        os.close(os.open(f"/proc/{child}/mem", os.O_RDWR))
        opened += 1
    except PermissionError:
        pass
    except FileNotFoundError:
        pass
    for end in (*ends, file):
        os.close(end)
    os.kill(child, 9)
    os.waitpid(child, 0)
print(opened)
"""


@pytest.mark.parametrize("program", ["/pkg/bin/ssh_exec.sh", "/pkg/bin/sftp-server"])
def test_a_users_other_processes_do_not_get_at_the_memory(server, program):
    server("red")
    status = pathlib.Path(program).lstat()
    assert (status.st_mode & 0o7777, status.st_uid) == (0o711, 0)
    assert run(*as_user(sys.executable, "-c", START_AND_OPEN, program, 200)).stdout == "0\n"


def test_a_key_for_files_runs_no_command(server, tmp_path):
    vrf = server("red")
    key, undo = restricted_key('restrict,command="/pkg/bin/sftp-server"', tmp_path)
    try:
        with sessions.start(vrf, "-s", "sftp", options=[f"IdentityFile={key}", "IdentitiesOnly=yes"]) as held:
            wrapper = sessions.wait_for_wrappers(1)[0]
            server_process = router.wait_until(
                lambda: next((c["pid"] for c in sessions.children(wrapper) if c["words"] == ["/pkg/bin/sftp-server"]), None)
            )
            for pid in (wrapper, server_process):
                batch = f"put {tmp_path}/payload /proc/{pid}/mem\n"
                (tmp_path / "payload").write_bytes(b"x" * 100)
                words = ["sftp", "-q", "-b", "-", "-o", f"IdentityFile={key}", "-o", "IdentitiesOnly=yes"]
                words += ["-o", "StrictHostKeyChecking=no", "operator@127.0.0.1"]
                result = router.in_vrf(vrf, *words, input=batch, check=False)
                assert result.returncode != 0 and "Permission denied" in result.stderr
            held.stdin.close()
            held.wait(timeout=10)
    finally:
        undo()
