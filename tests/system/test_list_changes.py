"""Changes of the lists named by items, and lists that change under adverse conditions."""

import access_lists
import pytest
import router
from access_lists import ALLOWED, ALLOWED6, DENIED, DENIED6, ROUTER, Intruder, reached, set_list, wait_for_rules

ITEM = "sshd/vrf/mgmt"

pytestmark = pytest.mark.usefixtures("lists_and_wires")


def bind(ipv4=None, ipv6=None, item=ITEM):
    router.set_item(item, [None, ipv4, ipv6])


def long_list(number):
    """A list of 1,000 entries that permits one unique address and the first neighbour, and denies the second."""
    lines = [f"permit tcp host 192.0.{2 + entry // 250}.{entry % 250 + 1} any" for entry in range(998)]
    return [*lines, f"permit tcp host 198.51.100.{number} any", f"permit tcp host {ALLOWED} any"]


def test_nobody_slips_in_while_an_item_changes_its_lists(mgmt):
    for number in (1, 2):
        set_list("ipv4", f"ops{number}", *long_list(number))
    bind("ops1")
    router.wait_until(lambda: reached((ALLOWED, ROUTER, 22)), what="the permitted get in")
    intruder = Intruder(DENIED, ROUTER, 22)
    for number in (2, 1) * 5:
        bind(f"ops{number}")
        wait_for_rules(mgmt, "norvossh_v4acl", text=f"198.51.100.{number}")
    knocks, entries = intruder.stop()
    assert entries == 0, f"{entries} of {knocks} knocks"
    assert knocks > 100
    assert reached((ALLOWED, ROUTER, 22))


def test_a_changed_list_of_ipv6_leaves_the_rules_of_ipv4_in_place(mgmt):
    set_list("ipv4", "ops", *long_list(1))
    for host in (ALLOWED6, DENIED6):
        set_list("ipv6", f"six{host[-1]}", f"permit tcp host {host} any")
    bind("ops", "six2")
    router.wait_until(lambda: reached((ALLOWED, ROUTER, 22)), what="the permitted get in")
    handles = router.in_vrf(mgmt, "nft", "-a", "list", "table", "ip", "norvossh_v4acl").stdout
    bind("ops", "six3")
    wait_for_rules(mgmt, "norvossh_v6acl", "ip6", DENIED6)
    assert router.in_vrf(mgmt, "nft", "-a", "list", "table", "ip", "norvossh_v4acl").stdout == handles


def test_a_list_named_without_its_namespace_waits_for_it(vrf):
    set_list("ipv4", "old", "permit tcp host 192.0.2.1 any")
    set_list("ipv4", "new", "permit tcp host 192.0.2.2 any")
    vrf("mgmt")
    bind("old")
    wait_for_rules("mgmt", "norvossh_v4acl", text="192.0.2.1")
    router.delete_namespace("mgmt")
    unit = router.UNITS / router.server_unit("mgmt")
    router.wait_until(lambda: not unit.exists(), what=f"{unit} goes with its namespace")
    bind("new")
    vrf("mgmt")
    wait_for_rules("mgmt", "norvossh_v4acl", text="192.0.2.2")


def shown_parameters():
    return router.run("ssh_cfg_ctl", "show", "/oper/crypto-ssh/gl/server-params").stdout


def test_an_item_without_lists_detaches_its_previous_lists(mgmt):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    bind("ops")
    wait_for_rules(mgmt, "norvossh_v4acl", text=ALLOWED)
    assert "v4-acl:=ops," in shown_parameters()
    bind()
    wait_for_rules(mgmt, "norvossh_v4acl")
    assert "v4-acl:=," in shown_parameters()
    set_list("ipv4", "ops", "deny tcp any any")
    assert not access_lists.rules(mgmt, "norvossh_v4acl")
    router.wait_until(lambda: reached((DENIED, ROUTER, 22)), what="everybody gets in")


def test_a_vrf_without_namespace_does_not_stop_a_change_for_the_others(mgmt):
    set_list("ipv4", "ops", "permit tcp host 192.0.2.1 any")
    bind("ops")
    wait_for_rules(mgmt, "norvossh_v4acl", text="192.0.2.1")
    # The agent handles the newest VRF first.
    bind("ops", item="sshd/vrf/away")
    bind("ops", item="sshd/vrf-netconf/mgmt")
    set_list("ipv4", "ops", "permit tcp host 192.0.2.2 any")
    for table in ("norvossh_v4acl", "netconf_v4acl"):
        wait_for_rules(mgmt, table, text="192.0.2.2")


