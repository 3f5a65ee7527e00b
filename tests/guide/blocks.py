#!/usr/bin/env python3
"""blocks.py PAGE FOLDER: writes the C++ of a Markdown page into FOLDER, as files to compile.

Each block of ```cpp becomes a file PAGE-N.cpp; their paths are printed, separated by semicolons. Unless
the block is a whole program, with a main(), these lines come first:

    #include <solvane/ldap.h>
    using namespace Solvane;

A comment on the line before a block changes how it is compiled:

    <!-- compile: function (LDAPConnection& connection) -->  its statements are the body of a function
                                                             with these parameters
    <!-- compile: continued -->                              it uses names of the block before it, and
                                                             goes into the same file
    <!-- compile: no, REASON -->                             it is not compiled

Compilers report the page and its line. Files that have not changed keep their time.
"""

import pathlib
import re
import sys

FENCE = re.compile(r"^( *)(```+)(.*)$")
MODE = re.compile(r"^ *<!-- compile: (?:(function) \((.*)\)|(continued)|(no), +\S.*) -->$")
OTHER_NAMES = ("c++", "cc", "cxx", "c")
PRELUDE = "#include <solvane/ldap.h>\nusing namespace Solvane;\n"


class Fault(Exception):
    """Something on the page that is to be corrected."""


class Block:
    """The lines of one block, and the comment before it: `mode` is None without one."""

    def __init__(self, number, mode):
        self.number = number  # of its first line on the page, from 1
        self.mode = mode
        self.lines = []

    def text(self, page):
        """The block as a part of a source file."""
        if self.mode is None or self.mode.group(1) is None:
            return self._part(page, 0, len(self.lines))
        begin = 0
        while begin < len(self.lines) and re.match(r"#include|$", self.lines[begin]):
            begin += 1
        return (
            self._part(page, 0, begin)
            + f"void block({self.mode.group(2)})\n{{\n"
            + self._part(page, begin, len(self.lines))
            + "}\n"
        )

    def _part(self, page, begin, end):
        lines = "".join(line + "\n" for line in self.lines[begin:end])
        return f'#line {self.number + begin} "{page}"\n{lines}' if lines else ""


def blocks(text):
    """Every C++ block of a page."""
    found, fence, block, mode = [], None, None, None
    for number, line in enumerate(text.splitlines(), 1):
        match = FENCE.match(line)
        if fence is not None:
            if line.strip() == fence.group(2):
                fence, block = None, None
            elif block is not None:
                block.lines.append(line[len(fence.group(1)) :] if line.strip() else "")
        elif match:
            fence = match
            language = match.group(3).strip()
            if language.lower() in OTHER_NAMES:
                raise Fault(f"{number}: write ```cpp, so that the block is compiled")
            if language == "cpp":
                block, mode = Block(number + 1, mode), None
                found.append(block)
        if mode is not None:
            raise Fault(f"{number}: the comment before does not stand before a block of ```cpp")
        if fence is None and line.lstrip().startswith("<!-- compile"):
            mode = MODE.match(line)
            if mode is None:
                raise Fault(
                    f"{number}: expected 'function (PARAMETERS)', 'continued' or 'no, REASON'"
                )
    if fence is not None or mode is not None:
        raise Fault("the last block is not complete")
    return found


def sources(page, text):
    """The texts of the files to compile."""
    files = []
    for block in blocks(text):
        mode = block.mode.group(3) or block.mode.group(4) if block.mode else None
        if mode == "no":
            continue
        if mode == "continued":
            if not files:
                raise Fault(f"{block.number}: there is no block to continue")
            files[-1] += block.text(page)
        else:
            is_program = any(re.match(r"int main\(", line) for line in block.lines)
            files.append(("" if is_program else PRELUDE) + block.text(page))
    return files


def main(page, folder):
    try:
        texts = sources(page.as_posix(), page.read_text(encoding="utf-8"))
    except Fault as fault:
        sys.exit(f"{page}:{fault}")
    paths = []
    for number, text in enumerate(texts, 1):
        path = folder / f"{page.stem}-{number}.cpp"
        if not path.exists() or path.read_text(encoding="utf-8") != text:
            path.write_text(text, encoding="utf-8")
        paths.append(path.as_posix())
    print(";".join(paths), end="")


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]))
