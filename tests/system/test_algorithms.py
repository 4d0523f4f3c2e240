"""Algorithm lists, FIPS mode and the client on a running router, checked against what stock OpenSSH offers."""

import os
import pathlib
import pwd
import random
import re
import subprocess
import time

import pytest
import router

FIPS = "/cfg/gl/crypto/fipsmode/value"
CURVES = ["curve25519-sha256", "curve25519-sha256@libssh.org"]
CHACHA20 = "chacha20-poly1305@openssh.com"
GROUP1 = "diffie-hellman-group1-sha1"
KEX = [
    "ecdh-sha2-nistp521",
    "ecdh-sha2-nistp384",
    "ecdh-sha2-nistp256",
    "diffie-hellman-group14-sha1",
    GROUP1,
    CURVES[0],
    "diffie-hellman-group14-sha256",
    "diffie-hellman-group16-sha512",
    CURVES[1],
]
LEGACY = ["aes128-cbc", "aes192-cbc", "aes256-cbc"]
CIPHERS = [
    "aes128-ctr",
    "aes192-ctr",
    "aes256-ctr",
    "aes128-gcm@openssh.com",
    "aes256-gcm@openssh.com",
    *LEGACY,
    "3des-cbc",
    CHACHA20,
]
DEFAULT_CIPHERS = [name for name in CIPHERS if "cbc" not in name]
MACS = {"hmac_sha512": "hmac-sha2-512", "hmac_sha256": "hmac-sha2-256", "hmac_sha1": "hmac-sha1"}
# In the order in which the agent writes them. Stock sshd supports neither the certificate nor the DSA key.
HOST_KEYS = {
    "ecdsa-sha2-nistp521": [2],
    "ecdsa-sha2-nistp384": [1],
    "ecdsa-sha2-nistp256": [0],
    "ssh-ed25519": [6],
    "rsa-sha2-512": [3, 7],
    "rsa-sha2-256": [3, 8],
    "ssh-rsa": [3, 9],
}
CONFIGURATIONS = int(os.environ.get("ALGORITHM_CONFIGURATIONS", "240"))
TRANSLATIONS = pathlib.Path("/run/ssh_cfg_agent/openssh")

# What stock ssh supports, as `ssh -Q` lists it.
known = {word: router.run("ssh", "-Q", word).stdout.split() for word in ("kex", "cipher", "mac", "HostKeyAlgorithms")}


def supported(names, word):
    return [name for name in names if name in known[word]]


def proposal(vrf):
    """What the server offers, as a client sees it: the lines of the peer's proposal by title."""
    end = time.monotonic() + 20
    while True:
        words = ["ssh", "-vv", "-F", "none", "-o", "BatchMode=yes", "-o", "ConnectTimeout=5"]
        # Offer everything that stock ssh supports, so that the negotiation does not fail before the proposals are shown.
        words += ["-o", f"Ciphers={','.join(known['cipher'])}", "-o", f"KexAlgorithms={','.join(known['kex'])}"]
        words += ["-o", f"MACs={','.join(known['mac'])}"]
        words += ["-o", "UserKnownHostsFile=/dev/null", "-o", "StrictHostKeyChecking=no"]
        words += ["-o", "PreferredAuthentications=none", "nobody@127.0.0.1", "true"]
        said = router.in_vrf(vrf, *words, check=False).stderr
        _, found, peer = said.partition("peer server KEXINIT proposal")
        if found:
            lines = re.findall(r"debug2: ([A-Za-z ]+): (\S*)", peer)
            return {title: names.split(",") for title, names in reversed(lines)}
        assert time.monotonic() < end, said
        time.sleep(0.05)


def offered(vrf):
    """Key exchanges, ciphers, MACs and host keys of the server's proposal."""
    lines = proposal(vrf)
    assert lines["ciphers ctos"] == lines["ciphers stoc"] and lines["MACs ctos"] == lines["MACs stoc"]
    # The same list carries markers of protocol extensions.
    kex = [name for name in lines["KEX algorithms"] if not name.startswith(("kex-strict-", "ext-info-"))]
    return kex, lines["ciphers ctos"], lines["MACs ctos"], lines["host key algorithms"]


