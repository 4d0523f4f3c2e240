"""The commands and outputs in the documents, carried out on a router.

In a block that begins with ```console, a line with a prompt is a command and the lines after it are what it prints, on standard
output and standard error:

    router# ssh_cfg_ctl get timeout
    45
    pc$ ssh operator@10.9.0.1 hostname
    router

`router#` is root's prompt on the router, `pc$` that of a computer in the management network, where root's keys are those of the
user operator. Lines that begin with "> " continue a command. In the output, "..." stands for any text within a line and, on a
line of its own, for any lines.
"""

import dataclasses
import re
import subprocess

import access_lists

PROMPTS = {"router# ": ["bash", "-c"], "pc$ ": ["ip", "netns", "exec", access_lists.PEER, "bash", "-c"]}
FENCE = "```"


@dataclasses.dataclass
class Step:
    """A command with what it is expected to print. `first` and `end` are the numbers of its output's lines."""

    prompt: str
    command: str
    expected: list
    first: int = 0
    end: int = 0


def sections(text):
    """Maps the titles of a document's sections (## TITLE) to the steps in them. Sections without steps are left out."""
    found, title, is_inside, steps = {}, None, False, []
    for number, line in enumerate(text.splitlines()):
        if line.startswith(FENCE):
            is_inside = line == FENCE + "console"
        elif not is_inside and line.startswith("## "):
            title, steps = line[3:], []
        elif is_inside:
            prompt = next((each for each in PROMPTS if line.startswith(each)), None)
            if prompt is not None:
                steps.append(Step(prompt, line.removeprefix(prompt), [], number + 1, number + 1))
                found[title] = steps
            elif line.startswith("> ") and not steps[-1].expected:
                steps[-1].command += "\n" + line.removeprefix("> ")
                steps[-1].first = steps[-1].end = number + 1
            else:
                steps[-1].expected.append(line)
                steps[-1].end = number + 1
    return found


def carry_out(step, folder):
    """Runs the command in a folder and returns the lines that it prints."""
    result = subprocess.run([*PROMPTS[step.prompt], step.command], cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, timeout=60, check=False)
    return result.stdout.replace("\r\n", "\n").splitlines()


def agrees(expected, printed):
    """Whether lines are as expected, where "..." stands for any text or, on a line of its own, for any lines."""
    pattern = ""
    for line in expected:
        pattern += r"(?:.*\n)*" if line.strip() == "..." else r".*".join(map(re.escape, line.split("..."))) + r"\n"
    return re.fullmatch(pattern, "".join(line + "\n" for line in printed)) is not None
