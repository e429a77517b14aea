# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Times, and the ratios that are made of them.

A time says little, for a slow or busy machine changes it. So each contender's is divided by that of the limit in the
same round. Within a round the median operation counts, for the mean of a round holds whatever else the machine did
meanwhile.
"""

import json
import random
import statistics

from program import run, say

LIMIT = "limit"
AGAIN = "limit-again"


def measure_once(program, name, min_time):
    """Returns (p50, p99) in nanoseconds per unit.

    Each contender has a process of its own, for what one leaves on the heap decides whether the next one's large blocks
    are taken from there or from the system.
    """
    output = run([
        program,
        f"--benchmark_filter=^{name}/manual_time$",
        f"--benchmark_min_time={min_time}",
        "--benchmark_format=json",
    ])
    (line,) = json.loads(output)["benchmarks"]
    return line["p50"], line["p99"]


def measure(program, contenders, rounds, min_time):
    """Returns {workload: [times of round 1, times of round 2, ...]}, where times are {contender: (p50, p99)}.

    contenders: {workload: [name of a contender, ...]}. A round goes over all workloads, and over the contenders of each
    in random order.
    """
    result = {workload: [] for workload in contenders}
    for number in range(rounds):
        for workload, names in contenders.items():
            say(f"round {number + 1} of {rounds}: {workload}")
            shuffled = random.sample(names, len(names))
            result[workload].append({name: measure_once(program, f"{workload}/{name}", min_time) for name in shuffled})
    say("")
    return result


def quartiles(values):
    if len(values) == 1:
        return {"lower": values[0], "median": values[0], "upper": values[0]}
    lower, median, upper = statistics.quantiles(values, n=4, method="inclusive")
    return {"lower": lower, "median": median, "upper": upper}


def ratios(rounds, contender):
    return [times[contender][0] / times[LIMIT][0] for times in rounds if contender in times]


def noise_of(rounds):
    """The quartiles of the limit against itself."""
    return quartiles(ratios(rounds, AGAIN))
