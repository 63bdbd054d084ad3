"""What the steps of the Mach-O build refuse, and with which words.

    pipeline_test.py, with MACHO_ROOT, MACHO_CXX and MACHO_LINKER in the environment
"""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

import linkedit

STEPS = pathlib.Path(os.environ["MACHO_ROOT"]) / "cmake/macho"
LISTS = {"system.txt": "library /usr/lib/libOne.dylib\nstrlen\nfree\n\n# a comment\n",
         "drawing.txt": "library /usr/lib/libTwo.dylib\nweak drawCircle\n"}

CALLS = """	.section	__TEXT,__text,regular,pure_instructions
_REALPluginMain:
	calll	_{0}
	jmp	_helper
_helper:
	calll	*4(%esp)
	retl
"""


class Steps(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def write(self, name, text):
        path = self.folder / name
        path.write_text(text)
        return str(path)

    def run_step(self, step, *arguments):
        done = subprocess.run([sys.executable, "-B", str(STEPS / step), *arguments],
                              capture_output=True, text=True)
        return done.returncode, done.stderr

    def bind(self, assembly, lists=LISTS):
        """The bound assembly, or the message."""
        output = self.folder / "bound.s"
        output.unlink(missing_ok=True)
        code, message = self.run_step("bind.py", self.write("all.s", assembly), str(output),
                                      *(self.write(*entry) for entry in lists.items()))
        self.assertEqual(code == 0, output.exists())
        return message if code else output.read_text()

    def test_a_call_goes_through_a_stub_and_a_word(self):
        bound = self.bind(CALLS.format("strlen"))
        self.assertIn("\tcalll\t_strlen$stub\n", bound)
        self.assertIn("movl\tl_strlen$word-1b(%ecx), %ecx", bound)
        self.assertIn("l_strlen$word:\t.long\t_strlen\n", bound)
        self.assertIn("\tjmp\t_helper\n", bound)
        self.assertIn("\tcalll\t*4(%esp)\n", bound)

    def test_an_import_in_no_list(self):
        self.assertIn("REALPluginMain uses memmove, which stands in no list of imports. If Mac OS "
                      "X 10.6 has it, add it to the list of its library; if not, do without it.",
                      self.bind(CALLS.format("memmove")))

    def test_an_import_in_a_table_that_is_in_no_list(self):
        table = "\t.section\t__DATA,__data\n__Z5tablev:\n\t.long\t_helper\n\t.long\t_memmove\n"
        message = self.bind(CALLS.format("strlen") + table)
        self.assertIn(": table() uses memmove", message)
        self.assertNotIn("helper", message)

    def test_a_pointer_to_an_import_becomes_a_word(self):
        bound = self.bind(CALLS.format("strlen") +
                          "\t.section\t__IMPORT,__pointers,non_lazy_symbol_pointers\n"
                          "L_free$non_lazy_ptr:\n\t.indirect_symbol\t_free\n\t.long\t0\n")
        self.assertIn("\t.section\t__DATA,__data\nl_free$non_lazy_ptr:\n\t.long\t_free\n", bound)
        self.assertNotIn("__IMPORT", bound)

    def test_weak_in_the_sources_and_in_the_list(self):
        weak = "\t.weak_reference _{}\n"
        self.assertIn("drawCircle$stub", self.bind(CALLS.format("drawCircle") + weak.format("drawCircle")))
        self.assertIn("drawing.txt says `weak drawCircle`, but the sources do not declare it so.",
                      self.bind(CALLS.format("drawCircle")))
        self.assertRegex(self.bind(CALLS.format("strlen") + weak.format("strlen")),
                         "strlen is declared weak, but .*system.txt does not say `weak strlen`.")

    def test_what_this_link_cannot_carry(self):
        for section, words in {"__DATA,__mod_init_func,mod_init_funcs": "a static constructor",
                               "__DATA,__mod_term_func,mod_term_funcs": "a static destructor",
                               "__DATA,__thread_vars,thread_local_variables": "a thread-local",
                               "__OBJC,__class": "Objective-C metadata"}.items():
            message = self.bind(CALLS.format("strlen") + f"\t.section\t{section}\n")
            self.assertIn(f"the sources contain {words}", message)

    def test_constants_keep_their_alignment(self):
        bound = self.bind(CALLS.format("strlen") +
                          "\t.section\t__TEXT,__literal16,16byte_literals\n\t.p2align\t4\nLCPI0_0:\n"
                          "\t.section\t__TEXT,__text\n\tmovaps\tLCPI0_0-L0$pb(%eax), %xmm0\n")
        self.assertIn("\t.section\t__TEXT,__const\n\t.p2align\t4\nlCPI0_0:\n", bound)
        self.assertIn("movaps\tlCPI0_0-L0$pb(%eax)", bound)

    def test_mistakes_in_a_list(self):
        for text, words in {"": "the list is empty", "strlen\n": ":1: a list of imports begins",
                            "library /x\nstrong strlen\n": ":2: expected `NAME` or `weak NAME`",
                            "library /x\nfree\nfree\n": ":3: free is listed twice"}.items():
            self.assertIn(words, self.bind(CALLS.format("strlen"), {"list.txt": text}))
        self.assertIn("two.txt: free is already listed in",
                      self.bind(CALLS.format("strlen"), {"one.txt": LISTS["system.txt"],
                                                         "two.txt": "library /y\nfree\n"}))

    def test_a_stub_library_has_every_name(self):
        output = self.folder / "stub.s"
        code, _ = self.run_step("stub_library.py", self.write("a.txt", LISTS["system.txt"]),
                                str(output))
        self.assertEqual(0, code)
        for symbol in ("_strlen", "_free", "dyld_stub_binder"):
            self.assertIn(f"\t.globl\t{symbol}\n{symbol}:", output.read_text())

    def link(self, assembly, lists):
        """The finished bundle and the one with all symbols."""
        assemble = [os.environ["MACHO_CXX"], "-target", "i386-apple-macosx10.6", "-c"]
        link = [os.environ["MACHO_LINKER"], "-arch", "i386", "-macosx_version_min", "10.6",
                "-sdk_version", "10.6"]
        path = {name: str(self.folder / name) for name in ("bound.o", "linked", "done", "symbols")}
        stubs, listed = [], [self.write(*entry) for entry in lists.items()]
        for list_path in listed:
            stub = list_path + ".dylib"
            self.assertEqual((0, ""), self.run_step("stub_library.py", list_path, stub + ".s"))
            subprocess.run([*assemble, stub + ".s", "-o", stub + ".o"], check=True)
            subprocess.run([*link, "-dylib", "-install_name", "/" + stub, stub + ".o", "-o", stub],
                           check=True)
            stubs.append(stub)
        self.bind(assembly, lists)
        subprocess.run([*assemble, str(self.folder / "bound.s"), "-o", path["bound.o"]], check=True)
        subprocess.run([*link, "-bundle", "-exported_symbol", "_REALPluginMain", path["bound.o"],
                        *stubs, "-o", path["linked"]], check=True)
        self.assertEqual((0, ""), self.run_step("finish.py", path["linked"], path["done"],
                                                path["symbols"], *listed))
        return pathlib.Path(path["done"]), pathlib.Path(path["symbols"])

    def test_linker_data_is_packed_whatever_the_length_of_a_name(self):
        table = "\t.globl\t_REALPluginMain\n\t.section\t__DATA,__data\n_table:\n\t.long\t_helper\n"
        for name in ("read", "write", "strlen", "memmove"):
            with self.subTest(name):
                done, symbols = self.link(CALLS.format(name) + table,
                                          {"list.txt": f"library /x\n{name}\n"})
                linkedit.walk(self, done)
                #                linkedit.walk(self, symbols)

    def test_an_archive_depends_on_its_contents_alone(self):
        one, two = self.write("one", "1" * 1000), self.write("two", "2")
        archives = []
        for order in ([f"a/b={one}", f"x={two}"], [f"x={two}", f"a/b={one}"]):
            os.utime(one, (1, len(archives)))
            path = self.folder / str(len(archives)) / "archive.zip"
            self.assertEqual((0, ""), self.run_step("archive.py", str(path), *order))
            archives.append(path.read_bytes())
        self.assertEqual(*archives)


if __name__ == "__main__":
    unittest.main()
