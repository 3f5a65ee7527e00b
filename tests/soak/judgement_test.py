"""Tests of the evaluation of a soak."""

import copy
import os
import tempfile
import unittest

import judgement
import report

WAY = {
    "name": "engine-list",
    "threads": 21,
    "lookups": 30,
    "found": 20,
    "notFound": 10,
    "wrong": 0,
    "wrongAnswers": [],
    "errors": {"TryLater -1": 2},
    "errorTimes": [],
    "strayErrors": 0,
    "longest_stretch": 1.5,
    "milliseconds": {"p50": 0.3, "p99": 2.0, "p99.9": 12.0, "max": 1016.0},
    "stretches": [],
    "outages": [],
    "statistics": {"stale": 3, "repeated": 4},
    "recoveries": {
        "crash": {
            "count": 2,
            "errors": 1,
            "way": {"median": 0, "max": 0.2},
            "thread": {"median": 0.5, "max": 1.0},
        }
    },
}
PASSED = {
    "ways": [WAY],
    "descriptors": {"before": 4, "after": 4, "most": 36},
    "entries": [5, 5],
    "memory": {"isJudged": True, "first": 16000.0, "last": 17000.0, "max": 17500},
    "date": "2026-11-22",
    "seconds": 900,
    "threads": 64,
    "seed": 7,
    "faults": [{}, {}],
    "added": 6,
    "machine": "a machine",
    "versions": "slapd 1",
    "preset": "release",
    "load": [1.0, 2.0],
}


def fault(kind, begin, end):
    return {"kind": kind, "from": begin, "to": end}


class TimesInWhichAServerIsUp(unittest.TestCase):
    def test_are_all_where_one_is_always_up(self):
        self.assertEqual(judgement.up_times([[[1, 3], [5, 6]], [[3.5, 4]]], 0, 10), [(0, 10)])

    def test_leave_out_what_all_are_down(self):
        self.assertEqual(judgement.up_times([[[1, 4]], [[2, 6]]], 0, 10), [(0, 2), (4, 10)])

    def test_begin_with_the_load(self):
        self.assertEqual(judgement.up_times([[[-5, 2]], [[-5, 3]]], 0, 10), [(2, 10)])


class TheLongestStretch(unittest.TestCase):
    def test_counts_only_while_a_server_is_up(self):
        stretches = [[1, 2], [3, 9]]

        self.assertEqual(judgement.longest_stretch(stretches, [(0, 10)]), 6)
        self.assertEqual(judgement.longest_stretch(stretches, [(0, 4), (6, 10)]), 3)

    def test_is_none_where_lookups_flow(self):
        self.assertEqual(judgement.longest_stretch([], [(0, 10)]), 0)


class AfterAFault(unittest.TestCase):
    def test_waits_count_from_the_fault(self):
        self.assertEqual(
            judgement.after_fault(fault("crash", 10, 13), [[9.5, 10.5], [12, 12.25]]), 0.5
        )

    def test_waits_of_other_times_do_not_count(self):
        self.assertEqual(judgement.after_fault(fault("crash", 10, 13), [[8, 9], [15, 17]]), 0)

    def test_waits_of_a_blackout_count_from_the_first_servers_return(self):
        self.assertEqual(judgement.after_fault(fault("blackout", 10, 13), [[10, 13.75]]), 0.75)

    def test_errors_are_counted_until_it_is_over(self):
        self.assertEqual(judgement.errors_near([fault("hang", 10, 13)], [9, 10, 12, 14, 15]), 3)

    def test_recoveries_are_of_each_kind(self):
        way = {"stretches": [[10, 10.5]], "outages": [[10, 11], [20, 24]], "errorTimes": [10.25]}

        table = judgement.recoveries(
            [fault("crash", 10, 12), fault("crash", 20, 25), fault("hang", 30, 31)], way
        )

        self.assertEqual(
            table["crash"],
            {
                "count": 2,
                "errors": 1,
                "way": {"median": 0.25, "max": 0.5},
                "thread": {"median": 2.5, "max": 4},
            },
        )
        self.assertEqual(table["hang"]["thread"]["max"], 0)


class MemoryGrowth(unittest.TestCase):
    def test_compares_the_first_third_after_warm_up_with_the_last(self):
        samples = [(second, 100 if second < 20 else 200 + second, 9) for second in range(100)]

        self.assertEqual(
            judgement.memory_growth(samples, 0, 100), {"first": 233, "last": 286.5, "max": 299}
        )

    def test_is_unknown_without_samples(self):
        self.assertIsNone(judgement.memory_growth([], 0, 100))


class ASoak(unittest.TestCase):
    def complaints_about(self, change):
        soak = copy.deepcopy(PASSED)
        change(soak)
        return judgement.complaints(soak)

    def assert_fails(self, change, words):
        complaints = self.complaints_about(change)
        self.assertEqual(len(complaints), 1, complaints)
        self.assertIn(words, complaints[0])

    def test_passes_with_lookups_that_are_to_be_tried_later(self):
        self.assertEqual(judgement.complaints(PASSED), [])

    def test_fails_with_one_wrong_answer(self):
        self.assert_fails(
            lambda soak: soak["ways"][0].update(wrong=1, wrongAnswers=["a: NotFound"]),
            "1 wrong answers, as a: NotFound",
        )

    def test_fails_where_nothing_was_found(self):
        self.assert_fails(lambda soak: soak["ways"][0].update(found=0), "found 0")

    def test_fails_where_a_server_refuses(self):
        self.assert_fails(
            lambda soak: soak["ways"][0]["errors"].update({"Refused 48": 7}), "7 times Refused 48"
        )

    def test_fails_where_lookups_do_not_flow(self):
        self.assert_fails(
            lambda soak: soak["ways"][0].update(longest_stretch=5.5), "no answer for 5.5 s"
        )

    def test_fails_with_a_leaked_descriptor(self):
        self.assert_fails(lambda soak: soak["descriptors"].update(after=5), "4 before, 5 after")

    def test_fails_where_memory_grows(self):
        self.assert_fails(lambda soak: soak["memory"].update(last=18500.0), "grew by 2500 KiB")

    def test_does_not_judge_memory_of_a_short_run(self):
        self.assertEqual(
            self.complaints_about(lambda soak: soak["memory"].update(last=99000.0, isJudged=False)),
            [],
        )


class TheReport(unittest.TestCase):
    def test_names_every_figure(self):
        text = report.section(PASSED)

        for words in (
            "**0 wrong answers**",
            "| 21 | 30 | 20 | 10 | TryLater -1: 2 | " "0.3 / 2 / 12 / 1016 |",
            "| 2 | 0.00 / 0.20 | 0.50 / 1.00 | 1 |",
            "4 before, 4 after, 36 at most",
            "15.6 MiB",
            "16.6 MiB",
            "seed 7",
        ):
            self.assertIn(words, text)

    def test_takes_its_place_in_a_document(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "document.md")
            with open(path, "w", encoding="utf-8") as file:
                file.write("# Before\n<!-- soak -->\nold\n<!-- /soak -->\nafter\n")

            report.write_into(path, "new\n")

            with open(path, encoding="utf-8") as file:
                self.assertEqual(
                    file.read(), "# Before\n<!-- soak -->\nnew\n<!-- /soak -->\nafter\n"
                )

    def test_refuses_a_document_without_a_place(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "document.md")
            with open(path, "w", encoding="utf-8") as file:
                file.write("# Before\n")

            with self.assertRaises(ValueError):
                report.write_into(path, "new\n")


if __name__ == "__main__":
    unittest.main()
