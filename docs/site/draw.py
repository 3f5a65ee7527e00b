#!/usr/bin/python3
"""Draws the diagrams: draw.py [--check] - docs/diagrams/NAME.svg for light and dark pages, from each
`digraph NAME` of diagrams.dot.

The drawings are kept in the repository, where a forge shows them in the documents. Each has a stamp of the
text it was drawn from, so that --check finds one that is behind without drawing it again.
"""

import hashlib
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]

FOLDER = ROOT / "docs/diagrams"
DEFAULTS = [
    "-Gbgcolor=transparent",
    "-Gfontname=Helvetica",
    "-Gfontsize=11",
    "-Gnodesep=0.35",
    "-Granksep=0.45",
    "-Nshape=box",
    "-Nstyle=rounded",
    "-Nfontname=Helvetica",
    "-Nfontsize=11",
    "-Nmargin=0.16,0.08",
    "-Efontname=Helvetica",
    "-Efontsize=10",
    "-Earrowsize=0.7",
]
# Presentation attributes give way to rules, so the colours are all here.
STYLE = """<style>
text { font-family: Helvetica, "Liberation Sans", Arial, sans-serif; fill: #1d2733; }
.node path, .node polygon { fill: #f5f7f9; stroke: #7b8794; }
.edge path { stroke: #596675; } .edge polygon { fill: #596675; stroke: #596675; } .edge text { fill: #46525f; }
.cluster polygon, .cluster path { fill: none; stroke: #b8c2cc; } .cluster text { fill: #596675; }
.good path { fill: #e3f4e8; stroke: #2f855a; } .bad path { fill: #fdeaea; stroke: #b83232; }
.end path { fill: #e8ebee; } .outside path { stroke-dasharray: 4 3; } .note path { stroke: none; fill: none; }
.begin ellipse { fill: #596675; stroke: #596675; }
@media (prefers-color-scheme: dark) {
text { fill: #dbe2e9; }
.node path, .node polygon { fill: #1b222a; stroke: #7b8794; }
.edge path { stroke: #98a5b3; } .edge polygon { fill: #98a5b3; stroke: #98a5b3; } .edge text { fill: #b4bfca; }
.cluster polygon, .cluster path { stroke: #46525f; } .cluster text { fill: #98a5b3; }
.good path { fill: #17352a; stroke: #4fae7f; } .bad path { fill: #3d2022; stroke: #dd7373; }
.end path { fill: #2a333d; } .note path { stroke: none; fill: none; }
.begin ellipse { fill: #98a5b3; stroke: #98a5b3; }
}
</style>"""


def sources():
    """The text of each diagram by its name, with the comment above it."""
    text = (FOLDER / "diagrams.dot").read_text()
    found = re.findall(r'^((?://[^\n]*\n)*digraph "?([\w-]+)"? \{\n.*?^\}\n)', text, re.M | re.S)
    return {name: source for source, name in found}


def stamp(text):
    """Stands for the text and the style of a drawing."""
    return "drawn from " + hashlib.sha256((text + STYLE).encode()).hexdigest()[:16]


def drawing(name):
    return FOLDER / f"{name}.svg"


def draw(name, text):
    drawn = subprocess.run(
        ["dot", "-Tsvg", *DEFAULTS],
        input=text,
        capture_output=True,
        text=True,
        check=True,
        timeout=60,
    )
    body = drawn.stdout[drawn.stdout.index("<svg") :]
    body = re.sub(r"<title>.*?</title>\n?|<!--.*?-->\n?", "", body, flags=re.S)
    body = body.replace(">", f">\n<!-- {name}, {stamp(text)} -->\n{STYLE}", 1)
    drawing(name).write_text(body)


def main(only_checks):
    texts = sources()
    behind = [
        name
        for name, text in texts.items()
        if not drawing(name).exists() or stamp(text) not in drawing(name).read_text()
    ]
    alone = [path.name for path in sorted(FOLDER.glob("*.svg")) if path.stem not in texts]
    for name in alone:
        print(f"docs/diagrams/{name}: diagrams.dot has no such diagram", file=sys.stderr)
    if only_checks:
        for name in behind:
            print(f"docs/diagrams/{name}.svg is behind; scripts/site --draw", file=sys.stderr)
        return 1 if behind or alone else 0
    for name in behind:
        draw(name, texts[name])
    return 1 if alone else 0


if __name__ == "__main__":
    sys.exit(main("--check" in sys.argv[1:]))
