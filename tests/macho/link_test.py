"""Carries out every relocation of the bundle's object file again and compares with what the linker
made of it: this linker is known to lose parts of addresses without a word.

    link_test.py, with MACHO_WORK and MACHO_ARCHIVE in the environment
"""

import bisect
import os
import pathlib
import re
import struct
import subprocess
import unittest
import zipfile

from macholib.MachO import MachO

WORK = pathlib.Path(os.environ["MACHO_WORK"])
OBJECT = WORK / "macho_product/all.o"
LINKED = WORK / "SparkleKVZ.dylib.symbols"  # the bundle with all its symbols
MEMBER = "SparkleKVZ/Build Resources/Mac Cocoa/SparkleKVZ.dylib"
VANILLA, PAIR, SECTDIFF, LOCAL_SECTDIFF = 0, 1, 2, 4
ZERO_FILL, STRINGS = 1, 2


def symbols(path):
    out = subprocess.run(["llvm-nm-14", str(path)], check=True, capture_output=True, text=True)
    return {name: int(address, 16)
            for address, name in re.findall(r"^(\w{8}) \w (\S+)$", out.stdout, re.M)}


class Image:
    def __init__(self, path, contents=None):
        self.bytes = contents or path.read_bytes()
        (header,) = MachO(str(path)).headers
        self.sections = [section for load, _, sections in header.commands
                         if load.get_cmd_name() == "LC_SEGMENT" for section in sections]
        self.symbols = symbols(path)

    def section(self, address):
        (found,) = [s for s in self.sections if s.addr <= address < s.addr + s.size]
        return found

    def word(self, address):
        section = self.section(address)
        return struct.unpack_from("<i", self.bytes, section.offset + address - section.addr)[0]

    def string_start(self, section, address):
        return self.bytes.rfind(b"\0", section.offset, section.offset + address - section.addr) + 1


class Link:
    def __init__(self):
        with zipfile.ZipFile(os.environ["MACHO_ARCHIVE"]) as archive:
            self.bundle = Image(LINKED, archive.read(MEMBER))
        self.object = Image(OBJECT)
        self.starts = sorted((address, name) for name, address in self.object.symbols.items())
        (strings,) = [s for s in self.bundle.sections if s.flags & 0xFF == STRINGS]
        text = self.bundle.bytes[strings.offset:strings.offset + strings.size]
        self.strings, at = {}, 0
        for string in text.split(b"\0"):
            self.strings[string] = strings.addr + at
            at += len(string) + 1

    def moved(self, address):
        """Where the linker put what the object has at this address."""
        section = self.object.section(address)
        if section.flags & 0xFF == STRINGS:
            contents = self.object.bytes
            start = max(section.offset, self.object.string_start(section, address))
            string = contents[start:contents.index(b"\0", start)]
            return self.strings[string] + address - (section.addr + start - section.offset)
        start, name = self.starts[bisect.bisect(self.starts, (address, "\x7f")) - 1]
        if start < section.addr:
            raise AssertionError(f"no symbol before {address:#x} in its section")
        return self.bundle.symbols[name] + address - start

    def relocations(self):
        """Address, type, whether relative to its place, target or None, symbol number or None and
        the address that is subtracted, if any."""
        for section in self.object.sections:
            table = struct.iter_unpack("<2I", self.object.bytes[section.reloff:section.reloff +
                                                                8 * section.nreloc])
            for first, second in table:
                if first >> 31:
                    kind, relative, target = first >> 24 & 0xF, first >> 30 & 1, second
                    length, external = first >> 28 & 3, False
                    first &= 0xFFFFFF
                else:
                    kind, relative, target = second >> 28, second >> 24 & 1, None
                    length, external = second >> 25 & 3, bool(second >> 27 & 1)
                assert length == 2, "a relocation of less than a word"
                subtracted = next(table)[1] if kind in (SECTDIFF, LOCAL_SECTDIFF) else None
                yield section.addr + first, kind, relative, target, external, subtracted


class Relocations(unittest.TestCase):
    def test_are_carried_out(self):
        link, counts = Link(), {"difference": 0, "call": 0, "pointer": 0, "import": 0}
        for at, kind, relative, target, external, subtracted in link.relocations():
            stored, place = link.object.word(at), link.moved(at)
            if kind in (SECTDIFF, LOCAL_SECTDIFF):
                addend = stored - (target - subtracted)
                expected = link.moved(target) - link.moved(subtracted) + addend
                counts["difference"] += 1
            elif external:
                self.assertEqual((VANILLA, 0), (kind, relative))
                expected = 0  # for the dynamic linker; archive_test.py looks at the bindings
                counts["import"] += 1
            elif relative:
                self.assertEqual((VANILLA, None), (kind, target))
                expected = link.moved(at + 4 + stored) - (place + 4)
                counts["call"] += 1
            else:
                self.assertEqual(VANILLA, kind)
                base = stored if target is None else target
                expected = link.moved(base) + stored - base
                counts["pointer"] += 1
            self.assertEqual(expected, link.bundle.word(place), f"{at:#x} of {OBJECT}")
        for kind, count in counts.items():
            self.assertGreater(count, 50, kind)

    def test_leave_the_rest_of_the_code_alone(self):
        link, relocated = Link(), set()
        for at, *_ in link.relocations():
            relocated |= set(range(at, at + 4))
        compared = 0
        for start, name in link.starts:
            section = link.object.section(start)
            if section.flags & 0xFF == ZERO_FILL:
                continue
            following = bisect.bisect(link.starts, (start, "\x7f"))
            end = min([section.addr + section.size] +
                      [address for address, _ in link.starts[following:following + 1]])
            for address in range(start, end):
                if address in relocated:
                    continue
                old = section.offset + address - section.addr
                place = link.bundle.symbols[name] + address - start
                home = link.bundle.section(link.bundle.symbols[name])
                if place >= home.addr + home.size:
                    break  # the filling behind the last one
                new = home.offset + place - home.addr
                self.assertEqual(link.object.bytes[old], link.bundle.bytes[new],
                                 f"{name} + {address - start}")
                compared += 1
        self.assertGreater(compared, 20000)


if __name__ == "__main__":
    unittest.main()
