"""`ssh_cfg_ctl verify` and `repair`: what somebody has changed behind the agent's back is named and put right."""

import json
import os
import shutil
import signal

import access_lists
import pytest
import router

LIST = ["permit tcp host 127.0.0.1 any eq 22", "deny tcp any any"]
PROTECTION = "protection red: table inet norvo_mpp is missing or differs"
LIMIT = "connection limit red: table inet norvo_limits is missing or differs"


def verify():
    return router.run("ssh_cfg_ctl", "verify", check=False)


def nft(vrf, *words):
    return router.in_vrf(vrf, "nft", *words)


def expect_repaired(*texts, vrfs=("red",)):
    """Verify names exactly these differences; repair removes them, and then nothing differs."""
    found = verify()
    assert found.returncode == 1, found.stdout
    assert sorted(found.stdout.splitlines()) == sorted(texts)
    as_json = router.ctl("verify", check=False)
    assert as_json.returncode == 1
    assert sorted(f"{row['subject']}: {row['text']}" for row in json.loads(as_json.stdout)) == sorted(texts)
    repaired = router.run("ssh_cfg_ctl", "repair", check=False)
    assert repaired.returncode == 0, repaired.stdout + repaired.stderr
    for text in texts:
        assert text in repaired.stdout
    for name in vrfs:
        router.wait_for_server(name)
    after = verify()
    assert after.returncode == 0, after.stdout


@pytest.fixture
def listed(server):
    """A server in red whose access list lets only the loopback address in."""
    access_lists.set_list("ipv4", "ops", *LIST)
    server("red")
    router.set_item("sshd/vrf/red", [None, "ops", None])
    yield "red"
    access_lists.delete_all_lists()


# --- Rules in the kernel --------------------------------------------------------------------------------------------


def test_a_flushed_packet_filter_is_restored(listed):
    before = access_lists.rules("red", "norvossh_v4acl")
    assert verify().returncode == 0
    nft("red", "flush", "ruleset")
    expect_repaired(
        f"rules red ssh ipv4: the kernel has no rules, but access list ops makes {len(before)}", PROTECTION, LIMIT
    )
    assert access_lists.rules("red", "norvossh_v4acl") == before
    assert "norvo_limits" in nft("red", "list", "ruleset").stdout


def test_one_rule_more_is_named(listed):
    nft("red", "insert", "rule", "ip", "norvossh_v4acl", "input", "tcp", "dport", "22", "accept")
    count = len(access_lists.rules("red", "norvossh_v4acl"))
    expect_repaired(f"rules red ssh ipv4: the kernel has {count} rules, but access list ops makes {count - 1}")


def test_another_rule_in_the_place_of_one_is_named(listed):
    nft("red", "flush", "chain", "ip", "norvossh_v4acl", "input")
    for _ in range(3):
        nft("red", "add", "rule", "ip", "norvossh_v4acl", "input", "tcp", "dport", "22", "accept")
    expect = len(access_lists.rules("red", "norvossh_v4acl"))
    found = verify().stdout
    assert found.startswith(f"rules red ssh ipv4: the kernel has {expect} rules"), found
    router.run("ssh_cfg_ctl", "repair")
    assert verify().returncode == 0


def test_a_chain_and_rules_where_no_list_is_named(server):
    server("red")
    nft("red", "add", "rule", "inet", "norvo_mpp", "input", "tcp", "dport", "22", "drop")
    nft("red", "add", "table", "ip6", "netconf_v6acl")
    nft("red", "add", "chain", "ip6", "netconf_v6acl", "input", "{ type filter hook input priority 0; }")
    nft("red", "add", "rule", "ip6", "netconf_v6acl", "input", "tcp", "dport", "830", "drop")
    expect_repaired(PROTECTION, "rules red netconf ipv6: the kernel has 1 rule, but no access list is named")


def test_rules_in_a_vrf_without_configuration(vrf):
    vrf("red")
    nft("red", "add", "table", "ip", "norvossh_v4acl")
    nft("red", "add", "chain", "ip", "norvossh_v4acl", "input", "{ type filter hook input priority 0; policy drop; }")
    expect_repaired(
        "rules red ssh ipv4: a chain drops packets, but nothing is configured in the VRF", vrfs=()
    )


