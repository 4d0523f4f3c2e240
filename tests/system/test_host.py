"""The host around the servers: banners, the PAM service, the list of file systems, planted links, reloads."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import time

import pytest
import router
import sessions
from router import ssh
from sessions import log_in, start, wait_for_wrappers

LOGIN_BANNER = "/cfg/gl/banner/0x3"
MOTD_BANNER = "/cfg/gl/banner/0x2"
AAA_BANNER = "/cfg/gl/aaa/banner/0x0"
BANNER_FILE = router.FILES / "banner"
MOTD_FILE = pathlib.Path("/etc/motd")
PAM_FILE = pathlib.Path("/etc/pam.d/norvosshd")
PAM_TEXT = (
    "#PAM file for norvosshd\n\nauth sufficient libqd_aaa_pam.so\naccount sufficient libqd_aaa_pam.so\n"
    "session sufficient libqd_aaa_pam.so\n\n"
)
PASSWORD = "operator"


def show(path):
    return path.read_text(encoding="utf-8") if path.exists() else None


# Banners


def banner_before_login(vrf):
    """The banner that the server sends before authentication."""
    words = sessions.ssh_words(vrf, "true", user="nosuchuser", options=["BatchMode=yes", "LogLevel=INFO"])
    result = subprocess.run(words, capture_output=True, check=False, timeout=20, env=os.environ | {"LC_ALL": "C.UTF-8"})
    assert result.returncode == 255
    text = result.stderr.decode()
    text = re.sub(r"Warning: Permanently added .*\r?\n", "", text)
    before, _, refusal = text.rpartition("nosuchuser@127.0.0.1: Permission denied")
    assert refusal, text
    return before


@pytest.mark.parametrize(
    ("text", "shown"),
    [
        ("#Hello#", "Hello\n"),
        ("^Authorised users only.\n\tAll others:  leave.\n^", "Authorised users only.\n\tAll others:  leave.\n\n"),
        ("#Zugang für Befugte – 立入禁止#", "Zugang für Befugte – 立入禁止\n"),
        ("#one#two#", "one#two\n"),
        ("#" + "x" * 5000 + "#", "x" * 5000 + "\n"),
    ],
    ids=["word", "lines", "utf-8", "delimiter-inside", "long"],
)
def test_a_client_sees_the_login_banner_before_authentication(server, text, shown):
    server("red")
    router.set_item(LOGIN_BANNER, text)
    assert show(BANNER_FILE) == shown
    assert f"Banner {BANNER_FILE}" in router.server_lines("red")
    router.wait_for_server("red")
    assert banner_before_login("red") == shown


def test_both_banners_are_shown_in_order_and_removed_when_they_are_deleted(server):
    server("red")
    router.load({LOGIN_BANNER: "#for the login#", MOTD_BANNER: "@of the day@"})
    assert show(BANNER_FILE) == "of the day\nfor the login\n"
    router.wait_for_server("red")
    assert banner_before_login("red") == "of the day\nfor the login\n"
    router.delete_item(MOTD_BANNER)
    assert show(BANNER_FILE) == "for the login\n"
    router.delete_item(LOGIN_BANNER)
    assert show(BANNER_FILE) == ""
    assert not any(line.startswith("Banner") for line in router.server_lines("red"))
    router.wait_for_server("red")
    assert banner_before_login("red") == ""


def test_the_banner_survives_a_restart(server):
    server("red")
    router.set_item(LOGIN_BANNER, "#Hello#")
    router.restart_agent()
    router.wait_for_server("red")
    assert banner_before_login("red") == "Hello\n"


def test_the_message_of_the_day_follows_the_aaa_banner(server):
    server("red")
    router.set_item(AAA_BANNER, "%Welcome.\nBehave.%")
    assert show(MOTD_FILE) == "Welcome.\nBehave.\n"
    with log_in("red") as terminal:
        assert "Welcome.\r\nBehave.\r\n" in terminal.read_until("$ ")
    router.set_item(AAA_BANNER, "%Another%")
    assert show(MOTD_FILE) == "Another\n"
    router.delete_item(AAA_BANNER)
    assert show(MOTD_FILE) is None


@pytest.mark.parametrize(
    "text",
    ["#" + "x" * 100_000 + "#", "no delimiters", "#only one", "#bell \a#", "#escape \x1b[2J#", "#nul \0#", "#", "",
     "#carriage return\r\n#"],
    ids=["100 kB", "no delimiters", "one delimiter", "bell", "escape", "nul", "delimiter alone", "empty", "return"],
)
@pytest.mark.parametrize("path", [LOGIN_BANNER, AAA_BANNER])
def test_an_invalid_banner_is_refused_with_the_expected_form(path, text):
    refused = router.load({path: text}, check=False)
    assert refused.returncode == 5
    assert path in refused.stderr
    assert "delimiter" in refused.stderr
    assert path not in router.configuration()


def test_a_dump_contains_banners_as_they_were_set():
    banners = {LOGIN_BANNER: "#one\n\ttwo\n#", MOTD_BANNER: "^ä\"\\^", AAA_BANNER: "%$(hostname) $(nothing)%"}
    router.load(banners)
    dumped = router.configuration()
    assert {path: dumped[path] for path in banners} == banners
    router.load({path: None for path in banners})
    router.load(dumped)
    assert show(BANNER_FILE) == "ä\"\\\none\n\ttwo\n\n"


def test_tokens_are_expanded():
    router.set_item(AAA_BANNER, "%on $(hostname), $(nothing) stays%")
    assert show(MOTD_FILE) == f"on {os.uname().nodename}, $(nothing) stays\n"


# The PAM service


def log_in_with_password(vrf, tmp_path, password=PASSWORD, user="operator", method="password"):
    """Returns whether a login with the password succeeded."""
    answer = tmp_path / "askpass"
    answer.write_text('#!/bin/sh\nprintf "%s\\n" "$ANSWER"\n', encoding="utf-8")
    answer.chmod(0o700)
    options = ["PubkeyAuthentication=no", f"PreferredAuthentications={method}", "NumberOfPasswordPrompts=1"]
    words = sessions.ssh_words(vrf, "whoami", user=user, options=options)
    environment = os.environ | {"SSH_ASKPASS": str(answer), "SSH_ASKPASS_REQUIRE": "force", "ANSWER": password}
    result = router.run(*words, check=False, env=environment, start_new_session=True)
    assert (result.returncode, result.stdout) in [(0, f"{user}\n"), (255, "")], result
    return result.returncode == 0


@pytest.fixture
def account():
    """Creates an account with a password: account("alice", "secret"). None leaves it without a password."""
    made = []

    def make(name, password):
        router.run("useradd", "--create-home", "--shell", "/bin/bash", name)
        made.append(name)
        if password is None:
            router.run("passwd", "--delete", name)
        else:
            router.run("chpasswd", "--crypt-method", "SHA512", input=f"{name}:{password}\n")
        return name

    yield make
    for name in made:
        router.wait_until(
            lambda name=name: router.run("userdel", "--remove", "--force", name, check=False).returncode in (0, 12)
        )


@pytest.mark.parametrize("method", ["password", "keyboard-interactive"])
def test_a_password_is_checked_by_the_servers_own_service(server, tmp_path, journal, method):
    server("red")
    assert show(PAM_FILE) == PAM_TEXT
    assert log_in_with_password("red", tmp_path, method=method)
    assert not log_in_with_password("red", tmp_path, "wrong", method=method)
    # The server uses its own PAM service; Debian's sshd has a different one.
    journal.wait_for("pam_unix(ssh_cfg_aaa:auth): authentication failure", router.server_unit("red"))


def test_accounts_that_may_not_log_in_are_refused_with_the_right_password(server, account, tmp_path):
    server("red")
    account("alice", "secret")
    assert log_in_with_password("red", tmp_path, "secret", "alice")
    router.run("chage", "--expiredate", "1", "alice")
    assert not log_in_with_password("red", tmp_path, "secret", "alice")
    router.run("chage", "--expiredate", "-1", "alice")
    router.run("usermod", "--lock", "alice")
    assert not log_in_with_password("red", tmp_path, "secret", "alice")
    router.run("usermod", "--unlock", "alice")
    assert log_in_with_password("red", tmp_path, "secret", "alice")
    assert not log_in_with_password("red", tmp_path, "", account("bob", None))
    assert not log_in_with_password("red", tmp_path, "secret", "nosuchuser")


def test_an_expired_account_is_refused_with_its_key_too(server, account):
    server("red")
    account("alice", "secret")
    keys = pathlib.Path("/home/alice/.ssh/authorized_keys")
    keys.parent.mkdir(mode=0o700)
    shutil.copy("/root/.ssh/id_ed25519.pub", keys)
    router.run("chown", "-R", "alice:", "/home/alice")
    assert ssh("red", "whoami", user="alice").stdout == "alice\n"
    router.run("chage", "--expiredate", "1", "alice")
    assert ssh("red", "whoami", user="alice", check=False).returncode == 255


def test_nologin_admits_only_root(server, tmp_path):
    server("red")
    closed = pathlib.Path("/etc/nologin")
    closed.write_text("maintenance\n", encoding="utf-8")
    try:
        assert not log_in_with_password("red", tmp_path)
    finally:
        closed.unlink()
    assert log_in_with_password("red", tmp_path)


def test_without_the_module_no_password_is_accepted(server, tmp_path):
    server("red")
    (module,) = pathlib.Path("/usr/lib").glob("*/security/libqd_aaa_pam.so")
    aside = module.with_suffix(".aside")
    module.rename(aside)
    try:
        assert not log_in_with_password("red", tmp_path)
    finally:
        aside.rename(module)
    assert log_in_with_password("red", tmp_path)


def wait_for_pam_file(seconds):
    router.wait_until(lambda: show(PAM_FILE) == PAM_TEXT, seconds, "the PAM file is there")


def test_a_deleted_pam_file_is_restored_within_a_second(server, tmp_path):
    for _ in range(3):
        PAM_FILE.unlink()
        wait_for_pam_file(1)
    server("red")
    assert log_in_with_password("red", tmp_path)


def test_an_existing_pam_file_is_left_alone():
    try:
        PAM_FILE.write_text("#mine\n", encoding="utf-8")
        other = PAM_FILE.with_name("norvosshd.bak")
        other.write_text("", encoding="utf-8")
        other.unlink()
        router.restart_agent()
        assert show(PAM_FILE) == "#mine\n"
    finally:
        PAM_FILE.unlink()
        wait_for_pam_file(1)


def test_the_pam_file_survives_the_loss_of_its_directory(tmp_path):
    directory = PAM_FILE.parent
    shutil.copytree(directory, tmp_path / "saved", symlinks=True)
    agent = router.main_pid(router.AGENT)
    # Otherwise the agent restores the file before the directory can be removed.
    os.kill(agent, signal.SIGSTOP)
    try:
        shutil.rmtree(directory)
    finally:
        os.kill(agent, signal.SIGCONT)
    time.sleep(0.5)
    directory.mkdir()
    try:
        wait_for_pam_file(2)
        PAM_FILE.unlink()
        wait_for_pam_file(1)
    finally:
        shutil.copytree(tmp_path / "saved", directory, symlinks=True, dirs_exist_ok=True)


def test_no_deletion_is_lost_in_a_flood(tmp_path):
    longest = int(pathlib.Path("/proc/sys/fs/inotify/max_queued_events").read_text(encoding="utf-8"))
    if longest > 200_000:
        pytest.skip("this machine's queue is too long to be filled in reasonable time")
    agent = router.main_pid(router.AGENT)
    os.kill(agent, signal.SIGSTOP)
    try:
        names = [PAM_FILE.with_name(f"flood{i % 2}") for i in range(longest + 100)]
        for name in names:
            os.close(os.open(name, os.O_CREAT | os.O_WRONLY, 0o600))
            os.unlink(name)
        PAM_FILE.unlink()
    finally:
        os.kill(agent, signal.SIGCONT)
    wait_for_pam_file(10)
    PAM_FILE.unlink()
    wait_for_pam_file(1)


# The list of file systems


def test_the_list_of_file_systems_is_in_shared_memory():
    data = pathlib.Path("/dev/shmem/shm_filesystem_list").read_bytes()
    assert len(data) == 1024
    text, _, rest = data.partition(b"\0")
    assert rest.strip(b"\0") == b""
    names = text.decode().split(" ")
    assert names.pop() == "", "a blank follows each name"
    mounted = router.run("findmnt", "--list", "--noheadings", "--output", "TARGET").stdout.split("\n")
    assert "/" in names
    assert set(names) <= {line.strip() for line in mounted}


# Links that another user planted

FIXED_NAMES = [
    "norvo_ssh_pid.txt", "norvo_ssh_pid_check.txt", "norvo_ssh_oper_pid.txt", "norvossh_client_oper_pid.txt",
]


def test_planted_links_are_not_followed(server):
    server("red")
    victim = pathlib.Path("/etc/precious")
    victim.write_text("precious\n", encoding="utf-8")
    links = [pathlib.Path("/tmp") / name for name in FIXED_NAMES]
    for link in links:
        router.run("runuser", "-u", "operator", "--", "ln", "-s", victim, link)
    try:
        session = start("red", "cat")
        wait_for_wrappers(1)
        # The agent uses files of these names, but in its private /tmp.
        assert "operator" in router.run("ssh_cfg_ctl", "show", "/oper/crypto-ssh/gl/session_xml/brief").stdout
        assert router.ctl("show", "/oper/crypto-ssh/client/brief", check=False).returncode == 4
        assert reload()[0].returncode == 0
        assert (router.AGENT_TMP / "norvo_ssh_pid.txt").read_text(encoding="utf-8").strip().isdecimal()
        session.wait(timeout=10)
        assert victim.read_text(encoding="utf-8") == "precious\n"
        assert [os.readlink(link) for link in links] == [str(victim)] * len(links)
    finally:
        for link in links:
            link.unlink()
        victim.unlink()
        router.restart_agent()


@pytest.mark.parametrize("user", ["operator", "nobody"])
def test_others_can_neither_plant_nor_read_the_agents_files(user):
    for command in (["touch", router.AGENT_TMP / "planted"], ["ls", router.AGENT_TMP]):
        assert router.run("runuser", "-u", user, "--", *command, check=False).returncode != 0
    agent = router.main_pid(router.AGENT)
    inside = os.stat(f"/proc/{agent}/root/tmp")
    assert (inside.st_dev, inside.st_ino) == (os.stat(router.AGENT_TMP).st_dev, os.stat(router.AGENT_TMP).st_ino)
    assert inside.st_uid == 0
    assert inside.st_mode & 0o777 == 0o700


# Reloads


@pytest.fixture
def after_reload():
    """After the test starts the servers again that a reload stopped."""
    yield
    sessions.end_all()
    router.restart_agent()


def reload(*options):
    """Returns the tool's result and how long it took."""
    before = time.monotonic()
    result = router.run("ssh_cfg_ctl", "reload", *options, check=False, timeout=60)
    return result, time.monotonic() - before


