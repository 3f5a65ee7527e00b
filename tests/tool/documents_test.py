"""Help, manual page and completion have the same options."""

import os
import re
import shutil
import subprocess
import unittest

from support import DEADLINE, TESTBED, run

SOURCE = os.path.dirname(TESTBED)
COMMANDS = ["expand", "lookup", "verify", "add", "check"]
OPTION = re.compile(r"^  ((?:-\w|--[\w-]+)(?:,--?[\w-]+)*)", re.MULTILINE)
EVERYWHERE = {"-V", "--version"}  # taken behind a command too, but of no use there


def help_of(*command):
    """The options of a command as its help lists them."""
    return {
        option
        for names in OPTION.findall(run(*command, "--help").output)
        for option in names.split(",")
    }


def completed(*words):
    """What completion offers for the last word."""
    script = (
        'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _solvane_ldap; '
        'printf "%s\\n" "${COMPREPLY[@]}"'
    )
    done = subprocess.run(
        [
            "bash",
            "-c",
            script,
            os.path.join(SOURCE, "completions/solvane-ldap"),
            "solvane-ldap",
            *words,
        ],
        capture_output=True,
        timeout=DEADLINE,
        check=True,
    )
    return set(done.stdout.decode().split())


def in_the_manual():
    """Every option that has an entry of its own in solvane-ldap(1)."""
    with open(os.path.join(SOURCE, "docs/man/solvane-ldap.1"), encoding="utf-8") as page:
        heads = [line for line in page if line.startswith(".It Fl ")]
    options = set()
    for head in heads:
        # Behind "Fl", names are separated by commas; others repeat the request.
        for part in re.split(r" , ", head[len(".It ") :].strip()):
            words = part.split()
            options.add("-" + (words[1] if words[0] == "Fl" else words[0]))
    return options


class Documents(unittest.TestCase):
    def test_manual_has_an_entry_for_each_option(self):
        offered = help_of().union(*(help_of(command) for command in COMMANDS))

        self.assertEqual(in_the_manual(), offered)

    @unittest.skipUnless(shutil.which("bash"), "bash is not installed")
    def test_completion_offers_the_options_of_each_command(self):
        common = help_of() | {"--stats=json"}
        self.assertEqual(completed("-"), common)
        for command in COMMANDS:
            with self.subTest(command=command):
                self.assertEqual(completed(command, "-"), (common - EVERYWHERE) | help_of(command))

    @unittest.skipUnless(shutil.which("bash"), "bash is not installed")
    def test_completion_offers_the_commands(self):
        self.assertLessEqual(set(COMMANDS), completed(""))

    @unittest.skipUnless(shutil.which("bash"), "bash is not installed")
    def test_completion_offers_no_option_for_a_value(self):
        """An option with a value is completed with a value, or with nothing."""
        for command in COMMANDS:
            text = run("--help").output + run(command, "--help").output
            for names, shape in re.findall(OPTION.pattern + r" ([A-Z|]\S*)", text, re.MULTILINE):
                if shape == "Excludes:":
                    continue
                for option in names.split(","):
                    with self.subTest(command=command, option=option):
                        offered = completed(command, option, "-")

                        self.assertFalse(offered & {"-H", "--help"}, offered)


if __name__ == "__main__":
    unittest.main()
