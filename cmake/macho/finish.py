"""Finishes the linked bundle: writes the tables of its last segment, __LINKEDIT, anew.

    finish.py INPUT OUTPUT LIST...

What the linker does not do: mark the weak imports, say the rebases briefly, and leave out the
symbols of everything that is not imported or exported.
"""

import pathlib
import struct
import sys

import imports

LC_SEGMENT, LC_SYMTAB, LC_DYSYMTAB = 0x1, 0x2, 0xB
LC_DYLD_INFO_ONLY, LC_FUNCTION_STARTS, LC_DATA_IN_CODE = 0x80000022, 0x26, 0x29
N_TYPE, N_UNDF, N_EXT, N_WEAK_REF = 0x0E, 0x00, 0x01, 0x40
REBASE_SET_TYPE_POINTER, REBASE_SET_SEGMENT, REBASE_SKIP, REBASE_DO = 0x11, 0x20, 0x40, 0x50
BIND_SET_SYMBOL, BIND_WEAK_IMPORT = 0x40, 0x01
DATA_SEGMENT = 1


def load_commands(image):
    """Offset of each load command, by its number; of several of a kind, of the last."""
    count, at, found = struct.unpack_from("<I", image, 16)[0], 28, {}
    for _ in range(count):
        command, size = struct.unpack_from("<2I", image, at)
        found[command] = at
        at += size
    return found


def uleb(table, at):
    value = shift = 0
    while True:
        value |= (table[at] & 0x7F) << shift
        at, shift, more = at + 1, shift + 7, table[at] & 0x80
        if not more:
            return value, at


def to_uleb(value):
    encoded = b""
    while value > 0x7F:
        encoded += bytes([value & 0x7F | 0x80])
        value >>= 7
    return encoded + bytes([value])


def rebased_words(table):
    """Word offsets in __DATA, from the few opcodes that this linker uses."""
    at, offset, words = 0, 0, []
    while at < len(table) and table[at]:
        opcode, immediate, at = table[at] & 0xF0, table[at] & 0x0F, at + 1
        if opcode == REBASE_SET_SEGMENT and immediate == DATA_SEGMENT:
            offset, at = uleb(table, at)
        elif opcode == REBASE_DO:
            words += range(offset // 4, offset // 4 + immediate)
            offset += 4 * immediate
        elif opcode != 0x10 or immediate != 1:
            sys.exit(f"the linker wrote the rebase opcode {opcode | immediate:#x}, which is new")
        if offset % 4:
            sys.exit(f"the linker wants a rebase at {offset:#x} of __DATA, which is no word")
    return sorted(words)


def brief_rebases(words):
    table, at = bytes([REBASE_SET_TYPE_POINTER, REBASE_SET_SEGMENT | DATA_SEGMENT]), words[0]
    table += to_uleb(4 * at)
    while words:
        while at < words[0]:
            skip = min(15, words[0] - at)
            table += bytes([REBASE_SKIP | skip])
            at += skip
        run = 0
        while run < min(15, len(words)) and words[run] == at + run:
            run += 1
        table += bytes([REBASE_DO | run])
        at, words = at + run, words[run:]
    return table + b"\0"


def mark_weak(table, weak):
    for name in weak:
        symbol = b"_" + name.encode() + b"\0"
        table = table.replace(bytes([BIND_SET_SYMBOL]) + symbol,
                              bytes([BIND_SET_SYMBOL | BIND_WEAK_IMPORT]) + symbol)
    return table


def symbols(image, command, weak):
    """The symbol and the string table: what is exported, then what is imported."""
    symbols_at, count, strings_at, _ = struct.unpack_from("<4I", image, command + 8)
    exported, imported = [], []
    for i in range(count):
        start, kind, section, flags, value = struct.unpack_from("<IBBHI", image, symbols_at + 12 * i)
        name = bytes(image[strings_at + start:image.index(b"\0", strings_at + start)])
        if kind & N_TYPE == N_UNDF:
            if name[1:].decode() in weak:
                flags |= N_WEAK_REF
            if name != b"dyld_stub_binder":  # for lazy binding, of which there is none
                imported.append((name, kind, section, flags, value))
        elif kind & N_EXT and not kind & 0x10:
            exported.append((name, kind, section, flags, value))
    table, strings = b"", b"\0"
    for name, *rest in exported + imported:
        table += struct.pack("<IBBHI", len(strings), *rest)
        strings += name + b"\0"
    return table, strings, len(exported), len(imported)


def main():
    source, output, *lists = sys.argv[1:]
    image = bytearray(pathlib.Path(source).read_bytes())
    _, weak = imports.read_all(lists)
    command = load_commands(image)
    linkedit, info = command[LC_SEGMENT], command[LC_DYLD_INFO_ONLY]

    def table(field):
        offset, size = struct.unpack_from("<2I", image, field)
        return bytes(image[offset:offset + size])

    symbol_table, strings, exported, imported = symbols(image, command[LC_SYMTAB], weak)
    tables = [  # field of the offset, which the field of the size follows; contents
        (info + 8, brief_rebases(rebased_words(table(info + 8)))),
        (info + 16, mark_weak(table(info + 16), weak)),
        (info + 40, table(info + 40)),
        (command[LC_FUNCTION_STARTS] + 8, table(command[LC_FUNCTION_STARTS] + 8)),
        (command[LC_DATA_IN_CODE] + 8, table(command[LC_DATA_IN_CODE] + 8)),
        (command[LC_SYMTAB] + 8, symbol_table),
        (command[LC_SYMTAB] + 16, strings),
    ]
    start = struct.unpack_from("<I", image, linkedit + 32)[0]
    del image[start:]
    for field, contents in tables:
        struct.pack_into("<2I", image, field, len(image), len(contents))
        image += contents + b"\0" * (-len(contents) % 4)
    struct.pack_into("<I", image, command[LC_SYMTAB] + 12, exported + imported)
    struct.pack_into("<8I", image, command[LC_DYSYMTAB] + 8,
                     0, 0, 0, exported, exported, imported, 0, 0)
    struct.pack_into("<2I", image, command[LC_DYSYMTAB] + 56, 0, 0)  # no indirect symbols
    struct.pack_into("<I", image, linkedit + 36, len(image) - start)
    struct.pack_into("<I", image, linkedit + 28, -(-(len(image) - start) // 4096) * 4096)
    pathlib.Path(output).write_bytes(image)


main()
