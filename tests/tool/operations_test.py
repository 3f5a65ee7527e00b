"""`solvane-ldap compare`, `passwd` and `whoami`: what they ask, what they print, and failures."""

import base64
import json
import unittest

from servers import ScriptedDirectory, giving, hanging_up_after, silent
from support import (
    PEOPLE,
    READER,
    DirectoryTest,
    Terminal,
    ToolTest,
    message,
    outcome,
    run,
    tlv,
)

USER = f"uid=user0000001,{PEOPLE}"
COMPARED, EXTENDED_RESPONSE = 0x6F, 0x78


class Requests(DirectoryTest):
    slapd_options = ["--users", "1"]

    def ask(self, command, *arguments, password=b"reader-pw"):
        """As the reader."""
        return run(
            command,
            "-H",
            self.uri,
            "-D",
            READER,
            "-y",
            self.file("password", password),
            *arguments,
        )

    def test_print_the_identity(self):
        for result, identity in (
            (self.ask("whoami"), f"dn:{READER}\n"),
            (run("whoami", "-H", self.uri), "anonymous\n"),
            (run("whoami", "-H", self.uri, "-0"), "anonymous\0"),
        ):
            self.assertEqual((result.status, result.output, result.errors), (0, identity, ""))

    def test_print_the_identity_as_json(self):
        for result, identity in (
            (self.ask("whoami", "--format", "json"), f"dn:{READER}"),
            (run("whoami", "-H", self.uri, "--format", "json"), None),
        ):
            self.assertEqual(json.loads(result.output), {"identity": identity, "server": self.uri})

    def test_compare_by_the_rules_of_the_attribute(self):
        encoded = base64.b64encode(b"Anna Berg 1").decode()
        for assertion, answer in (
            ("cn:Anna Berg 1", "true"),
            ("CN:anna  berg 1", "true"),
            (f"cn::{encoded}", "true"),
            ("cn:Anna", "false"),
            (f"cn:{encoded}", "false"),
            ("cn:cn: Anna Berg 1", "false"),
            ("title:1", "noattribute"),
        ):
            with self.subTest(assertion=assertion):
                result = self.ask("compare", USER, assertion)

                self.assertEqual((result.output, result.errors), (answer + "\n", ""))
                self.assertEqual(result.status, 0 if answer == "true" else 1)

    def test_tell_a_missing_entry_from_a_missing_value(self):
        result = self.ask("compare", f"uid=none,{PEOPLE}", "cn:a")

        self.assertEqual((result.status, result.output, result.errors), (1, "notfound\n", ""))

    def test_compare_as_json(self):
        result = self.ask("compare", USER, "cn::/w==", "--format", "json")

        self.assertEqual(result.status, 65, result.output)
        result = self.ask("compare", USER, "cn:x", "--format", "json")

        self.assertEqual(
            json.loads(result.output),
            {
                "dn": USER,
                "attribute": "cn",
                "value": "x",
                "status": "false",
                "server": self.uri,
                "code": 5,
                "text": "",
            },
        )

    def test_explain_what_the_server_refuses(self):
        for dn, assertion, status, words in (
            ("nothing", "cn:a", 65, ["Invalid DN syntax (34)", "correct the DN"]),
            (USER, "nothing:a", 65, ["Undefined attribute type (17)", "correct the attribute"]),
            (USER, "jpegPhoto:a", 65, ["Inappropriate matching (18)", "cannot be compared"]),
            (USER, "cn:", 65, ["Invalid syntax (21)", "correct the value"]),
            (USER, "userPassword:a", 77, ["Insufficient access (50)", "may compare it (-D)"]),
        ):
            with self.subTest(dn=dn, assertion=assertion):
                result = self.ask("compare", dn, assertion)

                self.assert_fails(result, status, f"{dn}: ", *words)
                self.assertEqual(result.output, "")

    def test_need_the_right_password(self):
        for command in (["whoami"], ["compare", USER, "cn:a"]):
            with self.subTest(command=command):
                self.assert_fails(
                    self.ask(*command, password=b"wrong"), 77, "Invalid credentials (49)"
                )


