"""Operational data as people and as scripts read it."""

import fcntl
import json
import os
import pty
import struct
import subprocess
import termios

import pytest
import router

BRIEF = "/oper/crypto-ssh/gl/session_xml/brief"
SESSION_TREES = ("/oper/crypto-ssh/gl/session_xml/", "/oper/crypto-ssh/gl/sshddata/", "/oper/crypto-ssh/client/")
PARAMETERS = "/oper/crypto-ssh/gl/server-params"
STATE = "/oper/overlays/gl/crypto_ssh/openconfig-system/"


def tool(*arguments, **options):
    """Runs the tool without --json, as people do."""
    return router.run("ssh_cfg_ctl", *arguments, check=False, **options)


def on_terminal(columns, *arguments):
    """The tool's output on a terminal with this many columns."""
    master, terminal = pty.openpty()
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
    environment = {name: value for name, value in os.environ.items() if name != "COLUMNS"}
    with subprocess.Popen(["ssh_cfg_ctl", *arguments], stdout=terminal, stderr=terminal, env=environment) as process:
        os.close(terminal)
        output = b""
        while True:
            try:
                chunk = os.read(master, 65536)
            except OSError:
                break
            if not chunk:
                break
            output += chunk
        process.wait(timeout=30)
    os.close(master)
    return output.decode().replace("\r\n", "\n")


def parameter_lines(**options):
    """The server parameters by label."""
    result = tool("show", PARAMETERS, **options)
    assert result.returncode == 0, result.stderr
    return dict(line.split(":", 1) for line in result.stdout.splitlines() if not line.startswith(" "))


@pytest.mark.parametrize("item", ["brief", "detail", "rekey"])
@pytest.mark.parametrize("tree", SESSION_TREES)
def test_the_absence_of_sessions_is_reported(tree, item):
    result = tool("show", tree + item)
    assert (result.returncode, result.stdout) == (4, "")
    assert result.stderr == f"ssh_cfg_ctl: {tree}{item}: no sessions\n"
    result = tool("--json", "show", tree + item)
    assert result.returncode == 4
    assert json.loads(result.stdout) == {"result": "no_data", "message": f"{tree}{item}: no sessions"}


def test_an_item_without_provider_has_no_data():
    for path in (SESSION_TREES[0] + "history", SESSION_TREES[0] + "history_detail", "/oper/nowhere", BRIEF + "er"):
        result = tool("show", path)
        assert result.returncode == 4
        assert "no sessions" not in result.stderr and path in result.stderr


def test_server_parameters_are_a_list():
    router.load({"cmn/timeout": 45, "cmn/rate_limit": 70, "cmn/session_limit": 12, "cmn/rekey_time": 30})
    lines = parameter_lines()
    assert lines["Protocol version"].strip() == "v2"
    assert lines["Rate limit"].strip() == "70 a minute"
    assert lines["Session limit"].strip() == "12"
    assert lines["Rekey time"].strip() == "30 minutes"
    assert lines["Password authentication"].strip() == "yes"
    assert lines["VRFs"].strip() == "-"


def test_each_vrf_of_the_server_parameters_has_a_line(server):
    server("red")
    server("blue")
    lines = tool("show", PARAMETERS).stdout.splitlines()
    red = next(line for line in lines if "vrfname:=red(" in line)
    blue = next(line for line in lines if "vrfname:=blue(" in line)
    assert red != blue and (red.startswith(" ") or blue.startswith(" "))


def test_json_uses_the_schemas_names():
    router.set_item("cmn/rate_limit", 70)
    record = router.ctl("show", PARAMETERS)
    assert record["Ratelimit"] == 70 and record["Version"] == "v2" and record["Passwordauthen"] is True
    state = router.ctl("show", STATE)
    assert state == {
        "SshServer": {
            "State": {"Enable": False, "ProtocolVersion": 0, "Timeout": 30, "RateLimit": 70, "SessionLimit": 64}
        }
    }


def test_the_state_of_telemetry_is_readable():
    assert tool("show", STATE).stdout == (
        "Enabled:           no\n"
        "Protocol version:  v2\n"
        "Timeout:           30 seconds\n"
        "Rate limit:        60 a minute\n"
        "Session limit:     64\n"
    )


@pytest.mark.parametrize("columns", [50, 80, 132, 250])
def test_lines_fit_the_terminal(columns):
    output = on_terminal(columns, "show", PARAMETERS)
    assert "Ciphers:" in output
    assert max(len(line) for line in output.splitlines()) <= columns


def test_lines_in_a_pipe_are_not_wrapped():
    result = tool("show", PARAMETERS)
    assert len(result.stdout.splitlines()) == len(router.ctl("show", PARAMETERS))
    narrow = tool("show", PARAMETERS, env={**os.environ, "COLUMNS": "60"})
    assert len(narrow.stdout.splitlines()) > len(result.stdout.splitlines())
    assert max(len(line) for line in narrow.stdout.splitlines()) <= 60
