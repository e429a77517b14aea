#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmark programs and makes tables and plots of what they report.

Times are never shown as such: each contender's is divided by that of the limit in the same round, so that a slow or
busy machine changes both. Within a round the median operation counts, for the mean of a round holds whatever else the
machine did meanwhile.
"""

import argparse
import datetime
import json
import pathlib
import platform
import re
import statistics
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
WORKLOADS = json.loads((HERE / "workloads.json").read_text())
BASELINE = HERE / "baseline.json"

LIMIT = "limit"
AGAIN = "limit-again"
OURS = "vornnet"

# The benchmark's own calls: one thread waits for the other, and datagrams are sent and taken outside the operation.
OWN_CALLS = {"semop", "semtimedop", "sendmmsg", "recvmmsg"}
# Calls that set close-on-exec and the mode of a socket file are counted apart.
MARKING_CALLS = {"fcntl", "chmod", "fchmod"}

ALLOWED_RISE = 1.02


class Entry:
    """A contender of a workload, at one place of the axis if it is a scaling workload."""

    def __init__(self, line):
        self.workload, self.contender, parameter, units = line.split()
        self.parameter = int(parameter)
        self.units = int(units)

    @property
    def name(self):
        suffix = f"/{self.parameter}" if self.parameter else ""
        return f"{self.workload}/{self.contender}{suffix}"


def list_entries(program):
    output = subprocess.run([program, "--list"], check=True, capture_output=True, text=True).stdout
    return [Entry(line) for line in output.splitlines()]


# Times.


def measure_round(program, workload, min_time):
    """Runs all contenders of a workload in random order. Returns {name: (p50, p99)} in nanoseconds per unit."""
    command = [
        program,
        f"--benchmark_filter=^{workload}/",
        "--benchmark_enable_random_interleaving=true",
        f"--benchmark_min_time={min_time}",
        "--benchmark_format=json",
    ]
    result = subprocess.run(command, capture_output=True, text=True)
    if result.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))} failed:\n{result.stderr}")
    times = {}
    for run in json.loads(result.stdout)["benchmarks"]:
        name = run["name"].removesuffix("/manual_time").removeprefix(workload + "/")
        times[name] = (run["p50"], run["p99"])
    return times


def measure(program, workloads, rounds, min_time):
    """Returns {workload: [times of round 1, times of round 2, ...]}; a round goes over all workloads."""
    result = {workload: [] for workload in workloads}
    for number in range(rounds):
        for workload in workloads:
            print(f"\rround {number + 1} of {rounds}: {workload:40}", end="", file=sys.stderr, flush=True)
            result[workload].append(measure_round(program, workload, min_time))
    print(file=sys.stderr)
    return result


def quartiles(values):
    if len(values) == 1:
        return {"lower": values[0], "median": values[0], "upper": values[0]}
    lower, median, upper = statistics.quantiles(values, n=4, method="inclusive")
    return {"lower": lower, "median": median, "upper": upper}


def ratios(rounds, contender):
    return [times[contender][0] / times[LIMIT][0] for times in rounds if contender in times]


def noise_of(rounds):
    """The quartiles of the limit against itself, and its largest deviation from 1."""
    values = ratios(rounds, AGAIN)
    return quartiles(values) | {"worst": max(abs(value - 1) for value in values)}


# Counts. Each is the difference between a long and a short run, so that setting up does not count.


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


def run_counted(prefix, program, entry, operations):
    command = [*prefix, program, "--operate", entry.name, str(operations)]
    result = subprocess.run(command, capture_output=True, text=True)
    if result.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))} failed:\n{result.stderr}")
    return result


def count_system_calls(program, entry):
    def count(operations):
        with tempfile.NamedTemporaryFile("r") as report:
            run_counted(["strace", "-f", "-c", "-U", "calls,name", "-o", report.name], program, entry, operations)
            rows = re.findall(r"^\s*(\d+)\s+(\w+)$", report.read(), re.MULTILINE)
        return {name: int(number) for number, name in rows if name != "total"}

    calls = per_operation(entry, count)
    return {name: number for name, number in sorted(calls.items()) if name not in OWN_CALLS}


def count_instructions(program, entry):
    def count(operations):
        with tempfile.TemporaryDirectory() as directory:
            report = pathlib.Path(directory) / "callgrind.out"
            valgrind = ["valgrind", "--tool=callgrind", "--fair-sched=try", f"--callgrind-out-file={report}"]
            run_counted(valgrind, program, entry, operations)
            return {"instructions": int(re.search(r"^(?:summary|totals): (\d+)", report.read_text(), re.M).group(1))}

    return per_operation(entry, count).get("instructions", 0)


def count_allocations(program, entry):
    return json.loads(run_counted([], program, entry, operations_for(entry)).stdout)["allocations"]


def split_calls(calls):
    """Returns the calls that do something and those that set close-on-exec and modes."""
    marking = sum(number for name, number in calls.items() if name in MARKING_CALLS)
    return sum(calls.values()) - marking, marking


# The table of ratios.


def describe_machine():
    processor = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    compiler = subprocess.run(["c++", "--version"], capture_output=True, text=True).stdout.splitlines()
    commit = subprocess.run(["git", "-C", HERE, "describe", "--always", "--dirty"], capture_output=True, text=True)
    return {
        "commit": commit.stdout.strip() or "unknown",
        "date": datetime.date.today().isoformat(),
        "processor": processor.group(1) if processor else platform.machine(),
        "kernel": platform.release(),
        "compiler": compiler[0] if compiler else "unknown",
    }


def evaluate(rounds_of, entries, counts):
    """Returns what the table shows: per workload its noise, and per contender ratio, p50, p99 and counts."""
    units = {entry.name: entry.units for entry in entries}
    result = {}
    for workload, rounds in rounds_of.items():
        contenders = {}
        for contender in [e.contender for e in entries if e.workload == workload]:
            name = f"{workload}/{contender}"
            limit = statistics.median(times[LIMIT][0] for times in rounds)
            row = {"ratio": quartiles(ratios(rounds, contender)), "units": units[name]}
            row["p50"] = statistics.median(times[contender][0] for times in rounds) / limit
            row["p99"] = statistics.median(times[contender][1] for times in rounds) / limit
            row["nanoseconds"] = statistics.median(times[contender][0] for times in rounds)
            row |= counts.get(name, {})
            contenders[contender] = row
        result[workload] = {"noise": noise_of(rounds), "contenders": contenders}
    return result


def number(value):
    return f"{value:.3g}" if value < 1000 else f"{value:,.0f}"


def verdict(workload, contender, row):
    """The bars that the row misses, for this library's rows."""
    if contender != OURS:
        return ""
    missed = []
    if "bar" in workload and round(row["ratio"]["median"], 2) > workload["bar"]:
        missed.append("ratio")
    if row["nanoseconds"] > workload.get("bar_nanoseconds", float("inf")):
        missed.append("time")
    if "system_calls" in row and "system_calls" in workload:
        if split_calls(row["system_calls"])[0] / row["units"] > workload["system_calls"] + 0.01:
            missed.append("system calls")
    if "allocations" in row and "allocations" in workload:
        if row["allocations"] / row["units"] > workload["allocations"] + 0.01:
            missed.append("allocations")
    return "missed: " + ", ".join(missed) if missed else "met"


