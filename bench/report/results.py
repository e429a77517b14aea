# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""What has been measured, as it is stored, and what follows from it."""

import datetime
import json
import math
import pathlib
import platform
import re
import statistics
import subprocess

from counts import split_calls
from times import LIMIT, noise_of, quartiles, ratios

HERE = pathlib.Path(__file__).resolve().parent.parent
PAGE = HERE / "README.md"
WORKLOADS = json.loads((HERE / "workloads.json").read_text())
OURS = "vornnet"

# Scaling workloads: title and axis.
SCALES = {
    "scale-threads": ("A notification, of so many threads that notify at once, pipe", "threads"),
    "scale-callback-lookup": ("A callback looked up among so many", "callbacks"),
    "scale-callback-delivery": ("A sink delivery with so many callbacks, pipe", "callbacks"),
    "scale-bytes-pipe": ("A byte, in a message of so many, pipe", "bytes"),
    "scale-bytes-tcp": ("A byte, in a message of so many, TCP", "bytes"),
}

PEERS = {
    "thrift": ("Thrift", "libthrift-dev"),
    "poco": ("POCO", "libpoco-dev"),
    "asio": ("Asio", "libasio-dev"),
    "zeromq": ("ZeroMQ", "libzmq3-dev"),
    "nng": ("nng", "libnng-dev"),
}


def first_line(command):
    try:
        output = subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()
    except OSError:
        return ""
    return output.splitlines()[0] if output else ""


def upstream_version(package):
    version = first_line(["dpkg-query", "-W", "-f=${Version}", package])
    return re.sub(r"^\d+:|[-+].*$", "", version)


def describe_machine():
    processor = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    peers = {name: upstream_version(package) for name, package in PEERS.values()}
    return {
        "commit": first_line(["git", "-C", HERE, "describe", "--always", "--dirty"]) or "unknown",
        "date": datetime.date.today().isoformat(),
        "processor": processor.group(1) if processor else platform.machine(),
        "kernel": platform.release(),
        "compiler": first_line(["c++", "--version"]) or "unknown",
        "c_library": " ".join(platform.libc_ver()),
        "peers": {name: version for name, version in peers.items() if version},
    }


def evaluate(stored):
    """Returns what the tables show: per workload its noise, and per contender ratio, p50, p99 and counts."""
    result = {}
    for workload, rounds in stored["rounds"].items():
        limit = statistics.median(times[LIMIT][0] for times in rounds)
        contenders = {}
        for name, units in stored["units"].items():
            if name.rpartition("/")[0] != workload:
                continue
            contender = name.rpartition("/")[2]
            p50 = statistics.median(times[contender][0] for times in rounds)
            p99 = statistics.median(times[contender][1] for times in rounds)
            contenders[contender] = {
                "ratio": quartiles(ratios(rounds, contender)),
                "units": units,
                "p50": p50 / limit,
                "p99": p99 / limit,
                "nanoseconds": p50,
            } | stored["counts"].get(name, {})
        result[workload] = {"noise": noise_of(rounds), "contenders": contenders}
    return result


def published_scale():
    """What the tables of the page show: {workload: {contender: {point: cost}}}."""
    published = {}
    for workload in SCALES:
        block = re.search(rf"<!-- measured: {workload} -->\n(.*?)<!-- measured end -->", PAGE.read_text(), re.DOTALL)
        titles, _, *rows = [[cell.strip() for cell in line.strip("|").split("|")]
                            for line in block.group(1).splitlines() if line.startswith("|")]
        published[workload] = {
            contender: {int(row[0].replace(",", "")): float(row[column].replace(",", "")) for row in rows if row[column]}
            for column, contender in enumerate(titles) if column > 0}
    return published


def missed_bars(workload, row):
    """The bars of the workload that this library's row misses."""
    missed = []
    if "bar" in workload and round(row["ratio"]["median"], 2) > workload["bar"]:
        missed.append("ratio")
    if row["nanoseconds"] > workload.get("bar_nanoseconds", math.inf):
        missed.append("time")
    if "system_calls" in row and split_calls(row["system_calls"])[0] / row["units"] > (
            workload.get("system_calls", math.inf) + 0.01):
        missed.append("system calls")
    if row.get("allocations", 0) / row["units"] > workload.get("allocations", math.inf) + 0.01:
        missed.append("allocations")
    return missed


def scale_lines(rounds):
    """Returns {contender: {parameter: median cost per unit}}, relative to the limit's cheapest."""
    costs = {}
    for name in sorted(rounds[0], key=lambda name: (not name.startswith(LIMIT), name)):
        contender, parameter = name.split("/")
        cost = statistics.median(times[name][0] for times in rounds)
        costs.setdefault(contender, {})[int(parameter)] = cost
    reference = min(costs[LIMIT].values())
    return {
        contender: {parameter: cost / reference for parameter, cost in sorted(points.items())}
        for contender, points in costs.items()
    }


def course(points):
    """Returns [(what the line does, up to where)].

    Costs per unit that fall as the number of units rises mean that a fixed cost is shared by more of them; level ones,
    that each unit costs the same. The exponent of growth tells which.
    """
    result = []
    places = list(points)
    for before, at in zip(places, places[1:]):
        exponent = math.log(points[at] / points[before]) / math.log(at / before)
        does = "falls" if exponent < -0.4 else "rises" if exponent > 0.2 else "is level"
        if result and result[-1][0] == does:
            result.pop()
        result.append((does, at))
    return result
