"""`solvane-ldap compare` and `whoami`: what they ask, what they print, and failures."""

import base64
import json
import unittest

from servers import ScriptedDirectory, giving, hanging_up_after, silent
from support import PEOPLE, READER, DirectoryTest, ToolTest, message, outcome, run, tlv

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
            (["whoami"], ["no server given"]),
            (["whoami", "--format", "tsv"], ["text or json"]),
        ):
            with self.subTest(arguments=arguments):
                self.assert_fails(run(*arguments), 64, *words)


if __name__ == "__main__":
    unittest.main()
