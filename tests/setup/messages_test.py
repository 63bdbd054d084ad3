"""What make and the tools say to somebody who asked for something that there is not."""

import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]


def run(*command, cwd=ROOT):
    done = subprocess.run(command, cwd=cwd, capture_output=True, text=True)
    return done.returncode, done.stdout, done.stderr


class Make(unittest.TestCase):
    def test_alone_prints_the_help(self):
        status, said, _ = run("make")
        self.assertEqual(status, 0)
        self.assertEqual(said, run("make", "help")[1])
        for target in ["demo", "test", "plugin", "clean"]:
            self.assertRegex(said, rf"(?m)^make {target} ")

    def test_help_names_only_what_there_is(self):
        phony = (ROOT / "Makefile").read_text()
        for line in run("make")[1].splitlines():
            if line.startswith("make "):
                self.assertIn(f"\n{line.split()[1]}:", phony)

    def test_unknown_target(self):
        status, _, said = run("make", "tset")
        self.assertEqual(status, 2)
        self.assertIn("There is no target 'tset'", said)
        self.assertIn("make test", said)

    def test_unknown_setting(self):
        status, _, said = run("make", "-n", "test", "SANITISE=1")
        self.assertEqual(status, 2)
        self.assertIn("There is no setting SANITISE for 'make test'", said)
        self.assertIn(" SANITIZE ", said)

    def test_setting_of_another_target(self):
        status, _, said = run("make", "-n", "torture", "SANITIZE=1")
        self.assertEqual(status, 2)
        self.assertIn("There is no setting SANITIZE for 'make torture'. There are: PLUGIN;", said)
        status, _, said = run("make", "-n", "coverage", "PLUGIN=elf")
        self.assertIn("There is no setting PLUGIN for 'make coverage'. There are: none;", said)
        self.assertEqual(run("make", "-n", "build", "SANITIZE=1")[0], 0)  # which the help does not name

    def test_host_is_not_taken_from_the_environment(self):
        self.assertNotIn("--host", run("env", "HOST=machine", "make", "-n", "demo")[1])
        self.assertIn("--host=2012.0", run("make", "-n", "demo", "HOST=2012.0")[1])

    def test_settings_that_the_makefile_reads_are_in_the_help_and_known(self):
        makefile = (ROOT / "Makefile").read_text()
        own = set(re.findall(r"(?m)^(?:export )?([A-Z_]+) *:=", makefile)) | {"CURDIR", "MAKE", "MAKECMDGOALS"}
        own -= {"CYCLES", "SECONDS", "STRESS"}
        settings = set(re.findall(r"\$\(([A-Z_]+)\)", makefile)) - own
        self.assertGreater(len(settings), 8)
        said = run("make")[1]
        for setting in settings:
            self.assertRegex(said, rf"\b{setting}=")
            self.assertEqual(run("make", "-j2", "-n", "help", f"{setting}=http://x/y?a=b c")[0], 0, setting)


class Tools(unittest.TestCase):
    def refused(self, *command, saying):
        status, _, said = run(*command)
        self.assertNotEqual(status, 0)
        self.assertIn(saying, said)

    def test_build(self):
        self.refused("tools/build", saying="tools/build dev")

    def test_fuzz(self):
        self.refused("tools/fuzz", "soon", saying='"soon" is no number of seconds')
        self.refused("tools/fuzz", "60", "string", saying="there is no target string; there are: strings")
        self.refused("env", "BUILD=nowhere", "tools/fuzz", saying="nowhere has no bin/fuzz_strings")

    def test_replay(self):
        self.refused("tests/fuzz/replay", saying="replay [--every-host] TARGET FILE|FOLDER")
        self.refused("tests/fuzz/replay", "true", "/no/where", saying="no input file in /no/where")
        status, said, _ = run("tests/fuzz/replay", "false", "Makefile")
        self.assertEqual(status, 1)
        self.assertRegex(said, "failed on the host 2013.03.*\n.*SPARKLEKVZ_HOST=2013.03 .*false INPUT")

    def test_format_without_git(self):
        with tempfile.TemporaryDirectory() as folder:
            clone = pathlib.Path(folder) / "unpacked sources"
            for name in ["tools/format", ".clang-format"]:
                (clone / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(ROOT / name, clone / name)
            (clone / "a.cpp").write_text("int  a;\n")
            status, _, said = run(clone / "tools/format", "--check")
            self.assertEqual(status, 1)
            self.assertIn("a.cpp:1", said)
            self.assertIn("'make format' mends them", said)
            self.assertEqual(run(clone / "tools/format")[0], 0)
            self.assertEqual((clone / "a.cpp").read_text(), "int a;\n")

    def test_cmake_without_the_system_root(self):
        with tempfile.TemporaryDirectory() as folder:
            shutil.copytree(ROOT / "cmake", pathlib.Path(folder) / "cmake")
            (pathlib.Path(folder) / "CMakeLists.txt").write_text("project(p LANGUAGES C)\n")
            status, _, said = run("cmake", "-G", "Ninja", "-B", "build/dev", "--toolchain",
                                  "cmake/i386-linux.toolchain.cmake", cwd=folder)
            self.assertEqual(status, 1)
            self.assertIn("Run tools/setup", " ".join(said.split()))
            self.assertLess(len(said.splitlines()), 25)

    def test_a_clone_is_configured_when_there_is_a_system_root_and_anew_when_it_has_moved(self):
        with tempfile.TemporaryDirectory() as folder:
            clone = pathlib.Path(folder) / "moved"
            (clone / "tools").mkdir(parents=True)
            (clone / "build/dev").mkdir(parents=True)
            shutil.copy(ROOT / "tools/build", clone / "tools")
            (clone / "CMakeLists.txt").write_text("cmake_minimum_required(VERSION 3.25)\nproject(p LANGUAGES NONE)\n")
            (clone / "CMakePresets.json").write_text(
                '{"version": 5, "configurePresets": [{"name": "dev", "generator": "Ninja", '
                '"binaryDir": "${sourceDir}/build/dev"}]}')
            build = [clone / "tools/build", "dev"]
            status, said, complaint = run(*build)
            self.assertEqual((status, said), (1, ""))
            self.assertIn("no 32-bit system root in build/sysroot. Run 'make setup' once", complaint)
            (clone / "build/sysroot/usr").mkdir(parents=True)
            self.assertIn("Configuring build/dev", run(*build)[1])
            self.assertNotIn("Configuring build/dev", run(*build)[1])
            clone = clone.rename(pathlib.Path(folder) / "moved again")
            status, said, complaint = run(clone / "tools/build", "dev")
            self.assertEqual(status, 0, complaint)
            self.assertIn("Configuring build/dev", said)


if __name__ == "__main__":
    unittest.main()