class Responses(ToolTest):
    COMMANDS = (["whoami"], ["compare", "cn=a", "cn:b"])

    def ask(self, script, command):
        directory = ScriptedDirectory(self, script)
        result = run(*command, "-H", directory.uri, "-o", "nettimeout=1")
        directory.finish()
        self.assertEqual(result.output, "")
        return result

    def test_that_do_not_come_are_temporary_failures(self):
        for command in self.COMMANDS:
            with self.subTest(command=command):
                self.assert_fails(self.ask(silent, command), 75, "no answer in time")
                self.assert_fails(self.ask(hanging_up_after(), command), 75, "closed")

    def test_of_another_operation_are_invalid(self):
        for command in self.COMMANDS:
            for answer in (
                message(1, outcome(0x6B, 0)),
                message(1, tlv(0x6F)),
                message(1, tlv(0x78)),
            ):
                with self.subTest(command=command, answer=answer):
                    self.assert_fails(self.ask(giving(answer), command), 75, "invalid response")

    def test_say_that_the_server_has_no_who_am_i(self):
        result = self.ask(giving(message(1, outcome(EXTENDED_RESPONSE, 2))), ["whoami"])

        self.assert_fails(result, 69, "Protocol error (2)", "does not support")

    def test_refer_to_another_server(self):
        for command, tag in zip(self.COMMANDS, (EXTENDED_RESPONSE, COMPARED)):
            referral = message(1, outcome(tag, 10, referrals=[b"ldap://elsewhere/"]))

            self.assert_fails(self.ask(giving(referral), command), 69, "see ldap://elsewhere/")

    def test_of_success_answer_no_compare(self):
        result = self.ask(giving(message(1, outcome(COMPARED, 0))), ["compare", "cn=a", "cn:b"])

        self.assert_fails(result, 75, "invalid response")

    def test_to_values_with_all_their_bytes(self):
        directory = ScriptedDirectory(self, giving(message(1, outcome(COMPARED, 6))))

        result = run("compare", "-H", directory.uri, "cn=a", "x::YQBi")

        self.assertEqual((result.status, result.output), (0, "true\n"), result.errors)
        directory.finish()
        self.assertIn(
            tlv(0x30, tlv(0x04, b"x"), tlv(0x04, b"a\0b")),
            directory.connections[0].requests[0].content,
        )


