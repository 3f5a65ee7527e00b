#!/usr/bin/python3
"""Checks that the site's pages say what the documents say: check_text.py SITE

Every piece of code and every word of each document has to be on its page: converters like to take a
percent sign for a command, and a number at the start of a line for a list.
"""

import html
import pathlib
import re
import sys

import pages


def plain(markup):
    return html.unescape(re.sub(r"<[^>]*>", "", markup))


def words(text):
    return " ".join(re.findall(r"\w+", text))


def one_line(text):
    return " ".join(text.split())


def missing(document, page):
    """What of a document is not on its page, in its own words."""
    lines = list(pages.lines(document))
    shown = page[page.index("<main") : page.index("</main>")]
    # Cells and items end a word; tags within one do not.
    said = words(plain(re.sub(r"</(td|th|p|li|h\d|div)>", " ", shown)))
    codes = {one_line(plain(code)) for code in re.findall(r"<code>(.*?)</code>", shown, re.S)}
    code_lines = {
        one_line(plain(line)) for line in re.findall(r'<div class="line">(.*?)</div>', shown, re.S)
    }

    text = [line for line, is_code in lines if not is_code and not line.startswith("#")]
    for code in re.findall(r"(?<!`)`([^`]+)`(?!`)", "\n".join(text)):
        if one_line(code.replace(r"\|", "|")) not in codes:
            yield f"`{code}`"
    for line, is_code in lines:
        if (
            is_code
            and not pages.FENCE.match(line.lstrip())
            and one_line(line) not in code_lines | {""}
        ):
            yield line
    for line in text:
        line = re.sub(r"^ *(1|[2-9]|[1-9]\d)\. |!\[.*?\]\(.*?\)|<!--.*?-->", "", line)
        for part in re.split(r"(?<!\\)\|", pages.LINK.sub(r"\2", line)):
            if words(re.sub(r"[`*]", "", part)) not in said:
                yield part


def main(site):
    faults = []
    for path in [pages.INDEX, *pages.guide(), *pages.about()]:
        page = (site / f"{pages.name(path)}.html").read_text()
        faults += [
            f"{path}: not on its page: {each.strip()}"
            for each in missing((pages.ROOT / path).read_text(), page)
        ]
    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
