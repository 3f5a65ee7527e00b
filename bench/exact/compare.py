#!/usr/bin/python3
"""compare.py [--update] FIGURES COUNTS: compares the counts in the directory COUNTS with FIGURES.

FIGURES has for each figure what it is to come to (goal), what it may not be above (limit), and what
it was last. Any may be empty. A goal that is not reached yet is told; nothing fails for it.
"""

import csv
import pathlib
import re
import sys

TOLERANCE = 1.03  # a new compiler or C library moves every count a little
# What is printed of the counts: its name, the count, and what it is divided by.
FIGURES = [
    ("lookup: instructions, of those in C", "lookup.library instructions", "lookup.c instructions"),
    ("lookup: instructions", "lookup.library instructions", None),
    ("lookup: allocations", "lookup.library allocations", None),
    ("lookup, read as text: instructions", "lookup-of-texts.library instructions", None),
    ("lookup, read as text: allocations", "lookup-of-texts.library allocations", None),
    ("entry: instructions, of those in C", "entry.library instructions", "entry.c instructions"),
    ("entry: instructions", "entry.library instructions", None),
    ("entry: allocations", "entry.library allocations", None),
    (
        "find: instructions, of those of a lookup in C",
        "find.library instructions",
        "lookup.c instructions",
    ),
    ("find: instructions", "find.library instructions", None),
    ("find: allocations", "find.library allocations", None),
    (
        "entry, by the engine: instructions, of those in C",
        "entry-by-engine.library instructions",
        "entry.c instructions",
    ),
    ("entry, by the engine: allocations", "entry-by-engine.library allocations", None),
    (
        "stored entry: memory, of its bytes on the wire",
        "stored-entry.library memory",
        "entry bytes",
    ),
    ("checkout, alone: instructions", "checkout-of-1.library instructions", None),
    ("checkout, 63 of 64 busy: instructions", "checkout-of-64.library instructions", None),
    ("checkout, 511 of 512 busy: instructions", "checkout-of-512.library instructions", None),
    ("checkout: allocations", "checkout-of-512.library allocations", None),
    (
        "template: instructions, of those of snprintf",
        "template.library instructions",
        "template.c instructions",
    ),
    ("template: allocations", "template.library allocations", None),
]


def read_counts(directory):
    """Every count per piece of work, by '<work> <what>'."""
    counts = {}
    for line in (directory / "memory").read_text().splitlines():
        work, what, number = line.split()
        counts[f"{work} {what}"] = float(number)
    for path in directory.glob("callgrind.out*"):
        text = path.read_text()
        named = re.search(r"^desc: Trigger: Client Request: (\S+)/(\d+)$", text, re.MULTILINE)
        if named:
            total = int(re.search(r"^totals: (\d+)", text, re.MULTILINE).group(1))
            counts[f"{named.group(1)} instructions"] = total / int(named.group(2))
    return counts


def fault(number, row):
    if row["limit"] and number > float(row["limit"]):
        return "over its limit"
    last = float(row["last"] or "inf")
    if number > last * TOLERANCE:
        return f"{100 * (number / last - 1):.1f} % worse" if last else "no longer 0"
    return ""


def remark(number, row):
    return f'goal: {row["goal"]}' if row["goal"] and number > float(row["goal"]) else ""


def main():
    updates = sys.argv[1] == "--update"
    path, directory = map(pathlib.Path, sys.argv[-2:])
    counts = read_counts(directory)
    known = (
        {row["figure"]: row for row in csv.DictReader(path.read_text().splitlines())}
        if path.exists()
        else {}
    )
    rows, is_bad = [], False
    print(f'{"figure":54} {"now":>10} {"last":>10} {"limit":>8}')
    for name, count, divisor in FIGURES:
        number = round(counts[count] / (counts[divisor] if divisor else 1), 2)
        row = known.get(name, {"goal": "", "limit": "", "last": ""})
        said = fault(number, row)
        is_bad = is_bad or bool(said)
        print(
            f'{name:54} {number:10.2f} {row["last"]:>10} {row["limit"]:>8} '
            f"{said or remark(number, row)}".rstrip()
        )
        rows.append({**row, "figure": name, "last": f"{number:.2f}"})
    if updates:
        with path.open("w", newline="") as file:
            writer = csv.DictWriter(file, ["figure", "goal", "limit", "last"], lineterminator="\n")
            writer.writeheader()
            writer.writerows(rows)
        return 0
    return 1 if is_bad else 0


if __name__ == "__main__":
    sys.exit(main())
