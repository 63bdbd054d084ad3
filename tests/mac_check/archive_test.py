"""What a user unpacks on a Mac is what the build made and the tests ran."""

import os
import pathlib
import unittest
import zipfile

FOLDER = "SparkleKVZ-mac-check/"
FILES = {"SparkleKVZ.dylib": os.environ["MAC_CHECK_BUNDLE"],
         "check.py": os.environ["MAC_CHECK_SCRIPT"]}


class Archive(unittest.TestCase):
    def setUp(self):
        self.archive = zipfile.ZipFile(os.environ["MAC_CHECK_ARCHIVE"])
        self.addCleanup(self.archive.close)

    def test_holds_the_bundle_and_the_script(self):
        self.assertEqual([FOLDER + name for name in FILES], self.archive.namelist())
        for name, path in FILES.items():
            self.assertEqual(pathlib.Path(path).read_bytes(), self.archive.read(FOLDER + name))

    def test_depends_on_nothing_but_its_contents(self):
        self.assertEqual({(1980, 1, 1, 0, 0, 0)}, {i.date_time for i in self.archive.infolist()})


if __name__ == "__main__":
    unittest.main()
