# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""System calls, instructions and allocations of one operation.

Each is the difference between a long and a short run, so that setting up does not count. None of them depends on how
busy the machine is.
"""

import json
import pathlib
import re
import tempfile

from program import run, say

# The benchmark's own calls: one thread waits for the other, and what has been sent is taken outside the operation.
OWN_CALLS = {"semop", "semtimedop", "sendmmsg", "recvmmsg"}
# Calls that set close-on-exec and the mode of a socket file are counted apart.
MARKING_CALLS = {"fcntl", "chmod", "fchmod"}


def operations_for(entry):
    """Few operations of contenders that handle many units in each."""
    return max(4, min(400, 400_000 // entry.units))


def per_operation(entry, count):
    """count(operations) returns {what: number} for a run of so many operations."""
    short_run = 10
    more = operations_for(entry)
    before = count(short_run)
    after = count(short_run + more)
    difference = {what: (number - before.get(what, 0)) / more for what, number in after.items()}
    # What happens less than twice in a hundred operations belongs to setting up.
    return {what: round(number, 2) for what, number in difference.items() if abs(number) >= 0.02}


def system_calls(program, entry):
    """Returns {name of the call: number}."""

    def count(operations):
        with tempfile.NamedTemporaryFile("r") as report:
            strace = ["strace", "-f", "-c", "-U", "calls,name", "-o", report.name]
            run([*strace, program, "--operate", entry.name, str(operations)])
            rows = re.findall(r"^\s*(\d+)\s+(\w+)$", report.read(), re.MULTILINE)
        return {name: int(number) for number, name in rows if name != "total"}

    calls = per_operation(entry, count)
    return {name: number for name, number in sorted(calls.items()) if name not in OWN_CALLS}


def fewest_system_calls(program, entry):
    """How TCP cuts a stream into pieces varies, and a busy machine adds a call now and then: of three counts, the
    lowest is taken, unless the first comes out even."""
    calls = system_calls(program, entry)
    for _ in range(2):
        if all(number == round(number) for number in calls.values()):
            break
        calls = min(calls, system_calls(program, entry), key=lambda calls: sum(calls.values()))
    return calls


def instructions(program, entry):
    def count(operations):
        with tempfile.TemporaryDirectory() as directory:
            report = pathlib.Path(directory) / "callgrind.out"
            valgrind = ["valgrind", "--tool=callgrind", "--fair-sched=try", f"--callgrind-out-file={report}"]
            run([*valgrind, program, "--operate", entry.name, str(operations)])
            total = re.search(r"^(?:summary|totals): (\d+)", report.read_text(), re.MULTILINE)
            return {"instructions": int(total.group(1))}

    return per_operation(entry, count).get("instructions", 0)


def allocations(program, entry):
    output = run([program, "--operate", entry.name, str(operations_for(entry))])
    return json.loads(output)["allocations"]


def count_all(program, counting_program, entries):
    counts = {}
    for entry in entries:
        say(f"counting {entry.name}")
        counts[entry.name] = {
            "system_calls": fewest_system_calls(program, entry),
            "allocations": allocations(counting_program, entry),
        }
    say("")
    return counts


def split_calls(calls):
    """Returns the numbers of calls that do something and of those that set close-on-exec and modes."""
    marking = sum(number for name, number in calls.items() if name in MARKING_CALLS)
    return sum(calls.values()) - marking, marking