@pytest.fixture
def nft_that_kills():
    """Kills the agent when nft is to load a rule file whose name contains a text, once, before anything is loaded."""
    real, script = (router.pathlib.Path("/usr/local/lib") / name for name in ("real_nft", "killing_nft"))
    armed = router.pathlib.Path("/run/nft_kills")

    def arm(text):
        shutil.copyfile("/usr/sbin/nft", real)
        script.write_text(
            f'#!/bin/sh\ncase "$*" in *{text}*)\n'
            f"if rm {armed} 2>/dev/null; then kill -9 {router.main_pid(router.AGENT)}; exit 1; fi ;;\nesac\n"
            f'exec {real} "$@"\n',
            encoding="utf-8",
        )
        for file in (real, script):
            file.chmod(0o755)
        armed.touch()
        router.run("mount", "--bind", script, "/usr/sbin/nft")

    yield arm
    armed.unlink(missing_ok=True)
    router.run("umount", "/usr/sbin/nft")


def test_rules_of_a_list_that_was_taken_away_do_not_survive_a_kill(listed, nft_that_kills):
    agent = router.main_pid(router.AGENT)
    nft_that_kills("red_norvossh_v4acl")
    assert router.set_item("sshd/vrf/red", router.OPEN, check=False).returncode != 0
    router.wait_until(lambda: router.main_pid(router.AGENT) not in (0, agent), 30, "systemd starts the agent again")
    router.wait_for_agent()
    assert json.loads(router.run("ssh_cfg_ctl", "get", router.SERVER + "sshd/vrf/red").stdout) == router.OPEN
    assert not access_lists.rules("red", "norvossh_v4acl")
    assert verify().returncode == 0


def test_a_flush_while_the_agent_was_away_is_repaired_by_its_start(listed):
    server = router.main_pid(router.server_unit("red"))
    router.run("systemctl", "stop", router.AGENT)
    nft("red", "flush", "ruleset")
    router.run("systemctl", "start", router.AGENT)
    router.wait_for_agent()
    assert access_lists.rules("red", "norvossh_v4acl")
    router.wait_until(lambda: verify().returncode == 0, 10, "the platform's own tables are there again")
    assert router.main_pid(router.server_unit("red")) == server, "no server had to be restarted"


# --- Servers, units and files ---------------------------------------------------------------------------------------

TRANSLATED = "/run/ssh_cfg_agent/openssh/sshd_config_red"


def test_a_hand_edit_of_sshds_own_file_is_named(server):
    server("red")
    file = router.pathlib.Path(TRANSLATED)
    file.write_text(file.read_text() + "PermitEmptyPasswords yes\n")
    expect_repaired(f"server red: runs with {TRANSLATED}, which was changed after it was started")
    assert "PermitEmptyPasswords yes" not in file.read_text()


def test_a_server_that_was_started_with_an_edited_file_is_named(server):
    server("red")
    file = router.server_file("red")
    before = file.read_text()
    file.write_text(before.replace("UsePAM yes", "UsePAM no"))
    router.run("systemctl", "restart", router.server_unit("red"))
    router.wait_for_server("red")
    file.write_text(before)
    expect_repaired("server red: was started with a file that differs in UsePAM")
    assert "usepam yes" in router.in_vrf("red", "/usr/sbin/sshd", "-T", "-f", TRANSLATED).stdout


@pytest.fixture
def started_by():
    """Starts the server of red with lines of its own in its unit, which are gone again afterwards."""
    drop_in = router.UNITS / f"{router.server_unit('red')}.d" / "own.conf"

    def start(*lines):
        drop_in.parent.mkdir()
        drop_in.write_text("\n".join(["[Service]", *lines, ""]), encoding="utf-8")
        router.run("systemctl", "daemon-reload")
        router.run("systemctl", "restart", router.server_unit("red"))

    def end():
        shutil.rmtree(drop_in.parent, ignore_errors=True)
        router.run("systemctl", "daemon-reload")

    start.end = end
    yield start
    end()


def test_a_server_with_a_command_of_its_own_is_named(server, started_by):
    server("red")
    started_by("ExecStart=", "ExecStart=/sbin/ip netns exec vrf-red /usr/sbin/sshd -D -p 22 -o MaxAuthTries=99")
    router.wait_for_server("red")
    started_by.end()
    expect_repaired("server red: was not started by its unit's own command")


def test_a_server_in_another_namespace_is_named(server, vrf, started_by):
    vrf("blue")
    server("red")
    started_by("ExecStart=", f"ExecStart=/sbin/ip netns exec vrf-blue /pkg/bin/sshd -f {router.server_file('red')} -v 7")
    router.wait_for_server("blue")
    started_by.end()
    # The end of the server before has taken its table with it.
    expect_repaired("server red: runs in another network namespace than vrf-red", LIMIT)
    assert not router.port_answers("blue")


