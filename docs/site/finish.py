#!/usr/bin/python3
"""Turns Doxygen's HTML into the site: finish.py WORK OUT

Headings in one order, tables that scroll by themselves, lists of classes and of each page's parts, links
from names in code to the reference, and the index of the search.
"""

import collections
import html
import html.parser
import json
import pathlib
import re
import shutil
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

import pages

Class = collections.namedtuple("Class", "name file header brief")


class Reference:
    """What Doxygen documented: classes, and addresses of names."""

    def __init__(self, work):
        self.classes = []
        self.addresses = {}
        headers = {}
        root = ElementTree.parse(work / "reference.tag").getroot()
        for compound in root.findall("compound[@kind='file']"):
            path = (compound.findtext("path") or "").rpartition("/include/")[2] + compound.findtext(
                "name"
            )
            for name in compound.findall("class"):
                headers.setdefault(name.text, path)
        for compound in root.findall("compound"):
            if compound.get("kind") in ("class", "struct"):
                self.add(compound, headers, work)
            if compound.get("kind") == "namespace":
                self.add_members(compound)

    def add(self, compound, headers, work):
        name = compound.findtext("name")
        file = compound.findtext("filename")
        if name not in headers:
            return
        page = (work / "html" / file).read_text()
        found = re.search(
            r'<div class="contents">\s*(?:<!--.*?-->)?\s*<p>(.*?)\s*<a href="[^"]*#details">',
            page,
            re.S,
        )
        brief = re.sub(r"<a [^>]*>|</a>", "", found.group(1)).strip() if found else ""
        self.classes.append(Class(name, file, headers[name], brief))
        for short in shortened(name):
            self.addresses.setdefault(short, file)
        self.add_members(compound)

    def add_members(self, compound):
        """Of overloads, the first: the others stand below it."""
        scope = compound.findtext("name")
        for member in compound.findall("member"):
            address = f"{member.findtext('anchorfile')}#{member.findtext('anchor')}"
            for short in shortened(f"{scope}::{member.findtext('name')}"):
                if "::" in short or compound.get("kind") == "namespace":
                    self.addresses.setdefault(short, address)
            for value in member.findall("enumvalue"):
                for short in shortened(f"{scope}::{value.text}"):
                    if "::" in short:
                        self.addresses.setdefault(
                            short, f"{value.get('anchorfile')}#{value.get('anchor')}"
                        )

    def address(self, code):
        """Where the name in a piece of code is described; None where it is no name, or not ours."""
        found = re.fullmatch(r"((?:\w+::)*\w+)(\(.*\))?", html.unescape(code))
        return self.addresses.get(found.group(1)) if found else None


def shortened(name):
    """The ways in which the documents write a name."""
    yield name
    for prefix in ("Solvane::Lookup::", "Solvane::"):
        if name.startswith(prefix):
            yield name[len(prefix) :]
    if name.startswith("Solvane::Lookup::"):
        yield name[len("Solvane::") :]


def outside_links(text, change):
    """Applies `change` to the parts of the HTML that are not within a link."""
    parts = re.split(r"(<a [^>]*>.*?</a>)", text, flags=re.S)
    parts[::2] = [change(part) for part in parts[::2]]
    return "".join(parts)


