"""`solvane-ldap lookup` against a directory: what is found, what is not, and what is refused."""

import unittest

from support import PEOPLE, PRIVATE, READER, READER_PASSWORD, DirectoryTest

SUFFIX = "dc=corp,dc=test"
CODES = "ou=codes,dc=corp,dc=test"


class Lookup(DirectoryTest):
    slapd_options = ["--users", "200", "--sizelimit", "20", "--retcode"]

    def test_finds_an_entry(self):
        result = self.look_up("--attrs", "cn,mail", "user0000001@corp.test")

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertEqual(
            result.lines,
            [
                "# user0000001@corp.test: found 1",
                "dn: uid=user0000001,ou=people,dc=corp,dc=test",
                "cn: Anna Berg 1",
                "mail: user0000001@corp.test",
                "",
            ],
        )

    def test_says_what_it_did_not_find(self):
        result = self.look_up("nobody@corp.test")

        self.assertEqual(
            (result.status, result.lines, result.errors), (1, ["# nobody@corp.test: not found"], "")
        )

    def test_gives_each_key_a_record_in_its_order(self):
        result = self.look_up(
            "--attrs", "uid", "-f", "-", stdin=b"nobody@corp.test\n\xff\nuser0000002@corp.test\n\n"
        )

        self.assertEqual(result.status, 65)
        self.assertEqual(
            [line for line in result.lines if line.startswith("#")],
            [
                "# nobody@corp.test: not found",
                "# \\xFF: error 65: the key contains invalid UTF-8 at byte 0",
                "# user0000002@corp.test: found 1",
                "# : error 65: the key is empty",
            ],
        )
        self.assertEqual(len(result.error_lines), 2, result.errors)

    def test_searches_within_the_scope(self):
        everything = "(objectClass=*)$c(objectClass=organizationalUnit)"

        found = {
            scope: self.look_up("x", "--attrs", "1.1", "-s", scope, base=base, template=everything)
            for scope, base in (("base", PEOPLE), ("one", SUFFIX), ("sub", PEOPLE))
        }

        self.assertEqual(found["base"].lines[0], "# x: found 1")
        self.assertIn("dn: ou=people,dc=corp,dc=test", found["one"].lines)
        self.assertNotIn("dn: dc=corp,dc=test", found["one"].lines)
        self.assertEqual(found["sub"].lines[0], "# x: found 1")

    def test_follows_aliases_as_told(self):
        found = {
            mode: self.look_up(
                "alias00001",
                "-a",
                mode,
                "-s",
                "base",
                "--attrs",
                "uid",
                base="uid=alias00001,ou=aliases,dc=corp,dc=test",
                template="(objectClass=*)",
            ).lines
            for mode in ("never", "search", "find", "always")
        }

        itself = "dn: uid=alias00001,ou=aliases,dc=corp,dc=test"
        target = "dn: uid=user0000001,ou=people,dc=corp,dc=test"
        self.assertEqual(
            [found[mode][1] for mode in ("never", "search", "find", "always")],
            [itself, itself, target, target],
        )

    def test_reports_an_alias_that_cannot_be_followed(self):
        result = self.look_up(
            "x",
            "-a",
            "always",
            base="cn=loopA,ou=badaliases,dc=corp,dc=test",
            template="(objectClass=*)",
        )

        self.assert_fails(result, 78, "Alias", "-a never")

    def test_speaks_tls(self):
        result = self.look_up(
            "--tls-ca",
            self.server["CA_FILE"],
            "--attrs",
            "uid",
            "user0000003@corp.test",
            uri=self.secure_uri,
        )

        self.assertEqual((result.status, result.lines[2]), (0, "uid: user0000003"), result.errors)

    def test_speaks_protocol_version_two(self):
        result = self.look_up("-P", "2", "--attrs", "uid", "user0000003@corp.test")

        self.assertEqual((result.status, result.lines[2]), (0, "uid: user0000003"), result.errors)

    def test_reaches_an_ipv6_address(self):
        result = self.look_up(
            "user0000003@corp.test", uri=f"ldap://[::1]:{self.server['LDAP_PORT']}"
        )

        self.assertEqual(result.status, 0, result.errors)

    def test_says_on_request_what_it_does(self):
        result = self.look_up("-v", "nobody@corp.test", "user0000001@corp.test")

        self.assertEqual(result.status, 1)
        self.assertEqual(len(result.error_lines), 2, result.errors)
        for line, key, status in zip(
            result.error_lines, ("nobody@corp.test", "user0000001@corp.test"), ("notfound", "found")
        ):
            self.assertRegex(
                line,
                rf"^solvane-ldap: {key}: {status} by {self.uri} in [\d.]+ ms: " rf"\(mail={key}\)$",
            )

    def test_keeps_quiet_on_request(self):
        result = self.look_up("-q", "x", base="ou=missing,dc=corp,dc=test")

        self.assertEqual((result.status, result.errors), (78, ""))

    def test_reports_a_base_that_does_not_exist(self):
        result = self.look_up("x", base="ou=missing,dc=corp,dc=test")

        self.assert_fails(
            result,
            78,
            "No such object (32)",
            "matched DN 'dc=corp,dc=test'",
            "correct the base (-b)",
        )
        self.assertTrue(result.output.startswith("# x: error 78: "), result.output)

    def test_reports_a_base_that_is_no_dn(self):
        self.assert_fails(self.look_up("x", base="nonsense"), 65, "Invalid DN syntax (34)")

    def test_reports_a_malformed_template_once_and_asks_nobody(self):
        result = self.look_up("a", "b", template="(mail=$q)")

        self.assert_fails(result, 65, "at byte 6", "unknown specifier", "solvane-ldap expand")
        self.assertEqual(result.output, "")

    def test_reports_a_filter_that_is_none(self):
        result = self.look_up("u", template="(mail=$u")

        self.assert_fails(result, 65, "at byte 0: '(' without its ')'", "solvane-ldap expand")
        self.assertEqual(result.output, "")

    def test_sends_no_empty_filter(self):
        result = self.look_up("u", template="(mail=*)$b")

        self.assert_fails(result, 65, "empty filter")
        self.assertNotIn("found", result.output)

    def test_reports_a_referral(self):
        result = self.look_up(
            "x",
            "-s",
            "base",
            template="(objectClass=*)",
            base="cn=elsewhere,ou=referrals,dc=corp,dc=test",
        )

        self.assert_fails(result, 69, "Referral (10)", "see ldap://other.corp.test:389/", "-H")

    def test_shows_what_came_before_a_limit_and_asks_to_try_later(self):
        result = self.look_up("x", "--attrs", "1.1", template="(objectClass=*)")

        self.assert_fails(result, 75, "Size limit exceeded (4)")
        self.assertTrue(
            result.lines[0].startswith("# x: error 75 after 20 of its entries: "), result.lines[0]
        )
        self.assertEqual(sum(line.startswith("dn: ") for line in result.lines), 20)

    def test_goes_on_after_a_key_that_failed(self):
        result = self.look_up(
            "--attrs", "1.1", "x", "y", base=f"cn=busy,{CODES}", template="(objectClass=*)"
        )

        self.assertEqual([line[:14] for line in result.lines], ["# x: error 75:", "# y: error 75:"])
        self.assertEqual(len(result.error_lines), 2)

    def test_gives_each_result_code_its_exit_status(self):
        for name, status in (
            ("ok", 1),
            ("timeLimitExceeded", 75),
            ("busy", 75),
            ("unavailable", 75),
            ("other", 75),
            ("operationsError", 75),
            ("insufficientAccess", 77),
            ("invalidDNSyntax", 65),
            ("unwillingToPerform", 69),
            ("referral", 69),
            ("noSuchObject", 78),
        ):
            with self.subTest(code=name):
                result = self.look_up("x", base=f"cn={name},{CODES}", template="(objectClass=*)")

                self.assertEqual(result.status, status, result.errors)

    def test_lets_the_worst_key_decide(self):
        result = self.look_up("user0000001@corp.test", "nobody@corp.test", "")

        self.assertEqual(result.status, 65)

    def test_finds_nothing_in_what_others_may_not_see(self):
        result = self.look_up("secret", base=PRIVATE, template="(cn=$u)")

        self.assertEqual(result.status, 78)


class LookupWhereAnonymousIsRefused(DirectoryTest):
    slapd_options = ["--users", "1", "--no-anon", "--no-v2"]

    def test_reports_the_missing_bind(self):
        result = self.look_up("user0000001@corp.test")

        self.assert_fails(result, 69, "(53): authentication required")
        self.assertNotIn("not found", result.output)

    def test_reports_a_refused_protocol_version(self):
        password = self.file("password", READER_PASSWORD.encode())

        result = self.look_up("-P", "2", "-D", READER, "-y", password, "user0000001@corp.test")

        self.assert_fails(result, 78, "the bind is refused", "(2)", "-P")


if __name__ == "__main__":
    unittest.main()
