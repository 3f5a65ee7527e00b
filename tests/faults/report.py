#!/usr/bin/env python3
"""report.py LIST RESULTS VERSIONS DOCUMENT

Writes the matrix of faults into docs/reliability.md: LIST is what `solvane_faults --list` printed,
RESULTS what a run printed, VERSIONS a text with one version a line. Of the document, only what stands
between the markers of the matrix is replaced."""

import json
import re
import sys

COLUMNS = ["bind", "search", "add", "modify", "delete", "compare", "stream"]
COLUMNS += ["pool", "query", "engine", "submit", "verify", "tool"]
START, END = "<!-- faults -->", "<!-- /faults -->"


def read_lines(path):
    with open(path, encoding="utf-8") as lines:
        return [json.loads(line) for line in lines if line.strip()]


def cell_text(cell):
    if cell is None:
        return "not run"
    if "notApplicable" in cell:
        return "–"
    if cell["failed"]:
        return f"**✗ {cell['failed']}**"
    limited = f" +{cell['limited']}" if cell["limited"] else ""
    return f"✓ {cell['passed']}{limited}"


def matrix(faults, cells):
    yield "| fault | " + " | ".join(COLUMNS) + " |"
    yield "|---" * (len(COLUMNS) + 1) + "|"
    for fault in faults:
        texts = (cell_text(cells.get((fault["fault"], column))) for column in COLUMNS)
        yield f"| {fault['fault']} | " + " | ".join(texts) + " |"


def failures(faults, cells):
    """What happened in the failed cases, below a heading; nothing if there are none."""
    failed = [
        (fault["fault"], column, cells[fault["fault"], column])
        for fault in faults
        for column in COLUMNS
        if cells.get((fault["fault"], column), {}).get("failed")
    ]
    if not failed:
        return
    yield "### Failed cases"
    yield ""
    for fault, column, cell in failed:
        lines = [line.strip() for line in cell["text"].splitlines()]
        yield f"- {fault}, {column}: {'; '.join(line for line in lines if line)}"
    yield ""


def meanings(faults):
    yield "| fault | what happens |"
    yield "|---|---|"
    for fault in faults:
        yield f"| {fault['fault']} | {fault['meaning']} |"


def limits(faults, cells):
    yield "| fault | limit | operations, with the number of cases |"
    yield "|---|---|---|"
    for fault in faults:
        shown = {}
        for column in COLUMNS:
            cell = cells.get((fault["fault"], column), {})
            for what, count in cell.get("limits", {}).items():
                shown.setdefault(what, []).append(f"{column} {count}")
        for what, where in sorted(shown.items()):
            yield f"| {fault['fault']} | {what} | {', '.join(where)} |"


def reasons(faults):
    for fault in faults:
        if fault["limit"]:
            yield f"- **{fault['fault']}**: {fault['limit']}"


def not_applicable(faults, cells):
    for fault in faults:
        why = {}
        for column in COLUMNS:
            cell = cells.get((fault["fault"], column), {})
            if "notApplicable" in cell:
                why.setdefault(cell["notApplicable"], []).append(column)
        for reason, columns in why.items():
            yield f"- {fault['fault']}, {', '.join(columns)}: {reason}"


def section(faults, cells, versions):
    run = [cell for cell in cells.values() if "cases" in cell]
    tried = sum(cell["cases"] for cell in run)
    limited = sum(cell["limited"] for cell in run)
    failed = sum(cell["failed"] for cell in run)
    yield START
    yield (
        f"{tried} cases in {len(run)} cells; {failed} failed, {limited} showed a known limit. "
        f"Versions: {', '.join(versions)}."
    )
    yield ""
    yield (
        "`✓ 12 +3`: 12 cases passed, 3 more showed a [known limit](#known-limits). `✗ 2`: 2 "
        "failed. `–`: [not applicable](#cells-without-a-case)."
    )
    yield ""
    yield from matrix(faults, cells)
    yield ""
    yield from meanings(faults)
    yield ""
    yield from failures(faults, cells)
    yield "### Known limits"
    yield ""
    yield "These limits are in OpenLDAP, in the LDAP protocol, or in an interface that must not change."
    yield ""
    yield from reasons(faults)
    yield ""
    yield from limits(faults, cells)
    yield ""
    yield "### Cells without a case"
    yield ""
    yield from not_applicable(faults, cells)
    yield END


def main():
    list_path, results_path, versions_path, document_path = sys.argv[1:]
    faults = read_lines(list_path)
    cells = {(cell["fault"], cell["operation"]): cell for cell in read_lines(results_path)}
    with open(versions_path, encoding="utf-8") as text:
        versions = text.read().split("\n")
    versions = [version for version in versions if version]
    with open(document_path, encoding="utf-8") as text:
        document = text.read()
    new = "\n".join(section(faults, cells, versions))
    pattern = re.compile(re.escape(START) + ".*?" + re.escape(END), re.DOTALL)
    if not pattern.search(document):
        sys.exit(f"{document_path}: no {START}")
    with open(document_path, "w", encoding="utf-8") as text:
        text.write(pattern.sub(lambda _: new, document))


main()
