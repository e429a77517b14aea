# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmark programs and makes tables and plots of what they report. It is called by script/bench."""

import argparse
import json
import pathlib
import re
import sys

import baseline
import plots
from counts import count_all
from program import list_entries
from publish import publish, ratio_blocks, scale_blocks
from results import OURS, SCALES, WORKLOADS, describe_machine, scale_lines
from times import AGAIN, measure


def show(path, blocks):
    path.write_text("\n\n".join("\n".join(lines) for lines in blocks.values()) + "\n")
    print(path.read_text())


def report_ratios(options):
    workloads = [workload["name"] for workload in WORKLOADS if re.search(options.only, workload["name"])]
    entries = [entry for entry in list_entries(options.program) if entry.workload in workloads]
    contenders = {workload: [entry.place for entry in entries if entry.workload == workload] + [AGAIN]
                  for workload in workloads}
    rounds = measure(options.program, contenders, options.rounds, options.min_time)
    counts = {} if options.no_counts else count_all(options.program, options.counting_program, entries)
    units = {entry.name: entry.units for entry in entries}
    stored = {"machine": describe_machine(), "units": units, "counts": counts, "rounds": rounds}
    (options.output / "results.json").write_text(json.dumps(stored, indent=1) + "\n")
    show(options.output / "table.md", ratio_blocks(stored))


def report_scale(options):
    entries = list_entries(options.program)
    contenders = {workload: [entry.place for entry in entries if entry.workload == workload]
                  for workload in SCALES if re.search(options.only, workload)}
    rounds_of = measure(options.program, contenders, options.rounds, options.min_time)
    stored = {"machine": describe_machine(), "rounds": rounds_of}
    (options.output / "scale.json").write_text(json.dumps(stored, indent=1) + "\n")
    plots.plot_all(options.output / "performance", {workload: scale_lines(rounds) for workload, rounds in rounds_of.items()})
    show(options.output / "scale.md", scale_blocks(stored))


def parse_arguments():
    parser = argparse.ArgumentParser(description="Measures this library beside its limits and its peers.")
    parser.add_argument("--program", type=pathlib.Path, required=True, help="vornnet_bench")
    parser.add_argument("--counting-program", type=pathlib.Path, required=True, help="vornnet_bench_count")
    parser.add_argument("--output", type=pathlib.Path, required=True, help="directory of tables and plots")
    parser.add_argument("--rounds", type=int, default=15, help="interleaved rounds (%(default)s)")
    parser.add_argument("--min-time", type=float, default=0.05, help="seconds per contender and round (%(default)s)")
    parser.add_argument("--only", default="", help="regular expression of the workloads wanted")
    parser.add_argument("--no-counts", action="store_true", help="leave out system calls and allocations")
    action = parser.add_mutually_exclusive_group()
    action.add_argument("--scale", action="store_true", help="how cost depends on threads, callbacks and bytes")
    action.add_argument("--check", action="store_true", help="compare instructions and system calls with the baseline")
    action.add_argument("--update-baseline", action="store_true", help="store instructions and system calls")
    action.add_argument("--publish", action="store_true", help="put what is stored into bench/README.md")
    return parser.parse_args()


def ours(options):
    """What the baseline holds: this library's contender of each workload."""
    return [entry for entry in list_entries(options.program)
            if re.search(options.only, entry.workload) and entry.contender == OURS and not entry.parameter]


def main():
    options = parse_arguments()
    if options.publish:
        return publish(options.output)
    if options.update_baseline:
        return baseline.update(options.program, ours(options))
    if options.check:
        risen = baseline.check(options.program, ours(options))
        return f"{risen} counts have risen by more than 2 % or are not stored" if risen else 0
    options.output.mkdir(parents=True, exist_ok=True)
    return report_scale(options) if options.scale else report_ratios(options)


if __name__ == "__main__":
    sys.exit(main())
