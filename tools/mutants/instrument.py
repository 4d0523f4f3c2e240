"""Writes a copy of the source tree in which every mutant can be selected while the program runs."""
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shutil
import subprocess

import points

RUNTIME = pathlib.Path(__file__).parents[2] / "tests" / "support" / "mutants"
# Numbers of a file begin at a multiple of this, so that a change in one file does not renumber the others.
BLOCK = 2048


def sources(root):
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=root, capture_output=True, text=True,
                            check=False)
    if listed.returncode == 0:
        return [path for path in listed.stdout.splitlines() if os.path.isfile(f"{root}/{path}")]
    return [str(path.relative_to(root)) for path in pathlib.Path(root).rglob("*") if path.is_file()]


def is_mutated(path):
    return path.startswith("src/") and path.endswith((".cpp", ".h")) and not path.endswith("trace_points.h")


def digest(*parts):
    return hashlib.sha256(b"\0".join(parts)).hexdigest()[:24]


def find_one(job):
    path, source, root, folders = job
    return path, points.find(path, source, root, folders)


def find_points(root, paths, cache, jobs, folders):
    """The points of each file, from the cache if no source and not the tool has changed."""
    headers = b"".join((pathlib.Path(root) / path).read_bytes() for path in paths if path.endswith(".h"))
    tool = pathlib.Path(points.__file__).read_bytes()
    found, missing = {}, []
    for path in paths:
        source = (pathlib.Path(root) / path).read_bytes()
        place = cache / f"{digest(path.encode(), source, headers, tool)}.json"
        if place.exists():
            found[path] = json.loads(place.read_text())
        else:
            missing.append((place, (path, source, root, folders)))
    with concurrent.futures.ProcessPoolExecutor(jobs) as pool:
        for (place, _), (path, result) in zip(missing, pool.map(find_one, [job for _, job in missing])):
            if result["errors"]:
                raise SystemExit(f"{path}: {result['errors'][0]}")
            place.write_text(json.dumps(result))
            found[path] = result
    return found


def constant_variables(found, pinned):
    """The variables that must remain constant expressions: those that constant expressions read, and what these read."""
    variables, waiting = {}, []
    for result in found.values():
        variables.update(result["variables"])
    for result in found.values():
        waiting += result["constant_uses"]
    waiting += [key for key, variable in variables.items() if variable["fixed"] or variable["name"] in pinned]
    constant = set()
    while waiting:
        key = waiting.pop()
        if key not in constant:
            constant.add(key)
            waiting += variables.get(key, {"reads": []})["reads"]
    return constant


def one_line(text):
    return re.sub(r"\s+", " ", text).strip()


def difference(source, begin, end, other):
    """The lines that change, before and after, each as one line."""
    first = source.rfind("\n", 0, begin) + 1
    last = source.find("\n", end)
    last = len(source) if last < 0 else last
    old, new = source[first:last], source[first:begin] + other + source[end:last]
    return one_line(old), one_line(new)


def mutants_of(path, source, usable, base):
    """Numbers the points of a file. Returns the mutants; each point gets its first number."""
    mutants, number = [], base
    for point in usable:
        point["id"] = number
        for begin, end, other in point["alternatives"]:
            old, new = difference(source, begin, end, other)
            mutants.append({"id": number, "file": path, "line": source.count("\n", 0, begin) + 1, "kind": point["kind"],
                            "old": old, "new": new, "at": begin, "of_compiler": "mutants::in(" in point["prefix"] + point["suffix"] or
                            "mutants::constant_text" in point["prefix"],
                            "function": point["function"]})
            number += 1
    if number > base + BLOCK:
        raise SystemExit(f"{path}: more than {BLOCK} mutants")
    return mutants


