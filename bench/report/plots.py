# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""The plots of how cost scales, as small SVG files that are the same for the same numbers.

plots.py DIRECTORY draws the tables of bench/README.md.
"""

import html
import math
import pathlib
import sys

from results import SCALES, published_scale

LICENSE = (
    # In two pieces, or it would be taken for a mark of this file.
    "<!-- SPDX-FileCopyrightText: 2026 The vornnet authors -->\n<!-- SPDX-License" "-Identifier: Apache-2.0 -->\n"
)
STYLE = 'text { font: 13px "DejaVu Sans", Verdana, sans-serif; fill: #1f2d3d; } .small { font-size: 11px; }'
GRID_COLOUR = "#d5dae0"
LINE_COLOURS = ["#555f6b", "#2266bb", "#cc7722", "#338855"]
WIDTH = 720


class Drawing:
    def __init__(self, title, height):
        self.height = height
        self.title = html.escape(title)
        self.elements = []
        self.text(WIDTH / 2, 20, title, anchor="middle")

    def add(self, element):
        self.elements.append(element)

    def text(self, x, y, text, anchor="start", kind="", turned=False):
        turn = f' transform="rotate(-90 {x:.1f} {y:.1f})"' if turned else ""
        kind = f' class="{kind}"' if kind else ""
        self.add(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{kind}{turn}>{html.escape(text)}</text>')

    def line(self, x1, y1, x2, y2, colour, more=""):
        self.add(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}"{more}/>')

    def rectangle(self, x, y, width, height, colour):
        self.add(f'<rect x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height:.1f}" fill="{colour}"/>')

    def write(self, path):
        size = f'viewBox="0 0 {WIDTH} {self.height}" width="{WIDTH}" height="{self.height}"'
        lines = [f'{LICENSE}<svg xmlns="http://www.w3.org/2000/svg" {size} role="img">', f"<title>{self.title}</title>"]
        lines += [f"<style>{STYLE}</style>", f'<rect width="{WIDTH}" height="{self.height}" fill="#ffffff"/>']
        path.write_text("\n".join(lines + self.elements) + "\n</svg>\n")


def axis(values, low, high):
    """Returns the place of a value on a logarithmic axis from low to high, and the decades on it."""
    first, last = math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))
    last = max(last, first + 1)

    def place(value):
        return low + (math.log10(value) - first) / (last - first) * (high - low)

    return place, [10.0**exponent for exponent in range(first, last + 1)]


def plot_scale(path, workload, lines):
    """A line for each contender, both axes logarithmic."""
    left, right, top, bottom = 90, WIDTH - 30, 36, 350
    title, unit = SCALES[workload]
    across, marks_across = axis([place for points in lines.values() for place in points], left, right)
    up, marks_up = axis([cost for points in lines.values() for cost in points.values()], bottom, top)
    drawing = Drawing(title, bottom + 66)
    for mark in marks_across:
        drawing.line(across(mark), top, across(mark), bottom, GRID_COLOUR)
        drawing.text(across(mark), bottom + 16, f"{mark:,.0f}", anchor="middle", kind="small")
    for mark in marks_up:
        drawing.line(left, up(mark), right, up(mark), GRID_COLOUR)
        drawing.text(left - 6, up(mark) + 4, f"{mark:,g}" if mark < 1e6 else f"{mark:.0e}", anchor="end", kind="small")
    drawing.text((left + right) / 2, bottom + 34, unit, anchor="middle", kind="small")
    drawing.text(16, (top + bottom) / 2, "cost per unit, times the limit's cheapest", anchor="middle", kind="small", turned=True)
    for at, (contender, points) in enumerate(lines.items()):
        colour = LINE_COLOURS[at]
        places = " ".join(f"{across(place):.1f},{up(cost):.1f}" for place, cost in points.items())
        drawing.add(f'<polyline points="{places}" fill="none" stroke="{colour}" stroke-width="2"/>')
        for place, cost in points.items():
            drawing.add(f'<circle cx="{across(place):.1f}" cy="{up(cost):.1f}" r="3" fill="{colour}"/>')
        drawing.rectangle(left + 150 * at, bottom + 48, 14, 5, colour)
        drawing.text(left + 150 * at + 20, bottom + 55, contender, kind="small")
    drawing.write(path)


def plot_all(directory, scale):
    """scale: {workload: {contender: {point: cost}}}"""
    directory.mkdir(parents=True, exist_ok=True)
    for workload, lines in scale.items():
        plot_scale(directory / f"{workload}.svg", workload, lines)


if __name__ == "__main__":
    plot_all(pathlib.Path(sys.argv[1]), published_scale())
