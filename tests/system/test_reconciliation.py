"""The return to the configuration after a kill, a restart, a full disk, and manual changes."""

import json
import shutil

import pytest
import router

# Lines that a fresh file lacks. They appear with their defaults after an item has been set and deleted.
NOT_AT_START = {
    "sshd_config": ("Ciphers", "KexAlgorithms"),
    "ssh_config": ("Ciphers", "KexAlgorithms", "HostKeyAlgorithms", "RekeyLimit"),
}
TIMEOUT = router.SERVER + "cmn/timeout"
FIPS = "/cfg/gl/crypto/fipsmode/value"
VRFS = ["red", "blue", "green", "grey", "pink", "cyan"]


@pytest.fixture
def servers(vrf):
    """Six VRFs with one server each."""
    for name in VRFS:
        vrf(name)
    router.load({f"sshd/vrf/{name}": router.OPEN for name in VRFS})
    for name in VRFS:
        router.wait_for_server(name)
    return VRFS


def effective(vrf, keyword):
    """The value with which the VRF's running server was started, as sshd reads its file."""
    router.wait_for_server(vrf)
    words = (router.pathlib.Path("/proc") / str(router.main_pid(router.server_unit(vrf))) / "cmdline").read_bytes()
    words = [word.decode() for word in words.split(b"\0")]
    file = words[words.index("-f") + 1] if "-f" in words else words[0].split("-f ")[1].split()[0]
    report = router.in_vrf(vrf, "/usr/sbin/sshd", "-T", "-f", file).stdout
    return next(line.split(maxsplit=1)[1] for line in report.splitlines() if line.startswith(keyword.lower() + " "))


def file_value(path, keyword):
    lines = [line.split(maxsplit=1)[1] for line in path.read_text().splitlines() if line.split()[:1] == [keyword]]
    return lines[0].strip() if lines else None


def assert_in_force(vrfs, seconds):
    """Datastore, default file, every VRF's file and every running server agree."""
    assert json.loads(router.run("ssh_cfg_ctl", "get", TIMEOUT).stdout) == seconds
    assert file_value(router.FILES / "sshd_config", "LoginGraceTime") == str(seconds)
    for name in vrfs:
        assert file_value(router.server_file(name), "LoginGraceTime") == str(seconds), name
        router.wait_for_server(name)
        assert effective(name, "LoginGraceTime") == str(seconds), name
    assert router.run("ssh_cfg_ctl", "verify").returncode == 0


def main_pids(vrfs):
    return {name: router.main_pid(router.server_unit(name)) for name in vrfs}


def test_a_vrf_deleted_while_the_agent_was_down_has_no_server(server):
    server("red")
    server("blue")
    database = next(router.pathlib.Path("/var/lib/ssh_cfg_agent").glob("*.db"))
    router.run("systemctl", "stop", router.AGENT)
    router.run("sqlite3", database, "delete from item where path like '%sshd/vrf/red'")
    router.run("systemctl", "start", router.AGENT)
    router.wait_for_agent()
    assert not router.is_active(router.server_unit("red"))
    assert router.port_answers("blue")


def test_a_restart_at_rest_restarts_no_server(servers):
    history = {
        "cmn/timeout": 61,
        "cmn/rate_limit": 50,
        "cmn/session_limit": 20,
        "cmn/logging": 1,
        "cmn/dscp": 10,
        "cmn/rekey_time": 45,
        "cmn/max_auth_limit": 7,
        "cmn/port_forwarding": 1,
        "cmn/algorithms/cipher": ["aes128-ctr", "aes256-ctr"],
        "cmn/algorithms/key-exchange": ["ecdh-sha2-nistp256"],
        "cmn/enable/cipher": [1, None],
        "cmn/disable/hmac/hmac_sha1": 1,
        "cmn/trustpoint/host": "host",
        "cmn/trustpoint/user/other": True,
        "cmn/certificate/username": [1, None],
        "cmn/rekey_volume": 2000,
        "cmn/tcp_window_scale": 3,
        "cmn/disable/hmac/hmac_sha512": 1,
        "cmn/algorithms/host-key": [1, 0, 0, 0, 0, 0, 0, 0, 0, 0],
        "sshd/vrf-netconf/red": [None, "nosuch", None],
        router.CLIENT + "dscp": 12,
        router.CLIENT + "rekey_time": 30,
        router.CLIENT + "algorithms/cipher": ["aes128-ctr"],
        FIPS: 1,
    }
    router.load(history)
    for clean in (True, False):
        before = main_pids(servers)
        (router.restart_agent if clean else router.kill_agent)()
        assert main_pids(servers) == before, "with everything set"
    router.load({path: None for path in history})
    assert router.run("ssh_cfg_ctl", "verify").returncode == 0
    for clean in (True, False, True):
        before = main_pids(servers)
        (router.restart_agent if clean else router.kill_agent)()
        assert main_pids(servers) == before, "with everything deleted"
    assert "aes128-cbc" not in effective("red", "Ciphers")


