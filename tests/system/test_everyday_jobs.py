"""What operators do every day, as docs/recipes.md tells them: the commands there print what the document says."""

import pathlib

import pytest
import router
import transcript

RECIPES = pathlib.Path(__file__).parents[2] / "docs/recipes.md"
SECTIONS = transcript.sections(RECIPES.read_text(encoding="utf-8"))


@pytest.fixture
def workplace(mgmt, tmp_path):
    """A router without configuration and history, whose VRF mgmt is connected to the operator's computer."""
    assert mgmt == "mgmt"
    router.run("systemctl", "stop", router.AGENT, timeout=120)
    for file in pathlib.Path("/var/lib/ssh_cfg_agent").glob("datastore.db*"):
        file.unlink()
    router.run("systemctl", "start", router.AGENT, timeout=120)
    router.wait_for_agent()
    keys = [file.read_text(encoding="ascii") for file in pathlib.Path("/pkg").glob("*.pub")]
    known = {tmp_path / "known_hosts": "".join(f"10.9.0.1,[10.9.0.1]:830 {key}" for key in keys),
             pathlib.Path("/root/.ssh/config"): f"UserKnownHostsFile {tmp_path}/known_hosts\nBatchMode yes\nConnectTimeout 3\n"}
    for file, text in known.items():
        file.write_text(text, encoding="ascii")
    yield tmp_path
    for file in [*known, *pathlib.Path("/etc/ssh_cfg_agent/sshd.d").glob("*.conf")]:
        file.unlink()


@pytest.mark.parametrize("title", SECTIONS)
def test_the_recipe_is_true(title, workplace):
    for step in SECTIONS[title]:
        printed = transcript.carry_out(step, workplace)
        assert transcript.agrees(step.expected, printed), "\n".join([step.prompt + step.command, *printed])


def test_every_recipe_has_commands():
    assert len(SECTIONS) == RECIPES.read_text(encoding="utf-8").count("\n## ")