def test_a_reload_closes_the_sessions_stops_the_servers_and_is_acknowledged(server, after_reload, journal, netconf_proxy):
    server("red")
    server("blue", "vrf-netconf", 830)
    with log_in("red") as interactive:
        interactive.read_until("$ ")
        command = start("blue", "-s", "netconf", port=830)
        transfer = subprocess.Popen(
            [*sessions.ssh_words("red", options=["BatchMode=yes"])[:-1], "-s", "operator@127.0.0.1", "sftp"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        )
        wait_for_wrappers(3)
        result, seconds = reload()
        assert result.returncode == 0, result
        assert seconds < 5
        assert sessions.wrappers() == []
        assert not any(router.is_active(router.server_unit(vrf)) for vrf in ("red", "blue"))
        for client in (interactive.program, command, transfer):
            assert client.wait(timeout=10) != 0
    journal.wait_for("Active Sessions:=3, Will close these sessions", router.AGENT)
    journal.wait_for("all active sessions terminated", router.AGENT)
    assert not router.port_answers("red")


def test_a_reload_without_sessions_is_acknowledged_at_once(server, after_reload):
    server("red")
    result, seconds = reload()
    assert result.returncode == 0, result
    assert seconds < 2
    assert not router.is_active(router.server_unit("red"))


def test_a_session_that_ignores_the_signals_prevents_the_acknowledgement(server, after_reload):
    server("red")
    stubborn = start("red", "trap '' TERM HUP; echo ready; while :; do sleep 1; done")
    assert stubborn.stdout.readline() == b"ready\n"
    with log_in("red") as other:
        other.read_until("$ ")
        result, seconds = reload("--timeout", "8")
        assert result.returncode == 1
        assert "not acknowledged within 8 seconds" in result.stderr
        assert 5 <= seconds < 12
        assert other.program.wait(timeout=10) != 0
    assert not router.is_active(router.server_unit("red"))
    assert len(sessions.wrappers()) == 1
    assert stubborn.poll() is None
    stubborn.kill()


# Has the title of a session's wrapper, a parent with the title of a server's session, and its own process group.
IMPOSTOR = "exec -a 'sshd: operator [priv]' bash -c 'set -m; (exec -a /pkg/bin/ssh_exec.sh sleep 600) & wait'"


def impostors():
    return router.run("pgrep", "--full", "--uid", "operator", "^/pkg/bin/ssh_exec.sh 600", check=False).stdout.split()


def test_a_process_that_only_has_a_sessions_name_is_left_alone(server, after_reload, journal):
    server("red")
    impostor = subprocess.Popen(["runuser", "-u", "operator", "--", "bash", "-c", IMPOSTOR])
    try:
        router.wait_until(impostors, what="the impostor runs")
        before = impostors()
        listed = len(sessions.wrappers())
        assert listed >= 1
        session = start("red", "sleep 600")
        wait_for_wrappers(listed + 1)
        result, seconds = reload()
        assert result.returncode == 0, result
        assert seconds < 5
        assert session.wait(timeout=10) != 0
        assert impostors() == before
        journal.wait_for("Active Sessions:=1, Will close these sessions", router.AGENT)
    finally:
        router.run("pkill", "--uid", "operator", "--full", "ssh_exec.sh 600", check=False)
        impostor.wait(timeout=10)


def test_a_change_after_a_reload_notice_starts_no_server(server, after_reload):
    server("red")
    assert reload()[0].returncode == 0
    assert router.set_item("cmn/timeout", 66, check=False).returncode == 0
    assert "LoginGraceTime 66" in router.server_lines("red")
    router.set_item("sshd/vrf-netconf/red", router.OPEN)
    assert not router.is_active(router.server_unit("red"))
    assert not router.port_answers("red")


def test_a_reload_can_be_requested_from_a_session(server, after_reload, journal):
    server("red")
    with router.member_of("operator", "sshcfg", "sshcfg-admin"), log_in("red") as terminal:
        terminal.read_until("$ ")
        terminal.type("ssh_cfg_ctl reload\n")
        journal.wait_for("all active sessions terminated", router.AGENT)
        assert terminal.program.wait(timeout=10) != 0
    wait_for_wrappers(0)
    assert not router.is_active(router.server_unit("red"))
    assert router.agent_answers()


def test_servers_start_again_when_the_agent_is_restarted(server):
    server("red")
    assert reload()[0].returncode == 0
    router.restart_agent()
    router.wait_for_server("red")
    assert ssh("red", "whoami").stdout == "operator\n"


def test_a_change_after_a_reload_starts_no_stopped_server(server, after_reload):
    server("red")
    assert reload()[0].returncode == 0
    router.set_item("cmn/timeout", 77)
    assert not router.is_active(router.server_unit("red"))
    assert router.run("ssh_cfg_ctl", "repair").returncode == 0
    assert not router.is_active(router.server_unit("red"))
    router.restart_agent()
    router.wait_for_server("red")
    assert any(line.split() == ["LoginGraceTime", "77"] for line in router.server_lines("red"))
