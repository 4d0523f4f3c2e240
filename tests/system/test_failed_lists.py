"""Access lists that cannot be loaded, the ports that stay closed because of them, and sessions that survive new lists."""

import subprocess

import pytest
import router
from access_lists import ALLOWED, DENIED, DENIED6, PEER, ROUTER, ROUTER6, Intruder, reached, set_list, wait_for_rules

ITEM = "sshd/vrf/mgmt"

pytestmark = pytest.mark.usefixtures("lists_and_wires")


def bind(ipv4=None, ipv6=None, **options):
    return router.set_item(ITEM, [None, ipv4, ipv6], **options)


def bind_unloadable(ipv4=None, ipv6=None):
    """Binds lists that cannot be loaded and returns the items reported as not in force."""
    result = bind(ipv4, ipv6, check=False)
    assert result.returncode == 6, result
    return {entry["subject"]: entry["reason"] for entry in router.json.loads(result.stdout)["not_in_force"]}


def closed_services(vrf="mgmt"):
    return next(row for row in router.ctl("vrf", "list") if row["name"] == vrf)["closed"]


IPV4, IPV6 = (ALLOWED, ROUTER, 22), (DENIED6, ROUTER6, 22)


def test_a_list_that_cannot_be_loaded_closes_its_family_until_it_is_loaded(mgmt, nft_that_rejects):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    accept_again = nft_that_rejects("norvossh_v4acl")
    assert bind_unloadable("ops") == {"rules mgmt ssh ipv4": "access list ops was not loaded: Error: rejected"}
    router.wait_until(lambda: reached(IPV6), what="the other family gets in")
    assert not reached(IPV4)
    assert closed_services() == ["ssh ipv4"]

    # It stays closed after a restart of the server and a change of a setting.
    router.set_item("cmn/timeout", 44, check=False)
    router.wait_until(lambda: reached(IPV6), what="the other family gets in")
    assert not reached(IPV4)

    accept_again()
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any", "permit tcp host 192.0.2.1 any")
    wait_for_rules(mgmt, "norvossh_v4acl", text="192.0.2.1")
    router.wait_until(lambda: reached(IPV4), what="the permitted get in")
    assert not reached((DENIED, ROUTER, 22))
    assert closed_services() == []


def test_nobody_gets_in_while_a_list_fails_to_load(mgmt, nft_that_rejects):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    set_list("ipv4", "new", f"permit tcp host {ALLOWED} any")
    bind("ops")
    router.wait_until(lambda: reached(IPV4), what="the permitted get in")
    intruder = Intruder(DENIED, ROUTER, 22)
    nft_that_rejects("norvossh_v4acl")
    for name in ("new", "ops", "new"):
        bind_unloadable(name)
    knocks, entries = intruder.stop()
    assert (entries, knocks > 20) == (0, True)


@pytest.mark.parametrize("number", [9, 15])
def test_a_closed_service_stays_closed_after_the_agents_end(mgmt, nft_that_rejects, number):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    accept_again = nft_that_rejects("norvossh_v4acl")
    bind_unloadable("ops")
    intruder = Intruder(DENIED, ROUTER, 22)
    if number == 9:
        router.kill_agent()
    else:
        router.restart_agent()
    router.wait_until(lambda: reached(IPV6), what="the other family gets in")
    assert closed_services() == ["ssh ipv4"]
    accept_again()
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any", "permit tcp host 192.0.2.1 any")
    router.wait_until(lambda: reached(IPV4), what="the permitted get in")
    knocks, entries = intruder.stop()
    assert (entries, knocks > 20) == (0, True)


def test_a_closure_that_is_no_longer_needed_is_lifted_by_the_next_agent(mgmt, nft_that_rejects):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    accept_again = nft_that_rejects("norvossh_v4acl")
    bind_unloadable("ops")
    router.run("systemctl", "stop", router.AGENT)
    accept_again()
    router.run("systemctl", "start", router.AGENT, timeout=120)
    router.wait_for_agent()
    router.wait_until(lambda: reached(IPV4), what="the permitted get in")
    assert not reached((DENIED, ROUTER, 22))


