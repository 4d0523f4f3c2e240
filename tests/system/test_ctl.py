"""The operator's tool with a running agent: every call, every exit status, access control, the audit trail."""

import json
import os
import re
import signal
import subprocess

import pytest
import router

TIMEOUT = router.SERVER + "cmn/timeout"
SOCKET = router.RUNTIME / "control.sock"


def tool(*arguments, **options):
    """Runs the tool without --json, as people do."""
    return router.run("ssh_cfg_ctl", *arguments, check=False, **options)


@pytest.fixture
def stopped_agent():
    """The agent's process, stopped during the test."""
    agent = router.main_pid(router.AGENT)
    os.kill(agent, signal.SIGSTOP)
    yield agent
    # The test may have ended it.
    if router.main_pid(router.AGENT) == agent:
        os.kill(agent, signal.SIGCONT)


def test_a_value_is_shown_in_the_notation_of_set():
    values = {
        "cmn/timeout": "45",
        "cmn/logging": "true",
        "sshd/vrf/red": '[null,"v4",null]',
        "cmn/rekey_volume": "512",
    }
    for path, value in values.items():
        assert tool("set", router.SERVER + path, value).returncode == 0
        assert tool("get", router.SERVER + path).stdout == value + "\n"


def test_a_tuple_can_be_set_by_field_names():
    router.set_item("sshd/vrf/red", {"ipv6_acl": "six"})
    assert tool("get", router.SERVER + "sshd/vrf/red").stdout == '[null,null,"six"]\n'


def test_a_bare_word_is_text():
    path = router.CLIENT + "source"
    assert tool("set", path, "Loopback0").returncode == 0
    assert tool("get", path).stdout == '"Loopback0"\n'


def test_a_change_is_silent_and_takes_effect():
    result = tool("set", TIMEOUT, "45")
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    assert "LoginGraceTime 45" in router.server_lines()
    result = tool("delete", TIMEOUT)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    assert "LoginGraceTime 30" in router.server_lines()


def test_a_path_may_be_given_by_its_end():
    result = tool("set", "timeout", "45")
    assert (result.returncode, result.stdout, result.stderr) == (0, f"created  {TIMEOUT}\n", "")
    assert tool("get", "timeout").stdout == "45\n"
    assert tool("set", "vrf/red").stdout == f"created  {router.SERVER}sshd/vrf/red\n"
    assert tool("get", "vrf/red").stdout == "[null,null,null]\n"
    ambiguous = tool("set", "dscp", "10")
    assert (ambiguous.returncode, ambiguous.stdout) == (2, "")
    assert ambiguous.stderr.splitlines()[1:] == [f"ssh_cfg_ctl: {router.CLIENT}dscp",
                                                 f"ssh_cfg_ctl: {router.SERVER}cmn/dscp"]
    assert tool("show", "server-params").stdout.startswith("Protocol version")
    assert tool("show", "session_xml/brief").stderr == \
        "ssh_cfg_ctl: /oper/crypto-ssh/gl/session_xml/brief: no sessions\n"
    assert tool("list", "aaa/username").returncode == 0
    assert tool("delete", "vrf/red").stdout == f"deleted  {router.SERVER}sshd/vrf/red\n"


def test_help_explains_items():
    router.set_item("cmn/timeout", 45)
    text = tool("help", "timeout").stdout
    assert text.splitlines()[:2] == [TIMEOUT, "Login grace time"]
    assert re.search(r"Value: +a number from 5 to 120\n +Unit: +seconds\n +Default: +30\n +Now: +45\n", text)
    assert tool("help", "login", "grace").stdout == text
    assert re.search(r"^cmn/rekey_time +Minutes between rekeys$", tool("help", "rekey").stdout, re.MULTILINE)
    assert tool("help", "server-params").stdout.startswith("/oper/crypto-ssh/gl/server-params\n")
    assert re.search(r"^timeout +45 +Login grace time\ntrustpoint/ +- *\n",
                     tool("list", "--all", "server/cmn").stdout, re.MULTILINE)
    assert tool("help", "nonsense").returncode == 4


