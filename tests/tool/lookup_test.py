"""`solvane-ldap lookup` against a directory: what is found, what is not, what is refused, and the
forms of a record, with values of every kind."""

import base64
import json
import os
import subprocess
import unittest

from servers import ScriptedDirectory, hanging_up_after
from support import DEADLINE, PEOPLE, PRIVATE, READER, READER_PASSWORD, DirectoryTest, ToolTest
from support import entry, read_ldif, run, searched

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


class Groups(DirectoryTest):
    """Group "many" has 2,000 members, of which 20 are users here; every tenth has two addresses."""

    slapd_options = ["--users", "20"]
    options = ["--special-attrs", "member", "--leaf-attrs", "mail"]

    def look_up_group(self, *arguments, key="many"):
        return self.look_up(*self.options, *arguments, key, base=SUFFIX, template="(cn=$u)")

    def test_prints_the_results_of_a_group(self):
        result = self.look_up_group()

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertEqual(
            result.lines[:2],
            [
                "# many: found 1: 1980 members do not exist, such as "
                "'uid=user0000021,ou=people,dc=corp,dc=test'",
                "result: user0000001@corp.test",
            ],
        )
        self.assertEqual(len([line for line in result.lines if line.startswith("result: ")]), 22)

    def test_prints_results_in_each_format(self):
        values = self.look_up_group("--format", "values").lines[0].split(",")
        columns = self.look_up_group("--format", "tsv").lines[0].split("\t")
        record = json.loads(self.look_up_group("--format", "json").output)

        self.assertEqual(len(values), 22)
        self.assertEqual(columns[:3], ["many", ",".join(values), "found"])
        self.assertIn("1980 members do not exist", columns[3])
        self.assertEqual(record["results"], values)
        self.assertEqual(len(record["entries"]), 1)

    def test_defers_beyond_a_limit(self):
        for option, text in (
            (["--expansion-limit", "21"], "more than 21 values"),
            (["--recursion-limit", "1"], "nested deeper than 1 level "),
        ):
            result = self.look_up_group(*option, "--format", "tsv")

            self.assertEqual(result.status, 75)
            self.assertIn(text, result.errors)
            self.assertEqual(result.lines[0].split("\t")[:3], ["many", "", "error"])

    def test_formats_values(self):
        result = self.look_up(
            "--attrs", "mail", "--result-format", "smtp:[%d] %U", "user0000003@corp.test"
        )
        invalid = self.look_up("--attrs", "mail", "--result-format", "%q", "x")

        self.assertEqual(result.lines[1], "result: smtp:[corp.test] user0000003")
        self.assert_fails(invalid, 64, "--result-format", "unknown specifier %q")

    def test_warns_once_if_nothing_can_be_found(self):
        """Of what no answer shows: every address is not found."""
        nobody = ["a@corp.test", "b@corp.test"]
        for template, base, attributes, word in (
            ("(maill=$m)", PEOPLE, "cn", "does not know the attribute 'maill' (similar: 'mail')"),
            ("(mail=$m)", PEOPLE, "cnn", "does not know the attribute 'cnn'"),
            ("(mail=$m)", "cn=people,ou=aliases,dc=corp,dc=test", "cn", "is an alias"),
            ("(&(mail=$m)(cn=%n))", PEOPLE, "cn", "plain text, not a specifier"),
        ):
            with self.subTest(word):
                result = self.look_up(*nobody, "--attrs", attributes, template=template, base=base)

                self.assertEqual((result.status, len(result.error_lines)), (1, 1), result.errors)
                self.assertIn("warning: ", result.errors)
                self.assertIn(word, result.errors)
        quiet = self.look_up(*nobody, "-q", template="(maill=$m)")
        self.assertEqual((quiet.status, quiet.errors), (1, ""))
        self.assertEqual(self.look_up(*nobody).errors, "")

    def test_tells_what_is_found_without_a_value(self):
        lacking = ["--attrs", "telephoneNumber", "user0000001@corp.test"]
        text = self.look_up(*lacking)
        table = self.look_up(*lacking, "--format", "tsv")
        group = self.look_up(
            *["--special-attrs", "member", "--leaf-attrs", "title", "--format", "json", "many"],
            base=SUFFIX,
            template="(cn=$u)",
        )

        self.assertEqual(text.status, 0)
        self.assertEqual(text.lines[0], "# user0000001@corp.test: found 1, without a value")
        self.assertEqual(table.lines, ["user0000001@corp.test\t\tnovalue"])
        record = json.loads(group.output)
        self.assertEqual((record["status"], record["results"]), ("novalue", []))
        self.assertEqual(self.look_up(*lacking, "--nouser-without-value").status, 1)
        self.assertEqual(
            self.look_up(*lacking, "--nouser-without-value", "--nouser", "67").status, 67
        )
        self.assertEqual(
            self.look_up(
                "--attrs", "1.1", "user0000001@corp.test", "--nouser-without-value"
            ).status,
            0,
        )


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


