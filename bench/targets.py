"""What a run must reach: the targets, and whether its figures meet them."""

import collections

from figures import exponent, ratios


def noise(again):
    """The error of a ratio: the distance from 1 of a contender's ratio to itself, plus its spread."""
    return abs(again.median - 1) + again.spread


class Target(collections.namedtuple("Target", "what bound unit figure uncertainty is_least")):
    """A figure and its bound. is_least: the bound is a minimum, otherwise a maximum."""

    def is_missed(self):
        if self.is_least:
            return self.figure.median + self.uncertainty < self.bound
        return self.figure.median - self.uncertainty > self.bound

    def verdict(self):
        is_met = (
            self.figure.median >= self.bound if self.is_least else self.figure.median <= self.bound
        )
        if is_met:
            return "met"
        return "**missed**" if self.is_missed() else "missed by less than the noise"

    def row(self):
        sign = "≥" if self.is_least else "≤"
        return [
            self.what,
            f"{sign} {self.bound:g}{self.unit}",
            self.figure.text() + self.unit,
            self.verdict(),
        ]


def no_less_than(what, bound, figure, again=None):
    return Target(what, bound, "", figure, noise(again) if again else figure.spread, True)


def no_more_than(what, bound, figure, again=None, unit=""):
    return Target(what, bound, unit, figure, noise(again) if again else figure.spread, False)


class Exactly(collections.namedtuple("Exactly", "median")):
    """A figure that needs no rounds."""

    spread = 0.0

    def text(self, digits=2):
        return f"{self.median:.{digits}f}"


def targets(measured):
    pinned, free, programs = measured.pinned, measured.free, measured.programs
    again = pinned.faster("lookup", "raw again", "raw")
    template = measured.values.time("template/(mail=$m)", cpu=True)
    printf = measured.values.time("snprintf/(mail=%s@%s)", cpu=True)
    users = measured.machine["users"]
    return [
        no_less_than(
            "lookup on a kept connection, times raw calls' rate; one processor",
            0.98,
            pinned.faster("lookup", "library", "raw"),
            again,
        ),
        no_less_than(
            "the same with template, pool checkout and return",
            0.95,
            pinned.faster("lookup", "pool", "raw"),
            again,
        ),
        no_less_than(
            "the engine's `find` on a kept connection, times raw calls' rate; one processor",
            1.0,
            pinned.faster("lookup", "engine", "raw"),
            again,
        ),
        no_more_than(
            "the same, times the processor time",
            1.05,
            pinned.cost("lookup", "engine", "raw"),
            pinned.cost("lookup", "raw again", "raw"),
        ),
        no_less_than(
            "the engine's `findAll`, one connection, 32 in flight, times raw calls with as many",
            1.05,
            free.faster("window", "engine, one connection", "raw", 32),
        ),
        no_more_than(
            "the same, times the processor time",
            0.9,
            free.cost("window", "engine, one connection", "raw", 32),
        ),
        no_less_than(
            f"{users:,} entries by one search, stored and every value read, times a loop that "
            "stores nothing; one processor",
            0.85,
            pinned.faster("big search", "library", "raw"),
            pinned.faster("big search", "raw again", "raw"),
        ),
        no_less_than(
            "the same by the engine's reader",
            1.3,
            pinned.faster("big search", "engine", "raw"),
            pinned.faster("big search", "raw again", "raw"),
        ),
        *[
            no_more_than(
                f"one entry of up to 20,000 {what}, read by the engine: exponent of the growth",
                1.1,
                Exactly(exponent(measured.growth.growth(f"{what}, engine", "engine"))),
            )
            for what in ("attributes", "values")
        ],
        no_more_than(
            "checkout and return, 63 of 64 connections busy",
            1.5,
            measured.scaled("checkout, one idle/64", cpu=True),
            unit=" µs",
        ),
        no_more_than(
            "checkout and return, 511 of 512 connections busy",
            8.0,
            measured.scaled("checkout, one idle/512", cpu=True),
            unit=" µs",
        ),
        no_less_than(
            "64 threads, a checkout for each lookup, times the rate of kept connections",
            0.97,
            free.faster("threads", "pool", "library", 64),
        ),
        no_more_than(
            "the same, times the processor time", 1.10, free.cost("threads", "pool", "library", 64)
        ),
        no_more_than(
            "template `(mail=$m)`, times `snprintf` without escaping",
            1.2,
            Exactly(template.median / printf.median),
        ),
        no_more_than("template `(mail=$m)`", 100, template, unit=" ns"),
        no_more_than(
            "TLS connect and bind, times raw calls' processor time",
            1.15,
            pinned.cost("bind over TLS", "library", "raw"),
            pinned.cost("bind over TLS", "raw again", "raw"),
        ),
        *[
            no_more_than(
                f"the engine's TLS connect and bind with a resumed session, TLS {version}, times the "
                "processor time of a full handshake",
                0.5,
                pinned.cost("TLS session", "resumed", "full", size),
                pinned.cost("TLS session", "full again", "full", size),
            )
            for version, size in (("1.2", 12), ("1.3", 13))
        ],
        no_more_than(
            "memory of an idle TLS connection of the engine",
            300,
            Exactly(pinned.note("idle TLS session", "engine", "bytes") / 1000),
            unit=" kB",
        ),
        no_more_than(
            "TLS bind to a silent peer, beyond its timeout",
            1.0,
            Exactly(free.note("silent peer", "library", "beyond the timeout")),
            unit=" s",
        ),
        no_less_than(
            "add, times raw calls' rate; one processor",
            0.97,
            pinned.faster("add", "library", "raw"),
            pinned.faster("add", "raw again", "raw"),
        ),
        no_less_than(
            "adds, 64 in flight, times one at a time; one processor",
            1.05,
            pinned.faster("add", "library, 64 in flight", "library"),
        ),
        *change_targets(measured),
        no_less_than(
            "the tool, one in flight, times the rate of `postmap -q -`",
            2.0,
            programs.faster("bulk", "tool, one in flight", "postmap"),
            programs.faster("bulk", "postmap again", "postmap"),
        ),
        no_less_than(
            "the tool with its defaults, times `postmap -q -`",
            4.0,
            programs.faster("bulk", "tool", "postmap"),
            programs.faster("bulk", "postmap again", "postmap"),
        ),
        no_less_than(
            "the same over a round trip of 5 ms",
            100,
            programs.faster("bulk, far", "tool", "postmap"),
        ),
        *service_targets(measured),
    ]


def change_targets(measured):
    pinned = measured.pinned
    return [
        *[
            no_less_than(
                f"{row}, times raw calls' rate; one processor",
                0.97,
                pinned.faster(row, "library", "raw"),
                pinned.faster(row, "raw again", "raw"),
            )
            for row in ("modify", "delete")
        ],
        no_more_than(
            f"memory of a program that streams {measured.machine['users']:,} entries",
            20,
            measured.streams.figure("stream", "stream", "peak"),
            unit=" MB",
        ),
    ]


def service_targets(measured):
    return [
        no_less_than(
            "the service asked by 100 clients, times 100 processes of `postmap` with their own LDAP "
            "tables",
            2.0,
            ratios(
                measured.service.each("postmap", "ldap", "seconds"),
                measured.service.each("table", "service", "seconds", 100),
            ),
        ),
        no_more_than(
            "connections to the directory meanwhile",
            8,
            measured.service.figure("table", "service", "connections", 100),
        ),
    ]
