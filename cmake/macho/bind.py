"""Prepares the compiler's assembly of the bundle for the linker.

    bind.py INPUT.s OUTPUT.s LIST...

The linker's own import stubs and import pointers are absolute addresses on i386, and a bundle is
never loaded where it was linked for. So every import gets one word in __DATA,__data, which becomes
an ordinary entry of the bind table, and every imported function that is called gets a
position-independent stub that jumps through its word.
"""

import pathlib
import re
import subprocess
import sys

import imports

STUB = """{0}$stub:
	calll	1f
1:	popl	%ecx
	movl	l{0}$word-1b(%ecx), %ecx
	jmpl	*%ecx
"""

# What this way of linking cannot carry, with what to do instead.
REFUSED = {
    "__mod_init_func": "a static constructor: initialise with a constant, or on first use",
    "__mod_term_func": "a static destructor: leave the object trivially destructible",
    "__thread_": "a thread-local variable: Mac OS X 10.6 has none",
    "__OBJC": "Objective-C metadata: make the class at run time",
}



def demangled(symbol):
    return subprocess.run(["llvm-cxxfilt-14", "-_", symbol], check=True, capture_output=True,
                          text=True).stdout.strip()


input_path, output_path, *lists = sys.argv[1:]
listed, listed_weak = imports.read_all(lists)
text = pathlib.Path(input_path).read_text()

for section, advice in REFUSED.items():
    if re.search(rf"\.section\t\w+,{section}|\.section\t{section}", text):
        sys.exit(f"{input_path}: the sources contain {advice}")

# Pointers to imports become plain words. Literal pools become plain constants, since the linker
# mixes literals of 8 and of 16 bytes under one name. Constant tables of pointers join the data,
# since the linker would put them behind the zero-filled section and write that into the file.
text = text.replace("__IMPORT,__pointers,non_lazy_symbol_pointers", "__DATA,__data")
text = re.sub(r"__DATA,__const\b", "__DATA,__data", text)
text = re.sub(r"\t\.indirect_symbol\t(\S+)\n\t\.long\t0\n", r"\t.long\t\1\n", text)
text = re.sub(r"__TEXT,__literal\d+,\d+byte_literals", "__TEXT,__const", text)

# A label that begins with L is no symbol, and the linker loses the distance from the symbol before
# it. It keeps those inside functions and those of strings; the others become symbols.
moved = set()
section = ""
for line in text.splitlines():
    if match := re.match(r"\t\.section\t(\S+)", line):
        section = match[1]
    elif match := re.match(r"(L[\w.$]+):", line):
        if not section.startswith(("__TEXT,__text", "__TEXT,__cstring")):
            moved.add(match[1])
text = re.sub(r"(?<![\w.$])L[\w.$]+",
              lambda match: "l" + match[0][1:] if match[0] in moved else match[0], text)

defined = set(re.findall(r"^([^\s:]+):", text, re.M))
defined |= set(re.findall(r"^\.zerofill __DATA,__\w+,([^,]+)", text, re.M))
users = {}  # symbol -> the function or table that needs it
called = set()
label = "?"
lines = []
for line in text.splitlines():
    if match := re.match(r"(_\S+):", line):
        label = match[1]
    elif match := re.match(r"(\t(?:calll|j[a-z]+)\t)(_[^\s*]+)(.*)", line):
        branch, symbol, rest = match.groups()
        if symbol not in defined:
            users.setdefault(symbol, label)
            called.add(symbol)
            line = f"{branch}{symbol}$stub{rest}"
    elif match := re.match(r"\t\.long\t(_[^\s+-]+)", line):
        if match[1] not in defined:
            users.setdefault(match[1], label)
    lines.append(line)

weak = {symbol[1:] for symbol in re.findall(r"^\t\.weak_reference (\S+)", text, re.M)}
problems = []
for symbol, user in sorted(users.items()):
    name = symbol[1:]
    if name not in listed:
        problems.append(
            f"{demangled(user)} uses {name}, which stands in no list of imports. If Mac OS X 10.6 has it, "
            f"add it to the list of its library; if not, do without it.")
    elif name in weak and name not in listed_weak:
        problems.append(
            f"{name} is declared weak, but {listed[name]} does not say `weak {name}`.")
    elif name not in weak and name in listed_weak:
        problems.append(f"{listed[name]} says `weak {name}`, but the sources do not declare it so.")
if problems:
    sys.exit("\n".join(f"{input_path}: {problem}" for problem in problems))

lines.append("\t.text")
lines += [STUB.format(symbol).rstrip() for symbol in sorted(called)]
lines.append("\t.section __DATA,__data\n\t.p2align 2")
lines += [f"l{symbol}$word:\t.long\t{symbol}" for symbol in sorted(called)]
pathlib.Path(output_path).write_text("\n".join(lines) + "\n")
