"""`solvane-ldap lookup`: references, sizes, domains, name servers, and keys that come one by one."""

import json
import subprocess
import threading
import unittest

from servers import SEARCH, NameServer, ScriptedDirectory, service, serving, silent
from support import DEADLINE, PEOPLE, READER, TOOL, DirectoryTest, ToolTest, run, tlv


def refer(request, *uris):
    """An answer of search continuations alone (RFC 4511 section 4.5.3)."""
    return request.answer(tlv(0x73, *[tlv(0x04, uri) for uri in uris])) + request.empty()


def records(result):
    return [json.loads(line) for line in result.lines]


class ScriptedLookup(ToolTest):
    def look_up(self, on_search, *arguments, **options):
        self.directory = ScriptedDirectory(self, serving(on_search))
        return run(
            "lookup",
            "-H",
            self.directory.uri,
            "-b",
            "dc=x",
            "-t",
            "(mail=$m)",
            "-o",
            "nettimeout=5",
            *arguments,
            **options,
        )


class ReferencesAlone(ScriptedLookup):
    def ask(self, *arguments):
        return self.look_up(
            lambda request: refer(request, b"ldap://other.test/dc=y"), "a@x.test", *arguments
        )

    def test_are_no_answer(self):
        result = self.ask("--format", "json")

        self.assertEqual(result.status, 75, result.errors)
        self.assertEqual(records(result)[0]["status"], "error")
        self.assertIn("references", records(result)[0]["text"])

    def test_are_not_found_if_they_are_ignored(self):
        for option in (
            ["--references", "ignore"],
            ["-C", self.file("conf", b"references = ignore\n")],
        ):
            result = self.ask(*option, "--format", "json")

            self.assertEqual(result.status, 1, result.errors)
            self.assertEqual(records(result)[0]["status"], "notfound")

    def test_are_remarked_on_where_a_format_has_a_place_for_text(self):
        as_json = self.ask("--references", "ignore", "--format", "json")
        as_tsv = self.ask("--references", "ignore", "--format", "tsv")
        as_text = self.ask("--references", "ignore")

        remark = "returned references to servers that were not asked"
        self.assertIn(remark, records(as_json)[0]["text"])
        self.assertRegex(as_tsv.output, f"^a@x.test\t\tnotfound\t.*{remark}\n$")
        self.assertRegex(as_text.output, f"^# a@x.test: not found: .*{remark}\n$")

    def test_stand_beside_an_entry_without_a_remark(self):
        result = self.look_up(
            lambda request: refer(request, b"ldap://o.test/")[: -len(request.empty())]
            + request.found(),
            "a@x.test",
            "--format",
            "json",
        )

        self.assertEqual((result.status, records(result)[0]["status"]), (0, "found"))


class Sizes(ScriptedLookup):
    def large(self, size):
        return lambda request: request.entry(cn=[b"x" * size]) + request.empty()

    def test_bound_the_entry(self):
        for size, status in ((3000, 75), (1000, 0)):
            result = self.look_up(
                self.large(size), "--entry-bytes", "2048", "a@x.test", "--format", "values"
            )

            self.assertEqual(result.status, status, result.errors)

    def test_bound_the_answer(self):
        def three(request):
            return request.entry(cn=[b"x" * 1000]) * 3 + request.empty()

        for limit, status in ((2048, 75), (8192, 0)):
            result = self.look_up(three, "--answer-bytes", str(limit), "a@x.test")

            self.assertEqual(result.status, status, result.errors)
            if status:
                self.assertIn("2048 bytes", result.errors)

    def test_bound_the_key(self):
        result = self.look_up(
            lambda request: request.empty(),
            "--key-bytes",
            "10",
            "a@x.test",
            "abcdefg@x.test",
            "--format",
            "json",
        )

        self.assertEqual(result.status, 65)
        self.assertEqual([record["status"] for record in records(result)], ["notfound", "error"])
        self.assertEqual(self.directory.count(SEARCH), 1)


class Domains(ScriptedLookup):
    def ask(self, *arguments):
        def found(request):
            is_ascii = b"@xn--mnchen-3ya.test" in request.content
            return request.found() if is_ascii else request.empty()

        return self.look_up(found, *arguments)

    def test_are_looked_up_in_ascii_too(self):
        result = self.ask("user@m\u00fcnchen.test")

        self.assertEqual(result.status, 0, result.errors)

    def test_are_looked_up_as_they_are_if_told_so(self):
        result = self.ask("--ascii-domains", "no", "user@m\u00fcnchen.test")

        self.assertEqual((result.status, self.directory.count(SEARCH)), (1, 1), result.errors)


def reading_keys(directory, *options, **streams):
    """The tool, which reads keys from a pipe and writes a row for each into another."""
    rows = "-b dc=x -t (mail=$m) -f - --format tsv".split()
    return subprocess.Popen(
        [TOOL, "lookup", "-H", directory.uri, *rows, *options],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        **streams,
    )


