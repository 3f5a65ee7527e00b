#!/usr/bin/env python3
"""follow.py PAGE: prints a shell script that does what a page of the guide says, step by step.

    ```sh       the commands run, all of a page in one shell
    ```console  lines after "$ " run, with those after "> " that continue them; lines after "(gdb) " are
                their input; every other line has to be printed. The numbers of ports and times may differ.
    others      become the file that the text before names, as in: Write `~/first/lookup.cpp`, or
                In `krb5.conf`, set; or are appended to it, as in: Add to `/etc/postfix/main.cf`

The script ends at the first line that fails and names the line of the page.
"""

import pathlib
import re
import shlex
import sys

FENCE = re.compile(r"^```(\w*)$")
FILE = re.compile(r"\b(?i:write) `([^`]+)`|\bIn `([^`]+)`, set\b")
APPENDED = re.compile(r"\bAdd to `([^`]+)`")
PROLOGUE = r"""set -eu
at=start
output=$(mktemp)
trap 'rc=$?; [ "$rc" = 0 ] || { cat "$output"; echo "$at: failed"; } >&2; rm -f "$output"' EXIT
printed() {
    grep -qE -- "^(\(gdb\) )*$1\$" "$output" || { echo "not printed: $1" >&2; exit 1; }
}
"""


class Fault(Exception):
    """Something on the page that cannot be followed."""


def blocks(text):
    """(line, language, file, lines) of each block; `file` is where the text before says to write, as
    a shell redirects output."""
    found, language, file = [], None, None
    for number, line in enumerate(text.splitlines(), 1):
        match = FENCE.match(line)
        if language is not None and line == "```":
            language = None
        elif language is not None:
            found[-1][3].append(line)
        elif match:
            language = match.group(1)
            found.append((number + 1, language, file, []))
            file = None
        elif FILE.search(line):
            file = ">" + next(filter(None, FILE.search(line).groups()))
        elif APPENDED.search(line):
            file = ">>" + APPENDED.search(line).group(1)
    return found


def console(lines):
    """The commands of a session, their input, and a check of what they print."""
    commands, typed, expected = [], {}, []
    for line in lines:
        if line.startswith("$ "):
            commands.append(line[2:])
        elif line.startswith("> ") and commands:
            commands[-1] += "\n" + line[2:]
        elif line.startswith("(gdb) ") and commands:
            typed.setdefault(len(commands), []).append(line[len("(gdb) ") :])
        else:
            expected.append(line)
    if not commands or not expected:
        raise Fault("a console needs a command and what it prints")
    script = ': >"$output"\n'
    for number, command in enumerate(commands, 1):
        after = "".join(f"{line}\n" for line in typed.get(number, []))
        script += (
            f'{{ {command}\n}} >>"$output" 2>&1 </dev/null\n'
            if not after
            else f"{{ {command}\n}} >>\"$output\" 2>&1 <<'INPUT'\n{after}INPUT\n"
        )
    script += 'cat "$output"\n'
    for line in expected:
        pattern = re.sub(r"([][\\.^$*+?(){}|])", r"\\\1", line)
        pattern = re.sub(r":\d{3,}", ":[0-9]+", pattern)
        pattern = re.sub(r" +\d+\\\.\d ms", " +[0-9]+\\.[0-9] ms", pattern)
        script += f"printed {shlex.quote(pattern)}\n"
    return script


def steps(page, text, skipped=()):
    """The script, without blocks in some languages."""
    script = PROLOGUE
    for number, language, file, lines in blocks(text):
        if language in skipped:
            continue
        script += f"at={shlex.quote(f'{page}:{number}')}\n"
        body = "".join(f"{line}\n" for line in lines)
        if language == "sh":
            script += body
        elif language == "console":
            try:
                script += console(lines)
            except Fault as fault:
                raise Fault(f"{number}: {fault}") from None
        elif file is None:
            raise Fault(f"{number}: the text before does not say which file to write")
        else:
            script += f"cat {file} <<'END OF FILE'\n{body}END OF FILE\n"
    return script


if __name__ == "__main__":
    try:
        path = pathlib.Path(sys.argv[1])
        print(steps(path.name, path.read_text(encoding="utf-8")), end="")
    except Fault as fault:
        sys.exit(f"{sys.argv[1]}:{fault}")
