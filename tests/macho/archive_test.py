"""What the archive holds, read by programs that share nothing with the linker or the loader:
python3-macholib, llvm-objdump and llvm-nm.

    archive_test.py [TEST...], with the settings below in the environment
"""

import hashlib
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
import uuid
import zipfile

from macholib.MachO import MachO

import linkedit

ROOT = pathlib.Path(os.environ["MACHO_ROOT"])
WORK = pathlib.Path(os.environ["MACHO_WORK"])  # where the build keeps the bundle and its stages
ARCHIVE = pathlib.Path(os.environ["MACHO_ARCHIVE"])
NINJA = os.environ["MACHO_NINJA"]

NAMES = ["SparkleKVZ/Build Resources/Mac Carbon Mach-O/SparkleKVZ.dylib",
         "SparkleKVZ/Build Resources/Mac Cocoa/SparkleKVZ.dylib"]
CHANGES = "SparkleKVZ/CHANGELOG.md"
FRAMEWORK = "/System/Library/Frameworks/{0}.framework/Versions/{1}/{0}"
LIBRARIES = {"libSystem": "/usr/lib/libSystem.B.dylib",
             "libobjc": "/usr/lib/libobjc.A.dylib",
             "CoreFoundation": FRAMEWORK.format("CoreFoundation", "A"),
             "Foundation": FRAMEWORK.format("Foundation", "C"),
             "CoreServices": FRAMEWORK.format("CoreServices", "A"),
             "ApplicationServices": FRAMEWORK.format("ApplicationServices", "A")}
CLASSES = {  # properties, methods, events, constants, shared methods
    "SUVersionComparisonKVZ": (1, 2, 1, 3, 0),
    "SUAppcastItemKVZ": (1, 11, 0, 0, 0),
    "SUUpdaterKVZ": (1, 16, 11, 0, 2),
    "SUAppcastKVZ": (1, 5, 0, 0, 0)}
LC_DYSYMTAB, LC_UUID, LC_DYLD_INFO_ONLY = 0xB, 0x1B, 0x80000022
REGULAR, ZERO_FILL, STRINGS = 0, 1, 2


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def listed_imports():
    """{(library, symbol): weak}, from the checked-in lists."""
    found = {}
    for name in LIBRARIES:
        for line in (ROOT / "cmake/macho/imports" / f"{name}.txt").read_text().splitlines()[1:]:
            *weak, symbol = line.split()
            found[name, "_" + symbol] = weak == ["weak"]
    return found


