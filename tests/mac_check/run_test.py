"""The check for Macs finds nothing wrong with the plug-in named: run_test.py PLUGIN"""

import os
import re
import sys

import run

done = run.check(sys.argv[1], "--framework", run.FRAMEWORK)
print(done.stdout, done.stderr)
ok, failed = map(int, re.search(r"^(\d+) ok, (\d+) FAIL$", done.stdout, re.M).groups())
# A check that is not reached would not be missed by its own line.
groups = set(re.findall(r"^ok   ([\w ]+)/", done.stdout, re.M))
expected = {"loading", "records", "objects", "comparator", "text", "exceptions", "events",
            "values from Cocoa", "values to Cocoa", "members", "threads", "framework"}
if failed or done.returncode or groups != expected or ok < 900:
    sys.exit(f"{ok} ok, {failed} FAIL, status {done.returncode}, groups {sorted(groups)}")
if done.stderr:
    sys.exit("it wrote to the standard error")

# The next version of the framework, and one whose callbacks all come from threads of its own.
for version in ("1.6", "workers"):
    os.environ["SPARKLE_VERSION"] = version
    done = run.check(sys.argv[1], "--framework", run.FRAMEWORK, "--only", "framework/host 2013.03")
    print(version, done.stdout)
    if ("FAIL" in done.stdout or done.returncode or
            not done.stdout.endswith("end  framework\n")):
        sys.exit(f"the framework's version {version} fails")
