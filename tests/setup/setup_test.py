"""What tools/setup decides, on machines that it is told it is on: the commands that it runs are
stand-ins that note how they were called. `make check-setup` does the real thing."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
NOBODY = 65534
SILENT = "exit 0"
MIRROR = "http://deb.example.org/debian/"


class Setup(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.clone = self.make_clone("A clone")
        self.user = None
        self.commands = {
            "id": "echo 0",
            "dpkg-query": "echo install ok installed",
            "apt-get": f'[ "$1" != indextargets ] || echo {MIRROR}',
            "mmdebstrap": 'for last; do :; done; for each; do [ "$each" = "$last" ] || at=$each; done; mkdir -p "$at"',
            "sudo": "exit 1",
        }

    def make_clone(self, name):
        clone = self.folder / name
        (clone / "tools").mkdir(parents=True)
        for file in ["setup", "packages.txt"]:
            shutil.copy(ROOT / "tools" / file, clone / "tools")
        return clone

    def set_up(self):
        """(status, what it says, the calls that changed something)"""
        stand_ins, calls = self.folder / "commands", self.folder / "calls"
        shutil.rmtree(stand_ins, ignore_errors=True)
        stand_ins.mkdir()
        for tool in ["bash", "df", "dirname", "env", "grep", "head", "mkdir", "mv", "paste", "rm", "sed", "tail", "tr",
                     "cat"]:
            (stand_ins / tool).symlink_to(shutil.which(tool))
        for name, does in self.commands.items():
            stand_in = stand_ins / name
            stand_in.write_text(f'#!/bin/bash\necho "{name} $*" >>"{calls}"\n{does}\n')
            stand_in.chmod(0o755)
        calls.unlink(missing_ok=True)
        done = subprocess.run([self.clone / "tools/setup"], env={**os.environ, "PATH": str(stand_ins)},
                              capture_output=True, text=True, user=self.user)
        noted = calls.read_text().splitlines() if calls.exists() else []
        return (done.returncode, done.stdout + done.stderr,
                [call for call in noted if call.startswith(("mmdebstrap", "apt-get update", "apt-get install", "sudo env"))])

    def refused(self, *texts):
        status, said, calls = self.set_up()
        self.assertEqual(status, 1, said)
        self.assertTrue(said.splitlines(), "nothing is said")
        for text in texts:
            self.assertIn(text, said)
        return calls

    def lacking(self, package):
        self.commands["dpkg-query"] = f'[ "${{!#}}" = {package} ] || echo install ok installed'

    def logging(self, command, text):
        self.commands[command] = f'[ "$1" != indextargets ] || {{ echo {MIRROR}; exit; }}; echo "{text}"; exit 1'

    def test_unpacks_the_system_root_once(self):
        status, said, calls = self.set_up()
        self.assertEqual((status, len(calls)), (0, 1), said)
        self.assertIn(f"deb {MIRROR} bookworm main", calls[0])
        self.assertTrue((self.clone / "build/sysroot/.complete").exists())
        self.assertEqual(self.set_up(), (0, "", []))

    def test_unpacks_it_anew_for_other_packages(self):
        self.set_up()
        with open(self.clone / "tools/packages.txt", "a") as packages:
            packages.write("\nlibmore-dev\n")
        _, _, calls = self.set_up()
        self.assertIn("libmore-dev", calls[0])

    def test_needs_no_root_where_the_packages_are(self):
        self.commands["id"] = "echo 1000"
        status, said, calls = self.set_up()
        self.assertEqual(status, 0, said)
        self.assertIn("--mode=chrootless", calls[0])

    def test_root_unpacks_as_root(self):
        _, _, calls = self.set_up()
        self.assertNotIn("chrootless", calls[0])

    def test_root_installs_what_is_missing(self):
        self.lacking("valgrind")
        status, said, calls = self.set_up()
        self.assertEqual(status, 0, said)
        self.assertEqual(calls[:2], ["apt-get update", "apt-get install -y --no-install-recommends valgrind"])

    def test_nobody_else_does_and_is_told_what_root_must_run(self):
        self.commands["id"] = "echo 1000"
        self.lacking("valgrind")
        self.assertEqual(self.refused("only root can", "apt-get install -y --no-install-recommends valgrind"), [])

    def test_no_debian_machine(self):
        self.lacking("valgrind")
        del self.commands["apt-get"]
        self.assertEqual(self.refused("no Debian machine", "docker run"), [])

    def test_a_machine_that_knows_no_mirror(self):
        self.commands["apt-get"] = SILENT
        self.assertEqual(self.refused("no Debian 12 (bookworm) mirror", "apt-get update"), ["apt-get update"])

    def test_failures_name_their_cause(self):
        network, full = "E: Failed to fetch http://x  Could not resolve 'x'", "E: Write error: No space left on device"
        for command, text, cause in [("mmdebstrap", network, "Check the network"), ("mmdebstrap", full, "The disk is full"),
                                     ("mmdebstrap", "E: unheard of", "See the lines above and build/sysroot.log"),
                                     ("apt-get", network, "Check the network"),
                                     ("apt-get", "E: Unable to locate package valgrind", "lack a package of Debian 12"),
                                     ("apt-get", "E: Could not get lock /var/lib/x", "Another package manager")]:
            with self.subTest(text):
                if command == "apt-get":
                    self.lacking("valgrind")
                self.logging(command, text)
                self.refused(text, cause)
                self.assertFalse((self.clone / "build/sysroot").exists())

    def test_folders_whose_names_the_tools_take_apart(self):
        for character in ":;,\"'`$\\#%&*?[]{}|<>!^~\n":
            with self.subTest(character):
                self.clone = self.make_clone(f"a{character}b")
                self.assertEqual(self.refused("a character in its name", "Move the clone"), [])

    def test_a_clone_that_is_somebody_elses(self):
        self.clone.chmod(0o555)
        self.addCleanup(self.clone.chmod, 0o755)
        if os.geteuid() == 0:  # who may write everywhere
            self.folder.chmod(0o755)
            self.user = NOBODY
        self.assertEqual(self.refused("cannot be written by you", "Clone it as yourself"), [])


if __name__ == "__main__":
    unittest.main()
