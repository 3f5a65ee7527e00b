#!/usr/bin/python3
"""Makes the repository's documents into pages as Doxygen takes them: prepare.py WORK

Writes WORK/pages/*.md, WORK/header.html with the menu, and WORK/files/, whatever the pages show or link
to besides. A link to a file or heading that does not exist ends it with 1.
"""

import html
import pathlib
import posixpath
import re
import shutil
import sys

import pages
from pages import ROOT, Complaint

# How Doxygen parses code of a language; what it does not know stays as it is.
LANGUAGES = {"cpp": "{.cpp}", "c++": "{.cpp}", "python": "{.py}"}


def replaced(text, table):
    for old, new in table.items():
        text = text.replace(old, new)
    return text


class Page:
    """One document on its way."""

    def __init__(self, path, site):
        self.path = path
        self.name = pages.name(path)
        self.site = site
        self.text = (ROOT / path).read_text()
        self.anchors = [anchor for _, _, anchor in pages.headings(self.text)]

    def address(self, target):
        """The address in the site of what the document calls `target`."""
        if re.match(r"[a-z]+:", target):
            return target
        file, _, anchor = target.partition("#")
        path = (
            posixpath.normpath(posixpath.join(posixpath.dirname(self.path), file))
            if file
            else self.path
        )
        if path in self.site:
            other = self.site[path]
            if not anchor:
                return f"{other.name}.html"
            if anchor not in other.anchors:
                raise Complaint(f"{self.path}: {target}: no such heading")
            return f"{other.name}.html#{other.name}-{anchor}"
        if (ROOT / path).is_dir() and not path.startswith("."):
            folder = self.site.folders.setdefault(path, Folder(path, self.site))
            return f"{folder.name}.html"
        if not (ROOT / path).is_file() or path.startswith(".."):
            raise Complaint(f"{self.path}: {target}: no such file")
        return self.site.attach(path)

    def link(self, match):
        image, text, target = match.groups()
        address = self.address(target)
        if image:
            return f'<img class="figure" src="{address}" alt="{html.escape(text)}">'
        return f"[{text}]({address})"

    def inline(self, line):
        """A line of text with its links turned; what stands in backticks stays."""
        parts = re.split(r"(`+[^`]*`+)", line)
        # A link's text may be code, so links are looked for in the whole line, by placeholder.
        codes = [replaced(code, pages.HIDDEN) for code in parts[1::2]]
        masked = "".join(
            part if index % 2 == 0 else f"\0{index // 2}\0" for index, part in enumerate(parts)
        )
        masked = pages.LINK.sub(self.link, masked)
        # Doxygen does not see the stars beside code, and sees commands and a namespace where none is meant.
        masked = re.sub(r"\*\*([^*]+)\*\*", r"<b>\1</b>", masked)
        masked = re.sub(r"(?<![\w`])([@\\])(?=\w)", r"\\\1", masked)
        masked = re.sub(r"\bSolvane\b(?!:)", r"%Solvane", masked)
        return re.sub("\0(\\d+)\0", lambda match: codes[int(match.group(1))], masked)

    def converted(self):
        """The page as Doxygen takes it."""
        anchors = iter(self.anchors)
        out = []
        above = []
        opened = False
        for line, is_code in pages.lines(self.text):
            if is_code:
                out.append(self.fence(line))
                continue
            match = pages.HEADING.match(line)
            if not match:
                out.append(self.inline(line))
                continue
            level, heading = len(match.group(1)), pages.plain(match.group(2)).replace(
                "Solvane ", "%Solvane "
            )
            anchor = next(anchors)
            if not opened:
                opened = True
                out.append(f"# {heading} {{#{self.name}}}")
                out.append(f'<a id="{self.name}-{anchor}"></a>')
                out += ["", '<div class="contents-list"></div>', ""]
                continue
            # Doxygen wants no level left out; those that are alike stay so.
            while above and above[-1] >= level:
                above.pop()
            above.append(level)
            out.append(f"#{'#' * len(above)} {heading} {{#{self.name}-{anchor}}}")
        return "\n".join(out) + "\n"

    @staticmethod
    def fence(line):
        match = pages.FENCE.match(line.lstrip())
        if not match or not match.group(2):
            return line
        return (
            line[: len(line) - len(line.lstrip())]
            + match.group(1)
            + LANGUAGES.get(match.group(2).strip(), "{.unparsed}")
        )


