"""Configured public keys of users: who can log in with them, and when."""

import base64
import pathlib
import struct

import pytest
import router
from router import ssh

KEYS = pathlib.Path("/root/.ssh")
ONLY_RSA = ["IdentitiesOnly=yes", f"IdentityFile={KEYS}/id_rsa"]


@pytest.fixture
def user():
    """An account without a key or a password: user("alice")."""
    made = []

    def make(name, shell="/bin/bash"):
        router.run("useradd", "--create-home", "--shell", shell, name)
        made.append(name)
        return name

    yield make
    for name in made:
        router.ctl("delete", key_path(name), check=False)
        router.wait_until(
            lambda name=name: router.run("userdel", "--remove", "--force", name, check=False).returncode in (0, 12)
        )


def key_path(name):
    return f"{router.SERVER}cmn/username/{name}/keystr"


def public_key(name="id_rsa"):
    return (KEYS / f"{name}.pub").read_text(encoding="utf-8").strip()


def field(data):
    return struct.pack(">I", len(data)) + data


def number(value):
    return field(value.to_bytes(value.bit_length() // 8 + 1, "big"))


def rsa_key(exponent=65537, modulus=(1 << 2048) - 1, kind=b"ssh-rsa", more=b""):
    return "ssh-rsa " + base64.b64encode(field(kind) + number(exponent) + number(modulus) + more).decode()


def logs_in(vrf, name, options=ONLY_RSA):
    result = ssh(vrf, "whoami", user=name, options=options, check=False)
    assert (result.returncode, result.stdout) in [(0, f"{name}\n"), (255, "")], result
    return result.returncode == 0


def test_a_configured_key_is_accepted_until_it_is_deleted(server, user):
    server("red")
    user("alice")
    user("bob")
    assert not logs_in("red", "alice")
    router.set_item(key_path("alice"), public_key())
    assert logs_in("red", "alice")
    assert not logs_in("red", "bob")
    router.delete_item(key_path("alice"))
    assert not logs_in("red", "alice")


def test_a_key_is_accepted_in_every_vrf_and_on_the_netconf_port(server, user, netconf_proxy):
    server("red")
    server("blue", "vrf-netconf", 830)
    user("alice")
    router.set_item(key_path("alice"), public_key())
    assert logs_in("red", "alice")
    assert router.netconf("blue", "<hello/>", user="alice", options=ONLY_RSA).stdout.endswith("<hello/>")


def test_a_new_key_replaces_the_old_one(server, user, tmp_path):
    server("red")
    user("alice")
    router.run("ssh-keygen", "-q", "-t", "rsa", "-b", "2048", "-N", "", "-f", tmp_path / "other")
    other = ["IdentitiesOnly=yes", f"IdentityFile={tmp_path}/other"]
    router.set_item(key_path("alice"), public_key())
    router.set_item(key_path("alice"), (tmp_path / "other.pub").read_text(encoding="utf-8").strip())
    assert logs_in("red", "alice", other)
    assert not logs_in("red", "alice")


def test_a_key_is_accepted_while_the_agent_is_down_and_after_its_restart(server, user):
    server("red")
    user("alice")
    router.set_item(key_path("alice"), public_key())
    router.run("systemctl", "stop", router.AGENT)
    assert logs_in("red", "alice")
    router.restart_agent()
    router.wait_for_server("red")
    assert logs_in("red", "alice")
    router.delete_item(key_path("alice"))
    assert not logs_in("red", "alice")


def test_keys_in_the_users_own_file_are_still_accepted(server):
    server("red")
    router.set_item(key_path("operator"), public_key())
    router.delete_item(key_path("operator"))
    assert ssh("red", "whoami").stdout == "operator\n"


REFUSED_KEYS = {
    "not valid base64": "ssh-rsa AAAA!!!!",
    "truncated": public_key()[: len(public_key()) // 2] if (KEYS / "id_rsa.pub").exists() else "",
    "exponent 1": rsa_key(exponent=1),
    "even exponent": rsa_key(exponent=65536),
    "8,192 bits": rsa_key(modulus=(1 << 8192) - 1),
    "trailing bytes": rsa_key(more=b"x"),
    "another type within": rsa_key(kind=b"ssh-dss"),
    "nothing": "ssh-rsa",
}


@pytest.mark.parametrize("key", REFUSED_KEYS.values(), ids=REFUSED_KEYS.keys())
def test_an_unusable_key_is_refused(user, key):
    user("alice")
    refused = router.set_item(key_path("alice"), key, check=False)
    assert refused.returncode == 5, refused
    assert "SSH pubkey conversion to DER failed:" in refused.stderr
    assert key_path("alice") not in router.configuration()


def test_a_text_that_is_longer_than_any_key_is_refused(user):
    user("alice")
    refused = router.set_item(key_path("alice"), rsa_key(modulus=(1 << 16384) - 1), check=False)
    assert refused.returncode == 5
    assert "1 to 2048" in refused.stderr


@pytest.mark.parametrize("key", ["ssh-dss AAAAB3NzaC1kc3MAAACBAP", "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5", "rsa"])
def test_a_key_of_another_type_is_refused(user, key):
    user("alice")
    refused = router.set_item(key_path("alice"), key, check=False)
    assert refused.returncode == 5
    assert "Key is not in ssh public key format. Key should begin with ssh-rsa" in refused.stderr


@pytest.mark.parametrize("name", ["nobody-of-that-name", "daemon"])
def test_a_user_who_cannot_log_in_is_refused(name):
    refused = router.set_item(key_path(name), public_key(), check=False)
    assert refused.returncode == 5
    assert "Username not present in database" in refused.stderr


def test_the_configuration_cannot_change_a_key_from_the_exec_mode(server, user, tmp_path):
    server("red")
    user("alice")
    router.run("ssh_cfg_ctl", "key", "import", "alice", KEYS / "id_rsa.pub")
    try:
        assert logs_in("red", "alice")
        refused = router.set_item(key_path("alice"), public_key(), check=False)
        assert refused.returncode == 5
        assert "Key is added as part of exec mode, Public key insertion is not allowed" in refused.stderr
        assert logs_in("red", "alice")
    finally:
        router.run("ssh_cfg_ctl", "key", "delete", "alice")
    assert not logs_in("red", "alice")


def test_a_refused_key_leaves_the_previous_one_in_force(server, user):
    server("red")
    user("alice")
    router.set_item(key_path("alice"), public_key())
    assert router.set_item(key_path("alice"), rsa_key(exponent=1), check=False).returncode == 5
    assert logs_in("red", "alice")


def test_an_eleventh_user_trustpoint_is_refused():
    names = [f"ca{i}" for i in range(10)]
    for name in names:
        router.set_item(f"cmn/trustpoint/user/{name}", True)
    refused = router.set_item("cmn/trustpoint/user/ca10", True, check=False)
    assert refused.returncode == 5
    assert "More than 10 trustpoints cannot be configured" in refused.stderr
    assert "UserTrustpointCntQd 10" in router.server_lines()
    assert "UserTrustpointQd " + ",".join(names) in router.server_lines()
    # Removing a name frees a slot: the last name moves there, and the removed one is added at the end again.
    router.delete_item("cmn/trustpoint/user/ca3")
    router.set_item("cmn/trustpoint/user/ca3", True)
    names[3], names[9] = names[9], names[3]
    assert "UserTrustpointCntQd 10" in router.server_lines()
    assert "UserTrustpointQd " + ",".join(names) in router.server_lines()


def test_the_last_trustpoint_replaces_a_removed_one():
    for name in "ABC":
        router.set_item(f"cmn/trustpoint/user/{name}", True)
    router.delete_item("cmn/trustpoint/user/A")
    assert "UserTrustpointQd C,B" in router.server_lines()
    assert "UserTrustpointCntQd 2" in router.server_lines()
