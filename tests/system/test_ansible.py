"""The Ansible role of examples/ansible, from a control node to the router over SSH."""

import json
import os
import pathlib

import access_lists
import pytest
import router

ROLE = pathlib.Path(__file__).parents[2] / "examples/ansible"
TIMEOUT = router.SERVER + "cmn/timeout"
ITEMS = {TIMEOUT: 50, router.SERVER + "sshd/v2": True, router.SERVER + "sshd/vrf/red": {"ipv4_acl": "office"}}
LISTS = {"ipv4": {"office": [{"Grant": "permit", "SourceAddress": "192.0.2.0", "SourceAddressMask": "0.0.0.255"}]}}


@pytest.fixture
def play(tmp_path):
    """Runs the playbook with these variables. Returns its summary for the router, and what it printed."""
    router.set_item("sshd/v2", True)
    router.wait_for_server("default")
    host = {"ansible_host": "127.0.0.1", "ansible_user": "operator", "ansible_python_interpreter": "/usr/bin/python3",
            "ansible_ssh_common_args": "-o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o ConnectTimeout=10"}

    def run(*options, **variables):
        inventory = tmp_path / "inventory.json"
        inventory.write_text(json.dumps({"routers": {"hosts": {"router1": host | variables}}}), encoding="utf-8")
        environment = os.environ | {"ANSIBLE_STDOUT_CALLBACK": "json", "ANSIBLE_HOME": str(tmp_path)}
        result = router.run("ansible-playbook", "-i", inventory, "site.yml", *options, check=False, cwd=ROLE, env=environment,
                            timeout=120)
        return json.loads(result.stdout)["stats"]["router1"], result.stdout

    with router.member_of("operator", "sshcfg", "sshcfg-admin"):
        yield run
    access_lists.delete_all_lists()


def test_the_role_checks_loads_confirms_and_then_changes_nothing(play):
    stats, output = play("--check", ssh_cfg_items=ITEMS, ssh_cfg_access_lists=LISTS)
    assert (stats["changed"], stats["failures"]) == (1, 0)
    assert "/access-lists/ipv4/office" in output and '"created"' in output
    assert TIMEOUT not in router.configuration()

    assert play(ssh_cfg_items=ITEMS, ssh_cfg_access_lists=LISTS)[0]["changed"] == 1
    assert router.configuration() == ITEMS | {router.SERVER + "sshd/vrf/red": [None, "office", None]}
    assert router.ctl("status")["confirmation_awaited"] is None
    assert router.ctl("history")[0]["note"] == "ansible"

    assert play(ssh_cfg_items=ITEMS, ssh_cfg_access_lists=LISTS)[0]["changed"] == 0
    stats, output = play(ssh_cfg_items={TIMEOUT: 500})
    assert stats["failures"] == 1 and "500 is out of range" in output

    # The server of the default VRF is Ansible's own way in: the second login fails, and nobody confirms.
    stats, _ = play(ssh_cfg_items={router.SERVER + "sshd/v2": None})
    assert stats["unreachable"] == 1
    awaited = router.ctl("status")["confirmation_awaited"]
    router.ctl("rollback", awaited["commit"] - 1)
    router.wait_for_server("default")
