"""Every test that the README's table of promises names is a test that runs, and every number has its command."""

import json
import pathlib
import re
import subprocess
import sys
import unittest

import markdown

BUILD = pathlib.Path(sys.argv.pop())


def promised(text):
    """[(line, [name])] of the table's rows."""
    rows = []
    for number, line in markdown.split(text)[0]:
        cells = line.strip().strip("|").split(" | ")
        if line.startswith("| ") and len(cells) == 2 and "`" in cells[1]:
            rows.append((number, re.findall(r"`([^`]+)`", cells[1])))
    return rows


def output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def proven(text):
    """The rows of the table of numbers."""
    rows = [re.split(r" *\| *", line.strip().strip("|").strip()) for _, line in markdown.split(text)[0]
            if line.startswith("| ")]
    return [row for row in rows if len(row) == 4 and row[0] != "what"]


def registered():
    """The names that ctest knows, and those of the tests in its programs behind them."""
    names = []
    for test in json.loads(output("ctest", "--test-dir", BUILD, "--show-only=json-v1"))["tests"]:
        names.append(test["name"])
        properties = {each["name"]: each["value"] for each in test["properties"]}
        if not any(each.startswith("SPARKLEKVZ_PROGRAM=") for each in properties.get("ENVIRONMENT", [])):
            continue
        suite = ""
        for line in output(test["command"][0], "--gtest_list_tests").splitlines():
            if line.startswith("  "):
                names.append(f"{test['name']}.{suite}{line.split()[0]}")
            else:
                suite = line.split()[0]
    return names


def runs(name, tests):
    """elf.cycle_test.Hosts/Cycle.Finds/2013_0 is Cycle.Finds, and "macho." is the beginning of many."""
    if name.startswith("make "):
        return re.search(rf"^{re.escape(name[5:])}:", markdown.read("Makefile"), re.MULTILINE) is not None
    if name.endswith("."):
        return any(test.startswith(name) for test in tests)
    pattern = re.compile(r"(?:^|[./])" + re.escape(name) + r"(?:/|$)")
    return any(pattern.search(test) for test in tests)


class Promises(unittest.TestCase):
    def test_name_tests_that_run(self):
        rows = promised(markdown.read("README.md"))
        self.assertGreater(len(rows), 8)
        tests = registered()
        missing = [f"README.md:{number}: no test is called {name}"
                   for number, names in rows for name in names if not runs(name, tests)]
        self.assertEqual(missing, [], "\n" + "\n".join(missing))

    def test_numbers_have_a_command_and_a_date(self):
        rows = proven(markdown.read("README.md"))
        self.assertGreater(len(rows), 5)
        for what, number, command, date in rows:
            self.assertRegex(number, r"^\d", what)
            self.assertRegex(date, r"^\d{4}-\d\d-\d\d$", what)
            self.assertRegex(command, r"^`make [\w-]+( [A-Z]+=\w+)*`$", what)
            self.assertTrue(runs(" ".join(command.strip("`").split()[:2]), []), command)
            help_of_make = markdown.read("Makefile")
            for setting in re.findall(r"([A-Z]+)=", command):
                self.assertRegex(help_of_make, rf"(?m)^#: .*\b{setting}=")

    def test_the_size_of_the_bundle_is_below_its_bound_and_not_far(self):
        (bound,) = [int(number.replace(",", "")) for _, number, command, _ in proven(markdown.read("README.md"))
                    if command == "`make plugin`"]
        size = (BUILD / "macho/SparkleKVZ.dylib").stat().st_size
        self.assertLess(size, bound)
        self.assertGreater(size, bound * 0.95)

    def test_names_are_taken_whole(self):
        tests = ["elf.cycle_test.Hosts/Cycle.Finds/2013_0", "soak.cycles"]
        for name in ["Cycle.Finds", "soak.cycles", "elf.", "make soak"]:
            self.assertTrue(runs(name, tests), name)
        for name in ["Cycle.Find", "ycle.Finds", "soak", "macho.", "make so", "make CYCLES"]:
            self.assertFalse(runs(name, tests), name)


if __name__ == "__main__":
    unittest.main()