def test_a_server_with_options_of_its_own_is_named(server, sshd_script):
    """A replaced sshd shows in the process, not in the launcher's record."""
    server("red")
    end = sshd_script('[ "$1" != -D ] || set -- "$@" -o MaxAuthTries=99')
    router.run("systemctl", "restart", router.server_unit("red"))
    router.wait_for_server("red")
    end()
    expect_repaired(f"server red: runs with other options than its unit's: -D -f {TRANSLATED} -o MaxAuthTries=99")


@pytest.fixture
def missing():
    """Moves a file away: missing("/pkg/rsa"), until the returned function is called."""
    moved = []

    def move(path):
        moved.append(router.pathlib.Path(path).rename(f"{path}.away"))
        return end

    def end():
        while moved:
            away = moved.pop()
            away.rename(str(away).removesuffix(".away"))

    yield move
    end()


def test_settings_that_the_server_would_be_started_with_now_are_named(server, missing):
    """The server file and its copy are right, but the launcher translated them without a key and a program."""
    for name in ("red", "blue"):
        server(name)
    missing("/pkg/rsa")
    end = missing("/usr/libexec/ssh_cfg_agent/authorized_keys")
    router.run("systemctl", "restart", router.server_unit("red"))
    router.wait_for_server("red")
    assert verify().returncode == 1, "blue has what is now missing"
    end()
    expect_repaired(
        "server red: was started with other settings than it would be now: "
        "authorizedkeyscommand, authorizedkeyscommanduser, hostkey"
    )
    assert "hostkey /pkg/rsa" in in_force("red")


def test_changes_of_the_launchers_record_are_named(server):
    server("red")
    record = router.pathlib.Path(f"{TRANSLATED}~launch")
    other = record.with_name("other")

    def replace(key, value):
        lines = record.read_text().splitlines()
        assert any(line.startswith(f"{key} ") for line in lines)
        record.write_text("".join(f"{key} {value}\n" if line.startswith(f"{key} ") else line + "\n" for line in lines))

    replace("process", "1")
    expect_repaired("server red: was not started by its unit's own command")
    replace("in_use", "none")
    expect_repaired("server red: was not started by its unit's own command")
    shutil.copyfile(TRANSLATED, other)
    replace("config", other)
    expect_repaired(f"server red: runs with other options than its unit's: -D -f {TRANSLATED}")
    replace("config_stamp", "1 2 3.4")
    expect_repaired(f"server red: runs with {TRANSLATED}, which was changed after it was started")
    source = record.with_name(f"{record.name.removesuffix('launch')}source")
    source.write_text(source.read_text().replace("UsePAM yes", "UsePAM no"))
    expect_repaired("server red: was started with other settings than it would be now: usepam")
    record.unlink()
    expect_repaired("server red: was not started by its unit's own command")
    other.unlink()


def test_the_same_edit_of_all_files_is_named(server):
    """The servers still have in force what is configured, and only a repair touches them."""
    server("red")
    before = router.main_pid(router.server_unit("red"))
    files = [router.FILES / "sshd_config", router.server_file("red")]
    for file in files:
        file.write_text(file.read_text().replace("UsePAM yes", "UsePAM no"))
    verify()
    assert router.main_pid(router.server_unit("red")) == before
    expect_repaired(*[f"file {file}: differs in UsePAM" for file in files])
    assert "usepam yes" in in_force("red")


def test_a_killed_server_is_named(server, started_by):
    server("red")
    started_by("Restart=no")
    router.wait_for_server("red")
    os.kill(router.main_pid(router.server_unit("red")), signal.SIGKILL)
    router.wait_until(lambda: router.unit_property(router.server_unit("red"), "ActiveState") == "failed")
    expect_repaired("server red: is not running (failed)")


def test_a_unit_that_systemd_has_not_read_is_named(server):
    server("red")
    unit = router.UNITS / router.server_unit("red")
    text = unit.read_text()
    unit.write_text(text + "# read by systemd\n")
    router.run("systemctl", "daemon-reload")
    unit.write_text(text)
    expect_repaired("unit red: systemd has not read its present file")


def test_ports_in_files_that_have_none_are_named(server):
    server("red")
    client = router.FILES / "ssh_config"
    client.write_text(client.read_text() + "Port 2222\n")
    expect_repaired(f"file {client}: differs in Port")
    assert "Port" not in client.read_text()


@pytest.fixture
def alice():
    router.run("useradd", "alice")
    yield "alice"
    router.delete_item("cmn/username/alice/keystr")
    router.run("userdel", "alice")


