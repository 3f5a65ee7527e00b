"""The command line itself: help, version, the same options in the documents, and what is wrong with
it."""

import os
import re
import shutil
import subprocess
import unittest

from support import DEADLINE, TESTBED, TOOL, ToolTest, run

LOOKUP = ["lookup", "-H", "ldap://127.0.0.1:1", "-b", "dc=x", "-t", "(mail=$m)"]


class CommandLine(ToolTest):
    def test_prints_help_on_standard_output(self):
        for arguments in (["--help"], ["-h"], ["expand", "--help"], ["lookup", "--help"]):
            with self.subTest(arguments=arguments):
                result = run(*arguments)

                self.assertEqual((result.status, result.errors), (0, ""))
                self.assertIn("Usage: solvane-ldap", result.output)

    def test_prints_the_versions_of_the_tool_and_of_open_ldap(self):
        for option in ("-V", "--version"):
            result = run(option)

            self.assertEqual((result.status, result.errors), (0, ""))
            self.assertRegex(
                result.output,
                r"^solvane-ldap \d+\.\d+\.\d+\n"
                r"OpenLDAP \d+\.\d+\.\d+ compiled against, \d+\.\d+\.\d+ running\n$",
            )

    def test_answers_whoever_asks_for_help_or_version_behind_a_command(self):
        self.assertRegex(run("lookup", "-V").output, "^solvane-ldap ")
        for command in COMMANDS:
            self.assertIn("'solvane-ldap --help'", run(command, "-h").output)

    def test_refuses_what_it_does_not_know(self):
        for arguments, word in (
            ([], "subcommand"),
            (["lokup"], "'lokup'"),
            (["--nope"], "--nope"),
            (["expand", "-i"], "-i"),
            (["lookup", "--nope=1"], "--nope"),
            (["-b", "dc=x", "lookup"], "-b"),
            (["-j", "2", "expand"], "-j"),
        ):
            with self.subTest(arguments=arguments):
                result = run(*arguments)

                self.assert_fails(result, 64, word, "--help'")
                self.assertEqual(result.output, "")

    def test_refuses_an_incomplete_lookup(self):
        for arguments, word in (
            (["lookup", "-b", "x", "-t", "x", "a"], "-H URI"),
            (["lookup", "-H", "ldap://h", "-t", "x", "a"], "-b BASE"),
            (["lookup", "-H", "ldap://h", "-b", "x", "a"], "-t TEMPLATE"),
            (LOOKUP, "no address"),
            ([*LOOKUP, "a", "-f", "-"], "-f"),
            ([*LOOKUP, "-T", "file", "a"], "--template"),
            ([*LOOKUP, "-v", "-q", "a"], "--quiet"),
        ):
            with self.subTest(arguments=arguments):
                self.assert_fails(run(*arguments), 64, word)

    def test_takes_the_common_options_before_and_behind_the_command(self):
        expanding = ["expand", "-t", "($u)", "a"]
        for option in (
            ["-H", "ldap://h"],
            ["--uri", "ldaps://[::1]:636"],
            ["-D", "cn=x"],
            ["-W"],
            ["-y", "none"],
            ["--password-fd", "9"],
            ["-P", "2"],
            ["-P", "3"],
            ["-o", "nettimeout=2147483"],
            ["--deadline", "1"],
            ["--tls-ca", "none"],
            ["--tls-ca-dir", "none"],
            ["--tls-crl", "none"],
            ["--tls-cert", "none"],
            ["--tls-key", "none"],
            ["--tls-ciphers", "NORMAL"],
            ["--tls-min", "1.2"],
            ["--tls-min", "1.3"],
            ["-Z"],
            ["-ZZ"],
            ["--start-tls"],
            ["-x"],
            ["-Y", "external"],
            ["--sasl-mechanism", "GSSAPI"],
            ["-X", "u:anna"],
            ["-H", "ldapi://%2Frun%2Fldapi"],
            ["-H", "ldapi:///"],
            ["--tls-verify", "none"],
            ["--tls-verify", "chain"],
            ["--tls-verify", "full"],
            ["-H", "ldap+srv:///dc=corp,dc=test"],
            ["--name-servers", "192.0.2.1,[2001:db8::1]:53"],
            ["--refused-hold", "0"],
            ["--entry-bytes", "1024"],
            ["-v"],
            ["-d", "0"],
            ["--stats"],
            ["--stats=json"],
            ["--format", "values"],
            ["--format=tsv"],
        ):
            with self.subTest(option=option):
                for arguments in ([*option, *expanding], [*expanding, *option]):
                    result = run(*arguments)

                    self.assertEqual((result.status, result.lines), (0, ["(a)"]), result.errors)

    def test_ends_keys_and_records_with_nul(self):
        for arguments in (["-0", "expand"], ["expand", "-0"], ["expand", "--null"]):
            with self.subTest(arguments=arguments):
                result = run(*arguments, "-t", "($u)", "-f", "-", stdin=b"a\0b\0c")

                self.assertEqual(
                    (result.status, result.bytes), (0, b"(a)\0(b)\0(c)\0"), result.errors
                )

    def test_takes_every_option_of_a_lookup(self):
        with_file = self.file("domains", b"other.test\n")
        for option in (
            ["-s", "base"],
            ["-s", "one"],
            ["-s", "sub"],
            ["-a", "never"],
            ["-a", "search"],
            ["-a", "find"],
            ["-a", "always"],
            ["--attrs", "cn,mail;x"],
            ["--attrs", "*, +"],
            ["-z", "0"],
            ["-z", "2147483647"],
            ["-l", "0"],
            ["-j", "1"],
            ["-j", "1024"],
            ["--window", "65536"],
            ["--single"],
            ["-c"],
            ["--domains", "other.test, more.test"],
            ["--domains", "@" + with_file],
            ["--forms", "full,noext,bare,domain"],
            ["--delimiter", "-"],
            ["--delimiter", ""],
            ["--references", "defer"],
            ["--ascii-domains", "no"],
            ["--key-bytes", "8"],
            ["--answer-bytes", "1024"],
            ["--b-value", ""],
            ["--g-value", "x"],
            ["--nouser", "67"],
        ):
            with self.subTest(option=option):
                # The domain is not served: no server is asked.
                domains = [] if "--domains" in option else ["--domains", "other.test"]
                result = run(*LOOKUP, "a@x.test", *domains, *option)

                self.assertEqual(result.status, 67 if "--nouser" in option else 1, result.errors)

    def test_takes_values_of_the_template_under_their_short_names(self):
        for arguments in (["--b", "1", "--g=2"], ["--b=1", "--g", "2"], ["--g", "2", "--b", "1"]):
            with self.subTest(arguments=arguments):
                result = run("expand", *arguments, "-t", "($b)($g)", "a")

                self.assertEqual((result.status, result.lines), (0, ["(1)(2)"]), result.errors)

    def test_leaves_what_only_looks_like_a_short_name_as_it_is(self):
        for arguments, filters in (
            (["-t", "($b)", "--b", "--b", "a"], ["(--b)"]),
            (["-t", "($b)", "--b=--g=1", "a"], ["(--g=1)"]),
            (["-vt", "--b", "a"], ["--b"]),
            (["-t($u)", "--", "--b", "--g=1"], ["(--b)", "(--g=1)"]),
        ):
            with self.subTest(arguments=arguments):
                result = run("expand", *arguments)

                self.assertEqual((result.status, result.lines), (0, filters), result.errors)

    def test_refuses_values_out_of_their_range(self):
        for arguments, word in (
            (["-s", "all"], "base"),
            (["-a", "maybe"], "never"),
            (["-P", "4"], "3"),
            (["--format", "xml"], "json"),
            (["-o", "nettimeout=0"], "from 1"),
            (["-o", "nettimeout=x"], "from 1"),
            (["-o", "nettimeout=-1"], "from 1"),
            (["-o", "nettimeout=9999999999"], "from 1"),
            (["-o", "tls=no"], "nettimeout="),
            (["--attrs", "a b("], "commas"),
            (["--attrs", ","], "commas"),
            (["--deadline", "0"], "from 1"),
            (["--deadline", "1.5"], "from 1"),
            (["--tls-verify", "yes"], "chain"),
            (["-d", "x"], "from 0"),
            (["-d", "65536"], "from 0"),
            (["--stats=xml"], "xml"),
            (["-z", "-1"], "from 0"),
            (["-z", "2147483648"], "from 0"),
            (["-l", ""], "from 0"),
            (["-j", "0"], "from 1"),
            (["--window", "0"], "from 1"),
            (["--domains", ""], "no domain given"),
            (["--domains", "a@b"], "invalid domain"),
            (["--forms", "half"], "noext"),
            (["--forms", ""], "no address form"),
            (["--delimiter", "ab"], "one ASCII"),
            (["--delimiter", "@"], "one ASCII"),
            (["--references", "follow"], "ignore"),
            (["--ascii-domains", "maybe"], "yes or no"),
            (["--key-bytes", "0"], "from 1"),
            (["--answer-bytes", "1"], "from 1024"),
            (["--entry-bytes", "x"], "from 1024"),
            (["--refused-hold", "-1"], "from 0"),
            (["--name-servers", "ns.test"], "192.0.2.1"),
            (["--nouser", "0"], "from 1"),
            (["--nouser", "126"], "from 1"),
            (["-z", "1", "-z", "2"], "--size-limit"),
            (["-C"], "--config"),
        ):
            with self.subTest(arguments=arguments):
                self.assert_fails(run(*LOOKUP, "a", *arguments), 64, word)

    def test_reports_a_file_of_domains_that_cannot_be_read(self):
        self.assert_fails(
            run(*LOOKUP, "a", "--domains", "@" + self.folder + "/none"), 78, "No such file"
        )

    def test_refuses_a_uri_that_is_no_server(self):
        for uri, word in (
            ("http://h", "ldap://host"),
            ("h", "LDAP URI"),
            ("ldap://", "no host"),
            ("ldap:///", "no host"),
            ("ldap://h:0", "port"),
            ("ldap://h:65536", "port"),
            ("ldap://h:4294967685", "port"),
            ("ldap://h:+389", "port"),
            ("ldap://h:", "port"),
            ("ldap://::1:389", "ldap://[::1]:389"),
            ("ldap://[fe80::1%25eth0]", "zone"),
            ("ldap://h/dc=x", "-b"),
            ("ldap://h/?cn", "--attrs"),
            ("ldap://h??sub?(cn=x)", "-t"),
        ):
            for uris in (["-H", uri], ["-H", "ldap://h", "-H", uri]):
                with self.subTest(uris=uris):
                    result = run("lookup", *uris, "-b", "dc=x", "-t", "$m", "a")

                    self.assert_fails(result, 64, "-H: ", word)

    def test_shows_no_password_that_was_given_as_an_argument(self):
        for arguments in (
            ["-w", "hunter2"],
            ["-whunter2"],
            ["--password=hunter2"],
            ["--password-fd", "hunter2", "-D", "cn=x"],
            ["-H", "ldap://cn=x:hunter2@h"],
        ):
            with self.subTest(arguments=arguments):
                result = run(
                    "lookup",
                    "-b",
                    "dc=x",
                    "-t",
                    "$m",
                    "a",
                    *([] if "-H" in arguments else ["-H", "ldap://127.0.0.1:1"]),
                    *arguments,
                )

                self.assert_fails(result, 64)
                self.assertNotIn("hunter2", result.output + result.errors)

    def test_pairs_the_bind_dn_with_a_source_of_the_password(self):
        password = self.file("password", b"x\n")
        for arguments, word in (
            (["-D", "cn=x"], "-W, -y FILE"),
            (["-W"], "-D DN"),
            (["-y", password], "-D DN"),
            (["--password-fd", "0"], "-D DN"),
            (["-D", "", "-y", password], "anonymously"),
            (["-D", "cn=\xff"], "UTF-8"),
            (["-D", "cn=x", "-W", "-y", password], "--password-file"),
            (["-D", "cn=x", "-y", password, "--password-fd", "0"], "--password-fd"),
        ):
            with self.subTest(arguments=arguments):
                arguments = [argument.encode("latin-1") for argument in arguments]
                self.assert_fails(run(*LOOKUP, "a", *arguments), 64, word)

    def test_refuses_two_readers_of_standard_input(self):
        result = run(*LOOKUP, "-f", "-", "-D", "cn=x", "--password-fd", "0", stdin=b"secret\n")

        self.assert_fails(result, 64, "both read from standard input")


