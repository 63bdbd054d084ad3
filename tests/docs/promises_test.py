"""Every test that the README's table of promises names is a test that runs."""

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

    def test_names_are_taken_whole(self):
        tests = ["elf.cycle_test.Hosts/Cycle.Finds/2013_0", "soak.cycles"]
        for name in ["Cycle.Finds", "soak.cycles", "elf.", "make soak"]:
            self.assertTrue(runs(name, tests), name)
        for name in ["Cycle.Find", "ycle.Finds", "soak", "macho.", "make so", "make CYCLES"]:
            self.assertFalse(runs(name, tests), name)


if __name__ == "__main__":
    unittest.main()