def test_list_names_the_children():
    router.load({"cmn/timeout": 45, "cmn/dscp": 46, "sshd/vrf/red": router.OPEN})
    assert tool("list", router.SERVER).stdout == "cmn\nsshd\n"
    assert tool("list", router.SERVER + "cmn/").stdout == "dscp\ntimeout\n"
    assert tool("list", "/").stdout == "cfg\n"


def test_a_dump_can_be_loaded():
    router.load({"cmn/timeout": 45, "sshd/vrf/red": [None, "four", None], "cmn/logging": True})
    dump = tool("dump").stdout
    before = router.configuration()
    assert json.loads(dump) == before and len(before) == 3
    assert tool("delete", "/").returncode == 0
    assert tool("dump").stdout == "{}\n"
    result = tool("load", "-", input=dump)
    assert (result.returncode, result.stdout) == (0, "3 created\n")
    assert router.configuration() == before
    assert tool("load", "-", input=dump).stdout == "3 unchanged\n"


def test_load_is_one_commit(tmp_path):
    router.set_item("cmn/timeout", 45)
    file = tmp_path / "items.json"
    file.write_text(json.dumps({TIMEOUT: None, router.SERVER + "cmn/dscp": 46}), encoding="utf-8")
    check = tool("load", "--check", file)
    assert check.returncode == 0
    assert f"created  {router.SERVER}cmn/dscp\n" in check.stdout and f"deleted  {TIMEOUT}\n" in check.stdout
    assert router.configuration() == {TIMEOUT: 45}
    assert tool("load", file).stdout == "1 created, 1 deleted\n"
    assert router.configuration() == {router.SERVER + "cmn/dscp": 46}


def test_a_thousand_items_in_one_file():
    items = {f"{router.SERVER}sshd/vrf/vrf{number}": router.OPEN for number in range(1000)}
    result = tool("load", "--check", "-", input=json.dumps(items))
    # Whether or not this build serves the item, the answer must be complete and prompt.
    assert result.returncode in (0, 5), result.stderr
    assert result.stdout.count(f"created  {router.SERVER}") == 1000 or "not supported" in result.stderr


def test_exit_statuses():
    assert tool("set", TIMEOUT, "45").returncode == 0
    assert tool("load", "/nowhere/at/all").returncode == 1
    assert tool("lod", "x").returncode == 2
    assert "did you mean 'load'" in tool("lod", "x").stderr
    assert tool("set", TIMEOUT).returncode == 2
    assert tool("--socket", "/nowhere", "status").returncode == 3
    assert tool("get", router.SERVER + "cmn/dscp").returncode == 4
    assert tool("delete", router.SERVER + "cmn/dscp").returncode == 4
    assert tool("list", "/nowhere").returncode == 4
    assert tool("show", "/oper/nowhere").returncode == 4
    assert tool("set", TIMEOUT, "500").returncode == 5


def test_every_answer_can_be_json():
    for arguments in (
        ("get", router.SERVER + "cmn/dscp"),
        ("set", TIMEOUT, "500"),
        ("lod",),
        ("load", "/nowhere"),
        ("set", TIMEOUT, "45"),
        ("delete", TIMEOUT),
        ("list", "/"),
        ("dump",),
        ("vrf", "list"),
        ("debug",),
        ("trace", "event"),
        ("status",),
    ):
        result = tool("--json", *arguments)
        answer = json.loads(result.stdout)
        if result.returncode != 0:
            assert answer["message"] in result.stderr.replace("\nssh_cfg_ctl: ", "\n")
            assert answer["result"] != "done"