def test_keys_of_users(server, alice):
    server("red")
    router.set_item("cmn/username/alice/keystr", router.pathlib.Path("/root/.ssh/id_rsa.pub").read_text().strip())
    files = router.pathlib.Path("/var/lib/ssh_cfg_agent/user_keys")
    (files / "alice").chmod(0o644)
    (files / "mallory").write_text("ssh-rsa AAAA\n")
    expect_repaired(
        "key alice: the file that sshd reads has another owner or mode than root and 0600",
        "key mallory: there is a file for sshd, but no key is stored",
    )
    (files / "alice").unlink()
    expect_repaired("key alice: the file that sshd reads is missing")


# --- Banners and failing writes -------------------------------------------------------------------------------------

LOGIN_BANNER = "/cfg/gl/banner/0x3"
AAA_BANNER = "/cfg/gl/aaa/banner/0x0"
BANNER_FILE = router.FILES / "banner"
MOTD = router.pathlib.Path("/etc/motd")


def test_edited_banners_are_named(server):
    server("red")
    router.set_item(LOGIN_BANNER, "#Hello#")
    router.set_item(AAA_BANNER, "#Welcome#")
    assert verify().returncode == 0
    BANNER_FILE.write_text("Hello, intruder\n")
    MOTD.unlink()
    expect_repaired(f"file {BANNER_FILE}: is missing or differs", f"file {MOTD}: is missing or differs")
    assert BANNER_FILE.read_text() == "Hello\n"
    assert MOTD.read_text() == "Welcome\n"
    router.delete_item(LOGIN_BANNER)
    router.delete_item(AAA_BANNER)
    assert verify().returncode == 0
    BANNER_FILE.write_text("Hello, intruder\n")
    expect_repaired(f"file {BANNER_FILE}: has a text, but no banner is configured")


def test_an_aaa_banner_that_was_deleted_while_the_agent_was_away(server):
    server("red")
    router.set_item(AAA_BANNER, "#Welcome#")
    assert MOTD.read_text() == "Welcome\n"
    database = next(router.pathlib.Path("/var/lib/ssh_cfg_agent").glob("*.db"))
    router.run("systemctl", "stop", router.AGENT)
    router.run("sqlite3", database, f"delete from item where path = '{AAA_BANNER}'")
    router.run("systemctl", "start", router.AGENT)
    router.wait_for_agent()
    assert not MOTD.exists()
    assert verify().returncode == 0
    MOTD.write_text("the machine's own\n")
    assert verify().returncode == 0


def test_another_pam_file_is_named_and_replaced_only_on_request(server):
    server("red")
    file = router.pathlib.Path("/etc/pam.d/norvosshd")
    before = file.read_text()
    file.write_text("auth sufficient pam_permit.so\n")
    router.restart_agent()
    assert file.read_text() != before, "it may be the administrator's own"
    expect_repaired(f"file {file}: differs from the agent's")
    assert file.read_text() == before


@pytest.fixture
def read_only():
    """Makes a folder read-only: read_only("/etc/pam.d")."""
    folders = []

    def make(folder):
        router.run("mount", "--bind", folder, folder)
        folders.append(folder)
        # The agent has mounts of its own, to which the option does not spread.
        agent = router.main_pid(router.AGENT)
        router.run("nsenter", "--target", agent, "--mount", "mount", "-o", "remount,ro,bind", folder)

    def end():
        while folders:
            router.run("umount", folders.pop())

    make.end = end
    yield make
    end()


def test_a_unit_that_cannot_be_written_is_part_of_the_answer(vrf, read_only):
    vrf("red")
    read_only(router.UNITS)
    result = router.run("ssh_cfg_ctl", "set", router.SERVER + "sshd/vrf/red", "[null, null, null]", check=False)
    assert result.returncode == 6
    assert "stored, not in force: unit red: its files cannot be written: Read-only file system" in result.stderr
    read_only.end()
    router.wait_for_server("red", seconds=30)
    router.wait_until(lambda: verify().returncode == 0, 30, "the agent has repaired it by itself")


def test_a_server_file_that_cannot_be_copied_is_part_of_the_answer(vrf, read_only):
    vrf("red")
    read_only(router.FILES)
    result = router.run("ssh_cfg_ctl", "set", router.SERVER + "sshd/vrf/red", "[null, null, null]", check=False)
    assert result.returncode == 6
    assert f"stored, not in force: file {router.server_file('red')}: " in result.stderr
    read_only.end()
    router.wait_for_server("red", seconds=30)
    router.wait_until(lambda: verify().returncode == 0, 30, "the agent has repaired it by itself")


