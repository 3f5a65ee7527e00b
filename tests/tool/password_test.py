"""Passwords: their sources, refused ones, those of users that are verified; and that none is ever
shown."""

import json
import os
import pty
import select
import signal
import subprocess
import termios
import time
import unittest

from servers import BIND, ScriptedDirectory, Slapd, eventually, giving, silent
from support import DEADLINE, PEOPLE, PRIVATE, READER, READER_PASSWORD, TOOL, DirectoryTest
from support import Terminal, ToolTest, bound, free_port, run


class Password(DirectoryTest):
    slapd_options = ["--users", "1"]

    def look_up_as_reader(self, *arguments, **options):
        result = self.look_up(
            "-D", READER, "secret", *arguments, base=PRIVATE, template="(cn=$u)", **options
        )
        self.assertNotIn(READER_PASSWORD, result.output + result.errors)
        return result

    def test_comes_from_a_file_without_its_last_newline(self):
        for content in (b"reader-pw", b"reader-pw\n"):
            result = self.look_up_as_reader("-y", self.file("password", content))

            self.assertEqual(
                (result.status, result.lines[0]), (0, "# secret: found 1"), result.errors
            )

    def test_is_otherwise_taken_as_it_is(self):
        for content in (b"reader-pw\n\n", b"reader-pw ", b" reader-pw", b"reader-pw\r\n"):
            result = self.look_up_as_reader("-y", self.file("password", content))

            self.assert_fails(result, 77, "Invalid credentials (49)")

    def test_comes_from_a_descriptor(self):
        reading, writing = os.pipe()
        os.write(writing, b"reader-pw\n")
        os.close(writing)
        try:
            result = self.look_up_as_reader("--password-fd", str(reading), pass_fds=[reading])
        finally:
            os.close(reading)

        self.assertEqual(result.status, 0, result.errors)

    def test_is_refused_from_a_descriptor_that_is_not_open(self):
        self.assert_fails(
            self.look_up_as_reader("--password-fd", "99"),
            78,
            "descriptor 99",
            "Bad file descriptor",
        )

    def test_must_be_right(self):
        result = self.look_up_as_reader("-y", self.file("password", b"wrong"))

        self.assert_fails(
            result, 77, "the bind is refused: Invalid credentials (49)", "check -D and the password"
        )
        self.assertNotIn("not found", result.output)

    def test_is_refused_from_a_file_that_others_can_read(self):
        for mode in (0o640, 0o604, 0o644, 0o666):
            with self.subTest(mode=oct(mode)):
                path = self.file("password", b"reader-pw", mode)

                self.assert_fails(
                    self.look_up_as_reader("-y", path),
                    78,
                    f"is readable by other users (mode {mode:03o})",
                    "set mode 600",
                )

    def test_is_judged_by_the_file_behind_a_link(self):
        link = os.path.join(self.folder, "link")
        os.symlink(self.file("password", b"reader-pw", 0o644), link)

        self.assert_fails(self.look_up_as_reader("-y", link), 78, "is readable by other users")

        os.chmod(os.path.realpath(link), 0o400)
        self.assertEqual(self.look_up_as_reader("-y", link).status, 0)

    def test_is_refused_when_it_cannot_be_one(self):
        for content, words in (
            (b"", "is empty"),
            (b"\n", "is empty"),
            (b"a\0b", "a NUL byte"),
            (b"x" * 1025, "longer than 1024 bytes"),
        ):
            with self.subTest(content=content[:4]):
                result = self.look_up_as_reader("-y", self.file("password", content))

                self.assert_fails(result, 78, words)
                self.assertEqual(result.output, "")

    def test_is_refused_from_a_file_that_cannot_be_read(self):
        self.assert_fails(self.look_up_as_reader("-y", self.folder + "/none"), 78, "No such file")
        self.assert_fails(self.look_up_as_reader("-y", self.folder), 78, "Is a directory")

    def test_needs_a_terminal_to_be_asked_for(self):
        result = self.look_up_as_reader("-W", start_new_session=True)

        self.assert_fails(result, 78, "no terminal", "-y FILE or --password-fd N")

    def test_is_sent_once_and_seen_nowhere(self):
        directory = ScriptedDirectory(self, silent)
        path = self.file("password", b"hunter2\n")
        with subprocess.Popen(
            [
                TOOL,
                "lookup",
                "-H",
                directory.uri,
                "-D",
                "cn=x",
                "-y",
                path,
                "-b",
                "dc=x",
                "-t",
                "(cn=$u)",
                "-v",
                "-o",
                "nettimeout=1",
                "a",
            ],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
        ) as process:
            self.assertTrue(eventually(lambda: directory.count(BIND)))
            with open(f"/proc/{process.pid}/cmdline", "rb") as arguments, open(
                f"/proc/{process.pid}/environ", "rb"
            ) as environment:
                seen = arguments.read() + environment.read()
            output, _ = process.communicate(timeout=DEADLINE)

        self.assertEqual(process.returncode, 75, output)
        self.assertIn(b"hunter2", directory.connections[0].requests[0].content)
        self.assertNotIn(b"hunter2", seen + output)

    def test_is_in_no_debug_output(self):
        path = self.file("password", b"reader-pw")
        for level in ("1", "2", "16", "18", "65535", "any", "-1"):
            with self.subTest(level=level):
                result = self.look_up_as_reader("-y", path, "-d", level)

                self.assertEqual(result.status, 0, result.errors)
                self.assertNotRegex(result.errors, "(?m)^ +0000: ")  # a dump of a message
                if level != "1":
                    self.assertIn("would print the password", result.errors)

    def test_keeps_no_debug_output_from_whoever_has_none(self):
        result = self.look_up("a", "-d", "2")

        self.assertRegex(result.errors, "(?m)^ +0000: ")


