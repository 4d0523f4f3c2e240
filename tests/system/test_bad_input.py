"""Input that must not be stored, change a file, run in a shell or block the agent for others."""

import json
import os
import pathlib
import socket
import struct
import subprocess
import time

import pytest
import router

SOCKET = str(router.RUNTIME / "control.sock")
FRAME_MAX = 16 * 1024 * 1024
VRF = router.SERVER + "sshd/vrf/"
TIMEOUT = router.SERVER + "cmn/timeout"


def files_of_the_router():
    """Every file that a change could modify, with its modification time."""
    places = [router.FILES, router.UNITS, router.AGENT_TMP, pathlib.Path("/etc/pam.d")]
    return {path: path.lstat().st_mtime_ns for place in places for path in place.rglob("*")}


def expect_refused(path, value, *named):
    """The tool exits with 5 and names path, value and what is allowed; nothing is stored and no file changed."""
    before = files_of_the_router()
    result = router.run("ssh_cfg_ctl", "set", path, value, check=False)
    assert result.returncode == 5, (path, value, result)
    assert result.stdout == ""
    for text in named:
        assert text in result.stderr, (text, result.stderr)
    assert router.configuration() == {}
    assert files_of_the_router() == before


@pytest.mark.parametrize(
    "path, value, named",
    [
        ("cmn/timeot", "30", ["cmn/timeot", "cmn/timeout"]),
        ("cmn/timeout", "soon", ["cmn/timeout", '"soon"', "a number from 5 to 120"]),
        ("cmn/timeout", "true", ["cmn/timeout", "true", "a number from 5 to 120"]),
        ("cmn/timeout", "[30]", ["cmn/timeout", "[30]", "a number from 5 to 120"]),
        ("cmn/timeout", "null", ["cmn/timeout", "null", "a number from 5 to 120"]),
        ("cmn/timeout", "4", ["cmn/timeout", "4 is out of range", "from 5 to 120"]),
        ("cmn/timeout", "121", ["121 is out of range"]),
        ("cmn/timeout", "-1", ["-1 is out of range"]),
        ("cmn/timeout", "30.5", ["30.5 is not a whole number"]),
        ("cmn/timeout", "99999999999999999999", ["99999999999999999999 is out of range", "from 5 to 120"]),
        ("cmn/logging", "maybe", ["cmn/logging", '"maybe"']),
        ("cmn/port_forwarding", "2", ["2 is out of range", "from 0 to 1"]),
        ("sshd/vrf/red", "[null,", ["sshd/vrf/red", "not JSON"]),
        ("sshd/vrf/red", '[null,"a;b"]', ["field 2 (ipv4_acl)", "a;b"]),
        pytest.param("sshd/vrf/red", '[null,"' + "x" * 65 + '"]', ["too long", "1 to 64"], id="long"),
        ("sshd/vrf/red", '{"ipv4":"x"}', ['unknown field "ipv4"', "ipv4_acl"]),
        ("sshd/vrf/red", '{"ipv4_acl":"x","ipv4_acl":"y"}', ['duplicate name "ipv4_acl"']),
        ("sshd/vrf/red", "[1,null,null,1]", ["too many fields"]),
    ],
)
def test_values_outside_their_form(path, value, named):
    expect_refused(router.SERVER + path, value, *named)


@pytest.mark.parametrize("value", ["a\nb", "a\tb", "a\x1b[2Jb", pytest.param("x" * 201, id="long")])
def test_texts_that_would_break_a_line(value):
    expect_refused(router.CLIENT + "host_pubkey", value, "host_pubkey", "1 to 200")


@pytest.mark.parametrize("path", ["", "/", "mn/timeout", "/cfg/../etc/passwd", "/cfg/gl/crypto/ssh/server/cmn", "//", "é"])
def test_invalid_paths(path):
    expect_refused(path, "30", path)


@pytest.mark.parametrize(
    "name",
    [
        "a b",
        "a/b",
        "a'b",
        'a"b',
        "a;touch /tmp/canary",
        "$(touch /tmp/canary)",
        "`touch /tmp/canary`",
        "a|b",
        "a&b",
        "a>b",
        "a\nb",
        "a\\b",
        "*",
        "-a",
        ".a",
        "..",
        "é",
        "x" * 33,
    ],
)
@pytest.mark.parametrize("item", ["vrf", "vrf-netconf"])
def test_hostile_vrf_names(name, item):
    expect_refused(f"{router.SERVER}sshd/{item}/{name}", "[null,null,null]", f"sshd/{item}/")
    assert not pathlib.Path("/tmp/canary").exists() and not (router.AGENT_TMP / "canary").exists()