def link_names(text, reference):
    """Names in code lead to the reference, and those of examples to the program."""
    programs = {
        pathlib.PurePosixPath(path).name: f"{pages.name(path)}.html" for path in pages.examples()
    }

    def code(match):
        address = reference.address(match.group(1)) or programs.get(match.group(1))
        return f'<a href="{address}">{match.group(0)}</a>' if address else match.group(0)

    def word(name):
        address = reference.addresses.get(name.group(0))
        return f'<a class="code" href="{address}">{name.group(0)}</a>' if address else name.group(0)

    def words(fragment):
        # Not in comments, texts and tags.
        parts = re.split(
            r"(<span class=\"(?:comment|stringliteral|preprocessor)\">.*?</span>|<[^>]*>)", fragment
        )
        parts[::2] = [
            re.sub(r"\b(?:_|Ref)?LDAP[A-Z]\w+(?:::\w+)?", word, part) for part in parts[::2]
        ]
        return "".join(parts)

    def linked(part):
        if part.startswith(
            '<div class="fragment">'
        ):  # of C++, there are hardly any without a keyword
            return outside_links(part, words) if '<span class="keyword' in part else part
        return outside_links(part, lambda text: re.sub(r"<code>([^<]*)</code>", code, text))

    return "".join(
        linked(part)
        for part in re.split(r'(<div class="fragment">.*?<!-- fragment -->)', text, flags=re.S)
    )


def order_headings(text, is_page):
    """The title is the first heading; the others count on from it."""
    for hidden, shown in pages.SHOWN.items():
        text = text.replace(hidden, shown)
    text = re.sub(
        r" (Class|Struct|File|Namespace)( Template)? Reference(?=\s*</div>| - )", "", text
    )
    text = re.sub(
        r'<div class="title">(.*?)\s*</div>',
        r'<h1 class="title">\1</h1>',
        text,
        count=1,
        flags=re.S,
    )
    if not is_page:
        return text
    head, rest = text.split("<!--header-->", 1)
    rest = re.sub(
        r"<(/?)h([1-5])>", lambda match: f"<{match.group(1)}h{int(match.group(2)) + 1}>", rest
    )
    return head + "<!--header-->" + rest


def tidy(text):
    """Without what only Doxygen's own frame needs."""
    text = text.replace("<title>Solvane LDAP library - ", "<title>", 1)
    text = re.sub(r"<!-- (Generated by|HTML \w+ for).*?-->\n?", "", text)
    text = re.sub(
        r' (onclick|onmouseover)="[^"]*"| (align|valign|cellspacing|cellpadding|border)="[^"]*"',
        "",
        text,
    )
    text = re.sub(r'<img src="closed\.png"[^>]*/?>(&#160;)?', "", text)
    text = re.sub(r'<a((?: [^>]*?)?) name="[^"]*"', r"<a\1", text)
    text = re.sub(r"<a [^>]*href=\"[^\"]*-members\.html\"[^>]*>List of all members</a>", "", text)
    text = re.sub(
        r'<a href="#([^"]+)">[^<]*</a> &#124;',
        lambda match: match.group(0) if f'id="{match.group(1)}"' in text else "",
        text,
    )
    text = re.sub(r"(&#124;\s*)(</div>)", r"\2", text)
    text = re.sub(r'<li class="navelem"><a class="el" href="dir_[^"]*">[^<]*</a></li>', "", text)
    text = re.sub(r'<div class="ttc".*?</div></div>\n?', "", text, flags=re.S)
    text = re.sub(r"<p >", "<p>", text)
    # What a class is comes before the list of what it has.
    details = re.search(
        r'<a id="details"></a><h2 class="groupheader">Detailed Description</h2>\s*'
        r'(<div class="textblock">.*?</div>)(?=\s*(?:<h2|<hr|<!-- contents))',
        text,
        re.S,
    )
    brief = re.search(r'<p>[^\n]*\s*<a href="[^"]*#details">More\.\.\.</a></p>', text)
    if details and brief:
        text = text.replace(details.group(0), "", 1)
        text = text.replace(brief.group(0), f'<a id="details"></a>{details.group(1)}', 1)
    # A figure is a link to itself, and moves sideways where there is little room.
    text = re.sub(
        r'<img src="([^"]*)" alt="([^"]*)"[^>]* class="figure"[^>]*>',
        r'<a class="wide" href="\1"><img class="figure" src="\1" alt="\2"></a>',
        text,
    )
    # No line ends within an option.
    text = re.sub(
        r"(?<=<code>)[^<]* --?\w[^<]*(?=</code>)",
        lambda code: re.sub(
            r"(?<= )--?\w[\w-]*", r'<span class="option">\g<0></span>', code.group(0)
        ),
        text,
    )
    text = re.sub(r"(?<=\d) ± (?=\d)", "\u00a0±\u00a0", text)  # one number with what it may be off
    return re.sub(
        r'(<table class="(?:markdownTable|doxtable)">.*?</table>)',
        r'<div class="wide">\1</div>',
        text,
        flags=re.S,
    )


