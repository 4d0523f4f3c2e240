"""Live SSH sessions for the system tests, on a terminal or on pipes, and how the router sees them."""

import contextlib
import fcntl
import os
import pathlib
import pty
import select
import signal
import struct
import subprocess
import termios
import time

import router

WRAPPER = "/pkg/bin/ssh_exec.sh"

UNKNOWN_HOST = ["UserKnownHostsFile=/dev/null", "StrictHostKeyChecking=no"]


def ssh_words(vrf, *command, user="operator", port=22, options=()):
    """The command line that logs in from inside the VRF's namespace."""
    words = ["ip", "netns", "exec", f"vrf-{vrf}", "ssh", "-p", str(port)]
    # ssh uses the first value of an option that is given more than once.
    for option in [*options, "ConnectTimeout=10", "LogLevel=ERROR", *UNKNOWN_HOST]:
        words += ["-o", option]
    return [*words, f"{user}@127.0.0.1", *command]


def start(vrf, *command, **options):
    """A session on pipes, as a Popen object."""
    words = ssh_words(vrf, *command, options=["BatchMode=yes", *options.pop("options", [])], **options)
    return subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def are_none_shown(*trees):
    """Whether there are no sessions, not even such that do not answer, in these trees of operational data."""
    answers = [router.ctl("show", f"/oper/crypto-ssh/{tree}/brief", check=False) for tree in trees]
    return all(answer.returncode == 4 and answer.stderr.endswith(": no sessions\n") for answer in answers)


def wrappers():
    """The process ids from which the agent finds sessions."""
    listing = f"ps -ef | grep '{WRAPPER}' | grep -v 'grep' | awk '{{print $2}}'"
    return [int(line) for line in router.run("sh", "-c", listing).stdout.split()]


def wait_for_wrappers(number, seconds=10.0):
    """Returns the wrappers' process ids. Until it becomes the session, a wrapper's child is listed as a wrapper."""
    listed = []

    def are_listed():
        listed[:] = wrappers()
        return len(listed) == number

    router.wait_until(are_listed, seconds, f"{number} sessions in the process listing")
    return listed


def process(pid):
    """Command line, parent, group, session and foreground group of a process."""
    stat = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").rpartition(") ")[2].split()
    words = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().rstrip(b"\0").split(b"\0")
    names = ("state", "parent", "group", "session", "terminal", "foreground")
    return {"words": [os.fsdecode(word) for word in words], "pid": pid} | dict(
        zip(names, [stat[0], *map(int, stat[1:6])], strict=True)
    )


def children(pid):
    return [process(int(child)) for child in router.run("pgrep", "-P", pid, check=False).stdout.split()]


def end_by_group(pid, number=signal.SIGTERM):
    """Signals a session the way a reload does."""
    os.kill(-pid, number)


def end_all():
    """Kills what a test has left running, whichever signals it ignores."""
    for pid in wrappers():
        with contextlib.suppress(ProcessLookupError):
            os.kill(-pid, signal.SIGKILL)
    wait_for_wrappers(0)


class Terminal:
    """A program on its own pseudo-terminal, and the person who uses it."""

    def __init__(self, words, rows=24, columns=80, environment=None):
        self.master, slave = pty.openpty()
        self.resize(rows, columns)
        self._said = b""

        def take_terminal():
            fcntl.ioctl(0, termios.TIOCSCTTY, 0)

        self.program = subprocess.Popen(
            words, stdin=slave, stdout=slave, stderr=slave, start_new_session=True, preexec_fn=take_terminal,
            env=environment,
        )
        os.close(slave)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.program.poll() is None:
            self.program.kill()
        self.program.wait()
        os.close(self.master)

    def resize(self, rows, columns):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def type(self, text):
        os.write(self.master, text.encode())

    def read_until(self, text, seconds=15.0):
        """Returns the output up to and including the text. Later output is kept for the next call."""
        end = time.monotonic() + seconds
        wanted = text.encode()
        while wanted not in self._said:
            left = end - time.monotonic()
            assert left > 0, f"after {seconds} seconds not on the terminal: {text!r}, but {self._said!r}"
            if select.select([self.master], [], [], left)[0]:
                try:
                    piece = os.read(self.master, 65536)
                except OSError:
                    piece = b""
                assert piece, f"the terminal closed without {text!r} on it: {self._said!r}"
                self._said += piece
        before, _, self._said = self._said.partition(wanted)
        return (before + wanted).decode(errors="replace")

    def read_to_end(self, seconds=15.0):
        """Returns the output until the program has ended."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if not select.select([self.master], [], [], 0.2)[0]:
                continue
            try:
                piece = os.read(self.master, 65536)
            except OSError:
                break
            if not piece:
                break
            self._said += piece
        text, self._said = self._said.decode(errors="replace"), b""
        return text

    def status(self, seconds=15.0):
        """Waits until the program has ended and returns its exit status."""
        self.read_to_end(seconds)
        return self.program.wait(timeout=seconds)


def log_in(vrf, *command, options=(), user="operator", **terminal):
    """An interactive session on a terminal, authenticated with the operator's key."""
    return Terminal(["env", "TERM=xterm", *ssh_words(vrf, *command, user=user, options=options)], **terminal)
