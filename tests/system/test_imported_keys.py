"""Imported keys of users: logins with keys of every type, options in force, FIPS mode, files, upgrades.

A key of a security key signs only with its device, so for these types the tests check what sshd is told, not a login.
"""

import base64
import json
import pathlib
import sqlite3
import struct
import subprocess

import pytest
import router
from router import ssh

FIPS = "/cfg/gl/crypto/fipsmode/value"
DATABASE = "/var/lib/ssh_cfg_agent/datastore.db"
FILES = pathlib.Path("/var/lib/ssh_cfg_agent/user_keys")
KINDS = {
    "ed25519": ["-t", "ed25519"],
    "ecdsa256": ["-t", "ecdsa", "-b", "256"],
    "ecdsa384": ["-t", "ecdsa", "-b", "384"],
    "ecdsa521": ["-t", "ecdsa", "-b", "521"],
    "rsa": ["-t", "rsa", "-b", "2048"],
}


class Pair:
    """A key pair in a folder of the tests."""

    def __init__(self, folder, kind):
        self.path = folder / kind
        router.run("ssh-keygen", "-q", "-N", "", "-C", f"{kind}@laptop", "-f", self.path, *KINDS[kind])
        self.line = self.path.with_suffix(".pub").read_text(encoding="ascii").strip()
        self.key = " ".join(self.line.split()[:2])
        self.fingerprint = router.run("ssh-keygen", "-l", "-f", self.path).stdout.split()[1]


@pytest.fixture(scope="module")
def pairs(tmp_path_factory):
    folder = tmp_path_factory.mktemp("keys")
    return {kind: Pair(folder, kind) for kind in KINDS}


@pytest.fixture
def users():
    """Accounts without keys and passwords: alice and bob."""
    names = ["alice", "bob"]
    for name in names:
        router.run("useradd", "--create-home", "--shell", "/bin/bash", name)
    yield names
    for name in names:
        router.ctl("key", "delete", "--absent-ok", name)
        router.wait_until(
            lambda name=name: router.run("userdel", "--remove", "--force", name, check=False).returncode in (0, 12)
        )


def import_keys(user, *lines, options=(), check=True):
    return router.ctl("key", "import", *options, user, "-", input="\n".join(lines) + "\n", check=check)


def login(pair, *command, user="alice", options=(), **more):
    words = ["IdentitiesOnly=yes", f"IdentityFile={pair.path}", *options]
    return ssh("red", *command, user=user, options=words, check=False, **more)


def logs_in(pair, user="alice"):
    result = login(pair, "whoami", user=user)
    assert (result.returncode, result.stdout) in [(0, f"{user}\n"), (255, "")], result
    return result.returncode == 0


def listed(*user):
    return router.ctl("key", "list", *user)


def sshd_gets(user, *options):
    return router.run("/usr/libexec/ssh_cfg_agent/authorized_keys", *options, user).stdout


def test_keys_of_every_type_log_in_and_each_can_be_deleted(server, users, pairs):
    server("red")
    import_keys("alice", *(pair.line for pair in pairs.values()))
    assert all(logs_in(pair) for pair in pairs.values())
    assert not logs_in(pairs["ed25519"], "bob")
    assert [(key["type"], key["bits"], key["comment"]) for key in listed("alice")] == [
        ("ssh-ed25519", 256, "ed25519@laptop"),
        ("ecdsa-sha2-nistp256", 256, "ecdsa256@laptop"),
        ("ecdsa-sha2-nistp384", 384, "ecdsa384@laptop"),
        ("ecdsa-sha2-nistp521", 521, "ecdsa521@laptop"),
        ("ssh-rsa", 2048, "rsa@laptop"),
    ]
    router.ctl("key", "delete", "alice", pairs["ecdsa384"].fingerprint)
    assert {kind: logs_in(pair) for kind, pair in pairs.items()} == {kind: kind != "ecdsa384" for kind in KINDS}
    router.run("systemctl", "stop", router.AGENT)
    assert logs_in(pairs["ed25519"])
    router.restart_agent()
    router.wait_for_server("red")
    assert logs_in(pairs["ed25519"]) and not logs_in(pairs["ecdsa384"])
    router.ctl("key", "delete", "alice")
    assert not any(logs_in(pair) for pair in pairs.values())


