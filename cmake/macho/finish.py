"""Finishes the linked bundle: writes its load commands and its last segment, __LINKEDIT, anew.

    finish.py INPUT OUTPUT SYMBOLS LIST...

What the linker does not do: mark the weak imports, say the rebases briefly, leave out the symbols of
everything that is not imported or exported, name the contents by a UUID, and lay the tables out as
Apple's tools want them, one behind the other with nothing in between that the oldest of these tools
do not know. SYMBOLS is the same bundle, of the same UUID, with all symbols.
"""

import hashlib
import pathlib
import struct
import sys
import uuid

import imports

LC_SEGMENT, LC_SYMTAB, LC_DYSYMTAB = 0x1, 0x2, 0xB
LC_UUID, LC_DYLD_INFO_ONLY = 0x1B, 0x80000022
# The minimum version, the source version, the function starts, the data in code: the tools of Xcode
# 3.2 refuse a file with a load command that they do not know, and so with any of these.
LEFT_OUT = {0x24, 0x2A, 0x26, 0x29}
N_TYPE, N_UNDF, N_EXT, N_PEXT, N_WEAK_REF = 0x0E, 0x00, 0x01, 0x10, 0x40
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


def replace_load_commands(image):
    """Leaves some out, and adds a UUID of zeros."""
    count, size = struct.unpack_from("<2I", image, 16)
    at, kept = 28, []
    for _ in range(count):
        command, command_size = struct.unpack_from("<2I", image, at)
        if command not in LEFT_OUT:
            kept.append(bytes(image[at:at + command_size]))
        at += command_size
    kept.append(struct.pack("<2I16x", LC_UUID, 24))
    written = b"".join(kept)
    if len(written) > size:
        sys.exit("the linker's load commands leave no room for LC_UUID")
    image[28:28 + size] = written.ljust(size, b"\0")
    struct.pack_into("<2I", image, 16, len(kept), len(written))


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


def symbols(image, command, weak, every):
    """The symbol and the string table: what is local if wanted, exported, imported; their counts."""
    symbols_at, count, strings_at, _ = struct.unpack_from("<4I", image, command + 8)
    local, exported, imported = [], [], []
    for i in range(count):
        start, kind, section, flags, value = struct.unpack_from("<IBBHI", image, symbols_at + 12 * i)
        name = bytes(image[strings_at + start:image.index(b"\0", strings_at + start)])
        if kind & N_TYPE == N_UNDF:
            if name[1:].decode() in weak:
                flags |= N_WEAK_REF
            if name != b"dyld_stub_binder":  # for lazy binding, of which there is none
                imported.append((name, kind, section, flags, value))
        elif kind & N_EXT and not kind & N_PEXT:
            exported.append((name, kind, section, flags, value))
        elif every:
            local.append((name, kind, section, flags, value))
    table, strings = b"", b"\0"
    for name, *rest in local + exported + imported:
        table += struct.pack("<IBBHI", len(strings), *rest)
        strings += name + b"\0"
    return table, strings, [len(group) for group in (local, exported, imported)]


def finished(linked, weak, every_symbol):
    image = bytearray(linked)
    replace_load_commands(image)
    command = load_commands(image)
    linkedit, info = command[LC_SEGMENT], command[LC_DYLD_INFO_ONLY]

    def table(field):
        offset, size = struct.unpack_from("<2I", image, field)
        return bytes(image[offset:offset + size])

    symbol_table, strings, counts = symbols(image, command[LC_SYMTAB], weak, every_symbol)
    local, exported, imported = counts
    tables = [  # field of the offset, which the field of the size follows; contents
        (info + 8, brief_rebases(rebased_words(table(info + 8)))),
        (info + 16, mark_weak(table(info + 16), weak)),
        (info + 40, table(info + 40)),
        (command[LC_SYMTAB] + 8, symbol_table),
        (command[LC_SYMTAB] + 16, strings),
    ]
    start = struct.unpack_from("<I", image, linkedit + 32)[0]
    del image[start:]
    for field, contents in tables:
        contents += b"\0" * (-len(contents) % 4)  # which ends each of the tables once more
        struct.pack_into("<2I", image, field, len(image), len(contents))
        image += contents
    struct.pack_into("<I", image, command[LC_SYMTAB] + 12, sum(counts))
    struct.pack_into("<8I", image, command[LC_DYSYMTAB] + 8,
                     0, local, local, exported, local + exported, imported, 0, 0)
    struct.pack_into("<2I", image, command[LC_DYSYMTAB] + 56, 0, 0)  # no indirect symbols
    struct.pack_into("<I", image, linkedit + 36, len(image) - start)
    struct.pack_into("<I", image, linkedit + 28, -(-(len(image) - start) // 4096) * 4096)
    return image


def main():
    source, output, symbols_output, *lists = sys.argv[1:]
    linked = pathlib.Path(source).read_bytes()
    _, weak = imports.read_all(lists)
    bundle, with_symbols = (finished(linked, weak, every) for every in (False, True))
    name = uuid.UUID(bytes=hashlib.sha1(bundle).digest()[:16], version=5)
    for path, image in ((output, bundle), (symbols_output, with_symbols)):
        struct.pack_into("16s", image, load_commands(image)[LC_UUID] + 8, name.bytes)
        pathlib.Path(path).write_bytes(image)


main()