class Bundle:
    """The bundle out of the archive, and the readings of the tests."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory()
        with zipfile.ZipFile(ARCHIVE) as archive:
            self.bytes = archive.read(NAMES[1])
        self.path = pathlib.Path(self.folder.name) / "SparkleKVZ.dylib"
        self.path.write_bytes(self.bytes)
        (self.macho,) = MachO(str(self.path)).headers
        self.commands = self.macho.commands
        self.segments = {command.segname.rstrip(b"\0").decode(): (command, sections)
                         for load, command, sections in self.commands
                         if load.get_cmd_name() == "LC_SEGMENT"}
        self.sections = {(name, section.sectname.rstrip(b"\0").decode()): section
                         for name, (_, sections) in self.segments.items() for section in sections}

    def command(self, kind):
        (found,) = [command for load, command, _ in self.commands if load.cmd == kind]
        return found

    def objdump(self, *flags):
        return run("llvm-objdump-14", "--macho", *flags, str(self.path))

    def bindings(self):
        """Segment, section, address, library, symbol and whether it is weak, of each entry."""
        rows = re.findall(r"^(\S+) +(\S+) +0x(\w+) +pointer +0 +(\S+) +(\S+)( \(weak_import\))?$",
                          self.objdump("--bind"), re.M)
        return [(*row[:5], bool(row[5])) for row in rows]

    def rebases(self):
        return [(segment, section, int(address, 16)) for segment, section, address in
                re.findall(r"^(\S+) +(\S+) +0x(\w+) +pointer$", self.objdump("--rebase"), re.M)]

    def contents(self, address, size):
        """The bytes at an address, from the file."""
        for command, _ in self.segments.values():
            if command.vmaddr <= address and address + size <= command.vmaddr + command.filesize:
                start = command.fileoff + address - command.vmaddr
                return self.bytes[start:start + size]
        raise AssertionError(f"{address:#x} is in no segment")

    def word(self, address):
        return struct.unpack("<I", self.contents(address, 4))[0]

    def text(self, address):
        return self.bytes[address:self.bytes.index(b"\0", address)].decode()


bundle = Bundle()


class Archive(unittest.TestCase):
    def test_holds_the_bundle_twice(self):
        with zipfile.ZipFile(ARCHIVE) as archive:
            self.assertEqual([*NAMES, CHANGES], archive.namelist())
            self.assertEqual((ROOT / "CHANGELOG.md").read_bytes(), archive.read(CHANGES))
            self.assertIsNone(archive.testzip())
            self.assertEqual(archive.read(NAMES[0]), archive.read(NAMES[1]))
            self.assertEqual({(1980, 1, 1, 0, 0, 0)}, {i.date_time for i in archive.infolist()})

    def test_unpacks_with_another_program(self):
        with tempfile.TemporaryDirectory() as folder:
            run("cmake", "-E", "chdir", folder, "cmake", "-E", "tar", "xf", str(ARCHIVE))
            self.assertEqual(bundle.bytes, (pathlib.Path(folder) / NAMES[0]).read_bytes())

    def test_is_what_the_build_made(self):
        self.assertEqual(bundle.bytes, (WORK / "SparkleKVZ.dylib").read_bytes())

    def test_building_again_elsewhere_gives_the_same_bytes(self):
        build = WORK.parent
        with tempfile.TemporaryDirectory() as folder:
            # The build's own commands, carried out on a copy of the sources in another folder.
            copy = pathlib.Path(folder) / "copy"
            for part in ("cmake", "plugin", "framework", "updater", "appcast", "convert", "cocoa"):
                shutil.copytree(ROOT / part, copy / part)
            sysroot = re.escape(str(ROOT / "build/sysroot"))
            for command in run(NINJA, "-C", str(build), "-t", "commands",
                               str(WORK / "SparkleKVZ.dylib")).splitlines():
                if "macho" not in command:
                    continue
                for path in re.findall(re.escape(str(build)) + r"[^\s\"']*", command):
                    other = pathlib.Path(folder + path[len(str(build)):])
                    (other if pathlib.Path(path).is_dir() else other.parent).mkdir(
                        parents=True, exist_ok=True)
                command = re.sub(r"&& \S*cmake -E cmake_transform_depfile .*", "", command)
                command = command.replace(str(build), folder)
                command = re.sub(rf"(?!{sysroot}){re.escape(str(ROOT))}\b", str(copy), command)
                subprocess.run(command, shell=True, check=True, capture_output=True)
            again = pathlib.Path(folder) / WORK.relative_to(build) / "SparkleKVZ.dylib"
            self.assertEqual(bundle.bytes, again.read_bytes())
            self.assertEqual((WORK / "SparkleKVZ.dylib.symbols").read_bytes(),
                             pathlib.Path(f"{again}.symbols").read_bytes())
            archive = pathlib.Path(folder) / "again.zip"
            run(sys.executable, "-B", str(ROOT / "cmake/macho/archive.py"), str(archive),
                *(f"{name}={again}" for name in NAMES), f"{CHANGES}={ROOT / 'CHANGELOG.md'}")
            self.assertEqual(ARCHIVE.read_bytes(), archive.read_bytes())


class Header(unittest.TestCase):
    def test_says_bundle_for_i386_with_a_two_level_namespace(self):
        header = bundle.macho.header
        self.assertEqual((0xFEEDFACE, 7, 3, 8),
                         (header.magic, header.cputype, header.cpusubtype, header.filetype))
        self.assertEqual(0x1 | 0x4 | 0x80, header.flags)  # NOUNDEFS, DYLDLINK, TWOLEVEL

    def test_loads_the_six_libraries_by_their_install_names(self):
        loaded = [name.rstrip(b"\0").decode() for load, _, name in bundle.commands
                  if load.get_cmd_name() == "LC_LOAD_DYLIB"]
        self.assertEqual(list(LIBRARIES.values()), loaded)

    def test_has_no_other_load_commands(self):
        self.assertEqual(linkedit.KNOWN, {load.get_cmd_name() for load, _, _ in bundle.commands})

    def test_uuid_is_one_of_the_contents(self):
        found = uuid.UUID(bytes=bytes(bundle.command(LC_UUID).uuid))
        self.assertEqual((5, uuid.RFC_4122), (found.version, found.variant))
        self.assertEqual(1, bundle.bytes.count(found.bytes))
        contents = bundle.bytes.replace(found.bytes, bytes(16))
        self.assertEqual(uuid.UUID(bytes=hashlib.sha1(contents).digest()[:16], version=5), found)

    def test_uuid_leads_to_the_symbols(self):
        (other,) = MachO(str(WORK / "SparkleKVZ.dylib.symbols")).headers
        (found,) = [command.uuid for load, command, _ in other.commands if load.cmd == LC_UUID]
        self.assertEqual(bundle.command(LC_UUID).uuid, found)

    def test_there_is_room_for_the_load_command_of_a_signature(self):
        header = bundle.macho.header
        first = min(section.offset for section in bundle.sections.values() if section.offset)
        self.assertGreaterEqual(first, 28 + header.sizeofcmds + 16)
        self.assertEqual(b"", bundle.bytes[28 + header.sizeofcmds:first].strip(b"\0"))

    def test_is_small(self):
        self.assertLess(len(bundle.bytes), 60_000)

    def test_linker_data_is_as_the_tools_of_a_mac_want_it(self):
        linkedit.walk(self, bundle.path)
        linkedit.walk(self, WORK / "SparkleKVZ.dylib.symbols")


class Symbols(unittest.TestCase):
    def test_exports_the_entry_point_alone(self):
        exports = re.findall(r"^0x\w+ +(\S+)$", bundle.objdump("--exports-trie"), re.M)
        self.assertEqual(["_REALPluginMain"], exports)
        defined = run("llvm-nm-14", "--defined-only", "--extern-only", str(bundle.path))
        self.assertEqual(["_REALPluginMain"], [line.split()[2] for line in defined.splitlines()])

    def test_imports_what_is_listed_and_nothing_else(self):
        imports = {(library, symbol): weak for _, _, _, library, symbol, weak in bundle.bindings()}
        self.assertEqual(listed_imports(), imports)

    def test_symbol_table_says_the_same(self):
        undefined = run("llvm-nm-14", "-m", "--undefined-only", str(bundle.path))
        rows = re.findall(r"\(undefined\) (weak )?external (\S+) \(from (\S+)\)", undefined)
        self.assertEqual(listed_imports(),
                         {(library, symbol): bool(weak) for weak, symbol, library in rows})

    def test_needs_no_c_plus_plus_runtime(self):
        for library, symbol in listed_imports():
            self.assertNotRegex(symbol, r"^_(_Z|__cxa|__gxx|_Unwind)")

    def test_binds_nothing_lazily_or_weakly(self):
        for table in ("--lazy-bind", "--weak-bind"):
            self.assertNotIn("0x", bundle.objdump(table).split("table:")[1])
        info = bundle.command(LC_DYLD_INFO_ONLY)
        self.assertEqual((0, 0), (info.lazy_bind_size, info.weak_bind_size))

    def test_tables_were_read_to_their_end(self):
        # The readings above would miss rows whose form they do not know.
        self.assertEqual(bundle.objdump("--bind").count("0x"), len(bundle.bindings()))
        self.assertEqual(bundle.objdump("--rebase").count("0x"), len(bundle.rebases()))
        self.assertGreater(len(bundle.rebases()), 100)


class Position(unittest.TestCase):
    def test_nothing_outside_of_the_data_is_written_by_the_dynamic_linker(self):
        places = {(row[0], row[1]) for row in bundle.bindings() + bundle.rebases()}
        self.assertEqual({("__DATA", "__data")}, places)

    def test_no_relocation_entries(self):
        self.assertEqual({0}, {section.nreloc for section in bundle.sections.values()})
        table = bundle.command(LC_DYSYMTAB)
        self.assertEqual((0, 0, 0), (table.nextrel, table.nlocrel, table.nindirectsyms))

    def test_code_does_not_depend_on_the_address(self):
        # The same object, linked for another address.
        elsewhere = (WORK / "SparkleKVZ.dylib.elsewhere").read_bytes()
        (other,) = MachO(str(WORK / "SparkleKVZ.dylib.elsewhere")).headers
        (text,) = [command for load, command, _ in other.commands
                   if load.get_cmd_name() == "LC_SEGMENT" and command.segname.startswith(b"__TEXT")]
        self.assertNotEqual(0, text.vmaddr)
        compared = 0
        for (segment, _), section in bundle.sections.items():
            if segment == "__TEXT":
                span = slice(section.offset, section.offset + section.size)
                self.assertEqual(bundle.bytes[span], elsewhere[span])
                compared += section.size
        self.assertGreater(compared, 10000)

    def test_no_instruction_addresses_memory_absolutely(self):
        instructions = 0
        code = bundle.objdump("-d", "--no-show-raw-insn", "--no-symbolic-operands")
        for line in code.splitlines():
            match = re.match(r" *\w+:\t+(\w+)\t(.*)", line)
            if not match or match[1].startswith("."):
                continue
            instructions += 1
            if re.match(r"(call|j)", match[1]) and not match[2].startswith("*"):
                continue
            # An absolute operand is a bare number: neither $number nor number(register).
            self.assertNotRegex(match[2], r"(^|[\s,*])-?(0x)?[0-9a-f]+(,|$)", line)
        self.assertGreater(instructions, 3000)

    def test_protection(self):
        self.assertEqual({"__TEXT": 5, "__DATA": 3, "__LINKEDIT": 1},
                         {name: segment.initprot for name, (segment, _) in bundle.segments.items()})

    def test_sections(self):
        # No static constructors, no stubs, no pointers of the linker's own.
        self.assertEqual(
            {("__TEXT", "__text"): REGULAR, ("__TEXT", "__const"): REGULAR,
             ("__TEXT", "__cstring"): STRINGS, ("__DATA", "__data"): REGULAR,
             ("__DATA", "__bss"): ZERO_FILL},
            {name: section.flags & 0xFF for name, section in bundle.sections.items()})

    def test_zero_filled_data_is_zero_in_the_file(self):
        data, _ = bundle.segments["__DATA"]
        start = bundle.sections["__DATA", "__bss"].addr - data.vmaddr + data.fileoff
        self.assertEqual(b"", bundle.bytes[start:data.fileoff + data.filesize].strip(b"\0"))


class Definitions(unittest.TestCase):
    """The class definitions, found by their names and read as words."""

    WORDS = 29
    TABLES = {7: 12, 9: 6, 11: 4, 18: 5, 23: 6}  # field of the pointer: words of an entry

    def setUp(self):
        self.data = bundle.sections["__DATA", "__data"]
        self.code = bundle.sections["__TEXT", "__text"]
        self.rebased = {address for _, _, address in bundle.rebases()}

    def definition(self, name):
        found = [at for at in self.rebased
                 if bundle.word(at - 4) == 12 and bundle.text(bundle.word(at)) == name]
        self.assertEqual(1, len(found), name)
        return found[0] - 4

    def assertWritable(self, address, words):
        self.assertEqual(0, address % 4)
        self.assertGreaterEqual(address, self.data.addr)
        self.assertLessEqual(address + 4 * words, self.data.addr + self.data.size)

    def assertCode(self, address):
        self.assertTrue(self.code.addr <= address < self.code.addr + self.code.size)

    def test_are_writable_and_aligned(self):
        for name, counts in CLASSES.items():
            definition = self.definition(name)
            self.assertWritable(definition, self.WORDS)
            words = struct.unpack("<29I", bundle.contents(definition, 4 * self.WORDS))
            self.assertEqual(counts, tuple(words[field + 1] for field in self.TABLES), name)
            self.assertEqual(4, words[20], name)
            self.assertEqual((0,) * 4, words[25:], name)
            self.assertCode(words[5])
            self.assertCode(words[6])
            for (field, size), count in zip(self.TABLES.items(), counts):
                if count:
                    self.assertIn(definition + 4 * field, self.rebased)
                    self.assertWritable(words[field], count * size)

    def test_methods_lead_into_the_code(self):
        for name, counts in CLASSES.items():
            definition = self.definition(name)
            for field, count in ((9, counts[1]), (23, counts[4])):
                for i in range(count):
                    entry = bundle.word(definition + 4 * field) + 24 * i
                    self.assertIn(entry, self.rebased)
                    self.assertCode(bundle.word(entry))
                    self.assertRegex(bundle.text(bundle.word(entry + 8)), r"^\w+")
                    self.assertEqual(4, bundle.word(entry + 12))


if __name__ == "__main__":
    unittest.main()
