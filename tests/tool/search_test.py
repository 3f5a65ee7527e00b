"""`solvane-ldap search`: what it prints for what a directory has, and what it asks."""

import base64
import json
import os
import subprocess
import unittest

from servers import (
    SEARCH,
    SEARCH_DONE,
    ScriptedDirectory,
    Slapd,
    serving,
    silent,
)
from support import DEADLINE, PEOPLE, TOOL, DirectoryTest, ToolTest, free_port, run, tlv

SUFFIX = "dc=corp,dc=test"
ODD = f"ou=odd,{SUFFIX}"

ESCAPED = f"cn=Jürgen\\, der Große,{ODD}"


def encoded(value):
    return base64.b64encode(value if isinstance(value, bytes) else value.encode()).decode()


ODD_ENTRIES = f"""\
dn: {ODD}
objectClass: organizationalUnit
ou: odd

dn: cn=values,{ODD}
objectClass: inetOrgPerson
cn: values
sn:: {encoded("Müller ß 漢")}
description:: {encoded(" leading blank")}
description:: {encoded("trailing blank ")}
description:: {encoded(': begins with a colon')}
description:: {encoded('< begins with less')}
description: has a # and a: colon
description: {"long " * 40}end
description:: {encoded(b"two" + bytes([10]) + b"lines")}
jpegPhoto:: {encoded(bytes(range(256)) * 3)}
userPassword: secret

dn:: {encoded(ESCAPED)}
objectClass: inetOrgPerson
cn:: {encoded("Jürgen, der Große")}
sn: x

dn: ou=branch,{ODD}
objectClass: referral
objectClass: extensibleObject
ou: branch
ref: ldap://h.test/{"ou=a," * 60}dc=test
ref: ldaps://second.test/dc=other

"""


