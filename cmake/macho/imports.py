"""The lists of imports: one file a library, in imports/.

The first line is `library INSTALL-NAME`; every other line is the C name of a function or a variable,
with `weak` before it when the oldest supported system might lack it. Empty lines and lines that
begin with # say nothing.
"""

import dataclasses
import pathlib
import sys


@dataclasses.dataclass
class Library:
    install_name: str
    names: list[str]
    weak: set[str]


def read(path):
    library = None
    for number, line in enumerate(pathlib.Path(path).read_text().splitlines(), 1):
        words = line.split()
        if not words or words[0].startswith("#"):
            continue
        if library is None:
            if len(words) != 2 or words[0] != "library":
                sys.exit(f"{path}:{number}: a list of imports begins with `library INSTALL-NAME`")
            library = Library(words[1], [], set())
            continue
        *marks, name = words
        if marks not in ([], ["weak"]):
            sys.exit(f"{path}:{number}: expected `NAME` or `weak NAME`, found `{line.strip()}`")
        if name in library.names:
            sys.exit(f"{path}:{number}: {name} is listed twice")
        library.names.append(name)
        if marks:
            library.weak.add(name)
    if library is None:
        sys.exit(f"{path}: the list is empty; it begins with `library INSTALL-NAME`")
    return library


def read_all(paths):
    """Every listed name, and of these the weak ones. No name may stand in two libraries."""
    names, weak = {}, set()
    for path in paths:
        library = read(path)
        for name in library.names:
            if name in names:
                sys.exit(f"{path}: {name} is already listed in {names[name]}")
            names[name] = path
        weak |= library.weak
    return names, weak
