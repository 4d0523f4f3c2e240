"""A backup restores what was lost."""
import os
import pathlib
import stat

import router

ENTRY = "10 permit tcp any any eq ssh\n"
ITEM = "/cfg/gl/crypto/ssh/server/sshd/vrf/red"
BANNER = pathlib.Path("/etc/ssh_cfg_agent/platform_banner.login")
HOST_KEY = pathlib.Path("/pkg/ed25519")


def ctl(*words, status=0, **options):
    result = router.run("ssh_cfg_ctl", *words, check=False, **options)
    assert result.returncode == status, result.stdout + result.stderr
    return result.stdout + result.stderr


def test_restore_brings_back_lists_keys_files_and_items(tmp_path):
    file = tmp_path / "router.backup"
    key = router.run("ssh-keygen", "-q", "-t", "rsa", "-b", "2048", "-N", "", "-f", str(tmp_path / "key")) and \
        (tmp_path / "key.pub").read_text(encoding="utf-8")
    ctl("acl", "set", "ipv4", "backed_up", "-", input=ENTRY)
    ctl("key", "import", "operator", "-", input=key)
    ctl("set", ITEM, '{"ipv4_acl": "backed_up"}')
    BANNER.write_text("Authorized users only.\n", encoding="utf-8")
    private_key = HOST_KEY.read_bytes()
    ctl("backup", str(file))
    assert stat.S_IMODE(file.stat().st_mode) == 0o600

    ctl("delete", ITEM)
    ctl("acl", "delete", "ipv4", "backed_up")
    ctl("key", "delete", "operator")
    BANNER.unlink()
    HOST_KEY.write_bytes(b"lost")
    said = ctl("restore", str(file))
    assert "restored: configuration\n" in said and "warning" not in said
    assert ctl("acl", "show", "ipv4", "backed_up").startswith("10 permit tcp any any eq")
    assert "operator" in ctl("key", "list")
    assert ctl("get", ITEM) == '[null,"backed_up",null]\n'
    assert BANNER.read_text(encoding="utf-8") == "Authorized users only.\n"
    assert HOST_KEY.read_bytes() == private_key and stat.S_IMODE(HOST_KEY.stat().st_mode) == 0o600

    for user in ("operator", "nobody"):
        refused = ctl("backup", str(tmp_path / "other"), status=5, user=user)
        assert "only root may make one" in refused
    os.truncate(file, file.stat().st_size // 2)
    ctl("restore", str(file), status=5)
    BANNER.unlink()
    ctl("key", "delete", "operator")
    ctl("delete", ITEM)
    ctl("acl", "delete", "ipv4", "backed_up")
