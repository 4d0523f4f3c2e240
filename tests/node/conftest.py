"""Fixtures of the tests of the throw-away node. They run outside of any node, as root."""

import signal
import subprocess

import pytest
from node_runs import NODE_COMMAND, machine_state, wait_until

# Whoever starts the tests in the background, or with nohup, has had these signals ignored, and a process cannot trap what
# it was started to ignore: the nodes are to be interrupted as from a terminal.
for ignored in (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP):
    if signal.getsignal(ignored) == signal.SIG_IGN:
        signal.signal(ignored, signal.SIG_DFL)


@pytest.fixture
def untouched_machine():
    """Fails the test when it has left anything behind."""
    before = machine_state()
    yield
    wait_until(lambda: machine_state() == before, 10)
    assert machine_state() == before


@pytest.fixture
def node():
    """Runs `node/node` with the given options and command line."""

    def run(*arguments, **options):
        options.setdefault("timeout", 120)
        return subprocess.run([*NODE_COMMAND, *arguments], capture_output=True, check=False, **options)

    return run
