#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Checks the file of a built library.

check_file.py LIBRARY    its name, what it needs, the versions of its symbols, and the properties of the file
"""

import pathlib
import re
import subprocess
import sys

SYSTEM_LIBRARIES = {"libstdc++.so.6", "libgcc_s.so.1", "libc.so.6"}
LOADER = "ld-linux-x86-64.so.2"  # for __tls_get_addr, where that is called

LIBRARIES = {
    "libvornnet": {"version": "VORNNET_1", "needed": {"libvornsupt.so.1"}},
    "libvornnotify": {"version": "VORNNOTIFY_1", "needed": {"libvornnet.so.1", "libvornsupt.so.1"}},
    "libvornsupt": {
        "version": "VORNSUPT_1",
        "private": "VORNSUPT_PRIVATE",  # for libvornnet of the same version only
        "needed": set(),
        "stays_loaded": True,
    },
}

ALLOWED_IMPORT_VERSIONS = re.compile(r"(GLIBC|GLIBCXX|CXXABI|GCC|VORNNET|VORNSUPT)_[0-9.]+$|VORNSUPT_PRIVATE$")
# Left undefined by the compiler's start-up code in every shared object.
ALLOWED_WITHOUT_VERSION = {"_ITM_deregisterTMCloneTable", "_ITM_registerTMCloneTable", "__gmon_start__"}


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def problems_of(library):
    name = pathlib.Path(library).name.split(".")[0]
    expected = LIBRARIES[name]
    problems = []
    dynamic = run("readelf", "-dW", str(library))
    needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic))
    known = expected["needed"] | SYSTEM_LIBRARIES
    for missing in sorted(known - needed):
        problems.append(f"does not need {missing}")
    for unexpected in sorted(needed - known - {LOADER}):
        problems.append(f"needs {unexpected}")
    if re.findall(r"\(SONAME\).*\[(.*)\]", dynamic) != [f"{name}.so.1"]:
        problems.append(f"its soname is not {name}.so.1")
    if "TEXTREL" in dynamic:
        problems.append("its code has to be written to when it is loaded")
    if " NOW" not in dynamic:
        problems.append("its functions are bound lazily")
    stays_loaded = expected.get("stays_loaded", False)
    if ("NODELETE" in dynamic) != stays_loaded:
        problems.append("is" + (" not" if stays_loaded else "") + " marked as never unloaded")
    headers = run("readelf", "-lW", str(library))
    if "GNU_RELRO" not in headers:
        problems.append("its tables stay writable")
    if re.search(r"GNU_STACK.*RWE", headers):
        problems.append("asks for an executable stack")
    for line in run("nm", "-D", "--undefined-only", str(library)).splitlines():
        symbol, _, version = line.split()[-1].partition("@")
        if not ALLOWED_IMPORT_VERSIONS.match(version) and symbol not in ALLOWED_WITHOUT_VERSION:
            problems.append(f"imports {line.split()[-1]}")
    for line in run("nm", "-DC", "--defined-only", str(library)).splitlines():
        _, kind, symbol = line.split(" ", 2)
        # The node itself is a symbol without one.
        version = symbol.rpartition("@@")[2]
        if version not in (expected["version"], expected.get("private")):
            problems.append(f"{symbol}: has not the version {expected['version']}")
        if kind == "u":
            problems.append(f"{symbol}: is unique in the process, so the library cannot be unloaded")
    return problems


def main(arguments):
    if len(arguments) != 1:
        sys.exit(__doc__)
    problems = problems_of(arguments[0])
    for problem in problems:
        print(f"{arguments[0]}: {problem}")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
