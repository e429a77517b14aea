#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Brings measured tables and the page that shows them together.

put_tables.py TABLES PAGE                    replaces the page's tables of the same names by those of the file TABLES
put_tables.py --names MEASURING_PROGRAM PAGE compares the names of the page's tables with those that are measured
"""
import pathlib
import re
import subprocess
import sys

TABLE = re.compile(r"<!-- measured: ([a-z-]+) -->\n(.*?)<!-- measured end -->", re.S)


def put(tables, page):
    measured = dict(TABLE.findall(pathlib.Path(tables).read_text()))
    page = pathlib.Path(page)

    def replace(match):
        rows = measured.get(match.group(1), match.group(2))
        return f"<!-- measured: {match.group(1)} -->\n{rows}<!-- measured end -->"
    page.write_text(TABLE.sub(replace, page.read_text()))


def compare_names(program, page):
    measured = subprocess.run([program, "--list"], check=True, capture_output=True, text=True).stdout.split()
    shown = [name for name, _ in TABLE.findall(pathlib.Path(page).read_text())]
    if sorted(measured) != sorted(shown):
        print(f"measured are {sorted(measured)}\n{page} shows {sorted(shown)}")
        return 1
    print(f"{len(shown)} tables")
    return 0


if len(sys.argv) == 4 and sys.argv[1] == "--names":
    sys.exit(compare_names(sys.argv[2], sys.argv[3]))
if len(sys.argv) != 3:
    sys.exit(__doc__)
put(sys.argv[1], sys.argv[2])
