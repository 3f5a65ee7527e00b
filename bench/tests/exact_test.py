#!/usr/bin/env python3
"""What bench/exact/compare.py says to counts that are known."""

import contextlib
import csv
import io
import os
import pathlib
import sys
import tempfile
import unittest
import unittest.mock

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir, "exact"))
import compare  # noqa: E402

FIGURES = [
    ("lookup: allocations", "lookup.library allocations", None),
    ("lookup: instructions, of those in C", "lookup.library instructions", "lookup.c instructions"),
]
HEADS = ["figure", "goal", "limit", "last"]


class ARow(unittest.TestCase):
    def fault(self, number, last="", limit=""):
        return compare.fault(number, {"limit": limit, "last": last, "goal": ""})

    def test_is_right_where_nothing_is_known(self):
        self.assertEqual(self.fault(7.0), "")

    def test_is_right_up_to_its_limit(self):
        self.assertEqual(self.fault(1.4, limit="1.4"), "")
        self.assertEqual(self.fault(1.41, limit="1.4"), "over its limit")

    def test_is_right_up_to_three_percent_above_its_last(self):
        self.assertEqual(self.fault(103.0, last="100.00"), "")
        self.assertEqual(self.fault(104.0, last="100.00"), "4.0 % worse")

    def test_whose_last_is_nothing_has_no_percentage(self):
        self.assertEqual(self.fault(0.0, last="0.00"), "")
        self.assertEqual(self.fault(0.03, last="0.00"), "no longer 0")


class AComparison(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.figures = self.folder / "figures.csv"
        (self.folder / "memory").write_text("lookup.library allocations 0.031\n")
        for number, (work, total) in enumerate((("lookup.library", 2600), ("lookup.c", 2000))):
            (self.folder / f"callgrind.out.{number}").write_text(
                f"desc: Trigger: Client Request: {work}/2\ntotals: {total}\n"
            )

    def write(self, *rows):
        with self.figures.open("w", newline="") as file:
            csv.writer(file).writerows(
                [HEADS, *([name, "", limit, last] for name, limit, last in rows)]
            )

    def run_with(self, *options):
        said = io.StringIO()
        with unittest.mock.patch.object(compare, "FIGURES", FIGURES), unittest.mock.patch.object(
            sys, "argv", ["compare.py", *options, str(self.figures), str(self.folder)]
        ), contextlib.redirect_stdout(said):
            return compare.main(), said.getvalue()

    def test_fails_where_what_was_nothing_is_no_longer(self):
        self.write(("lookup: allocations", "", "0.00"))

        status, said = self.run_with()

        self.assertEqual(status, 1)
        self.assertIn("no longer 0", said)

    def test_passes_where_all_is_as_it_was(self):
        self.write(
            ("lookup: allocations", "", "0.03"),
            ("lookup: instructions, of those in C", "1.4", "1.30"),
        )

        self.assertEqual(self.run_with()[0], 0)

    def test_fails_over_a_limit(self):
        self.write(("lookup: instructions, of those in C", "1.2", "1.30"))

        status, said = self.run_with()

        self.assertEqual(status, 1)
        self.assertIn("over its limit", said)

    def test_writes_the_figures_of_an_update_and_keeps_their_limits(self):
        self.write(("lookup: instructions, of those in C", "1.2", ""))

        self.assertEqual(self.run_with("--update")[0], 0)

        rows = list(csv.reader(self.figures.read_text().splitlines()))
        self.assertEqual(
            rows[1:],
            [
                ["lookup: allocations", "", "", "0.03"],
                ["lookup: instructions, of those in C", "", "1.2", "1.30"],
            ],
        )


if __name__ == "__main__":
    unittest.main()
