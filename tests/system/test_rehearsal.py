"""Rehearsal of commits: what would not work is refused, what would happen is told, and nothing is touched meanwhile."""

import json
import os
import pathlib
import signal
import subprocess
import time

import kill_moments
import pytest
import router

TIMEOUT = router.SERVER + "cmn/timeout"
HOST_KEYS = router.SERVER + "cmn/algorithms/host-key"
# Host keys of certificates alone, which stock sshd has not.
X509_ALONE = [0, 0, 0, 0, 0, 1, 0, 0, 0, 0]
RULE_FILES = pathlib.Path("/tmp/norvo-ssh/access-list")
WRITTEN = [router.FILES, router.UNITS, pathlib.Path("/etc/pam.d"), RULE_FILES, router.RUNTIME, router.AGENT_TMP]
# A rehearsal cannot see the service manager's socket.
HANG = "[ -S /run/systemd/private ] || exec sleep 1000"


def tool(*arguments, **options):
    """Runs the tool without --json, as people do."""
    return router.run("ssh_cfg_ctl", *arguments, check=False, **options)


def files():
    """The content and inode of each file that the agent writes."""
    found = {}
    for folder in WRITTEN:
        for path in folder.iterdir() if folder.exists() else []:
            if path.is_file() and not path.is_symlink():
                found[str(path)] = (path.read_bytes(), path.stat().st_ino)
    motd = pathlib.Path("/etc/motd")
    found[str(motd)] = (motd.read_bytes() if motd.exists() else None, None)
    return found


def servers():
    """The main process of each VRF's server that runs."""
    vrfs = [name.removeprefix("vrf-") for name in router.namespaces()]
    return {vrf: pid for vrf in vrfs if (pid := router.main_pid(router.server_unit(vrf))) != 0}


def rules():
    """The packet filter of each VRF, without its counters."""
    return {name: router.run("ip", "netns", "exec", name, "nft", "-s", "list", "ruleset").stdout
            for name in router.namespaces()}


def machine():
    return files(), servers(), rules(), router.configuration()


def load_file(tmp_path, items):
    file = tmp_path / "items.json"
    file.write_text(json.dumps({router.SERVER + path: value for path, value in items.items()}), encoding="utf-8")
    return file


def changed_files(before, after):
    """Like the files of a rehearsal: those that operators know, without their inodes."""
    outcomes = {}
    known = [str(router.FILES) + "/", str(router.UNITS) + "/", str(RULE_FILES) + "/", "/etc/"]
    for path in before.keys() | after.keys():
        old, new = before.get(path, (None,))[0], after.get(path, (None,))[0]
        if old != new and any(path.startswith(folder) for folder in known) and not path.endswith("temp_sshd_config"):
            outcomes[path] = "created" if old is None else "deleted" if new is None else "changed"
    return outcomes


def changed_servers(before, after):
    outcomes = {}
    for vrf in before.keys() | after.keys():
        if before.get(vrf) != after.get(vrf):
            outcomes[vrf] = "started" if vrf not in before else "stopped" if vrf not in after else "restarted"
    return outcomes


def test_a_setting_with_which_sshd_would_not_start_is_refused(server, journal):
    server("red")
    router.set_item("cmn/timeout", 45)
    before = machine()
    result = tool("set", HOST_KEYS, json.dumps(X509_ALONE))
    assert result.returncode == 5
    assert f"{HOST_KEYS}: sshd would reject {router.server_file('red')}: " in result.stderr
    assert "HostKeyAlgorithms: the list is empty" in result.stderr
    assert "nothing has been stored" in result.stderr
    assert tool("get", HOST_KEYS).returncode == 4
    assert machine() == before
    assert any("call:=set, result:=refused" in line and "sshd would reject" in line
               for line in journal.messages(router.AGENT))
    assert tool("verify").returncode == 0

    # Refused as a whole, and without a server as well: the next server would be made from the default file.
    router.delete_item("sshd/vrf/red")
    before = machine()
    result = router.load({"cmn/timeout": 46, HOST_KEYS: X509_ALONE}, check=False)
    assert result.returncode == 5
    assert machine() == before