def bar_text(workload, contender):
    if contender != OURS:
        return ""
    if "bar_nanoseconds" in workload:
        return f"{workload['bar_nanoseconds']} ns"
    return f"≤ {workload['bar']:g}"


def table_row(workload, contender, row):
    ratio = row["ratio"]
    cells = [contender, f"{ratio['median']:.2f}", f"{ratio['lower']:.2f} to {ratio['upper']:.2f}"]
    cells.append(bar_text(workload, contender))
    cells += [f"{row['p50']:.2f}", f"{row['p99']:.2f}"] if workload.get("latency") else ["", ""]
    if "system_calls" in row:
        doing, marking = (calls / row["units"] for calls in split_calls(row["system_calls"]))
        cells.append(number(doing) + (f" + {number(marking)}" if marking else ""))
    else:
        cells.append("")
    cells.append(number(row["allocations"] / row["units"]) if "allocations" in row else "")
    cells.append(verdict(workload, contender, row))
    return "| " + " | ".join(cells) + " |"


def write_table(path, machine, rounds, results):
    lines = [
        f"Made at commit {machine['commit']} on {machine['date']}: {machine['processor']}, Linux {machine['kernel']}, "
        f"{machine['compiler']}, {rounds} interleaved rounds, all threads on one processor.",
        "",
        "The ratio is the median over the rounds of a contender's median operation divided by the limit's of the same "
        "round, followed by the quartiles. p50 and p99 are multiples of the limit's p50. System calls (those that set "
        "close-on-exec and a socket file's mode stand behind the +) and allocations are per unit, both ends "
        "together. The noise is the limit against itself in the same rounds.",
    ]
    for workload in WORKLOADS:
        if workload["name"] not in results:
            continue
        result = results[workload["name"]]
        noise = result["noise"]
        lines += ["", f"### {workload['title']}", ""]
        lines.append(f"Noise: {noise['lower']:.3f} to {noise['upper']:.3f}, at worst {noise['worst']:.1%}.")
        lines += ["", "| | ratio | quartiles | bar | p50 | p99 | system calls | allocations | |"]
        lines.append("|---|---:|---|---|---:|---:|---:|---:|---|")
        lines += [table_row(workload, contender, row) for contender, row in result["contenders"].items()]
        lines += ["", f"![{workload['title']}]({workload['name']}.svg)"]
    path.write_text("\n".join(lines) + "\n")


