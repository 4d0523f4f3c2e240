"""Sessions under the wrapper: found by the agent, ended by a reload, and otherwise unaffected by it."""

import calendar
import hashlib
import json
import os
import pathlib
import signal
import subprocess
import time

import pytest
import router
import sessions
from router import ssh
from sessions import log_in, process, start, wait_for_wrappers

KEYS = pathlib.Path("/root/.ssh")


@pytest.fixture(autouse=True)
def no_sessions_left():
    yield
    sessions.end_all()


@pytest.fixture
def red(server):
    return server("red")


@pytest.fixture
def user():
    """Creates a user who can log in with the node's keys: user("name", shell="/bin/sh", key_options='command="..." ')."""
    made = []

    def make(name, shell="/bin/bash", key_options=""):
        router.run("useradd", "--create-home", "--shell", shell, name)
        made.append(name)
        keys = pathlib.Path(f"/home/{name}/.ssh/authorized_keys")
        keys.parent.mkdir(mode=0o700)
        keys.write_text(key_options + (KEYS / "id_ed25519.pub").read_text(encoding="utf-8"), encoding="utf-8")
        router.run("chown", "-R", f"{name}:", f"/home/{name}")
        return name

    yield make
    for name in made:
        router.wait_until(
            lambda name=name: router.run("userdel", "--remove", "--force", name, check=False).returncode in (0, 12)
        )


def shell_of(pid):
    """The session's own process, below the wrapper."""
    return router.wait_until(
        lambda: next((c for c in sessions.children(pid) if sessions.WRAPPER not in c["words"]), None),
        what="the wrapper has started the session",
    )


# How the agent finds sessions


def assert_is_found(pid):
    wrapper = process(pid)
    assert wrapper["words"] == [sessions.WRAPPER]
    assert wrapper["group"] == wrapper["session"] == pid
    assert process(wrapper["parent"])["words"][0].startswith("norvosshd: operator@")


def test_a_command_is_one_process_that_leads_its_group(red):
    session = start(red, "cat")
    (pid,) = wait_for_wrappers(1)
    assert_is_found(pid)
    assert shell_of(pid)["words"] == ["bash", "-c", "cat"] or shell_of(pid)["words"] == ["cat"]
    assert shell_of(pid)["group"] == pid
    session.communicate(timeout=10)
    wait_for_wrappers(0)


def test_a_command_that_searches_is_found_too(red):
    session = start(red, "cat | grep x; true")
    assert_is_found(wait_for_wrappers(1)[0])
    session.communicate(timeout=10)


def test_an_interactive_session_is_one_process_that_leads_its_group(red):
    with log_in(red) as terminal:
        terminal.read_until("$ ")
        (pid,) = wait_for_wrappers(1)
        assert_is_found(pid)
        shell = shell_of(pid)
        assert shell["words"] == ["-bash"]
        assert shell["session"] == pid
        assert shell["foreground"] == shell["group"] == shell["pid"]


def test_sftp_is_one_process_that_leads_its_group(red):
    session = subprocess.Popen(
        [*sessions.ssh_words(red, options=["BatchMode=yes"])[:-1], "-s", "operator@127.0.0.1", "sftp"],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
    )
    assert_is_found(wait_for_wrappers(1)[0])
    session.communicate(timeout=10)


def test_sessions_of_one_connection_are_found_separately(red, tmp_path):
    control = [f"ControlPath={tmp_path}/master"]
    master = start(red, "cat", options=["ControlMaster=yes", *control])
    wait_for_wrappers(1)
    second = start(red, "cat", options=control)
    for pid in wait_for_wrappers(2):
        assert_is_found(pid)
    second.communicate(timeout=10)
    wait_for_wrappers(1)
    master.communicate(timeout=10)


def test_sessions_on_the_netconf_port_are_found(server, netconf_proxy):
    server("both", "vrf-netconf", 830)
    session = start("both", "-s", "netconf", port=830)
    assert_is_found(wait_for_wrappers(1)[0])
    session.communicate(timeout=10)


# How a reload ends them


def wait_for_end(client, seconds=5.0):
    wait_for_wrappers(0, seconds)
    return client.wait(timeout=10)


@pytest.mark.parametrize("shell", ["/bin/bash", "/bin/sh"])
def test_an_interactive_shell_ends(red, user, shell):
    with log_in(red, user=user("somebody", shell)) as terminal:
        terminal.read_until("$ ")
        terminal.type("echo re''ady\n")
        terminal.read_until("ready")
        sessions.end_by_group(wait_for_wrappers(1)[0])
        wait_for_wrappers(0, 5)
        assert terminal.status() == 255 or terminal.program.returncode == 129


