"""The installed system: units, set-up, generator, the agent's /tmp, and what survives the agent's various exits."""

import os
import pathlib
import re
import stat
import subprocess

import pytest
import router
from router import AGENT, AGENT_TMP, RUNTIME, run

SETUP = "/usr/libexec/ssh_cfg_agent/platform_setup"
GENERATOR = "/usr/lib/systemd/system-generators/ssh_cfg_agent_generator"
KEYS = ["ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp521", "ed25519", "rsa"]


def mode(path):
    return stat.S_IMODE(os.lstat(path).st_mode)


@pytest.mark.parametrize("unit", [AGENT, "ssh_cfg_platform.service", "ssh_cfg_mounts.service",
                                  "ssh_session_responder.service"])
def test_units_are_valid(unit):
    result = run("systemd-analyze", "verify", "--man=no", unit)
    assert (result.stdout + result.stderr).strip() == ""


@pytest.mark.parametrize(
    "unit, highest",
    [(AGENT, 4.0), ("ssh_cfg_platform.service", 3.0), ("ssh_cfg_mounts.service", 4.5),
     ("ssh_session_responder.service", 2.5)],
)
def test_units_are_exposed_no_more_than_they_need(unit, highest):
    result = run("systemd-analyze", "security", "--no-pager", unit)
    figure = float(re.search(r"Overall exposure level for \S+: ([0-9.]+)", result.stdout)[1])
    print(f"{unit}: {figure}")
    assert figure <= highest, result.stdout


@pytest.mark.parametrize("key", KEYS)
def test_host_keys_are_readable_only_by_root(key):
    assert mode(f"/pkg/{key}") == 0o600
    run("ssh-keygen", "-y", "-P", "", "-f", f"/pkg/{key}")
    assert not pathlib.Path("/pkg/dsa").exists()


def test_repeating_the_set_up_changes_nothing():
    def state():
        keys = {key: pathlib.Path("/pkg", key).read_bytes() for key in KEYS}
        mounts = pathlib.Path("/proc/self/mountinfo").read_text(encoding="utf-8")
        return keys, mounts, run("getent", "group", "sshcfg").stdout

    before = state()
    run(SETUP)
    assert state() == before


def test_set_up_replaces_a_key_file_without_content_and_a_name_without_a_namespace():
    keys = pathlib.Path("/pkg/ed25519"), pathlib.Path("/pkg/ed25519.pub")
    before = [key.read_bytes() for key in keys]
    try:
        keys[0].write_bytes(b"")
        run("umount", "/run/netns/vrf-default")
        run(SETUP)
        assert keys[0].stat().st_size > 0 and mode(keys[0]) == 0o600
        assert os.stat("/run/netns/vrf-default").st_ino == os.stat("/proc/1/ns/net").st_ino
    finally:
        for key, content in zip(keys, before):
            key.write_bytes(content)


def test_default_namespace_is_the_machines_own():
    assert os.stat("/run/netns/vrf-default").st_ino == os.stat("/proc/1/ns/net").st_ino


def test_shared_memory_folder_is_a_tmpfs():
    assert run("stat", "-f", "-c", "%T", "/dev/shmem").stdout.strip() == "tmpfs"


def test_control_socket_is_open_to_its_group_only():
    socket = RUNTIME / "control.sock"
    assert mode(socket) == 0o660
    assert os.stat(socket).st_gid == int(run("getent", "group", "sshcfg").stdout.split(":")[2])


def test_member_of_the_group_may_use_the_tool_and_others_may_not():
    as_operator = ["runuser", "-u", "operator", "--", "ssh_cfg_ctl", "status"]
    assert run(*as_operator, check=False).returncode == 3
    run("usermod", "--append", "--groups", "sshcfg", "operator")
    try:
        run(*as_operator)
    finally:
        run("gpasswd", "--delete", "operator", "sshcfg")


def test_agents_tmp_is_inaccessible_to_others():
    assert mode(AGENT_TMP) == 0o700 and os.stat(AGENT_TMP).st_uid == 0
    (AGENT_TMP / "seen").touch()
    try:
        names = run("nsenter", "--target", router.main_pid(AGENT), "--mount", "ls", "/tmp").stdout.split()
        assert "seen" in names
        assert not pathlib.Path("/tmp/seen").exists()
    finally:
        (AGENT_TMP / "seen").unlink()


RULE_FILES = pathlib.Path("/tmp/norvo-ssh")