class Search(DirectoryTest):
    slapd_options = ["--users", "120", "--sizelimit", "100"]

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        subprocess.run(
            ["ldapadd", "-x", "-H", cls.uri, "-D", cls.server["ADMIN_DN"], "-w", "secret"],
            input=ODD_ENTRIES.encode(),
            stdout=subprocess.DEVNULL,
            timeout=DEADLINE,
            check=True,
        )

    def search(self, *arguments, base=SUFFIX, **options):
        return run("search", "-H", self.uri, "-b", base, *arguments, **options)

    def ldapsearch(self, *arguments, base=SUFFIX):
        done = subprocess.run(
            ["ldapsearch", "-x", "-LLL", "-H", self.uri, "-b", base, *arguments],
            capture_output=True,
            timeout=DEADLINE,
            check=False,
        )
        return done.stdout

    def test_prints_the_bytes_of_ldapsearch(self):
        as_admin = ["-D", self.server["ADMIN_DN"]]
        password = self.file("password", b"secret")
        for arguments in (
            [],
            ["(objectClass=*)", "*", "+"],
            ["cn", "sn", "ref"],
            ["-A"],
            ["-A", "(cn=values)", "description", "jpegPhoto"],
            ["-s", "base"],
            ["-s", "one", "(cn=nobody)"],
            ["-M", "(objectClass=referral)"],
            ["-MM", "(objectClass=referral)", "*", "ref"],
            ["cn=values", "1.1"],
            ["-z", "2"],
            ["-z", "max"],
            ["-z", "none", "-l", "max"],
            ["-a", "always", "sn"],
            ["-s", "children"],
            ["-s", "SubOrdinate", "cn"],
            ["-s", "onelevel", "cn"],
            ["-o", "ldif-wrap=no", "*", "ref"],
            ["-o", "ldif-wrap=20", "*", "ref"],
            ["-o", "ldif-wrap=2", "*"],
            ["-o", "ldif-wrap=78", "*", "ref"],
        ):
            with self.subTest(arguments=arguments):
                expected = self.ldapsearch(*as_admin, "-w", "secret", *arguments, base=ODD)

                for form in (["--format", "ldif"], ["-LLL"]):
                    result = self.search(*as_admin, "-y", password, *form, *arguments, base=ODD)

                    self.assertEqual(result.bytes, expected, result.errors)

    def test_begins_ldif_with_the_version_where_asked(self):
        result = self.search("-LL", "-s", "base", "dc", base=SUFFIX)

        self.assertEqual(result.output, f"version: 1\n\ndn: {SUFFIX}\ndc: corp\n\n")

    def test_refuses_an_l_with_another_format(self):
        self.assert_fails(self.search("-L", "--format", "json"), 64, "-L", "json")

    def test_pages_make_no_difference(self):
        whole = ["-M", "(|(objectClass=organizationalUnit)(objectClass=referral))", "*", "+"]
        unpaged = self.search("--format", "ldif", *whole)

        for size in ("1", "2", "7", "1000"):
            with self.subTest(size=size):
                paged = self.search("--format", "ldif", "--page-size", size, *whole)

                self.assertEqual((paged.status, paged.bytes), (0, unpaged.bytes), paged.errors)
        for extension in ("pr=2", "!pr=3/noprompt"):
            with self.subTest(extension=extension):
                paged = self.search("--format", "ldif", "-E", extension, *whole)

                self.assertEqual((paged.status, paged.bytes), (0, unpaged.bytes), paged.errors)

    def test_ends_at_the_limit_of_the_server_with_what_came(self):
        result = self.search("--format", "ldif", "(uid=*)", "uid", base=PEOPLE)

        self.assert_fails(result, 75, "Size limit exceeded (4)", "after 100 entries", "--page-size")
        self.assertEqual(result.output.count("dn: "), 100)

    def test_ends_at_its_own_limit_with_what_came(self):
        result = self.search("-z", "3", "--format", "ldif", "(uid=*)", "uid", base=PEOPLE)

        self.assert_fails(result, 75, "Size limit exceeded (4)", "after 3 entries", "raise -z")
        self.assertEqual(result.output.count("dn: "), 3)

    def test_pages_as_large_as_its_own_limit_are_none(self):
        """The server ignores their control, as it should (RFC 2696 section 3)."""
        for size in ("20", "21"):
            with self.subTest(size=size):
                result = self.search(
                    "-z", "20", "--page-size", size, "(uid=user000000*)", base=PEOPLE
                )

                self.assertEqual((result.status, result.errors), (0, ""))

    def test_returns_subentries_only_if_asked(self):
        for arguments, names in (
            (["-E", "subentries"], []),
            (["-E", "subentries=true"], []),
            (["-E", "subentries=false"], ["user0000001"]),
        ):
            with self.subTest(arguments=arguments):
                result = self.search(
                    "--format", "values", *arguments, "(uid=user0000001)", "uid", base=PEOPLE
                )

                self.assertEqual(result.lines, names, result.errors)

    def test_counts(self):
        for arguments, printed in (
            (["(uid=user000000*)"], "9\n"),
            (["(uid=user000000*)", "mail", "--page-size", "4"], "9\n"),
            (["(uid=user0000001)", "--format", "tsv"], "1\n"),
            (["(uid=user000000*)", "--format", "json"], '{"entries":9,"references":0}\n'),
        ):
            with self.subTest(arguments=arguments):
                result = self.search("--count", *arguments, base=PEOPLE)

                self.assertEqual((result.status, result.output), (0, printed), result.errors)

    def test_counts_none(self):
        result = self.search("--count", "(uid=nobody)", base=PEOPLE)

        self.assertEqual((result.status, result.output), (1, "0\n"), result.errors)

    def test_prints_no_count_that_is_not_whole(self):
        result = self.search("--count", "(uid=*)", base=PEOPLE)

        self.assert_fails(result, 75, "after 100 entries")
        self.assertEqual(result.output, "")

    def test_finds_nothing_quietly(self):
        result = self.search("(uid=nobody)", base=PEOPLE)

        self.assertEqual((result.status, result.output, result.errors), (1, "", ""))

    def test_prints_text(self):
        result = self.search("(uid=user0000001)", "mail", "cn", base=PEOPLE)

        self.assertEqual(
            result.output,
            f"dn: uid=user0000001,{PEOPLE}\ncn: Anna Berg 1\nmail: user0000001@corp.test\n\n",
        )

    def test_prints_references_in_text(self):
        result = self.search("(ou=branch)", "1.1", base=ODD)

        self.assertEqual(result.status, 69)
        self.assertIn("# ref: ldaps://second.test/dc=other??sub\n\n", result.output)
        self.assertIn("1 reference to other servers not followed", result.errors)

    def test_may_take_only_references_for_nothing(self):
        result = self.search("--references", "ignore", "--format", "tsv", "(ou=branch)", base=ODD)

        self.assertEqual((result.status, result.output, result.errors), (1, "", ""))

    def test_prints_json(self):
        result = self.search("(|(cn=values)(ou=branch))", "sn", "cn", "--format", "json", base=ODD)

        entry, reference = sorted((json.loads(line) for line in result.lines), key=len)[::-1]
        self.assertEqual(result.status, 0, result.errors)
        self.assertEqual(
            entry, {"dn": f"cn=values,{ODD}", "attrs": {"cn": ["values"], "sn": ["Müller ß 漢"]}}
        )
        self.assertEqual(reference["references"][1], "ldaps://second.test/dc=other??sub")

    def test_prints_tables_and_values(self):
        who = ["(uid=user0000001)", "cn", "mail"]
        values = "Anna Berg 1,user0000001@corp.test"

        self.assertEqual(
            self.search(*who, "--format", "tsv").output, f"uid=user0000001,{PEOPLE}\t{values}\n"
        )
        self.assertEqual(self.search(*who, "--format", "values").output, values + "\n")
        self.assertEqual(
            self.search("(uid=user0000001)", "1.1", "--format", "tsv").output,
            f"uid=user0000001,{PEOPLE}\t\n",
        )

    def test_says_that_a_table_has_no_references(self):
        for form in (["--format", "tsv"], ["--format", "values"], ["--count"]):
            with self.subTest(form=form):
                result = self.search(*form, base=ODD)

                self.assertEqual(result.status, 0)
                self.assertIn("1 reference to other servers not followed", result.errors)

    def test_ends_records_with_nul(self):
        result = self.search("-0", "(uid=user000000[12])", "(uid=user0000001)")
        self.assertEqual(result.status, 65)

        result = self.search("-0", "(|(uid=user0000001)(uid=user0000002))", "1.1", base=PEOPLE)

        self.assertEqual(
            result.bytes,
            f"dn: uid=user0000001,{PEOPLE}\n\0dn: uid=user0000002,{PEOPLE}\n\0".encode(),
        )

    def test_reads_the_root_dse(self):
        result = self.search("-s", "base", "namingContexts", base="")

        self.assertEqual(result.output, f"dn: \nnamingContexts: {SUFFIX}\n\n")

    def test_reports_a_missing_base(self):
        result = self.search(base=f"ou=none,{SUFFIX}")

        self.assert_fails(result, 78, "No such object (32)", f"matched DN '{SUFFIX}'", "-b")

    def test_reports_a_control_that_the_server_lacks(self):
        result = self.search("--sort", "cn", base=PEOPLE)

        self.assert_fails(result, 69, "(12)", "--sort")

    def test_prints_statistics(self):
        result = self.search("--stats", "(uid=user0000001)", base=PEOPLE)
        self.assertRegex(result.errors, r"^1 entries, 0 references, \d+\.\d\d s, \d+ entries/s\n$")

        result = self.search("--stats=json", "(uid=user0000001)", base=PEOPLE)
        self.assertEqual(json.loads(result.errors)["entries"], 1)

    def test_takes_base_and_scope_of_the_settings_file_but_no_limits(self):
        settings = self.file(
            "mail.conf",
            f"server_host = {self.uri}\nsearch_base = {PEOPLE}\nscope = one\nsize_limit = 1\n"
            "result_attribute = sn\nquery_filter = (mail=$m)\n".encode(),
        )

        result = run("-C", settings, "search", "--format", "json", "(uid=user000000*)", "uid")

        self.assertEqual((result.status, len(result.lines)), (0, 9), result.errors)
        self.assertEqual(json.loads(result.lines[0])["attrs"], {"uid": ["user0000001"]})

    def test_asks_for_a_base_where_that_of_the_settings_has_a_key(self):
        settings = self.file(
            "mail.conf",
            f"server_host = {self.uri}\nsearch_base = ou=%d,{SUFFIX}\npostfix_rules = yes\n"
            "query_filter = (mail=%s)\n".encode(),
        )

        self.assert_fails(run("-C", settings, "search"), 64, "each address", "-b BASE")
        self.assertEqual(run("-C", settings, "search", "-s", "base", "-b", SUFFIX).status, 0)

    def test_ends_quietly_when_the_reader_goes(self):
        reading, writing = os.pipe()
        os.close(reading)
        try:
            result = subprocess.run(
                [TOOL, "search", "-H", self.uri, "-b", SUFFIX, "(uid=user000001*)"],
                stdout=writing,
                stderr=subprocess.PIPE,
                timeout=DEADLINE,
                check=False,
            )
        finally:
            os.close(writing)

        self.assertEqual((result.returncode, result.stderr), (74, b""))