class PasswordPrompt(DirectoryTest):
    """-W on a terminal of its own."""

    slapd_options = ["--users", "1"]

    def start(self):
        """The tool on a new terminal; returns when it has asked."""
        child, self.terminal = pty.fork()
        if child == 0:
            os.execv(
                TOOL,
                [
                    TOOL,
                    "lookup",
                    "-H",
                    self.uri,
                    "-D",
                    READER,
                    "-W",
                    "-b",
                    PRIVATE,
                    "-t",
                    "(cn=$u)",
                    "--attrs",
                    "cn",
                    "secret",
                ],
            )
        self.child = child
        self.addCleanup(os.close, self.terminal)
        self.shown = b""
        self.read_until(b"Password for " + READER.encode() + b": ")
        return child

    def read_until(self, text):
        deadline = time.monotonic() + DEADLINE
        while text not in self.shown:
            readable, _, _ = select.select([self.terminal], [], [], deadline - time.monotonic())
            self.assertTrue(readable, self.shown)
            self.shown += os.read(self.terminal, 4096)

    def read_to_end(self):
        while True:
            try:
                part = os.read(self.terminal, 4096)
            except OSError:  # the terminal's last user is gone
                return
            if not part:
                return
            self.shown += part

    def echoes(self):
        return bool(termios.tcgetattr(self.terminal)[3] & termios.ECHO)

    def test_asks_without_echo(self):
        child = self.start()

        self.assertFalse(self.echoes())
        os.write(self.terminal, b"reader-pw\n")
        self.read_to_end()
        _, status = os.waitpid(child, 0)

        self.assertEqual(os.waitstatus_to_exitcode(status), 0, self.shown)
        self.assertIn(b"cn: secret", self.shown)
        self.assertNotIn(b"reader-pw", self.shown)
        self.assertTrue(self.echoes())

    def test_refuses_an_empty_answer(self):
        child = self.start()

        os.write(self.terminal, b"\n")
        self.read_to_end()
        _, status = os.waitpid(child, 0)

        self.assertEqual(os.waitstatus_to_exitcode(status), 78)
        self.assertIn(b"the password is empty", self.shown)

    def test_turns_echo_on_again_when_it_is_interrupted(self):
        child = self.start()

        os.write(self.terminal, b"half\x03")
        _, status = os.waitpid(child, 0)

        self.assertTrue(os.WIFSIGNALED(status))
        self.assertEqual(os.WTERMSIG(status), signal.SIGINT)
        self.assertTrue(self.echoes())


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
        directory.finish()

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