def link_places(text):
    """Places that throw, each on a line, lead to the guide's table of their unit."""
    text = re.sub(r"; (?=code \d, type \d)", ";<br>", text)
    return outside_links(
        text,
        lambda part: re.sub(
            r"\b([A-Z][a-z]+)\.cpp:\d+",
            lambda place: f'<a href="errors.html#errors-unit-{place.group(1).lower()}">{place.group(0)}</a>',
            part,
        ),
    )


def contents_list(text):
    """The list of a page's parts, where there are more than two."""
    if '<div class="contents-list"></div>' not in text:
        return text
    parts = re.findall(r'<h2><a class="anchor" id="([^"]+)"></a>\s*(.*?)</h2>', text, re.S)
    items = "\n".join(f'<li><a href="#{anchor}">{name}</a></li>' for anchor, name in parts)
    if len(parts) < 3:
        return text.replace('<div class="contents-list"></div>', "")
    return text.replace(
        '<div class="contents-list"></div>',
        f'<nav class="contents-list" aria-label="On this page">\n<ul>\n{items}\n</ul>\n</nav>',
    )


def class_lists(text, reference):
    """The lists of classes, each in the place for its headers' folder."""
    places = re.findall(r'data-header="([^"]+)"', text)

    def place(header):
        return max((each for each in places if header.startswith(each)), key=len, default=None)

    lost = sorted(each.name for each in reference.classes if place(each.header) is None)
    if places and lost:
        raise pages.Complaint(f"{pages.REFERENCE}: no place for {', '.join(lost)}")

    def rows(match):
        own = [each for each in reference.classes if place(each.header) == match.group(1)]
        own.sort(key=lambda each: (each.header, each.name.count("::"), each.name))
        cells = []
        for each in own:
            name = each.name.replace("Solvane::", "", 1)
            cells.append(
                f'<tr><td><a href="{each.file}"><code>{html.escape(name)}</code></a></td>'
                f"<td>{each.brief}</td></tr>"
            )
        return '<table class="markdownTable stacked">\n' + "\n".join(cells) + "\n</table>"

    return re.sub(r'<div class="classes" data-header="([^"]+)"></div>', rows, text)


def manual(text):
    """A manual page, in the place for it."""
    names = {pages.title(page): pages.name(page) for page in pages.manuals()}

    def other(match):
        name = names.get(match.group(1))
        return f'<a href="{name}.html">{match.group(1)}</a>' if name else match.group(1)

    def shown(match):
        drawn = subprocess.run(
            [
                "mandoc",
                "-Wwarning,stop",
                "-T",
                "html",
                "-O",
                "fragment",
                pages.ROOT / match.group(1),
            ],
            capture_output=True,
            text=True,
            timeout=60,
            check=False,
        )
        if drawn.returncode:
            raise pages.Complaint(drawn.stderr.strip())
        body = re.sub(r'<table class="(?:head|foot)">.*?</table>', "", drawn.stdout, flags=re.S)
        body = re.sub(
            r"<(/?)h([12])\b", lambda tag: f"<{tag.group(1)}h{int(tag.group(2)) + 1}", body
        )
        body = re.sub(r'<a class="Xr">(.*?)</a>', other, body)
        return f'<div class="manual">{body}</div>'

    return re.sub(r'<div class="manual" data-file="([^"]+)"></div>', shown, text)


