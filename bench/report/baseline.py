# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""The check against the stored instructions and system calls."""

import json
import pathlib

from counts import fewest_system_calls, instructions
from program import say

BASELINE = pathlib.Path(__file__).resolve().parent.parent / "baseline.json"
ALLOWED_RISE = 1.02


def count_once(program, entry):
    say(f"counting {entry.workload}")
    calls = sum(fewest_system_calls(program, entry).values())
    # How TCP happened to cut a stream shows in the last digits only.
    if abs(calls - round(calls)) < 0.1:
        calls = round(calls)
    return {"instructions": round(instructions(program, entry), 1), "system_calls": round(calls, 2)}


def has_risen(before, now):
    return before is None or now > before * ALLOWED_RISE + 0.005


def count_again_if_risen(program, entry, stored):
    """A rise counts only when it shows three times."""
    counts = count_once(program, entry)
    for _ in range(2):
        if stored is None or not any(has_risen(stored.get(what), counts[what]) for what in counts):
            break
        again = count_once(program, entry)
        counts = {what: min(counts[what], again[what]) for what in counts}
    return counts


def update(program, entries):
    stored = json.loads(BASELINE.read_text()) if BASELINE.exists() else {}
    stored |= {entry.workload: count_once(program, entry) for entry in entries}
    rows = [f"    {json.dumps(name)}: {json.dumps(counts)}" for name, counts in sorted(stored.items())]
    BASELINE.write_text("{\n" + ",\n".join(rows) + "\n}\n")
    say("")


def check(program, entries):
    """Prints each count beside the stored one. Returns the number of those that have risen or are not stored."""
    stored = json.loads(BASELINE.read_text())
    risen = 0
    for entry in entries:
        before = stored.get(entry.workload)
        counts = count_again_if_risen(program, entry, before)
        say("")
        for what, now in counts.items():
            old = before.get(what) if before else None
            is_worse = has_risen(old, now)
            risen += is_worse
            print(f"\r{'RISEN' if is_worse else 'ok':5} {entry.workload}: {what} {old} -> {now}", flush=True)
    return risen
