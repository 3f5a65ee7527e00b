#!/usr/bin/python3
"""Makes tables and plots of what run.py recorded.

Usage: report.py RECORDS DOCUMENT FIGURES

Writes the part of DOCUMENT between its two markers, and the plots into the folder FIGURES. Prints
the targets; exits with 1 if one is missed by more than the noise.
"""

import csv
import json
import os
import sys
import textwrap

from figures import Microbenchmarks, Records, exponent
from targets import targets

BEGIN, END = "<!-- measured: begin -->", "<!-- measured: end -->"
QUIET = 0.5  # maximum load average per processor at which rates are reliable
LINEAR = 1.15  # maximum exponent that counts as linear: caches alone cause about 1.1


def table(heads, rows):
    lines = ["| " + " | ".join(heads) + " |", "|" + "---|" * len(heads)]
    lines += ["| " + " | ".join(row) + " |" for row in rows] + [""]
    return [line.replace(" ± ", "\u00a0±\u00a0") for line in lines]  # no line ends within a figure


def paragraph(text):
    return [*textwrap.wrap(text, 100, break_long_words=False, break_on_hyphens=False), ""]


class Measured:
    """The records of a run."""

    def __init__(self, folder):
        self._folder = folder
        self.machine = json.loads(self._text("machine.json"))
        self.values = Microbenchmarks(self._text("values.json"))
        self.growth = self._records("growth.jsonl")
        self.pinned = self._records("pinned.jsonl", "pinned-long.jsonl")
        self.free = self._records("free.jsonl", "free-long.jsonl")
        self.programs = self._records("programs.jsonl")
        self.streams = self._records("streams.jsonl")
        self.service = self._records("service.jsonl")

    def _text(self, name):
        with open(os.path.join(self._folder, name), encoding="utf-8") as opened:
            return opened.read()

    def _records(self, *names):
        return Records([line for name in names for line in self._text(name).splitlines()])

    def scaled(self, name, cpu=False, unit=1000.0):
        """A microbenchmark in microseconds."""
        figure = self.values.time(name, cpu)
        return figure._replace(median=figure.median / unit, spread=figure.spread / unit)


def machine_lines(measured):
    machine = measured.machine
    versions = ", ".join(
        f"{name} {version}" for name, version in machine["versions"].items() if version
    )
    return [
        *paragraph(
            f"Measured on {machine['date']}: {machine['processors']} processors "
            f"({machine['model']}), Linux {machine['kernel']}, {machine['compiler']}; {versions}. "
            f"{machine['users']:,} users, {machine['rounds']} rounds."
        ),
        *load_lines(machine),
    ]


def load_lines(machine):
    if machine["load"] <= QUIET * machine["processors"]:
        return []
    return paragraph(
        "**The machine was not idle**: its load average was "
        f"{machine['load']:.1f} at the start. This makes rates unreliable and their ratios noisy; "
        "processor times are hardly affected."
    )


def target_lines(list_):
    return [
        "### Targets",
        "",
        *table(["what", "target", "measured", ""], [target.row() for target in list_]),
    ]


