# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""The tables, as lines of Markdown."""

from counts import MARKING_CALLS, split_calls
from results import OURS, PEERS, SCALES, WORKLOADS, course, missed_bars, scale_lines
from times import LIMIT


def number(value):
    return f"{value:.3g}" if value < 1000 else f"{value:,.0f}"


def duration(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{number(nanoseconds / size)} {unit}"
    return f"{number(nanoseconds)} ns"


def table(columns, rows):
    """columns: titles; one that ends in ":" is aligned to the right."""
    lines = ["| " + " | ".join(title.removesuffix(":") for title in columns) + " |"]
    lines.append("|" + "|".join("---:" if title.endswith(":") else "---" for title in columns) + "|")
    return lines + ["| " + " | ".join(row) + " |" for row in rows]


def made_at(machine, rounds):
    peers = ", ".join(f"{name} {version}" for name, version in machine.get("peers", {}).items())
    return (
        f"Made at commit {machine['commit']} on {machine['date']}: {machine['processor']}, Linux {machine['kernel']}, "
        f"{machine['c_library']}, {machine['compiler']}; {peers or 'no peers'}; {rounds} interleaved rounds, all threads "
        "on one processor."
    )


def ratio_text(row):
    return f"{row['ratio']['median']:.2f} ({row['ratio']['lower']:.2f} to {row['ratio']['upper']:.2f})"


def calls_text(row):
    """The number of calls, and after a "+" those that only set close-on-exec and modes."""
    if "system_calls" not in row:
        return ""
    doing, marking = (calls / row["units"] for calls in split_calls(row["system_calls"]))
    return number(doing) + (f" + {number(marking)}" if marking else "")


def allocations_text(row):
    return number(row["allocations"] / row["units"]) if "allocations" in row else ""


def bar_text(workload):
    bars = [f"≤ {workload['bar']:g}"] if "bar" in workload else []
    bars += [f"≤ {workload['bar_nanoseconds']:g} ns"] if "bar_nanoseconds" in workload else []
    bars += [f"{workload['system_calls']} calls"] if "system_calls" in workload else []
    bars += [f"{workload['allocations']} alloc."] if "allocations" in workload else []
    return ", ".join(bars)


def verdict(workload, row):
    if not bar_text(workload):
        return ""
    missed = missed_bars(workload, row)
    return "**missed**: " + ", ".join(missed) if missed else "met"


def noise_text(noise):
    return f"{noise['lower']:.3f} to {noise['upper']:.3f}"


def peers_text(contenders):
    """All peers, the best first."""
    peers = [(row["ratio"]["median"], name) for name, row in contenders.items() if name.partition("-")[0] in PEERS]
    texts = []
    for ratio, name in sorted(peers):
        library, _, kind = name.partition("-")
        texts.append(f"{PEERS[library][0]}{f' ({kind})' if kind else ''} {number(ratio)}")
    return ", ".join(texts) or "—"


def summary_row(workload, result):
    contenders = result["contenders"]
    row, limit = contenders[OURS], contenders[LIMIT]
    ratio = ratio_text(row)
    if "bar_nanoseconds" in workload:
        ratio = f"{row['nanoseconds']:.2g} ns"
    latency = f"{row['p50']:.2f}, {row['p99']:.2f} ({limit['p99']:.2f})" if workload.get("latency") else ""
    return [workload["title"], ratio, bar_text(workload), verdict(workload, row), noise_text(result["noise"]), latency,
            calls_text(row), allocations_text(row), peers_text(contenders)]


def summary(results):
    """One row for each workload that has a bar."""
    rows = [summary_row(workload, results[workload["name"]]) for workload in WORKLOADS
            if workload["name"] in results and bar_text(workload)]
    columns = ["job", "ratio (quartiles):", "bar", "", "noise", "p50, p99 (limit's p99)", "system calls:",
               "allocations:", "peers"]
    return table(columns, rows)


def called_text(row, is_marking):
    calls = [(name, calls / row["units"]) for name, calls in row["system_calls"].items()
             if (name in MARKING_CALLS) == is_marking]
    return ", ".join(f"{number(times)} × `{name}`" if times != 1 else f"`{name}`" for name, times in calls) or "—"


def call_names(results):
    """Which system calls this library makes for each job; the limit makes others only where that is said."""
    rows = []
    for workload in WORKLOADS:
        if not bar_text(workload) or workload["name"] not in results:
            continue
        row = results[workload["name"]]["contenders"][OURS]
        if row.get("system_calls"):
            rows.append([workload["title"], called_text(row, False), called_text(row, True)])
    return table(["job", "calls that do it", "calls that mark"], rows)


def contenders(workload, result):
    """All of them: what each costs beside the limit, together and for each operation."""
    names = workload.get("contenders", {})
    rows = [[names.get(name, name), ratio_text(row), duration(row["nanoseconds"]), calls_text(row)]
            for name, row in result["contenders"].items()]
    return table([workload["title"], "ratio (quartiles):", "time:", "system calls:"], rows)


def scale(workload, rounds):
    """The table of one scaling workload, and what its lines do."""
    _, axis = SCALES[workload]
    costs = scale_lines(rounds)
    rows = []
    for parameter in costs[LIMIT]:
        cells = [number(points[parameter]) if parameter in points else "" for points in costs.values()]
        rows.append([f"{parameter:,}", *cells])
    lines = table([f"{axis}:", *(f"{contender}:" for contender in costs)], rows) + [""]
    for contender, points in costs.items():
        lines.append(f"- {contender}: " + ", ".join(f"{does} to {place:,}" for does, place in course(points)))
    return lines