def wait_for_job(command):
    """Waits until a shell has started the command: it passes a hang-up on only to commands that it has started."""
    router.wait_until(lambda: router.run("pgrep", "-u", "operator", "-f", f"^{command}$", check=False).stdout)


def test_an_interactive_shell_ends_while_a_command_runs_in_it(red):
    with log_in(red) as terminal:
        terminal.read_until("$ ")
        terminal.type("sleep 4242\n")
        wait_for_job("sleep 4242")
        sessions.end_by_group(wait_for_wrappers(1)[0])
        wait_for_wrappers(0, 5)
    router.wait_until(lambda: router.run("pgrep", "-f", "sleep 4242", check=False).returncode == 1)


def test_an_interactive_shell_ends_while_it_is_stopped(red):
    with log_in(red) as terminal:
        terminal.read_until("$ ")
        (pid,) = wait_for_wrappers(1)
        os.kill(shell_of(pid)["pid"], signal.SIGSTOP)
        sessions.end_by_group(pid)
        wait_for_wrappers(0, 5)


@pytest.mark.parametrize("command", ["sleep 4243", "sleep 4243; true", "sleep 4243 | cat | cat", "cat"])
def test_a_command_ends(red, command):
    session = start(red, command)
    (pid,) = wait_for_wrappers(1)
    shell_of(pid)
    sessions.end_by_group(pid)
    assert wait_for_end(session) == 255
    router.wait_until(lambda: router.run("pgrep", "-f", "sleep 4243", check=False).returncode == 1)


def test_a_command_on_a_terminal_ends(red):
    with log_in(red, "echo go''ing; sleep 4244", options=["RequestTTY=force"]) as terminal:
        terminal.read_until("going")
        wait_for_job("sleep 4244")
        sessions.end_by_group(wait_for_wrappers(1)[0])
        wait_for_wrappers(0, 5)
    router.wait_until(lambda: router.run("pgrep", "-f", "sleep 4244", check=False).returncode == 1)