def open_to_everybody():
    return reached((ALLOWED, ROUTER, 22), (DENIED, ROUTER, 22)) == {(ALLOWED, ROUTER, 22), (DENIED, ROUTER, 22)}


def test_an_emptied_list_leaves_the_port_open_before_and_after_a_restart(mgmt):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    bind("ops")
    router.wait_until(lambda: reached((ALLOWED, ROUTER, 22)), what="the permitted get in")
    assert not open_to_everybody()
    answer = set_list("ipv4", "ops")
    assert answer["warnings"] == ["VRF mgmt: SSH is open to every IPv4 source: IPv4 access list ops is empty"]
    wait_for_rules(mgmt, "norvossh_v4acl")
    router.wait_until(open_to_everybody, what="everybody gets in")
    router.restart_agent()
    router.wait_until(open_to_everybody, what="everybody gets in after the restart")
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    wait_for_rules(mgmt, "norvossh_v4acl", text=ALLOWED)
    assert not open_to_everybody()


def test_a_list_changed_without_its_namespace_is_loaded_when_it_returns(vrf):
    set_list("ipv4", "ops", "permit tcp host 192.0.2.1 any")
    vrf("mgmt")
    bind("ops")
    wait_for_rules("mgmt", "norvossh_v4acl", text="192.0.2.1")
    router.delete_namespace("mgmt")
    unit = router.UNITS / router.server_unit("mgmt")
    router.wait_until(lambda: not unit.exists(), what=f"{unit} goes with its namespace")
    set_list("ipv4", "ops", "permit tcp host 192.0.2.2 any")
    vrf("mgmt")
    wait_for_rules("mgmt", "norvossh_v4acl", text="192.0.2.2")


def test_an_empty_input_changes_nothing(mgmt):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    bind("ops")
    wait_for_rules(mgmt, "norvossh_v4acl", text=ALLOWED)
    refused = router.run("sh", "-c", "false | ssh_cfg_ctl acl set ipv4 ops -", check=False)
    assert (refused.returncode, refused.stdout) == (5, "")
    assert "access list ops: no entries, nothing has been changed" in refused.stderr
    assert any(ALLOWED in rule for rule in access_lists.rules(mgmt, "norvossh_v4acl"))


def test_a_list_without_effect_causes_a_warning(mgmt):
    result = router.run("ssh_cfg_ctl", "set", router.SERVER + ITEM, '[null, "opps"]')
    assert result.stderr.splitlines() == [
        "ssh_cfg_ctl: warning: VRF mgmt: SSH is open to every IPv4 source: there is no IPv4 access list opps",
        "ssh_cfg_ctl: warning: VRF mgmt: SSH is open to every IPv6 source: the item names only an IPv4 access list",
    ]


def test_the_deletion_of_a_bound_list_causes_a_warning(mgmt):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    bind("ops")
    result = router.run("ssh_cfg_ctl", "acl", "delete", "ipv4", "ops")
    assert result.stderr.splitlines() == [
        "ssh_cfg_ctl: warning: VRF mgmt: SSH is open to every IPv4 source: there is no IPv4 access list ops",
    ]


def test_a_failed_load_is_reported_and_changes_nothing(mgmt, nft_that_rejects, journal):
    set_list("ipv6", "ops6", f"permit tcp host {ALLOWED6} any")
    bind(None, "ops6")
    wait_for_rules(mgmt, "norvossh_v6acl", "ip6", ALLOWED6)
    rules = access_lists.rules(mgmt, "norvossh_v6acl", "ip6")
    accept_again = nft_that_rejects("vrf-mgmt_norvossh_v6acl")
    result = set_list("ipv6", "ops6", f"permit tcp host {DENIED6} any", check=False)
    assert result.returncode == 6
    assert "stored, not in force: " in result.stderr
    journal.wait_for("Failed to apply nft rules", router.AGENT)
    assert "VRF mgmt" in journal.wait_for("access list ops6 was not loaded", router.AGENT)
    assert access_lists.rules(mgmt, "norvossh_v6acl", "ip6") == rules
    accept_again()
    set_list("ipv6", "ops6", f"permit tcp host {DENIED6} any")
    wait_for_rules(mgmt, "norvossh_v6acl", "ip6", DENIED6)
