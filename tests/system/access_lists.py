"""Helpers of the access-list tests: a neighbour on its own link to the router, and ways to probe ports."""

import json
import select
import socket
import subprocess
import sys
import time

import router

PEER = "peer"
ALLOWED = "10.9.0.2"
DENIED = "10.9.0.3"
ALLOWED6 = "2001:db8:9::2"
DENIED6 = "2001:db8:9::3"
ROUTER = "10.9.0.1"
ROUTER6 = "2001:db8:9::1"
OTHER_PORT = 8080


def set_list(family, name, *lines, **options):
    """Replaces the list of that name with these lines; without lines, empties it."""
    empty = [] if lines else ["--empty"]
    return router.ctl("acl", "set", *empty, family, name, "-", input="".join(line + "\n" for line in lines), **options)


def delete_list(family, name):
    router.ctl("acl", "delete", family, name)


def delete_all_lists():
    for row in router.ctl("acl", "list"):
        delete_list(row["family"], row["name"])


def rules(vrf, table, family="ip"):
    """The rules of a VRF's table as the kernel lists them, without the lines of the table and the chain. Empty if there is
    no table."""
    lines = router.in_vrf(vrf, "nft", "list", "table", family, table, check=False).stdout.splitlines()
    own = ("table ", "chain ", "type filter hook", "}")
    return [line.strip() for line in lines if not line.strip().startswith(own)]


def wait_for_rules(vrf, table, family="ip", text=None):
    """Waits until a rule of the table contains the text, or, without a text, until the table has no rules."""

    def there():
        return any(text in rule for rule in rules(vrf, table, family)) if text else not rules(vrf, table, family)

    router.wait_until(there, what=f"{text or 'no rules'} in {table} of {vrf}")


def connect_wires(vrf, number=9):
    """Connects a VRF to the neighbour and returns the VRF's two addresses. The second octet distinguishes the VRFs."""
    name = f"vrf-{vrf}"
    if PEER not in router.run("ip", "netns", "list").stdout.split():
        make_peer(number)
    router.run("ip", "-n", PEER, "link", "set", f"router{number}", "netns", name)
    for address in (f"10.{number}.0.1/24", f"2001:db8:{number}::1/64"):
        router.run("ip", "-n", name, "addr", "add", address, "dev", f"router{number}", *nodad(address))
    router.run("ip", "-n", name, "link", "set", f"router{number}", "up")


def nodad(address):
    return ["nodad"] if ":" in address else []


def make_peer(*numbers):
    """The neighbour with one link per number; the other ends are not yet in a VRF."""
    router.run("ip", "netns", "add", PEER)
    router.run("ip", "-n", PEER, "link", "set", "lo", "up")
    for number in numbers:
        wire = f"peer{number}"
        router.run("ip", "-n", PEER, "link", "add", wire, "type", "veth", "peer", "name", f"router{number}")
        for host in (2, 3):
            for address in (f"10.{number}.0.{host}/24", f"2001:db8:{number}::{host}/64"):
                router.run("ip", "-n", PEER, "addr", "add", address, "dev", wire, *nodad(address))
        router.run("ip", "-n", PEER, "link", "set", wire, "up")


def python_at_peer(*arguments):
    """Runs this file in the neighbour's namespace and returns the Popen object."""
    command = ["ip", "netns", "exec", PEER, sys.executable, "-B", __file__, *map(str, arguments)]
    return subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)


def reached(*knocks, seconds=1.0):
    """Probes each (source, destination, port) at the same time and returns those that found an open port."""
    process = python_at_peer("knock", json.dumps(knocks), seconds)
    output, _ = process.communicate(timeout=60)
    assert process.returncode == 0
    return {tuple(knock) for knock in json.loads(output)}


class Intruder:
    """Probes continuously from one source until stopped, and counts the connections that succeeded."""

    def __init__(self, source, destination, port):
        self._process = python_at_peer("intrude", source, destination, port)
        assert self._process.stdout.readline() == "started\n"

    def stop(self):
        """Returns the number of probes and of those that connected."""
        output, _ = self._process.communicate("\n", timeout=60)
        assert self._process.returncode == 0
        return tuple(json.loads(output))


# What runs in the neighbour's namespace


def start_connecting(source, destination, port):
    """A socket that is connecting to the destination; None while there is no route."""
    attempt = socket.socket(socket.AF_INET6 if ":" in destination else socket.AF_INET, socket.SOCK_STREAM)
    attempt.setblocking(False)
    try:
        attempt.bind((source, 0))
        attempt.connect((destination, port))
    except BlockingIOError:
        return attempt
    except OSError:
        attempt.close()
        return None
    return attempt


def is_connected(attempt):
    return attempt.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) == 0


def knock(knocks, seconds):
    attempts = {start_connecting(*each): each for each in knocks}
    waiting = {attempt for attempt in attempts if attempt}
    opened = []
    end = time.monotonic() + seconds
    while waiting and (left := end - time.monotonic()) > 0:
        _, done, _ = select.select([], waiting, [], left)
        opened += [attempts[attempt] for attempt in done if is_connected(attempt)]
        waiting -= set(done)
    print(json.dumps(opened))


def intrude(source, destination, port):
    """About one probe per millisecond. Each waits half a second for an answer and is not retransmitted in that time."""
    poll = select.epoll()
    waiting = {}
    knocks = entries = 0
    print("started", flush=True)
    while not select.select([sys.stdin], [], [], 0.001)[0]:
        attempt = start_connecting(source, destination, port)
        if attempt:
            knocks += 1
            waiting[attempt.fileno()] = (attempt, time.monotonic())
            poll.register(attempt, select.EPOLLOUT)
        for descriptor, _ in poll.poll(0):
            entries += is_connected(waiting[descriptor][0])
            waiting.pop(descriptor)[0].close()
        now = time.monotonic()
        while waiting and now - (oldest := next(iter(waiting.items())))[1][1] > 0.5:
            waiting.pop(oldest[0])[0].close()
    print(json.dumps([knocks, entries]))


if __name__ == "__main__":
    if sys.argv[1] == "knock":
        knock(json.loads(sys.argv[2]), float(sys.argv[3]))
    else:
        intrude(sys.argv[2], sys.argv[3], int(sys.argv[4]))