def test_a_name_of_32_characters_is_valid():
    router.set_item("sshd/vrf/" + "x" * 32, router.OPEN)
    assert list(router.configuration()) == [VRF + "x" * 32]


def test_a_namespace_with_a_hostile_name_is_not_a_vrf(vrf):
    # `ip netns` accepts nearly any name.
    hostile = "vrf-a;touch canary"
    router.run("ip", "netns", "add", hostile)
    try:
        router.set_item("sshd/vrf/good", router.OPEN)
        vrf("good")
        router.wait_for_server("good")
        assert "good" in {item["name"] for item in router.ctl("vrf", "list")}
        assert not any("canary" in str(path) for path in files_of_the_router())
    finally:
        router.run("ip", "netns", "del", hostile)


@pytest.mark.parametrize(
    "content, named",
    [
        (b"", "not JSON"),
        (b"{", "line 1, column 2"),
        (b'{"/a": 1,\n "/b" 2}', "line 2"),
        (b"[]", "one JSON object"),
        (b'{"%s": 30, "%s": 40}' % (TIMEOUT.encode(), TIMEOUT.encode()), f"{TIMEOUT}: duplicate name, already used in line 1, column 2"),
        (b'{"%s": \xff}' % TIMEOUT.encode(), "not JSON"),
        (b'{"\xff": 1}', "UTF-8"),
        (b"{}\0{}", "NUL"),
        pytest.param(b"[" * 100000, "more than 16 levels deep", id="deep"),
        pytest.param(b'{"x": "' + b"x" * FRAME_MAX + b'"}', "larger than 16 MiB", id="large"),
        (json.dumps({TIMEOUT: 30, "/nonsense": 1}).encode(), "/nonsense"),
        (json.dumps({TIMEOUT: 500, VRF + "$(x)": [], router.SERVER + "cmn/dscp": "x"}).encode(), "$(x)"),
    ],
)
def test_files_that_are_refused(tmp_path, content, named):
    file = tmp_path / "items.json"
    file.write_bytes(content)
    result = router.run("ssh_cfg_ctl", "load", file, check=False)
    assert result.returncode == 5 and named in result.stderr, result
    assert router.configuration() == {}


def test_all_errors_in_a_file_are_reported(tmp_path):
    file = tmp_path / "items.json"
    file.write_text(json.dumps({TIMEOUT: 500, "/nonsense": 1, router.SERVER + "cmn/dscp": 99}), encoding="utf-8")
    result = router.run("ssh_cfg_ctl", "load", file, check=False)
    assert result.stderr.count("\n") == 3


# Frames that ssh_cfg_ctl would never send


def connection():
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    peer.settimeout(20)
    peer.connect(SOCKET)
    return peer


def frame(document):
    return struct.pack(">I", len(document)) + document


def answer_of(peer):
    data = b""
    while len(data) < 4 or len(data) < 4 + struct.unpack(">I", data[:4])[0]:
        piece = peer.recv(65536)
        if not piece:
            return None
        data += piece
    return json.loads(data[4:])


def expect_others_are_answered(seconds=3.0):
    start = time.monotonic()
    assert router.ctl("status")["ready"] is True
    assert time.monotonic() - start < seconds


@pytest.mark.parametrize(
    "data, named",
    [
        (struct.pack(">I", FRAME_MAX + 1), "the maximum of 16777216"),
        pytest.param(b"\xff\xff\xff\xff" + b"x" * 1000, "the maximum of 16777216", id="larger"),
        pytest.param(frame(b"[" * 1000), "more than 16 levels deep", id="deep"),
        (frame(b'{"call":"\xff"}'), "UTF-8"),
        (frame(b'{"call":"set","call":"dump"}'), 'duplicate name "call"'),
        (frame(b"GET / HTTP/1.0\r\n\r\n"), "not JSON"),
        (frame(b""), "not JSON"),
    ],
)
def test_a_broken_frame_is_answered_and_dropped(data, named):
    with connection() as peer:
        peer.sendall(data)
        assert named in answer_of(peer)["message"]
        try:
            assert peer.recv(1) == b""
        except ConnectionResetError:
            pass
    expect_others_are_answered()