def test_an_item_without_the_list_opens_its_family(mgmt, nft_that_rejects):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    accept_again = nft_that_rejects("norvossh_v4acl")
    bind_unloadable("ops")
    accept_again()
    bind()
    router.wait_until(lambda: reached(IPV4), what="everybody gets in")
    assert closed_services() == []


def test_deleting_an_item_leaves_nothing_closed(mgmt, nft_that_rejects):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    accept_again = nft_that_rejects("norvossh_v4acl")
    bind_unloadable("ops")
    accept_again()
    router.delete_item(ITEM)
    assert closed_services() == []
    bind()
    router.wait_until(lambda: reached(IPV4), what="everybody gets in")


def test_an_operator_can_open_what_a_failure_has_closed(mgmt, nft_that_rejects, journal):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    nft_that_rejects("norvossh_v4acl")
    bind_unloadable("ops")
    assert not reached(IPV4)
    result = router.run("ssh_cfg_ctl", "vrf", "unblock", "mgmt")
    assert result.stdout == "opened in VRF mgmt: ssh ipv4\n"
    assert reached(IPV4)
    assert any("call:=vrf unblock, result:=done, mgmt, opened ssh ipv4" in line for line in journal.messages(router.AGENT))
    assert router.run("ssh_cfg_ctl", "vrf", "unblock", "mgmt").stdout == "nothing is blocked in VRF mgmt\n"
    unknown = router.run("ssh_cfg_ctl", "vrf", "unblock", "nowhere", check=False)
    assert (unknown.returncode, unknown.stderr) == (5, 'ssh_cfg_ctl: unknown VRF "nowhere"\n')


def test_a_server_that_did_not_start_gets_its_lists_before_its_ports_open(mgmt):
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    drop_in = router.UNITS / f"{router.server_unit('mgmt')}.d" / "broken.conf"
    drop_in.parent.mkdir()
    try:
        drop_in.write_text("[Service]\nExecStart=\nExecStart=/bin/false\nType=oneshot\n")
        intruder = Intruder(DENIED, ROUTER, 22)
        assert "server mgmt" in bind_unloadable("ops")
    finally:
        drop_in.unlink()
        drop_in.parent.rmdir()
    router.run("systemctl", "daemon-reload")
    router.set_item("cmn/timeout", 45, check=False)
    router.wait_until(lambda: reached(IPV4), what="the permitted get in")
    knocks, entries = intruder.stop()
    assert (entries, knocks > 10) == (0, True)


# Sessions


class Session:
    """An SSH session from the neighbour that runs the commands it is given."""

    def __init__(self, source=DENIED, host=ROUTER):
        options = ["BatchMode=yes", "UserKnownHostsFile=/dev/null", "StrictHostKeyChecking=no", "LogLevel=ERROR",
                   "ServerAliveInterval=2", "ServerAliveCountMax=2"]
        words = ["ip", "netns", "exec", PEER, "ssh", "-b", source]
        words += [word for option in options for word in ("-o", option)]
        self._process = subprocess.Popen([*words, f"operator@{host}", "bash"], stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, text=True)
        assert self.answer("echo begun") == "begun"

    def answer(self, command):
        self._process.stdin.write(command + "\n")
        self._process.stdin.flush()
        return self._process.stdout.readline().rstrip("\n")

    def end(self):
        self._process.stdin.close()
        return self._process.wait(timeout=10)


def test_a_session_outlives_the_first_list_of_its_vrf(mgmt):
    bind()
    router.wait_until(lambda: reached((DENIED, ROUTER, 22)), what="a server answers")
    session = Session()
    set_list("ipv4", "ops", f"permit tcp host {ALLOWED} any")
    bind("ops")
    wait_for_rules(mgmt, "norvossh_v4acl", text=ALLOWED)
    assert reached(IPV4, (DENIED, ROUTER, 22)) == {IPV4}
    assert session.answer("echo $((6 * 7))") == "42"
    assert session.end() == 0
