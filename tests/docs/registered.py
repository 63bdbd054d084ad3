"""What the plug-in registers, from the program in registered_classes.mm."""

import collections
import os
import re
import subprocess

Declaration = collections.namedtuple("Declaration", "owner table assignable text name parameters result")

SHAPE = re.compile(r"(\w+)(?:\(([^()]*)\))?(?:\s+as\s+(\w+(?:\(\))?))?$", re.IGNORECASE)
CONSTANT = re.compile(r"(\w+) = -?\d+$")


def parse(owner, table, assignable, text):
    constant = CONSTANT.match(text) if table == "constant" else None
    if constant:
        return Declaration(owner, table, False, text, constant[1], "", None)
    name, parameters, result = SHAPE.match(text).groups()
    return Declaration(owner, table, assignable, text, name, parameters or "", result)


def read():
    output = subprocess.run([os.environ["REGISTERED_CLASSES"]], check=True, capture_output=True,
                            text=True, encoding="utf-8").stdout
    lines = [line.split("\t") for line in output.splitlines()]
    return [parse(owner, table, assignable == "assignable", text)
            for owner, table, assignable, text in lines]
