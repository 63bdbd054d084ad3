"""Applies the worked examples of docs/architecture.md to a copy of the product.

    apply.py ROOT OUTPUT

An example's hunk is a line of context, looked for in the whole file, and the lines to add behind it:
line numbers would be out of date with every edit.
"""

import re
import shutil
import sys
from pathlib import Path

FOLDERS = ["plugin", "cocoa", "convert", "framework", "appcast", "updater"]


def apply(root, output):
    for folder in FOLDERS:
        # With the time of now: a copy that kept its own could be older than what was built from
        # the copy before it.
        shutil.copytree(root / folder, output / folder, dirs_exist_ok=True, copy_function=shutil.copyfile)
    text = (root / "docs/architecture.md").read_text()
    for example in re.findall(r"```diff\n(.*?)```", text, re.S):
        path, lines, place = None, [], 0
        for line in example.splitlines():
            if line.startswith("+++ b/"):
                path = output / line[6:]
                lines = path.read_text().splitlines()
            elif line.startswith("+"):
                place += 1
                lines.insert(place, line[1:])
                path.write_text("\n".join(lines) + "\n")
            elif line.startswith(" "):
                place = find(lines, line[1:], path.name)


def find(lines, context, name):
    places = [i for i, text in enumerate(lines) if text == context]
    if len(places) != 1:
        sys.exit(
            f"docs/architecture.md: {name} has {len(places)} lines that read\n  {context}\n"
            "Bring the worked example up to date."
        )
    return places[0]


if __name__ == "__main__":
    apply(Path(sys.argv[1]), Path(sys.argv[2]))
