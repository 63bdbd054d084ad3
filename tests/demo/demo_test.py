"""What a person sees of `make demo`, and the picture that it draws.

    demo_test.py DEMO [TEST...]
"""

import os
import pathlib
import pty
import re
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).resolve().parents[2]
DEMO = sys.argv.pop(1)
COLUMNS = 100
# As a person has it, who starts the program without make.
ENVIRONMENT = {name: value for name, value in os.environ.items() if name != "GCONV_PATH"}


def demo(*options):
    done = subprocess.run([DEMO, *options], capture_output=True, text=True, env=ENVIRONMENT)
    return done.returncode, done.stdout, done.stderr


def on_terminal(*options):
    ours, its = pty.openpty()
    program = subprocess.Popen([DEMO, *options], stdout=its, stderr=its, env=ENVIRONMENT)
    os.close(its)
    said = b""
    while True:
        try:
            said += os.read(ours, 1 << 16)
        except OSError:  # the terminal's other end is closed
            break
    os.close(ours)
    program.wait()
    return said.decode()


class Output(unittest.TestCase):
    def well(self, *options):
        status, said, complaints = demo(*options)
        self.assertEqual((status, complaints), (0, ""), said)
        self.assertEqual([line for line in said.splitlines() if len(line) > COLUMNS], [])
        self.assertRegex(said, r"\n  references +lost: 0\n")
        self.assertRegex(said, r"\n  seconds +\d+\.\d\n")
        return said

    def test_is_of_the_bundle_that_ships(self):
        said = self.well()
        self.assertIn("the bundle that ships (SparkleKVZ.dylib)", said)
        self.assertIn("\nVersion 3.0 is installed in place of 2.0, and version 3.0 was started.\nTry next: ", said)
        self.assertRegex(said, r"\n  signature +checked; the framework finds the signature valid\n")
        self.assertRegex(said, r"\n  installed +3\.0, and started\n")

    def test_begins_with_the_threads_and_one_step_of_start_up(self):
        said = self.well("--plugin=elf")
        self.assertLess(said.index("main is the program's own"), said.index("\nstep  thread "))
        start_up = said[said.index("\nStart-up\n"):said.index("\nThe check\n")]
        self.assertEqual(re.findall(r"^ +\d+ ", start_up, re.M), ["   1 "])

    def test_names_every_event_once_in_the_summary(self):
        for framework in ["1.5b6", "1.6", "workers"]:
            with self.subTest(framework):
                said = self.well(f"--framework={framework}")
                summary = said[said.index("\nSummary\n"):said.index("\n  signature")]
                came = re.search(r"events +(\d+) of (\d+) came", summary)
                self.assertEqual(came[2], "11")
                rows = " ".join(summary.split("came", 1)[1].split()).partition(" not ")
                listed = [set(re.findall(r"\b(?!on\b)[a-z]+[A-Z]\w+", part)) for part in (rows[0], rows[2])]
                self.assertEqual((len(listed[0]), len(listed[0] | listed[1])), (int(came[1]), 11))

    def test_says_which_release_an_object_is(self):
        named = re.findall(r"SUAppcastItemKVZ#(\d+) \(release\s+(\S+)\)", self.well())
        self.assertGreater(len({number for number, _ in named}), 2)
        self.assertEqual({version for _, version in named}, {"3.0"})

    def test_other_ways(self):
        self.assertIn("nothing was installed.", self.well("--check=information"))
        self.assertIn("Version 1.0 is installed in place of 2.0, as the reversed", self.well("--comparator=reverse"))

    def test_proposes_what_was_not_just_run(self):
        for options in [["--framework=1.6"], ["--check=information", "--host=2011.4"],
                        ["--framework=workers", "--comparator=reverse"]]:
            with self.subTest(options):
                hint = self.well(*options).partition("\nTry next: ")[2]
                self.assertIn("make demo ", hint)
                for option in options:
                    name, value = option.strip("-").split("=")
                    self.assertNotIn(f"{name.upper()}={value}", hint)

    def test_shows_the_download_grow_on_a_terminal_alone(self):
        bar = re.compile(r"\d\.\d of 2\.1 MB  (█*)(░*)")
        self.assertNotRegex(self.well(), bar)
        lengths = {len(grown) for grown, _ in bar.findall(on_terminal())}
        self.assertGreater(len(lengths), 1)

    def test_a_feed_that_is_not_there(self):
        status, said, _ = demo("--feed=http://127.0.0.1:1/appcast.xml")
        self.assertEqual(status, 2)
        self.assertIn("\nThe check failed: ", said)
        self.assertIn("correct the address in FEED", said)

    def test_refuses_what_it_does_not_know(self):
        status, _, said = demo("--host=1999")
        self.assertEqual(status, 64)
        self.assertIn("HOST=1999 is not known; choose one of: ", said)


class Picture(unittest.TestCase):
    def draw(self, *options):
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder) / "update.svg"
            status, said, complaints = demo(f"--picture={file}", *options)
            self.assertEqual(status, 0, said + complaints)
            return file.read_text()

    def test_of_the_documents_is_current(self):
        self.assertEqual(self.draw(), (ROOT / "docs/update.svg").read_text(),
                         "make demo PICTURE=docs/update.svg")

    def test_has_a_lane_for_each_thread_and_both_surroundings(self):
        picture = self.draw("--framework=workers")
        self.assertIn("prefers-color-scheme: dark", picture)
        root = xml.etree.ElementTree.fromstring(picture)
        texts = [text.text for text in root.iter("{http://www.w3.org/2000/svg}text")]
        for text in ["program", "plug-in", "framework", "server", "main", "check"]:
            self.assertIn(text, texts)

    def test_that_cannot_be_written(self):
        status, said, _ = demo("--picture=/no/where/update.svg")
        self.assertEqual(status, 1)
        self.assertIn("/no/where/update.svg cannot be written: No such file", said)


if __name__ == "__main__":
    unittest.main()
