"""Changes during which the agent is killed: the next one puts in force what is stored.

Killed at each of its calls with recorded commands: tests/unit/reconcile/interrupted_commits_test.cpp. Here systemd, sshd and
the kernel are real, and each kind of change is killed at some of the moments at which it changes the machine: before it
renames or removes a file and before it runs a command.
"""

import difflib
import json
import os
import re
import time

import kill_moments
import pytest
import router

TIMEOUT = router.SERVER + "cmn/timeout"
FIPS = "/cfg/gl/crypto/fipsmode/value"
ITEM = router.SERVER + "sshd/vrf/"
VRFS = ["red", "blue", "green"]
RECORD = router.pathlib.Path("/run/norvossh_restart_record")
MOMENTS = 3


def load(items):
    return ["ssh_cfg_ctl", "load", "-"], json.dumps(items)


def list_of(*sources):
    entries = "".join(f"{10 * number + 10} permit tcp {source} any eq 22\n" for number, source in enumerate(sources))
    return ["ssh_cfg_ctl", "acl", "set", "ipv4", "ops", "-"], entries


def bound(vrf, name):
    return {ITEM + vrf: [None, name, None]}


# Each kind of change there and back: commands with their standard input, and whether every server has to be restarted.
KINDS = {
    "a_setting": (load({TIMEOUT: 50}), load({TIMEOUT: 60}), True),
    "fips_mode": (load({FIPS: 1}), load({FIPS: None}), True),
    "an_item": (load({ITEM + "grey": router.OPEN}), load({ITEM + "grey": None}), False),
    "an_item_with_a_list": (load(bound("grey", "ops")), load({ITEM + "grey": None}), False),
    "a_list_bound": (load(bound("blue", "ops")), load(bound("blue", None)), False),
    "a_list": (list_of("10.0.0.0/8", "127.0.0.0/8"), list_of("127.0.0.0/8"), False),
}


@pytest.fixture
def servers(vrf, lists_and_wires):
    """Three VRFs with a server each, one of which has an access list, and a VRF without one."""
    for name in [*VRFS, "grey"]:
        vrf(name)
    router.run(*list_of("127.0.0.0/8")[0], input=list_of("127.0.0.0/8")[1])
    router.load({TIMEOUT: 60} | {ITEM + name: router.OPEN for name in VRFS} | bound("red", "ops"))
    for name in VRFS:
        router.wait_for_server(name)


def running_vrfs():
    return [name for name in [*VRFS, "grey"] if router.is_active(router.server_unit(name))]


def settings_of(path):
    """The lines of a file for people who do not care about their order; a list that is the default may be missing."""
    defaults = ("Ciphers aes128-ctr,aes192-ctr,aes256-ctr,aes128-gcm@openssh.com,aes256-gcm@openssh.com,chacha20",
                "KexAlgorithms ecdh-sha2-nistp521,ecdh-sha2-nistp384,ecdh-sha2-nistp256,diffie-hellman-group14-sha1,"
                "curve25519-sha256")
    lines = [" ".join(line.split()) for line in path.read_text(encoding="utf-8").splitlines()]
    return sorted(line for line in lines if not line.startswith(defaults))


def in_force(vrf):
    """All settings of the file with which the VRF's running server was started, as sshd reads it."""
    router.wait_for_server(vrf)
    words = router.pathlib.Path(f"/proc/{router.main_pid(router.server_unit(vrf))}/cmdline").read_bytes().decode()
    file = re.search(r"-f[\0 ](\S+?)[\0 ]", words + "\0").group(1)
    assert_read(vrf, file)
    return sorted(router.in_vrf(vrf, "/usr/sbin/sshd", "-T", "-f", file).stdout.splitlines())


def assert_read(vrf, file):
    """The VRF's server is in its VRF's namespace and has been started with the file as it is now."""
    pid = router.main_pid(router.server_unit(vrf))
    assert os.stat(f"/proc/{pid}/ns/net").st_ino == os.stat(f"/run/netns/vrf-{vrf}").st_ino
    record = dict(line.split(" ", 1) for line in router.pathlib.Path(f"{file}~launch").read_text().splitlines())
    changed = os.stat(file).st_ctime_ns
    assert record["process"] == str(pid) and record["in_use"] == "current"
    assert record["config_stamp"].endswith(f" {changed // 10**9}.{changed % 10**9:09}"), "the file has changed since"