def test_a_banner_that_cannot_be_written_is_part_of_the_answer(server, read_only):
    server("red")
    router.set_item(AAA_BANNER, "#Welcome#")
    read_only("/etc")
    result = router.run("ssh_cfg_ctl", "delete", AAA_BANNER, check=False)
    read_only.end()
    assert result.returncode == 6
    assert "stored, not in force: file /etc/motd: Read-only file system" in result.stderr
    router.wait_until(lambda: verify().returncode == 0, 30, "the agent has repaired it by itself")
    assert not MOTD.exists()


# --- The default file -----------------------------------------------------------------------------------------------


def in_force(vrf):
    """The settings that the VRF's server is started with, as sshd reads them."""
    file = f"/run/ssh_cfg_agent/openssh/sshd_config_{vrf}"
    return sorted(router.in_vrf(vrf, "/usr/sbin/sshd", "-T", "-f", file).stdout.splitlines())


def test_an_emptied_default_file_gets_every_line_that_a_start_writes(server):
    server("red")
    router.set_item("cmn/timeout", 44)
    router.restart_agent()
    written = sorted(" ".join(line.split()) for line in router.server_lines())
    file = router.FILES / "sshd_config"
    file.write_text("", encoding="utf-8")
    found = verify()
    assert found.returncode == 1
    assert "LoginGraceTime, " in found.stdout and found.stdout.endswith(", HostKey\n")
    repaired = router.run("ssh_cfg_ctl", "repair")
    assert f"file {file}: differs in " in repaired.stdout
    assert verify().returncode == 0
    assert sorted(" ".join(line.split()) for line in router.server_lines()) == written
    # The next server's file is created from it.
    server("blue")
    assert in_force("blue") == in_force("red")


def test_a_default_file_made_again_has_the_settings_that_a_start_writes(server):
    server("red")
    router.load({"cmn/timeout": 44, "cmn/algorithms/host-key": [1, 0, 0, 0, 0, 0, 0, 1, 1, 0]})
    router.restart_agent()
    file = router.FILES / "sshd_config"
    file.unlink()
    expect_repaired(f"file {file}: No such file or directory")
    server("blue")
    assert in_force("blue") == in_force("red")


# --- A sound router -------------------------------------------------------------------------------------------------


def assert_sound(after):
    found = verify()
    assert found.returncode == 0, f"{after}: {found.stdout}"


def test_a_sound_router_has_no_differences_whatever_has_happened(server, vrf):
    """Each step leaves the router sound, and so does a restart of the agent after it."""
    for name in ("red", "blue"):
        server(name)
    access_lists.set_list("ipv4", "ops", *LIST)
    access_lists.set_list("ipv6", "ops6", "permit tcp any any eq 830", "deny tcp any any")
    fips = "/cfg/gl/crypto/fipsmode/value"
    steps = {
        "lists of algorithms": {"cmn/algorithms/cipher": ["aes128-ctr", "chacha20-poly1305@openssh.com"]},
        "FIPS mode on": {fips: 1},
        "a setting in FIPS mode": {"cmn/timeout": 44, "cmn/trustpoint/host": "host"},
        "FIPS mode off": {fips: None, "cmn/trustpoint/host": None},
        "lists bound": {"sshd/vrf/red": [None, "ops", None], "sshd/vrf-netconf/red": [None, None, "ops6"]},
        "other lists bound": {"sshd/vrf/red": [None, None, "ops6"], "sshd/vrf-netconf/red": [None, "ops", "nosuch"]},
        "lists removed": {"sshd/vrf/red": router.OPEN, "sshd/vrf-netconf/red": None},
        "a limit": {"cmn/rate_limit": 33},
        "banners": {LOGIN_BANNER: "#Hello#", AAA_BANNER: "#Welcome#"},
        "no banners": {LOGIN_BANNER: None, AAA_BANNER: None},
        "a VRF less": {"sshd/vrf/blue": None},
        "the algorithms of before": {"cmn/algorithms/cipher": None, "cmn/rate_limit": None, "cmn/timeout": None},
    }
    for number, (step, items) in enumerate(steps.items()):
        router.load(items)
        assert_sound(step)
        (router.restart_agent if number % 2 else router.kill_agent)()
        assert_sound(f"{step}, and a restart")
    router.delete_namespace("red")
    router.wait_until(lambda: verify().returncode == 0, what="a server goes with its namespace")
    vrf("red")
    router.wait_for_server("red")
    assert_sound("another namespace")
    access_lists.delete_all_lists()
    assert_sound("no lists")


def test_servers_that_a_reload_has_stopped_are_no_difference(server):
    server("red")
    assert router.run("ssh_cfg_ctl", "reload").returncode == 0
    assert not router.is_active(router.server_unit("red"))
    assert_sound("a reload")
    router.restart_agent()
    router.wait_for_server("red")
    assert_sound("a restart after a reload")
