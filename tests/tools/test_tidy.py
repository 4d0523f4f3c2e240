"""tools/tidy on a small build with one folder."""
import json
import pathlib
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]

CLEAN = "int one() {\n    return 1;\n}\n"
BRACELESS = "int sign(int n) {\n    if (n < 0)\n        return -1;\n    return 1;\n}\n"
NULL_POINTER = "int read(bool ready) {\n    int* value = nullptr;\n    if (ready) {\n        return *value;\n    }\n    return 0;\n}\n"


@pytest.fixture(name="tree")
def make_tree(tmp_path):
    (tmp_path / "src").mkdir()
    (tmp_path / "build").mkdir()
    (tmp_path / ".clang-tidy").write_text(
        "Checks: '-*,bugprone-*,clang-analyzer-*,readability-braces-around-statements'\nWarningsAsErrors: '*'\n")
    (tmp_path / "src" / "common.h").write_text("")
    for name in ["first.cpp", "second.cpp", "alone.cpp"]:
        (tmp_path / "src" / name).write_text(CLEAN.replace("one", name.removesuffix(".cpp")))
    (tmp_path / "build" / "compile_commands.json").write_text(json.dumps(
        [{"directory": str(tmp_path), "file": f"{tmp_path}/src/{name}.cpp",
          "command": f"c++ {define}-std=c++20 -o {name}.o -c {tmp_path}/src/{name}.cpp"}
         for name, define in [("first", ""), ("second", ""), ("alone", "-DALONE ")]]))
    return tmp_path


def tidy(tree, *files):
    files = files or ("src/first.cpp", "src/second.cpp", "src/alone.cpp")
    return subprocess.run([PROJECT / "tools" / "tidy", "build", "--headers", "src/common.h", "--", *files], cwd=tree,
                          capture_output=True, text=True, check=False)


def stamps(tree):
    return {path.name: path.stat().st_mtime_ns for path in (tree / "build" / "tidy").glob("*.clean")}


def test_clean_sources_pass(tree):
    done = tidy(tree)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert len(stamps(tree)) == 2


@pytest.mark.parametrize("file", ["first.cpp", "second.cpp", "alone.cpp"])
@pytest.mark.parametrize("text, check", [(BRACELESS, "readability-braces-around-statements"),
                                         (NULL_POINTER, "clang-analyzer-core.NullDereference")])
def test_a_fault_is_found_in_each_source(tree, file, text, check):
    (tree / "src" / file).write_text(text)
    done = tidy(tree)
    assert done.returncode == 1
    line = 1 + text.split("return")[0].count("\n") - (text == BRACELESS)
    assert f"src/{file}:{line}:" in done.stdout and check in done.stdout
    # It is found again until it is corrected.
    assert tidy(tree).returncode == 1
    (tree / "src" / file).write_text(CLEAN.replace("one", "corrected"))
    assert tidy(tree).returncode == 0


@pytest.mark.parametrize("file, checked_again", [("src/first.cpp", 1), ("src/alone.cpp", 1), ("src/common.h", 2),
                                                 (".clang-tidy", 2)])
def test_only_what_changed_is_checked_again(tree, file, checked_again):
    assert tidy(tree).returncode == 0
    before = stamps(tree)
    assert tidy(tree).returncode == 0
    assert stamps(tree) == before
    with open(tree / file, "a", encoding="ascii") as changed:
        changed.write("\n")
    assert tidy(tree).returncode == 0
    after = stamps(tree)
    assert sum(after[name] != before[name] for name in before) == checked_again


def test_a_source_that_is_not_compiled_is_an_error(tree):
    (tree / "src" / "forgotten.cpp").write_text(CLEAN)
    done = tidy(tree, "src/first.cpp", "src/forgotten.cpp")
    assert (done.returncode, done.stderr) == (2, "not compiled in build: src/forgotten.cpp\n")
