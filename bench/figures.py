"""The arithmetic of the measurements: medians, spread, ratios of pairs, exponents of growth."""

import collections
import json
import math
import statistics


def spread(values):
    """The median absolute deviation: half of the values lie closer to the median."""
    middle = statistics.median(values)
    return statistics.median([abs(value - middle) for value in values])


class Figure(collections.namedtuple("Figure", "median spread rounds")):
    """Several measurements of one thing."""

    @classmethod
    def of(cls, values):
        return cls(statistics.median(values), spread(values), len(values))

    def text(self, digits=2):
        return f"{self.median:.{digits}f} ± {self.spread:.{digits}f}"


def ratios(dividends, divisors):
    """What two contenders did in the same rounds, round by round."""
    if len(dividends) != len(divisors):
        raise ValueError("pairs are missing")
    return Figure.of([a / b for a, b in zip(dividends, divisors)])


def line(points):
    """Least squares through (x, y): slope and intercept."""
    count = len(points)
    mean_x = sum(x for x, _ in points) / count
    mean_y = sum(y for _, y in points) / count
    square = sum((x - mean_x) ** 2 for x, _ in points)
    if square == 0:
        raise ValueError("a line needs two different places")
    slope = sum((x - mean_x) * (y - mean_y) for x, y in points) / square
    return slope, mean_y - slope * mean_x


# Below this multiple of the least cost, what each operation costs in any case hides how it grows.
GROWN = 3


def exponent(points):
    """k of cost = c * size ** k, fitted to the logarithms. Sizes whose cost has hardly grown are left
    out, but for the two greatest."""
    points = sorted(points)
    least = min(cost for _, cost in points)
    grown = [(size, cost) for size, cost in points if cost >= GROWN * least]
    if len(grown) < 2:
        grown = points[-2:]
    return line([(math.log(size), math.log(cost)) for size, cost in grown])[0]


class Records:
    """What the programs printed: a line of JSON for each turn of a contender, or for a note."""

    def __init__(self, lines):
        self._records = [json.loads(each) for each in lines if each.startswith("{")]

    def _of(self, row, contender, size):
        return [
            record
            for record in self._records
            if record["row"] == row
            and record["contender"] == contender
            and size in (None, record["size"])
        ]

    def each(self, row, contender, what, size=None):
        """Seconds, or seconds of processor time, for one operation, by round."""
        found = [
            record[what] / record["operations"]
            for record in self._of(row, contender, size)
            if "round" in record
        ]
        if not found:
            raise KeyError(f"{row}, {contender}: not measured")
        return found

    def rate(self, row, contender, size=None):
        """Operations a second."""
        return Figure.of([1 / seconds for seconds in self.each(row, contender, "seconds", size)])

    def faster(self, row, contender, than, size=None):
        """How many times as many operations a second."""
        return ratios(
            self.each(row, than, "seconds", size), self.each(row, contender, "seconds", size)
        )

    def cost(self, row, contender, than, size=None):
        """How many times the processor time."""
        return ratios(self.each(row, contender, "cpu", size), self.each(row, than, "cpu", size))

    def figure(self, row, contender, what, size=None):
        """What each round says of something other than its time."""
        return Figure.of([record[what] for record in self._of(row, contender, size)])

    def note(self, row, contender, what, size=None):
        found = [record[what] for record in self._of(row, contender, size) if what in record]
        if not found:
            raise KeyError(f"{row}, {contender}, {what}: not measured")
        return found[-1]

    def sizes(self, row, contender):
        """In the order of size, where there is a size."""
        return sorted({record["size"] for record in self._of(row, contender, None)})

    def growth(self, row, contender, what="cpu"):
        """(size, median cost) of a row that was measured at several sizes."""
        return [
            (size, statistics.median(self.each(row, contender, what, size)))
            for size in self.sizes(row, contender)
        ]

    def notes(self, row, contender, what):
        """(size, value) of a note at several sizes."""
        return sorted(
            (record["size"], record[what])
            for record in self._of(row, contender, None)
            if what in record
        )


class Microbenchmarks:
    """What Google Benchmark printed as JSON: repetitions of single benchmarks, in nanoseconds."""

    def __init__(self, text):
        self._times = collections.defaultdict(list)
        for run in json.loads(text)["benchmarks"]:
            if run["run_type"] == "iteration" and run["time_unit"] == "ns":
                self._times[run["run_name"]].append((run["real_time"], run["cpu_time"]))

    def time(self, name, cpu=False):
        if name not in self._times:
            raise KeyError(f"{name}: not measured")
        return Figure.of([times[cpu] for times in self._times[name]])

    def names(self):
        """By name, then by number."""
        return sorted(
            self._times,
            key=lambda name: [
                (0, int(part), "") if part.isdigit() else (1, 0, part) for part in name.split("/")
            ],
        )

    def by_threads(self, prefix, cpu=False):
        """(threads, median time between two of all threads together), or processor time of one."""
        return sorted(
            (int(name.rsplit(":", 1)[1]), self.time(name, cpu).median)
            for name in self._times
            if name.startswith(prefix + "/") and "threads:" in name
        )

    def growth(self, prefix, cpu=False):
        """(size, median) of a benchmark that was run at several sizes."""
        found = []
        for name in self._times:
            rest = name[len(prefix) :] if name.startswith(prefix + "/") else ""
            if rest[1:].isdigit():
                found.append((int(rest[1:]), self.time(name, cpu).median))
        return sorted(found)
