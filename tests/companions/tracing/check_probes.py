#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Compares the table of docs/probes.md with the probes in the libraries: check_probes.py PAGE LIBRARY...

A probe that tells the transport is to be in the class of each.
"""
import bisect
import pathlib
import re
import subprocess
import sys

ROW = re.compile(r"^\| `(\w+)` \| (\w+) \| ([^|]+) \|", re.M)
NOTE = re.compile(r"Provider: vornnet\s+Name: (\w+)\s+Location: (0x[0-9a-f]+).*\s+Arguments: (.*)")
SYMBOL = re.compile(r"^([0-9a-f]+) [Ttw] VornNet::(\w+)::", re.M)
CLIENTS = {"VornPipeConnection", "VornSocketConnection"}
SERVERS = {"VornPipeServer", "VornServerSocket", "VornUDPServerSocket"}
CLASSES = {"connection__established": CLIENTS, "connection__refused": CLIENTS,
           "connection__accepted": SERVERS - {"VornUDPServerSocket"}, "server__opened": SERVERS,
           "server__closed": SERVERS}


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def main(page, *libraries):
    shown = {(library, name, arguments.count(",") + 1)
             for name, library, arguments in ROW.findall(pathlib.Path(page).read_text())}
    built = set()
    classes = {}
    for library in libraries:
        functions = sorted((int(address, 16), name)
                           for address, name in SYMBOL.findall(output_of("nm", "--demangle", library)))
        stem = pathlib.Path(library).name.split(".")[0]
        for name, address, arguments in NOTE.findall(output_of("readelf", "--notes", "--wide", library)):
            built.add((stem, name, len(arguments.split())))
            at = bisect.bisect_right(functions, int(address, 16), key=lambda function: function[0]) - 1
            classes.setdefault(name, set()).update({functions[at][1]} if at >= 0 else ())
    for library, name, count in sorted(shown - built):
        print(f"{page}: {library} has no probe {name} with {count} arguments")
    for library, name, count in sorted(built - shown):
        print(f"{page}: the probe {name} of {library} with {count} arguments is missing")
    missing = sorted((name, lacking) for name, needed in CLASSES.items()
                     for lacking in needed - classes.get(name, set()))
    for name, lacking in missing:
        print(f"{lacking} has no probe {name}")
    return 1 if shown != built or not shown or missing else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