def test_what_is_exported_can_be_imported(server, users, pairs, tmp_path):
    server("red")
    lines = [f'restrict,command="echo \\"a b\\"" {pairs["ed25519"].line}', pairs["rsa"].line]
    import_keys("alice", *lines)
    exported = router.run("ssh_cfg_ctl", "key", "export", "alice").stdout
    assert exported == "".join(line + "\n" for line in lines)
    assert router.ctl("key", "export", "alice", pairs["rsa"].fingerprint) == [pairs["rsa"].line]
    file = tmp_path / "keys"
    file.write_text(exported, encoding="ascii")
    answer = router.run("ssh_cfg_ctl", "key", "import", "bob", file)
    fingerprints = [pairs[kind].fingerprint for kind in ("ed25519", "rsa")]
    assert [line for line in answer.stderr.splitlines() if "also a key" in line] == [
        f"ssh_cfg_ctl: warning: user bob: the key {fingerprint} is also a key of user alice"
        for fingerprint in fingerprints
    ]
    assert sshd_gets("bob") == exported
    assert logs_in(pairs["rsa"], "bob")


def test_options_are_in_force(server, users, pairs):
    server("red")
    key = pairs["ed25519"]
    import_keys("alice", f'command="echo only \\"this one\\"; echo $SSH_ORIGINAL_COMMAND" {key.line}')
    assert login(key, "whoami").stdout == "only this one\nwhoami\n"
    import_keys("alice", f'from="10.0.0.0/8,!10.0.0.1" {key.line}')
    assert not logs_in(key)
    import_keys("alice", f'from="10.0.0.0/8,127.0.0.0/8" {key.line}')
    assert logs_in(key)
    import_keys("alice", f'from="127.0.0.*,!127.0.0.1" {key.line}')
    assert not logs_in(key)
    import_keys("alice", f'expiry-time="20200101Z" {key.line}')
    assert not logs_in(key)
    assert listed("alice")[0]["not_accepted"] == "expired"
    import_keys("alice", f'expiry-time="20991231Z" {key.line}')
    assert logs_in(key)
    assert listed("alice")[0]["not_accepted"] is None
    terminal = ["RequestTTY=force"]
    assert "/dev/pts/" in login(key, "tty", options=terminal).stdout
    import_keys("alice", f"restrict {key.line}")
    assert "/dev/pts/" not in login(key, "tty", options=terminal).stdout
    import_keys("alice", f"restrict,pty {key.line}")
    assert "/dev/pts/" in login(key, "tty", options=terminal).stdout
    # Without options again.
    import_keys("alice", key.line)
    assert sshd_gets("alice") == key.line + "\n"


def test_in_fips_mode_only_approved_keys_count(server, users, pairs):
    server("red")
    import_keys("alice", *(pair.line for pair in pairs.values()))
    assert all(key["not_accepted"] is None for key in listed())
    answer = router.set_item(FIPS, True)
    assert "in FIPS mode the servers do not accept all keys of alice; `key list` shows which" in answer["warnings"]
    router.wait_for_server("red")
    assert {kind: logs_in(pair) for kind, pair in pairs.items()} == {kind: kind != "ed25519" for kind in KINDS}
    assert [key["type"] for key in listed() if key["not_accepted"] == "not approved for FIPS mode"] == ["ssh-ed25519"]
    table = router.run("ssh_cfg_ctl", "key", "list").stdout
    assert "(not approved for FIPS mode)" in table
    assert sshd_gets("alice", "--fips") == "".join(
        pair.line + "\n" for kind, pair in pairs.items() if kind != "ed25519"
    )
    command = [line for line in translated("red") if line.startswith("AuthorizedKeysCommand ")]
    assert command == ["AuthorizedKeysCommand /usr/libexec/ssh_cfg_agent/authorized_keys --fips %u"]
    router.delete_item(FIPS)
    router.wait_for_server("red")
    assert logs_in(pairs["ed25519"])


def translated(vrf):
    """The lines of the file with which the VRF's server runs."""
    words = pathlib.Path(f"/proc/{router.main_pid(router.server_unit(vrf))}/cmdline").read_bytes().decode().split("\0")
    if "-f" not in words:
        words = words[0].split()
    return pathlib.Path(words[words.index("-f") + 1]).read_text(encoding="utf-8").splitlines()


