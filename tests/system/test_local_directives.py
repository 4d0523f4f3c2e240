"""Local directives: what an administrator adds to the servers' files, and what becomes of mistakes in them."""

import json
import os
import pathlib
import stat
import subprocess

import pytest
import router
import sessions

FOLDER = pathlib.Path("/etc/ssh_cfg_agent/sshd.d")
RED = FOLDER / "red.conf"
ALL = FOLDER / "all.conf"
ACCEPTED = pathlib.Path("/var/lib/ssh_cfg_agent/local_directives")
IN_FORCE = router.RUNTIME / "openssh" / "sshd_config_red"
AUDITOR = pathlib.Path(__file__).parents[2] / "examples" / "auditor.conf"
KEYS_ONLY = "PasswordAuthentication no\nKbdInteractiveAuthentication no\n"


@pytest.fixture(autouse=True)
def no_directives():
    yield
    for file in FOLDER.glob("*"):
        file.unlink()
    FOLDER.chmod(0o755)
    router.run("ssh_cfg_ctl", "local", "apply")


@pytest.fixture
def red(server):
    return server("red")


def local(*words, status=0, **options):
    """Runs `ssh_cfg_ctl local` and returns what it says."""
    result = router.run("ssh_cfg_ctl", "local", *words, check=False, **options)
    assert result.returncode == status, result.stdout + result.stderr
    return result.stdout + result.stderr


def effective(vrf="red"):
    """The settings of the VRF's running server, by keyword."""
    text = router.run("/pkg/libexec/norvosshd", "-T", "-f", IN_FORCE.with_name(f"sshd_config_{vrf}")).stdout
    return dict(line.split(" ", 1) for line in text.splitlines() if " " in line)


def logs_in(vrf="red", user="operator", **options):
    return router.ssh(vrf, "true", user=user, check=False, **options).returncode == 0


def restart(vrf="red"):
    router.run("systemctl", "restart", router.server_unit(vrf))
    router.wait_for_server(vrf)


def test_directives_are_taken_over_and_sessions_live_on(red):
    session = sessions.start("red", "echo begun; cat")
    assert session.stdout.readline() == b"begun\n"
    said = local("set", "red", "-", input=KEYS_ONLY + "PermitRootLogin no\n")
    assert said == f"changed    {RED}\nrestarted  red\n"
    assert stat.S_IMODE(RED.stat().st_mode) == 0o644 and RED.stat().st_uid == 0
    settings = effective()
    assert (settings["passwordauthentication"], settings["kbdinteractiveauthentication"]) == ("no", "no")
    assert settings["permitrootlogin"] == "no"
    assert logs_in() and not logs_in(user="root")
    session.stdin.write(b"still here\n")
    session.stdin.flush()
    assert session.stdout.readline() == b"still here\n"
    session.stdin.close()
    assert session.wait(timeout=20) == 0

    assert local("show", "red") == (
        "VRF red\n"
        f"  PasswordAuthentication no        {RED}, line 1\n"
        f"  KbdInteractiveAuthentication no  {RED}, line 2\n"
        f"  PermitRootLogin no               {RED}, line 3\n"
    )
    assert "current + local" in router.run("ssh_cfg_ctl", "status").stdout
    assert router.run("ssh_cfg_ctl", "verify").stdout == "no differences\n"
    # The same text again restarts nothing; comments alone are stored and restart nothing.
    assert local("set", "red", "-", input=RED.read_text()) == f"unchanged  {RED}\nno server restarted\n"
    assert local("set", "red", "-", input="# why\n" + RED.read_text()) == f"changed    {RED}\nno server restarted\n"
    # An empty file is no file.
    assert local("set", "red", "-", input="") == f"changed    {RED}\nrestarted  red\n"
    assert not RED.exists() and local("show", "red") == "VRF red: no local directives\n"


def test_the_vrfs_own_directives_come_before_those_of_all(server):
    server("red")
    server("blue")
    assert local("set", "all", "-", input="PermitRootLogin no\nDebianBanner no\n").endswith("restarted  blue, red\n")
    assert local("set", "red", "-", input="PermitRootLogin prohibit-password\n").endswith("restarted  red\n")
    assert effective("red")["permitrootlogin"] == "without-password"
    assert effective("blue")["permitrootlogin"] == "no"
    assert local("check", "red") == (
        f"accepted   {RED}, line 1: PermitRootLogin prohibit-password\n"
        f"overruled  {ALL}, line 1: PermitRootLogin no\n"
        f"           overruled by {RED}, line 1\n"
        f"accepted   {ALL}, line 2: DebianBanner no\n"
    )


