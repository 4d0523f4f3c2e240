"""tools/mutants on a small library whose test program takes GoogleTest's options."""
import pathlib
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]

BUILD = """cmake_minimum_required(VERSION 3.25)
project(small CXX)
file(GLOB sources CONFIGURE_DEPENDS src/*.cpp)
add_library(agent STATIC ${sources})
target_include_directories(agent PUBLIC src)
add_executable(unit_tests test.cpp)
target_link_libraries(unit_tests agent)
"""

HEADER = """#pragma once
inline constexpr int row_count = 2;
inline constexpr char unit[] = "ms";
bool is_within(int value);
int capped(int value);
int steps(int distance);
int untested(int value);
"""

SOURCE = """#include "limits.h"

constexpr int limits[row_count] = {10, 20};

bool is_within(int value) {
    return value >= limits[0] && value < limits[1];
}

int capped(int value) {
    return value > 5 ? 5 : value;
}

int steps(int distance) {
    int count = 0;
    while (distance > 0) {
        distance -= 2;
        count++;
    }
    return count;
}

int untested(int value) {
    return value - 1;
}
"""

TESTS = r"""#include <cstdio>
#include <cstring>
#include <string>
#include "limits.h"

struct test { const char* name; bool (*passes)(); };

const test tests[] = {
    {"limits.within", [] { return is_within(10) && is_within(19); }},
    {"limits.outside", [] { return !is_within(9) && !is_within(20); }},
    {"limits.capped", [] { return capped(4) == 4 && capped(5) == 5 && capped(6) == 5; }},
    {"limits.steps", [] { return steps(4) == 2 && steps(3) == 2 && steps(1) == 1; }},
    {"limits.unit", [] { return strcmp(unit, "ms") == 0; }},
};

int list(const char* path) {
    FILE* file = fopen(path, "w");
    fprintf(file, "{\"testsuites\": [{\"name\": \"limits\", \"testsuite\": [");
    for (const test& each : tests) {
        fprintf(file, "%s{\"name\": \"%s\", \"file\": \"" __FILE__ "\"}", &each == tests ? "" : ", ", strchr(each.name, '.') + 1);
    }
    fprintf(file, "]}]}");
    return fclose(file);
}

int main(int count, char** arguments) {
    const std::string first = count > 1 ? arguments[1] : "";
    if (first == "--gtest_list_tests") {
        return count > 2 ? list(strchr(arguments[2], ':') + 1) : 0;
    }
    const std::string filter = ":" + first.substr(first.find('=') + 1) + ":";
    for (const test& each : tests) {
        if (filter.find(std::string(":") + each.name + ":") != std::string::npos) {
            printf("[ RUN      ] %s\n", each.name);
            fflush(stdout);
            if (!each.passes()) {
                return 1;
            }
        }
    }
    return 0;
}
"""

CAPPED = ("return value > 5 ? 5 : value;", "return value >= 5 ? 5 : value;")
UNTESTED = ("return value - 1;", "return value + 1;")


class Tree:
    def __init__(self, path):
        self.path = path
        self.write("CMakeLists.txt", BUILD)
        self.write("src/limits.h", HEADER)
        self.write("src/limits.cpp", SOURCE)
        self.write("test.cpp", TESTS)
        self.write("explained.txt", "")

    def write(self, name, text):
        (self.path / name).parent.mkdir(exist_ok=True)
        (self.path / name).write_text(text)

    def run(self, *arguments):
        done = subprocess.run([PROJECT / "tools" / "mutants" / "run", "--source", self.path, "--work",
                               self.path.parent / "work", "--explained", "explained.txt", "--cpu-seconds", "1",
                               "--jobs", "2", *arguments], capture_output=True, text=True, check=False)
        assert done.returncode == 0, done.stdout + done.stderr
        return done.stdout


def survivors(output):
    lines = output.splitlines()
    return {(lines[at + 1][4:], lines[at + 2][4:]) for at, line in enumerate(lines) if line.startswith("src/")}


def figures(output):
    return [cell.strip() for cell in output.splitlines()[-1].split("|")[2:7]]


@pytest.fixture(name="tree", scope="module")
def make_tree(tmp_path_factory):
    path = tmp_path_factory.mktemp("mutants") / "source"
    path.mkdir()
    return Tree(path)


def test_survivors_are_listed_and_killed_by_a_better_test(tree):
    first = tree.run()
    # Everything else is killed, also the row of the table, the text, and the loop that never ends.
    assert {CAPPED, UNTESTED} <= survivors(first) <= {CAPPED, UNTESTED, ("return value - 1;", "return value - 0;")}
    assert "(no test reaches it)" in first
    mutants, judged, killed, explained, survived = map(int, figures(first))
    assert (mutants, explained, survived) == (judged, 0, len(survivors(first))) and killed == mutants - survived >= 18

    # The verdicts are kept.
    assert "judging" not in tree.run()

    tree.write("explained.txt", "\t".join(["src/limits.cpp", *CAPPED, "equal values give the same result"]) + "\n")
    tree.write("test.cpp", TESTS.replace("is_within(10)", "untested(4) == 3 && is_within(10)"))
    second = tree.run()
    assert survivors(second) == set() and f"judging {survived} mutants" in second
    assert figures(second)[1:] == [str(mutants), str(mutants - 1), "1", "0"]


def test_explanations_of_dead_mutants_are_reported(tree):
    tree.write("explained.txt", "src/limits.cpp\tcount++;\t;\tnobody counts\n")
    assert "no longer survives, though explained: src/limits.cpp: count++; => ;" in tree.run()
