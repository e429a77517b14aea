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
    lines = {workload: scale_lines(rounds) for workload, rounds in rounds_of.items()}
    plots.plot_all(options.output / "performance", lines)
    show(options.output / "scale.md", scale_blocks(stored))


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="script/bench", formatter_class=argparse.RawDescriptionHelpFormatter,
        description="Measures every workload beside its limit and its peers: ratios, system calls, allocations.",
        epilog="Environment: BENCH_BUILD_DIR is used instead of build/bench; with BENCH_NO_BUILD nothing is built.\n"
               "Measure on a machine that does nothing else. The ratios and the scale take a quarter of an hour each.")
    for name in ("--program", "--counting-program"):
        parser.add_argument(name, type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--output", type=pathlib.Path, metavar="DIR",
                        help="directory of the results, instead of build/bench/results")
    parser.add_argument("--rounds", type=int, default=15, metavar="N", help="interleaved rounds (%(default)s)")
    parser.add_argument("--min-time", type=float, default=0.05, metavar="S",
                        help="seconds per contender and round (%(default)s)")
    parser.add_argument("--only", default="", metavar="REGEX", help="only the workloads that match")
    parser.add_argument("--no-counts", action="store_true", help="leave out system calls and allocations")
    action = parser.add_mutually_exclusive_group()
    action.add_argument("--scale", action="store_true", help="how cost depends on threads, callbacks and bytes")
    action.add_argument("--check", action="store_true", help="compare instructions and system calls with "
                        "bench/baseline.json; fails if they are 2 %% more; takes two minutes")
    action.add_argument("--update-baseline", action="store_true", help="store them there")
    action.add_argument("--publish", action="store_true", help="put the stored results into bench/README.md")
    action.add_argument("--relay", action="store_true", help="measure `vornnet relay` beside its engine's own client, "
                        "in turns; takes two minutes")  # script/bench does that itself
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
