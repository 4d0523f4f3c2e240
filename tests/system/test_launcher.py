"""The launcher under systemd: the server that a unit of the agent starts, on stock OpenSSH. Runs inside a node."""

import json
import pathlib
import subprocess
import time

import pytest

NAMESPACE = "vrf-launcher"
UNIT = "sshd_launcher_test"
SERVER_FILE = pathlib.Path("/var/opt/norvo/norvossh/sshd_config_launcher_test")
TRANSLATION = pathlib.Path("/run/ssh_cfg_agent/openssh/sshd_config_launcher_test")
RECORD = TRANSLATION.with_name(TRANSLATION.name + "~launch")
KEY = pathlib.Path("/pkg/ed25519")
PAM_FILE = pathlib.Path("/etc/pam.d/norvosshd")

CIPHERS = "aes128-ctr,aes256-ctr,aes256-gcm@openssh.com,chacha20-poly1305@openssh.com"
SETTINGS = f"""\
UsePAM yes
HostKeyAlgorithms x509v3-ssh-rsa,ssh-ed25519,ecdsa-sha2-nistp256,rsa-sha2-512
Subsystem sftp /pkg/bin/sftp-server
Ciphers {CIPHERS}
AcceptedAlgorithms x509v3-ssh-rsa,ssh-rsa
AllowTcpForwarding no
HostKey  {KEY}
HostKey /pkg/ecdsa-sha2-nistp256
HostKey /pkg/dsa
IPQoS 0x40
WindowScaleQd 7
Port 22
Port 830
"""


def run(*command, check=True, **options):
    return subprocess.run(command, check=check, capture_output=True, text=True, timeout=60, **options)


def wait_until(condition, seconds=10.0):
    end = time.monotonic() + seconds
    while not (value := condition()) and time.monotonic() < end:
        time.sleep(0.02)
    return value


def unit_property(name):
    return run("systemctl", "show", "-P", name, UNIT).stdout.strip()


def port_answers(port):
    probe = ["ip", "netns", "exec", NAMESPACE, "ssh-keyscan", "-T", "2", "-p", str(port), "127.0.0.1"]
    return "SSH-2.0" in run(*probe, check=False).stderr


def server_is_ready():
    return unit_property("ActiveState") == "active" and port_answers(22)


class Server:
    """A server started by the launcher in its own namespace."""

    def __init__(self):
        self.cursor = None

    def start(self, settings):
        """Returns whether the server started; `entries` then returns what this start logged."""
        SERVER_FILE.write_text(settings, encoding="utf-8")
        self.cursor = run("journalctl", "-n0", "--show-cursor").stdout.rpartition("cursor: ")[2].strip()
        run("systemctl", "restart", UNIT)
        return bool(wait_until(lambda: server_is_ready() or unit_property("Result") != "success")) and server_is_ready()

    def entries(self):
        run("journalctl", "--sync")
        journal = run("journalctl", "-u", UNIT, "-o", "json", f"--after-cursor={self.cursor}").stdout
        return [json.loads(line) for line in journal.splitlines()]

    def said(self, text):
        return wait_until(lambda: [entry for entry in self.entries() if text in entry["MESSAGE"]], 5)

    def ssh(self, *arguments, **options):
        command = ["ip", "netns", "exec", NAMESPACE, "ssh", "-o", "BatchMode=yes", "-o", "UserKnownHostsFile=/dev/null"]
        return run(*command, *arguments, check=False, **options)


UNIT_TEXT = f"""\
[Unit]
StartLimitIntervalSec=0
[Service]
Type=simple
ExecStart=/sbin/ip netns exec {NAMESPACE} /pkg/bin/sshd -f {SERVER_FILE} -v 77
ExecStop=/bin/kill -s TERM $MAINPID
ExecReload=/bin/kill -s HUP $MAINPID
KillMode=process
"""