@pytest.mark.parametrize("transfer", [["sftp"], ["scp"], ["scp", "-O"]], ids=" ".join)
def test_a_transfer_ends(red, transfer, tmp_path):
    endless, batch = tmp_path / "endless", tmp_path / "batch"
    with endless.open("wb") as file:
        file.truncate(2**40)
    batch.write_text(f"put {endless} there\n", encoding="utf-8")
    # Slow, so that only a few megabytes are transferred before the session ends.
    words = [*transfer, "-l", "20000"]
    for option in ["BatchMode=yes", *sessions.UNKNOWN_HOST]:
        words += ["-o", option]
    if transfer == ["sftp"]:
        words += ["-b", batch, "operator@127.0.0.1"]
    else:
        words += [endless, "operator@127.0.0.1:there"]
    client = subprocess.Popen(
        ["ip", "netns", "exec", f"vrf-{red}", *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE
    )
    (pid,) = wait_for_wrappers(1)
    there = pathlib.Path("/home/operator/there")
    router.wait_until(lambda: there.exists() and there.stat().st_size > 0, what="the transfer is under way")
    sessions.end_by_group(pid)
    wait_for_wrappers(0, 5)
    client.communicate(timeout=20)
    assert client.returncode != 0
    there.unlink()


def test_a_session_that_ignores_the_signals_stays(red):
    session = start(red, "trap '' TERM HUP; echo ready; while :; do sleep 1; done")
    assert session.stdout.readline() == b"ready\n"
    (pid,) = wait_for_wrappers(1)
    sessions.end_by_group(pid)
    time.sleep(1.5)
    assert sessions.wrappers() == [pid]
    assert session.poll() is None


def test_a_command_that_ignores_the_signal_of_a_reload_is_not_hung_up(red):
    session = start(red, "trap '' TERM; echo ready; while :; do sleep 1; done")
    assert session.stdout.readline() == b"ready\n"
    (pid,) = wait_for_wrappers(1)
    sessions.end_by_group(pid)
    time.sleep(1.5)
    assert sessions.wrappers() == [pid]


def test_a_command_that_ends_in_its_own_way_passes_its_status_on(red):
    session = start(red, "trap 'echo ending; exit 7' TERM; echo ready; while :; do sleep 0.1; done")
    assert session.stdout.readline() == b"ready\n"
    sessions.end_by_group(wait_for_wrappers(1)[0])
    assert session.stdout.readline() == b"ending\n"
    assert wait_for_end(session) == 7


def test_a_lost_connection_ends_the_shell_and_what_runs_in_it(red):
    with log_in(red) as terminal:
        terminal.read_until("$ ")
        terminal.type("sleep 4245\n")
        wait_for_job("sleep 4245")
        terminal.program.kill()
        wait_for_wrappers(0)
    router.wait_until(lambda: router.run("pgrep", "-f", "sleep 4245", check=False).returncode == 1)


# Transparency of the wrapper


def test_a_login_shell_runs_as_login_shell(red):
    with log_in(red) as terminal:
        terminal.read_until("$ ")
        terminal.type("echo \"<$0 $SHLVL $(tty) $-$(shopt -q login_shell && echo l)>\"\n")
        terminal.read_until("<$0")
        text = terminal.read_until(">\r\n")
        assert "<-bash 1 /dev/pts/" in text
        assert "im" in text.partition("/dev/pts/")[2]
        assert text.endswith("l>\r\n")
        terminal.type("exit 42\n")
        assert terminal.status() == 42
    wait_for_wrappers(0)


def test_keys_reach_the_foreground_job(red):
    with log_in(red) as terminal:

        def at_the_prompt(text):
            # Input typed before the shell reads again is echoed twice, by the terminal and by the shell.
            terminal.read_until("$ ")
            terminal.type(text)

        at_the_prompt("sleep 4246\n")
        wait_for_job("sleep 4246")
        terminal.type("\x1a")
        terminal.read_until("Stopped")
        at_the_prompt("bg; jobs; kill %1; wait %1; echo \"<$?>\"\n")
        terminal.read_until("Running")
        terminal.read_until("<143>")
        at_the_prompt("cat\n")
        wait_for_job("cat")
        terminal.type("\x03")
        terminal.read_until("^C")
        at_the_prompt("echo \"<$?>\"\n")
        terminal.read_until("<130>")
        at_the_prompt("cat; echo en''ded\n")
        wait_for_job("cat")
        terminal.type("line\n")
        terminal.read_until("line\r\nline\r\n")
        terminal.type("\x04")
        terminal.read_until("ended")
        at_the_prompt("exit\n")
        assert terminal.status() == 0


def test_keys_reach_a_command_on_a_terminal(red):
    # bash can lose an interrupt just as it starts to wait for a program, so another shell runs the loop.
    script = "trap 'echo inter''rupted; exit 9' INT; echo rea''dy; while :; do sleep 0.1; done"
    with log_in(red, f'exec sh -c "{script}"', options=["RequestTTY=force"]) as terminal:
        terminal.read_until("ready")
        # Nobody could continue this process group, so the kernel does not stop it.
        terminal.type("\x1a")
        terminal.type("\x03")
        terminal.read_until("interrupted")
        assert terminal.status() == 9


def test_an_interrupted_command_ends_with_the_signal(red):
    with log_in(red, "echo rea''dy; sleep 60", options=["RequestTTY=force"]) as terminal:
        terminal.read_until("ready")
        terminal.type("\x03")
        assert terminal.status() in (130, 255)
    wait_for_wrappers(0)


def test_changes_of_the_window_size_arrive(red):
    with log_in(red, rows=31, columns=101) as terminal:
        terminal.read_until("$ ")
        terminal.type("stty size\n")
        terminal.read_until("31 101")
        terminal.resize(33, 103)
        terminal.program.send_signal(signal.SIGWINCH)
        terminal.read_until("$ ")
        terminal.type("until [ \"$(stty size)\" = '33 103' ]; do sleep 0.1; done; echo fol''lowed\n")
        terminal.read_until("followed")


def test_the_message_of_the_day_and_the_last_login_are_shown(red):
    motd = pathlib.Path("/etc/motd")
    before = motd.read_bytes() if motd.exists() else None
    motd.write_text("word of the day\n", encoding="utf-8")
    try:
        with log_in(red) as terminal:
            terminal.read_until("$ ")
        with log_in(red) as terminal:
            shown = terminal.read_until("$ ")
    finally:
        motd.write_bytes(before) if before is not None else motd.unlink()
    assert "word of the day" in shown
    assert "Last login: " in shown


@pytest.mark.parametrize("status", [0, 1, 77, 126, 127, 129, 137, 143, 255])
def test_exit_statuses_are_passed_on(red, status):
    assert ssh(red, f"exit {status}", check=False).returncode == status


@pytest.mark.parametrize("name", ["TERM", "KILL", "SEGV", "HUP", "USR1", "INT", "PIPE"])
def test_a_signal_that_ends_the_command_is_reported(red, name):
    words = sessions.ssh_words(red, f"kill -{name} $$; sleep 5", options=["LogLevel=DEBUG1"])
    client = router.run(*words, check=False)
    assert client.returncode == 255
    assert "rtype exit-signal" in client.stderr


@pytest.mark.parametrize(
    "command",
    [
        "printf '<%s>' a 'b  c' \"d'e\" 'f\"g' '$HOME' '\\' '*' ''",
        "printf '<%s>' \"$0\" $#",
        "echo \"first\nsecond\"",
        "printf '<%s>' äöü €",
        " true ; printf '<%s>' x",
        "printf '<%s>' " + "x" * 100_000,
    ],
)
def test_the_users_shell_receives_the_command_unaltered(red, command):
    expected = subprocess.run(["bash", "-c", command], capture_output=True, check=True, cwd="/").stdout
    session = subprocess.run(sessions.ssh_words(red, command), capture_output=True, check=True, timeout=20)
    assert session.stdout == expected


def test_input_and_output_are_binary_clean(red):
    data = os.urandom(3_000_000)
    session = start(red, "tee /dev/stderr | sha256sum -b; exit 3")
    output, errors = session.communicate(data, timeout=30)
    assert output.split()[0].decode() == hashlib.sha256(data).hexdigest()
    assert errors == data
    assert session.returncode == 3


def test_the_client_sees_output_closed_while_the_command_goes_on(red):
    session = start(red, "exec >&- 2>&-; sleep 4247")
    assert session.stdout.read() == b""
    assert session.poll() is None


def test_the_command_sees_its_input_end(red):
    session = start(red, "cat; echo end")
    session.stdin.write(b"some")
    session.stdin.close()
    assert session.stdout.read() == b"someend\n"


def test_the_environment_is_the_servers(red, user):
    user("snake", "/usr/bin/python3")
    environment = json.loads(ssh(red, "import os, json; print(json.dumps(dict(os.environ)))", user="snake").stdout)
    assert set(environment) <= {"USER", "LOGNAME", "HOME", "PATH", "SHELL", "SSH_CLIENT", "SSH_CONNECTION", "LANG",
                                "LC_ALL", "LC_CTYPE", "MAIL", "XDG_SESSION_ID", "XDG_RUNTIME_DIR", "XDG_SESSION_TYPE",
                                "XDG_SESSION_CLASS", "DBUS_SESSION_BUS_ADDRESS", "MOTD_SHOWN"}
    assert environment["SHELL"] == "/usr/bin/python3"


def test_signals_are_not_ignored_and_no_descriptor_is_left_open(red, user):
    user("snake", "/usr/bin/python3")
    script = (
        "import os, signal\n"
        "print([s.name for s in signal.valid_signals() if signal.getsignal(s) is signal.SIG_IGN], signal.pthread_sigmask(0, []))\n"
        "print(sorted(map(int, os.listdir('/proc/self/fd')))[:-1], os.getppid() == os.getpgrp() == os.getsid(0))"
    )
    # Python itself ignores two of them.
    assert ssh(red, script, user="snake").stdout == "['SIGPIPE', 'SIGXFSZ'] set()\n[0, 1, 2] True\n"


@pytest.mark.parametrize("protocol", [[], ["-O"]], ids=["sftp", "rcp"])
def test_scp_copies_both_ways(red, tmp_path, protocol):
    data = os.urandom(2_000_000)
    (tmp_path / "there").write_bytes(data)
    words = ["scp", "-q", *protocol, "-o", "BatchMode=yes", "-o", "StrictHostKeyChecking=no"]
    router.in_vrf(red, *words, tmp_path / "there", "operator@127.0.0.1:copied")
    router.in_vrf(red, *words, "operator@127.0.0.1:copied", tmp_path / "back")
    assert (tmp_path / "back").read_bytes() == data
    ssh(red, "rm copied")
    missing = router.in_vrf(red, *words, "operator@127.0.0.1:copied", tmp_path / "back", check=False)
    assert missing.returncode == 1


def test_sftp_copies_both_ways(red, tmp_path):
    data = os.urandom(2_000_000)
    (tmp_path / "there").write_bytes(data)
    batch = f"put {tmp_path}/there uploaded\nget uploaded {tmp_path}/back\nrm uploaded\n"
    words = ["sftp", "-q", "-b", "-", "-o", "StrictHostKeyChecking=no", "operator@127.0.0.1"]
    router.in_vrf(red, *words, input=batch)
    assert (tmp_path / "back").read_bytes() == data


def test_an_account_without_a_login_is_refused(red, user):
    user("closed", "/usr/sbin/nologin")
    for command in ([], ["true"]):
        refused = ssh(red, *command, user="closed", check=False)
        assert (refused.returncode, refused.stdout) == (1, "This account is currently not available.\n")
    user("shut", "/bin/false")
    assert ssh(red, "true", user="shut", check=False).returncode == 1


def test_a_restricted_shell_stays_restricted_and_usable(red, user):
    user("fenced", "/bin/rbash")
    assert ssh(red, "echo in", user="fenced").stdout == "in\n"
    refused = ssh(red, "/bin/echo in", user="fenced", check=False)
    assert refused.returncode != 0
    assert "restricted" in refused.stderr


def test_a_shell_that_runs_no_scripts_is_used_directly(red, user):
    user("snake", "/usr/bin/python3")
    assert ssh(red, "print(6 * 7)", user="snake").stdout == "42\n"
    with log_in(red, user="snake") as terminal:
        terminal.read_until(">>> ")
        terminal.type("import sys; sys.exit(5)\n")
        assert terminal.status() == 5


def test_a_key_restricted_to_one_command_allows_no_other(red, user):
    user("limited", key_options='command="echo the one command; echo $SSH_ORIGINAL_COMMAND" ')
    assert ssh(red, "echo another", user="limited").stdout == "the one command\necho another\n"


def test_without_its_wrapper_a_session_runs_nevertheless(red, journal):
    wrapper = pathlib.Path(sessions.WRAPPER)
    aside = wrapper.with_suffix(".aside")
    wrapper.rename(aside)
    try:
        assert ssh(red, "echo in; exit 4", check=False).returncode == 4
        router.run("systemctl", "restart", router.server_unit(red))
        router.wait_for_server(red)
        journal.wait_for(f"sessions run without their wrapper, so a reload will not end them: {wrapper}")
        assert ssh(red, "echo in").stdout == "in\n"
    finally:
        aside.rename(wrapper)
        router.run("systemctl", "restart", router.server_unit(red))
        router.wait_for_server(red)
    session = start(red, "cat")
    wait_for_wrappers(1)
    session.communicate(timeout=10)


# The table of sessions

HOLD_CONNECTION = "import socket; s = socket.create_connection(('127.0.0.1', 22)); s.recv(100); print(flush=True); input()"


def test_sessions_are_listed_with_what_is_known_and_ended(red, journal):
    connection = subprocess.Popen(
        ["ip", "netns", "exec", f"vrf-{red}", "python3", "-c", HOLD_CONNECTION],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
    )
    assert connection.stdout.readline() == b"\n"
    with log_in(red) as terminal:
        terminal.read_until("$ ")
        terminal.type("tty\n")
        terminal.read_until("/dev/")
        tty = terminal.read_until("\r\n").strip()
        listed = router.wait_until(
            lambda: {s["state"]: s for s in router.ctl("sessions") if s["state"] != "established" or s["terminals"]}
        )
        session, other = listed["established"], listed["connecting"]
        assert session["vrf"] == other["vrf"] == red
        assert (session["user"], session["address"], session["terminals"]) == ("operator", "127.0.0.1", [tty])
        assert (other["id"], other["user"], other["address"]) == (None, None, "127.0.0.1")
        assert session["method"].endswith("-pubkey")
        fingerprints = router.run("sh", "-c", "for f in /root/.ssh/*.pub; do ssh-keygen -lf $f; done").stdout
        assert session["key"]["fingerprint"] in fingerprints
        assert session["idle"] < 60
        since = calendar.timegm(time.strptime(session["since"], "%Y-%m-%dT%H:%M:%SZ"))
        assert abs(since - time.time()) < 120
        assert process(session["pid"])["words"][0] == "norvosshd: operator [priv]"
        assert session["algorithms"]["cipher_in"] in router.run("ssh", "-Q", "cipher").stdout.split()
        ended = router.ctl("session", "end", "--vrf", red)
        assert {s["pid"] for s in ended} == {session["pid"], other["pid"]}
        terminal.read_to_end()
    connection.communicate(timeout=30)
    assert router.ctl("sessions") == []
    wait_for_wrappers(0)
    assert router.ctl("session", "end", "--vrf", red, check=False).returncode == 4
    journal.wait_for(f"session {session['id']} of operator from 127.0.0.1")
