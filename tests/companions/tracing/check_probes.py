#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Compares the table of docs/probes.md with the probes in the libraries: check_probes.py PAGE LIBRARY..."""
import pathlib
import re
import subprocess
import sys

ROW = re.compile(r"^\| `(\w+)` \| (\w+) \| ([^|]+) \|", re.M)
NOTE = re.compile(r"Provider: vornnet\s+Name: (\w+)\s+Location:.*\s+Arguments: (.*)")


def main(page, *libraries):
    shown = {(library, name, arguments.count(",") + 1)
             for name, library, arguments in ROW.findall(pathlib.Path(page).read_text())}
    built = set()
    for library in libraries:
        notes = subprocess.run(["readelf", "--notes", "--wide", library], check=True, capture_output=True, text=True)
        stem = pathlib.Path(library).name.split(".")[0]
        built |= {(stem, name, len(arguments.split())) for name, arguments in NOTE.findall(notes.stdout)}
    for library, name, count in sorted(shown - built):
        print(f"{page}: {library} has no probe {name} with {count} arguments")
    for library, name, count in sorted(built - shown):
        print(f"{page}: the probe {name} of {library} with {count} arguments is missing")
    return 1 if shown != built or not shown else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