def test_rule_files_are_at_their_paths():
    file = RULE_FILES / "access-list" / "seen.nft"
    agents = AGENT_TMP / "norvo-ssh" / "access-list" / "seen.nft"
    agents.touch()
    try:
        assert file.exists()
    finally:
        agents.unlink()
    for folder in (RULE_FILES, RULE_FILES / "access-list"):
        assert mode(folder) == 0o755 and os.stat(folder).st_uid == 0
    assert run("runuser", "-u", "operator", "--", "touch", file, check=False).returncode != 0
    assert run("runuser", "-u", "operator", "--", "mv", RULE_FILES, "/tmp/other", check=False).returncode != 0


@pytest.mark.parametrize("plant", [["mkdir", "-p", f"{RULE_FILES}/access-list"], ["ln", "-s", "/etc", RULE_FILES],
                                   ["touch", RULE_FILES], ["ln", "-s", "/nowhere", RULE_FILES]])
def test_files_planted_in_place_of_the_rule_files_are_moved_away(plant):
    run("umount", RULE_FILES)
    RULE_FILES.rmdir()
    before = sorted(os.listdir("/etc"))
    run("runuser", "-u", "operator", "--", *plant)
    run("/usr/libexec/ssh_cfg_agent/platform_setup")
    assert sorted(os.listdir("/etc")) == before
    test_rule_files_are_at_their_paths()
    moved = list(pathlib.Path("/tmp").glob("norvo-ssh.moved.*"))
    assert len(moved) == 1 and os.lstat(moved[0]).st_uid != 0
    run("rm", "-r", *moved)
    # Again, and with an empty folder of root's.
    run("umount", RULE_FILES)
    for _ in range(2):
        run("/usr/libexec/ssh_cfg_agent/platform_setup")
        test_rule_files_are_at_their_paths()
    assert not list(pathlib.Path("/tmp").glob("norvo-ssh.moved.*"))


def test_namespaces_attached_later_reach_the_agent(vrf):
    vrf("late")
    agent = ["nsenter", "--target", router.main_pid(AGENT), "--mount"]
    assert run(*agent, "stat", "-f", "-c", "%T", "/run/netns/vrf-late").stdout.strip() == "nsfs"
    router.delete_namespace("late")
    names = run(*agent, "ls", "/run/netns").stdout.split()
    assert "vrf-late" not in names
    assert "vrf-default" in names


def test_respawn_count_grows_with_failures_and_is_reset_by_a_clean_stop():
    router.restart_agent()
    assert router.respawn_count() == 1
    router.kill_agent()
    assert router.respawn_count() == 2
    router.kill_agent()
    assert router.respawn_count() == 3
    router.restart_agent()
    assert router.respawn_count() == 1


def test_agent_is_restarted_however_often_it_fails():
    for _ in range(7):
        router.kill_agent()
    router.restart_agent()


def test_generator_extends_only_the_servers_units(tmp_path):
    names = ["sshd_service_red.service", "sshd_service_a.b-c_d.service", "sshd_conf_red.conf", "other.service"]
    created = [router.UNITS / name for name in names if not (router.UNITS / name).exists()]
    for path in created:
        path.touch()
    try:
        run(GENERATOR, tmp_path, tmp_path, tmp_path)
        drop_ins = {str(path.relative_to(tmp_path)): path.read_text(encoding="utf-8") for path in tmp_path.glob("*/*")}
        expected = {}
        for vrf in ("red", "a.b-c_d", "default"):
            folder = f"{router.server_unit(vrf)}.d"
            expected[f"{folder}/start_limit.conf"] = "[Unit]\nStartLimitIntervalSec=0\n"
            expected[f"{folder}/10-readiness.conf"] = "[Service]\nType=notify\nTimeoutStartSec=20\n"
            expected[f"{folder}/limits.conf"] = f'[Service]\nExecStopPost=-/pkg/bin/sshd -e "vrf-{vrf}"\n'
        assert drop_ins == expected
    finally:
        for path in created:
            path.unlink()


def test_generator_that_cannot_write_does_not_fail_the_reload():
    assert subprocess.run([GENERATOR, "/nonexistent"], check=False, capture_output=True).returncode == 0


@pytest.mark.parametrize("page", ["man1/ssh_cfg_ctl.1", "man5/ssh_cfg_paths.5", "man7/ssh_cfg_trace.7",
                                  "man8/ssh_cfg_agent.8"])
def test_manual_pages_are_well_formed(page):
    result = run("groff", "-man", "-Tutf8", "-ww", "-z", f"/usr/share/man/{page}")
    assert result.stderr == ""


