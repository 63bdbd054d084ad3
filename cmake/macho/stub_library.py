"""Writes the assembly of a stub library: every listed name, defined, with nothing behind it.

    stub_library.py LIST OUTPUT.s

The linker reads from it which names the real library has. It is never loaded.
"""

import pathlib
import sys

import imports

source, output = sys.argv[1:]
symbols = ["_" + name for name in imports.read(source).names]
# The linker asks for it in everything it links, even where nothing is bound lazily.
symbols.append("dyld_stub_binder")
pathlib.Path(output).write_text("".join(f"\t.globl\t{s}\n{s}:\tret\n" for s in symbols))