class KeysOfAPipe(ToolTest):
    def test_are_searched_for_while_others_are_under_way(self):
        """The first key is answered only after the search for the second one came."""
        heard = threading.Event()

        def script(connection):
            first = connection.receive()
            heard.set()
            second = connection.receive()
            if second is not None:
                connection.send(first.empty() + second.empty())
                silent(connection)

        directory = ScriptedDirectory(self, script)
        with reading_keys(directory, "-j", "1", "--deadline", "20", stderr=subprocess.PIPE) as tool:
            tool.stdin.write(b"first@x.test\n")
            tool.stdin.flush()
            self.assertTrue(heard.wait(DEADLINE))
            tool.stdin.write(b"second@x.test\n")
            tool.stdin.flush()
            lines = [tool.stdout.readline() for _ in range(2)]
            output, errors = tool.communicate(timeout=DEADLINE)

        self.assertEqual(
            lines, [b"first@x.test\t\tnotfound\n", b"second@x.test\t\tnotfound\n"], errors
        )
        self.assertEqual((tool.returncode, output, errors), (1, b"", b""))

    def test_are_answered_before_the_next_one_comes(self):
        """A dialogue: the next key is written when the answer to the one before it was read."""
        directory = ScriptedDirectory(self, serving(lambda request: request.empty()))
        with reading_keys(directory) as tool:
            for number in range(50):
                key = b"%d@x.test" % number
                tool.stdin.write(key + b"\n")
                tool.stdin.flush()
                self.assertEqual(tool.stdout.readline(), key + b"\t\tnotfound\n")
            tool.communicate(timeout=DEADLINE)

        self.assertEqual(tool.returncode, 1)


class NamedServers(DirectoryTest):
    slapd_options = ["--users", "5"]

    def ask(self, names, uri, *arguments):
        return self.look_up(
            "--name-servers",
            names.address,
            "--format",
            "values",
            "--attrs",
            "uid",
            *arguments,
            "user0000001@corp.test",
            uri=uri,
        )

    def test_are_asked_for_at_the_name_servers_that_are_told(self):
        names = NameServer(self, hosts={"ldap.corp.test": ["127.0.0.1"]})

        result = self.ask(names, f"ldap://ldap.corp.test:{self.server['LDAP_PORT']}")

        self.assertEqual((result.status, result.lines), (0, ["user0000001"]), result.errors)

    def test_are_found_by_their_domain(self):
        names = NameServer(
            self,
            hosts={"ldap.corp.test": ["127.0.0.1"]},
            services={
                "_ldap._tcp.corp.test": [
                    service(0, 0, int(self.server["LDAP_PORT"]), "ldap.corp.test")
                ]
            },
        )

        result = self.ask(names, "ldap+srv:///dc=corp,dc=test")

        self.assertEqual((result.status, result.lines), (0, ["user0000001"]), result.errors)

    def test_are_tried_in_the_order_of_their_priority(self):
        names = NameServer(
            self,
            hosts={"ldap.corp.test": ["127.0.0.1"], "dead.corp.test": ["127.0.0.1"]},
            services={
                "_ldap._tcp.corp.test": [
                    service(20, 0, int(self.server["LDAP_PORT"]), "ldap.corp.test"),
                    service(10, 0, 1, "dead.corp.test"),
                ]
            },
        )

        result = self.ask(names, "ldap+srv:///dc=corp,dc=test", "-v")

        self.assertEqual((result.status, result.lines), (0, ["user0000001"]), result.errors)

    def test_of_the_file_may_be_a_domain_beside_hosts(self):
        names = NameServer(
            self,
            hosts={"ldap.corp.test": ["127.0.0.1"]},
            services={
                "_ldap._tcp.corp.test": [
                    service(0, 0, int(self.server["LDAP_PORT"]), "ldap.corp.test")
                ]
            },
        )
        settings = self.file(
            "conf",
            (
                f"server_host = ldap://127.0.0.1:1, ldap+srv:///dc=corp,dc=test"
                f"\nname_servers = {names.address}\n"
            ).encode(),
        )

        result = run(
            "-C",
            settings,
            "lookup",
            "-b",
            PEOPLE,
            "-t",
            "(mail=$m)",
            "--attrs",
            "uid",
            "--format",
            "values",
            "user0000001@corp.test",
        )

        self.assertEqual((result.status, result.lines), (0, ["user0000001"]), result.errors)

    def test_of_a_domain_without_records_are_tried_later(self):
        names = NameServer(self, hosts={"ldap.corp.test": ["127.0.0.1"]})

        result = self.ask(names, "ldap+srv:///dc=corp,dc=test", "-o", "nettimeout=5")

        self.assertEqual(result.status, 75, result.errors)
        self.assertIn("corp.test", result.errors)


class ARefusedPassword(DirectoryTest):
    slapd_options = ["--users", "5"]

    def test_is_not_sent_again_while_it_is_held(self):
        wrong = self.file("password", b"wrong")

        result = self.look_up(
            "-D",
            READER,
            "-y",
            wrong,
            "-j",
            "1",
            "--refused-hold",
            "600",
            "--format",
            "json",
            *[f"{n}@corp.test" for n in range(5)],
        )

        self.assertEqual(result.status, 77)
        self.assertEqual({record["code"] for record in records(result)}, {49})
        self.assertTrue(
            any("not tried again" in record["text"] for record in records(result)), result.output
        )


if __name__ == "__main__":
    unittest.main()
