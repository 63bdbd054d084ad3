"""What tools/release makes of a commit, and what it refuses. The commit is one of this tree as it
stands, in repositories of the test's own.

    release_test.py, with MACHO_ROOT and MACHO_ARCHIVE in the environment
"""

import hashlib
import os
import pathlib
import re
import shutil
import subprocess
import tarfile
import tempfile
import unittest

ROOT = pathlib.Path(os.environ["MACHO_ROOT"])
ARCHIVE = pathlib.Path(os.environ["MACHO_ARCHIVE"])
MAC_CHECK = pathlib.Path(os.environ["MAC_CHECK_ARCHIVE"])
NOT_SOURCES = {".git", "build", "dist", "compile_commands.json"}
GIT = {"GIT_CONFIG_GLOBAL": os.devnull, "GIT_CONFIG_SYSTEM": os.devnull,
       "GIT_AUTHOR_NAME": "Test", "GIT_AUTHOR_EMAIL": "test@localhost",
       "GIT_COMMITTER_NAME": "Test", "GIT_COMMITTER_EMAIL": "test@localhost"}


def git(folder, *arguments):
    return subprocess.run(["git", "-C", folder, *arguments], check=True, capture_output=True,
                          text=True, env=os.environ | GIT).stdout


def release(folder):
    return subprocess.run([folder / "tools/release", "--without-checks"], env=os.environ | GIT,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


class Release(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.committed = cls.folder / "committed"
        shutil.copytree(ROOT, cls.committed, symlinks=True,
                        ignore=lambda at, names: NOT_SOURCES & set(names) if at == str(ROOT) else ())
        git(cls.committed, "init", "--quiet")
        git(cls.committed, "add", "--all")
        git(cls.committed, "commit", "--quiet", "--message", "All of it")

    def clone(self, name):
        clone = self.folder / name
        git(self.folder, "clone", "--quiet", self.committed, clone)
        (clone / "build").mkdir()
        (clone / "build/sysroot").symlink_to((ROOT / "build/sysroot").resolve())
        return clone

    def assertRefused(self, clone, *words):
        done = release(clone)
        self.assertNotEqual(0, done.returncode)
        for each in words:
            self.assertIn(each, done.stdout)
        self.assertFalse((clone / "dist").exists())

    def test_refuses_what_is_not_committed(self):
        clone = self.clone("dirty")
        (clone / "LICENSE").write_text("changed")
        self.assertRefused(clone, "release: the tree is not clean:\n M LICENSE\n", "Commit these")
        git(clone, "checkout", "LICENSE")
        (clone / "plugin/forgotten.cpp").write_text("")
        self.assertRefused(clone, "the tree is not clean:\n?? plugin/forgotten.cpp\n")

    def test_refuses_a_tree_that_is_no_clone(self):
        clone = self.clone("unpacked")
        shutil.rmtree(clone / ".git")
        self.assertRefused(clone, "is no git clone", "Clone the project")
        git(self.folder, "init", "--quiet")  # nor is it the repository that it lies in
        self.addCleanup(shutil.rmtree, self.folder / ".git")
        self.assertRefused(clone, "is no git clone")

    def test_gives_the_same_bytes_in_another_folder(self):
        results = []
        for name in ("one", "another"):
            clone = self.clone(name)
            done = release(clone)
            self.assertEqual(0, done.returncode, done.stdout)
            self.assertEqual("", git(clone, "status", "--porcelain"))
            (result,) = (clone / "dist").iterdir()
            results.append(result)
        made, another = results
        changes = (ROOT / "CHANGELOG.md").read_text()
        version = re.search(r"^## ([0-9.]+)", changes, re.M)[1]
        sources = f"SparkleKVZ-{version}"
        self.assertEqual(sources, made.name)
        names = sorted(path.name for path in made.iterdir())
        self.assertEqual(["CHANGES.md", "SHA256SUMS", f"{sources}.tar.gz", MAC_CHECK.name,
                          ARCHIVE.name], names)
        for name in names:
            self.assertEqual((made / name).read_bytes(), (another / name).read_bytes(), name)
        for own in ARCHIVE, MAC_CHECK:
            self.assertEqual(own.read_bytes(), (made / own.name).read_bytes(), own)

        sums = dict(reversed(line.split("  ")) for line in
                    (made / "SHA256SUMS").read_text().splitlines())
        self.assertEqual({name: hashlib.sha256((made / name).read_bytes()).hexdigest()
                          for name in names if name != "SHA256SUMS"}, sums)
        newest = (made / "CHANGES.md").read_text()
        self.assertTrue(newest.startswith(f"## {version}"), newest)
        self.assertIn(newest, changes)
        self.assertEqual(1, len(re.findall("^## ", newest, re.M)), newest)
        with tarfile.open(made / f"{sources}.tar.gz") as archive:
            files = sorted(member.name for member in archive if not member.isdir())
        committed = git(self.committed, "ls-files").splitlines()
        self.assertEqual(sorted(f"{sources}/{name}" for name in committed), files)


if __name__ == "__main__":
    unittest.main()