def test_an_incomplete_frame_is_answered():
    with connection() as peer:
        peer.sendall(frame(b'{"call":"status"}')[:-3])
        peer.shutdown(socket.SHUT_WR)
        assert "in the middle of a frame" in answer_of(peer)["message"]


def test_a_frame_that_is_never_completed():
    with connection() as peer:
        peer.sendall(struct.pack(">I", 1000))
        start = time.monotonic()
        peer.settimeout(0.2)
        answer = None
        # Sending a byte from time to time does not extend the time limit.
        while answer is None and time.monotonic() - start < 15:
            try:
                answer = answer_of(peer)
            except TimeoutError:
                peer.sendall(b" ")
                expect_others_are_answered()
        assert "still incomplete after 5 seconds" in answer["message"]
        assert 4 < time.monotonic() - start < 10


def test_a_reader_that_does_not_read():
    router.load({f"cmn/{item}": 20 for item in ("timeout", "dscp", "rate_limit")})
    with connection() as peer:
        # More answers than any buffer holds: the agent stops reading from this connection and serves the others.
        peer.settimeout(1)
        with pytest.raises((TimeoutError, BrokenPipeError, ConnectionResetError)):
            while True:
                peer.sendall(frame(b'{"call":"status"}') * 1000)
        expect_others_are_answered()


def resident_kilobytes(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    raise AssertionError("no VmRSS")


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def test_a_thousand_connections():
    agent = router.main_pid(router.AGENT)
    expect_others_are_answered()
    before = descriptors(agent), resident_kilobytes(agent)
    peers = []
    for number in range(1000):
        peer = connection()
        peers.append(peer)
        if number % 3 == 1:
            peer.sendall(b"\0")
        if number % 3 == 2:
            try:
                peer.sendall(struct.pack(">I", 60000) + b"x" * 50000)
            except (BrokenPipeError, ConnectionResetError):
                pass
        if number % 100 == 0:
            expect_others_are_answered()
    expect_others_are_answered()
    assert descriptors(agent) < before[0] + 80
    assert resident_kilobytes(agent) < before[1] + 8000
    for peer in peers:
        peer.close()
    # The first count may include the tool's own connection, which is closed a moment after the tool has ended.
    router.wait_until(lambda: descriptors(agent) <= before[0], what="the agent closes what its peers have closed")
    assert router.main_pid(router.AGENT) == agent


def test_a_thousand_calls_at_once():
    calls = [
        subprocess.Popen(["ssh_cfg_ctl", "--json", "status"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        for _ in range(200)
    ]
    for call in calls:
        _, errors = call.communicate(timeout=60)
        assert call.returncode == 0, errors


def test_large_frames_do_not_leak_memory():
    agent = router.main_pid(router.AGENT)
    big = frame(b'{"call":"load","check":true,"items":{"/x":"' + b"x" * (FRAME_MAX - 1000) + b'"}}')
    many = frame(b'{"call":"load","check":true,"items":[' + b"0," * 400000 + b"0]}")

    def send(data):
        with connection() as peer:
            peer.sendall(data)
            assert answer_of(peer)["result"] in ("refused", "usage")

    send(big)
    send(many)
    before = resident_kilobytes(agent)
    for _ in range(10):
        send(big)
        send(many)
    assert resident_kilobytes(agent) < before + 2000
    assert resident_kilobytes(agent) < 12 * 1024


def test_four_large_frames_at_once_do_not_take_all_memory():
    agent = router.main_pid(router.AGENT)
    peers = [connection() for _ in range(8)]
    half = struct.pack(">I", FRAME_MAX) + b"x" * (FRAME_MAX // 2)
    for peer in peers:
        peer.settimeout(2)
        try:
            peer.sendall(half)
        except OSError:
            pass
    assert resident_kilobytes(agent) < 60 * 1024
    expect_others_are_answered()
    for peer in peers:
        peer.close()


def test_a_second_agent_is_refused():
    agent = router.main_pid(router.AGENT)
    second = router.run("/usr/sbin/ssh_cfg_agent", check=False, timeout=20)
    assert second.returncode == 255 and str(agent) in second.stderr, second
    expect_others_are_answered()
    assert router.main_pid(router.AGENT) == agent
