# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""The plots of how cost scales, as small SVG files that are the same for the same numbers.

plots.py DIRECTORY draws the tables of bench/README.md.
"""

import math
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "docs/diagrams"))
from draw import Drawing  # noqa: E402
from results import SCALES, published_scale  # noqa: E402

LINE_COLOURS = ["#555f6b", "#2266bb", "#cc7722", "#338855"]
WIDTH = 720


def axis(values, low, high):
    """Returns the place of a value on a logarithmic axis from low to high, and the decades on it."""
    first, last = math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))
    last = max(last, first + 1)

    def place(value):
        return low + (math.log10(value) - first) / (last - first) * (high - low)

    return place, [10.0**exponent for exponent in range(first, last + 1)]


def label(mark):
    return f"{mark:,g}" if mark < 1e6 else f"{mark:.0e}"


def plot_line(drawing, points, colour):
    places = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
    drawing.parts.append(f'<polyline points="{places}" fill="none" stroke="{colour}" stroke-width="2"/>')
    drawing.parts += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>' for x, y in points]


def plot_scale(path, workload, lines):
    """A line for each contender, both axes logarithmic."""
    left, right, top, bottom = 90, WIDTH - 30, 36, 350
    title, unit = SCALES[workload]
    across, marks_across = axis([place for points in lines.values() for place in points], left, right)
    up, marks_up = axis([cost for points in lines.values() for cost in points.values()], bottom, top)
    drawing = Drawing(title, WIDTH, bottom + 66)
    drawing.text(WIDTH / 2, 20, title)
    for mark in marks_across:
        drawing.line([(across(mark), top), (across(mark), bottom)], arrow=False, kind="grid")
        drawing.text(across(mark), bottom + 16, label(mark), "small")
    for mark in marks_up:
        drawing.line([(left, up(mark)), (right, up(mark))], arrow=False, kind="grid")
        drawing.text(left - 6, up(mark) + 4, label(mark), "small", "end")
    drawing.text((left + right) / 2, bottom + 34, f"{unit}; upwards: the cost per unit, times the limit's cheapest", "small")
    for at, (contender, points) in enumerate(lines.items()):
        plot_line(drawing, [(across(place), up(cost)) for place, cost in points.items()], LINE_COLOURS[at])
        plot_line(drawing, [(left + 150 * at, bottom + 51), (left + 150 * at + 14, bottom + 51)], LINE_COLOURS[at])
        drawing.text(left + 150 * at + 22, bottom + 55, contender, "small", "start")
    drawing.write(path)


def plot_all(directory, scale):
    """scale: {workload: {contender: {point: cost}}}"""
    directory.mkdir(parents=True, exist_ok=True)
    for workload, lines in scale.items():
        plot_scale(directory / f"{workload}.svg", workload, lines)


if __name__ == "__main__":
    plot_all(pathlib.Path(sys.argv[1]), published_scale())
