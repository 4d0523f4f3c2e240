"""The real agent in a sandbox: how it is started, called, stopped, and what it has made of the machine."""

import contextlib
import json
import os
import pathlib
import shutil
import signal
import socket
import struct
import subprocess
import time

import rule_files
import sandbox

COMMANDS = pathlib.Path("/commands")
RUNTIME = pathlib.Path("/run/ssh_cfg_agent")
SOCKET = RUNTIME / "control.sock"
FOLDERS = ["/var/opt/norvo/norvossh", "/etc/systemd/system", "/etc/pam.d", rule_files.FOLDER]
SECONDS = 30


class Failure(Exception):
    """The agent has ended, or does not do what it should within the time limit."""


class Connection:
    """A connection to the agent's control socket."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.settimeout(SECONDS)
        self._socket.connect(str(SOCKET))

    def close(self):
        self._socket.close()

    def call(self, **request):
        """Returns the answer. Raises OSError or EOFError if the agent ends before."""
        document = json.dumps(request).encode()
        self._socket.sendall(struct.pack(">I", len(document)) + document)
        size = struct.unpack(">I", self._receive(4))[0]
        return json.loads(self._receive(size))

    def _receive(self, size):
        data = b""
        while len(data) < size:
            try:
                part = self._socket.recv(size - len(data))
            except TimeoutError as error:
                raise Failure("the agent does not answer") from error
            if not part:
                raise EOFError
            data += part
        return data


class Agent:
    """An agent with its machine, both new."""

    def __init__(self):
        for folder in (COMMANDS / "units", COMMANDS / "started", RUNTIME, pathlib.Path("/run/systemd/journal"),
                       pathlib.Path("/run/netns"), pathlib.Path("/var/opt/norvo")):
            folder.mkdir(parents=True, exist_ok=True)
        shutil.copytree(COMMANDS / "lib", "/pkg/lib")
        pathlib.Path("/etc/motd").unlink(missing_ok=True)
        sandbox.attach_own_namespace("vrf-default")
        self.namespaces = ["default"]
        self.kernel = {"default": {}}
        self.loads_read = 0
        self.process = None
        self.connection = None
        self.journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.journal.bind("/run/systemd/journal/socket")
        self.messages = []
        self.readiness = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.readiness.bind("/run/readiness")
        for each in (self.journal, self.readiness):
            each.setblocking(False)
        self.start()

    def remove(self):
        """Ends the agent and leaves an empty machine."""
        self._end(signal.SIGKILL)
        self.journal.close()
        self.readiness.close()
        for name in self.namespaces:
            sandbox.delete_namespace(f"vrf-{name}")
        for folder in ("/run", "/tmp", "/var/opt", "/var/lib/ssh_cfg_agent", "/etc/systemd/system", "/etc/pam.d", "/pkg"):
            for path in pathlib.Path(folder).iterdir():
                shutil.rmtree(path) if path.is_dir() and not path.is_symlink() else path.unlink()
        for name in ("units", "started"):
            shutil.rmtree(COMMANDS / name)
        for name in ("log", "loads", "kill", "fail", "unknown"):
            (COMMANDS / name).unlink(missing_ok=True)

    # The process

    def start(self):
        self._drain(self.readiness)
        with open(COMMANDS / "output", "ab") as output:
            self.process = subprocess.Popen([COMMANDS / "agent"], stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                            env={"PATH": os.environ["PATH"], "LD_LIBRARY_PATH": "/pkg/lib", "NOTIFY_SOCKET": "/run/readiness"})
        end = time.monotonic() + SECONDS
        while not any(b"READY=1" in text for text in self._drain(self.readiness)):
            self._drain_journal()
            if self.process.poll() is not None:
                raise Failure(f"the agent ended with {self.process.returncode} before it was ready")
            if time.monotonic() > end:
                raise Failure("the agent does not become ready")
            time.sleep(0.001)
        self.connection = Connection()

    def _end(self, number):
        """Sends the agent a signal and returns how it ended."""
        if self.connection is not None:
            self.connection.close()
            self.connection = None
        self.process.send_signal(number)
        return self._wait()

    def _wait(self):
        end = time.monotonic() + SECONDS
        while self.process.poll() is None:
            self._drain_journal()
            self._drain(self.readiness)
            if time.monotonic() > end:
                raise Failure("the agent does not end")
            time.sleep(0.001)
        return self.process.returncode

    def restart(self):
        status = self._end(signal.SIGTERM)
        if status != 0:
            raise Failure(f"a stop ended with {status}")
        (RUNTIME / "respawn_count").unlink(missing_ok=True)
        self.start()

    def kill(self):
        self._end(signal.SIGKILL)
        self.start()

    def start_after_kill(self):
        """For an agent that has been or is being killed."""
        self._wait()
        self._wait_for_orphans()
        self.connection.close()
        self.start()

    def kill_at_command(self, number, request):
        """Makes a call during which the command of that number kills the agent. Returns the answer if it did not come so far,
        otherwise None after a new start."""
        (COMMANDS / "kill").write_text(f"{self.process.pid} {number}", encoding="ascii")
        try:
            return self.call(**request)
        except (OSError, EOFError):
            self.start_after_kill()
            return None
        finally:
            (COMMANDS / "kill").unlink(missing_ok=True)

    def call_with_failures(self, first, count, request):
        """Makes a call during which some commands fail."""
        (COMMANDS / "fail").write_text(f"{first} {count}", encoding="ascii")
        try:
            return self.call(**request)
        finally:
            (COMMANDS / "fail").unlink()

    def _wait_for_orphans(self):
        """The commands of a killed agent come to their ends, as children of this process, the namespace's first."""
        end = time.monotonic() + SECONDS
        with contextlib.suppress(ChildProcessError):
            while os.waitpid(-1, os.WNOHANG) is not None:
                if time.monotonic() > end:
                    raise Failure("a command of the killed agent does not end")
                time.sleep(0.001)

    # Calls

    def call(self, **request):
        answer = self.connection.call(**request)
        self._drain_journal()
        return answer

    # The machine

    def add_namespace(self, vrf, unit_expected):
        """Nobody sees the name before it is a namespace, so the agent need not look twice."""
        self.process.send_signal(signal.SIGSTOP)
        sandbox.add_namespace(f"vrf-{vrf}")
        self.process.send_signal(signal.SIGCONT)
        self.namespaces.append(vrf)
        self.kernel[vrf] = {}
        self._settle(lambda: not unit_expected or (COMMANDS / f"units/sshd_service_{vrf}").exists())

    def delete_namespace(self, vrf):
        sandbox.delete_namespace(f"vrf-{vrf}")
        self.namespaces.remove(vrf)
        self._settle(lambda: not pathlib.Path(f"/etc/systemd/system/sshd_service_{vrf}.service").exists())
        self._read_loads()
        del self.kernel[vrf]

    def lose(self, path, comes_back):
        os.unlink(path)
        if comes_back:
            self._settle(lambda: os.path.exists(path))

    def _settle(self, condition):
        """Waits until the agent has handled a change of the machine. Operational reads wait for their turn."""
        end = time.monotonic() + SECONDS
        for _ in range(3):
            self._wait_for_turn()
        while not condition():
            if time.monotonic() > end:
                return
            time.sleep(0.005)
        self._wait_for_turn()

    def _wait_for_turn(self):
        self.call(call="show", path="/oper/crypto-ssh/gl/server-params")

    def _read_loads(self):
        """Carries out on the kernel's tables what nft was to load since the last time."""
        with contextlib.suppress(FileNotFoundError), open(COMMANDS / "loads", encoding="utf-8") as file:
            file.seek(self.loads_read)
            while line := file.readline():
                namespace, size = line.split()
                rule_files.load(self.kernel[namespace.removeprefix("vrf-")], file.read(int(size)))
            self.loads_read = file.tell()

    def state(self):
        """What is on the machine: texts by path, running servers, rules by VRF."""
        if (COMMANDS / "unknown").exists():
            raise Failure(f"tests/models/commands.cpp does not know: {(COMMANDS / 'unknown').read_text(encoding='utf-8')}")
        self._read_loads()
        texts = {}
        for folder in FOLDERS:
            if os.path.isdir(folder):
                for path in pathlib.Path(folder).iterdir():
                    texts[str(path)] = path.read_text(encoding="utf-8")
        with contextlib.suppress(FileNotFoundError):
            texts["/etc/motd"] = pathlib.Path("/etc/motd").read_text(encoding="utf-8")
        running = {path.name.removeprefix("sshd_service_") for path in (COMMANDS / "units").iterdir()}
        started = {name: (COMMANDS / "started" / name).read_text(encoding="utf-8") for name in running}
        return {"texts": texts, "running": running, "started": started, "kernel": self.kernel}

    def forget_commands(self):
        """Empties what the commands have recorded, which state() has read."""
        for name in ("log", "loads"):
            (COMMANDS / name).unlink(missing_ok=True)
        self.loads_read = 0

    # Its messages

    def _drain(self, receiver):
        texts = []
        with contextlib.suppress(BlockingIOError):
            while True:
                texts.append(receiver.recv(65536))
        return texts

    def _drain_journal(self):
        for text in self._drain(self.journal):
            self.messages += [line[8:].decode() for line in text.split(b"\n") if line.startswith(b"MESSAGE=")]

    def take_messages(self):
        self._drain_journal()
        messages, self.messages = self.messages, []
        return messages

