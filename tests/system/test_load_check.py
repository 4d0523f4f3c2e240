"""`load --check` answers like the load itself, with the same messages and the same status, and changes nothing."""

import json

import pytest
import router
from test_rehearsal import HOST_KEYS, X509_ALONE, machine

CMN = router.SERVER + "cmn/"
RED = router.SERVER + "sshd/vrf/red"
FIPS = "/cfg/gl/crypto/fipsmode/value"
MACS = [f"{CMN}disable/hmac/hmac_{name}" for name in ("sha1", "sha256", "sha512")]

# Items, and the exit status of both calls. The router has a server in the VRF red and a timeout of 45.
CASES = {
    "a_setting": ({CMN + "timeout": 50}, 0),
    "a_setting_that_is_there_already": ({CMN + "timeout": 45}, 0),
    "changed_and_unchanged": ({CMN + "timeout": 45, CMN + "rate_limit": 70}, 0),
    "a_deleted_setting": ({CMN + "timeout": None}, 0),
    "a_deleted_tree": ({CMN: None}, 0),
    "a_deleted_server": ({RED: None}, 0),
    "a_client_setting": ({router.CLIENT + "dscp": 12}, 0),
    "fips_mode": ({FIPS: 1}, 0),
    "a_vrf_without_a_namespace": ({router.SERVER + "sshd/vrf/away": router.OPEN}, 0),
    "a_list_that_is_missing": ({RED: [None, "nolist", None]}, 0),
    "not_carried_out_here": ({CMN + "tcp_window_scale": 3}, 0),
    "an_item_without_effect": ({CMN + "v1": 1}, 0),
    "nothing_to_delete": ({CMN + "session_limit": None}, 4),
    "out_of_range": ({CMN + "timeout": 100000}, 5),
    "of_the_wrong_kind": ({CMN + "timeout": "soon"}, 5),
    "an_unknown_path": ({CMN + "tiemout": 50}, 5),
    "several_errors": ({CMN + "timeout": "soon", CMN + "tiemout": 50, CMN + "rate_limit": 70}, 5),
    "refused_by_a_verifier": ({path: 1 for path in MACS}, 5),
    "a_key_that_is_none": ({CMN + "username/operator": 1, CMN + "username/operator/keystr": "rubbish"}, 5),
    "valid_and_refused_by_a_verifier": ({CMN + "timeout": 50} | {path: 1 for path in MACS}, 5),
    "refused_by_sshd": ({HOST_KEYS: X509_ALONE}, 5),
    "valid_and_refused_by_sshd": ({CMN + "timeout": 50, HOST_KEYS: X509_ALONE}, 5),
}


def load(items, *options):
    """The call's status, its standard error, and its answer without the members that only one of the two returns."""
    result = router.run("ssh_cfg_ctl", "--json", "load", *options, "-", input=json.dumps(items), check=False)
    # Where a load says "stored", a check says "would be stored".
    answer, words = (text.replace("would be stored", "stored") for text in (result.stdout, result.stderr))
    answer = json.loads(answer) if answer else {}
    answer.pop("rehearsal", None)
    answer.pop("commit", None)
    # Only a check shows the old and the new values.
    for item in answer.get("items", []):
        item.pop("previous", None)
        item.pop("value", None)
    assert answer.pop("check", "--check" in options) == ("--check" in options)
    return result.returncode, words, answer


@pytest.mark.parametrize("name", CASES)
def test_a_check_answers_like_the_load_and_changes_nothing(server, name):
    items, status = CASES[name]
    server("red")
    router.set_item("cmn/timeout", 45)
    before = machine()
    checked = load(items, "--check")
    assert machine() == before
    loaded = load(items)
    assert checked == loaded
    assert loaded[0] == status
    if status == 0:
        assert {one["path"] for one in loaded[2]["items"]} >= {path for path in items if not path.endswith("/")}
    else:
        assert loaded[1]
        assert machine() == before
