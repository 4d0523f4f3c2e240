"""When a call returns, the servers that it restarted answer on their ports."""

import json
import sys

import pytest
import router

# Runs in the VRF's namespace, so that only the call itself happens between two connections.
PROBE = """
import json, socket, subprocess, sys
answers = []
for path, value in json.loads(sys.argv[1]):
    subprocess.run(["ssh_cfg_ctl", "set", path, json.dumps(value)], check=True, timeout=60)
    try:
        with socket.create_connection(("127.0.0.1", 22), timeout=5) as connection:
            answers.append(connection.recv(8).decode())
    except OSError as error:
        answers.append(str(error))
print(json.dumps(answers))
"""


def answers_after(vrf, *changes):
    """The answer of the VRF's port directly after each change."""
    changes = [(router.SERVER + path, value) for path, value in changes]
    return json.loads(router.in_vrf(vrf, sys.executable, "-B", "-c", PROBE, json.dumps(changes), timeout=120).stdout)


@pytest.mark.parametrize("probed", ["red", "blue"])
def test_a_port_answers_directly_after_each_setting(server, probed):
    server("red")
    server("blue")
    changes = [("cmn/timeout", seconds) for seconds in range(31, 41)]
    assert answers_after(probed, *changes) == ["SSH-2.0-"] * len(changes)


def test_a_port_answers_directly_after_its_item_is_set(vrf):
    assert answers_after(vrf("red"), ("sshd/vrf/red", router.OPEN)) == ["SSH-2.0-"]


def test_a_server_that_does_not_listen_has_not_started(server):
    server("red")
    drop_in = router.UNITS / f"{router.server_unit('red')}.d" / "silent.conf"
    drop_in.parent.mkdir()
    try:
        drop_in.write_text("[Service]\nExecStart=\nExecStart=/bin/sh -c 'sleep 0.2; exit 1'\n")
        router.run("systemctl", "daemon-reload")
        result = router.set_item("cmn/timeout", 45, check=False)
    finally:
        drop_in.unlink()
        drop_in.parent.rmdir()
        router.run("systemctl", "daemon-reload")
    assert result.returncode == 6
    assert "server red: systemctl restart sshd_service_red failed" in result.stderr