# Plots.


def run_gnuplot(script):
    result = subprocess.run(["gnuplot"], input=script, capture_output=True, text=True)
    if result.returncode != 0:
        sys.exit(f"gnuplot failed:\n{result.stderr}")


def block(rows):
    return "$data << END\n" + "\n".join(rows) + "\nEND\n"


def plot_ratios(path, workload, result):
    rows = []
    for place, (contender, row) in enumerate(result["contenders"].items()):
        colour = 2 if contender == OURS else 1
        ratio = row["ratio"]
        rows.append(f'{place} "{contender}" {ratio["median"]} {ratio["lower"]} {ratio["upper"]} {colour}')
    bar = ""
    if "bar" in workload:
        bar = f", {workload['bar']} with lines dashtype 2 linecolor rgb '#aa0000' title 'bar'"
    run_gnuplot(
        block(rows) + f"""
set terminal svg size 720,360 font 'sans,12' background rgb 'white'
set output '{path}'
set title "{workload['title']}" noenhanced
set ylabel 'times the limit'
set key outside bottom center horizontal
set yrange [0:*]
set xrange [-0.6:{len(rows) - 0.4}]
set boxwidth 0.6
set style fill solid 0.7
set grid ytics
set xtics noenhanced
set linetype 1 linecolor rgb '#8899aa'
set linetype 2 linecolor rgb '#2266bb'
plot $data using 1:3:4:5:(0.6):6:xtic(2) with boxerrorbars linecolor variable notitle, \\
    1 with lines linecolor rgb '#000000' title 'limit'{bar}
"""
    )


def plot_scale(path, title, axis, reference, lines):
    """lines: {contender: {parameter: relative cost per unit}}"""
    script = ""
    plots = []
    for index, (contender, points) in enumerate(lines.items()):
        rows = "\n".join(f"{parameter} {cost}" for parameter, cost in points.items())
        script += f"$line{index} << END\n{rows}\nEND\n"
        plots.append(f"$line{index} using 1:2 with linespoints linewidth 2 title '{contender}' noenhanced")
    script += f"""
set terminal svg size 720,420 font 'sans,12' background rgb 'white'
set output '{path}'
set title "{title}" noenhanced
set xlabel '{axis}'
set ylabel "cost per unit, times {reference}"
set logscale xy
set grid
set key outside bottom center horizontal
plot {', '.join(plots)}
"""
    run_gnuplot(script)


