#!/usr/bin/python3
"""Checks that headers and guide tell of every place that throws: check_throws.py

The tables on top of src/*.cpp are the source: unit, line, code and type of each place. Each has its row in
docs/guide/errors.md and stands in a public header, as "code 4, type 1, Connection.cpp:403"; neither tells
of one that does not exist. docs/diagrams/diagrams.dot has them by code and type, null handles apart.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]

HEADERS = ("include/solvane/ldap",)

# Places with a second type, for a server that is unreachable.
UNREACHABLE = {("Connection", 241, 4, 1), ("Security", 76, 4, 1), ("Security", 136, 4, 1)}


def sources():
    """(unit, line): (code, type) of each row of the tables."""
    text = (ROOT / "src/ThrowSite.h").read_text()
    numbers = {name: int(value) for name, value in re.findall(r"^    (\w+) = (\d+),?", text, re.M)}
    sites = {}
    for path in sorted((ROOT / "src").glob("*.cpp")):
        unit = None
        for line in path.read_text().splitlines():
            found = re.match(r'constexpr char unit\[\] = "(\w+)\.cpp";', line)
            unit = found.group(1) if found else unit
            found = re.match(
                r"constexpr ThrowSite +\w+ *\{ unit, +(\d+), Fault::(\w+), +Stage::(\w+) *\};", line
            )
            if found:
                sites[unit, int(found.group(1))] = numbers[found.group(2)], numbers[found.group(3)]
    return sites


def guide():
    """The same from the tables of the guide; the first type of a place counts."""
    rows = re.findall(
        r"^\| (\w+) \| (\d+) \| (\d) \| (\d+)", (ROOT / "docs/guide/errors.md").read_text(), re.M
    )
    return {(unit, int(line)): (int(code), int(kind)) for unit, line, code, kind in rows}


def headers():
    """The same from the descriptions, where one place may stand several times: unit, line, code, type."""
    for folder in HEADERS:
        for path in sorted((ROOT / folder).rglob("*.h")):
            text = re.sub(r"\n *///(?!<)? *", " ", path.read_text())
            for code, kind, places in re.findall(
                r"code (\d), type (\d+),((?: (?:and )?\w+\.cpp:\d+(?: and \d+)?,?)+)", text
            ):
                unit = None
                for name, line in re.findall(r"(?:(\w+)\.cpp:| and )(\d+)", places):
                    unit = name or unit
                    yield path.relative_to(ROOT), unit, int(line), int(code), int(kind)


def diagram():
    """(unit, line): (code, type) of each leaf of the diagram."""
    text = (ROOT / "docs/diagrams/diagrams.dot").read_text()
    sites = {}
    for code, kind, label in re.findall(r'n(\d)(\d+) \[label="([^"]*)"', text):
        for unit, lines in re.findall(r"\\n(\w+) ([\d, ]+)", label):
            sites.update({(unit, int(line)): (int(code), int(kind)) for line in lines.split(",")})
    return sites


def differences(name, told, sites, wanted):
    for place in sorted(wanted - told.keys()):
        yield f"{name}: nothing of {place[0]}.cpp:{place[1]}"
    for (unit, line), numbers in sorted(told.items()):
        if (unit, line) not in sites:
            yield f"{name}: {unit}.cpp:{line} does not throw"
        elif sites[unit, line] != numbers and (unit, line, *numbers) not in UNREACHABLE:
            yield f"{name}: {unit}.cpp:{line} has code {sites[unit, line][0]}, type {sites[unit, line][1]}"


def main():
    sites = sources()
    if not sites:
        sys.exit("src/*.cpp: no tables of places that throw")
    null_handles = {place for place, numbers in sites.items() if numbers == (1, 0)}
    faults = list(differences("docs/guide/errors.md", guide(), sites, sites.keys()))
    faults += differences(
        "docs/diagrams/diagrams.dot", diagram(), sites, sites.keys() - null_handles
    )
    told = {}
    for path, unit, line, code, kind in headers():
        told[unit, line] = code, kind
        faults += differences(path, {(unit, line): (code, kind)}, sites, set())
    faults += differences("public headers", told, sites, sites.keys())
    for fault in dict.fromkeys(faults):
        print(fault, file=sys.stderr)
    print(f"{len(sites)} places that throw")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