class Sorting(ToolTest):
    def test_sorts_by_each_key(self):
        modules = self.file("modules.conf", b"moduleload sssvlv\n")
        overlay = self.file("overlay.conf", b"overlay sssvlv\n")
        slapd = Slapd(
            self.addCleanup, "--users", "60", "--global-conf", modules, "--db-conf", overlay
        )
        asked = [
            "search",
            "-H",
            slapd.uri,
            "-b",
            PEOPLE,
            "--format",
            "json",
            "(uid=*)",
            "sn",
            "uid",
        ]

        def found(*arguments):
            result = run(*asked, *arguments)
            self.assertEqual(result.status, 0, result.errors)
            entries = [json.loads(line)["attrs"] for line in result.lines]
            return [(entry["sn"][0].lower(), entry["uid"][0]) for entry in entries]

        rule = "caseIgnoreOrderingMatch"
        unsorted = found()
        by_uid = sorted(unsorted, key=lambda pair: pair[1])
        self.assertEqual(len(unsorted), 60)
        for keys, expected in (
            (f"sn:{rule},uid:{rule}", sorted(by_uid)),
            (f"-uid:{rule}", by_uid[::-1]),
            (f"sn:{rule},-uid:{rule}", sorted(by_uid[::-1], key=lambda pair: pair[0])),
        ):
            for pages in ([], ["--page-size", "7"]):
                with self.subTest(keys=keys, pages=pages):
                    self.assertEqual(found("--sort", keys, *pages), expected)
            self.assertEqual(found("-E", "sss=" + keys.replace(",", "/")), expected)

        self.assert_fails(run(*asked, "--sort", "uid"), 65, "(18)", "ordering rule")