def contender_lines(measured):
    """The rows against the directory: each contender and raw calls, shared processor and free."""
    rows = []
    for row, contender, against, name in (
        ("lookup", "raw again", "raw", "lookup, raw calls: the noise"),
        ("lookup", "library", "raw", "lookup, kept connection"),
        ("lookup", "pool", "raw", "lookup, template and pool"),
        ("lookup", "engine", "raw", "lookup, the engine's `find`"),
        ("bind", "raw again", "raw", "connect, bind and close, raw calls: the noise"),
        ("bind", "library", "raw", "connect, bind and close"),
        ("bind over TLS", "raw again", "raw", "the same over TLS, raw calls: the noise"),
        ("bind over TLS", "library", "raw", "the same over TLS"),
        ("verify", "raw again", "raw", "verify a password (search and bind), raw calls: the noise"),
        ("verify", "raw, new connections", "raw", "raw calls, with a new connection for each bind"),
        ("verify", "engine", "raw", "the engine's `verify`"),
        ("verify over TLS", "raw again", "raw", "verify over TLS, raw calls: the noise"),
        (
            "verify over TLS",
            "raw, new connections",
            "raw",
            "over TLS, raw calls, with a new connection for each bind",
        ),
        ("verify over TLS", "engine", "raw", "the engine's `verify` over TLS"),
        ("add", "raw again", "raw", "add, raw calls: the noise"),
        ("add", "library", "raw", "add, one at a time"),
        ("add", "library, 64 in flight", "raw, 64 in flight", "add, 64 in flight"),
        ("modify", "raw again", "raw", "modify, raw calls: the noise"),
        ("modify", "library", "raw", "modify, one at a time"),
        ("delete", "raw again", "raw", "delete, raw calls: the noise"),
        ("delete", "library", "raw", "delete, one at a time"),
        ("big search", "raw again", "raw", "one big search, raw calls: the noise"),
        (
            "big search",
            "library",
            "raw",
            "one big search, stored and read; raw calls store nothing",
        ),
        ("big search", "stream", "raw", "one big search, streamed and read"),
        ("big search", "stream, pages", "raw", "the same in pages of 1,000"),
        ("big search", "engine", "raw", "one big search, stored and read by the engine's reader"),
    ):
        cells = [name]
        for records in (measured.pinned, measured.free):
            cells += [
                records.faster(row, contender, against).text(),
                records.cost(row, contender, against).text(),
            ]
        rows.append(cells)
    rates = ", ".join(
        f"{name} {records.rate('lookup', 'raw').median:,.0f}"
        for name, records in (("one processor", measured.pinned), ("free", measured.free))
    )
    return [
        "### Compared with raw calls",
        "",
        *paragraph(
            "Rate and the client's processor time, divided by those of OpenLDAP's own calls in C "
            f"that do the same in the same rounds. Raw lookups per second: {rates}."
        ),
        *table(["", "rate, one processor", "processor time", "rate, free", "processor time"], rows),
    ]


def window_lines(measured):
    free = measured.free
    rows = []
    for size in free.sizes("window", "library"):
        rows.append(
            [
                str(size),
                free.faster("window", "library", "raw", size).text(),
                free.faster("window", "library", "library one at a time", size).text(),
            ]
        )
    bulk = free.faster("window", "engine, all", "library one at a time", 64)
    queue = free.faster("window", "engine, queue", "engine, all", 64)
    cost = free.cost("window", "engine, queue", "engine, all", 64)
    return [
        "### Searches in flight",
        "",
        *paragraph(
            "One connection of the object interface; client and server free. The engine's `findAll` "
            f"with its defaults (four connections) has {bulk.text()} times the rate of one at a time; "
            f"`LDAPLookupQueue`, with 256 keys pending, {queue.text()} times the rate of `findAll` and "
            f"{cost.text()} times its processor time."
        ),
        *table(["in flight", "rate / raw calls with as many", "rate / one at a time"], rows),
    ]


def thread_lines(measured):
    free = measured.free
    rows = [
        [
            str(size),
            f"{free.rate('threads', 'raw', size).median:,.0f}",
            *[
                free.faster("threads", name, "raw", size).text()
                for name in ("library", "pool", "engine")
            ],
        ]
        for size in free.sizes("threads", "raw")
    ]
    return [
        "### Threads",
        "",
        "Each thread has its own connection. The rates are those of all threads together.",
        "",
        *table(
            [
                "threads",
                "raw calls, lookups per second",
                "kept connections / raw calls",
                "pool / raw calls",
                "engine / raw calls",
            ],
            rows,
        ),
        "![Lookups per second by searches in flight, and by threads](figures/performance-rates.svg)",
        "",
    ]