class PasswordPolicies(ToolTest):
    """A slapd that locks accounts, and lets passwords expire."""

    POLICY = """\
dn: cn={name},dc=corp,dc=test
changetype: add
objectClass: device
objectClass: pwdPolicy
pwdAttribute: userPassword
{lines}

"""
    CHANGE = """\
dn: uid=user000000{user},ou=people,dc=corp,dc=test
changetype: modify
{lines}

"""

    def setUp(self):
        super().setUp()
        self.slapd = Slapd(
            self.addCleanup,
            *["--users", "5"],
            *["--global-conf", self.file("global.conf", b"moduleload ppolicy\n")],
            *[
                "--db-conf",
                self.file(
                    "db.conf",
                    b"overlay ppolicy\nppolicy_default cn=usual,dc=corp,dc=test\nppolicy_use_lockout\n",
                ),
            ],
        )

    def modify(self, *changes):
        subprocess.run(
            ["ldapmodify", "-x", "-H", self.slapd.uri, "-D", "cn=admin,dc=corp,dc=test"]
            + ["-w", "secret"],
            input="".join(changes).encode(),
            check=True,
            timeout=DEADLINE,
            stdout=subprocess.DEVNULL,
        )

    def aging(self, user, policy):
        """Begins the age of the password."""
        lines = (
            f"add: pwdPolicySubentry\npwdPolicySubentry: cn={policy},dc=corp,dc=test\n-\n"
            f"replace: userPassword\nuserPassword: pw-user000000{user}"
        )
        return self.CHANGE.format(user=user, lines=lines)

    def verify(self, user, *arguments):
        password = self.file("user", f"pw-user000000{user}".encode())
        return run(
            *["verify", "-H", self.slapd.uri, "-b", PEOPLE, "-t", "(mail=$m)"],
            *["--user-password-file", password, *arguments, f"user000000{user}@corp.test"],
        )

    def test_are_told(self):
        self.modify(
            self.POLICY.format(name="usual", lines="pwdLockout: TRUE\npwdMustChange: TRUE"),
            self.POLICY.format(name="short", lines="pwdMaxAge: 1"),
            self.POLICY.format(name="warning", lines="pwdMaxAge: 3600\npwdExpireWarning: 3600"),
            self.CHANGE.format(
                user=1, lines="add: pwdAccountLockedTime\npwdAccountLockedTime: 000001010000Z"
            ),
            self.CHANGE.format(user=2, lines="add: pwdReset\npwdReset: TRUE"),
            self.aging(3, "short"),
            self.aging(4, "warning"),
        )
        self.assertTrue(eventually(lambda: self.verify(3).status == 1), "it does not expire")

        for user, reason, words in (
            (1, "locked", "locked"),
            (2, "must_change", "must be changed"),
            (3, "expired", "has expired"),
        ):
            with self.subTest(reason=reason):
                result = self.verify(user)
                record = json.loads(self.verify(user, "--format", "json").output)

                self.assertEqual((result.status, result.errors), (1, ""))
                self.assertIn(words, result.output)
                self.assertEqual((record["status"], record["reason"]), ("denied", reason))
        warned = json.loads(self.verify(4, "--format", "json").output)
        self.assertEqual((warned["status"], warned["reason"]), ("accepted", None))
        self.assertLessEqual(warned["expires_in"], 3600)


if __name__ == "__main__":
    unittest.main()
