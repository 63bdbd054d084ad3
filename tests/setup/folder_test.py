"""A clone may lie in a folder with a space, parentheses and other letters in its name: programs built
there run there, and so does the way to the Mach-O bundle."""

import pathlib
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
NAME = "The (1) näxt clone+a-b.c=d@e_f"


class Folder(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.clone = pathlib.Path(folder.name) / NAME
        shutil.copytree(ROOT / "tests/setup/program", cls.clone)
        shutil.copytree(ROOT / "cmake", cls.clone / "cmake")
        shutil.copytree(ROOT / "tests/macho/sample", cls.clone / "tests/macho/sample")
        cls.build = cls.clone / "build/dev"
        cls.build.mkdir(parents=True)
        (cls.clone / "build/sysroot").symlink_to((ROOT / "build/sysroot").resolve())

    def run_in_clone(self, *command):
        done = subprocess.run(command, cwd=self.clone, capture_output=True, text=True)
        self.assertEqual(done.returncode, 0, done.stdout[-2000:] + done.stderr[-2000:])
        return done.stdout

    def test_what_is_built_there_runs_there(self):
        self.run_in_clone("cmake", "-G", "Ninja", "-B", self.build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                          "--toolchain", self.clone / "cmake/i386-linux.toolchain.cmake")
        self.run_in_clone("cmake", "--build", self.build)
        self.assertIn(f"runs in {self.build}", self.run_in_clone(self.build / "program"))
        self.assertEqual((self.build / "macho/sample.bundle").read_bytes()[:4], b"\xce\xfa\xed\xfe")
        # It knows all its files: nothing is built a second time.
        self.assertIn("no work to do", self.run_in_clone("cmake", "--build", self.build))


if __name__ == "__main__":
    unittest.main()