def test_each_refused_line_is_named_and_nothing_changes(red):
    said = local("check", "red", "-", status=5, input="PasswordAuthentification no\nLoginGraceTime 5\nUsePAM no\nPermitRootLogin no\n")
    assert said == (
        f"refused    {RED}, line 1: PasswordAuthentification no\n"
        "           unknown keyword; did you mean PasswordAuthentication?\n"
        f"refused    {RED}, line 2: LoginGraceTime 5\n"
        "           it would overrule what is configured; set /cfg/gl/crypto/ssh/server/cmn/timeout instead\n"
        f"refused    {RED}, line 3: UsePAM no\n"
        "           the servers authenticate through the PAM service norvosshd\n"
        f"accepted   {RED}, line 4: PermitRootLogin no\n"
        "ssh_cfg_ctl: 3 lines or files are refused\n"
    )
    local("set", "red", "-", status=5, input="UsePAM no\n")
    assert not RED.exists()
    # What only sshd can judge.
    said = local("set", "red", "-", status=5, input="PermitRootLogin no\n\nAllowUsers eve@10.0.0.1/8\n")
    assert f"{RED}, line 3: refused by sshd: " in said
    said = local("set", "../evil", "-", status=5, input="")
    assert "is not the name of a VRF" in said


WRONG_FILES = {
    "a misspelled keyword": lambda: RED.write_text("PermitRotLogin no\n"),
    "a symbolic link": lambda: (RED.with_name("elsewhere").write_text("PermitRootLogin no\n"), RED.unlink(),
                                RED.symlink_to("elsewhere")),
    "a pipe": lambda: (RED.unlink(), os.mkfifo(RED)),
    "a file that others can write": lambda: RED.chmod(0o666),
    "a file of another user": lambda: os.chown(RED, 65534, 0),
    "a folder that others can write": lambda: FOLDER.chmod(0o777),
    "what only sshd can judge": lambda: RED.write_text("AllowUsers eve@10.0.0.1/8\n"),
}


def test_no_mistake_closes_the_way_in(red):
    for name, spoil in WRONG_FILES.items():
        FOLDER.chmod(0o755)
        RED.unlink(missing_ok=True)
        RED.write_text(KEYS_ONLY)
        restart()
        assert effective()["passwordauthentication"] == "no", name
        spoil()
        named = router.run("ssh_cfg_ctl", "verify", check=False)
        assert named.returncode == 1 and "local directives red: " in named.stdout, name
        restart()
        assert logs_in(), name
        assert effective()["passwordauthentication"] == "no", f"{name}: the last accepted ones"
        status = router.run("ssh_cfg_ctl", "status").stdout
        assert "VRF red: its server runs with the last accepted local directives, not with the present ones" in status, name
        assert "refused" in local("check", "red", status=5), name
        assert local("show", "red").startswith("VRF red: the last accepted local directives"), name
        assert "the last accepted ones are in force: " in router.run("ssh_cfg_ctl", "verify", check=False).stdout, name
    journal_text = router.run("journalctl", "-u", router.server_unit("red"), "--no-pager").stdout
    assert f'{RED}, line 1: "PermitRotLogin no" refused: unknown keyword; did you mean PermitRootLogin?' in journal_text
    assert "THE SERVER RUNS WITH THE LAST ACCEPTED LOCAL DIRECTIVES" in journal_text
    # They survive a reboot, which empties /run. Without them the server starts nevertheless.
    RED.write_text("PermitRotLogin no\n")
    for file in IN_FORCE.parent.glob("*"):
        file.unlink()
    restart()
    assert effective()["passwordauthentication"] == "no"
    for file in ACCEPTED.glob("*"):
        file.unlink()
    restart()
    assert logs_in() and effective()["passwordauthentication"] == "yes"
    assert local("show", "red").startswith("VRF red: no local directives, because the present ones are refused\n")


