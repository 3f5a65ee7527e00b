#!/usr/bin/env python3
"""What bench/figures.py makes of numbers that are known."""

import json
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), os.pardir))
import figures  # noqa: E402


def turn(row, contender, number, seconds, operations=10, size=0, cpu=0.0):
    return json.dumps(
        {
            "row": row,
            "contender": contender,
            "size": size,
            "round": number,
            "operations": operations,
            "seconds": seconds,
            "cpu": cpu,
        }
    )


class Spread(unittest.TestCase):
    def test_is_the_median_distance_from_the_median(self):
        self.assertEqual(figures.spread([1, 2, 3, 10, 20]), 2)

    def test_is_not_moved_by_one_wild_value(self):
        self.assertEqual(figures.spread([5, 5, 5, 5, 1000]), 0)


class AFigure(unittest.TestCase):
    def test_of_an_even_number_of_values_has_the_middle_between_two(self):
        self.assertEqual(figures.Figure.of([4, 1, 3, 2]), (2.5, 1.0, 4))

    def test_is_written_with_its_spread(self):
        self.assertEqual(figures.Figure.of([1.0, 2.0, 4.0]).text(), "2.00 ± 1.00")


class Ratios(unittest.TestCase):
    def test_are_taken_round_by_round(self):
        # Both slow down in the second round; by round, the ratio stays 2.
        self.assertEqual(figures.ratios([2, 20, 4], [1, 10, 2]), (2, 0, 3))

    def test_refuse_a_round_without_its_pair(self):
        with self.assertRaises(ValueError):
            figures.ratios([1, 2], [1])


class TheLine(unittest.TestCase):
    def test_goes_through_points_that_lie_on_one(self):
        slope, start = figures.line([(0, 1), (1, 3), (2, 5)])

        self.assertAlmostEqual(slope, 2)
        self.assertAlmostEqual(start, 1)

    def test_lies_between_points_that_do_not(self):
        self.assertAlmostEqual(figures.line([(0, 0), (1, 2), (2, 1)])[0], 0.5)

    def test_cannot_be_drawn_through_one_place(self):
        with self.assertRaises(ValueError):
            figures.line([(1, 1), (1, 2)])


class AnExponent(unittest.TestCase):
    def test_of_a_square_is_two(self):
        self.assertAlmostEqual(figures.exponent([(8, 64), (32, 1024), (128, 16384)]), 2)

    def test_of_a_line_is_one(self):
        self.assertAlmostEqual(figures.exponent([(1, 5), (10, 50), (100, 500)]), 1)

    def test_is_not_flattened_by_what_every_search_costs(self):
        points = [(size, 50 + size * size) for size in (1, 10, 100, 1000, 10000)]

        self.assertGreater(figures.exponent(points), 1.98)

    def test_of_what_does_not_grow_is_nought(self):
        self.assertAlmostEqual(figures.exponent([(1, 7), (10, 7), (100, 7), (1000, 7)]), 0)

    def test_is_seen_in_the_two_greatest_sizes_at_least(self):
        self.assertAlmostEqual(figures.exponent([(1, 1), (10, 1), (100, 1), (1000, 1000)]), 3)


class RecordsOfAProgram(unittest.TestCase):
    def setUp(self):
        self.records = figures.Records(
            [
                "a line that is none",
                turn("lookup", "raw", 0, 1.0, cpu=0.5),
                turn("lookup", "library", 0, 2.0, cpu=0.6),
                turn("lookup", "library", 1, 4.0, cpu=0.9),
                turn("lookup", "raw", 1, 1.0, cpu=0.5),
                turn("values", "raw", 0, 3.0, size=100),
                turn("values", "raw", 0, 1.0, size=10),
                json.dumps({"row": "values", "contender": "wire", "size": 10, "bytes": 77}),
            ]
        )

    def test_give_rates_by_operation(self):
        self.assertEqual(self.records.rate("lookup", "library"), (3.75, 1.25, 2))

    def test_compare_what_was_done_in_the_same_round(self):
        self.assertEqual(self.records.faster("lookup", "library", "raw"), (0.375, 0.125, 2))
        self.assertEqual(self.records.cost("lookup", "library", "raw").median, 1.5)

    def test_grow_in_the_order_of_size(self):
        self.assertEqual(self.records.growth("values", "raw", "seconds"), [(10, 0.1), (100, 0.3)])

    def test_hold_notes(self):
        self.assertEqual(self.records.note("values", "wire", "bytes", 10), 77)
        self.assertEqual(self.records.notes("values", "wire", "bytes"), [(10, 77)])

    def test_say_what_was_not_measured(self):
        with self.assertRaises(KeyError):
            self.records.rate("lookup", "nobody")
        with self.assertRaises(KeyError):
            self.records.note("values", "wire", "bytes", 11)


class RunsOfGoogleBenchmark(unittest.TestCase):
    def setUp(self):
        def run(name, real, cpu, kind="iteration"):
            return {
                "run_name": name,
                "run_type": kind,
                "real_time": real,
                "cpu_time": cpu,
                "time_unit": "ns",
            }

        self.runs = figures.Microbenchmarks(
            json.dumps(
                {
                    "benchmarks": [
                        run("escape/256", 100, 90),
                        run("escape/16", 5, 4),
                        run("escape/16", 7, 6),
                        run("escape/16", 9, 8),
                        run("escape/16", 999, 999, "aggregate"),
                        run("escape/16/threads:10", 1, 9),
                        run("escape/16/threads:2", 3, 9),
                    ]
                }
            )
        )

    def test_have_a_median_of_their_repetitions(self):
        self.assertEqual(self.runs.time("escape/16"), (7, 2, 3))
        self.assertEqual(self.runs.time("escape/16", cpu=True).median, 6)

    def test_are_listed_by_number(self):
        self.assertEqual(self.runs.names()[0], "escape/16")
        self.assertEqual(self.runs.names()[-1], "escape/256")

    def test_grow_by_their_argument(self):
        self.assertEqual(self.runs.growth("escape"), [(16, 7), (256, 100)])

    def test_grow_by_their_threads(self):
        self.assertEqual(self.runs.by_threads("escape"), [(2, 3), (10, 1)])


if __name__ == "__main__":
    unittest.main()
