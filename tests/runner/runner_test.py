"""What the runner makes of tests that end in every way a test can end: runner_test.py SAMPLE"""

import os
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest

SAMPLE = sys.argv.pop()
BAD = ["Crashed", "Failed", "LeftInTheMiddle", "NeverWell", "TooLate"]


def run(*options, **settings):
    """Its exit status, what it printed, and {test: outcome}."""
    with tempfile.NamedTemporaryFile("r") as results:
        environment = {key: value for key, value in os.environ.items()
                       if not key.startswith(("GTEST_", "SPARKLEKVZ_", "GCONV_"))}
        environment |= {"SPARKLEKVZ_RESULTS": results.name} | settings
        done = subprocess.run([SAMPLE, "--timeout=2", *options], env=environment, text=True, timeout=60,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        rows = [line.rstrip("\n").split("\t") for line in results]
    return done.returncode, done.stdout, {row[1]: row[3] for row in rows}, len(rows)


def running():
    """The processes of this sample."""
    found = []
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if (process / "exe").samefile(SAMPLE) and "State:\tZ" not in (process / "status").read_text():
                found.append(process.name)
        except OSError:
            pass
    return found


class Runner(unittest.TestCase):
    def check_outcomes(self, *options):
        status, text, outcomes, _ = run(*options)
        self.assertEqual(status, 1)
        self.assertEqual(sorted(name for name, outcome in outcomes.items() if outcome == "failed"),
                         [f"Ends.{name}" for name in BAD], text)
        self.assertEqual(outcomes["Ends.Skipped"], "skipped")
        self.assertEqual(sum(outcome == "passed" for outcome in outcomes.values()), 6)
        self.assertIn("12 tests: 6 passed, 5 failed, 1 skipped", text)
        self.assertNotIn("DISABLED", text)
        for name, words in {"Crashed": "ended by: Aborted, on the host 2.0",
                            "Failed": "ended with status 1, on the host 1.0",
                            "LeftInTheMiddle": "ended with status 0 before the test was over",
                            "NeverWell": "ended with status 3",
                            "TooLate": "did not end within 2 s"}.items():
            self.assertIn(f"[  FAILED  ] Ends.{name} {words}\n", text)
            self.assertIn(f"  alone:     {SAMPLE} --gtest_filter=Ends.{name}\n", text)
            self.assertIn(f"gdb --args {SAMPLE} --foreground --gtest_filter=Ends.{name}\n", text)
        self.assertIn("said by a test that fails", text)
        self.assertNotIn("said by a test that passes", text)

    def test_each_end_belongs_to_its_test(self):
        self.check_outcomes()

    def test_how_to_run_it_alone_names_what_decides_what_is_tested(self):
        _, text, _, _ = run("--gtest_filter=Ends.Failed", SPARKLEKVZ_PLUGIN="elf", TESTBED_CFTYPEID="none")
        self.assertIn(f"  alone:     SPARKLEKVZ_PLUGIN=elf TESTBED_CFTYPEID=none {SAMPLE} --", text)
        self.assertIn("  debugger:  SPARKLEKVZ_PLUGIN=elf TESTBED_CFTYPEID=none gdb --args", text)

    def test_a_program_from_nothing_for_each_makes_no_difference(self):
        self.check_outcomes("--isolate=exec")

    def test_one_at_a_time_makes_no_difference(self):
        self.check_outcomes("--jobs=1")

    def test_nothing_is_left_running(self):
        self.assertEqual(run("--gtest_filter=Ends.Leaving")[0], 0)
        # What is killed takes a moment to be gone; what is not stays.
        for _ in range(100):
            if not running():
                return
            time.sleep(0.1)
        self.fail(f"left running: {running()}")

    def test_a_test_alone_shows_what_it_prints(self):
        for options in [(), ("--foreground",)]:
            status, text, *_ = run("--gtest_filter=Ends.Passed", *options)
            self.assertEqual(status, 0)
            self.assertIn("said by a test that passes", text)

    def test_the_foreground_is_for_one_test(self):
        status, text, *_ = run("--gtest_filter=Alone.*", "--foreground")
        self.assertEqual(status, 64)
        self.assertIn("--foreground runs one test; --gtest_filter selects 2", text)

    def test_repeats_and_shuffles(self):
        status, text, _, count = run("--gtest_filter=Alone.*", "--gtest_repeat=3", "--gtest_shuffle",
                                     "--gtest_random_seed=5")
        self.assertEqual((status, count), (0, 6), text)
        self.assertIn("Shuffled with --gtest_random_seed=5", text)
        orders = [list(run("--gtest_filter=-Ends.TooLate", "--jobs=1", *options)[2])
                  for options in [(), ("--gtest_shuffle", "--gtest_random_seed=5"),
                                  ("--gtest_shuffle", "--gtest_random_seed=5")]]
        self.assertNotEqual(orders[0], orders[1])
        self.assertEqual(sorted(orders[0]), sorted(orders[1]))
        self.assertEqual(orders[1], orders[2])

    def test_stops_at_the_first_failure_when_asked(self):
        status, _, outcomes, _ = run("--gtest_fail_fast", "--jobs=1")
        self.assertEqual(status, 1)
        self.assertEqual(list(outcomes.values()).count("failed"), 1)

    def test_no_test_is_no_success(self):
        status, text, *_ = run("--gtest_filter=Nothing.*")
        self.assertEqual(status, 1)
        self.assertIn("No test has such a name", text)

    def test_refuses_what_it_does_not_know(self):
        for option in ["--joobs=2", "--jobs=0", "--jobs=two", "--gtest_output=xml"]:
            status, text, *_ = run(option)
            self.assertEqual(status, 64, text)

    def test_refuses_to_fork_beside_a_thread(self):
        status, text, *_ = run(SAMPLE_THREAD="1")
        self.assertEqual(status, 64)
        self.assertIn("a thread exists before the first test", text)

    def test_lists_as_always(self):
        text = run("--gtest_list_tests")[1]
        self.assertIn("Alone.\n  One\n  Two\n", text)


if __name__ == "__main__":
    unittest.main()
