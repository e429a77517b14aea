# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""The benchmark programs: what they offer and how they are run."""

import subprocess
import sys


class Entry:
    """A contender of a workload, at one place of the axis if it is a scaling workload."""

    def __init__(self, line):
        self.workload, self.contender, parameter, units = line.split()
        self.parameter = int(parameter)
        self.units = int(units)

    @property
    def place(self):
        """The contender, and where on the axis."""
        return f"{self.contender}/{self.parameter}" if self.parameter else self.contender

    @property
    def name(self):
        return f"{self.workload}/{self.place}"


def list_entries(program):
    return [Entry(line) for line in run([program, "--list"]).splitlines()]


def run(command):
    """Runs a command that has to succeed. Returns what it prints."""
    result = subprocess.run(command, capture_output=True, text=True, check=False)
    if result.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))} failed:\n{result.stderr}")
    return result.stdout


def say(text):
    """Shows how far it is, on one line of the terminal."""
    if sys.stderr.isatty():
        print(f"\r{text:70}", end="", file=sys.stderr, flush=True)