def test_manual_page_names_every_call_and_option_of_the_tool():
    summary = run("ssh_cfg_ctl", "--help").stdout
    page = pathlib.Path("/usr/share/man/man1/ssh_cfg_ctl.1").read_text(encoding="utf-8").replace("\\-", "-")
    words = [line.split()[0] for line in summary.splitlines() if line.startswith("  ")]
    assert {"set", "dump", "--json"} <= set(words)
    assert [word.strip(",") for word in words if word.strip(",") not in page] == []


def completions(*words, user="root", folder="/"):
    """Returns what bash offers for the last of these words after the tool's name."""
    script = """. /usr/share/bash-completion/completions/ssh_cfg_ctl
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
        _ssh_cfg_ctl
        printf '%s\\n' "${COMPREPLY[@]}" """
    return run("runuser", "-u", user, "--", "bash", "-c", script, "bash", "ssh_cfg_ctl", *words,
               cwd=folder).stdout.split()


def test_completion_offers_calls_and_options():
    summary = run("ssh_cfg_ctl", "--help").stdout
    calls = {line.split()[0] for line in summary.splitlines() if line.startswith("  ") and line[2].isalpha()}
    assert set(completions("")) == calls
    assert completions("--json", "ver") == ["verify"] and completions("--timeout", "5", "ver") == ["verify"]
    assert completions("--prog") == ["--progress"] and completions("status", "--js") == ["--json"]
    assert completions("acl", "sh") == ["show"] and completions("trace", "") == ["error", "event"]


def completions_of_zsh(*words):
    """Returns what zsh would offer for the last of these words after the tool's name."""
    script = """compadd() { while [[ $1 != -a ]]; do shift; done; print -l -- ${(P)2}; }
        _files() { print files; }
        words=("$@") CURRENT=$#
        . /usr/share/zsh/vendor-completions/_ssh_cfg_ctl"""
    return run("zsh", "-f", "-c", script, "zsh", "ssh_cfg_ctl", *words).stdout.split()


def test_completion_asks_the_agent_for_paths_and_lists(vrf, lists_and_wires):
    server = "/cfg/gl/crypto/ssh/server/"
    vrf("blue")
    run("ssh_cfg_ctl", "acl", "set", "--empty", "ipv4", "nobody", "-", input="")
    expected = {
        ("set", "/"): ["/access-lists/", "/cfg/", "/keys/"],
        ("set", server + "cmn/t"): [server + "cmn/tcp_window_scale", server + "cmn/timeout", server + "cmn/trustpoint/"],
        ("set", server + "sshd/vrf/bl"): [server + "sshd/vrf/blue"],
        ("set", "vrf/bl"): ["vrf/blue"],
        ("get", "tim"): ["timeout"],
        ("set", "fipsmode/value", ""): ["false", "true"],
        ("acl", "show", "ipv4", "no"): ["nobody"],
        ("debug", "cfg-a"): ["cfg-agent"],
        ("key", "import", "operat"): ["operator"],
        ("show", "session_xml/b"): ["session_xml/brief"],
    }
    for words, offered in expected.items():
        assert completions(*words) == offered
        assert sorted(completions_of_zsh(*words)) == offered
    assert completions_of_zsh("load", "") == ["files"]
    # Users who may not query the agent still get calls and options.
    assert completions("ver", user="operator") == ["verify"] and completions("get", "/", user="operator") == []


def test_completion_expands_no_names(tmp_path):
    """Otherwise the shell of an operator who presses Tab would run commands from the names of namespaces."""
    (tmp_path / "file").touch()
    names = ["$(touch made)", "`touch made`", "two words", "a;b", "*", "it's", "plain"]
    for name in names:
        run("ip", "netns", "add", "vrf-" + name)
    try:
        assert completions("vrf", "unblock", "", folder=tmp_path) == ["default", "plain"]
        assert completions_of_zsh("vrf", "unblock", "") == ["default", "plain"]
        assert completions("set", "vrf/", folder=tmp_path) == ["vrf/default", "vrf/plain"]
        assert [path.name for path in tmp_path.iterdir()] == ["file"]
    finally:
        for name in names:
            run("ip", "netns", "delete", "vrf-" + name)


def test_many_changes_in_a_row_leave_the_server_up(server):
    server("busy")
    for seconds in range(30, 70):
        router.set_item("cmn/timeout", seconds)
    assert router.is_active(router.server_unit("busy"))
    assert "LoginGraceTime 69" in router.server_lines("busy")
    router.wait_for_server("busy")
