"""The Debian packages on a machine without the sources: installed, used, upgraded, removed and purged, in this order."""

import os
import pathlib
import shutil
import sqlite3
import subprocess

import pytest
import router
import sessions
from router import run

TREE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("SSH_CFG_BUILD", TREE / "build")).resolve()
DATABASE = pathlib.Path("/var/lib/ssh_cfg_agent/datastore.db")
CONFIGURATION = pathlib.Path("/etc/ssh_cfg_agent/platform.conf")
INSTALLED = ["ssh-cfg-agent", "ssh-cfg-openssh", "ssh-cfg-ctl", "ssh-cfg-platform-dev"]
ENVIRONMENT = {**os.environ, "DEBIAN_FRONTEND": "noninteractive"}
SERVER = router.server_unit("mgmt")

# Files that other programs write while packages are installed and services run.
OTHERS_FILES = ("/var/lib/dpkg/", "/var/lib/apt/", "/var/cache/", "/var/log/", "/var/lib/systemd/", "/run/systemd/",
                "/run/log/", "/run/dbus/", "/run/user/", "/run/lock", "/run/utmp", "/etc/group", "/etc/gshadow",
                "/etc/passwd-", "/etc/shadow-", "/etc/subgid-", "/etc/subuid-", "/tmp/", "/var/tmp/",
                "/usr/lib/python3", "/run/sshd", "/run/netns", "/run/mount", "/var/lib/PackageKit/",
                "/var/lib/private", "/etc/.pwd.lock", "/etc/netns", "/run/cryptsetup")


@pytest.fixture(autouse=True)
def clean_router():
    """Each test continues where the one before it ended."""


def build_packages(folder):
    # Saves time: symbols and small packages are not needed here.
    options = {"DEB_BUILD_OPTIONS": "noautodbgsym", "DPKG_DEB_COMPRESSOR_TYPE": "gzip", "DPKG_DEB_COMPRESSOR_LEVEL": "1"}
    run(TREE / "packaging/build_packages", "--from", BUILD, folder, env={**os.environ, **options}, timeout=600)
    return {file.name.split("_")[0]: file for file in folder.glob("*.deb")}


def files():
    """Returns all files except those of other programs."""
    listing = run("find", "/etc", "/pkg", "/run", "/usr", "/var", "/tmp", "/dev/shmem", "-xdev", check=False).stdout
    return {line for line in listing.splitlines() if not line.startswith(OTHERS_FILES)}


@pytest.fixture(scope="module")
def before():
    """The files that existed before anything was installed."""
    assert run("dpkg-query", "--show", "ssh-cfg-agent", check=False).returncode != 0
    # In a container, this program prevents packages from starting services.
    pathlib.Path("/usr/sbin/policy-rc.d").unlink(missing_ok=True)
    return files()


@pytest.fixture(scope="module")
def packages(before, tmp_path_factory):
    """The packages by name. From then on, neither the sources nor the build are visible, only the tests."""
    built = build_packages(tmp_path_factory.mktemp("packages"))
    hidden = {BUILD, *(entry for entry in TREE.iterdir() if entry.is_dir() and entry.name != "tests")}
    for folder in hidden:
        run("mount", "-t", "tmpfs", "nothing", folder)
    yield built
    for folder in hidden:
        run("umount", folder)


def apt(*arguments):
    return run("apt-get", "--yes", *arguments, env=ENVIRONMENT, timeout=300)


def installed_version():
    return run("dpkg-query", "--show", "--showformat=${Version}", "ssh-cfg-agent").stdout


def repacked(package, version, folder):
    """Returns the same package with another version."""
    tree = folder / package.name
    run("dpkg-deb", "--raw-extract", package, tree)
    control = tree / "DEBIAN/control"
    control.write_text(control.read_text(encoding="utf-8").replace(installed_version(), version), encoding="utf-8")
    run("dpkg-deb", "--build", "-Zgzip", "-z1", "--root-owner-group", tree, folder / "repacked.deb")
    shutil.rmtree(tree)
    return (folder / "repacked.deb").rename(folder / f"{tree.name.split('_')[0]}_{version}.deb")


def readme_commands():
    """The commands of the README's first steps, from logging in as root on a machine with the packages."""
    lines = pathlib.Path("/usr/share/doc/ssh-cfg-agent/README.md").read_text(encoding="utf-8").splitlines()
    commands = [line.strip().removeprefix("# ") for line in lines if line.startswith("    # ")]
    first = next(number for number, command in enumerate(commands) if command.startswith("apt install"))
    return commands[first + 1 : first + 4]


def talk(session, word):
    """Checks that a session that runs cat still echoes."""
    session.stdin.write(f"{word}\n".encode())
    session.stdin.flush()
    assert session.stdout.readline() == f"{word}\n".encode()


@pytest.fixture(scope="module")
def session(packages):
    """A session that lasts from the first login to the removal."""
    opened = []

    def the_session():
        if not opened:
            opened.append(sessions.start("mgmt", "cat"))
        return opened[0]

    yield the_session
    for one in opened:
        one.kill()
        one.wait()