def program_lines(measured):
    programs = measured.programs
    rows = []
    for name in (
        "raw again",
        "tool, one in flight",
        "ldapsearch -f",
        "postmap",
        "python-ldap",
        "Net::LDAP",
        "go-ldap",
    ):
        try:
            rows.append(
                [
                    name,
                    programs.faster("programs", name, "raw").text(),
                    programs.cost("programs", name, "raw").text(),
                ]
            )
        except KeyError:
            rows.append([name, "skipped: not installed", ""])
    return [
        "### Programs",
        "",
        *paragraph(
            "The same addresses, one after another on one connection, on one processor. Whole "
            "programs, including their start, compared with one in C that uses raw calls."
        ),
        *table(["", "rate", "processor time"], rows),
    ]


def stream_lines(measured):
    streams = measured.streams
    rows = []
    for contender, name in (
        ("raw", "raw calls"),
        ("raw again", "raw calls again"),
        ("stream", "`LDAPSearchStream`"),
        ("stream, pages", "`LDAPSearchStream`, in pages of 1,000"),
        ("ldapsearch", "`ldapsearch -LLL`, which prints the entries"),
        ("python-ldap", "python-ldap, one message at a time"),
        ("go-ldap", "go-ldap, which keeps the entries"),
    ):
        try:
            rows.append(
                [
                    name,
                    streams.faster("stream", contender, "raw").text(),
                    streams.cost("stream", contender, "raw").text(),
                    streams.figure("stream", contender, "peak").text(1),
                ]
            )
        except KeyError:
            rows.append([name, "skipped: not installed", "", ""])
    users = measured.machine["users"]
    return [
        "### Streams",
        "",
        *paragraph(
            f"{users:,} entries by one search, every value read, on one processor. "
            "Whole programs, including their start, compared with one in C that uses raw calls; the "
            "memory is the peak of the resident set."
        ),
        *table(["", "rate", "processor time", "memory, MB"], rows),
    ]


def service_lines(measured):
    service = measured.service
    rows = []
    for contender, name in (("service", "service"), ("proxymap", "Postfix's `proxymap`")):
        for clients in service.sizes("table", contender):
            rows.append(
                [
                    name,
                    str(clients),
                    service.rate("table", contender, clients).text(0),
                    *(
                        service.figure("table", contender, what, clients).text()
                        for what in ("p50", "p99")
                    ),
                    service.figure("table", contender, "connections", clients).text(0),
                ]
            )
    for contender, name in (
        ("service", "service, asked by `postmap`"),
        ("ldap", "`postmap`'s own LDAP table"),
    ):
        rows.append(
            [
                name,
                "100 processes",
                service.rate("postmap", contender).text(0),
                "",
                "",
                service.figure("postmap", contender, "connections").text(0),
            ]
        )
    return [
        "### Service",
        "",
        *paragraph(
            "`solvane-ldapd` and Postfix's `proxymap` with the same table, asked by the same clients, "
            "each with one request at a time. Below, whole processes of `postmap`, including their "
            "start. Clients, service and directory share the processors."
        ),
        *table(
            ["", "clients", "requests per second", "p50, ms", "p99, ms", "connections"],
            rows,
        ),
    ]


GROWTHS = (
    ("entries", "entries of a search"),
    ("attributes", "attributes of an entry"),
    ("values", "values of an attribute"),
    ("value size", "bytes of a value"),
    ("connections", "connections opened and bound"),
)