class Sections(html.parser.HTMLParser):
    """Cuts a page into what the search finds: each part with its anchor, heading and text."""

    SKIPPED = ("script", "style", "nav", "header", "svg")

    def __init__(self):
        super().__init__()
        self.sections = [["", "", []]]
        self.page = ""
        self.in_main = False
        self.skip = 0
        self.heading = None
        self.anchor = ""

    def handle_starttag(self, tag, attributes):
        values = dict(attributes)
        self.in_main = self.in_main or tag == "main"
        if not self.in_main:
            return
        if self.skip or tag in self.SKIPPED:
            self.skip += tag in self.SKIPPED
            return
        if values.get("id") and tag in ("a", "h2", "h3"):
            self.anchor = values["id"]
        if tag in ("h1", "h2", "h3", "h4"):
            self.heading = []

    def handle_endtag(self, tag):
        if self.in_main and tag in ("td", "th", "p", "li", "dt", "dd", "div"):
            self.sections[-1][2].append(" ")
        if self.skip:
            self.skip -= tag in self.SKIPPED
        elif self.heading is not None and tag in ("h1", "h2", "h3", "h4"):
            text = " ".join("".join(self.heading).replace("\u25c6", " ").split())
            self.heading = None
            if tag == "h1":
                self.page = text
            elif is_own(text):
                self.sections.append([self.anchor, text, []])
        self.in_main = self.in_main and tag != "main"

    def handle_data(self, data):
        if self.heading is not None:
            self.heading.append(data)
        elif self.in_main and not self.skip:
            self.sections[-1][2].append(data)


def is_own(heading):
    """Whether a heading is a part's own, and not one of those that every class has."""
    return not re.fullmatch(
        r"Detailed Description|.* Documentation|Classes|Functions|Enumerations|Typedefs|"
        r"Additional Inherited Members|(Static )?(Public|Protected) .*",
        heading,
    )


def index_of(out):
    """The search's index: [page, heading, address, text] of each part of each page."""
    entries = []
    for path in sorted(out.glob("*.html")):
        if path.name.endswith(("-members.html", "_8h.html")) or path.name in UNLISTED:
            continue
        parser = Sections()
        parser.feed(path.read_text())
        for anchor, heading, text in parser.sections:
            words = " ".join("".join(text).split())
            if words or heading:
                entries.append(
                    [parser.page, heading, path.name + (f"#{anchor}" if anchor else ""), words]
                )
    return entries


# Doxygen's own lists: the menu and the reference take their place.
UNLISTED = (
    "annotated.html",
    "classes.html",
    "files.html",
    "hierarchy.html",
    "pages.html",
    "namespaces.html",
    "doxygen.html",
)


def unused(name):
    return (
        name in UNLISTED
        or name.endswith("-members.html")
        or re.match(r"(functions|namespacemembers|globals|dir_)", name)
    )


def main(work, out):
    shutil.rmtree(out, ignore_errors=True)
    out.mkdir(parents=True)
    reference = Reference(work)
    documents = {path.stem for path in (work / "pages").glob("*.md")} | {"index"}
    for path in sorted((work / "html").glob("*.html")):
        if unused(path.name):
            continue
        is_page = path.stem in documents
        text = tidy(order_headings(path.read_text(), is_page))
        if is_page:
            text = manual(class_lists(contents_list(link_names(text, reference)), reference))
        else:
            text = link_places(text)
        (out / path.name).write_text(text)
    shutil.copyfile(work / "html/site.css", out / "site.css")
    shutil.copyfile(pages.ROOT / "docs/site/search.js", out / "search.js")
    if (work / "files").is_dir():
        shutil.copytree(work / "files", out / "files")
    index = json.dumps(index_of(out), ensure_ascii=False, separators=(",", ":"))
    (out / "search-index.js").write_text(f"const searchIndex = {index};\n")


if __name__ == "__main__":
    try:
        main(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]))
    except pages.Complaint as complaint:
        sys.exit(f"site: {complaint}")
