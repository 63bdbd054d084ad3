"""As much of the host's language as the tests need: lines without comments, words, signatures, and the
text form of projects and classes."""

import collections
import re

Signature = collections.namedtuple("Signature", "kind name parameters result")
Block = collections.namedtuple("Block", "kind flags lines number")
ClassFile = collections.namedtuple("ClassFile", "name super blocks")

KEYWORDS = {"and", "as", "assigns", "byref", "byval", "catch", "dim", "do", "downto", "each", "else", "elseif",
            "end", "exit", "false", "for", "function", "if", "in", "is", "isa", "loop", "me", "mod", "new", "next",
            "nil", "not", "or", "private", "protected", "public", "raise", "return", "select", "case", "self",
            "step", "sub", "super", "then", "to", "true", "try", "until", "wend", "while"}


def code(line):
    """The line without indentation and comment."""
    inside = False
    for at, character in enumerate(line):
        if character == '"':
            inside = not inside
        elif not inside and (line.startswith("//", at) or character == "'"):
            line = line[:at]
            break
    return line.strip()


def without_texts(line):
    return re.sub(r'"[^"]*"', '""', line)


def signature(line):
    match = re.match(r"(Sub|Function) (\w+)\(([^()]*)\)(?: as (\w+(?:\(\))?))?$", line, re.IGNORECASE)
    return Signature(*match.groups()) if match else None


def event_problem(found, declaration):
    """How a handler's first line differs from the event as it was registered; None when it does not."""
    if found.parameters != declaration.parameters:
        return f"has the parameters ({found.parameters}), the event has ({declaration.parameters})"
    if (found.result or "").lower() != (declaration.result or "").lower():
        return f"answers {found.result}, the event {declaration.result}"
    if (found.kind.lower() == "function") != bool(declaration.result):
        return f"is a {found.kind}"
    return None


# What opens a block of statements, and the line that closes it.
OPENINGS = [(re.compile(r"(sub|function)\b", re.I), r"end {0}$"), (re.compile(r"if\b.*\bthen$", re.I), r"end if$"),
            (re.compile(r"for\b", re.I), r"next\b"), (re.compile(r"while\b", re.I), r"wend$"),
            (re.compile(r"do\b", re.I), r"loop\b"), (re.compile(r"try$", re.I), r"end try$"),
            (re.compile(r"select case\b", re.I), r"end select$")]


def balance_problem(lines):
    """What opens and is not closed, or closes and was not opened; None when all is well."""
    expected = []
    for line in lines:
        text = code(line)
        opening = next(((start, close) for start, close in OPENINGS if start.match(text)), None)
        if opening:
            word = opening[0].match(text)[0].lower()
            expected.append(opening[1].format(word))
        elif re.match(r"(end|next|wend|loop)\b", text, re.I):
            if not expected or not re.match(expected[-1], text, re.I):
                return f'"{text}" closes nothing'
            expected.pop()
    return f"no {expected[-1]}" if expected else None


def class_file(text):
    """Reads a class in text form. Raises ValueError with the line that is not as it should be."""
    lines = text.splitlines()

    def fail(number, what):
        raise ValueError(f"line {number}: {what}")

    if lines[:1] != ["#tag Class"]:
        fail(1, "is not #tag Class")
    name = re.fullmatch(r"Protected Class (\w+)", lines[1])
    parent = re.fullmatch(r"Inherits (\w+)", lines[2])
    if not name:
        fail(2, "names no class")
    if not parent:
        fail(3, "names no super")
    if lines[-2:] != ["End Class", "#tag EndClass"]:
        fail(len(lines), "is not the end of a class")
    blocks, inside = [], None
    for number, line in enumerate(lines[3:-2], 4):
        opening = re.fullmatch(r"\t#tag (Event|Method|Property)(?:, Flags = (&h[0-9A-F]+))?", line)
        closing = re.fullmatch(r"\t#tag End(Event|Method|Property)", line)
        if opening:
            if inside:
                fail(number, f"opens a block inside another one, of line {inside.number}")
            if (opening[1] == "Event") != (opening[2] is None):
                fail(number, "has flags where none belong, or none where they do")
            inside = Block(opening[1], opening[2], [], number)
        elif closing:
            if not inside or inside.kind != closing[1]:
                fail(number, "closes nothing")
            blocks.append(inside)
            inside = None
        elif inside:
            if line and not line.startswith("\t\t"):
                fail(number, "is not indented")
            inside.lines.append(line[2:])
        elif line:
            fail(number, "stands outside of every block")
    if inside:
        fail(inside.number, "is not closed")
    return ClassFile(name[1], parent[1], blocks)