WITH_BINARY = "user0000100@corp.test"  # UTF-8 names, a photo, a certificate, an option


class Formats(DirectoryTest):
    def certificate(self):
        with open(os.path.join(self.directory, "tls", "good.der"), "rb") as file:
            return file.read()

    def record_of(self, *arguments, **options):
        """The only JSON record of a lookup."""
        result = self.look_up("--format", "json", *arguments, **options)
        self.assertEqual(len(result.lines), 1, result.output)
        return json.loads(result.lines[0])

    def test_json_has_every_field(self):
        record = self.record_of("--attrs", "uid,mail", "user0000010@corp.test")

        milliseconds = record.pop("ms")
        self.assertGreater(milliseconds, 0)
        self.assertEqual(
            record,
            {
                "key": "user0000010@corp.test",
                "status": "found",
                "filter": "(mail=user0000010@corp.test)",
                "server": self.uri,
                "entries": [
                    {
                        "dn": "uid=user0000010,ou=people,dc=corp,dc=test",
                        "attrs": {
                            "uid": ["user0000010"],
                            "mail": ["user0000010@corp.test", "ukasz.10@alias.corp.test"],
                        },
                    }
                ],
                "code": 0,
                "text": "",
                "retried": False,
            },
        )

    def test_json_keeps_utf8_and_wraps_other_bytes(self):
        record = self.record_of(WITH_BINARY)

        attributes = record["entries"][0]["attrs"]
        self.assertEqual(attributes["cn"], ["Zo\u00eb Berg 100"])
        self.assertEqual(attributes["cn;lang-fr"], ["Monsieur 100"])
        photo = base64.b64decode(attributes["jpegPhoto"][0]["base64"], validate=True)
        self.assertTrue(photo.startswith(b"\xff\xd8\xff\xe0\x00\x10JFIF\x00"))
        self.assertEqual(len(photo), 700)
        self.assertEqual(
            attributes["userCertificate;binary"],
            [{"base64": base64.b64encode(self.certificate()).decode()}],
        )

    def test_json_says_what_was_not_found_and_what_failed(self):
        missing = self.record_of("nobody@x")
        failed = self.record_of("a@x", base="ou=missing,dc=corp,dc=test")
        refused = self.record_of(b"\xff")

        self.assertEqual(
            (missing["status"], missing["code"], missing["entries"]), ("notfound", 0, [])
        )
        self.assertEqual((failed["status"], failed["code"]), ("error", 32))
        self.assertIn("No such object", failed["text"])
        self.assertEqual(
            (refused["status"], refused["filter"], refused["server"]), ("error", None, None)
        )
        self.assertEqual(refused["key"], {"base64": "/w=="})

    def test_json_fields_have_an_order(self):
        record = self.record_of("nobody@x")

        self.assertEqual(
            list(record),
            ["key", "status", "filter", "server", "entries", "code", "text", "ms", "retried"],
        )

    def test_values_are_one_line_for_each_address(self):
        result = self.look_up(
            "--format",
            "values",
            "--attrs",
            "mail",
            "user0000010@corp.test",
            "nobody@x",
            "user0000001@corp.test",
        )

        self.assertEqual(result.lines[0], "user0000010@corp.test,ukasz.10@alias.corp.test")
        self.assertEqual(result.lines[1], "")
        self.assertTrue(result.lines[2].startswith("user0000001@corp.test"), result.output)
        self.assertEqual((result.status, len(result.lines)), (1, 3))

    def test_tsv_has_the_key_the_values_and_the_status(self):
        result = self.look_up(
            "--format",
            "tsv",
            "--attrs",
            "uid,mail",
            "user0000010@corp.test",
            "nobody@x",
            b"a\tb\xff",
        )

        self.assertEqual(
            result.lines[:2],
            [
                "user0000010@corp.test\tuser0000010,user0000010@corp.test,ukasz.10@alias.corp.test"
                "\tfound",
                "nobody@x\t\tnotfound",
            ],
        )
        columns = result.lines[2].split("\t")
        self.assertEqual(columns[:3], ["a\\x09b\\xFF", "", "error"])
        self.assertEqual(len(columns), 4)
        self.assertTrue(columns[3], result.output)

    def test_tsv_names_what_is_skipped(self):
        result = self.look_up("--format", "tsv", "--domains", "other.test", "user0000010@corp.test")

        self.assertEqual((result.status, result.lines), (1, ["user0000010@corp.test\t\tskipped"]))

    def test_text_names_what_is_skipped(self):
        result = self.look_up("--domains", "other.test", "user0000010@corp.test")

        self.assertTrue(
            result.lines[0].startswith("# user0000010@corp.test: skipped"), result.output
        )

    def test_text_shows_the_class_of_an_error(self):
        result = self.look_up("a@x", base="ou=missing,dc=corp,dc=test")

        self.assertEqual(result.status, 78)
        self.assertTrue(result.lines[0].startswith("# a@x: error 78: "), result.output)

    def test_every_record_ends_with_nul_if_asked_for(self):
        for form in ("text", "values", "tsv", "json", "ldif"):
            with self.subTest(form=form):
                result = self.look_up(
                    "-0", "--format", form, "-f", "-", stdin=b"user0000010@corp.test\0nobody@x\0"
                )

                self.assertEqual(result.bytes.count(b"\0"), 2, result.output)
                self.assertTrue(result.bytes.endswith(b"\0"), result.output)
                for record in result.bytes.split(b"\0")[:2]:
                    self.assertEqual(record.startswith(b"\n"), False, result.output)

    def test_text_shows_utf8_and_encodes_other_bytes(self):
        result = self.look_up(WITH_BINARY)

        self.assertIn("cn: Zo\u00eb Berg 100", result.lines)
        self.assertIn("cn;lang-fr: Monsieur 100", result.lines)
        self.assertIn(
            "userCertificate;binary:: " + base64.b64encode(self.certificate()).decode(),
            result.lines,
        )
        self.assertEqual(sum(line.startswith("jpegPhoto:: ") for line in result.lines), 1)

    def test_ldif_can_be_read_again(self):
        result = self.look_up("--format", "ldif", WITH_BINARY, "nobody@x", "user0000001@corp.test")

        self.assertEqual(result.status, 1)
        self.assertIn("# nobody@x: not found", result.lines)
        self.assertTrue(all(len(line) <= 78 for line in result.lines))
        first, second = read_ldif(result.output)
        self.assertEqual(first[0], ("dn", b"uid=user0000100,ou=people,dc=corp,dc=test"))
        self.assertIn(("cn", "Zo\u00eb Berg 100".encode()), first)
        self.assertIn(("userCertificate;binary", self.certificate()), first)
        self.assertEqual(second[0], ("dn", b"uid=user0000001,ou=people,dc=corp,dc=test"))

    def test_ldif_is_taken_by_a_directory(self):
        found = self.look_up(
            "--format",
            "ldif",
            "nobody@x",
            WITH_BINARY,
            "nobody@y",
            "user0000001@corp.test",
            "nobody@z",
        )
        ldif = self.file("found.ldif", found.bytes)

        checked = subprocess.run(
            ["ldapadd", "-x", "-n", "-H", self.uri, "-f", ldif],
            capture_output=True,
            timeout=DEADLINE,
            check=False,
        )

        self.assertEqual(checked.returncode, 0, checked.stderr)
        self.assertEqual(checked.stdout.count(b'!adding new entry "uid='), 2, checked.stdout)

    def test_large_values_arrive_whole(self):
        record = self.record_of("bigphoto@corp.test", base="ou=big,dc=corp,dc=test")

        photo = record["entries"][0]["attrs"]["jpegPhoto"][0]["base64"]
        self.assertEqual(len(base64.b64decode(photo, validate=True)), 1 << 20)