@pytest.fixture(scope="module", name="machine")
def fixture_machine():
    unit_file = pathlib.Path(f"/etc/systemd/system/{UNIT}.service")
    run("ip", "netns", "add", NAMESPACE)
    run("ip", "-n", NAMESPACE, "link", "set", "lo", "up")
    for name, kind in ((KEY, "ed25519"), (pathlib.Path("/pkg/ecdsa-sha2-nistp256"), "ecdsa")):
        if not name.exists():
            run("ssh-keygen", "-q", "-t", kind, "-N", "", "-f", str(name))
    # The host's own authentication, so that the test covers only the launcher.
    pam_text = PAM_FILE.read_text(encoding="utf-8") if PAM_FILE.exists() else None
    PAM_FILE.write_text(pathlib.Path("/etc/pam.d/sshd").read_text(encoding="utf-8"), encoding="utf-8")
    SERVER_FILE.parent.mkdir(parents=True, exist_ok=True)
    unit_file.write_text(UNIT_TEXT, encoding="utf-8")
    run("systemctl", "daemon-reload")
    yield
    run("systemctl", "stop", UNIT)
    unit_file.unlink()
    run("systemctl", "daemon-reload")
    if pam_text is not None:
        PAM_FILE.write_text(pam_text, encoding="utf-8")
    SERVER_FILE.unlink()
    run("ip", "netns", "del", NAMESPACE)


@pytest.fixture(name="server")
def fixture_server(machine):
    for file in TRANSLATION.parent.glob(TRANSLATION.name + "*"):
        file.unlink()
    run("systemctl", "reset-failed", UNIT, check=False)
    return Server()


def test_the_units_main_process_becomes_sshd(server):
    assert server.start(SETTINGS)
    process = pathlib.Path("/proc") / unit_property("MainPID")
    assert (process / "exe").resolve() == pathlib.Path("/usr/sbin/sshd")
    assert (process / "comm").read_text().strip() == "norvosshd"
    inside = run("ip", "netns", "identify", process.name).stdout.strip()
    assert inside == NAMESPACE


def test_a_user_logs_in_through_the_pam_service_norvosshd(server):
    assert server.start(SETTINGS)
    assert server.ssh("operator@127.0.0.1", "ip netns identify; id -un").stdout.split() == [NAMESPACE, "operator"]
    assert "NETCONF subsystem only" in server.ssh("-p", "830", "operator@127.0.0.1", "id -un").stderr
    assert server.said("pam_unix(norvosshd:session): session opened for user operator")


def test_files_are_copied_by_the_subsystem(server, tmp_path):
    assert server.start(SETTINGS)
    (tmp_path / "here").write_text("content", encoding="utf-8")
    command = ["ip", "netns", "exec", NAMESPACE, "sftp", "-b", "-", "-o", "BatchMode=yes", "-o", "UserKnownHostsFile=/dev/null"]
    run(*command, "operator@127.0.0.1", input=f"put {tmp_path}/here there\n")
    assert server.ssh("operator@127.0.0.1", "cat there; rm there").stdout == "content"


def test_omissions_are_in_the_units_journal_next_to_sshds_own_lines(server):
    assert server.start(SETTINGS)
    (entry,) = server.said("WindowScaleQd ignored")
    assert entry["MESSAGE"].startswith(f"{SERVER_FILE}: line 11: ")
    assert entry["PRIORITY"] == "5"
    (listening,) = server.said("Server listening on 0.0.0.0 port 830")
    for field in ("SYSLOG_IDENTIFIER", "SYSLOG_FACILITY", "SYSLOG_PID", "_PID"):
        assert entry[field] == listening[field]
    assert entry["SYSLOG_IDENTIFIER"] == "norvosshd-launcher_test"
    assert server.said("HostKey /pkg/dsa ignored")
    assert server.said("HostKeyAlgorithms: ignored, not supported by this OpenSSH: x509v3-ssh-rsa")


def test_a_reload_keeps_the_process_and_the_sessions_settings(server):
    assert server.start(SETTINGS)
    before = unit_property("MainPID")
    run("systemctl", "reload", UNIT)
    assert server.said("Received SIGHUP; restarting.")
    assert wait_until(server_is_ready)
    assert unit_property("MainPID") == before
    assert server.ssh("operator@127.0.0.1", "id -un").stdout == "operator\n"


def test_settings_that_sshd_refuses_do_not_stop_the_server(server):
    assert server.start(SETTINGS)
    good = TRANSLATION.read_text(encoding="utf-8")
    assert server.start(SETTINGS + "MaxStartups nonsense\n")
    assert TRANSLATION.read_text(encoding="utf-8") == good
    assert server.said("Invalid MaxStartups spec.")[0]["PRIORITY"] == "3"
    assert server.said("THE SERVER RUNS WITH THE LAST GOOD FILE")[0]["PRIORITY"] == "3"
    record = RECORD.read_text(encoding="utf-8").splitlines()
    assert record[:2] == ["in_use last_good", f"process {unit_property('MainPID')}"]
    assert record[-1].startswith("reason sshd rejects the file") and "Invalid MaxStartups spec." in record[-1]
    assert server.ssh("operator@127.0.0.1", "id -un").stdout == "operator\n"
    assert server.start(SETTINGS + "MaxAuthTries 3\n")
    assert "\nMaxAuthTries 3\n" in TRANSLATION.read_text(encoding="utf-8")
    assert "in_use current\n" in RECORD.read_text(encoding="utf-8")


