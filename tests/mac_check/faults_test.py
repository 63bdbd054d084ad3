"""Each group of the check for Macs tells a fault of the plug-in, by the right line.

The fault is made in a copy of the bundle, in its data: a name there is exchanged for another that is
no longer. The copy then sends another message than it should, or asks the host for another
operation.
"""

import os
import pathlib
import tempfile
import unittest

import run

BUNDLE = pathlib.Path(os.environ["MAC_CHECK_BUNDLE"])

FAULTS = [  # the group and its host, a name in the bundle, what becomes of it, and the line
    ("loading/no host", "_CFRetain", "_CFRetaim",
     'the system has every symbol that the plug-in must have: expected (), got ("CFRetaim")'),
    ("records/host 2011.4", "feedURL as string", "feedUrl as string",
     'SUUpdaterKVZ, the methods: expected ((true, true, "feedURL as string", 4)), '
     'got ((true, true, "feedUrl as string", 4))'),
    ("objects/host 2013.03", "release", "retain",
     "SUAppcastItemKVZ gives its reference back: expected 1, got 3"),
    ("comparator/host 2013.03", "GetEventInstance", "GetEventInstanse",
     "the program's answer 7 reaches Cocoa: expected 7, got -1"),
    ("text/host 2013.03 by bytes", "PluginGetStringData", "PluginGetStringDate",
     'umlauts to Cocoa: expected (("setUserAgentString:", "\\xc4pfel, '
     '\\xd6l, \\xfcber, Stra\\xdfe")), got (("setUserAgentString:", nothing))'),
    ("exceptions/host 2013.03", "A %@: %@, Info: %@\n", "A %@: %@, Idea: %@\n",
     'title as string, after one line in the log: expected '
     '(("A NSInvalidArgumentException: "), true, true), '
     'got (("A NSInvalidArgumentException: "), false, true)'),
    ("events/host 2011.4", "invoke", "retain",
     '"InvokeUpdate" completes what was postponed: expected (("relaunch", 0)), got ()'),
    ("values from Cocoa/host 2013.03", "Int64ToVariant", "Int32ToVariant",
     'numberWithLongLong -1099511627776: expected ("int64", -1099511627776), got ("int32", 0)'),
    ("values to Cocoa/host 2013.03", "VariantToInt64", "VariantToInt32",
     'an Int64: expected ("whole", -1099511627776), got'),
    ("members/host 2013.03", "fetchAppcastFromURL:", "setDelegate:",
     'fetchAppcastFromURL: with a URL and without: expected (("fetchAppcastFromURL:", '
     '"http://example.com/other.xml"), ("fetchAppcastFromURL:", nothing)), got'),
    ("threads/host 2013.03", "performSelectorOnMainThread:withObject:waitUntilDone:",
     "performSelector:withObject:",
     "a report of a second thread arrives on the main one, which the second waits for; a question "
     "is asked on the second: expected"),
    ("framework/host 2013.03", "versionString", "title",
     'the item\'s versionString: expected "3.0", got "Version 3.0 f\\xfcr alle"')]


class Faults(unittest.TestCase):
    def failures(self, content, *arguments):
        """The lines that fail, and the exit status."""
        with tempfile.TemporaryDirectory() as folder:
            copy = pathlib.Path(folder) / "SparkleKVZ.dylib"
            copy.write_bytes(content)
            done = run.check(copy, *arguments)
        failed = [line for line in done.stdout.splitlines() if line.startswith("FAIL")]
        return failed, done.returncode

    def failures_of_group(self, group, content):
        return self.failures(content, "--only", group, "--framework", run.FRAMEWORK)

    def with_fault(self, name, other):
        before = BUNDLE.read_bytes()
        self.assertLessEqual(len(other), len(name))
        after = before.replace(b"\0" + name.encode() + b"\0",
                               b"\0" + other.encode().ljust(len(name), b"\0") + b"\0")
        self.assertNotEqual(before, after)
        return after

    def test_each_makes_its_line_fail(self):
        for group, name, other, line in FAULTS:
            with self.subTest(group):
                expected = f"FAIL {group}: {line}"
                failed, status = self.failures_of_group(group, self.with_fault(name, other))
                self.assertTrue([got for got in failed if got.startswith(expected)],
                                "\n".join([expected] + failed))
                self.assertEqual(1, status)

    def test_none_fails_in_the_bundle_as_it_is(self):
        for group, *_ in FAULTS:
            with self.subTest(group):
                self.assertEqual(([], 0), self.failures_of_group(group, BUNDLE.read_bytes()))

    def test_a_group_that_fails_has_come_to_its_end(self):
        group, name, other, _ = FAULTS[0]  # after which nothing else is run
        failed, status = self.failures(self.with_fault(name, other))
        self.assertEqual([f"FAIL {group}"] * len(failed), [line.split(":")[0] for line in failed])
        self.assertTrue(failed)
        self.assertFalse([line for line in failed if "to come to its end" in line], failed)
        self.assertEqual(1, status)


if __name__ == "__main__":
    unittest.main()