def test_status_shows_the_process_and_its_vrfs(server):
    server("red")
    status = router.ctl("status")
    assert status["pid"] == router.main_pid(router.AGENT)
    assert status["role"] == "primary" and status["ready"] is True and status["respawn_count"] >= 1
    red = {vrf["name"]: vrf for vrf in status["vrfs"]}["red"]
    assert red["namespace"] is True and red["services"] == ["ssh"] and red["blocked"] is False
    text = tool("status").stdout
    assert f"pid:            {status['pid']}\n" in text and "\nred " in text


def test_vrf_list_follows_the_namespaces(vrf):
    vrf("red")
    assert {item["name"] for item in router.ctl("vrf", "list")} >= {"default", "red"}
    assert {item["name"]: item for item in router.ctl("vrf", "list")}["red"]["namespace"] is True


def test_debug_flags_are_switched(journal):
    assert tool("debug", "cfg-agent", "on").returncode == 0
    assert {flag["name"]: flag["on"] for flag in router.ctl("debug")}["cfg-agent"] is True
    router.set_item("cmn/timeout", 45)
    assert any("Config:=ssh timeout" in message for message in journal.messages())
    assert tool("debug", "cfg-agent", "off").returncode == 0
    assert {flag["name"]: flag["on"] for flag in router.ctl("debug")}["cfg-agent"] is False
    unknown = tool("debug", "cfg-agnet", "on")
    assert unknown.returncode == 5 and "cfg-agent" in unknown.stderr
    assert tool("debug", "cfg-agent", "maybe").returncode == 2


def test_debug_levels_reach_the_servers_file():
    tool("debug", "server-l2", "on")
    assert "LogLevel DEBUG2" in router.server_lines()
    tool("debug", "server-l2", "off")
    assert not any(line.startswith("LogLevel") for line in router.server_lines())


def test_traces_grow_with_events():
    before = router.ctl("trace", "event")
    router.set_item("cmn/timeout", 45)
    after = router.ctl("trace", "event")
    assert after != before and after[-1]["time"] >= after[0]["time"]
    assert tool("trace", "event").stdout.count("\n") == len(router.ctl("trace", "event"))
    assert tool("trace", "errors").returncode == 2


def test_traces_have_names_and_labels():
    router.set_item("cmn/timeout", 46)
    entry = next(e for e in reversed(router.ctl("trace", "event")) if e["name"] == "appliers.timeout")
    assert (entry["point"], entry["arguments"]["value"]) == (0x402, "46")
    assert re.search(r'Z  appliers\.timeout  event \d, value "46"\n', tool("trace", "event").stdout)


def test_the_audit_names_user_process_call_and_result(journal):
    router.set_item("cmn/timeout", 45)
    tool("set", TIMEOUT, "500")
    tool("get", TIMEOUT)
    lines = [message for message in journal.messages() if message.startswith("Control: ")]
    assert len(lines) == 2
    assert "uid:=0, " in lines[0] and f"call:=set, result:=done, created {TIMEOUT}" in lines[0]
    assert "call:=set, result:=refused, " in lines[1] and "500 is out of range" in lines[1]
    fields = [entry for entry in journal.entries() if entry["MESSAGE"] == lines[0]][0]
    assert fields["SSH_CFG_UID"] == "0" and fields["SSH_CFG_CALL"] == "set" and fields["SSH_CFG_RESULT"] == "done"


def test_only_root_and_the_group_may_use_it(journal):
    status = os.stat(SOCKET)
    assert status.st_mode & 0o777 == 0o660 and status.st_uid == 0
    stranger = router.run("runuser", "-u", "operator", "--", "ssh_cfg_ctl", "status", check=False)
    assert stranger.returncode == 3 and "permission denied; be root or a member of the group sshcfg" in stranger.stderr
    with router.member_of("operator", "sshcfg", "sshcfg-admin"):
        member = router.run("runuser", "-u", "operator", "--", "ssh_cfg_ctl", "set", TIMEOUT, "46")
        assert member.returncode == 0
    uid = router.run("id", "--user", "operator").stdout.strip()
    assert any(f"Control: uid:={uid}, " in message for message in journal.messages())


