"""Chooses the tests for each mutant and judges it."""
import collections
import statistics

FIRST = 6
GROUP = 60


def members(bits, names):
    digits = bin(bits)[:1:-1]
    return [name for digit, name in zip(digits, names) if digit == "1"]


class Judge:
    def __init__(self, program, names, durations, sets, start, mutants, most_tests):
        self.most_tests = most_tests
        # A few tests take as long as all others together.
        self.long = 10 * statistics.median(durations.values())
        self.program, self.names, self.durations, self.sets, self.start = program, names, durations, sets, start
        self.kills_in_file = collections.Counter()
        self.kills_near = collections.Counter()
        # The tests that reach anything in a file, for its tables: these are read when the program starts.
        self.of_file = {}
        # How much of a file each test reaches.
        self.extent = collections.defaultdict(collections.Counter)
        for mutant in mutants:
            if mutant["id"] not in start:
                path = mutant["file"]
                bits = sets.get(mutant["id"], 0)
                self.of_file[path] = self.of_file.get(path, 0) | bits
                self.extent[path].update(members(bits, names))

    def place(self, mutant):
        return mutant["file"], str(mutant["function"])

    def stages(self, mutant):
        """Tests to run, those first that are the most likely to fail."""
        path = mutant["file"]
        stem = path.rsplit("/", 1)[-1].split(".")[0]

        def in_order(tests):
            return sorted(tests, key=lambda name: (self.durations[name] > self.long,
                                                   -self.kills_near[(self.place(mutant), name)],
                                                   -self.kills_in_file[(path, name)], stem not in name,
                                                   -self.extent[path][name], self.durations[name]))
        if mutant["id"] not in self.start:
            return [in_order(members(self.sets.get(mutant["id"], 0), self.names))]
        near = self.of_file.get(path, 0)
        rest = (1 << len(self.names)) - 1 & ~near
        return [in_order(members(near, self.names)), in_order(members(rest, self.names))]

    def run_group(self, mutant, tests):
        verdict, test, ran = self.program.run(tests, mutant["id"], self.durations)
        if verdict == "survived" and ran < len(tests):
            # A mutated table has renamed parameterized tests.
            suites = sorted({f"{name.rsplit('.', 1)[0]}.*" for name in tests})
            verdict, test, _ = self.program.run(suites, mutant["id"], self.durations)
        return verdict, test

    def judge(self, mutant):
        """Returns the verdict (killed, late, survived, unreached, compiled) and the test that killed it.

        What is reached only while the program is compiled cannot be judged.
        """
        tried = 0
        for tests in self.stages(mutant):
            tests = tests[:self.most_tests - tried] if self.most_tests else tests
            groups = [tests[:FIRST], *(tests[at:at + GROUP] for at in range(FIRST, len(tests), GROUP))]
            for group in filter(None, groups):
                tried += len(group)
                verdict, test = self.run_group(mutant, group)
                if verdict != "survived":
                    self.kills_near[(self.place(mutant), test)] += 1
                    self.kills_in_file[(mutant["file"], test)] += 1
                    return verdict, test
        return ("survived" if tried else "compiled" if mutant["of_compiler"] else "unreached"), None
