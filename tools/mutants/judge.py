"""Chooses the tests for each mutant and judges it."""
import collections
import statistics

FIRST = 6
GROUP = 60


def members(bits, names):
    digits = bin(bits)[:1:-1]
    return [name for digit, name in zip(digits, names) if digit == "1"]


def folder_of(path):
    return path.split("/")[-2]


class Judge:
    def __init__(self, program, names, durations, sets, start, mutants, most_tests):
        self.most_tests = most_tests
        # A few tests take as long as all others together.
        self.long = 5 * statistics.median(durations.values())
        self.program, self.names, self.durations, self.sets, self.start = program, names, durations, sets, start
        self.kills = collections.Counter()
        # How much of a file and of a folder each test reaches.
        self.extent = collections.defaultdict(collections.Counter)
        for mutant in mutants:
            if mutant["id"] not in start:
                path = mutant["file"]
                reached = members(sets.get(mutant["id"], 0), names)
                self.extent[path].update(reached)
                self.extent[folder_of(path)].update(reached)

    def places(self, mutant):
        """Function, file and folder."""
        path = mutant["file"]
        return [(path, str(mutant["function"])), path, folder_of(path)]

    def note_kill(self, mutant, test):
        self.kills.update((place, test) for place in self.places(mutant))

    def tests_for(self, mutant):
        """Tests to run, those first that are the most likely to fail.

        Every test may read the tables that are initialized when the program starts, most likely one that reaches much of
        the folder.
        """
        path = mutant["file"]
        folder = folder_of(path)
        in_table = mutant["id"] in self.start
        stem = path.rsplit("/", 1)[-1].split(".")[0]

        near, in_file, in_folder = self.places(mutant)

        def order(name):
            duration = self.durations[name]
            return (duration > self.long, -self.kills[near, name], -self.kills[in_file, name], stem not in name,
                    -self.kills[in_folder, name], self.program.folders[name] != folder,
                    -self.extent[folder if in_table else path][name] / duration, duration)
        return sorted(self.names if in_table else members(self.sets.get(mutant["id"], 0), self.names), key=order)

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
        tests = self.tests_for(mutant)
        tests = tests[:self.most_tests] if self.most_tests else tests
        groups = [tests[:FIRST], *(tests[at:at + GROUP] for at in range(FIRST, len(tests), GROUP))]
        for group in filter(None, groups):
            verdict, test = self.run_group(mutant, group)
            if verdict != "survived":
                self.note_kill(mutant, test)
                return verdict, test
        return ("survived" if tests else "compiled" if mutant["of_compiler"] else "unreached"), None