def launched(vrf):
    """The same four lists from the file that the server was started with, as sshd prints it."""
    text = router.run("/pkg/libexec/norvosshd", "-T", "-f", TRANSLATIONS / f"sshd_config_{vrf}").stdout
    settings = dict(line.split(" ", 1) for line in text.splitlines() if " " in line)
    return [settings[word].split(",") for word in ("kexalgorithms", "ciphers", "macs", "hostkeyalgorithms")]


def without(names, *dropped):
    return [name for name in names if name not in dropped]


class Generated:
    """One generated configuration: its items, and what the server must offer with them."""

    def __init__(self, source):
        self.kex = self._sample(source, KEX, GROUP1)
        self.cipher = self._sample(source, CIPHERS, "3des-cbc")
        self.legacy = source.random() < 0.3
        self.disabled = source.choice([None, None, *MACS])
        # At least one key type that stock sshd supports must remain.
        self.flags = [source.randrange(2) for _ in range(10)]
        self.flags[source.choice([0, 1, 2, 3, 6, 7, 8, 9])] = 1

    @staticmethod
    def _sample(source, names, never_alone):
        while True:
            sample = source.sample(names, source.randrange(1, len(names) + 1))
            if sample != [never_alone]:
                return sample

    def items(self):
        items = {"cmn/algorithms/key-exchange": self.kex, "cmn/algorithms/cipher": self.cipher}
        items["cmn/algorithms/host-key"] = self.flags
        if self.legacy:
            items["cmn/enable/cipher"] = [1, 0]
        if self.disabled:
            items[f"cmn/disable/hmac/{self.disabled}"] = 1
        return items

    def expected(self):
        ciphers = without(self.cipher, "3des-cbc")
        ciphers += [name for name in LEGACY if self.legacy and name not in ciphers]
        macs = [name for item, name in MACS.items() if item != self.disabled]
        keys = [name for name, places in HOST_KEYS.items() if any(self.flags[place] for place in places)]
        return [
            supported(without(self.kex, GROUP1), "kex"),
            supported(ciphers, "cipher"),
            supported(macs, "mac"),
            supported(keys, "HostKeyAlgorithms"),
        ]


