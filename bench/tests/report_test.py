#!/usr/bin/env python3
"""What bench/report.py and bench/plots.py make of figures."""

import importlib.util
import json
import os
import sys
import unittest
import xml.etree.ElementTree

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir))
import figures  # noqa: E402
import report  # noqa: E402
import streams  # noqa: E402
import targets  # noqa: E402


def figure(median, spread=0.01):
    return figures.Figure(median, spread, 9)


class Measured:
    """Two rounds of the service and of Postfix's tables."""

    def __init__(self, seconds, table_seconds):
        def turn(row, contender, size, number, seconds):
            turn = {"row": row, "contender": contender, "size": size, "round": number}
            return json.dumps(
                turn | {"operations": 100, "seconds": seconds, "p50": 1, "p99": 2, "connections": 4}
            )

        self.service = figures.Records(
            [
                turn(*of, number, taken)
                for number in range(2)
                for of, taken in (
                    (("table", "service", 100), seconds),
                    (("postmap", "service", 100), seconds),
                    (("postmap", "ldap", 100), table_seconds),
                )
            ]
        )


class TheService(unittest.TestCase):
    def test_is_compared_with_as_many_processes(self):
        rate, connections = targets.service_targets(Measured(0.1, 0.3))

        self.assertAlmostEqual(rate.figure.median, 3.0)
        self.assertEqual(connections.figure.median, 4)
        self.assertTrue(targets.service_targets(Measured(0.1, 0.15))[0].is_missed())

    def test_has_a_line_for_each_number_of_clients(self):
        lines = report.service_lines(Measured(0.1, 0.3))  # without proxymap

        self.assertIn(
            "| service | 100 | 1000 ± 0 | 1.00 ± 0.00 | 2.00 ± 0.00 | 4 ± 0 |".replace(
                " ±", "\u00a0±"
            ).replace("± ", "±\u00a0"),
            lines,
        )
        self.assertFalse(any("proxymap` |" in line for line in lines))


class Streams:
    """Two rounds of streams and changes, without python-ldap."""

    machine = {"users": 1000}

    def __init__(self, peak, change_seconds=1.0):
        def records(*turns):
            return figures.Records(
                [
                    json.dumps(
                        {"row": row, "contender": contender, "size": 0, "round": number}
                        | {"operations": 100, "seconds": seconds, "cpu": seconds, "peak": peak}
                    )
                    for number in range(2)
                    for row, contender, seconds in turns
                ]
            )

        self.streams = records(
            ("stream", "raw", 1.0),
            ("stream", "raw again", 1.0),
            ("stream", "stream", 2.0),
            ("stream", "stream, pages", 4.0),
            ("stream", "ldapsearch", 8.0),
        )
        self.pinned = records(
            *(
                (row, contender, seconds)
                for row in ("modify", "delete")
                for contender, seconds in (
                    ("raw", 1.0),
                    ("raw again", 1.0),
                    ("library", change_seconds),
                )
            )
        )


class TheStreams(unittest.TestCase):
    def test_have_a_line_for_each_program_that_is_installed(self):
        text = "\n".join(report.stream_lines(Streams(12.0))).replace("\u00a0", " ")

        self.assertIn("| `LDAPSearchStream` | 0.50 ± 0.00 | 2.00 ± 0.00 | 12.0 ± 0.0 |", text)
        self.assertIn("| python-ldap, one message at a time | skipped: not installed |", text)
        self.assertIn("1,000 entries", text)

    def test_are_judged_by_their_memory(self):
        self.assertFalse(targets.change_targets(Streams(19.0))[-1].is_missed())
        self.assertTrue(targets.change_targets(Streams(21.0))[-1].is_missed())

    def test_are_counted_in_the_output_of_ldapsearch(self):
        self.assertEqual(streams.entries_of_ldif(b"dn: cn=a\ncn: a\n\ndn:: Y249Yg==\ncn: b\n"), 2)

    def test_become_records_of_seconds_and_megabytes(self):
        self.assertEqual(
            streams.turn_of("1.5 0.25 12000\n", 10),
            {"operations": 10, "seconds": 1.5, "cpu": 0.25, "peak": 12.0},
        )