def test_a_check_tells_exactly_what_the_load_then_does(server, vrf, tmp_path):
    for name in ("keep", "gone"):
        server(name)
    vrf("new")
    file = load_file(tmp_path, {"cmn/timeout": 50, "sshd/vrf/new": router.OPEN, "sshd/vrf/gone": None})
    before = machine()
    checked = router.ctl("load", "--check", file)
    text = tool("load", "--check", file)
    assert machine() == before
    rehearsed = checked["rehearsal"]
    assert rehearsed["vrfs"] == ["gone", "keep", "new"]

    assert tool("load", file).returncode == 0
    router.wait_for_server("new")
    after = machine()
    assert {one["path"]: one["outcome"] for one in rehearsed["files"]} == changed_files(before[0], after[0])
    assert {one["vrf"]: one["outcome"] for one in rehearsed["servers"]} == changed_servers(before[1], after[1])
    assert changed_servers(before[1], after[1]) == {"gone": "stopped", "keep": "restarted", "new": "started"}

    assert text.returncode == 0
    lines = [" ".join(line.split()) for line in text.stdout.splitlines()]
    assert f"file changed {router.server_file('keep')}" in lines
    assert f"file deleted {router.server_file('gone')}" in lines
    assert "server started new" in lines and "server stopped gone" in lines
    assert "VRFs concerned: gone, keep, new" in lines

    # Once more: nothing is left to do.
    again = router.ctl("load", "--check", load_file(tmp_path, {"cmn/timeout": 50}))
    assert "rehearsal" not in again


def test_a_check_refuses_what_the_load_would_refuse(server, tmp_path):
    server("red")
    file = load_file(tmp_path, {"cmn/algorithms/host-key": X509_ALONE})
    for options in (["--check"], []):
        result = tool("load", *options, file)
        assert result.returncode == 5
        assert "sshd would reject" in result.stderr
    assert not [path for path in router.configuration() if "host-key" in path]


def test_a_router_that_is_already_broken_stays_configurable(server, sshd_script, tmp_path):
    server("red")
    stop = sshd_script('case "$*" in *-t*) echo "out of order" >&2; exit 255 ;; esac')
    checked = tool("load", "--check", load_file(tmp_path, {"cmn/timeout": 47}))
    assert checked.returncode == 0
    assert "the present file is rejected as well" in checked.stderr and "out of order" in checked.stderr
    assert tool("set", TIMEOUT, "47").returncode == 6
    assert tool("get", TIMEOUT).stdout == "47\n"
    stop()
    assert tool("set", TIMEOUT, "48").returncode == 0
    router.wait_for_server("red")


def hanging_processes():
    """The processes of a rehearsal whose sshd hangs."""
    return [int(pid) for pid in router.run("pgrep", "-f", "^sleep 1000$", check=False).stdout.split()]


def rehearsal_mounts():
    """Processes that see the private folders of a rehearsal."""
    seen = []
    for process in pathlib.Path("/proc").iterdir():
        try:
            if process.name.isdigit() and " rehearsal " in (process / "mountinfo").read_text(encoding="utf-8"):
                seen.append(process.name)
        except OSError:
            pass
    return seen