class Requests(ToolTest):
    """What is sent, and what is not."""

    def test_refuses_an_invalid_filter_before_it_connects(self):
        for text, words in (
            ("(&(cn=x)", ["at byte 8"]),
            ("(cn=x))", ["at byte 6"]),
            ("(cn=\\zz)", ["at byte"]),
            ("=x", ["at byte 0"]),
        ):
            with self.subTest(text=text):
                directory = ScriptedDirectory(self, silent)

                result = run("search", "-H", directory.uri, "-b", "dc=x", text)
                directory.finish()

                self.assert_fails(result, 65, "invalid filter", text, *words)
                self.assertEqual(directory.connections, [])

    def test_refuses_wrong_arguments(self):
        searching = ["search", "-H", f"ldap://127.0.0.1:{free_port()}", "-b", "dc=x"]
        for arguments, status, word in (
            (["(cn=x)", "(cn=y)"], 65, "one filter"),
            (["(cn)"], 65, "invalid filter"),
            (["(cn=x)", "a b("], 64, "attribute"),
            (["--page-size", "0"], 64, "from 1"),
            (["-z", "-1"], 64, "from 0"),
            (["-l", "x"], 64, "from 0"),
            (["--sort", ""], 64, "sort key"),
            (["--sort", "a b:,c"], 64, "sort key"),
            (["--sort", "-"], 64, "sort key"),
            (["--sort", "cn:"], 64, "sort key"),
            (["--sort", ":rule"], 64, "sort key"),
            (["-s", "all"], 64, "base"),
            (["-s", ""], 64, "children"),
            (["-E", "pr=0"], 64, "from 1"),
            (["-E", "pr"], 64, "from 1"),
            (["-E", "sss="], 64, "sort key"),
            (["-E", "subentries=no"], 64, "subentries"),
            (["-E", "vlv=1"], 64, "-E vlv: unsupported extension"),
            (["-o", "ldif-wrap=1"], 64, "from 2"),
            (["-o", "ldif-wrap="], 64, "from 2"),
            (["cn=x", "member=0"], 64, "attribute"),
        ):
            with self.subTest(arguments=arguments):
                self.assert_fails(run(*searching, *arguments), status, word)

        self.assert_fails(run("search", "-H", "ldap://h"), 64, "-b BASE")

    def test_sends_limits_and_types_only(self):
        directory = ScriptedDirectory(self, serving(lambda request: request.found()))

        run(
            *["search", "-H", directory.uri, "-b", "dc=x", "-s", "one", "-a", "find"],
            *["-z", "7", "-l", "9", "-A", "cn=x"],
        )
        directory.finish()

        sent = directory.connections[0].requests[0]
        fields = (
            tlv(0x04, b"dc=x")
            + tlv(0x0A, b"\x01")  # one level
            + tlv(0x0A, b"\x02")  # find the base
            + tlv(0x02, b"\x07")
            + tlv(0x02, b"\x09")
            + tlv(0x01, b"\xff")
        )
        self.assertEqual(sent.operation, SEARCH)
        self.assertIn(fields, sent.content)

    def test_asks_for_a_range_and_prints_it(self):
        """Active Directory's form of an attribute with many values."""
        directory = ScriptedDirectory(
            self,
            serving(
                lambda request: request.entry(**{"member;range=2-3": [b"a", b"b"]})
                + request.result(SEARCH_DONE)
            ),
        )

        result = run(
            *["search", "-H", directory.uri, "-b", "dc=x", "-LLL", "cn=x", "member;range=2-*"]
        )
        directory.finish()

        self.assertEqual(result.status, 0, result.errors)
        self.assertIn("\nmember;range=2-3: a\nmember;range=2-3: b\n", result.output)
        asked = tlv(0x30, tlv(0x04, b"member;range=2-*"))
        self.assertIn(asked, directory.connections[0].requests[0].content)

    def test_refuses_an_entry_larger_than_the_limit(self):
        directory = ScriptedDirectory(
            self,
            serving(lambda request: request.entry(cn=[b"x" * 5000]) + request.result(SEARCH_DONE)),
        )
        searching = ["search", "-H", directory.uri, "-b", "dc=x", "cn=x"]

        self.assertEqual(run(*searching).status, 0)
        self.assert_fails(run(*searching, "--entry-bytes", "4096"), 75, "larger than 4096 bytes")

    def test_says_that_a_server_may_lack_the_scope_children(self):
        refusing = serving(lambda request: request.result(SEARCH_DONE, 2))
        directory = ScriptedDirectory(self, refusing)

        result = run("search", "-H", directory.uri, "-b", "dc=x", "-s", "children", "cn=x")
        directory.finish()

        self.assert_fails(result, 78, "(2)", "lack the scope children")
        self.assertIn(tlv(0x0A, b"\x03"), directory.connections[0].requests[0].content)

    def test_asks_for_no_attributes_to_count(self):
        directory = ScriptedDirectory(self, serving(lambda request: request.found()))

        result = run("search", "-H", directory.uri, "-b", "dc=x", "--count", "cn=x", "mail")
        directory.finish()

        self.assertEqual(result.output, "1\n")
        self.assertIn(tlv(0x30, tlv(0x04, b"1.1")), directory.connections[0].requests[0].content)


if __name__ == "__main__":
    unittest.main()
