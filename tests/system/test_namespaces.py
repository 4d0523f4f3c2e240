"""Namespaces that come and go while items of their VRFs change."""

import router

DEFAULT = "sshd/v2"


def go_away(vrf):
    """Deletes the namespace and waits until the agent has followed."""
    unit = router.UNITS / router.server_unit(vrf)
    router.delete_namespace(vrf)
    router.wait_until(lambda: not unit.exists(), what=f"{unit} goes with its namespace")


def test_deleting_a_netconf_item_without_its_namespace_does_not_prevent_an_ssh_server(server):
    server("red")
    server("red", "vrf-netconf", 830)
    go_away("red")
    router.delete_item("sshd/vrf-netconf/red")
    router.add_namespace("red")
    router.wait_for_server("red")
    assert not router.port_answers("red", 830)


def test_the_default_server_configured_without_its_namespace_starts_with_it():
    go_away("default")
    result = router.set_item(DEFAULT, True, check=False)
    file = router.server_file("default")
    prepared = file.exists() and "Port 22" in router.server_lines("default")
    router.run("ip", "netns", "attach", "vrf-default", "1")
    assert (result.returncode, prepared) == (0, True)
    router.wait_for_server("default")


def test_the_default_server_starts_although_its_namespace_was_detached_in_between():
    go_away("default")
    router.run("ip", "netns", "attach", "vrf-default", "1")
    router.set_item(DEFAULT, True)
    router.wait_for_server("default")


def test_a_deleted_default_server_stops_although_its_default_file_was_missing():
    router.set_item(DEFAULT, True)
    router.wait_for_server("default")
    (router.FILES / "sshd_config").unlink()
    router.set_item("cmn/timeout", 77)
    assert any(line.split() == ["LoginGraceTime", "77"] for line in router.server_lines("default"))
    router.delete_item(DEFAULT)
    router.wait_until(lambda: not router.port_answers("default"), what="the server stops")
    assert not router.is_active(router.server_unit("default"))