def test_without_a_good_file_the_server_does_not_start(server):
    assert not server.start(SETTINGS.replace("HostKey ", "HostKey /none"))
    assert unit_property("ExecMainStatus") == "4"
    assert server.said("no usable host key")


def test_an_unreadable_file_has_its_own_exit_status(server):
    server.start(SETTINGS)
    SERVER_FILE.unlink()
    run("systemctl", "restart", UNIT)
    assert wait_until(lambda: unit_property("Result") == "exit-code")
    assert unit_property("ExecMainStatus") == "3"
    SERVER_FILE.write_text(SETTINGS, encoding="utf-8")


def test_fips_mode_accepts_no_forbidden_algorithm_from_a_client(server):
    fips = SETTINGS.replace(f"HostKey  {KEY}\n", "") + "NorvoSSHFipsMode yes\n"
    assert server.start(fips)
    assert server.ssh("-o", "Ciphers=aes256-ctr", "operator@127.0.0.1", "id -un").stdout == "operator\n"
    for option in (
        "Ciphers=chacha20-poly1305@openssh.com",
        "KexAlgorithms=curve25519-sha256",
        "MACs=umac-64@openssh.com",
        "HostKeyAlgorithms=ssh-ed25519",
    ):
        # With an authenticated cipher no MAC would be negotiated.
        refused = server.ssh("-o", option, *(["-c", "aes256-ctr"] if "MACs" in option else []), "operator@127.0.0.1", "id")
        assert refused.returncode == 255, option
        assert "no matching" in refused.stderr, option


def test_fips_mode_accepts_no_sha1_signature_from_a_user(server):
    rsa = ["-o", "IdentitiesOnly=yes", "-i", "/root/.ssh/id_rsa", "operator@127.0.0.1", "id -un"]
    sha1 = ["-o", "PubkeyAcceptedAlgorithms=ssh-rsa", *rsa]
    assert server.start(SETTINGS)
    assert server.ssh(*sha1).stdout == "operator\n"
    assert server.start(SETTINGS + "NorvoSSHFipsMode yes\n")
    assert server.ssh(*rsa).stdout == "operator\n"
    assert server.ssh(*sha1).returncode == 255


def test_an_empty_list_in_fips_mode_never_enables_other_algorithms(server):
    assert server.start(SETTINGS)
    emptied = SETTINGS.replace(f"Ciphers {CIPHERS}", "Ciphers chacha20-poly1305@openssh.com,") + "NorvoSSHFipsMode yes\n"
    # The reason is found under the service even if the journal reads it after the launcher has ended.
    run("systemctl", "kill", "--signal=STOP", "systemd-journald.service")
    try:
        assert not server.start(emptied)
    finally:
        run("systemctl", "kill", "--signal=CONT", "systemd-journald.service")
    assert unit_property("ExecMainStatus") == "4"
    reasons = server.said("the last good file was made outside FIPS mode")
    assert [reason["SYSLOG_IDENTIFIER"] for reason in reasons] == ["norvosshd-launcher_test"]


@pytest.mark.parametrize(
    ("arguments", "complaint"),
    [
        ((), "missing option -f FILE"),
        (("-f", "/x", "-v", "1x"), 'the VRF identifier "1x" is not a number from 0 to 4294967295'),
        (("-f", "x", "-v", "1"), 'the server file "x" is not an absolute path'),
    ],
)
def test_a_usage_error_is_explained(arguments, complaint):
    result = run("/pkg/bin/sshd", *arguments, check=False)
    assert result.returncode == 2
    assert complaint in result.stderr
    assert "usage: sshd -f FILE -v ID" in result.stderr


def test_a_trial_prints_the_servers_file_and_starts_nothing(server):
    SERVER_FILE.write_text(SETTINGS, encoding="utf-8")
    result = run("/pkg/bin/sshd", "-t", "-f", str(SERVER_FILE))
    assert f"\nCiphers {CIPHERS}\n" in result.stdout
    assert f"sshd: {SERVER_FILE}: line 11: WindowScaleQd ignored" in result.stderr
    assert not TRANSLATION.exists()