def test_packages_satisfy_lintian(packages):
    assert sorted(packages) == sorted(INSTALLED)
    result = run("lintian", "--fail-on", "error,warning", *packages.values(), check=False, timeout=300)
    assert (result.returncode, result.stdout) == (0, ""), result.stdout + result.stderr


def test_installation_starts_the_agent(packages):
    apt("install", *packages.values())
    assert run("systemctl", "is-enabled", router.AGENT).stdout == "enabled\n"
    router.wait_for_agent()
    assert router.run("ssh_cfg_ctl", "--version").stdout == f"ssh_cfg_ctl {installed_version()}\n"
    assert run("getent", "group", "sshcfg", "sshcfg-admin").stdout.count("\n") == 2


def test_headers_are_complete(packages, tmp_path):
    source = tmp_path / "all.cpp"
    headers = sorted(pathlib.Path("/usr/include/ssh_cfg_platform/platform").glob("*.h"))
    assert len(headers) > 20
    source.write_text("".join(f"#include <platform/{header.name}>\n" for header in headers), encoding="ascii")
    flags = run("pkg-config", "--cflags", "ssh_cfg_platform").stdout.split()
    run("g++", "-std=c++20", "-fsyntax-only", *flags, source)


def test_commands_of_the_readme_end_in_a_login(packages):
    *preparations, login = readme_commands()
    for command in preparations:
        run("sh", "-c", command)
    router.wait_for_server("mgmt")
    assert login.startswith("ip netns exec vrf-mgmt ssh ")
    assert run("sh", "-c", f"{login} hostname").stdout == run("hostname").stdout


def test_upgrade_keeps_sessions_and_configuration(packages, session, tmp_path):
    talk(session(), "before")
    CONFIGURATION.write_text(CONFIGURATION.read_text(encoding="utf-8") + "# ours\n", encoding="utf-8")
    router.set_item("cmn/timeout", 45)
    agent = router.main_pid(router.AGENT)
    version = installed_version() + "+next"
    apt("install", *[repacked(package, version, tmp_path) for package in packages.values()
                     if not package.name.startswith("ssh-cfg-platform-dev")])
    assert installed_version() == version
    router.wait_for_agent()
    assert router.main_pid(router.AGENT) != agent
    talk(session(), "after")
    assert CONFIGURATION.read_text(encoding="utf-8").endswith("# ours\n")
    assert "LoginGraceTime 45" in router.server_lines("mgmt")
    router.wait_for_server("mgmt")
    assert router.ssh("mgmt", "true").returncode == 0


def test_agent_refuses_the_database_of_a_newer_version(packages, tmp_path):
    saved = tmp_path / "router.json"
    saved.write_text(run("ssh_cfg_ctl", "dump").stdout, encoding="utf-8")
    run("systemctl", "stop", router.AGENT)
    with sqlite3.connect(DATABASE) as database:
        database.execute("PRAGMA user_version = 99")
    database.close()
    journal = router.Journal()
    run("systemctl", "start", "--no-block", router.AGENT)
    journal.wait_for("written by a newer version of this program (format 99, ", seconds=30)
    run("systemctl", "stop", router.AGENT)
    # The way back: without the database the agent starts empty, and takes what was saved before the upgrade.
    for file in DATABASE.parent.glob("datastore.db*"):
        file.rename(tmp_path / file.name)
    run("systemctl", "start", router.AGENT)
    router.wait_for_agent()
    assert router.configuration() == {}
    run("ssh_cfg_ctl", "load", saved)
    router.wait_for_server("mgmt")


def test_removal_ends_the_servers_and_keeps_configuration_and_sessions(packages, session):
    database = DATABASE.read_bytes()
    apt("remove", *INSTALLED)
    talk(session(), "removed")
    assert not router.is_active(SERVER) and not router.port_answers("mgmt")
    assert not list(router.UNITS.glob("sshd_*"))
    assert router.in_vrf("mgmt", "nft", "list", "tables").stdout == ""
    assert router.namespaces() == ["vrf-mgmt"]
    assert DATABASE.exists() and CONFIGURATION.read_text(encoding="utf-8").endswith("# ours\n") and database
    assert run("systemctl", "list-units", "--failed", "--plain", "--no-legend").stdout == ""


def test_reinstallation_brings_the_servers_back(packages):
    apt("install", *packages.values())
    router.wait_for_agent()
    router.wait_for_server("mgmt")
    assert "LoginGraceTime 45" in router.server_lines("mgmt")


def test_nothing_is_left_after_purging(packages, before, session):
    talk(session(), "purged")
    apt("purge", *INSTALLED)
    assert sorted(files() - before) == []
    assert run("dpkg-query", "--show", "ssh-cfg-*", check=False).stdout == ""
    # The groups remain, because they may still own files.
    assert run("getent", "group", "sshcfg").returncode == 0


def test_the_sources_were_not_there(packages):
    assert [os.listdir(folder) for folder in (BUILD, TREE / "src", TREE / "platform", TREE / "packaging")] == [[]] * 4


def test_binaries_do_not_name_the_build_folder(packages, tmp_path):
    for package in packages.values():
        run("dpkg-deb", "--extract", package, tmp_path / package.name)
    found = subprocess.run(["grep", "-rl", str(TREE), tmp_path], capture_output=True, text=True, check=False)
    assert found.stdout == ""
