"""Holds gcovr's figures against what is asked of them.

check.py GCOVR_JSON: prints a table and the gaps, and exits with 1 when a figure is too low or a line
that no test reaches is not in gaps.txt.
"""

import json
import pathlib
import sys

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent

LINES_ASKED = 98.0
BRANCHES_ASKED = 95.0
# What reads other parties' bytes: every line.
WHOLE = (
    "src/NumberText.cpp",
    "src/NumberText.h",
    "src/Properties.cpp",
    "src/PropertyLineReader.cpp",
    "src/PropertyLineReader.h",
    "src/unix/IpcSocketTransport.cpp",
    "src/unix/PropertiesEx.cpp",
)


def read_gaps(path):
    """(file, text of the line) -> reason; ends the program where the file can't be understood."""
    gaps = {}
    entry = {}
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        key, _, value = line.partition(":")
        entry[key] = value.strip()
        if key == "reason":
            if set(entry) != {"file", "line", "reason"}:
                sys.exit(f"{path}:{number}: a gap has a file, a line and a reason")
            gaps[entry["file"], entry["line"]] = entry["reason"]
            entry = {}
    return gaps


def percent(part, whole):
    return 100.0 * part / whole if whole else 100.0


def main(report):
    gaps = read_gaps(HERE / "gaps.txt")
    used = set()
    unknown = 0
    failures = []
    all_lines = all_reached = all_branches = all_taken = 0
    print(f"{'source':<50} {'lines':>7} {'%':>7} {'branches':>9} {'%':>7}")
    missing = []
    files = sorted(json.loads(pathlib.Path(report).read_text())["files"],
                   key=lambda file: file["file"])
    for name in sorted(set(WHOLE) - {file["file"] for file in files}):
        if name.endswith(".cpp"):
            failures.append(f"{name}: nothing is known of it")
    for file in files:
        name = file["file"]
        text = (ROOT / name).read_text().splitlines()
        lines = [line for line in file["lines"] if not line["gcovr/noncode"]]
        reached = sum(line["count"] > 0 for line in lines)
        branches = [branch for line in lines for branch in line["branches"]]
        taken = sum(branch["count"] > 0 for branch in branches)
        print(f"{name:<50} {len(lines):7} {percent(reached, len(lines)):7.1f} "
              f"{len(branches):9} {percent(taken, len(branches)):7.1f}")
        all_lines += len(lines)
        all_reached += reached
        all_branches += len(branches)
        all_taken += taken
        if name in WHOLE and reached != len(lines):
            failures.append(f"{name}: not every line is reached")
        for line in lines:
            if line["count"] == 0:
                source = text[line["line_number"] - 1].strip()
                reason = gaps.get((name, source))
                used.add((name, source))
                unknown += reason is None
                missing.append(f"{name}:{line['line_number']}: {source}\n    "
                               f"{reason or 'NOT IN gaps.txt'}")
    print(f"{'all':<50} {all_lines:7} {percent(all_reached, all_lines):7.1f} "
          f"{all_branches:9} {percent(all_taken, all_branches):7.1f}")
    print("Branches without those that only an exception takes and those that the compiler knows "
          "to be unreachable (--exclude-throw-branches --exclude-unreachable-branches).")

    print(f"\nLines that no test reaches: {len(missing)}")
    print("\n".join(missing))
    for name, source in sorted(set(gaps) - used):
        print(f"{name}: '{source}' is reached now, or is no more: take it out of gaps.txt")

    if unknown:
        failures.append(f"{unknown} lines are neither reached nor in tests/coverage/gaps.txt")
    if percent(all_reached, all_lines) < LINES_ASKED:
        failures.append(f"less than {LINES_ASKED} % of all lines")
    if percent(all_taken, all_branches) < BRANCHES_ASKED:
        failures.append(f"less than {BRANCHES_ASKED} % of all branches")
    for failure in failures:
        print(f"FAILED: {failure}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
