#!/usr/bin/python3
"""Writes a page for each public header, and one for each library: reference.py XML PAGES

XML is Doxygen's output. The pages only say what to show; Breathe and Sphinx show it.
"""

import pathlib
import sys
import xml.etree.ElementTree as ElementTree

# Folder of headers: title and introduction. A header belongs to the longest folder that fits.
LIBRARIES = {
    "solvane/lookup/": (
        "Lookup engine",
        "`#include <solvane/lookup.h>`, library `Solvane::lookup`.",
    ),
    "solvane/session/": (
        "Sessions",
        "One connection to a server that never blocks: what the lookup engine and "
        "`solvane-ldap check` are built on. Library `Solvane::lookup`.",
    ),
    "solvane/ldap/": ("Object interface", "`#include <solvane/ldap.h>`, library `Solvane::ldap`."),
    "solvane/ldap/impl/": (
        "Bodies and adapters",
        "For [requests of your own](../docs/guide/own-requests.md): "
        "`#include <solvane/ldap/impl.h>`.",
    ),
    "solvart/": (
        "Runtime",
        "The bundled runtime. [Another one](../runtime/README.md) can take its place.",
    ),
}


def text(element):
    return " ".join("".join(element.itertext()).split()) if element is not None else ""


class Header:
    """What Doxygen found in one header."""

    def __init__(self, xml, file):
        compound = ElementTree.parse(file).getroot().find("compounddef")
        self.path = compound.find("location").get("file").rpartition("include/")[2]
        self.brief = text(compound.find("briefdescription"))
        names = [(each.text, each.get("refid")) for each in compound.findall("innerclass")]
        outer = [
            (name, refid)
            for name, refid in names
            if not any(name.startswith(f"{other}::") for other, _ in names)
        ]
        self.classes = [name for name, _ in outer]
        self.directives = [
            f".. doxygen{kind_of(xml / f'{refid}.xml')}:: {name}\n   :members:\n"
            "   :protected-members:\n   :undoc-members:\n"
            for name, refid in outer
        ]
        for scope in [
            *(each.get("refid") for each in compound.findall("innernamespace")),
            file.stem,
        ]:
            members = list(ElementTree.parse(xml / f"{scope}.xml").getroot().iter("memberdef"))
            self.directives += [
                directive(member, members)
                for member in members
                if member.find("location").get("file").rpartition("include/")[2] == self.path
            ]

    def library(self):
        return max(
            (folder for folder in LIBRARIES if self.path.startswith(folder)), key=len, default=None
        )

    def page(self):
        name = self.path.rpartition("/")[2]
        return (
            f"{name}\n{'=' * len(name)}\n\n{self.brief}\n\n.. code-block:: cpp\n\n"
            f"   #include <{self.path}>\n\n" + "\n".join(self.directives)
        )


def kind_of(file):
    return ElementTree.parse(file).getroot().find("compounddef").get("kind")


def directive(member, members):
    """The directive for what stands in no class; of overloads, with the parameters."""

    def name(each):
        return each.findtext("qualifiedname") or each.findtext("name")

    alike = [each for each in members if name(each) == name(member)]
    parameters = member.findtext("argsstring").split(" noexcept")[0] if len(alike) > 1 else ""
    return f".. doxygen{member.get('kind')}:: {name(member)}{parameters}\n"


def main(xml, pages):
    pages.mkdir(parents=True)
    headers = [Header(xml, file) for file in sorted(xml.glob("*_8h.xml"))]
    headers = [header for header in headers if header.directives]
    for header in headers:
        if header.library() is None:
            sys.exit(f"docs/site/reference.py: no library for {header.path}")
        (pages / f"{header.path.replace('/', '-')}.rst").write_text(header.page())
    for number, (folder, (title, introduction)) in enumerate(LIBRARIES.items(), 1):
        own = [header for header in headers if header.library() == folder]
        rows = [
            f"| [{header.path.rpartition('/')[2]}]({header.path.replace('/', '-')}.rst) | {header.brief} | "
            f"{', '.join(f'`{name}`' for name in header.classes)} |"
            for header in own
        ]
        names = "\n".join(f"{header.path.replace('/', '-')}" for header in own)
        (pages / f"library-{number}.md").write_text(
            f"# {title}\n\n{introduction}\n\n| header | what it has | classes |\n|---|---|---|\n"
            + "\n".join(rows)
            + f"\n\n```{{toctree}}\n:hidden:\n\n{names}\n```\n"
        )


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]))
