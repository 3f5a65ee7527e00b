"""Which documents of the repository are pages of the site, and what their addresses are."""

import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]

INDEX = "docs/guide/index.md"
# What stands beside the guide, in the order of the menu.
ABOUT = [
    "README.md",
    "docs/performance.md",
    "docs/reliability.md",
    "docs/abi.md",
    "examples/README.md",
    "runtime/README.md",
    "CONTRIBUTING.md",
    "CHANGELOG.md",
]
# The site's own: the list of classes.
REFERENCE = "docs/site/reference.md"
NAMES = {
    "README.md": "index",
    INDEX: "guide",
    "examples/README.md": "programs",
    "runtime/README.md": "runtime",
    "CONTRIBUTING.md": "contributing",
    "CHANGELOG.md": "changelog",
}

# In code, Doxygen takes a percent sign before a word away, an apostrophe for the end, and a bar with its
# backslash, as tables need it, for two characters: these go through it as what no text has.
HIDDEN = {"%": "\ue000", "'": "\ue001", "\\|": "\ue002"}
SHOWN = {"\ue000": "%", "\ue001": "&#39;", "\ue002": "|"}

LINK = re.compile(r"(!?)\[((?:[^\[\]]|\[[^\]]*\])*)\]\(([^()\s]+)\)")
FENCE = re.compile(r"^(```+|~~~+)(.*)$")
HEADING = re.compile(r"^(#{1,6}) +(.*?)\s*#*$")


class Complaint(Exception):
    """Something in the documents that is to be mended; the text names file and place."""


def guide():
    """The guide's pages but its index, in the order of the index's table."""
    named = [
        f"docs/guide/{target}"
        for target in re.findall(
            r"^\| \[[^\]]*\]\(([a-z-]+\.md)\)", (ROOT / INDEX).read_text(), re.M
        )
    ]
    named = list(dict.fromkeys(named))
    missing = sorted(
        {str(path.relative_to(ROOT)) for path in (ROOT / "docs/guide").glob("*.md")}
        - {INDEX}
        - set(named)
    )
    if missing:
        raise Complaint(f"{INDEX}: does not name {', '.join(missing)}")
    return named


def about():
    """The pages beside the guide. Of those under docs/, none may be forgotten."""
    missing = sorted(
        {str(path.relative_to(ROOT)) for path in (ROOT / "docs").glob("*.md")} - set(ABOUT)
    )
    if missing:
        raise Complaint(f"docs/site/pages.py: ABOUT lacks {', '.join(missing)}")
    return [page for page in ABOUT if (ROOT / page).exists()]


def examples():
    """Programs: shown as pages, since others link to them."""
    return sorted(str(path.relative_to(ROOT)) for path in (ROOT / "examples").rglob("*.cpp"))


def manuals():
    """Manual pages: shown as mandoc shows them."""
    return sorted(str(path.relative_to(ROOT)) for path in (ROOT / "docs/man").glob("*.[1-8]"))


def name(page):
    """Page's file in the site without its extension, and the prefix of its anchors."""
    if page in NAMES:
        return NAMES[page]
    path = pathlib.PurePosixPath(page)
    if path.suffix[1:].isdigit():
        return f"man-{path.name}".replace(".", "-")
    return f"example-{path.stem}".replace("_", "-") if path.suffix == ".cpp" else path.stem


def plain(heading):
    """A heading's text without markup."""
    return LINK.sub(r"\2", heading).replace("`", "").replace("**", "")


def slug(heading):
    """The anchor that a forge gives to a heading."""
    kept = re.sub(r"[^\w\- ]", "", plain(heading).lower())
    return kept.replace(" ", "-")


def lines(text):
    """Each line with whether it is code, for which nothing of Markdown counts."""
    fence = None
    for line in text.splitlines():
        match = FENCE.match(line.lstrip())
        if fence is None and match:
            fence = match.group(1)
            yield line, True
        elif fence is not None:
            yield line, True
            if line.strip() == fence:
                fence = None
        else:
            yield line, False


def headings(text):
    """(level, text, anchor) of each heading; of equal ones, the later have a number behind."""
    seen = {}
    for line, is_code in lines(text):
        match = None if is_code else HEADING.match(line)
        if match:
            anchor = slug(match.group(2))
            count = seen.get(anchor, 0)
            seen[anchor] = count + 1
            yield len(match.group(1)), match.group(2), f"{anchor}-{count}" if count else anchor


def title(page):
    """The page's first heading; of a manual, its name and section."""
    if page in manuals():
        path = pathlib.PurePosixPath(page)
        return f"{path.stem}({path.suffix[1:]})"
    for _, text, _ in headings((ROOT / page).read_text()):
        return plain(text)
    raise Complaint(f"{page}: has no heading")
