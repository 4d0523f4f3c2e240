"""Fixtures of the tests of the throw-away node. They run outside of any node, as root."""

import subprocess

import pytest
from node_runs import NODE_COMMAND, machine_state, wait_until


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