class Example(Page):
    """A program, shown whole."""

    def __init__(self, path, site):
        super().__init__(path, site)
        self.anchors = []

    def converted(self):
        file = pathlib.PurePosixPath(self.path).name
        return f"# {file} {{#{self.name}}}\n\n```{{.cpp}}\n{self.text.rstrip()}\n```\n"


class Manual(Page):
    """A manual page: finish.py puts in what mandoc makes of it."""

    def __init__(self, path, site):
        super().__init__(path, site)
        self.anchors = []

    def converted(self):
        return f'# {pages.title(self.path)} {{#{self.name}}}\n\n<div class="manual" data-file="{self.path}"></div>\n'


class Folder(Page):
    """A folder that a page links to: its files, each shown whole."""

    def __init__(self, path, site):
        self.path = path
        self.name = path.replace("/", "-")
        self.site = site
        self.files = [file for file in sorted((ROOT / path).iterdir()) if file.is_file()]
        self.anchors = []

    def converted(self):
        parts = [f"# {self.path} {{#{self.name}}}"]
        for number, file in enumerate(self.files):
            shown = self.site.get(f"{self.path}/{file.name}")
            body = (
                f"[{file.name}]({shown.name}.html)"
                if shown
                else f"```{{.unparsed}}\n{file.read_text().rstrip()}\n```"
            )
            parts += ["", f"## {file.name} {{#{self.name}-{number}}}", "", body]
        return "\n".join(parts) + "\n"


class Site(dict):
    """Every page by its path, and the files that pages use besides."""

    def __init__(self):
        super().__init__()
        self.attached = {}
        self.folders = {}
        for path in [pages.INDEX, *pages.guide(), *pages.about(), pages.REFERENCE]:
            self[path] = Page(path, self)
        for path in pages.examples():
            self[path] = Example(path, self)
        for path in pages.manuals():
            self[path] = Manual(path, self)
        names = [page.name for page in self.values()]
        twice = {name for name in names if names.count(name) > 1}
        if twice:
            raise Complaint(f"docs/site/pages.py: two pages are called {', '.join(sorted(twice))}")

    def attach(self, path):
        name = "files/" + path.replace("/", "-")
        self.attached[name] = path
        return name

    def menu(self):
        def part(name, paths):
            items = "\n".join(
                f'<li><a href="{self[path].name}.html">{html.escape(pages.title(path))}</a></li>'
                for path in paths
            )
            return f"<h2>{name}</h2>\n<ul>\n{items}\n</ul>"

        return "\n".join(
            [
                part("Guide", [pages.INDEX, *pages.guide()]),
                part("Reference", [pages.REFERENCE, *pages.manuals()]),
                part("About", pages.about()),
            ]
        )


def main(work):
    site = Site()
    folder = work / "pages"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    for page in site.values():
        name = "mainpage" if page.name == "index" else page.name
        (folder / f"{name}.md").write_text(page.converted().replace("{#index}", "{#mainpage}", 1))
    for page in site.folders.values():
        (folder / f"{page.name}.md").write_text(page.converted())
    for name, path in site.attached.items():
        target = work / name
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(ROOT / path, target)
    header = (ROOT / "docs/site/header.html").read_text()
    (work / "header.html").write_text(header.replace("<!-- menu -->", site.menu()))


if __name__ == "__main__":
    try:
        main(pathlib.Path(sys.argv[1]))
    except Complaint as complaint:
        sys.exit(f"site: {complaint}")
