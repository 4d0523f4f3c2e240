"""The history of commits, and commits on trial, across a restart of the agent."""
import json

import router


def call(*words, status=0, **options):
    result = router.run("ssh_cfg_ctl", *words, check=False, **options)
    assert result.returncode == status, result.stdout + result.stderr
    return result.stdout


def history():
    return json.loads(call("--json", "history"))


def test_rollback_restores_values_and_removes_what_was_added():
    call("set", "--note", "for the audit", "cmn/timeout", "41")
    number = history()[0]["number"]
    call("load", "-", input='{"/cfg/gl/crypto/ssh/server/cmn/timeout": 42, "/cfg/gl/crypto/ssh/server/cmn/rate_limit": 99}')
    assert [entry["note"] for entry in history()[:2]] == ["", "for the audit"]
    assert call("diff", str(number)) == ("+ /cfg/gl/crypto/ssh/server/cmn/rate_limit: 99\n"
                                         "- /cfg/gl/crypto/ssh/server/cmn/timeout: 41\n"
                                         "+ /cfg/gl/crypto/ssh/server/cmn/timeout: 42\n")
    call("rollback", str(number))
    assert call("get", "cmn/timeout") == "41\n"
    call("get", "cmn/rate_limit", status=4)
    assert call("diff", str(number)) == "no differences\n"


def test_a_commit_on_trial_is_still_awaited_after_the_agent_was_killed():
    number = history()[0]["number"] if history() else 0
    call("load", "--confirm", "60", "-", input='{"/cfg/gl/crypto/ssh/server/cmn/timeout": 43}')
    router.kill_agent()
    router.wait_for_agent()
    call("set", "cmn/timeout", "44", status=5)
    assert call("get", "cmn/timeout") == "43\n"
    call("rollback", str(number))
    call("set", "cmn/timeout", "44")


def test_a_rollback_restores_lists_with_the_items_that_use_them():
    item = "/cfg/gl/crypto/ssh/server/sshd/vrf/red"
    call("acl", "set", "ipv4", "kept", "-", input="10 permit tcp any any eq ssh\n")
    call("set", item, '{"ipv4_acl": "kept"}')
    number = history()[0]["number"]
    nothing = '{"/access-lists/": null}'
    assert "deleted  /access-lists/ipv4/kept\n" in call("load", "--check", "--replace", "-", input=nothing)
    call("load", "--replace", "--confirm", "60", "-", input=nothing)
    assert [(entry["call"], entry["changes"]) for entry in history()[:2]] == [("load", 2), ("set", 1)]
    call("acl", "show", "ipv4", "kept", status=4)
    call("acl", "set", "ipv4", "kept", "-", input="10 permit tcp any any eq ssh\n", status=5)
    call("rollback", str(number))
    assert call("acl", "show", "ipv4", "kept") == "10 permit tcp any any eq ssh\n"
    assert call("get", item) == '[null,"kept",null]\n'
    call("delete", item)
    call("acl", "delete", "ipv4", "kept")
