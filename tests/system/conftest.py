"""Fixtures of the system tests, which run inside a throw-away node and have its router to themselves."""

import pathlib
import shutil

import access_lists
import pytest
import router


def pytest_sessionstart(session):
    environment = pathlib.Path("/proc/1/environ").read_bytes().split(b"\0")
    if b"container=ssh_cfg_node" not in environment:
        pytest.exit("these tests change the machine: node/node run -- /usr/bin/python3 -m pytest tests/system", 2)


@pytest.fixture(autouse=True)
def clean_router():
    """Leaves a running agent, no configuration and only the namespaces that existed before the test."""
    before = router.namespaces()
    yield
    if not router.is_active(router.AGENT):
        router.run("systemctl", "restart", router.AGENT, timeout=120)
    router.wait_for_agent()
    items = router.configuration()
    if items:
        router.load({path: None for path in items})
    for namespace in router.namespaces():
        if namespace not in before:
            router.run("ip", "netns", "del", namespace)
            unit = router.UNITS / router.server_unit(namespace.removeprefix("vrf-"))
            router.wait_until(lambda unit=unit: not unit.exists(), what=f"{unit} goes with its namespace")


@pytest.fixture
def journal():
    """The journal of this test."""
    return router.Journal()


@pytest.fixture
def vrf():
    """Creates a VRF's namespace: vrf("red"). It is removed after the test."""

    def make(name):
        router.add_namespace(name)
        return name

    return make


@pytest.fixture
def server(vrf):
    """Creates a VRF's namespace and starts a server in it: server("red"), server("red", "vrf-netconf", 830)."""

    def make(name, item="vrf", port=22):
        if f"vrf-{name}" not in router.namespaces():
            vrf(name)
        router.set_item(f"sshd/{item}/{name}", router.OPEN)
        router.wait_for_server(name, port)
        return name

    return make


@pytest.fixture
def netconf_proxy():
    """A NETCONF proxy that repeats what it is told."""
    program = pathlib.Path("/pkg/bin/netconf_sshd_proxy")
    program.write_text('#!/bin/sh\necho "proxy $*"\nexec cat\n', encoding="ascii")
    program.chmod(0o755)
    yield program
    program.unlink(missing_ok=True)


@pytest.fixture
def lists_and_wires(clean_router):
    """Removes the neighbour and the lists before the router is cleaned up, so that no link is left."""
    yield
    router.run("ip", "netns", "del", access_lists.PEER, check=False)
    access_lists.delete_all_lists()


@pytest.fixture
def mgmt(vrf, lists_and_wires):
    """The VRF mgmt with a link to the neighbour, without a server."""
    vrf("mgmt")
    access_lists.connect_wires("mgmt")
    return "mgmt"


@pytest.fixture
def sshd_script():
    """Has shell commands run before sshd: sshd_script("exit 1"). Ends with the test or with the returned function."""
    program = pathlib.Path("/pkg/libexec/norvosshd")
    real = program.with_name("real_norvosshd")

    def insert(commands):
        program.rename(real)
        script = program.with_name("script")
        script.write_text(f'#!/bin/bash\n{commands}\nexec -a {program} {real} "$@"\n', encoding="utf-8")
        script.chmod(0o755)
        script.rename(program)
        return remove

    def remove():
        if real.is_symlink() or real.exists():
            real.replace(program)

    yield insert
    remove()


@pytest.fixture
def nft_that_rejects():
    """Makes nft reject the rule files whose names contain a text, until the returned function is called."""
    real, script = (pathlib.Path("/usr/local/lib") / name for name in ("accepting_nft", "rejecting_nft"))
    mounted = []

    def reject(text):
        shutil.copyfile("/usr/sbin/nft", real)
        script.write_text(f'#!/bin/sh\ncase "$*" in *{text}*) echo "Error: rejected" >&2; exit 1 ;; esac\n'
                          f'exec {real} "$@"\n', encoding="utf-8")
        for file in (real, script):
            file.chmod(0o755)
        router.run("mount", "--bind", script, "/usr/sbin/nft")
        mounted.append(script)
        return stop

    def stop():
        if mounted:
            mounted.pop()
            router.run("umount", "/usr/sbin/nft")

    yield reject
    stop()
