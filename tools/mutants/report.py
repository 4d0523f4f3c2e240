"""The figures, the list of survivors, and the reasons for those that cannot be killed."""
import collections
import datetime
import pathlib
import re

BEGIN, END = "<!-- mutants: begin -->", "<!-- mutants: end -->"


def explanations(path):
    """Maps (file, old line, new line) to the reason. In the list, they are separated by tabs."""
    reasons = {}
    if not path.exists():
        return reasons
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        fields = line.split("\t")
        if len(fields) != 4 or not fields[3].strip():
            raise SystemExit(f"{path}:{number}: expected file, old line, new line and reason, separated by tabs")
        reasons[tuple(fields[:3])] = fields[3]
    return reasons


def reason_of(mutant, reasons):
    return reasons.get((mutant["file"], mutant["old"], mutant["new"]))


def folder_of(path):
    parts = path.split("/")
    return "/".join(parts[:2]) if len(parts) > 2 else parts[0]


def rows(mutants, results, reasons):
    """One row per folder: name, mutants, judged, killed, survived, explained."""
    counts = collections.defaultdict(collections.Counter)
    for mutant in mutants:
        count = counts[folder_of(mutant["file"])]
        verdict = results.get(mutant["key"], {}).get("verdict")
        count["mutants"] += verdict != "compiled"
        if verdict in (None, "compiled"):
            continue
        count["judged"] += 1
        if verdict in ("killed", "late"):
            count["killed"] += 1
        elif reason_of(mutant, reasons):
            count["explained"] += 1
        else:
            count["survived"] += 1
    return [(folder, count) for folder, count in sorted(counts.items())]


def table(folders):
    lines = ["| Folder | Mutants | Judged | Killed | Explained | Survived | Survived of judged |",
             "|---|---|---|---|---|---|---|"]
    total = collections.Counter()
    for folder, count in [*folders, ("all", total)]:
        if folder != "all":
            total.update(count)
        judged = count["judged"]
        share = f"{100 * count['survived'] / judged:.1f} %" if judged else ""
        lines.append(f"| {folder} | {count['mutants']} | {judged} | {count['killed']} | {count['explained']} | "
                     f"{count['survived']} | {share} |")
    return "\n".join(lines)


def write_document(path, folders, command):
    today = datetime.datetime.now(datetime.timezone.utc).date().isoformat()
    text = f"{BEGIN}\n`{command}`, {today}:\n\n{table(folders)}\n{END}"
    document = path.read_text()
    changed, count = re.subn(f"{re.escape(BEGIN)}.*{re.escape(END)}", lambda _: text, document, flags=re.DOTALL)
    if not count:
        raise SystemExit(f"{path}: no place for the table of mutants")
    if changed != document:
        path.write_text(changed)


def survivors(mutants, results, reasons):
    """A text with a one-line difference for each."""
    lines = []
    for mutant in mutants:
        verdict = results.get(mutant["key"], {}).get("verdict")
        if verdict in ("survived", "unreached") and not reason_of(mutant, reasons):
            note = " (no test reaches it)" if verdict == "unreached" else ""
            lines.append(f"{mutant['file']}:{mutant['line']}: {mutant['kind']}{note}\n"
                         f"  - {mutant['old']}\n  + {mutant['new']}")
    return "\n".join(lines) + "\n" if lines else ""


def unused(mutants, results, reasons):
    """Explanations of mutants that do not exist or do not survive."""
    needed = {(mutant["file"], mutant["old"], mutant["new"]) for mutant in mutants
              if results.get(mutant["key"], {}).get("verdict") not in ("killed", "late")}
    return [key for key in reasons if key not in needed]


def save(path, text):
    pathlib.Path(path).write_text(text)
