"""Sphinx's settings for the site. scripts/site runs it on a copy of the documents."""

import os
import re

from docutils import nodes
from pygments.lexers.shell import BashSessionLexer
from sphinx import addnodes
from sphinx.transforms.post_transforms import SphinxPostTransform
from sphinx.util.nodes import make_refnode

project = "Solvane LDAP library"
version = release = os.environ["SITE_VERSION"]
extensions = ["myst_parser", "breathe"]
include_patterns = [
    "index.md",
    "*.md",
    "docs/*.md",
    "docs/guide/*.md",
    "examples/*.md",
    "runtime/*.md",
    "reference/*",
]
suppress_warnings = ["myst.header"]  # levels that a document leaves out
myst_heading_anchors = 4
primary_domain = "cpp"
highlight_language = "none"
smartquotes = False  # "--" stays two characters
breathe_projects = {"solvane": os.environ["SITE_XML"]}
breathe_default_project = "solvane"

html_theme = "furo"
html_title = f"{project} {version}"
html_static_path = ["static"]
html_css_files = ["site.css"]
html_js_files = ["search.js"]
html_copy_source = False
html_show_sphinx = False
html_show_copyright = False


class Session(BashSessionLexer):
    """Only these prompts begin a command: what a program prints may begin with "#" or "("."""

    _ps1rgx = re.compile(r"^((?:\$|\(gdb\)) )(.*\n?)")
    _venv = re.compile(r"(?!)")


class NamesInCode(SphinxPostTransform):
    """`LDAPConnection::bind` in a text leads to the reference."""

    default_priority = 5

    def run(self, **_):
        names = self.env.temp_data.setdefault("names", {}) or self.known_names()
        for literal in list(self.document.findall(nodes.literal)):
            found = re.fullmatch(r"((?:\w+::)*\w+)(\(.*\))?", literal.astext())
            place = names.get(found.group(1)) if found else None
            if place and not isinstance(
                literal.parent, (nodes.reference, nodes.title, addnodes.pending_xref)
            ):
                literal.replace_self(
                    make_refnode(self.app.builder, self.env.docname, *place, literal.deepcopy())
                )

    def known_names(self):
        names = {}
        for name, _, _, page, anchor, _ in self.env.get_domain("cpp").get_objects():
            for prefix in ("", "Solvane::", "Solvane::Lookup::"):
                short = name[len(prefix) :]
                # Of members, at least the class is named.
                if name.startswith(prefix) and ("::" in short or short[:1].isupper()):
                    names.setdefault(short, (page, anchor))
        return names


def index_places(app, doctree):
    """A search for Connection.cpp:241 finds the row of the guide's table."""
    if app.env.docname != "docs/guide/errors":
        return
    for row in doctree.findall(nodes.row):
        cells = [cell.astext() for cell in row.children[:2]]
        if len(cells) == 2 and re.fullmatch(r"[A-Z]\w+", cells[0]) and cells[1].isdigit():
            place = f"{cells[0]}.cpp:{cells[1]}"
            anchor = f"{cells[0]}-{cells[1]}".lower()
            entry = addnodes.index(entries=[("single", place, anchor, "main", None)])
            row.children[0].insert(0, [entry, nodes.target("", "", ids=[anchor])])


def setup(app):
    app.add_lexer("console", Session)
    app.add_post_transform(NamesInCode)
    app.connect("doctree-read", index_places)