def rules(vrf):
    """The VRF's packet filter, without tables that let everything pass."""
    text = router.in_vrf(vrf, "nft", "-s", "list", "ruleset").stdout
    chain = r"\tchain input {\n\t\ttype filter hook input priority filter; policy accept;\n\t}\n"
    text = re.sub(rf"\n\tcomment .*|table \w+ \w+ {{\n({chain})?}}\n", "", text)
    return sorted(re.split(r"(?<=^}\n)", text, flags=re.MULTILINE))


def differences(expected, found):
    lines = [json.dumps(state, indent=1, sort_keys=True).splitlines() for state in (expected, found)]
    return [line for line in difflib.unified_diff(*lines, n=0) if not line.startswith(("---", "+++", "@@"))]


def machine():
    """What has to be the same, whether the change was interrupted or not."""
    running = running_vrfs()
    files = sorted(router.FILES.glob("ssh*_config*"))
    return {
        "items": router.configuration(),
        "lists": router.run("ssh_cfg_ctl", "acl", "show", "ipv4", "ops").stdout,
        "files": {path.name: settings_of(path) for path in files if path.name != "temp_sshd_config"},
        "running": running,
        "in force": {name: in_force(name) for name in running},
        "rules": {name: rules(name) for name in [*VRFS, "grey"]},
        "record": RECORD.exists(),
        "verify": router.run("ssh_cfg_ctl", "verify", check=False).stdout,
    }


def start_time(vrf):
    """Seconds of CLOCK_MONOTONIC."""
    return int(router.unit_property(router.server_unit(vrf), "ExecMainStartTimestampMonotonic")) / 1e6


def chosen(calls):
    """The indexes of moments after the change was stored, evenly spread.

    The last of many are left out: how often the record of restarts is written depends on how many servers start at once.
    """
    first = calls.index("fdatasync") + 1
    count = len(calls) - first
    count -= 3 if count > 6 else 0
    assert count > 0, calls
    return sorted({first + number * (count - 1) // (MOMENTS - 1) for number in range(MOMENTS)})


def change_killed(command, text, moment):
    """Returns whether the agent was killed before the change was done."""
    before = router.main_pid(router.AGENT)
    calls = kill_moments.run(before, command, kill_before=moment, input=text)
    if calls[-1] != "killed":
        return False
    router.wait_until(lambda: router.main_pid(router.AGENT) not in (0, before), 30, "systemd starts the agent again")
    router.wait_for_agent()
    return True


@pytest.mark.parametrize("kind", KINDS)
def test_a_change_during_which_the_agent_is_killed_is_in_force_after_its_restart(servers, kind):
    there, back, restarts_all = KINDS[kind]
    expected = {}
    moments = {}
    for name, (command, text) in (("there", there), ("back", back)):
        moments[name] = chosen(kill_moments.run(router.main_pid(router.AGENT), command, input=text))
        expected[name] = machine()
        assert expected[name]["verify"] == "no differences\n"
    assert expected["there"] != expected["back"]

    for number in range(max(map(len, moments.values()))):
        for name, (command, text) in (("there", there), ("back", back)):
            moment = moments[name][min(number, len(moments[name]) - 1)]
            begun = time.monotonic()
            assert change_killed(command, text, moment), f"{name}, {moment}"
            assert differences(expected[name], machine()) == [], f"{name}, killed before call {moment}"
            assert not restarts_all or all(start_time(vrf) > begun for vrf in VRFS)

    at_rest = {vrf: router.main_pid(router.server_unit(vrf)) for vrf in running_vrfs()}
    router.restart_agent()
    assert {vrf: router.main_pid(router.server_unit(vrf)) for vrf in running_vrfs()} == at_rest
    assert differences(expected["back"], machine()) == [], "a restart at rest changes nothing"