class Passwd(DirectoryTest):
    slapd_options = ["--users", "9"]

    def setUp(self):
        super().setUp()
        self.counter = 0

    def secret(self, text):
        self.counter += 1
        return self.file(f"secret{self.counter}", text.encode())

    def user(self, number):
        return f"uid=user000000{number},{PEOPLE}"

    def ask(self, command, number, password, *arguments, **options):
        """As a user."""
        return run(
            *[command, "-H", self.uri, "-D", self.user(number), "-y", self.secret(password)],
            *arguments,
            **options,
        )

    def assert_has(self, number, password):
        self.assertEqual(self.ask("whoami", number, password).output, f"dn:{self.user(number)}\n")

    def test_changes_the_password_of_the_bind(self):
        result = self.ask("passwd", 1, "pw-user0000001", "-T", self.secret("new\n"))

        self.assertEqual(
            (result.status, result.output, result.errors), (0, f"changed {self.user(1)}\n", "")
        )
        self.assert_has(1, "new")
        self.assertEqual(self.ask("whoami", 1, "pw-user0000001").status, 77)

    def test_changes_that_of_another_user(self):
        admin = ["-H", self.uri, "-D", "cn=admin,dc=corp,dc=test", "-y", self.secret("secret")]

        result = run("passwd", *admin, "-T", self.secret("new"), self.user(2))

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assert_has(2, "new")
        for user, words in (
            (f"uid=none,{PEOPLE}", ["correct the user"]),
            ("nothing", ["correct the user"]),
        ):
            self.assert_fails(run("passwd", *admin, "-T", self.secret("new"), user), 65, *words)

    def test_prints_a_generated_password(self):
        text = self.ask("passwd", 3, "pw-user0000003", "--generate")

        first = text.output.rpartition(" is ")[2].rstrip("\n")
        self.assert_has(3, first)
        again = json.loads(self.ask("passwd", 3, first, "--generate", "--format", "json").output)
        self.assertEqual(
            (again["user"], again["status"], again["server"]), (None, "changed", self.uri)
        )
        self.assert_has(3, again["password"])

    def test_sends_the_old_password_that_is_asked_for(self):
        wrong = self.ask(
            *["passwd", 4, "pw-user0000004", "-t", self.secret("no"), "-T", self.secret("new")]
        )
        self.assert_fails(wrong, 69, "check the old password")
        self.assert_has(4, "pw-user0000004")

        old, new = self.secret("pw-user0000004"), self.secret("new")
        result = self.ask("passwd", 4, "pw-user0000004", "-t", old, "-T", new)

        self.assertEqual(result.status, 0, result.errors)
        self.assert_has(4, "new")

    def test_reads_descriptors(self):
        result = self.ask("passwd", 5, "pw-user0000005", "--new-password-fd", "0", stdin=b"new\n")

        self.assertEqual(result.status, 0, result.errors)
        self.assert_has(5, "new")

    def prompt(self, number, *arguments):
        return Terminal(
            self.addCleanup,
            *["passwd", "-H", self.uri, "-D", self.user(number), "-y"],
            *[self.secret(f"pw-user000000{number}"), *arguments],
        )

    def test_asks_for_the_new_password_twice(self):
        terminal = self.prompt(6)
        for question in (b"New password for uid=", b"Repeat the new password for uid="):
            terminal.read_until(question)
            terminal.type(b"typed\n")

        self.assertEqual(terminal.read_to_end(), 0, terminal.shown)
        self.assertNotIn(b"typed", terminal.shown)
        self.assert_has(6, "typed")

    def test_changes_nothing_if_the_two_differ(self):
        terminal = self.prompt(7)
        terminal.read_until(b"New password for uid=")
        terminal.type(b"typed\n")
        terminal.read_until(b"Repeat the new password for uid=")
        terminal.type(b"other\n")

        self.assertEqual(terminal.read_to_end(), 65, terminal.shown)
        self.assertIn(b"differ", terminal.shown)
        self.assert_has(7, "pw-user0000007")

    def test_asks_for_the_old_password(self):
        terminal = self.prompt(8, "-A", "-T", self.secret("new"))
        terminal.read_until(b"Old password for uid=")
        terminal.type(b"pw-user0000008\n")

        self.assertEqual(terminal.read_to_end(), 0, terminal.shown)
        self.assert_has(8, "new")

    def test_shows_no_password(self):
        result = self.ask("passwd", 9, "pw-user0000009", "-T", self.secret("hunter2"), "-d", "any")

        self.assertEqual(result.status, 0, result.errors)
        self.assertNotRegex(result.errors, "(?m)^ +0000: ")  # a dump of a message
        self.assertNotIn("hunter2", result.output + result.errors)

    def test_needs_a_terminal_to_ask(self):
        result = self.ask("passwd", 1, "x", start_new_session=True)

        self.assert_fails(result, 78, "no terminal", "-T FILE or --new-password-fd N")

    def test_sends_no_empty_password(self):
        self.assert_fails(self.ask("passwd", 1, "x", "-T", self.secret("")), 65, "is empty")


