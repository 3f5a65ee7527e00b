#!/usr/bin/python3
"""Has gdb stop in a tiny program and print its objects: printers_test.py [UNITTEST-OPTION...]

SOLVANE_GDB_PROGRAM is the program. Skipped where there is no gdb, or none with Python.
"""

import os
import pathlib
import shutil
import subprocess
import unittest

PRINTERS = pathlib.Path(__file__).resolve().parents[1] / "solvane.py"
NAMES = (
    "bytes",
    "type",
    "mail",
    "noAttribute",
    "entry",
    "server",
    "connection",
    "idle",
    "noConnection",
    "search",
    "noResult",
    "result",
    "refused",
)


def gdb(*commands):
    """What gdb says to commands where the program has stopped."""
    arguments = [part for command in commands for part in ("-ex", command)]
    run = subprocess.run(
        [
            "gdb",
            "-nx",
            "-batch",
            "-iex",
            "set auto-load off",
            "-iex",
            "set debuginfod enabled off",
            "-ex",
            f"source {PRINTERS}",
            "-ex",
            "set width 0",
            "-ex",
            "set print address off",
            "-ex",
            "set startup-with-shell off",
            "-ex",
            "set disable-randomization off",
            "-ex",
            "break stopHere",
            "-ex",
            "run",
            "-ex",
            "up",
            *arguments,
            "-ex",
            "kill",
            os.environ["SOLVANE_GDB_PROGRAM"],
        ],
        capture_output=True,
        text=True,
        timeout=120,
        env={**os.environ, "LDAPNOINIT": "1"},
        check=False,
    )
    return run.stdout + run.stderr


def works():
    """Whether gdb is there, has Python, and may trace a program here."""
    return shutil.which("gdb") and "stopHere" in gdb("bt")


@unittest.skipUnless(works(), "no gdb that can run a program here")
class Printers(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        said = gdb(
            *(f"print {name}" for name in NAMES), "print *connection.m_impl.m_counted->m_body"
        )
        cls.said = said
        lines = [line.partition(" = ")[2] for line in said.splitlines() if line.startswith("$")]
        cls.printed = dict(zip((*NAMES, "body"), lines))

    def test_a_buffer_shows_its_bytes(self):
        self.assertEqual(self.printed["bytes"], r'4 bytes "a\x00b\x0a"')

    def test_a_description_shows_type_and_options(self):
        self.assertEqual(self.printed["type"], '"userCertificate;binary;x-first"')

    def test_an_attribute_shows_its_values(self):
        self.assertEqual(
            self.printed["mail"],
            r'attribute "mail" = {14 bytes "anna@corp.test", 15 bytes "j\xc3\xbcrg@corp.test"}',
        )

    def test_a_null_handle_says_so(self):
        self.assertEqual(self.printed["noAttribute"], "null handle")
        self.assertEqual(self.printed["noConnection"], "null handle")
        self.assertEqual(self.printed["noResult"], "null handle: nothing has been answered")

    def test_an_entry_shows_its_name_and_attributes(self):
        self.assertTrue(
            self.printed["entry"].startswith(
                'entry "uid=anna,dc=corp,dc=test" = {attribute "mail" = {14 bytes "anna@corp.test"'
            ),
            self.said,
        )

    def test_a_server_shows_its_uri(self):
        self.assertEqual(self.printed["server"], "server ldap://[127.0.0.1]:1/")

    def test_a_connection_shows_what_becomes_of_it(self):
        self.assertEqual(
            self.printed["connection"],
            'connection to ldap://[127.0.0.1]:1/ as "cn=reader,dc=corp,dc=test", '
            "in use, error -1, 3 handles",
        )

    def test_a_connection_that_nobody_uses_is_not_in_use(self):
        self.assertEqual(self.printed["idle"], "connection to ldap://[127.0.0.1]:1/, 1 handle")

    def test_a_search_shows_its_body_and_connection(self):
        self.assertTrue(
            self.printed["search"].startswith("LDAPSearchImpl with message id 0, 1 handle = "),
            self.said,
        )
        self.assertIn("connection = connection to ldap://[127.0.0.1]:1/", self.printed["search"])

    def test_a_result_shows_kind_and_code(self):
        self.assertEqual(self.printed["result"], "result: nothing yet, code 0, 1 handle")

    def test_an_exception_shows_place_and_cause(self):
        self.assertEqual(
            self.printed["refused"],
            "LDAPException code 4, type 0 at Connection.cpp:602, with a cause = {cause = LDAPException "
            "code 4, type 3 at Connection.cpp:297: \"Error: 'Invalid credentials'\"}",
        )

    def test_what_cannot_be_read_is_left_to_gdb(self):
        said = gdb("print *(Solvane::LDAPConnection*) 16")
        self.assertIn("Cannot access memory at address 0x1", said)
        self.assertNotIn("Python Exception", said)

    def test_a_password_is_not_shown(self):
        self.assertIn("m_bindPassword = <set>", self.printed["body"])
        self.assertNotIn("hidden-word", self.said)


if __name__ == "__main__":
    unittest.main()
