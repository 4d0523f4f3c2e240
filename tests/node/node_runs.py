"""Helpers of the throw-away node's tests."""

import contextlib
import os
import pathlib
import subprocess
import time

NODE = pathlib.Path(__file__).resolve().parents[2] / "node" / "node"


def wait_until(condition, seconds=20.0):
    """Returns the first true value of condition(), or its last one after the time limit."""
    end = time.monotonic() + seconds
    while not (value := condition()) and time.monotonic() < end:
        time.sleep(0.02)
    return value


# Other nodes may be running on the machine; this host name identifies those of the tests.
MARK = f"node-test-{os.getpid()}"


def orphaned_control_groups():
    """Control groups of nodes whose keeper has exited."""
    find = ["findmnt", "--noheadings", "--first-only", "--types", "cgroup2", "--output", "TARGET"]
    hierarchy = subprocess.run(find, capture_output=True, text=True, check=False).stdout.strip()
    listing = os.listdir(hierarchy) if hierarchy else []
    groups = [name for name in listing if name.startswith("ssh_cfg_node.")]
    return [name for name in groups if not os.path.exists("/proc/" + name.partition(".")[2])]


def node_processes():
    """Command lines of the processes that belong to a node of these tests or keep one alive."""
    found = []
    for directory in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            keeps = f"NODE_HOSTNAME={MARK}".encode() in (directory / "environ").read_bytes()
            hostname = directory / "root/etc/hostname"
            if keeps or (hostname.exists() and hostname.read_text(encoding="utf-8").strip() == MARK):
                found.append((directory / "cmdline").read_bytes())
    return found


def machine_state():
    """Every place on this machine where a node could leave something behind."""
    mounts = pathlib.Path("/proc/self/mountinfo").read_text(encoding="utf-8").splitlines()
    return {
        "mounts": [line for line in mounts if "ssh_cfg_node" in line or "/run/root" in line],
        "interfaces": sorted(os.listdir("/sys/class/net")),
        "groups": orphaned_control_groups(),
        "processes": node_processes(),
        "hostname": os.uname().nodename,
        "users": pathlib.Path("/etc/passwd").read_text(encoding="utf-8"),
        "units": sorted(os.listdir("/etc/systemd/system")),
    }


# The command that starts a node of the tests; options may follow.
NODE_COMMAND = [str(NODE), "--no-agent", "--hostname", MARK]
