"""The limits that depend on one another are in different files."""

import pathlib
import re

TREE = pathlib.Path(__file__).resolve().parents[2]
KILL_SECONDS = 2


def command_limits():
    """The time limits of shell commands, in seconds."""
    text = (TREE / "src/core/shell_command.h").read_text(encoding="utf-8")
    return [int(number.replace("'", "")) / 1000 for number in re.findall(r"_limit = \{([0-9']+), ", text)]


def unit_minutes(name):
    text = (TREE / "packaging/ssh_cfg_agent.service").read_text(encoding="utf-8")
    return int(re.search(rf"^{name}=(\d+)min$", text, re.MULTILINE).group(1))


def test_no_single_wait_of_the_agent_is_taken_for_a_hang():
    limits = command_limits()
    assert len(limits) == 4
    for name in ("WatchdogSec", "TimeoutStartSec", "TimeoutStopSec"):
        assert max(limits) + KILL_SECONDS < 60 * unit_minutes(name), name


def test_progress_extends_a_start_or_stop_like_the_units_limits():
    text = (TREE / "platform/linux/process/process_manager.cpp").read_text(encoding="utf-8")
    extension = int(re.search(r"EXTEND_TIMEOUT_USEC=(\d+)", text).group(1))
    assert extension == unit_minutes("WatchdogSec") * 60_000_000