def test_fips_mode_switched_off_after_a_restart_restores_the_lists(server):
    server("red")
    router.set_item("cmn/algorithms/cipher", ["chacha20-poly1305@openssh.com", "aes128-ctr"])
    router.set_item(FIPS, 1)
    for restart in (router.restart_agent, router.kill_agent):
        restart()
        for file in (router.FILES / "sshd_config", router.FILES / "ssh_config", router.server_file("red")):
            text = file.read_text()
            for refused in ("chacha20", "curve25519", "ssh-ed25519"):
                assert refused not in text, file
    router.delete_item(FIPS)
    router.wait_for_server("red")
    assert effective("red", "Ciphers") == "chacha20-poly1305@openssh.com,aes128-ctr"
    assert "NorvoSSHFipsMode" not in router.server_file("red").read_text()
    assert "curve25519-sha256" in effective("red", "KexAlgorithms")


def test_legacy_ciphers_deleted_after_a_restart_are_no_longer_offered(server):
    server("red")
    router.set_item("cmn/enable/cipher", [1, None])
    assert "aes128-cbc" in effective("red", "Ciphers")
    router.restart_agent()
    router.delete_item("cmn/enable/cipher")
    router.wait_for_server("red")
    assert "aes128-cbc" not in effective("red", "Ciphers")


def test_a_namespace_replaced_while_the_agent_was_down_has_its_server(server):
    server("red")
    router.run("systemctl", "stop", router.AGENT)
    router.delete_namespace("red")
    router.add_namespace("red")
    assert not router.port_answers("red")
    router.run("systemctl", "start", router.AGENT)
    router.wait_for_agent()
    router.wait_for_server("red")


def test_a_debug_level_does_not_outlive_the_agent(server):
    server("red")
    router.run("ssh_cfg_ctl", "debug", "server-l3", "on")
    assert file_value(router.server_file("red"), "LogLevel") == "DEBUG3"
    router.kill_agent()
    for file in (router.FILES / "sshd_config", router.server_file("red")):
        assert file_value(file, "LogLevel") is None


def test_a_setting_reaches_the_servers_without_the_default_file(server):
    server("red")
    (router.FILES / "sshd_config").unlink()
    router.set_item("cmn/timeout", 77)
    assert_in_force(["red"], 77)


@pytest.fixture
def full_disk():
    """Moves the configuration files to a separate disk: fill() fills it and returns the file that takes the space."""
    copy = router.pathlib.Path("/run/files")
    filler = router.FILES / "filler"

    def fill():
        shutil.copytree(router.FILES, copy)
        router.run("mount", "-t", "tmpfs", "-o", "size=256k,mode=0755", "tmpfs", router.FILES)
        shutil.copytree(copy, router.FILES, dirs_exist_ok=True)
        router.run("sh", "-c", f"cat /dev/zero > {filler}", check=False)
        return filler

    yield fill
    filler.unlink(missing_ok=True)
    shutil.copytree(router.FILES, copy, dirs_exist_ok=True)
    router.run("umount", router.FILES)
    shutil.copytree(copy, router.FILES, dirs_exist_ok=True)
    shutil.rmtree(copy)


def test_a_full_disk_is_reported_and_repaired(server, full_disk):
    server("red")
    filler = full_disk()
    for _ in range(2):
        result = router.run("ssh_cfg_ctl", "set", TIMEOUT, "77", check=False)
        assert result.returncode == 6
        assert "stored, not in force: file /var/opt/norvo/norvossh/sshd_config: No space left on device" in result.stderr
    assert router.run("ssh_cfg_ctl", "verify", check=False).returncode == 1
    filler.unlink()
    router.wait_until(lambda: router.run("ssh_cfg_ctl", "verify", check=False).returncode == 0, 90, "made good")
    assert_in_force(["red"], 77)


def default_file_lines():
    """The lines of the default file and the client file that a fresh file also has."""
    return [
        sorted(line for line in (router.FILES / name).read_text().splitlines() if line.split()[0] not in left_out)
        for name, left_out in NOT_AT_START.items()
    ]


