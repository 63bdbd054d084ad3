"""The rules that Apple's tools hold a bundle's linker data to before they sign or change a file."""

from macholib.MachO import MachO

LC_SEGMENT, LC_SYMTAB, LC_DYSYMTAB, LC_DYLD_INFO_ONLY = 0x1, 0x2, 0xB, 0x80000022
# What a bundle of Xcode 3.2 consists of; its tools refuse a file with any other load command.
KNOWN = {"LC_SEGMENT", "LC_DYLD_INFO_ONLY", "LC_SYMTAB", "LC_DYSYMTAB", "LC_UUID", "LC_LOAD_DYLIB"}


def walk(test, path):
    """Goes through __LINKEDIT of the file from its start to its end."""
    (macho,) = MachO(str(path)).headers
    commands = {load.cmd: command for load, command, _ in macho.commands}
    test.assertLessEqual({load.get_cmd_name() for load, _, _ in macho.commands}, KNOWN)
    linkedit = commands[LC_SEGMENT]
    test.assertEqual(b"__LINKEDIT", linkedit.segname.rstrip(b"\0"), "the last segment")
    info, table, dynamic = (commands[kind] for kind in (LC_DYLD_INFO_ONLY, LC_SYMTAB, LC_DYSYMTAB))
    parts = [("rebases", info.rebase_off, info.rebase_size),
             ("bindings", info.bind_off, info.bind_size),
             ("weak bindings", info.weak_bind_off, info.weak_bind_size),
             ("lazy bindings", info.lazy_bind_off, info.lazy_bind_size),
             ("exports", info.export_off, info.export_size),
             ("local relocations", dynamic.locreloff, 8 * dynamic.nlocrel),
             ("symbols", table.symoff, 12 * table.nsyms),
             ("external relocations", dynamic.extreloff, 8 * dynamic.nextrel),
             ("indirect symbols", dynamic.indirectsymoff, 4 * dynamic.nindirectsyms),
             ("strings", table.stroff, table.strsize)]
    at = linkedit.fileoff
    for name, offset, size in parts:
        if offset or size:
            test.assertEqual(at, offset, f"where the {name} begin")
            test.assertEqual(0, offset % 4, f"the {name} begin at no word")
        at += size
    test.assertEqual(linkedit.fileoff + linkedit.filesize, at, "where the parts and __LINKEDIT end")
    test.assertEqual(at, path.stat().st_size, "where the file ends")
    test.assertGreaterEqual(linkedit.vmsize, linkedit.filesize)

    first = 0
    for name, start, count in [("local", dynamic.ilocalsym, dynamic.nlocalsym),
                               ("defined", dynamic.iextdefsym, dynamic.nextdefsym),
                               ("undefined", dynamic.iundefsym, dynamic.nundefsym)]:
        test.assertEqual(first, start, f"the first of the {name} symbols")
        first += count
    test.assertEqual(table.nsyms, first, "the number of symbols")
