"""Tests of packaging/install_dependencies with stubs of the package tools."""

import os
import pathlib
import shutil
import subprocess

import pytest

PACKAGING = pathlib.Path(__file__).resolve().parents[2] / "packaging"

TOOLS = {
    # Reports "here" as installed and "removed" as removed with its configuration files left.
    "dpkg-query": 'for p in "$@"; do case $p in here) echo "installed here";; removed) echo "config-files removed";;'
    ' -*) ;; *) s=1;; esac; done; exit "${s:-0}"',
    "apt-get": 'echo "apt-get $*" >> "$CALLS"; [ "$1" != "$FAILS" ]',
    "sudo": 'echo "sudo $*" >> "$CALLS"; exec "$@"',
    "id": 'echo "${USER_ID:-0}"',
}


@pytest.fixture
def install(tmp_path):
    """Runs the script on a list of packages; returns its result and the calls of the package tools."""
    shutil.copy(PACKAGING / "install_dependencies", tmp_path)
    tools = tmp_path / "tools"
    tools.mkdir()
    for name, script in TOOLS.items():
        (tools / name).write_text(f"#!/bin/sh\n{script}\n", encoding="utf-8")
        (tools / name).chmod(0o755)

    def run(packages, without=(), **environment):
        (tmp_path / "dependencies.txt").write_text(packages, encoding="utf-8")
        for name in without:
            (tools / name).unlink()
        calls = tmp_path / "calls"
        # Only the stubs and the programs that the script itself needs.
        for name in ("sh", "dirname", "sed", "grep", "env"):
            if not (tools / name).exists():
                os.symlink(shutil.which(name), tools / name)
        result = subprocess.run(
            [tmp_path / "install_dependencies"], capture_output=True, text=True, check=False,
            env={"PATH": str(tools), "CALLS": str(calls), "FAILS": "", **environment},
        )
        return result, calls.read_text(encoding="utf-8").splitlines() if calls.exists() else []

    return run


def test_nothing_missing_is_quick_and_silent(install):
    result, calls = install("# a list\nhere   # why\n")
    assert (result.returncode, result.stdout, result.stderr, calls) == (0, "", "", [])


def test_only_what_is_missing_is_installed(install):
    result, calls = install("here\nremoved # comment\nunheard-of\n")
    assert result.returncode == 0
    assert calls[0].startswith("apt-get update")
    assert calls[1].startswith("apt-get install ") and calls[1].endswith(" removed unheard-of")
    assert "Packages to install: removed unheard-of" in result.stdout


def test_ordinary_user_is_told_that_sudo_is_used(install):
    result, calls = install("unheard-of\n", USER_ID="1000")
    assert result.returncode == 0
    assert "continuing with sudo" in result.stdout
    assert [call for call in calls if call.startswith("sudo apt-get update")]


def test_ordinary_user_without_sudo_is_told(install):
    result, calls = install("unheard-of\n", without=["sudo"], USER_ID="1000")
    assert result.returncode == 1 and calls == []
    assert "sudo is not installed" in result.stderr


@pytest.mark.parametrize("step", ["update", "install"])
def test_failure_of_the_package_tool_is_a_failure(install, step):
    assert install("unheard-of\n", FAILS=step)[0].returncode != 0


def test_other_systems_are_told_where_the_list_is(install):
    result, _ = install("unheard-of\n", without=["apt-get"])
    assert result.returncode == 1
    assert "dependencies.txt" in result.stderr


def test_every_package_of_the_list_has_a_reason():
    lines = (PACKAGING / "dependencies.txt").read_text(encoding="utf-8").splitlines()
    packages = [line for line in lines if line and not line.startswith("#")]
    assert len(packages) == len({line.split()[0] for line in packages})
    assert [line for line in packages if len(line.split("#")) != 2 or not line.split("#")[1].strip()] == []
