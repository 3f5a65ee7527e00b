"""Passwords of users: outcomes, sources, records."""

import json
import os
import unittest

from servers import ScriptedDirectory, giving
from support import PEOPLE, READER, READER_PASSWORD, DirectoryTest, bound, free_port, run
from terminal import Terminal

KEY = "user0000001@corp.test"
DN = f"uid=user0000001,{PEOPLE}"
PASSWORD = "pw-user0000001"


class Verify(DirectoryTest):
    slapd_options = ["--users", "20"]

    def arguments(self, *arguments, key=KEY, uri=None, template="(mail=$m)"):
        return ["verify", "-H", uri or self.uri, "-b", PEOPLE, "-t", template, *arguments, key]

    def verify(self, password, *arguments, **options):
        """Runs it with the password in a file; sees to it that it is in no output."""
        text = password.encode()
        result = run(
            *self.arguments(
                *["--user-password-file", self.file("user", text), *arguments], **options
            )
        )
        if password:
            self.assertNotIn(password, result.output + result.errors)
        return result

    def test_accepts_the_right_password(self):
        result = self.verify(PASSWORD)

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertEqual(result.lines, [f"# {KEY}: accepted", f"dn: {DN}", ""])

    def test_denies_a_wrong_password(self):
        result = self.verify("wrong-password")

        self.assertEqual((result.status, result.errors), (1, ""))
        self.assertTrue(result.lines[0].startswith(f"# {KEY}: denied"), result.output)
        self.assertEqual(result.lines[1], f"dn: {DN}")

    def test_finds_nobody_without_an_entry(self):
        result = self.verify(PASSWORD, key="nobody@corp.test")

        self.assertEqual((result.status, result.errors), (1, ""))
        self.assertEqual(result.lines, ["# nobody@corp.test: not found", ""])

    def test_skips_addresses_of_other_domains(self):
        result = self.verify(PASSWORD, "--domains", "other.test")

        self.assertEqual(result.status, 1)
        self.assertTrue(result.lines[0].startswith(f"# {KEY}: skipped"), result.output)

    def test_writes_records_for_programs(self):
        accepted = json.loads(self.verify(PASSWORD, "--format", "json").output)
        denied = json.loads(self.verify("wrong-password", "--format", "json").output)
        missing = json.loads(
            self.verify(PASSWORD, "--format", "json", key="nobody@corp.test").output
        )

        self.assertEqual(
            (accepted["key"], accepted["status"], accepted["reason"], accepted["dn"]),
            (KEY, "accepted", None, DN),
        )
        self.assertEqual((accepted["server"], accepted["code"]), (self.uri, 0))
        self.assertGreaterEqual(accepted["ms"], 0)
        self.assertEqual((denied["status"], denied["reason"]), ("denied", "password"))
        self.assertEqual((missing["status"], missing["dn"]), ("notfound", None))

    def test_is_no_answer_where_the_server_is_down(self):
        result = self.verify(PASSWORD, uri=f"ldap://127.0.0.1:{free_port()}")

        self.assert_fails(result, 75, f"{KEY}: ", "check that the server is running")
        self.assertTrue(result.output.startswith(f"# {KEY}: error 75: "), result.output)

    def test_is_no_answer_where_several_entries_match(self):
        self.assert_fails(self.verify(PASSWORD, template="(objectClass=person)"), 78)

    def test_tells_the_two_passwords_apart(self):
        bind = ["-D", READER, "-y", self.file("bind", READER_PASSWORD.encode())]
        wrong = ["-D", READER, "-y", self.file("wrong", b"not-the-word")]

        self.assertEqual(self.verify(PASSWORD, *bind).status, 0)
        self.assertEqual(self.verify("wrong-password", *bind).status, 1)
        self.assert_fails(self.verify(PASSWORD, *wrong), 77, "check -D and the password")

    def test_is_never_sent_an_empty_password(self):
        directory = ScriptedDirectory(self, giving(bound()))

        result = self.verify("", uri=directory.uri)

        self.assert_fails(result, 65, "is empty", "never sent")
        self.assertEqual(directory.connections, [])

    def test_takes_the_password_from_a_descriptor(self):
        reading, writing = os.pipe()
        os.write(writing, PASSWORD.encode() + b"\n")
        os.close(writing)
        try:
            result = run(*self.arguments("--user-password-fd", str(reading)), pass_fds=[reading])
        finally:
            os.close(reading)

        self.assertEqual(result.status, 0, result.errors)

    def test_asks_at_the_terminal_without_echo(self):
        terminal = Terminal(self.addCleanup, *self.arguments())
        terminal.read_until(f"Password for {KEY}: ".encode())

        was_echoing = terminal.echoes()
        terminal.type(PASSWORD.encode() + b"\n")
        status = terminal.read_to_end()

        self.assertEqual(status, 0, terminal.shown)
        self.assertFalse(was_echoing)
        self.assertIn(b": accepted", terminal.shown)
        self.assertNotIn(PASSWORD.encode(), terminal.shown)

    def test_asks_for_the_password_of_the_bind_first(self):
        terminal = Terminal(self.addCleanup, *self.arguments("-D", READER, "-W"))
        terminal.read_until(f"Password for {READER}: ".encode())
        terminal.type(READER_PASSWORD.encode() + b"\n")
        terminal.read_until(f"Password for {KEY}: ".encode())
        terminal.type(PASSWORD.encode() + b"\n")

        self.assertEqual(terminal.read_to_end(), 0, terminal.shown)

    def test_needs_a_source_of_the_password(self):
        result = run(*self.arguments(), start_new_session=True)

        self.assert_fails(result, 78, "no terminal", "--user-password-file FILE")

    def test_refuses_what_contradicts_itself(self):
        path = self.file("pw", b"x")
        for arguments, words in (
            (["--user-password-file", path, "--user-password-fd", "0"], ["--user-password-f"]),
            (
                ["--user-password-fd", "0", "-D", READER, "--password-fd", "0"],
                ["standard input"],
            ),
            (["--user-password-file", path, "--format", "ldif"], ["ldif"]),
            (["--user-password-file", path, "another@corp.test"], []),
            (["-w", "secret"], ["-w is not supported"]),
        ):
            with self.subTest(arguments=arguments):
                self.assert_fails(run(*self.arguments(*arguments)), 64, *words)

    def test_keeps_passwords_out_of_debug_output(self):
        for level in ("any", "2", "16"):
            result = run(
                *self.arguments(
                    *["-d", level, "--user-password-file", self.file("user", PASSWORD.encode())]
                )
            )

            self.assertEqual(result.status, 0)
            self.assertNotIn(PASSWORD, result.output + result.errors)
            self.assertNotIn(PASSWORD[:8], result.errors)
            self.assertIn("would print the password", result.errors)


if __name__ == "__main__":
    unittest.main()