def test_a_start_on_a_full_disk_is_reported_and_repaired(server, full_disk, journal):
    server("red")
    router.restart_agent()
    before = default_file_lines()
    filler = full_disk()
    router.run("systemctl", "restart", router.AGENT, timeout=120)
    router.wait_until(router.agent_answers, what="the agent answers")
    assert router.run("ssh_cfg_ctl", "status", "--check", check=False).returncode == 1
    # Removing the first file frees enough space to write it again, but not for the files that follow.
    assert f"file {router.FILES}/" in router.run("ssh_cfg_ctl", "verify", check=False).stdout
    journal.wait_for(f"Not in force: file {router.FILES}/", router.AGENT)
    filler.unlink()
    router.wait_until(lambda: router.run("ssh_cfg_ctl", "verify", check=False).returncode == 0, 90, "repaired")
    assert default_file_lines() == before


def test_a_restart_rebuilds_the_default_and_the_client_file(server):
    server("red")
    router.set_item("cmn/timeout", 77)
    before = default_file_lines()
    for name in NOT_AT_START:
        (router.FILES / name).write_text("# nothing else\n")
    router.restart_agent()
    assert default_file_lines() == before
    assert_in_force(["red"], 77)


@pytest.fixture
def small_datastore():
    """Moves the datastore to a small disk of its own and returns the function that fills it."""
    folder = router.pathlib.Path("/var/lib/ssh_cfg_agent")
    copy = router.pathlib.Path("/run/datastore")
    filler = folder / "filler"
    router.run("systemctl", "stop", router.AGENT)
    router.run("cp", "-a", folder, copy)
    router.run("mount", "-t", "tmpfs", "-o", "size=1m,mode=0700", "tmpfs", folder)
    router.run("cp", "-a", f"{copy}/.", folder)
    router.run("systemctl", "start", router.AGENT)
    router.wait_for_agent()

    def fill():
        router.run("sh", "-c", f"cat /dev/zero > {filler}", check=False)
        return filler

    yield fill
    filler.unlink(missing_ok=True)
    router.run("systemctl", "stop", router.AGENT)
    router.run("umount", folder)
    shutil.rmtree(copy)
    router.run("systemctl", "start", router.AGENT)
    router.wait_for_agent()


def test_without_space_for_the_datastore_a_commit_is_refused(server, small_datastore):
    server("red")
    filler = small_datastore()
    stored = None
    for seconds in range(40, 90):
        result = router.run("ssh_cfg_ctl", "set", TIMEOUT, seconds, check=False)
        if result.returncode != 0:
            break
        stored = seconds
    assert result.returncode == 1, "the last free page is full at some time"
    assert "full" in result.stderr
    found = router.ctl("get", TIMEOUT, check=False)
    assert (json.loads(found.stdout) if found.returncode == 0 else None) == stored
    assert file_value(router.FILES / "sshd_config", "LoginGraceTime") == str(stored or 30)
    filler.unlink()
    router.set_item("cmn/timeout", 77)
    assert_in_force(["red"], 77)


# --- verify and repair ----------------------------------------------------------------------------------------------


def damage_server_file():
    file = router.server_file("red")
    file.write_text(file.read_text().replace("UsePAM yes", "UsePAM no"))
    return f"file {file}: differs in UsePAM"


def damage_default_file():
    file = router.FILES / "sshd_config"
    file.write_text(file.read_text() + "PermitEmptyPasswords yes\n")
    return f"file {file}: differs in PermitEmptyPasswords"


def remove_client_file():
    (router.FILES / "ssh_config").unlink()
    return f"file {router.FILES / 'ssh_config'}: No such file or directory"


def stop_server():
    router.run("systemctl", "stop", router.server_unit("red"))
    return "server red: is not running"


def damage_unit():
    unit = router.UNITS / router.server_unit("red")
    unit.write_text(unit.read_text().replace("on-failure", "no--------"))
    return "unit red: is missing or differs"


@pytest.mark.parametrize(
    "damage", [damage_server_file, damage_default_file, remove_client_file, stop_server, damage_unit]
)
def test_drift_is_found_and_repaired(server, damage):
    server("red")
    clean = router.run("ssh_cfg_ctl", "verify")
    assert clean.returncode == 0
    text = damage()
    found = router.run("ssh_cfg_ctl", "verify", check=False)
    assert found.returncode == 1
    assert text in found.stdout
    repaired = router.run("ssh_cfg_ctl", "repair")
    assert text in repaired.stdout
    router.wait_for_server("red")
    assert router.run("ssh_cfg_ctl", "verify").stdout == clean.stdout


def test_the_pam_file_is_restored(server):
    # The agent restores a deleted file by itself, so it is stopped meanwhile.
    server("red")
    router.run("systemctl", "stop", router.AGENT)
    pam = router.pathlib.Path("/etc/pam.d/norvosshd")
    pam.unlink()
    router.run("systemctl", "start", router.AGENT)
    router.wait_for_agent()
    assert pam.exists()