def growth_lines(measured):
    growth, values = measured.growth, measured.values
    rows = []
    for row, name in GROWTHS:
        library, raw = (growth.growth(row, who) for who in ("library", "raw"))
        in_order = growth.growth(row, "raw in order")
        rows.append(
            [
                name,
                f"{library[0][0]:,} to {library[-1][0]:,}",
                f"{exponent(library):.2f}",
                f"{exponent(raw):.2f}",
                f"{exponent(in_order):.2f}" if in_order else "",
                whose(exponent(library), exponent(raw)),
            ]
        )
    for points, name in (
        (
            values.growth("checkout, one idle", cpu=True),
            "checkout by connections, all but one busy",
        ),
        (
            values.by_threads("checkout by threads", cpu=True),
            "checkout by threads that share 64 connections",
        ),
        (
            growth.growth("attributes, engine", "engine"),
            "attributes of one entry, the engine's reader",
        ),
        (
            growth.growth("values, engine", "engine"),
            "values of one attribute, the engine's reader",
        ),
        (values.growth("template by specifiers", cpu=True), "template by specifiers"),
        (values.growth("escape special", cpu=True), "escaping by bytes, all special"),
    ):
        rows.append(
            [
                name,
                f"{points[0][0]:,} to {points[-1][0]:,}",
                f"{exponent(points):.2f}",
                "",
                "",
                whose(exponent(points), 0),
            ]
        )
    return [
        "### Growth",
        "",
        *paragraph(
            "Entries have seven values and about 270 bytes each. The searches for the row of "
            "attributes find 20 entries, those for values and bytes one."
        ),
        *paragraph(
            "The figures are the exponent k of cost = c · size^k in the client's processor time: 1 "
            "is linear, 2 quadratic. It is fitted by least squares to the logarithms, from the size "
            "at which the cost has tripled. The server is in the same program and answers from "
            "memory."
        ),
        *table(
            ["by", "sizes", "library", "raw calls", "raw calls in order", "worse than linear"], rows
        ),
        *paragraph(
            "Raw calls use `ldap_get_values_len`, which searches for each attribute from the start "
            "of the entry and copies each value. Raw calls in order use `ldap_get_attribute_ber`, "
            "which does neither."
        ),
        "![Processor time of searches and connections, and memory of entries, by size](figures/performance-growth.svg)",
        "",
        "![Checkouts from the pool by connections and by threads](figures/performance-checkouts.svg)",
        "",
    ]


def whose(library, raw):
    if library <= LINEAR:
        return "no"
    return "as OpenLDAP's calls" if library <= raw + 0.1 else "**the library**"


def value_lines(measured):
    rows = []
    for name in measured.values.names():
        if "by " in name or name.startswith(("checkout, one idle", "entries")):
            continue
        time = measured.values.time(name, cpu=True)
        rows.append([f"`{name}`", f"{time.median:,.0f} ± {time.spread:,.0f}"])
    for count in (1, 100, 10000):
        raw, stored = (
            measured.scaled(f"entries, {kind}/{count}", cpu=True, unit=1000.0 * count)
            for kind in ("raw", "stored")
        )
        rows.append([f"an entry of {count:,} received, raw calls", f"{raw.median * 1000:,.0f}"])
        rows.append([f"an entry of {count:,} received, stored", f"{stored.median * 1000:,.0f}"])
    return [
        "### Work without a network",
        "",
        "Nanoseconds of processor time.",
        "",
        *table(["", "ns"], rows),
    ]


def rounded(count):
    """Counts without decimals, ratios with two."""
    return f"{float(count):,.0f}" if count and float(count) >= 100 else count


COUNTED = os.path.join(os.path.dirname(os.path.abspath(__file__)), "exact", "figures.csv")


def counted_lines(path=COUNTED):
    """What bench/exact counted last, which is the same in every run."""
    if not os.path.exists(path):
        return []
    with open(path, encoding="utf-8", newline="") as opened:
        rows = [
            [row["figure"], rounded(row["last"]), row["limit"]] for row in csv.DictReader(opened)
        ]
    return [
        "### Counted",
        "",
        *paragraph(
            "Instructions, allocations and memory, counted by `scripts/bench --exact`, which fails "
            'if a figure exceeds its limit or is worse than the last one. "Of those in C" is a '
            "ratio: 1.2 means 1.2 times as many."
        ),
        *table(["what", "last", "limit"], rows),
    ]


