"""Builds the instrumented test program and runs it."""
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import select
import signal
import subprocess
import sys
import time

import instrument

FLAGS = "-std=c++20 -O1 -w -Wno-narrowing -include {tree}/mutants.h"
ERROR = re.compile(r"^(?:\S*/)?tree/(\S+?):(\d+):(?:\d+:)?(?: error: (.*))?", re.MULTILINE)
NOT_CONSTANT = re.compile(r"the value of ‘(?:.*::)?(\w+)’ is not usable in a constant expression")
CPU_SECONDS = 5
PATIENCE = 20.0  # seconds without progress, beyond ten times what the test takes


def build(tree, folder, target, jobs, log):
    """Returns the compiler's messages, empty if it built."""
    folder.mkdir(parents=True, exist_ok=True)
    if not (folder / "build.ninja").exists():
        subprocess.run(["cmake", "-S", tree, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None",
                        "-DSSH_CFG_JOIN_SOURCES=ON", f"-DCMAKE_CXX_FLAGS={FLAGS.format(tree=tree)}"],
                       stdout=subprocess.DEVNULL, check=True)
    environment = {**os.environ, "LC_ALL": "C.UTF-8"}
    done = subprocess.run(["ninja", "-C", folder, "-k0", f"-j{jobs}", target], stdout=subprocess.PIPE, text=True,
                          stderr=subprocess.STDOUT, check=False, env=environment)
    log.write_text(done.stdout)
    return done.stdout if done.returncode else ""


def not_compiled(messages, found, root):
    """The points and the variables because of which the compiler complains."""
    pinned = set(NOT_CONSTANT.findall(messages))
    places = set()
    for block in re.split(r"(?m)^FAILED: ", messages):
        for path, line, text in ERROR.findall(block):
            if text and not NOT_CONSTANT.search(text):
                places.add((path, int(line)))
    return instrument.points_on_lines(found, root, places), pinned


class Program:
    def __init__(self, path, folder, root):
        self.path, self.folder, self.root = path, folder, root
        self.digest = hashlib.sha256(path.read_bytes()).hexdigest()[:24]
        self.folders = {}  # the name of the folder of each test's source

    def command(self, *arguments):
        return ["prlimit", f"--cpu={CPU_SECONDS}", "--core=0", "--", str(self.path), *arguments]

    def tests(self):
        """Maps each test to the digest of the file it is in."""
        listing = self.folder / "tests.json"
        subprocess.run(self.command("--gtest_list_tests", f"--gtest_output=json:{listing}"), check=True,
                       stdout=subprocess.DEVNULL)
        tests, digests = {}, {}
        for suite in json.loads(listing.read_text())["testsuites"]:
            for test in suite["testsuite"]:
                file = os.path.realpath(os.path.join(self.path.parent, test["file"]))
                if file not in digests:
                    digests[file] = hashlib.sha256(pathlib.Path(file).read_bytes()).hexdigest()[:24] \
                        if os.path.exists(file) else "unknown"
                name = f"{suite['name']}.{test['name']}"
                tests[name] = digests[file]
                self.folders[name] = os.path.basename(os.path.dirname(file))
        return tests

    def reached(self, *arguments):
        """The numbers of the mutants that a run reaches, its duration, and whether it passed."""
        map_file = self.folder / f"reached-{os.getpid()}-{time.monotonic_ns()}"
        started = time.monotonic()
        done = subprocess.run(self.command(*arguments), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              check=False, env={**os.environ, "MUTANTS_REACHED": str(map_file)})
        duration = time.monotonic() - started
        numbers = [match.start() for match in re.finditer(b"\x01", map_file.read_bytes())]
        map_file.unlink()
        return numbers, duration, done.returncode == 0

    def run(self, tests, number, durations):
        """Runs tests on a mutant until one fails. Returns (verdict, the failed test, tests run)."""
        environment = {**os.environ, "MUTANT": str(number)}
        command = self.command(f"--gtest_filter={':'.join(tests)}:", "--gtest_fail_fast")
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=environment,
                              start_new_session=True, stdin=subprocess.DEVNULL) as process:
            current, ran, pending, late = None, 0, b"", False
            while True:
                limit = PATIENCE + 10 * durations.get(current, 1)
                if not select.select([process.stdout], [], [], limit)[0]:
                    late = True
                    break
                data = os.read(process.stdout.fileno(), 65536)
                if not data:
                    break
                *lines, pending = (pending + data).split(b"\n")
                for line in lines:
                    if line.startswith(b"[ RUN "):
                        current = line.split()[-1].decode(errors="replace")
                        ran += 1
            if late:
                os.killpg(process.pid, signal.SIGKILL)
            status = process.wait()
        if late:
            return "late", current, ran
        return ("killed" if status != 0 else "survived"), (current if status != 0 else None), ran


def still_valid(known, files, tests, start):
    """The stored entries of tests that passed, have not changed, and reach no file whose mutants have."""
    changed = {files[path][0] // instrument.BLOCK for path in files if known["files"].get(path) != files[path]}
    return {name: entry for name, entry in known["tests"].items()
            if name in tests and entry["version"] == tests[name] and entry["passed"] and
            not any(number // instrument.BLOCK in changed for number in entry["reached"] if number not in start)}


def coverage(program, store, files, jobs, wait):
    """Which tests reach which mutants; measured only for tests that are new or changed since. `files` maps each source
    to its first mutant's number and a digest.

    Returns the tests in order, their durations, a bit set of tests for each mutant, and the mutants that the start of
    the program reaches.
    """
    tests = program.tests()
    start = set(program.reached("--gtest_list_tests")[0])
    stored = json.loads(store.read_text()) if store.exists() else {"files": {}, "tests": {}}
    known = still_valid(stored, files, tests, start)
    missing = [name for name in tests if name not in known]

    def measure(name):
        wait()
        numbers, duration, passed = program.reached(f"--gtest_filter={name}")
        return name, {"version": tests[name], "reached": numbers, "duration": duration, "passed": passed}

    def save():
        store.write_text(json.dumps({"files": files, "tests": known}))

    if missing:
        print(f"coverage of {len(missing)} tests", flush=True)
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for count, (name, entry) in enumerate(pool.map(measure, missing), 1):
            known[name] = entry
            if count % 500 == 0:
                save()
    save()
    failing = [name for name, entry in known.items() if not entry["passed"]]
    if failing:
        print(f"left out, because they fail without a mutant: {', '.join(failing)}", file=sys.stderr)
    names = [name for name in tests if known[name]["passed"]]
    sets = {}
    for index, name in enumerate(names):
        for number in known[name]["reached"]:
            sets[number] = sets.get(number, 0) | 1 << index
    return names, {name: known[name]["duration"] for name in names}, sets, start
