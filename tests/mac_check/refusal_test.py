"""What cannot begin is refused in words, with the exit status 2."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

import run

BUNDLE = os.environ["MAC_CHECK_BUNDLE"]


class Refusal(unittest.TestCase):
    def refused(self, done, *sentences):
        self.assertEqual((2, ""), (done.returncode, done.stdout), done.stderr)
        for sentence in sentences:
            self.assertIn(sentence, done.stderr)
        self.assertNotIn("Traceback", done.stderr)

    def test_the_framework_s_group_without_a_framework(self):
        for host in ("host 2011.4", "host 2013.03"):
            self.refused(run.check(BUNDLE, "--only", "framework/" + host),
                         f"framework/{host} needs the framework",
                         "--framework PATH/Sparkle.framework")

    def test_a_group_that_does_not_exist(self):
        self.refused(run.check(BUNDLE, "--only", "text"), "there is no group text.",
                     "text/host 2013.03")

    def test_a_file_that_does_not_exist(self):
        self.refused(run.check("absent.dylib"), "absent.dylib is not there.")

    def test_on_linux_without_a_plugin(self):
        self.refused(subprocess.run([run.FOLDER / "on-linux"], capture_output=True, text=True),
                     "elf, macho, or the file of a plug-in")

    def test_on_linux_without_the_system_root(self):
        with tempfile.TemporaryDirectory() as folder:
            copy = pathlib.Path(folder) / "mac-check"
            copy.mkdir()
            shutil.copy(run.FOLDER / "on-linux", copy)
            done = subprocess.run([copy / "on-linux", "elf"], capture_output=True, text=True)
            self.refused(done, f"{folder}/build/sysroot", "make demo")

    def test_on_linux_without_the_build(self):
        with tempfile.TemporaryDirectory() as folder:
            for plugin, name in (("macho", "lib/libtestbed_cocoa.so"),
                                 ("macho", "lib/libtestbed_loader.so"),
                                 ("macho", "macho/SparkleKVZ.dylib"),
                                 ("elf", "lib/libSparkleKVZ.so")):
                done = subprocess.run([run.FOLDER / "on-linux", plugin], capture_output=True,
                                      text=True, env=dict(os.environ, BUILD=folder))
                self.refused(done, f"{folder}/{name} is not there.", "tools/build dev")
                file = pathlib.Path(folder) / name
                file.parent.mkdir(exist_ok=True)
                file.touch()


if __name__ == "__main__":
    unittest.main()