# Scaling.

SCALES = {
    "scale-threads": ("A notification, of so many threads that notify at once, pipe", "threads"),
    "scale-callback-lookup": ("A callback looked up among so many", "callbacks"),
    "scale-callback-delivery": ("A sink delivery with so many callbacks, pipe", "callbacks"),
    "scale-bytes-pipe": ("A byte, in a message of so many, pipe", "bytes"),
    "scale-bytes-tcp": ("A byte, in a message of so many, TCP", "bytes"),
}


def scale_lines(rounds):
    """Returns the cheapest point of the limit and {contender: {parameter: median cost per unit relative to it}}."""
    costs = {}
    for name in sorted(rounds[0], key=lambda name: (not name.startswith(LIMIT), name)):
        contender, parameter = name.split("/")
        cost = statistics.median(times[name][0] for times in rounds)
        costs.setdefault(contender, {})[int(parameter)] = cost
    cheapest = min(costs[LIMIT], key=costs[LIMIT].get)
    reference = costs[LIMIT][cheapest]
    return cheapest, {
        contender: {parameter: cost / reference for parameter, cost in sorted(points.items())}
        for contender, points in costs.items()
    }


def bends(points):
    """Where a line stops falling, or starts to rise: a step of more than a quarter against the trend before it."""
    places = []
    parameters = list(points)
    for before, at, after in zip(parameters, parameters[1:], parameters[2:]):
        trend = points[at] / points[before]
        step = points[after] / points[at]
        if step > 1.25 * max(trend, 0.8) or (trend < 0.8 and step > 0.8):
            places.append(at)
    return places


def report_scale(output, rounds_of, machine, rounds):
    lines = [
        f"Made at commit {machine['commit']} on {machine['date']}, {rounds} interleaved rounds, all threads on one "
        "processor. Costs are per unit, in multiples of the limit's cheapest point."
    ]
    for workload, results in rounds_of.items():
        title, axis = SCALES[workload]
        cheapest, costs = scale_lines(results)
        plot_scale(output / f"{workload}.svg", title, axis, f"the limit's at {cheapest:,} {axis}", costs)
        lines += ["", f"### {title}", "", f"| {axis} | " + " | ".join(costs) + " |", "|---:" * (len(costs) + 1) + "|"]
        for parameter in costs[LIMIT]:
            cells = [number(points[parameter]) if parameter in points else "" for points in costs.values()]
            lines.append(f"| {parameter:,} | " + " | ".join(cells) + " |")
        lines.append("")
        for contender, points in costs.items():
            places = ", ".join(f"{place:,}" for place in bends(points)) or "nowhere"
            lines.append(f"- {contender} bends at: {places}")
        lines += ["", f"![{title}]({workload}.svg)"]
    (output / "scale.md").write_text("\n".join(lines) + "\n")
    (output / "scale.json").write_text(json.dumps({"machine": machine, "rounds": rounds_of}, indent=1) + "\n")
    print((output / "scale.md").read_text())


# The check against the stored counts.


def count_once(options, entry):
    """How TCP cuts a stream into pieces varies a little: of three counts of system calls, the lowest is taken."""
    print(f"counting {entry.workload}", file=sys.stderr, flush=True)
    calls = [sum(count_system_calls(options.program, entry).values()) for _ in range(3)]
    return {
        "instructions": round(count_instructions(options.program, entry), 1),
        "system_calls": round(min(calls), 2),
    }


def has_risen(before, now):
    return before is None or now > before * ALLOWED_RISE + 0.005


def count_again_if_risen(options, entry, stored):
    """A rise counts only when it shows three times."""
    counts = count_once(options, entry)
    for _ in range(2):
        if stored is None or not any(has_risen(stored.get(what), counts[what]) for what in counts):
            break
        again = count_once(options, entry)
        counts = {what: min(counts[what], again[what]) for what in counts}
    return counts