class PasswdResponses(ToolTest):
    def ask(self, script, *arguments):
        directory = ScriptedDirectory(self, script)
        new = self.file("new", b"hunter2")
        result = run(
            *["passwd", "-H", directory.uri, "-o", "nettimeout=1", "cn=a"],
            *(arguments or ["-T", new]),
        )
        directory.finish()
        self.assertEqual(result.output, "")
        self.assertNotIn("hunter2", result.errors)
        return result

    def test_that_do_not_come_leave_it_open(self):
        for script in (silent, hanging_up_after()):
            self.assert_fails(self.ask(script), 75, "may be changed")

    def test_are_explained(self):
        for code, status, words in (
            (2, 69, "does not support"),
            (10, 69, "see ldap://elsewhere/"),
            (19, 65, "choose another password"),
            (32, 65, "correct the user"),
            (49, 77, "give the old password with -A"),
            (50, 77, "-D"),
            (51, 75, "try again later"),
            (53, 69, "give the old password with -A"),
        ):
            with self.subTest(code=code):
                referrals = [b"ldap://elsewhere/"] if code == 10 else ()
                answer = message(1, outcome(EXTENDED_RESPONSE, code, referrals=referrals))

                self.assert_fails(self.ask(giving(answer)), status, f"({code})", words)

    def test_that_repeat_a_password_with_control_characters_are_not_shown(self):
        new = self.file("odd", b"hun\x01ter")
        answer = message(1, outcome(EXTENDED_RESPONSE, 19, b"'hun\x01ter' is too short"))

        result = self.ask(giving(answer), "-T", new)

        self.assert_fails(result, 65, "(19)", "choose another password")
        self.assertNotIn("ter", result.errors)

    def test_that_repeat_the_password_are_not_shown(self):
        answer = message(1, outcome(EXTENDED_RESPONSE, 19, b"'hunter2' is too short"))

        result = self.ask(giving(answer))

        self.assert_fails(result, 65, "(19)", "choose another password")
        self.assertNotIn("too short", result.errors)

    def test_without_the_generated_password_say_so(self):
        answer = message(1, outcome(EXTENDED_RESPONSE, 0))

        self.assert_fails(self.ask(giving(answer), "--generate"), 75, "is changed", "-S")


class Usage(ToolTest):
    def test_refuses_what_cannot_be_asked(self):
        for arguments, words in (
            (["compare"], ["DN"]),
            (["compare", "cn=a"], ["ASSERTION"]),
            (["compare", "cn=a", "b"], ["'b'", "attribute:value"]),
            (["compare", "cn=a", ":b"], ["':b'", "attribute:value"]),
            (["compare", "cn=a", "b::?"], ["base64 '?'"]),
            (["compare", "cn=a", "b:c", "d"], ["'d'"]),
            (["compare", "cn=a", "b:c"], ["no server given"]),
            (["compare", "cn=a", "b:c", "--format", "ldif"], ["text or json"]),
            (["whoami", "x"], ["'x'"]),
            (["passwd", "-H", "ldap://h"], ["no user given", "-D"]),
            (["passwd", "cn=a"], ["no server given"]),
            (["passwd", "cn=a", "--generate", "-S"], ["generate"]),
            (["passwd", "cn=a", "-S", "-T", "x"], ["-password"]),
            (["passwd", "cn=a", "-s", "hunter2"], ["-s is not supported", "-T FILE"]),
            (["passwd", "cn=a", "-a", "hunter2"], ["-a is not supported", "-t FILE"]),
            (["passwd", "cn=a", "-w", "hunter2"], ["-w is not supported"]),
            (["passwd", "cn=a", "--format", "tsv"], ["text or json"]),
            (
                ["passwd", "cn=a", "--new-password-fd", "0", "--old-password-fd", "0"],
                ["standard input"],
            ),
            (["whoami"], ["no server given"]),
            (["whoami", "--format", "tsv"], ["text or json"]),
        ):
            with self.subTest(arguments=arguments):
                result = run(*arguments)

                self.assert_fails(result, 64, *words)
                self.assertNotIn("hunter2", result.errors)


if __name__ == "__main__":
    unittest.main()