def test_permissions_of_the_socket_alone_admit_no_other_user(journal):
    os.chmod(SOCKET, 0o666)
    try:
        stranger = router.run("runuser", "-u", "operator", "--", "ssh_cfg_ctl", "dump", check=False)
    finally:
        os.chmod(SOCKET, 0o660)
    assert stranger.returncode == 1 and stranger.stdout == ""
    assert "only root and members of the group sshcfg" in stranger.stderr
    assert any("Control connection refused: uid:=" in message for message in journal.messages())


def test_a_missing_agent_is_reported():
    router.run("systemctl", "stop", router.AGENT)
    result = tool("status")
    assert result.returncode == 3 and "systemctl status ssh_cfg_agent" in result.stderr


def test_an_early_call_waits_for_the_agent(stopped_agent):
    waiting = subprocess.Popen(["ssh_cfg_ctl", "--json", "status"], stdout=subprocess.PIPE, text=True)
    with pytest.raises(subprocess.TimeoutExpired):
        waiting.wait(1)
    os.kill(stopped_agent, signal.SIGCONT)
    output, _ = waiting.communicate(timeout=20)
    assert waiting.returncode == 0 and json.loads(output)["pid"] == stopped_agent


def test_the_wait_is_limited(stopped_agent):
    result = tool("--timeout", "1", "set", TIMEOUT, "45")
    assert result.returncode == 3 and "did not answer within 1 seconds" in result.stderr


def test_an_agent_that_dies_in_the_middle_of_a_call(stopped_agent):
    call = subprocess.Popen(
        ["ssh_cfg_ctl", "set", TIMEOUT, "45"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
    )
    with pytest.raises(subprocess.TimeoutExpired):
        call.wait(0.5)
    os.kill(stopped_agent, signal.SIGKILL)
    _, errors = call.communicate(timeout=20)
    assert call.returncode == 3 and "closed the connection before answering" in errors
    router.wait_for_agent()


def test_a_reader_that_exits_does_no_harm():
    router.load({"cmn/timeout": 45, "cmn/dscp": 46})
    assert router.run("bash", "-c", "ssh_cfg_ctl dump | head -c 1").stdout == "{"
    full = router.run("bash", "-c", "ssh_cfg_ctl dump > /dev/full", check=False)
    assert full.returncode == 1 and "No space left on device" in full.stderr


def test_the_answer_arrives_when_the_port_is_open(server):
    server("red")
    for timeout in (40, 41, 42):
        router.set_item("cmn/timeout", timeout)
        red = {vrf["name"]: vrf for vrf in router.ctl("vrf", "list")}["red"]
        assert red["blocked"] is False


def test_an_item_without_effect_is_reported_and_shown():
    reason = "the kernel chooses the TCP window"
    path = router.SERVER + "cmn/tcp_window_scale"
    result = router.run("ssh_cfg_ctl", "set", path, "7")
    assert result.stderr == f"ssh_cfg_ctl: warning: {path}: stored, not carried out on this machine: {reason}\n"
    answer = router.load({"cmn/tcp_window_scale": 8, "cmn/trustpoint/host": "corp-ca", "cmn/timeout": 45})
    assert [text.split(":")[0] for text in answer["warnings"]] == [path, router.SERVER + "cmn/trustpoint/host"]
    assert {"path": path, "reason": reason} in router.ctl("status")["not_carried_out"]
    assert f"\nStored, not carried out on this machine:\n{path}: {reason}\n" in router.run("ssh_cfg_ctl", "status").stdout
    router.delete_item("cmn/tcp_window_scale")
    assert [item["path"] for item in router.ctl("status")["not_carried_out"]] == [router.SERVER + "cmn/trustpoint/host"]
