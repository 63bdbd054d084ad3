"""The little that the tests need to know about Markdown, as it is read on the usual forges."""

import collections
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]
NO_SOURCES = {"build", "dist", ".git"}

Fence = collections.namedtuple("Fence", "marker language lines number")
Heading = collections.namedtuple("Heading", "level text number")


def documents():
    found = []
    for entry in ROOT.iterdir():
        if entry.is_dir() and entry.name not in NO_SOURCES:
            found += entry.rglob("*.md")
        elif entry.suffix == ".md":
            found.append(entry)
    return sorted(found)


def read(relative):
    return (ROOT / relative).read_text(encoding="utf-8")


def split(text):
    """[(number, line)] outside of fences, and the fences. A fence's marker is the comment in the
    line before it."""
    prose, fences, inside, last = [], [], None, ""
    for number, line in enumerate(text.splitlines(), 1):
        fence = re.match(r"\s*(```+)\s*(\w*)\s*$", line)
        if inside is not None:
            if fence and not fence[2]:
                fences.append(inside)
                inside = None
            else:
                inside.lines.append(line)
            continue
        if fence:
            marker = re.match(r"<!-- (.*) -->$", last)
            inside = Fence(marker[1] if marker else None, fence[2], [], number)
        else:
            prose.append((number, line))
        last = line
    if inside is not None:
        raise ValueError(f"the fence in line {inside.number} is not closed")
    return prose, fences


def headings(text):
    found = []
    for number, line in split(text)[0]:
        match = re.match(r"(#{1,6})\s+(.*?)\s*#*$", line)
        if match:
            found.append(Heading(len(match[1]), match[2], number))
    return found


def anchors(text):
    """The names under which the headings of a document can be linked."""
    seen, names = collections.Counter(), set()
    for heading in headings(text):
        plain = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading.text)
        parts = plain.split("`")
        parts[::2] = [re.sub(r"(?<!\w)_([^_]+)_(?!\w)", r"\1", part) for part in parts[::2]]
        plain = "".join(parts)
        slug = re.sub(r"[^\w\- ]", "", plain.lower()).strip().replace(" ", "-")
        names.add(slug if not seen[slug] else f"{slug}-{seen[slug]}")
        seen[slug] += 1
    return names
