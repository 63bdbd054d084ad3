"""The script for Macs keeps to what Python 2.6 to 3.x all understand. No Python 2 can be had from
Debian 12, so this reads the script and refuses whatever one of them lacks:

- text that is not ASCII (Python 2 wants to be told an encoding), lines over 100 columns
- print without parentheses; anything that is not in `from __future__ import division,
  print_function`
- string prefixes but b: u is unknown to 3.0 to 3.2, r to none but with u and b combined, f to 3.5
- sets and dictionaries by comprehension, sets in braces, with statements of several managers
  (2.7); nonlocal, arguments by keyword only, annotations, `raise … from`, `yield from`, stars in
  displays, calls after a star, matrix products, `:=`, match, async, decorators of any expression,
  underscores in numbers (3.x)
- super() and classes without a base (which differ), metaclasses by keyword
- tuples as parameters, backquotes, `<>`, `exec`, octal numbers without o, long numbers, `except X,
  e`, `raise X, e` (these do not parse in 3.x, which runs this test)
- format() with automatic numbers (2.7); % with bytes on the left (3.0 to 3.4)
- modules, functions and methods that came later than 2.6 or went before 3.x
"""

import ast
import io
import os
import re
import tokenize
import unittest

PATH = os.environ.get("MAC_CHECK_SCRIPT")

MODULES = {"__future__", "ctypes", "hashlib", "optparse", "os", "platform", "re", "shutil",
           "signal", "struct", "subprocess", "sys", "tempfile", "threading", "time", "traceback"}
# Either name of a module that was renamed, inside `try: import … except ImportError: import …`.
RENAMED = {"http.server": "BaseHTTPServer"}

NODES = {  # node: since which version
    "Set": "2.7", "SetComp": "2.7", "DictComp": "2.7", "Nonlocal": "3.0", "AnnAssign": "3.6",
    "JoinedStr": "3.6", "YieldFrom": "3.3", "Starred": "3.0 but in calls", "MatMult": "3.5",
    "NamedExpr": "3.8", "Match": "3.10", "AsyncFunctionDef": "3.5", "AsyncFor": "3.5",
    "AsyncWith": "3.5", "Await": "3.5", "TryStar": "3.11", "Constant Ellipsis": "3.0"}

# Of the modules above: what 2.6 lacks or a 3.x has taken away.
NAMES = {
    "ctypes": {"c_ssize_t", "c_time_t"},
    "os": {"getcwdu", "tmpnam", "popen2", "fsencode", "fsdecode", "replace", "cpu_count",
           "get_terminal_size", "scandir", "environb"},
    "platform": {"linux_distribution", "dist", "popen"},
    "re": {"fullmatch"},
    "shutil": {"which", "disk_usage", "make_archive", "unpack_archive"},
    "signal": {"Signals", "valid_signals"},
    "subprocess": {"check_output", "run", "DEVNULL", "TimeoutExpired", "getoutput"},
    "sys": {"maxint", "exc_clear", "exc_type", "setdefaultencoding", "intern"},
    "tempfile": {"TemporaryDirectory", "mktemp"},
    "threading": {"Barrier", "get_ident", "main_thread"},
    "time": {"clock", "monotonic", "perf_counter", "time_ns"},
    "string": {"letters", "maketrans"}}
METHODS = {"has_key": "gone in 3.0", "iteritems": "gone in 3.0", "iterkeys": "gone in 3.0",
           "itervalues": "gone in 3.0", "viewitems": "2.7 alone", "to_bytes": "3.2",
           "from_bytes": "3.2", "bit_length": "2.7", "casefold": "3.3", "isAlive": "gone in 3.9",
           "total_seconds": "2.7", "hex": "3.5 for bytes", "removeprefix": "3.9",
           "removesuffix": "3.9", "setDaemon": "warned of from 3.10", "next": "gone in 3.0",
           "assertIn": "2.7"}
FUNCTIONS = {"unicode", "unichr", "xrange", "raw_input", "long", "basestring", "execfile", "file",
             "reduce", "cmp", "apply", "reload", "intern", "buffer", "memoryview", "exec",
             "ascii", "breakpoint", "super", "aiter", "anext", "callable"}