class Changes(unittest.TestCase):
    def test_are_compared_with_raw_calls(self):
        modify, delete, _ = targets.change_targets(Streams(1.0, change_seconds=1.25))

        self.assertAlmostEqual(modify.figure.median, 0.8)
        self.assertTrue(modify.is_missed() and delete.is_missed())
        self.assertFalse(any(each.is_missed() for each in targets.change_targets(Streams(1.0))))


class ATarget(unittest.TestCase):
    def test_is_met_at_its_bound(self):
        self.assertEqual(targets.no_less_than("rate", 0.98, figure(0.98)).verdict(), "met")
        self.assertEqual(targets.no_more_than("time", 4, figure(4.0)).verdict(), "met")

    def test_is_missed_beyond_the_noise(self):
        target = targets.no_less_than("rate", 0.98, figure(0.90), again=figure(1.02, 0.03))

        self.assertTrue(target.is_missed())
        self.assertEqual(target.verdict(), "**missed**")

    def test_is_not_judged_within_the_noise(self):
        target = targets.no_less_than("rate", 0.98, figure(0.94), again=figure(1.02, 0.03))

        self.assertFalse(target.is_missed())
        self.assertEqual(target.verdict(), "missed by less than the noise")

    def test_of_a_most_is_missed_above(self):
        self.assertTrue(targets.no_more_than("time", 4, figure(5, 0.5)).is_missed())
        self.assertFalse(targets.no_more_than("time", 4, figure(4.4, 0.5)).is_missed())

    def test_shows_bound_and_figure_with_their_unit(self):
        self.assertEqual(
            targets.no_more_than("time", 4, figure(3.5, 0.25), unit=" µs").row(),
            ["time", "≤ 4 µs", "3.50 ± 0.25 µs", "met"],
        )


class Growth(unittest.TestCase):
    def test_is_blamed_on_whom_it_belongs_to(self):
        self.assertEqual(report.whose(1.05, 1.0), "no")
        self.assertEqual(report.whose(1.9, 1.95), "as OpenLDAP's calls")
        self.assertEqual(report.whose(1.9, 1.0), "**the library**")


class TheDocument(unittest.TestCase):
    def test_changes_between_its_markers_alone(self):
        text = f"before\n{report.BEGIN}\nold\n{report.END}\nafter\n"

        self.assertEqual(
            report.replaced(text, ["new", ""]),
            f"before\n{report.BEGIN}\nnew\n{report.END}\nafter\n",
        )


@unittest.skipUnless(importlib.util.find_spec("matplotlib"), "matplotlib is not installed")
class APlot(unittest.TestCase):
    def setUp(self):
        import plots

        first = plots.Panel(
            "Cost & size",
            "size",
            "cost",
            [
                ("raw <1>", [(1, 0.001), (10000, 0.01), (4096, 0.1)]),
                ("library", [(1, 0.002), (4096, 0.2)]),
            ],
            y_label=plots.duration,
        )
        second = plots.Panel(
            "Rate",
            "threads",
            "per second",
            [("pool", [(1, 30), (256, 20), (257, 10)])],
            is_log_y=False,
        )
        svg = plots.plot("Costs", [first, second])
        self.texts = [
            each.text
            for each in xml.etree.ElementTree.fromstring(svg).iter(
                "{http://www.w3.org/2000/svg}text"
            )
        ]

    def test_names_its_panels_their_axes_and_lines(self):
        for text in (
            "Cost & size",
            "size",
            "cost",
            "raw <1>",
            "library",
            "Rate",
            "threads",
            "pool",
        ):
            self.assertIn(text, self.texts)

    def test_names_every_size_and_costs_with_their_unit(self):
        for text in ("1", "4,096", "10k", "1 ms", "100 ms"):
            self.assertIn(text, self.texts)

    def test_names_no_size_over_another(self):
        self.assertIn("256", self.texts)
        self.assertNotIn("257", self.texts)


if __name__ == "__main__":
    unittest.main()