@pytest.fixture
def hanging_change(server, sshd_script):
    """A change whose rehearsal hangs: the process of the tool that asks for it."""
    server("red")
    stop = sshd_script(HANG)
    before = machine()
    change = subprocess.Popen(["ssh_cfg_ctl", "set", TIMEOUT, "49"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True)
    router.wait_until(hanging_processes, 15, "sshd hangs")
    yield change, before
    stop()
    change.kill()
    change.communicate()
    for pid in hanging_processes():
        os.kill(pid, signal.SIGKILL)


def test_a_rehearsal_dies_with_the_agent_and_leaves_nothing(hanging_change):
    change, before = hanging_change
    assert rehearsal_mounts(), "otherwise the test below proves nothing"
    mounts = pathlib.Path("/proc/self/mountinfo").read_text(encoding="utf-8")
    os.kill(router.main_pid(router.AGENT), signal.SIGKILL)
    router.wait_until(lambda: not hanging_processes() and not rehearsal_mounts(), 5, "the rehearsal ends")
    assert pathlib.Path("/proc/self/mountinfo").read_text(encoding="utf-8") == mounts
    assert change.wait(10) != 0
    router.wait_for_agent()
    assert tool("get", TIMEOUT).returncode == 4
    after = machine()
    # The next agent asks for the state of the servers, with this file.
    assert after[0].keys() - before[0].keys() <= {str(router.AGENT_TMP / "norvo_ssh_service.txt")}
    assert before[0].keys() <= after[0].keys()
    assert after[1:] == before[1:]
    for path in (router.server_file("red"), router.UNITS / router.server_unit("red"), "/etc/motd"):
        assert after[0][str(path)][0] == before[0][str(path)][0]
    assert "LoginGraceTime 49" not in router.server_lines()


def test_a_rehearsal_that_hangs_is_cut_and_the_change_carried_out(hanging_change):
    change, _ = hanging_change
    begun = time.monotonic()
    _, words = change.communicate(timeout=60)
    assert time.monotonic() - begun < 20
    assert change.returncode == 0
    assert "the change was not rehearsed before it was stored: it did not end within 10 seconds" in words
    assert tool("get", TIMEOUT).stdout == "49\n"
    assert not rehearsal_mounts()


def rehearsing_agent():
    """The pid of the agent's copy, which is the first process of its namespace."""
    for process in rehearsal_mounts():
        status = pathlib.Path(f"/proc/{process}/status").read_text(encoding="utf-8")
        if next(line for line in status.splitlines() if line.startswith("NSpid:")).split()[1:][1:] == ["1"]:
            return int(process)
    raise AssertionError("no rehearsal")


def test_a_change_with_which_the_agent_would_crash_is_refused(hanging_change, journal):
    change, before = hanging_change
    agent = router.main_pid(router.AGENT)
    kill_moments.crash(rehearsing_agent())
    _, words = change.communicate(timeout=60)
    assert change.returncode == 5
    assert f"{TIMEOUT}: this change would crash the agent (signal 11, Segmentation fault); nothing has been stored" in words
    assert tool("get", TIMEOUT).returncode == 4
    assert router.main_pid(router.AGENT) == agent
    assert not rehearsal_mounts() and not hanging_processes()
    assert machine() == before
    assert any("call:=set, result:=refused" in line and "would crash the agent" in line
               for line in journal.messages(router.AGENT))


def test_a_change_is_carried_out_if_its_rehearsal_is_killed(hanging_change):
    change, _ = hanging_change
    os.kill(rehearsing_agent(), signal.SIGKILL)
    _, words = change.communicate(timeout=60)
    assert change.returncode == 0
    assert "the change was not rehearsed before it was stored: it ended without a result" in words
    assert tool("get", TIMEOUT).stdout == "49\n"


def test_a_refusal_names_the_files_of_all_vrfs(server):
    for name in ("red", "blue", "green"):
        server(name)
    server("green", "vrf-netconf", 830)
    result = tool("set", HOST_KEYS, json.dumps(X509_ALONE))
    assert result.returncode == 5
    assert f"sshd would reject {router.server_file('blue')}: " in result.stderr
    assert "(also sshd_config_red, sshd_config_green); nothing has been stored" in result.stderr


def test_an_ordinary_user_sees_nothing_of_a_rehearsal(hanging_change):
    [process, *_] = rehearsal_mounts()
    root = f"/proc/{process}/root"
    for command in (["ls", f"{root}/tmp"], ["cat", f"{root}{router.FILES}/sshd_config"],
                    ["touch", f"{root}/tmp/planted"], ["kill", "-9", process]):
        result = router.run("runuser", "-u", "operator", "--", *command, check=False)
        assert result.returncode != 0, command
    assert router.run("ls", root).returncode == 0, "root sees it"
    assert hanging_processes()


def test_an_access_list_is_not_loaded_by_a_rehearsal(server, tmp_path):
    server("red")
    router.run("ssh_cfg_ctl", "acl", "set", "ipv4", "ops", "-", input="10 permit tcp any any eq 22\n")
    file = load_file(tmp_path, {"sshd/vrf/red": [None, "ops", None]})
    before = machine()
    rehearsed = router.ctl("load", "--check", file)["rehearsal"]
    assert machine() == before
    assert rehearsed["vrfs"] == ["red"]
    assert any("norvossh_acl_ssh" in one["path"] or "nft" in one["path"] for one in rehearsed["files"])


def test_many_changes_do_not_make_the_agent_grow(server):
    server("red")

    def size():
        status = pathlib.Path(f"/proc/{router.main_pid(router.AGENT)}/status").read_text(encoding="utf-8")
        return int(next(line.split()[1] for line in status.splitlines() if line.startswith("RssAnon:")))

    def check(count):
        items = json.dumps({TIMEOUT: 33})
        for _ in range(count):
            router.run("ssh_cfg_ctl", "load", "--check", "-", input=items)

    check(20)
    before = size()
    check(60)
    assert size() - before < 200, "kilobytes"
