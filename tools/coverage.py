"""Sums up llvm-cov's export: lines and branches of the product, and what is not covered.

usage: coverage.py EXPORT.json UNCOVERED.txt

A template's branch counts as taken when any of its instances takes it. UNCOVERED.txt names lines
that need not be reached: FILE: FUNCTION: SOURCE TEXT # reason.
"""

import json
import sys
from collections import defaultdict
from pathlib import Path

LINES, BRANCHES = 100.0, 95.0


def main(export, excused_list):
    root = Path.cwd()
    excused = {}
    for entry in Path(excused_list).read_text().splitlines():
        if entry and not entry.startswith("#"):
            place, _, reason = entry.partition(" # ")
            name, function, text = place.split(": ", 2)
            excused[name, function, text.strip()] = reason
    used = set()
    branches = defaultdict(lambda: [0, 0])
    lines = defaultdict(int)
    data = json.loads(Path(export).read_text())["data"][0]
    places = defaultdict(list)  # of a file: first and last line of a function, and its mangled name
    for function in data["functions"]:
        files = function["filenames"]
        start, _, end, *_ = function["regions"][0]
        places[files[0]].append((start, end, function["name"]))
        for start, column, end, end_column, taken, not_taken, file, _, _ in function.get(
            "branches", []
        ):
            entry = branches[files[file], start, column, end, end_column]
            entry[0] += taken
            entry[1] += not_taken
    for file in data["files"]:
        lines.update(line_counts(file))

    def excuse(name, number):
        path = Path(name)
        relative = str(path.relative_to(root))
        text = path.read_text().splitlines()[number - 1].strip()
        for key in excused:
            if (key[0], key[2]) == (relative, text) and stands_in(places[name], number, key[1]):
                used.add(key)
                return True
        return False

    unreached = [k for k, count in lines.items() if not count]
    missed_lines = [k for k in unreached if not excuse(*k)]
    total, covered, missed_branches = 0, 0, []
    for (name, number, column, *_), (taken, not_taken) in branches.items():
        for count, which in ((taken, "taken"), (not_taken, "not taken")):
            total += 1
            if count:
                covered += 1
            elif not excuse(name, number):
                missed_branches.append((name, number, column, which))
    for name, number in sorted(missed_lines):
        print(f"{Path(name).relative_to(root)}:{number}: not reached")
    for name, number, column, which in sorted(missed_branches):
        print(f"{Path(name).relative_to(root)}:{number}:{column}: branch never {which}")
    for key in sorted(set(excused) - used):
        print("tools/uncovered.txt: no longer true, remove it: " + ": ".join(key))
    line_share = 100.0 * (len(lines) - len(missed_lines)) / len(lines)
    branch_share = 100.0 * covered / total
    print(
        f"Coverage of the product: {line_share:.1f} % of {len(lines)} lines "
        f"({len(unreached) - len(missed_lines)} excused), {branch_share:.1f} % of {total} branches"
    )
    if line_share >= LINES and branch_share >= BRANCHES:
        return 0
    print(
        f"coverage: wanted are {LINES:.0f} % of the lines and {BRANCHES:.0f} % of the branches. Add a test that "
        f"reaches those above, or list them in {excused_list} with the reason why none can.",
        file=sys.stderr,
    )
    return 1


def stands_in(places, number, function):
    """Whether a function of this name, mangled or not, goes over the line."""
    return any(
        start <= number <= end and (name == function or f"{len(function)}{function}" in name)
        for start, end, name in places
    )


def line_counts(file):
    """Execution counts by (file, line), from the segments that llvm-cov exports."""
    counts = {}
    active = None
    last = 0
    for line, _, count, has_count, is_entry, is_gap in file["segments"]:
        if active is not None:
            for number in range(last + 1, line):
                counts[file["filename"], number] = max(
                    counts.get((file["filename"], number), 0), active
                )
        if has_count and not is_gap:
            if is_entry:
                key = (file["filename"], line)
                counts[key] = max(counts.get(key, 0), count)
            active = count
        else:
            active = None
        last = line
    return counts.items()


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
