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
