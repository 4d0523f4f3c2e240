"""Fixtures of the throw-away node's tests, which run as root, outside any node."""

import signal
import subprocess

import pytest
from node_runs import NODE_COMMAND, machine_state, wait_until

# In the background or under nohup these signals are ignored, and a shell cannot trap a signal that was ignored when it
# started. The nodes must be interruptible as from a terminal.
for ignored in (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP):
    if signal.getsignal(ignored) == signal.SIG_IGN:
        signal.signal(ignored, signal.SIG_DFL)


@pytest.fixture
def untouched_machine():
    """Fails the test if it left anything behind."""
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