def instrumented(source, usable, result, constant):
    """The source with the points in it; the lines keep their numbers."""
    suffixes, prefixes, replacements = {}, {}, {}
    for order, point in enumerate(usable):
        def text(template, point=point):
            return template.replace("{id}", str(point["id"]))
        prefixes.setdefault(point["begin"], []).append((-point["end"], order, text(point["prefix"])))
        suffixes.setdefault(point["end"], []).append((-point["begin"], -order, text(point["suffix"])))
        if point["replaced"]:
            begin, end, other = point["replaced"]
            lines = source.count("\n", begin, end)
            replacements[begin] = (end, text(other) + "\n" * lines)
    for key, variable in result["variables"].items():
        at = variable["constexpr"]
        if key not in constant and at is not None and at not in replacements:
            replacements[at] = (at + len("constexpr"), variable["instead"])
    for begin, end in result["assertions"]:
        replacements[begin] = (end, "\n" * source.count("\n", begin, end))
    output, at = [], 0
    for place in sorted({*suffixes, *prefixes, *replacements}):
        if place < at:  # inside what was replaced
            continue
        output.append(source[at:place])
        at = place
        output += [text for *_, text in sorted(suffixes.get(place, []))]
        output += [text for *_, text in sorted(prefixes.get(place, []))] if place not in replacements else []
        if place in replacements:
            at, text = replacements[place]
            output.append(text)
            output += [text for *_, text in sorted(suffixes.get(at, []))] if at in suffixes and at == place else []
    output.append(source[at:])
    return "".join(output)


def write_if_changed(path, data):
    if not path.exists() or path.read_bytes() != data:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)


def usable_points(result, constant, dropped, path):
    return [point for point in result["points"]
            if (point["variable"] is None or point["variable"] not in constant) and
            [path, point["begin"], point["end"], point["kind"]] not in dropped]


def write_tree(root, tree, found, dropped, pinned):
    """Returns the mutants, and the number of those in constants that the compiler needs.

    `dropped`: points that do not compile; `pinned`: names of variables that must stay constant.
    """
    constant = constant_variables(found, pinned)
    paths = sources(root)
    mutants, fixed = [], 0
    for index, path in enumerate(sorted(found)):
        source = (pathlib.Path(root) / path).read_bytes().decode("latin-1")
        result = found[path]
        usable = usable_points(result, constant, dropped, path)
        fixed += sum(len(point["alternatives"]) for point in result["points"]
                     if point["variable"] is not None and point["variable"] in constant)
        mutants += mutants_of(path, source, usable, 1 + index * BLOCK)
        write_if_changed(tree / path, instrumented(source, usable, result, constant).encode("latin-1"))
    for path in paths:
        if path not in found:
            write_if_changed(tree / path, (pathlib.Path(root) / path).read_bytes())
            shutil.copymode(pathlib.Path(root) / path, tree / path)
    write_if_changed(tree / "mutants.h", (RUNTIME / "mutants.h").read_bytes())
    write_if_changed(tree / "src" / "mutants.cpp", (RUNTIME / "mutants.cpp").read_bytes())
    wanted = {*paths, "mutants.h", "src/mutants.cpp"}
    for path in tree.rglob("*"):
        if path.is_file() and str(path.relative_to(tree)) not in wanted:
            path.unlink()
    return mutants, fixed


def points_on_lines(found, root, places):
    """The points on the given lines of files; on a line without any, those of its function."""
    chosen = []
    for path, line in places:
        if path not in found:
            continue
        source = (pathlib.Path(root) / path).read_bytes()
        begin = 0
        for _ in range(line - 1):
            begin = source.find(b"\n", begin) + 1
        end = source.find(b"\n", begin)
        on_line = [point for point in found[path]["points"] if point["begin"] <= end and point["end"] >= begin and
                   (point["begin"] >= begin or point["end"] <= end or point["replaced"])]
        if not on_line:
            on_line = [point for point in found[path]["points"] if point["function"] and
                       point["function"][0] <= begin <= point["function"][1]]
        chosen += [[path, point["begin"], point["end"], point["kind"]] for point in on_line]
    return chosen
