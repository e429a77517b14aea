#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Compares the relay's help texts with its manual page, its completion scripts and its configuration keys.

check_documents.py PROGRAM
"""

import os
import re
import subprocess
import sys

ROOT = os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../..")
FOLDER = os.path.join(ROOT, "relay")
PROGRAM = sys.argv[1]


def read(name):
    with open(os.path.join(FOLDER, name), encoding="utf-8") as file:
        return file.read()


def help_of(command):
    return subprocess.run([PROGRAM, *command, "--help"], stdout=subprocess.PIPE, check=True).stdout.decode()


def subcommands(text):
    return re.findall(r"^  ([a-z]+) ", text.partition("Subcommands:")[2], re.MULTILINE)


def options(text):
    return set(re.findall(r"^  (?:-h,)?(--[a-z-]+)", text, re.MULTILINE))


def complete(words):
    """What bash offers for the last of the words, as `vornnet-relay` and as `vornnet relay`."""
    results = []
    for prefix, function in ((["vornnet-relay"], "_vornnet_relay_alone"), (["vornnet", "relay"], "_vornnet")):
        script = ('. tools/completion/vornnet.bash; . relay/completion/vornnet-relay.bash; COMP_WORDS=("$@"); '
                  f'COMP_CWORD=$(($# - 1)); {function}; printf "%s\\n" "${{COMPREPLY[@]}}"')
        run = subprocess.run(["bash", "--norc", "-c", script, "bash", *prefix, *words], cwd=ROOT, check=True,
                             stdout=subprocess.PIPE)
        results.append(set(run.stdout.decode().split()))
    return results[0] if results[0] == results[1] else results


def main():
    faults = []

    def expect(what, found, expected):
        if found != expected:
            faults.append(f"{what}: {found}, expected {expected}")

    commands = [[name] for name in subcommands(help_of([]))]
    commands += [[first, name] for first in ("hosts", "dead", "redirect") for name in subcommands(help_of([first]))]
    page = read("vornnet-relay.8")
    everything = set()
    for command in [[], *commands]:
        known = options(help_of(command)) | {"--config"}
        everything |= known
        expect(f"completion of {command}", complete([*command, "-"]), known)
        if subcommands(help_of(command)):
            expect(f"completion after {command}", complete([*command, ""]), set(subcommands(help_of(command))))
        for word in command:
            expect(f"the manual page has {word}", bool(re.search(rf"\.(It )?Cm (.* )?{word}\b", page)), True)
            expect(f"zsh has {word}", bool(re.search(rf"'{word}:|[( ]{word}[ )]", read("completion/_vornnet-relay"))), True)
    expect("options of the manual page", set(re.findall(r"^\.It Fl (-[a-z-]+)", page, re.MULTILINE)),
           {option[1:] for option in everything - {"--help", "--version"}})
    expect("options of zsh", set(re.findall(r"(--[a-z-]+)\[", read("completion/_vornnet-relay"))), everything - {"--help"})

    keys = set(re.findall(r'^        \{"([a-z-]+)",', read("RelaySettings.cpp"), re.MULTILINE))
    with open(os.path.join(ROOT, "docs/relay.md"), encoding="utf-8") as file:
        table = file.read().partition("| key | means |")[2].partition("\n\n")[0]
    expect("keys of the chapter", set(re.findall(r"`([a-z-]+)`", "".join(
        line.split("|")[1] for line in table.splitlines()[2:]))), keys)
    for key in keys:
        expect(f"the manual page has the key {key}", bool(re.search(rf"(^\.Cm |[ ,]){key}\b", page, re.MULTILINE)), True)
    print("\n".join(faults))
    return len(faults) > 0


if __name__ == "__main__":
    sys.exit(main())