def test_directives_of_each_kind(red):
    router.in_vrf("red", "ip", "address", "add", "192.0.2.1/32", "dev", "lo")
    directives = "ListenAddress 192.0.2.1\nListenAddress 192.0.2.9\nMaxStartups 5\nMACs hmac-sha2-256\n"
    assert "ListenAddress left out: " in local("set", "red", "-", status=6, input=directives)
    router.wait_until(lambda: router.port_answers("red", address="192.0.2.1"), what="the server at its address")
    assert not router.port_answers("red", address="127.0.0.1")
    assert effective()["macs"] == "hmac-sha2-256"
    status = router.run("ssh_cfg_ctl", "status").stdout
    assert "ListenAddress left out: no interface of the VRF has the address 192.0.2.9 now" in status
    # As soon as the address is there, the agent's own repair has the server listen on it.
    router.in_vrf("red", "ip", "address", "add", "192.0.2.9/32", "dev", "lo")
    router.run("ssh_cfg_ctl", "repair")
    router.wait_until(lambda: router.port_answers("red", address="192.0.2.9"), what="the server at its new address")

    local("set", "red", "-", input="DenyUsers operator\n")
    assert not logs_in()
    local("set", "red", "-", input="AllowGroups nobody-is-in-it\n")
    assert not logs_in()
    local("set", "red", "-", input="AllowUsers oper*@127.0.0.0/8\n")
    assert logs_in()
    local("set", "red", "-", input="Match User operator Address 127.0.0.0/8\n  ForceCommand echo forced\n  PermitTTY no\n")
    assert router.ssh("red", "id").stdout == "forced\n"


def test_a_forced_command_does_not_reach_the_netconf_port(server, netconf_proxy):
    server("red", "vrf-netconf", 830)
    local("set", "red", "-", input="Match all\n  ForceCommand internal-sftp\n")
    router.wait_for_server("red", 830)
    assert router.netconf("red", "hello\n").stdout == "proxy -i 0 -o 1\nhello\n"


def test_only_administrators_edit_and_root_alone_what_makes_root(red, tmp_path):
    refused = router.run("tee", RED, check=False, user="operator", input="PermitRootLogin yes\n")
    assert refused.returncode != 0 and not RED.exists()
    with router.member_of("operator", "sshcfg"):
        local("set", "red", "-", input=KEYS_ONLY)
        reader = router.run("runuser", "-u", "operator", "--", "ssh_cfg_ctl", "local", "show", "red")
        assert "PasswordAuthentication no" in reader.stdout
        denied = router.run("runuser", "-u", "operator", "--", "ssh_cfg_ctl", "local", "set", "red", "-", check=False,
                            input="")
        assert denied.returncode == 5 and "permission denied" in denied.stderr
        with router.member_of("operator", "sshcfg-admin"):
            set_red = ["runuser", "-u", "operator", "--", "ssh_cfg_ctl", "local", "set", "red", "-"]
            assert router.run(*set_red, input="PermitRootLogin no\n").stdout.startswith("changed ")
            for text in ("AuthorizedKeysFile /home/operator/k\n", "Match User root\nForceCommand /home/operator/x\n"):
                denied = router.run(*set_red, check=False, input=text)
                assert denied.returncode == 5 and "only root may change it" in denied.stderr
            local("set", "red", "-", input="AuthorizedKeysFile .ssh/authorized_keys\n")
            denied = router.run(*set_red, check=False, input="")
            assert denied.returncode == 5 and RED.exists()


def test_the_author_of_a_change_is_not_kept_out_unawares(red):
    with router.member_of("operator", "sshcfg", "sshcfg-admin"):
        words = sessions.ssh_words("red", "ssh_cfg_ctl", "local", "set", "red", "-", options=["BatchMode=yes"])
        denied = router.run(*words, check=False, input="AllowUsers root\n")
        assert denied.returncode == 5
        assert "a new login like yours would be refused: AllowUsers would not name operator" in denied.stderr
        assert not RED.exists()
        assert router.run(*words, check=False, input="AllowUsers op*\n").returncode == 0


def editor(tmp_path, commands):
    program = tmp_path / "editor"
    program.write_text(f"#!/bin/sh\n{commands}\n", encoding="ascii")
    program.chmod(0o755)
    return os.environ | {"EDITOR": str(program), "VISUAL": "", "TMPDIR": str(tmp_path)}


def test_edit_replaces_the_file_only_when_it_is_accepted(red, tmp_path):
    said = local("edit", "red", "--yes", env=editor(tmp_path, 'echo "PermitRootLogin no" >> "$1"'))
    assert said == f"changed    {RED}\nrestarted  red\n" and RED.read_text() == "PermitRootLogin no\n"
    assert not list(tmp_path.glob("ssh_cfg_ctl.*")), "the copy is gone"
    said = local("edit", "red", "--yes", status=5, env=editor(tmp_path, 'echo "Nonsense" >> "$1"'))
    assert RED.read_text() == "PermitRootLogin no\n"
    copy = pathlib.Path(said.split("your text is kept in ")[1].splitlines()[0])
    assert copy.read_text() == "PermitRootLogin no\nNonsense\n"
    local("edit", "red", "--yes", status=1, env=editor(tmp_path, "exit 1"))
    assert "without a terminal, use --yes" in local("edit", "red", status=5, env=editor(tmp_path, "true"))