def drawn(measured):
    """File name and SVG of every plot."""
    import plots  # here, as only plots need matplotlib

    free, growth, values = measured.free, measured.growth, measured.values
    seconds = {"y_label": plots.duration}

    def rates(row, contenders):
        return [
            (
                name,
                [
                    (size, free.rate(row, contender, size).median)
                    for size in free.sizes(row, contender)
                ],
            )
            for contender, name in contenders
        ]

    def fitted(name, points):
        return f"{name}: k = {exponent(points):.2f}", points

    def growths():
        for row, axis in GROWTHS:
            lines = [
                fitted(name, growth.growth(row, who))
                for who, name in (
                    ("raw", "raw calls"),
                    ("library", "library"),
                    ("raw in order", "raw calls in order"),
                )
                if growth.sizes(row, who)
            ]
            yield plots.Panel(f"Time by {axis}", axis, "processor time", lines, **seconds)

    memory = plots.Panel(
        "Memory of stored entries",
        "entries of a search",
        "bytes",
        [
            fitted("stored by the library", growth.notes("entries", "library", "heap")),
            ("on the wire", growth.notes("entries", "wire", "bytes")),
        ],
    )
    checkouts = values.growth("checkout, one idle", cpu=True)
    by_threads = values.by_threads("checkout by threads")

    yield "rates", plots.plot(
        "Lookups per second",
        [
            plots.Panel(
                "Searches in flight on one connection",
                "searches in flight",
                "lookups per second",
                rates("window", (("raw", "raw calls"), ("library", "library"))),
                is_log_y=False,
            ),
            plots.Panel(
                "Threads, a connection each",
                "threads",
                "lookups per second",
                rates(
                    "threads",
                    (
                        ("raw", "raw calls"),
                        ("library", "kept connections"),
                        ("pool", "template and pool"),
                        ("engine", "engine"),
                    ),
                ),
                is_log_y=False,
            ),
        ],
    )
    yield "growth", plots.plot("Cost by size", [*growths(), memory])
    yield "checkouts", plots.plot(
        "Checkouts from the pool",
        [
            plots.Panel(
                "Checkout and return, all but one busy",
                "connections in the pool",
                "processor time",
                [fitted("checkout", [(size, cost * 1e-9) for size, cost in checkouts])],
                **seconds,
            ),
            plots.Panel(
                "Checkouts by threads, 64 connections",
                "threads",
                "checkouts per second",
                [("checkouts", [(threads, 1e9 / cost) for threads, cost in by_threads])],
                is_log_y=False,
            ),
        ],
    )


def replaced(document, lines):
    """The document with these lines between its markers."""
    head, rest = document.split(BEGIN)
    _, tail = rest.split(END)
    return head + BEGIN + "\n" + "\n".join(lines) + END + tail


def main():
    records, document, folder = sys.argv[1:]
    measured = Measured(records)
    goals = targets(measured)
    lines = []
    for part in (
        machine_lines,
        lambda of: target_lines(goals),
        contender_lines,
        window_lines,
        thread_lines,
        program_lines,
        stream_lines,
        service_lines,
        growth_lines,
        value_lines,
    ):
        lines += part(measured)
    lines += counted_lines()
    with open(document, encoding="utf-8") as opened:
        text = replaced(opened.read(), lines)
    with open(document, "w", encoding="utf-8") as opened:
        opened.write(text)
    os.makedirs(folder, exist_ok=True)
    for name, svg in drawn(measured):
        with open(os.path.join(folder, f"performance-{name}.svg"), "w", encoding="utf-8") as opened:
            opened.write(svg)
    for goal in goals:
        print("  ".join(cell.replace("**", "").replace("`", "") for cell in goal.row()))
    return 1 if any(goal.is_missed() for goal in goals) else 0


if __name__ == "__main__":
    sys.exit(main())