def test_keys_of_security_keys_are_served(users, tmp_path):
    def field(data):
        return struct.pack(">I", len(data)) + data

    def line(kind, *fields):
        return f"{kind} {base64.b64encode(b''.join(map(field, (kind.encode(), *fields)))).decode()} token"

    router.run("ssh-keygen", "-q", "-N", "", "-t", "ecdsa", "-b", "256", "-f", tmp_path / "ecdsa")
    blob = base64.b64decode((tmp_path / "ecdsa.pub").read_text(encoding="ascii").split()[1])
    lines = [
        "verify-required " + line("sk-ssh-ed25519@openssh.com", b"\x07" * 32, b"ssh:"),
        "no-touch-required " + line("sk-ecdsa-sha2-nistp256@openssh.com", b"nistp256", blob[-65:], b"ssh:"),
    ]
    import_keys("alice", *lines)
    assert sshd_gets("alice").splitlines() == lines
    assert sshd_gets("alice", "--fips") == ""
    for imported, key in zip(lines, listed("alice"), strict=True):
        (tmp_path / "sk.pub").write_text(imported.split(" ", 1)[1] + "\n", encoding="ascii")
        assert router.run("ssh-keygen", "-l", "-f", tmp_path / "sk.pub").stdout.split()[1] == key["fingerprint"]
        assert not key["approved_for_fips"]


def test_a_private_key_leaves_no_trace(users, pairs, journal):
    private = pairs["ed25519"].path.read_text(encoding="ascii")
    refused = router.run("ssh_cfg_ctl", "key", "import", "alice", pairs["ed25519"].path, check=False)
    assert refused.returncode == 5
    assert refused.stdout == ""
    assert refused.stderr == (
        "ssh_cfg_ctl: user alice: this is a private key; a private key must not leave its owner, and it has not been "
        "stored; import the public key, which is in the file with the same name and .pub at its end, or which "
        "`ssh-keygen -y -f FILE` prints\n"
    )
    assert router.load({"/keys/alice": private}, check=False).returncode == 5
    assert router.load({"/keys/alice": private.splitlines()}, check=False).returncode == 5
    body = private.splitlines()[1]
    assert "user alice" not in json.dumps(listed())
    assert body not in "\n".join(journal.messages())
    found = subprocess.run(["grep", "-r", "-l", "-F", body, "/var/lib/ssh_cfg_agent", "/run/ssh_cfg_agent"], check=False,
                           capture_output=True, text=True)
    assert found.returncode == 1, found.stdout


def test_refusals_name_the_line_and_what_would_be_right(users, pairs):
    refused = import_keys("alice", "# two", pairs["rsa"].line, f"no-ptty {pairs['ed25519'].line}", check=False)
    assert refused.returncode == 5
    assert 'user alice: line 3: unknown option "no-ptty"; expected one of restrict, command=' in refused.stdout + refused.stderr
    for line, text in {
        f'from="router.example" {pairs["rsa"].line}': "the servers do not look up host names",
        f'environment="A=b" {pairs["rsa"].line}': "the servers do not take variables from keys",
        f"verify-required {pairs['rsa'].line}": "has no effect on this key",
        f"cert-authority {pairs['rsa'].line}": "certificates are not accepted",
        "ssh-dss AAAAB3NzaC1kc3M=": "DSA keys are not accepted; expected one of ssh-ed25519, ",
    }.items():
        refused = import_keys("alice", line, check=False)
        assert refused.returncode == 5 and text in refused.stdout + refused.stderr, refused
    assert listed() == []
    configured = router.set_item("cmn/username/alice/keystr", pairs["ed25519"].line, check=False)
    assert configured.returncode == 5
    assert (
        "Key is not in ssh public key format. Key should begin with ssh-rsa; keys of other types are added with "
        "`ssh_cfg_ctl key import alice FILE`"
    ) in configured.stdout + configured.stderr


def test_several_keys_are_part_of_dumps_differences_and_rollbacks(server, users, pairs):
    server("red")
    import_keys("alice", pairs["ed25519"].line, f"restrict {pairs['rsa'].line}")
    dump = router.ctl("dump")
    assert dump["/keys/alice"] == [pairs["ed25519"].line, f"restrict {pairs['rsa'].line}"]
    before = router.ctl("history")[0]["number"]
    import_keys("alice", pairs["ecdsa256"].line, options=["--replace"])
    assert (logs_in(pairs["ecdsa256"]), logs_in(pairs["ed25519"])) == (True, False)
    (change,) = router.ctl("diff")
    assert change["path"] == "/keys/alice" and change["value"] == [pairs["ecdsa256"].line]
    router.ctl("rollback", before)
    assert (logs_in(pairs["ecdsa256"]), logs_in(pairs["ed25519"])) == (False, True)
    assert router.ctl("load", "-", input=json.dumps(dump))["changed"] is False
    assert import_keys("alice", pairs["ed25519"].line)["changed"] is False