def complaints(source):
    """What is wrong, one line each."""
    found = []

    def complain(line, what):
        found.append(f"line {line}: {what}")

    for number, line in enumerate(source.splitlines(), 1):
        if not line.isascii():
            complain(number, "not ASCII")
        if len(line) > 100:
            complain(number, f"{len(line)} columns")

    for token in tokenize.generate_tokens(io.StringIO(source).readline):
        if token.type == tokenize.STRING:
            prefix = re.match(r"\w*", token.string)[0]
            if prefix.lower() not in ("", "b", "r"):
                complain(token.start[0], f"a string with the prefix {prefix}")
        if token.type == tokenize.NUMBER and "_" in token.string:
            complain(token.start[0], f"{token.string}, a number with underscores")

    tree = ast.parse(source)
    futures = [alias.name for node in ast.walk(tree) if isinstance(node, ast.ImportFrom)
               and node.module == "__future__" for alias in node.names]
    if sorted(futures) != ["division", "print_function"]:
        complain(1, f"from __future__ import {', '.join(futures)}")

    in_calls = {id(part) for node in ast.walk(tree) if isinstance(node, ast.Call)
                for part in node.args}
    shielded = set()
    for node in ast.walk(tree):
        if isinstance(node, ast.Try):
            shielded.update(id(part) for part in node.body)
            for handler in node.handlers:
                shielded.update(id(part) for part in handler.body)

    for node in ast.walk(tree):
        line = getattr(node, "lineno", 0)
        name = type(node).__name__
        if name in NODES and not (name == "Starred" and id(node) in in_calls):
            complain(line, f"{name} is of Python {NODES[name]}")
        if isinstance(node, ast.With) and len(node.items) > 1:
            complain(line, "a with statement of several managers is of Python 2.7")
        if isinstance(node, ast.Raise) and node.cause:
            complain(line, "raise … from is of Python 3.0")
        if isinstance(node, ast.ClassDef):
            if not node.bases or node.keywords:
                complain(line, f"class {node.name} needs a base, and no keywords")
        if isinstance(node, (ast.FunctionDef, ast.Lambda)):
            given = node.args
            if given.kwonlyargs or given.posonlyargs:
                complain(line, "arguments by keyword or by position only are of Python 3.x")
            if getattr(node, "returns", None) or any(part.annotation for part in given.args):
                complain(line, "annotations are of Python 3.0")
        if isinstance(node, (ast.FunctionDef, ast.ClassDef)):
            for decorator in node.decorator_list:
                if isinstance(decorator, ast.Call):
                    decorator = decorator.func
                while isinstance(decorator, ast.Attribute):
                    decorator = decorator.value
                if not isinstance(decorator, ast.Name):
                    complain(line, "a decorator of any expression is of Python 3.9")
        if isinstance(node, ast.Call):
            stars = [i for i, part in enumerate(node.args) if isinstance(part, ast.Starred)]
            if stars and stars != [len(node.args) - 1]:
                complain(line, "arguments after a star are of Python 3.5")
            doubles = [i for i, part in enumerate(node.keywords) if part.arg is None]
            if doubles and doubles != [len(node.keywords) - 1]:
                complain(line, "arguments after two stars are of Python 3.5")
            if isinstance(node.func, ast.Name) and node.func.id in FUNCTIONS:
                complain(line, f"{node.func.id}() is not in all of 2.6 to 3.x")
            if isinstance(node.func, ast.Attribute):
                method, owner = node.func.attr, node.func.value
                if method in METHODS:
                    complain(line, f".{method}(): {METHODS[method]}")
                if method == "format" and isinstance(owner, ast.Constant) and (
                        re.search(r"\{[:!}]", str(owner.value))):
                    complain(line, "format() with automatic numbers is of Python 2.7")
                if method in ("encode", "decode") and node.keywords:
                    complain(line, f".{method}() takes keywords from Python 2.7 on")
        if isinstance(node, ast.Attribute) and isinstance(node.value, ast.Name):
            if node.attr in NAMES.get(node.value.id, ()):
                complain(line, f"{node.value.id}.{node.attr} is not in all of 2.6 to 3.x")
        if isinstance(node, ast.BinOp) and isinstance(node.op, ast.Mod):
            if isinstance(node.left, ast.Constant) and isinstance(node.left.value, bytes):
                complain(line, "% with bytes is not in 3.0 to 3.4")
        if isinstance(node, ast.Subscript) and isinstance(node.value, ast.Constant):
            if isinstance(node.value.value, bytes) and not isinstance(node.slice, ast.Slice):
                complain(line, "an index into bytes gives text in 2.x and a number in 3.x")
        if isinstance(node, (ast.Import, ast.ImportFrom)):
            modules = ([node.module] if isinstance(node, ast.ImportFrom)
                       else [alias.name for alias in node.names])
            for module in modules:
                renamed = module in RENAMED or module in RENAMED.values()
                if not (module in MODULES or renamed and id(node) in shielded):
                    complain(line, f"the module {module} is not known to be in 2.6 to 3.x")
    return found


START = "from __future__ import division, print_function\n"


class Subset(unittest.TestCase):
    def test_the_script_keeps_to_it(self):
        with open(PATH, encoding="utf-8") as script:
            self.assertEqual([], complaints(script.read()))

    def test_refuses_what_one_of_them_lacks(self):
        for source in ("f'{1}'", "u'a'", "{1, 2}", "{a for a in b}", "{a: a for a in b}",
                       "with a as b, c as d: pass", "def f(*, a): pass", "def f(a: int): pass",
                       "def f() -> int: pass", "raise A from b", "a, *b = c", "[*a]", "f(*a, b)",
                       "f(**a, b=c)", "1_000", "a @ b", "(a := 1)", "class A: pass",
                       "class A(metaclass=B): pass", "super().f()", "'{} {}'.format(1, 2)",
                       "b'%d' % 1", "b'ab'[0]", "import argparse", "from http.server import A",
                       "subprocess.check_output(a)", "subprocess.run(a)", "a.iteritems()",
                       "a.decode('utf-8', errors='replace')", "xrange(5)", "'\u00e4'",
                       "x = '" + "a" * 100 + "'", "async def f(): pass", "time.monotonic()",
                       "def f():\n  a = 1\n  def g():\n    nonlocal a", "ctypes.c_ssize_t"):
            self.assertNotEqual([], complaints(START + source + "\n"), source)
        self.assertNotEqual([], complaints("print(1)\n"))

    def test_lets_the_rest_pass(self):
        for source in ("b'a'", "r'a'", "f(a, *b)", "f(a, *b, **c)", "f(a, b=c, *d, **e)",
                       "class A(object): pass", "'{0}'.format(1)", "'%d' % 1", "0o755",
                       "try:\n  pass\nexcept A as b:\n  pass", "with a as b: pass",
                       "try:\n  from http.server import A\n"
                       "except ImportError:\n  from BaseHTTPServer import A",
                       "a = [b for b in c]", "dict((a, b) for a, b in c)", "lambda a, *b: b"):
            self.assertEqual([], complaints(START + source + "\n"), source)


if __name__ == "__main__":
    unittest.main()
