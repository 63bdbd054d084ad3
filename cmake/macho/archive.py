"""Writes a zip archive whose bytes depend on nothing but its contents.

    archive.py OUTPUT NAME=FILE...
"""

import os
import sys
import zipfile

output, *entries = sys.argv[1:]
os.makedirs(os.path.dirname(output), exist_ok=True)
# Written beside and moved, so that a reader sees the old archive or the new one.
draft = output + ".new"
with zipfile.ZipFile(draft, "w", zipfile.ZIP_STORED) as archive:
    for name, path in sorted(entry.split("=", 1) for entry in entries):
        info = zipfile.ZipInfo(name, date_time=(1980, 1, 1, 0, 0, 0))
        info.create_system = 3
        executable = name.endswith(".dylib")
        info.external_attr = (0o100755 if executable else 0o100644) << 16
        with open(path, "rb") as file:
            archive.writestr(info, file.read())
os.replace(draft, output)
