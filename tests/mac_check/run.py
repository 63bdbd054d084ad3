"""Runs the check for Macs here, and answers the finished process."""

import os
import pathlib
import subprocess

FOLDER = pathlib.Path(__file__).resolve().parents[2] / "mac-check"
FRAMEWORK = os.environ["BUILD"] + "/sparkle/Sparkle.framework"


def check(plugin, *arguments):
    return subprocess.run([FOLDER / "on-linux", plugin, *arguments], capture_output=True, text=True,
                          errors="replace")
