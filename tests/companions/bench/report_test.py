#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""What the tables and plots make of rounds that are written down here."""

import pathlib
import sys
import tempfile
import unittest
import xml.dom.minidom

sys.dont_write_bytecode = True
TREE = pathlib.Path(__file__).resolve().parents[3]
sys.path.insert(0, str(TREE / "bench" / "report"))

import baseline  # noqa: E402
import plots  # noqa: E402
import publish  # noqa: E402
import results  # noqa: E402
import tables  # noqa: E402

MACHINE = {"commit": "abc", "date": "2026-01-01", "processor": "P", "kernel": "6", "compiler": "g++", "c_library": "glibc",
           "peers": {"POCO": "1.11"}}


def one_round(ours, slowness=1):
    times = {"limit": (10, 12), "limit-again": (10.1, 12), "vornnet": (ours, 30), "poco": (9, 20), "nng": (50, 90)}
    return {name: (p50 * slowness, p99 * slowness) for name, (p50, p99) in times.items()}


def stored(*rounds, name="notification-pipe"):
    contenders = ("limit", "vornnet", "poco", "nng")
    calls = {"system_calls": {"connect": 1.0, "fcntl": 1.0, "sendto": 2.0}, "allocations": 2.0}
    return {"machine": MACHINE, "units": {f"{name}/{contender}": 1 for contender in contenders},
            "counts": {f"{name}/vornnet": calls}, "rounds": {name: list(rounds)}}


class Ratios(unittest.TestCase):
    def test_a_round_in_which_the_machine_is_slow_does_not_change_them(self):
        evaluated = results.evaluate(stored(one_round(11), one_round(11, slowness=5), one_round(11)))
        ratio = evaluated["notification-pipe"]["contenders"]["vornnet"]["ratio"]
        self.assertEqual([round(value, 6) for value in ratio.values()], [1.1, 1.1, 1.1])

    def test_the_median_and_the_quartiles_of_the_rounds_are_shown(self):
        rounds = [one_round(ours) for ours in (10, 11, 12, 13, 30)]
        row = results.evaluate(stored(*rounds))["notification-pipe"]["contenders"]["vornnet"]
        self.assertEqual(tables.ratio_text(row), "1.20 (1.10 to 1.30)")


class Bars(unittest.TestCase):
    def missed(self, ours, **workload):
        row = results.evaluate(stored(one_round(ours)))["notification-pipe"]["contenders"]["vornnet"]
        return results.missed_bars(workload, row)

    def test_a_ratio_is_compared_as_it_is_shown(self):
        self.assertEqual(self.missed(11.04, bar=1.1), [])
        self.assertEqual(self.missed(11.06, bar=1.1), ["ratio"])


class Summary(unittest.TestCase):
    def test_a_row_tells_ratio_bar_verdict_counts_and_the_peers_from_best_to_worst(self):
        lines = tables.summary(results.evaluate(stored(one_round(12))))
        self.assertEqual(lines[-1], "| Notification to a permanent receiver, pipe | 1.20 (1.20 to 1.20) | ≤ 1.1 | "
                         "**missed**: ratio | 1.010 to 1.010 | 1.20, 3.00 (1.20) | 3 + 1 | 2 | POCO 0.9, nng 5 |")


class Counts(unittest.TestCase):

    def test_two_percent_more_are_a_rise(self):
        self.assertEqual([baseline.has_risen(100, now) for now in (100, 102, 102.1)], [False, False, True])
        self.assertTrue(baseline.has_risen(None, 1))


class Publishing(unittest.TestCase):
    PAGE = "before\n<!-- measured: calls -->\nold\n<!-- measured end -->\nafter\n"

    def test_only_what_stands_between_the_marks_is_replaced(self):
        page = publish.put(self.PAGE, {"calls": ["new"]})
        self.assertEqual(page, self.PAGE.replace("old", "new"))
        self.assertEqual(publish.put(page, {"calls": ["new"]}), page)

    def test_the_page_has_a_place_for_every_block(self):
        text = publish.PAGE.read_text()
        names = ["ratios", "calls", "scale", *results.SCALES]
        names += [workload["name"] for workload in results.WORKLOADS if "contenders" in workload]
        for name in names:
            self.assertEqual(text.count(f"<!-- measured: {name} -->\n"), 1, name)


class Plots(unittest.TestCase):
    def test_what_is_published_can_be_drawn(self):
        scale = results.published_scale()
        self.assertEqual(scale["scale-bytes-tcp"]["vornnet-string"][1], 284_977_008)
        with tempfile.TemporaryDirectory() as directory:
            plots.plot_all(pathlib.Path(directory), scale)
            self.assertEqual({path.stem for path in pathlib.Path(directory).iterdir()}, set(results.SCALES))
            for path in pathlib.Path(directory).iterdir():
                xml.dom.minidom.parse(str(path))


if __name__ == "__main__":
    unittest.main()