class StandardOutput(ToolTest):
    def test_reports_a_full_device(self):
        with open("/dev/full", "wb") as full:
            result = subprocess.run(
                [TOOL, "expand", "-t", "$m", "a"],
                stdout=full,
                stderr=subprocess.PIPE,
                timeout=DEADLINE,
                check=False,
            )

        self.assertEqual(result.returncode, 74)
        self.assertIn(b"No space left on device", result.stderr)

    def test_reports_a_full_device_for_help_too(self):
        with open("/dev/full", "wb") as full:
            result = subprocess.run(
                [TOOL, "--help"], stdout=full, stderr=subprocess.PIPE, timeout=DEADLINE, check=False
            )

        self.assertEqual(result.returncode, 74)

    def test_reports_a_closed_stream(self):
        result = subprocess.run(
            ["sh", "-c", 'exec "$0" expand -t x a >&-', TOOL],
            stderr=subprocess.PIPE,
            timeout=DEADLINE,
            check=False,
        )

        self.assertEqual(result.returncode, 74)
        self.assertIn(b"Bad file descriptor", result.stderr)

    def test_ends_quietly_when_the_reader_goes(self):
        reading, writing = os.pipe()
        os.close(reading)
        try:
            result = subprocess.run(
                [TOOL, "expand", "-t", "$m", "a", "b"],
                stdout=writing,
                stderr=subprocess.PIPE,
                timeout=DEADLINE,
                check=False,
            )
        finally:
            os.close(writing)

        self.assertEqual((result.returncode, result.stderr), (74, b""))


SOURCE = os.path.dirname(TESTBED)
COMMANDS = [
    "expand",
    "lookup",
    "search",
    "verify",
    "add",
    "apply",
    "compare",
    "passwd",
    "whoami",
    "check",
    "import",
    "status",
]
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
