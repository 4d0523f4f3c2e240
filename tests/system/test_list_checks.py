"""Lists that `acl set` refuses because nft would not load them, and its warnings."""

import json
import pathlib
import subprocess
import time

import access_lists
import pytest
import router
from access_lists import ALLOWED, set_list, wait_for_rules

NFT = "/usr/sbin/nft"
HANGING = pathlib.Path("/run/hanging_nft")

# IPv6 entries whose masks nftables cannot express.
ANY_DESTINATION = {"IsDestinationAddressInNumbers": "::", "DestinationMask": "::"}
TCP = {"IsPacketAllowOrDeny": "permit", "IsProtocolOperator": 1, "IsIPV6ProtocolType": 6, **ANY_DESTINATION}
GAP = {**TCP, "IsSourceAddressInNumbers": "2001:db8:9::3", "SourceMask": "ffff:0:ffff::"}
NO_LENGTH = {**TCP, "IsSourceAddressInNumbers": "2001:db8:9::", "SourceMask": "ffff:ffff:ffff::"}
WITH_LENGTH = {**NO_LENGTH, "IsSourceAddressPrefixLength": 48}


@pytest.fixture(autouse=True)
def no_lists(clean_router):
    yield
    access_lists.delete_all_lists()


@pytest.fixture
def mgmt(vrf):
    return vrf("mgmt")


@pytest.fixture
def other_nft():
    """Replaces nft with a shell script for the rest of the test."""
    script = pathlib.Path("/usr/local/lib/other_nft")
    mounted = []

    def put(commands):
        script.write_text(f"#!/bin/sh\n{commands}\n", encoding="utf-8")
        script.chmod(0o755)
        router.run("mount", "--bind", script, NFT)
        mounted.append(script)

    yield put
    if mounted:
        router.run("umount", NFT)


def set_entries(*entries):
    return router.ctl("acl", "set", "ipv6", "ops6", "-", input=json.dumps(entries), check=False)


def bind(ipv4=None, ipv6=None, item="sshd/vrf/mgmt"):
    return router.set_item(item, [None, ipv4, ipv6])


def network_namespaces():
    return set(router.run("lsns", "-t", "net", "-n", "-o", "NS").stdout.split())


@pytest.mark.parametrize("entry", [GAP, NO_LENGTH])
def test_a_mask_that_nft_rejects_is_refused(mgmt, entry):
    assert set_entries(WITH_LENGTH).returncode == 0
    bind(None, "ops6")
    wait_for_rules(mgmt, "norvossh_v6acl", "ip6", "2001:db8:9::/48")
    refused = set_entries(WITH_LENGTH, entry)
    assert refused.returncode == 5
    answer = json.loads(refused.stdout)
    assert answer["result"] == "refused"
    assert "sequence 20: nft rejects its rule for SSH, \"ip6 saddr 2001:db8:9::" in answer["message"]
    assert answer["message"].endswith("tcp dport 22 accept\": No symbol type information")
    assert len(router.ctl("acl", "show", "ipv6", "ops6")) == 1
    assert any("2001:db8:9::/48" in rule for rule in access_lists.rules(mgmt, "norvossh_v6acl", "ip6"))


def test_a_missing_ipv6_mask_means_any_address():
    entry = {**TCP, "IsSourceAddressInNumbers": "2001:db8:9::3"}
    assert set_entries(entry).returncode == 0
    assert router.run("ssh_cfg_ctl", "acl", "show", "ipv6", "ops6").stdout == "10 permit tcp any any\n"


def test_a_check_leaves_nothing_behind_and_loads_nothing(mgmt):
    bind("ops")
    before = network_namespaces()
    ruleset = router.run("nft", "list", "ruleset").stdout
    for _ in range(5):
        set_list("ipv4", "unused", *[f"permit tcp host 192.0.2.{host} any" for host in range(1, 200)])
    # The kernel removes a namespace a moment after its last process.
    router.wait_until(lambda: network_namespaces() <= before, what="no network namespace is left")
    assert router.run("nft", "list", "ruleset").stdout == ruleset
    assert not access_lists.rules(mgmt, "norvossh_v4acl")


def test_a_hanging_nft_dies_with_the_agent(other_nft, tmp_path):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    lines = tmp_path / "lines"
    lines.write_text("permit tcp any any\n", encoding="utf-8")
    HANGING.unlink(missing_ok=True)
    other_nft(f"echo $$ > {HANGING}.new; mv {HANGING}.new {HANGING}; exec sleep 1000")
    with subprocess.Popen(["ssh_cfg_ctl", "acl", "set", "ipv4", "ops", lines], stderr=subprocess.PIPE) as call:
        router.wait_until(HANGING.exists, what="nft hangs")
        process = pathlib.Path("/proc", HANGING.read_text(encoding="utf-8").strip())
        assert process.exists()
        router.kill_agent()
        router.wait_until(lambda: not process.exists(), what="nft has gone")
        call.communicate(timeout=10)
        assert call.returncode == 3
    assert router.run("ssh_cfg_ctl", "acl", "show", "ipv4", "ops").stdout == f"10 permit tcp host {ALLOWED} any\n"


def test_a_hanging_nft_does_not_block_the_agent(other_nft):
    other_nft("exec sleep 1000")
    started = time.monotonic()
    result = set_list("ipv4", "ops", "permit tcp any any", check=False)
    assert result.returncode == 1
    assert "/access-lists/ipv4/ops: cannot be checked, nothing has been changed: nft did not end in time" in result.stderr
    assert 15 < time.monotonic() - started < 30
    assert router.ctl("acl", "list") == []


def test_entries_without_the_apparent_effect_cause_warnings(mgmt):
    answer = set_list("ipv4", "ops", "permit tcp any any eq 23", "deny tcp any any neq 22", "permit tcp any any eq 830")
    assert answer["warnings"] == [
        "IPv4 access list ops: sequence 10 never matches: its destination port is compared with 22 for SSH and with 830 "
        "for NETCONF",
        "IPv4 access list ops: sequence 20 closes every TCP port but 22, also those of other programs, where the list is "
        "used for SSH",
    ]
    assert bind("ops")["warnings"] == [
        "VRF mgmt: SSH is open to every IPv6 source: the item names only an IPv4 access list",
        "IPv4 access list ops: sequences 10 and 30 never match: their destination port is compared with 22 for SSH in VRF "
        "mgmt",
        "IPv4 access list ops: sequence 20 closes every TCP port but 22, also those of other programs, where the list is "
        "used for SSH in VRF mgmt",
    ]
    assert "warnings" not in set_list("ipv6", "ops6", "permit tcp 2001:db8::/32 any")
    assert set_list("ipv6", "ops6", "permit tcp any any eq ssh")["warnings"] == [
        "IPv6 access list ops6: sequence 10 never matches: its destination port is compared with 830 for SSH and for "
        "NETCONF",
    ]
