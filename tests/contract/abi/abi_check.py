#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Compares a built library with what this directory stores of its binary interface.

abi_check.py exports LIBRARY        what it exports, against NAME.symbols, and that nothing else leaks
abi_check.py dependencies LIBRARY   its name, what it needs, and the properties of its file
abi_check.py layout LIBRARY         types and functions, against NAME.abi
abi_check.py update LIBRARY...      stores NAME.symbols and NAME.abi anew
"""

import difflib
import pathlib
import re
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parents[2]

HEADER = """# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""
XML_HEADER = "<!--\n" + HEADER.replace("# ", "") + "-->\n"

ADVICE = """
A program that was built against the library before may stop working with this one. When the difference is not
meant, undo its cause. When something is only added and that is meant, accept it and commit what changes:
    tests/contract/abi/update BUILD_DIRECTORY
(a release build by g++). What takes something away or moves it needs a new soname.
"""

# The pointers to these classes are made inside the networking library, for all programs.
POINTED_TO = ("VornConnection", "VornIPCServer", "VornNotificationCallback", "VornProxyDependent",
              "VornServerSocket", "VornSocketConnection", "VornUDPServerSocket")
NET_FUNCTIONS = ("VNETInitWinsock", "VNETFinitWinsock", "VNETInitSSL", "VNETFinitSSL",
                 "VornAddressToNameImpl", "VornNameToAddressImpl")
SUPPORT_FUNCTIONS = ("VornSleep", "VornStringToChar", "VornStringFromChar", "VornStringToWide",
                     "VornStringToNarrow", "endrecord")

LIBRARIES = {
    "libvornnet": {
        "version": "VORNNET_1",
        "namespace": "VornNet",
        "headers": "include",
        "functions": NET_FUNCTIONS,
        "others": r"VornProxyDependentIdentifier::|operator<\(VornProxyDependentIdentifier const&|"
                  r"VornSupport::VornSmartPointer<VornNet::(" + "|".join(POINTED_TO) + r")>::",
        "needed": {"libvornsupt.so.1", "libstdc++.so.6", "libgcc_s.so.1", "libc.so.6"},
        # Linked or not as the compiler inlines more or less.
        "may_need": set(),
        "stays_loaded": False,
    },
    "libvornsupt": {
        "version": "VORNSUPT_1",
        "namespace": "VornSupport",
        "headers": "support",
        "functions": SUPPORT_FUNCTIONS,
        "others": r"(?!)",
        "needed": {"libstdc++.so.6", "libgcc_s.so.1", "libc.so.6"},
        # For __tls_get_addr.
        "may_need": {"ld-linux-x86-64.so.2"},
        "stays_loaded": True,
    },
}

ALLOWED_IMPORT_VERSIONS = re.compile(r"(GLIBC|GLIBCXX|CXXABI|GCC|VORNSUPT)_[0-9.]+$")
# Left undefined by the compiler's start-up code in every shared object.
ALLOWED_WITHOUT_VERSION = {"_ITM_deregisterTMCloneTable", "_ITM_registerTMCloneTable", "__gmon_start__"}


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def name_of(library):
    return pathlib.Path(library).name.split(".")[0]


def exported(library):
    """The exported symbols as (kind, readable name with version)."""
    symbols = []
    for line in run("nm", "-DC", "--defined-only", str(library)).splitlines():
        _, kind, name = line.split(" ", 2)
        symbols.append((kind, name))
    return symbols


def symbols_text(library):
    # Constructors and destructors have several symbols of one readable name.
    return HEADER + "\n".join(sorted({name for _, name in exported(library)})) + "\n"


def layout_text(library):
    # Not --drop-private-types: with it abidiff takes every type for a private one, and finds nothing.
    text = run("abidw", "--no-corpus-path", "--no-comp-dir-path", "--no-show-locs", "--no-parameter-names",
               "--no-write-default-sizes", "--type-id-style", "hash", "--exported-interfaces-only",
               str(library))
    # The path of a source depends on where the build directory is.
    text = re.sub(r"path='[^']*/", "path='", text)
    # abidiff knows the kind of a file by its first bytes.
    first, rest = text.split("\n", 1)
    return first + "\n" + XML_HEADER + rest


