"""What an ordinary user of the router tries against its agent and its operators, and what comes of it."""

import contextlib
import pathlib
import pwd
import resource
import subprocess
import sys
import time

import pytest
import router
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
    run("usermod", "--append", "--groups", "sshcfg", ORDINARY)
    yield ORDINARY
    run("gpasswd", "--delete", ORDINARY, "sshcfg")


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
