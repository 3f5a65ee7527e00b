"""The simulation beside what queueing theory says of the same."""

import math
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "bench"))

import capacity

COUNT = 150_000


def mean(values):
    return sum(values) / len(values)


def always(milliseconds):
    return lambda generator, count: [milliseconds] * count


def exponential(milliseconds):
    return lambda generator, count: [generator.expovariate(1 / milliseconds) for _ in range(count)]


class Waiting(unittest.TestCase):

    def assertNear(self, value, expected, share):
        self.assertLess(abs(value - expected), expected * share, f"{value} against {expected}")

    def testIsThatOfMMCWhereServiceTimesAreExponential(self):
        # 4 connections, 5 ms each, 640 lookups/s: 80 % busy. Erlang's C.
        c, load = 4, 3.2
        top = load ** c / math.factorial(c) * c / (c - load)
        mustWait = top / (sum(load ** k / math.factorial(k) for k in range(c)) + top)
        drain = (c - load) / 5  # per millisecond

        site = capacity.Site(rate=640, servers=1, cores=0, connections=4)
        waits, _ = capacity.Simulation(site, exponential(5)).run(COUNT)

        self.assertNear(mean(waits), mustWait / drain, 0.06)
        self.assertNear(sum(wait > 0 for wait in waits) / len(waits), mustWait, 0.04)
        self.assertNear(capacity.percentile(waits, 0.99), math.log(mustWait / 0.01) / drain, 0.08)

    def testIsThatOfMD1WhereServiceTimesAreFixed(self):
        site = capacity.Site(rate=700, servers=1, cores=0, connections=1)
        waits, totals = capacity.Simulation(site, always(1)).run(COUNT)

        self.assertNear(mean(waits), 0.7 / (2 * (1 - 0.7)), 0.06)
        self.assertNear(mean(totals), 1 + 0.7 / (2 * (1 - 0.7)), 0.04)

    def testForACoreIsThatOfMD1Too(self):
        # Connections abound, so nobody waits for one; the server's only core is 70 % busy.
        site = capacity.Site(rate=700, servers=1, cores=1, connections=500, cpu=1)
        waits, totals = capacity.Simulation(site, always(3)).run(COUNT)

        self.assertEqual(max(waits), 0)
        self.assertNear(mean(totals), 3 + 0.7 / (2 * (1 - 0.7)), 0.03)

    def testIsShorterWithAWindow(self):
        narrow = capacity.Site(rate=1500, servers=1, cores=0, connections=2)
        wide = capacity.Site(rate=1500, servers=1, cores=0, connections=2, window=4)

        waits, _ = capacity.Simulation(narrow, always(1)).run(20_000)
        wideWaits, _ = capacity.Simulation(wide, always(1)).run(20_000)

        self.assertLess(mean(wideWaits), mean(waits) / 10)

    def testIsLongerWhereAServerIsDown(self):
        both = capacity.Site(rate=1500, servers=2, cores=1, connections=100, cpu=0.6)
        one = capacity.Site(rate=1500, servers=2, cores=1, connections=100, cpu=0.6, down=1)

        _, totals = capacity.Simulation(both, always(1)).run(20_000)
        _, oneTotals = capacity.Simulation(one, always(1)).run(20_000)

        self.assertGreater(mean(oneTotals), mean(totals) + 0.4)


class ARecommendation(unittest.TestCase):

    def testHasAServerToSpare(self):
        self.assertEqual(capacity.serversFor(rate=10, cpu=0.1, cores=4), 2)
        # 30,000 × 0.1 ms are 3 cores; at 60 % 5 of them, so 2 servers of 4, and one.
        self.assertEqual(capacity.serversFor(rate=30_000, cpu=0.1, cores=4), 3)

    def testHasTheFewestConnectionsThatKeepTheWaitShort(self):
        site = capacity.Site(rate=2000, servers=2, cores=4, cpu=0.1)

        count = capacity.connectionsFor(site, always(2))

        self.assertEqual(site.down, 0)
        self.assertGreater(count, 4)  # so many are busy on average
        self.assertLess(count, 12)
        site.down = 1
        self.assertLessEqual(capacity.figures(site, always(2), 60_000)["waiting"]["p99"], 1.0)
        site.connections = count - 1
        self.assertGreater(capacity.figures(site, always(2), 60_000)["waiting"]["p99"], 1.0)


class MeasuredTimes(unittest.TestCase):

    def testKeepTheirPercentiles(self):
        times = capacity.Times([[1, 90], [2, 9], [10, 1]])

        self.assertEqual([times.percentile(share) for share in (0.5, 0.9, 0.95, 0.99, 1)],
                         [1, 1, 2, 2, 10])


if __name__ == "__main__":
    unittest.main()