@pytest.mark.parametrize("part", range(8))
def test_a_server_offers_the_configured_algorithms_that_are_supported_in_order(server, part):
    vrf = server("red")
    source = random.Random(f"algorithms {part}")
    before = {}
    for number in range(CONFIGURATIONS // 8):
        generated = Generated(source)
        items = generated.items()
        router.load(dict.fromkeys(before.keys() - items.keys()) | items)
        before = items
        expected = generated.expected()
        kex, ciphers, macs, keys = offered(vrf)
        assert [kex, ciphers, macs] == expected[:3], f"configuration {number}: {items}"
        # In its proposal sshd orders the keys by file.
        assert sorted(keys) == sorted(expected[3]), f"configuration {number}: {items}"
        settings = launched(vrf)
        assert settings[:3] == expected[:3]
        dss = ["ssh-dss"] if generated.flags[4] and "ssh-dss" in known["HostKeyAlgorithms"] else []
        assert settings[3] == expected[3] + dss


def shown():
    """The lists of the server parameters, reduced to what stock sshd supports, in the order of offered()."""
    parameters = router.ctl("show", "/oper/crypto-ssh/gl/server-params")
    fields = {"Kexalgo": "kex", "Cipheralgo": "cipher", "Macalgo": "mac", "Hostkeyalgo": "HostKeyAlgorithms"}
    return [supported(parameters[field].split(","), word) for field, word in fields.items()]


def expect_offer(vrf, kex, ciphers, macs, keys):
    """In what a client is offered, which has only the host keys that exist, and in the server's file."""
    lists = offered(vrf)
    assert list(lists[:3]) == [kex, ciphers, macs]
    assert launched(vrf) == [kex, ciphers, macs, keys]
    assert sorted(lists[3]) == sorted(name for name in keys if name in HOST_KEYS)


def test_what_is_shown_is_what_is_offered(server):
    # A start removes the lines that deletions in other tests have left.
    router.restart_agent()
    vrf = server("red")
    lines = "\n".join(router.server_lines(vrf))
    assert "Ciphers" not in lines and "KexAlgorithms" not in lines
    assert shown()[1] == DEFAULT_CIPHERS
    expect_offer(vrf, *shown())
    router.set_item("cmn/algorithms/cipher", ["aes256-ctr"])
    assert shown()[1] == ["aes256-ctr"]
    expect_offer(vrf, *shown())
    router.delete_item("cmn/algorithms/cipher")
    expect_offer(vrf, *shown())


def test_in_fips_mode_the_routers_defaults_are_filtered(server):
    router.restart_agent()
    vrf = server("red")
    router.set_item(FIPS, True)
    kex, ciphers, macs, _ = shown()
    allowed = supported(["ecdsa-sha2-nistp521", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp256", "rsa-sha2-512",
                         "rsa-sha2-256"], "HostKeyAlgorithms")
    narrowed = [without(kex, *CURVES), without(ciphers, CHACHA20), macs]
    assert list(offered(vrf)[:3]) == narrowed
    lists = launched(vrf)
    assert lists[:3] == narrowed and sorted(lists[3]) == sorted(allowed)


def test_the_client_offers_the_routers_defaults():
    router.restart_agent()
    router.run("/pkg/bin/ssh_csm", "-G", "router")
    lines = (TRANSLATIONS / "ssh_config").read_text(encoding="utf-8").splitlines()
    kex, ciphers, macs, keys = shown()
    for keyword, names in (("KexAlgorithms", kex), ("Ciphers", ciphers), ("MACs", macs), ("HostKeyAlgorithms", keys)):
        assert f"{keyword} {','.join(names)}" in lines


# --- Refusals


def expect_refused(items, *texts):
    """The whole commit is refused, with the verifier's message on standard error."""
    items = {"cmn/timeout": 77} | items
    before = router.configuration(), router.server_lines()
    result = router.load(items, check=False)
    assert result.returncode == 5, result.stderr
    for text in texts:
        assert text in result.stderr
    assert (router.configuration(), router.server_lines()) == before


TREES = [router.SERVER + "cmn/", router.CLIENT]


@pytest.mark.parametrize("tree", TREES)
@pytest.mark.parametrize(
    ("item", "value", "text"),
    [
        ("key-exchange", ["ecdh-sha2-nistp256"] * 2, "Kex-algorithms:=ecdh-sha2-nistp256, selected multiple times"),
        ("key-exchange", ["rot13"], "unknown ssh kexalgorithms rot13"),
        (
            "key-exchange",
            [GROUP1],
            "diffie-hellman-group1-sha1 is not supported, SSH will not work with only this config",
        ),
        ("cipher", ["aes128-ctr"] * 2, "Cipher-algorithms:=aes128-ctr, selected multiple times"),
        ("cipher", ["none"], "unknown ssh cipher algorithms none"),
        ("cipher", ["3des-cbc"], "3des-cbc is not supported in norvossh, SSH cannot work with this option only"),
        # The schema reports what does not match it.
        ("key-exchange", KEX + ["aes128-ctr"], "key-exchange"),
        ("cipher", CIPHERS + ["none"], "cipher"),
        ("key-exchange", ["k" * 41], "key-exchange"),
        ("cipher", ["c" * 41], "cipher"),
        ("key-exchange", [], "key-exchange"),
        ("cipher", [], "cipher"),
        ("cipher", [None, "aes128-ctr"], "cipher"),
        ("cipher", "aes128-ctr", "cipher"),
    ],
)
def test_a_bad_list_is_refused_with_the_whole_commit(tree, item, value, text):
    expect_refused({f"{tree}algorithms/{item}": value}, text)


@pytest.mark.parametrize("tree", TREES)
def test_not_all_macs_can_be_disabled(tree):
    paths = [f"{tree}disable/hmac/{item}" for item in MACS]
    refusal = "All three hmacs cannot be disabled"
    expect_refused(dict.fromkeys(paths, True), refusal)
    router.set_item(paths[0], True)
    expect_refused(dict.fromkeys(paths[1:], True), refusal)
    router.set_item(paths[1], True)
    expect_refused({paths[2]: True}, refusal)


def test_fips_mode_is_refused_when_a_list_would_be_empty():
    cases = [
        ("algorithms/key-exchange", CURVES, ",".join(CURVES) + " are not allowed in FIPS mode."),
        ("algorithms/cipher", [CHACHA20], CHACHA20 + " is not allowed in FIPS mode."),
    ]
    for tree in TREES:
        for item, value, text in cases:
            router.set_item(tree + item, value)
            expect_refused({FIPS: True}, text)
            router.delete_item(tree + item)
    router.set_item("cmn/algorithms/host-key", [0, 0, 0, 0, 1, 1, 1, 0, 0, 1])
    expect_refused({FIPS: True}, "DSA, RSA(ssh-rsa), X509 and ED25519 are not allowed in FIPS mode.")


def test_fips_mode_refuses_forbidden_algorithms():
    # In the same commit as the switch to FIPS mode, and after it.
    for switch in ({FIPS: True}, {}):
        for tree in TREES:
            text = "allowed in FIPS mode.Please configure allowed cipher algos in FIPS mode."
            expect_refused(switch | {tree + "algorithms/key-exchange": ["ecdh-sha2-nistp256", CURVES[0]]}, text)
            expect_refused(switch | {tree + "algorithms/cipher": ["aes128-ctr", CHACHA20]}, text)
        text = "DSA, RSA(ssh-rsa), X509 and ED25519 are not supported in FIPS mode for NorvoSSH."
        expect_refused(switch | {"cmn/algorithms/host-key": [0, 0, 0, 0, 0, 0, 1, 0, 0, 0]}, text)
        router.set_item(FIPS, True)
    expect_refused({"cmn/algorithms/key-exchange": ["ecdh-sha2-nistp256", GROUP1]}, "not supported in fips mode")


# --- FIPS mode


def expect_no_chacha20_and_no_curve25519(vrf):
    kex, ciphers, _, keys = offered(vrf)
    assert not set(kex) & set(CURVES) and CHACHA20 not in ciphers
    assert not set(keys) & {"ssh-ed25519", "ssh-rsa", "ssh-dss"}
    for option in [f"Ciphers={CHACHA20}", f"KexAlgorithms={','.join(CURVES)}"]:
        assert router.ssh(vrf, "true", options=[option], check=False).returncode == 255
    approved = ["HostKeyAlgorithms=rsa-sha2-512", "Ciphers=aes256-ctr"]
    assert router.ssh(vrf, "id", "-un", options=approved).stdout == "operator\n"


def test_in_fips_mode_nobody_gets_chacha20_or_curve25519(server):
    vrf = server("red")
    router.set_item(FIPS, True)
    assert "NorvoSSHFipsMode yes" in router.server_lines(vrf)
    expect_no_chacha20_and_no_curve25519(vrf)
    router.delete_item(FIPS)
    assert "NorvoSSHFipsMode yes" not in router.server_lines(vrf)
    assert CHACHA20 in offered(vrf)[1] and set(CURVES) <= set(offered(vrf)[0])


def test_fips_mode_survives_a_restart_whatever_was_configured_before(server):
    vrf = server("red")
    router.load({"cmn/algorithms/key-exchange": [*CURVES, "ecdh-sha2-nistp384"], "cmn/algorithms/cipher": CIPHERS})
    router.set_item(FIPS, True)
    router.restart_agent()
    journal = router.Journal()
    for name in (vrf, server("blue")):
        expect_no_chacha20_and_no_curve25519(name)
        assert offered(name)[0] == ["ecdh-sha2-nistp384"]
    # The agent has narrowed the lists itself, so that nothing is left for the launcher to remove.
    for file in [router.FILES / "sshd_config", router.FILES / "ssh_config", *map(router.server_file, (vrf, "blue"))]:
        assert not any(refused in file.read_text() for refused in (*CURVES, CHACHA20)), file
    removed = [text for text in journal.messages() if "not approved in FIPS mode: " in text]
    assert not [text for text in removed if "KexAlgorithms: " in text or "Ciphers: " in text]


def test_a_changed_value_of_the_fips_item_changes_no_file():
    router.set_item(FIPS, True)
    before = [(path.stat().st_mtime_ns, path.read_bytes()) for path in sorted(router.FILES.iterdir())]
    router.set_item(FIPS, False)
    assert [(path.stat().st_mtime_ns, path.read_bytes()) for path in sorted(router.FILES.iterdir())] == before
    assert "NorvoSSHFipsMode yes" in router.server_lines()


def test_the_launcher_names_what_stock_sshd_does_not_support(server, journal):
    vrf = server("red")
    router.set_item("cmn/algorithms/host-key", [1] * 10)
    journal.wait_for("HostKeyAlgorithms: ignored, not supported by this OpenSSH: x509v3-ssh-rsa", router.server_unit(vrf))


# --- The client


def ssh_csm(vrf, *arguments, **options):
    words = ["/pkg/bin/ssh_csm", "-o", "PubkeyAuthentication=yes", "-o", "BatchMode=yes"]
    return router.in_vrf(vrf, *words, *arguments, **options)


def test_the_client_connects_with_the_agents_file(server):
    vrf = server("red")
    router.load(
        {
            router.CLIENT + "algorithms/cipher": ["aes256-gcm@openssh.com", "aes128-ctr"],
            router.CLIENT + "algorithms/key-exchange": ["ecdh-sha2-nistp384"],
            router.CLIENT + "v2": True,
            router.CLIENT + "tcp_window_scale": 7,
            router.CLIENT + "dscp": 10,
        }
    )
    router.wait_for_server(vrf)
    with (router.FILES / "ssh_config").open("a", encoding="utf-8") as agents_file:
        agents_file.write("Protocol 2,1\n")
    result = ssh_csm(vrf, "-v", "operator@127.0.0.1", "id -un; exit 7", check=False)
    assert result.stdout == "operator\n" and result.returncode == 7
    assert "kex: algorithm: ecdh-sha2-nistp384" in result.stderr
    assert "cipher: aes256-gcm@openssh.com" in result.stderr
    settings = (TRANSLATIONS / "ssh_config").read_text(encoding="utf-8")
    assert "IPQoS 0x28\n" in settings and "Protocol" not in settings


def test_the_client_connects_in_fips_mode(server):
    vrf = server("red")
    router.set_item(FIPS, True)
    router.wait_for_server(vrf)
    assert router.FILES.joinpath("ssh_config").read_text(encoding="utf-8").count(",\n") == 3
    assert ssh_csm(vrf, "operator@127.0.0.1", "id -un").stdout == "operator\n"
    refused = ssh_csm(vrf, "-o", f"Ciphers={CHACHA20}", "operator@127.0.0.1", "true", check=False)
    assert refused.returncode == 255


def test_the_client_is_found_by_its_name(server):
    vrf = server("red")
    command = ["ip", "netns", "exec", f"vrf-{vrf}", "/pkg/bin/ssh_csm", "-o", "PubkeyAuthentication=yes", "-T"]
    command += ["operator@127.0.0.1", "echo here; cat"]
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as client:
        assert client.stdout.readline() == b"here\n"
        found = router.run("bash", "-c", "ps -ef | grep '/pkg/bin/ssh_csm ' | grep -v 'grep' | awk '{print $2}'")
        assert found.stdout.split() == [str(client.pid)]
        client.stdin.close()
        assert client.wait(20) == 0


def test_an_ordinary_user_can_use_the_client(server):
    vrf = server("red")
    inside = ["setpriv", "--reuid=operator", "--regid=operator", "--init-groups", "env", "-u", "XDG_RUNTIME_DIR"]
    result = router.in_vrf(vrf, *inside, "/pkg/bin/ssh_csm", "-G", "router")
    assert "stricthostkeychecking false" in result.stdout
    user = pwd.getpwnam("operator")
    folders = [pathlib.Path(f"/run/user/{user.pw_uid}/ssh_csm"), pathlib.Path(user.pw_dir) / ".cache/ssh_csm"]
    settings = next(folder / "ssh_config" for folder in folders if folder.exists())
    assert settings.owner() == "operator" and settings.stat().st_mode & 0o077 == 0
