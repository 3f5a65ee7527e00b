#!/usr/bin/python3
"""Draws the diagrams: draw.py [--check] - docs/diagrams/*.svg from *.dot, for light and dark pages.

The drawings are kept in the repository, where a forge shows them in the documents. Each names the text it
was drawn from, so that --check finds one that is behind without drawing it again.
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


def stamp(text):
    """Names the text and the style of a drawing."""
    return "drawn from " + hashlib.sha256((text + STYLE).encode()).hexdigest()[:16]


def draw(source):
    text = source.read_text()
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
    body = body.replace(">", f">\n<!-- {source.name}, {stamp(text)} -->\n{STYLE}", 1)
    source.with_suffix(".svg").write_text(body)


def main(only_checks):
    sources = sorted(FOLDER.glob("*.dot"))
    behind = [
        source
        for source in sources
        if not source.with_suffix(".svg").exists()
        or stamp(source.read_text()) not in source.with_suffix(".svg").read_text()
    ]
    if only_checks:
        for source in behind:
            print(
                f"docs/diagrams/{source.name}: its drawing is behind; scripts/site --draw",
                file=sys.stderr,
            )
        return 1 if behind else 0
    for source in behind:
        draw(source)
    return 0


if __name__ == "__main__":
    sys.exit(main("--check" in sys.argv[1:]))