def leaks(name, symbols):
    """What is exported and belongs to no public class or function, with the reason."""
    library = LIBRARIES[name]
    classes = {header.stem for header in (SOURCE / library["headers"]).glob("*.h")}
    classes.add("VornCriticalSectionObject")  # shares the header of the one class that uses it
    own = re.compile(r"(?:non-virtual thunk to |typeinfo for |typeinfo name for |vtable for )?" +
                     library["namespace"] + r"::([A-Za-z_]+)")
    for kind, symbol in symbols:
        text, _, version = symbol.partition("@@")
        if text == library["version"]:
            continue
        match = own.match(text)
        public = match and (match.group(1) in classes or match.group(1) in library["functions"])
        if not public and not re.match(library["others"], text):
            yield f"{symbol}: belongs to no public class or function"
        if kind == "u":
            yield f"{symbol}: is unique in the process, which keeps the library loaded for ever"
        if version != library["version"]:
            yield f"{symbol}: has not the version {library['version']}"


def check_exports(library):
    name = name_of(library)
    found = list(leaks(name, exported(library)))
    stored = (HERE / f"{name}.symbols").read_text()
    difference = list(difflib.unified_diff(stored.splitlines(), symbols_text(library).splitlines(),
                                           f"tests/contract/abi/{name}.symbols", str(library), lineterm="", n=0))
    for line in found + difference:
        print(line)
    if difference:
        print(ADVICE)
    return not found and not difference


def check_dependencies(library):
    name = name_of(library)
    expected = LIBRARIES[name]
    problems = []
    dynamic = run("readelf", "-dW", str(library))
    needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic))
    for missing in sorted(expected["needed"] - needed):
        problems.append(f"does not need {missing}")
    for unexpected in sorted(needed - expected["needed"] - expected["may_need"]):
        problems.append(f"needs {unexpected}")
    if re.findall(r"\(SONAME\).*\[(.*)\]", dynamic) != [f"{name}.so.1"]:
        problems.append(f"its soname is not {name}.so.1")
    if "TEXTREL" in dynamic:
        problems.append("its code has to be written to when it is loaded")
    if " NOW" not in dynamic:
        problems.append("its functions are bound lazily")
    if ("NODELETE" in dynamic) != expected["stays_loaded"]:
        problems.append("is" + (" not" if expected["stays_loaded"] else "") + " marked as never unloaded")
    headers = run("readelf", "-lW", str(library))
    if "GNU_RELRO" not in headers:
        problems.append("its tables stay writable")
    if re.search(r"GNU_STACK.*RWE", headers):
        problems.append("asks for an executable stack")
    for line in run("nm", "-D", "--undefined-only", str(library)).splitlines():
        symbol, _, version = line.split()[-1].partition("@")
        if not ALLOWED_IMPORT_VERSIONS.match(version) and symbol not in ALLOWED_WITHOUT_VERSION:
            problems.append(f"imports {line.split()[-1]}")
    for problem in problems:
        print(f"{library}: {problem}")
    return not problems


def layout_difference(stored, library):
    difference = subprocess.run(
        ["abidiff", "--exported-interfaces-only", "--suppressions", str(HERE / "abidiff.suppr"), str(stored),
         str(library)], check=False, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return difference.stdout if difference.returncode != 0 else ""


def check_layout(library):
    difference = layout_difference(HERE / f"{name_of(library)}.abi", library)
    if difference:
        print(difference)
        print(ADVICE)
    return not difference


def update(libraries):
    for library in libraries:
        name = name_of(library)
        (HERE / f"{name}.symbols").write_text(symbols_text(library))
        (HERE / f"{name}.abi").write_text(layout_text(library))
    return True


def main(arguments):
    checks = {"exports": check_exports, "dependencies": check_dependencies, "layout": check_layout}
    if len(arguments) >= 2 and arguments[0] == "update":
        return update(arguments[1:])
    if len(arguments) == 2 and arguments[0] in checks:
        return checks[arguments[0]](arguments[1])
    sys.exit(__doc__)


if __name__ == "__main__":
    sys.exit(0 if main(sys.argv[1:]) else 1)