def test_files_that_were_changed_are_found_and_repaired(users, pairs):
    import_keys("alice", pairs["ed25519"].line, pairs["rsa"].line)
    (FILES / "alice").write_text(pairs["rsa"].line + "\n", encoding="ascii")
    (FILES / "bob").write_text(pairs["rsa"].line + "\n", encoding="ascii")
    found = router.run("ssh_cfg_ctl", "verify", check=False).stdout.splitlines()
    assert "key alice: the file that sshd reads has other keys" in found
    assert "key bob: there is a file for sshd, but no key is stored" in found
    router.run("ssh_cfg_ctl", "repair")
    assert sshd_gets("alice") == f"{pairs['ed25519'].line}\n{pairs['rsa'].line}\n"
    assert sshd_gets("bob") == ""


def der_of(line):
    """The DER form of an RSA key, as the previous version stored it."""
    blob = base64.b64decode(line.split()[1])
    fields = []
    while blob:
        size = struct.unpack(">I", blob[:4])[0]
        fields.append(blob[4 : 4 + size])
        blob = blob[4 + size :]

    def element(tag, data):
        size = len(data)
        length = bytes([size]) if size < 128 else bytes([0x82]) + struct.pack(">H", size) if size > 255 else bytes([0x81, size])
        return bytes([tag]) + length + data

    numbers = element(0x30, element(2, fields[2]) + element(2, fields[1]))
    algorithm = bytes.fromhex("300d06092a864886f70d0101010500")
    return element(0x30, algorithm + element(3, b"\0" + numbers))


def test_a_key_of_the_previous_version_counts_after_an_upgrade(server, users, pairs):
    server("red")
    router.run("systemctl", "stop", router.AGENT)
    record = struct.pack("<BBHIq", 1, 1, 0, 2048, 1700000000) + der_of(pairs["rsa"].line)
    with sqlite3.connect(DATABASE) as database:
        database.execute("INSERT INTO private VALUES ('user_key/alice', 0, ?)", (record,))
        database.execute("PRAGMA user_version = 3")
    database.close()
    router.restart_agent()
    router.wait_for_server("red")
    assert logs_in(pairs["rsa"])
    (key,) = listed()
    assert (key["fingerprint"], key["since"]) == (pairs["rsa"].fingerprint, "2023-11-14T22:13:20Z")
    assert router.ctl("dump")["/keys/alice"] == [pairs["rsa"].key]
    assert import_keys("alice", pairs["rsa"].key)["changed"] is False
    import_keys("alice", pairs["ed25519"].line)
    assert logs_in(pairs["rsa"]) and logs_in(pairs["ed25519"])


def test_the_own_key_of_a_session_is_guarded(server, users, pairs):
    server("red")
    own, other = pairs["ed25519"], pairs["rsa"]
    import_keys("alice", own.line, other.line)
    with router.member_of("alice", "sshcfg", "sshcfg-admin"):
        refused = login(own, "ssh_cfg_ctl", "key", "delete", "alice", own.fingerprint)
        assert refused.returncode == 5
        assert "this change deletes the public key of alice, and you are logged in with a public key" in refused.stderr
        refused = login(own, "ssh_cfg_ctl", "key", "import", "alice", "-", input=f"restrict {own.line}\n")
        assert "this change changes the options of the public key of alice" in refused.stderr
        refused = login(own, "ssh_cfg_ctl", "set", FIPS, "true")
        assert "FIPS mode, which this change turns on, does not allow keys of type ED25519" in refused.stderr
        assert login(own, "ssh_cfg_ctl", "key", "delete", "alice", other.fingerprint).returncode == 0
        assert logs_in(own) and not logs_in(other)
        assert login(own, "ssh_cfg_ctl", "--yes", "key", "delete", "alice").returncode == 0
    assert not logs_in(own)


def test_who_only_reads_sees_keys_and_changes_none(server, users, pairs):
    server("red")
    import_keys("alice", pairs["rsa"].line)
    with router.member_of("alice", "sshcfg"):
        assert pairs["rsa"].fingerprint in login(pairs["rsa"], "ssh_cfg_ctl", "key", "list").stdout
        assert login(pairs["rsa"], "ssh_cfg_ctl", "key", "export", "alice").stdout == pairs["rsa"].line + "\n"
        refused = login(pairs["rsa"], "ssh_cfg_ctl", "key", "import", "alice", "-", input=pairs["ed25519"].line + "\n")
        assert refused.returncode == 5
    assert [key["type"] for key in listed()] == ["ssh-rsa"]
