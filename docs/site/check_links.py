#!/usr/bin/python3
"""Checks that every link within the site leads somewhere: check_links.py SITE

Files and anchors. Addresses outside are not asked for; nothing may be loaded from there.
"""

import html.parser
import pathlib
import sys
import urllib.parse


class Links(html.parser.HTMLParser):
    """What a page links to, what it loads, and its anchors."""

    def __init__(self):
        super().__init__()
        self.links = []
        self.loads = []
        self.anchors = []

    def handle_starttag(self, tag, attributes):
        values = dict(attributes)
        if values.get("id"):
            self.anchors.append(values["id"])
        if tag == "a" and "href" in values:
            self.links.append(values["href"])
        elif tag == "link" and "href" in values:
            self.loads.append(values["href"])
        for name in ("src", "data"):
            if tag in ("img", "script", "object", "iframe", "source") and name in values:
                self.loads.append(values[name])


def read(path):
    page = Links()
    page.feed(path.read_text())
    return page


def faults_of(name, page, site, files):
    """Everything wrong with a page, in words."""
    for anchor in sorted({each for each in page.anchors if page.anchors.count(each) > 1}):
        yield f"{name}: two places are called #{anchor}"
    for address in page.loads + page.links:
        target = urllib.parse.urlsplit(address)
        if target.scheme or target.netloc:
            if address in page.loads:
                yield f"{name}: loads {address}"
            continue
        file = urllib.parse.unquote(target.path) or name
        if file not in files:
            yield f"{name}: {address}: no such file"
        elif target.fragment and file in site:
            if urllib.parse.unquote(target.fragment) not in site[file].anchors:
                yield f"{name}: {address}: no such place"


def main(folder):
    files = {str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file()}
    site = {name: read(folder / name) for name in sorted(files) if name.endswith(".html")}
    faults = [fault for name, page in site.items() for fault in faults_of(name, page, site, files)]
    for fault in faults:
        print(fault, file=sys.stderr)
    count = sum(len(page.links) for page in site.values())
    print(f"{len(site)} pages, {count} links, {len(faults)} of them dead")
    return 1 if faults or not count else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