class FormatsOfHostileValues(ToolTest):
    """Values that no schema would let in."""

    def look_up(self, form, *attributes, dn=b"cn=x"):
        answer = entry(1, dn, *attributes) + searched(1)
        directory = ScriptedDirectory(self, hanging_up_after(answer))
        return run(
            "lookup", "-H", directory.uri, "-b", "dc=x", "-t", "(cn=$u)", "--format", form, "a"
        )

    def test_text_stays_on_its_lines(self):
        result = self.look_up(
            "text",
            (b"cn", [b"a\ndn: forged", b"", b" b ", b"\x1b[2J"]),
            (b"x\n# forged", [b"1"]),
            dn=b"cn=a\x07",
        )

        self.assertEqual(
            result.lines,
            [
                "# a: found 1",
                "dn:: Y249YQc=",
                "cn:: YQpkbjogZm9yZ2Vk",
                "cn: ",
                "cn:  b ",
                "cn:: G1sySg==",
                "x\\x0A# forged: 1",
                "",
            ],
        )

    def test_values_and_tsv_stay_on_their_line(self):
        for form, before, after in (("values", "", ""), ("tsv", "a\t", "\tfound")):
            with self.subTest(form=form):
                result = self.look_up(form, (b"cn", [b"a\tb\nc", b"", b"\xff,\x1b[2J"]))

                self.assertEqual(
                    result.lines, [before + "a\\x09b\\x0Ac,,\\xFF\\x2C\\x1B[2J" + after]
                )

    def test_json_stays_valid(self):
        result = self.look_up(
            "json",
            (b"cn", [b'a\nb\0"', b"\xff"]),
            (b"x\xff", [b"1"]),
            (b"y;binary", [b"text"]),
            dn=b"\xff",
        )

        entries = json.loads(result.output)["entries"]
        self.assertEqual(
            entries,
            [
                {
                    "dn": {"base64": "/w=="},
                    "attrs": {
                        "cn": ['a\nb\0"', {"base64": "/w=="}],
                        "x\\xFF": ["1"],
                        "y;binary": [{"base64": "dGV4dA=="}],
                    },
                }
            ],
        )

    def test_ldif_stays_readable(self):
        result = self.look_up("ldif", (b"cn", [b"a\nb", b"", b" b", b":c", b"<d", b"e "]), dn=b"")

        record = read_ldif(result.output)[0]
        self.assertEqual(
            record,
            [
                ("dn", b""),
                ("cn", b"a\nb"),
                ("cn", b""),
                ("cn", b" b"),
                ("cn", b":c"),
                ("cn", b"<d"),
                ("cn", b"e "),
            ],
        )

    def test_messages_of_a_server_stay_on_one_line(self):
        refusal = searched(1, 53, text=b"no\nforged: line \x1b[2J")
        directory = ScriptedDirectory(self, hanging_up_after(refusal))

        result = run("lookup", "-H", directory.uri, "-b", "dc=x", "-t", "(cn=$u)", "a")

        self.assert_fails(result, 69, "no\\x0Aforged: line \\x1B[2J")
        self.assertEqual(len(result.lines), 1)


if __name__ == "__main__":
    unittest.main()