def test_a_kill_between_edit_and_rename_leaves_the_old_file(red, tmp_path):
    local("set", "red", "-", input="PermitRootLogin no\n")
    mark = tmp_path / "editing"
    environment = editor(tmp_path, f'echo Nonsense > "$1"; touch {mark}; sleep 5')
    tool = subprocess.Popen(["ssh_cfg_ctl", "--yes", "local", "edit", "red"], env=environment)
    router.wait_until(mark.exists, what="the editor")
    tool.kill()
    tool.wait()
    assert RED.read_text() == "PermitRootLogin no\n"
    # What a kill of the agent leaves behind is no file of directives.
    RED.with_name("red.conf.new").write_text("Nonsense\n", encoding="ascii")
    restart()
    assert local("show", "red") == f"VRF red\n  PermitRootLogin no  {RED}, line 1\n"
    assert local("set", "red", "-", input=KEYS_ONLY).startswith("changed ")


def test_a_backup_has_the_directives(red, tmp_path):
    local("set", "red", "-", input=KEYS_ONLY)
    file = tmp_path / "backup"
    router.run("ssh_cfg_ctl", "backup", file)
    local("set", "red", "-", input="")
    said = router.run("ssh_cfg_ctl", "restore", file).stdout
    assert f"restored: {RED}\n" in said and RED.read_text() == KEYS_ONLY
    router.wait_until(lambda: effective()["passwordauthentication"] == "no", what="restored directives in force")
    tampered = json.loads(file.read_text())
    tampered["files"][str(FOLDER / "../platform.conf")] = ""
    file.write_text(json.dumps(tampered), encoding="utf-8")
    refused = router.run("ssh_cfg_ctl", "restore", file, check=False)
    assert refused.returncode == 5 and "is not a file that a backup contains" in refused.stderr


def test_a_commit_that_the_directives_cannot_follow_is_refused(red):
    local("set", "red", "-", input="MACs hmac-sha1\n")
    refused = router.run("ssh_cfg_ctl", "set", router.SERVER + "cmn/disable/hmac/hmac_sha1", "true", check=False)
    assert refused.returncode == 5
    assert "nothing is left of the list: hmac-sha1 (not in the configured list)" in refused.stderr
    # Directives that are wrong already keep nobody from configuring.
    RED.write_text("Nonsense\n", encoding="ascii")
    stored = router.set_item("cmn/timeout", 45, check=False)
    assert stored.returncode == 6 and "the last accepted ones are in force" in stored.stderr
    assert effective()["logingracetime"] == "45"


def test_the_auditors_profile(red, tmp_path):
    router.set_item("cmn/enable/cipher", [1, 0])
    sha1 = ["MACs=hmac-sha1", "Ciphers=aes128-ctr"]
    cbc = ["Ciphers=aes128-cbc"]
    old_exchange = ["KexAlgorithms=diffie-hellman-group14-sha1"]
    old_signature = ["HostKeyAlgorithms=ssh-rsa"]
    for options in (sha1, cbc, old_exchange):
        assert logs_in(options=options), options
    local("set", "all", AUDITOR)
    assert logs_in()
    for options in (sha1, cbc, old_exchange, old_signature):
        words = sessions.ssh_words("red", "true", options=["BatchMode=yes", "LogLevel=INFO", *options])
        refused = router.run(*words, check=False)
        assert refused.returncode == 255 and "no matching" in refused.stderr, refused.stderr
    answer = tmp_path / "answer"
    answer.write_text("#!/bin/sh\necho operator\n", encoding="ascii")
    answer.chmod(0o755)
    words = sessions.ssh_words("red", "true", options=["PubkeyAuthentication=no"])
    environment = os.environ | {"SSH_ASKPASS": str(answer), "SSH_ASKPASS_REQUIRE": "force"}
    password = router.run(*words, check=False, env=environment)
    assert password.returncode == 255 and "Permission denied (publickey)" in password.stderr
    assert router.run("ssh_cfg_ctl", "verify").stdout == "no differences\n"
