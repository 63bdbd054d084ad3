"""Runs the check for Macs here, in the 32-bit Python of the system root."""

import os
import subprocess

SYSROOT = os.environ["MAC_CHECK_SYSROOT"]
SCRIPT = os.environ["MAC_CHECK_SCRIPT"]
TESTBED = os.environ["MAC_CHECK_TESTBED"]
FRAMEWORK = os.environ["MAC_CHECK_FRAMEWORK"]


def python(*arguments):
    """The finished process of that Python: its output and errors as text."""
    libraries = ":".join(SYSROOT + folder for folder in
                         ("/usr/lib/i386-linux-gnu", "/lib/i386-linux-gnu", "/usr/lib"))
    environment = dict(os.environ, PYTHONHOME=SYSROOT + "/usr", PYTHONDONTWRITEBYTECODE="1",
                       GCONV_PATH=SYSROOT + "/usr/lib/i386-linux-gnu/gconv")
    return subprocess.run(
        [SYSROOT + "/lib/ld-linux.so.2", "--library-path", libraries, SYSROOT + "/usr/bin/python3",
         *arguments], env=environment, capture_output=True, text=True, errors="replace")


def check(plugin, *arguments):
    return python(SCRIPT, "--testbed", TESTBED, "--plugin", str(plugin), *arguments)