def update_baseline(options, entries):
    stored = json.loads(BASELINE.read_text()) if BASELINE.exists() else {}
    stored |= {entry.workload: count_once(options, entry) for entry in entries}
    BASELINE.write_text(json.dumps(stored, indent=4, sort_keys=True) + "\n")


def check(options, entries):
    """Prints each count beside the stored one. Returns the number of those that have risen or are not stored."""
    stored = json.loads(BASELINE.read_text())
    risen = 0
    for entry in entries:
        before = stored.get(entry.workload)
        for what, now in count_again_if_risen(options, entry, before).items():
            old = before.get(what) if before else None
            is_worse = has_risen(old, now)
            risen += is_worse
            print(f"{'RISEN' if is_worse else 'ok':5} {entry.workload}: {what} {old} -> {now}")
    return risen


# The program.


def count_all(options, entries):
    counts = {}
    for entry in entries:
        print(f"\rcounting {entry.name:60}", end="", file=sys.stderr, flush=True)
        counts[entry.name] = {
            "system_calls": count_system_calls(options.program, entry),
            "allocations": count_allocations(options.counting_program, entry),
        }
    print(file=sys.stderr)
    return counts


def report_ratios(options, entries):
    workloads = [workload["name"] for workload in WORKLOADS if re.search(options.only, workload["name"])]
    entries = [entry for entry in entries if entry.workload in workloads]
    machine = describe_machine()
    rounds_of = measure(options.program, workloads, options.rounds, options.min_time)
    counts = {} if options.no_counts else count_all(options, entries)
    results = evaluate(rounds_of, entries, counts)
    for workload in WORKLOADS:
        if workload["name"] in results:
            plot_ratios(options.output / f"{workload['name']}.svg", workload, results[workload["name"]])
    write_table(options.output / "table.md", machine, options.rounds, results)
    everything = {"machine": machine, "results": results, "rounds": rounds_of}
    (options.output / "results.json").write_text(json.dumps(everything, indent=1) + "\n")
    print((options.output / "table.md").read_text())


def parse_arguments():
    parser = argparse.ArgumentParser(description="Measures this library beside its limits and its peers.")
    parser.add_argument("--program", type=pathlib.Path, required=True, help="vornnet_bench")
    parser.add_argument("--counting-program", type=pathlib.Path, required=True, help="vornnet_bench_count")
    parser.add_argument("--output", type=pathlib.Path, required=True, help="directory of tables and plots")
    parser.add_argument("--rounds", type=int, default=15, help="interleaved rounds (%(default)s)")
    parser.add_argument("--min-time", type=float, default=0.05, help="seconds per contender and round (%(default)s)")
    parser.add_argument("--only", default="", help="regular expression of the workloads wanted")
    parser.add_argument("--no-counts", action="store_true", help="leave out system calls and allocations")
    parser.add_argument("--scale", action="store_true", help="how cost depends on threads, callbacks and bytes")
    parser.add_argument("--check", action="store_true", help="compare instructions and system calls with the baseline")
    parser.add_argument("--update-baseline", action="store_true", help="store instructions and system calls")
    return parser.parse_args()


def main():
    options = parse_arguments()
    entries = [entry for entry in list_entries(options.program) if re.search(options.only, entry.workload)]
    ours = [entry for entry in entries if entry.contender == OURS and not entry.parameter]
    if options.update_baseline:
        return update_baseline(options, ours)
    if options.check:
        risen = check(options, ours)
        return f"{risen} counts have risen by more than 2 % or are not stored" if risen else 0
    options.output.mkdir(parents=True, exist_ok=True)
    if options.scale:
        workloads = [name for name in SCALES if re.search(options.only, name)]
        rounds_of = measure(options.program, workloads, options.rounds, options.min_time)
        report_scale(options.output, rounds_of, describe_machine(), options.rounds)
    else:
        report_ratios(options, entries)
    return 0


if __name__ == "__main__":
    sys.exit(main())
