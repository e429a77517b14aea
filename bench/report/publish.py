# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Puts stored results into bench/README.md.

What stands there between "<!-- measured: NAME -->" and "<!-- measured end -->" is replaced; the rest is written by
hand. Nothing is measured here.
"""

import json
import re
import sys

import tables
from results import PAGE, SCALES, WORKLOADS, evaluate

FEWEST_ROUNDS = 5


def load(directory, name):
    """Returns what is stored under that name, or nothing."""
    path = directory / name
    if not path.exists():
        return None
    stored = json.loads(path.read_text())
    rounds = min(len(rounds) for rounds in stored["rounds"].values())
    if rounds < FEWEST_ROUNDS:
        sys.exit(f"{path}: {rounds} rounds are too few to claim anything from; {FEWEST_ROUNDS} are needed")
    return stored


def made_at(stored):
    return [tables.made_at(stored["machine"], min(len(rounds) for rounds in stored["rounds"].values()))]


def ratio_blocks(stored):
    """Returns {name: lines}. On the page, only the workloads that name their contenders have a table of these."""
    results = evaluate(stored)
    blocks = {"ratios": made_at(stored) + [""] + tables.summary(results), "calls": tables.call_names(results)}
    for workload in WORKLOADS:
        if workload["name"] in results:
            blocks[workload["name"]] = tables.contenders(workload, results[workload["name"]])
    return blocks


def scale_blocks(stored):
    blocks = {"scale": made_at(stored)}
    for workload, rounds in stored["rounds"].items():
        image = f"![{SCALES[workload][0]}](performance/{workload}.svg)"
        blocks[workload] = tables.scale(workload, rounds) + ["", image]
    return blocks


def put(page, blocks):
    """Returns the page with the blocks in their places; each has to have one."""
    unnamed = {workload["name"] for workload in WORKLOADS if "contenders" not in workload}
    for name, lines in blocks.items():
        if name in unnamed:
            continue
        place = re.compile(rf"(<!-- measured: {name} -->\n).*?(<!-- measured end -->)", re.DOTALL)
        text = "\n".join(lines) + "\n"
        page, found = place.subn(lambda match, text=text: match.group(1) + text + match.group(2), page)
        if found != 1:
            sys.exit(f"the page has {found} places for {name}")
    return page


def publish(directory):
    ratios, scale = load(directory, "results.json"), load(directory, "scale.json")
    if ratios is None and scale is None:
        sys.exit(f"{directory} holds no results; measure first")
    blocks = (ratio_blocks(ratios) if ratios else {}) | (scale_blocks(scale) if scale else {})
    PAGE.write_text(put(PAGE.read_text(), blocks))
