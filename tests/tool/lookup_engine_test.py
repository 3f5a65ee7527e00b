"""`solvane-ldap lookup` on scripted servers: references, sizes, domains, name servers, keys that
come one by one, and servers that are down, silent, or make no sense: never "not found"."""

import json
import os
import subprocess
import threading
import unittest

from servers import BIND, BIND_RESPONSE, EXTENDED, SEARCH, SEARCH_DONE, NameServer
from servers import ScriptedDirectory, service, serving, silent
from support import DEADLINE, PEOPLE, READER, TOOL, DirectoryTest, ToolTest, free_port, message, run
from support import tlv


def refer(request, *uris):
    """An answer of search continuations alone (RFC 4511 section 4.5.3)."""
    return request.answer(tlv(0x73, *[tlv(0x04, uri) for uri in uris])) + request.empty()


def records(result):
    return [json.loads(line) for line in result.lines]


class ScriptedLookup(ToolTest):
    def look_up(self, on_search, *arguments, **options):
        self.directory = ScriptedDirectory(self, serving(on_search))
        result = run(
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
        self.directory.finish()
        return result


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
            "-q",
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
        result = self.ask("-q", "--ascii-domains", "no", "user@m\u00fcnchen.test")

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


SEARCH_REFERENCE, INTERMEDIATE = 0x73, 0x79


class ServerFailure(ToolTest):
    def setUp(self):
        super().setUp()
        self.password = self.file("password", b"hunter2")

    def look_up(self, uri, *arguments, **options):
        patience = [] if "-o" in arguments else ["-o", "nettimeout=1"]
        result = run(
            "lookup",
            "-H",
            uri,
            "-b",
            "dc=x",
            "-t",
            "(cn=$u)",
            *patience,
            *(arguments or ["a"]),
            **options,
        )
        self.assertNotIn(": not found", result.output)
        self.assertNotIn("hunter2", result.output + result.errors)
        return result

    def answered(self, on_search, *arguments, **options):
        """A lookup whose searches are answered so; None hangs up."""
        return self.look_up(ScriptedDirectory(self, serving(on_search)).uri, *arguments, **options)

    def bound(self, script, *arguments, **options):
        """A lookup that binds first."""
        directory = ScriptedDirectory(self, script)
        return self.look_up(
            directory.uri, "-D", READER, "-y", self.password, *(arguments or ["a"]), **options
        )

    def bound_with(self, on_bind, **options):
        return self.bound(serving(lambda request: request.empty(), on_bind=on_bind), **options)

    def test_reports_a_server_that_is_down_and_gives_each_key_a_record(self):
        result = self.look_up(f"ldap://127.0.0.1:{free_port()}", "a", "b", "")

        self.assertEqual(result.status, 75)
        self.assertEqual(
            [line[:14] for line in result.lines],
            ["# a: error 75:", "# b: error 75:", "# : error 65: "],
        )
        self.assertIn("cannot connect: 127.0.0.1 port ", result.error_lines[0])
        self.assertIn("check that the server is running", result.error_lines[0])

    def test_reports_a_server_that_is_down_once(self):
        result = self.look_up(f"ldap://127.0.0.1:{free_port()}", "a", "b", "", "c", "d", "e")

        self.assertEqual(len(result.lines), 6)
        self.assertIn(": a: ", result.error_lines[0])
        self.assertEqual(result.error_lines[1], "solvane-ldap: same error for 1 more key")
        self.assertIn("the key is empty", result.error_lines[2])
        self.assertIn(": c: ", result.error_lines[3])
        self.assertEqual(result.error_lines[4:], ["solvane-ldap: same error for 2 more keys"])

    def test_reports_a_host_that_does_not_resolve(self):
        self.assert_fails(
            self.look_up("ldap://no-such-host.invalid"),
            75,
            "cannot resolve 'no-such-host.invalid'",
            "-H",
        )

    def test_keeps_quiet_about_a_host_that_does_not_resolve(self):
        result = self.look_up("ldap://no-such-host.invalid", "-q", "a")

        self.assertEqual((result.status, result.errors), (75, ""))

    def test_reports_a_server_that_speaks_no_tls(self):
        def script(connection):
            connection.send(b"HTTP/1.1 400 Bad Request\r\n\r\n")
            connection.wait_until_closed()

        directory = ScriptedDirectory(self, script)

        self.assert_fails(
            self.look_up(directory.uri.replace("ldap:", "ldaps:")),
            75,
            "the server does not speak TLS",
        )

    def test_reports_a_server_that_stays_silent_while_tls_begins(self):
        directory = ScriptedDirectory(self, lambda connection: connection.wait_until_closed())

        self.assert_fails(
            self.look_up(directory.uri.replace("ldap:", "ldaps:")),
            75,
            "the TLS handshake was not finished within 1 s",
            "nettimeout",
        )

    def test_reports_a_bind_without_answer(self):
        self.assert_fails(
            self.bound_with(lambda request: b""),
            75,
            "did not answer the bind within 1 s",
            "nettimeout",
        )

    def test_reports_an_end_during_the_bind(self):
        self.assert_fails(self.bound_with(lambda request: None), 75, "broke during the bind")

    def test_reports_a_bind_answered_with_something_else(self):
        self.assert_fails(
            self.bound_with(lambda request: request.result(SEARCH_DONE)),
            75,
            "invalid response to the bind",
        )

    def test_gives_each_code_of_a_bind_its_exit_status(self):
        for code, status in (
            (1, 75),
            (2, 78),
            (7, 77),
            (8, 77),
            (10, 69),
            (13, 77),
            (32, 77),
            (34, 65),
            (48, 77),
            (49, 77),
            (50, 77),
            (51, 75),
            (52, 75),
            (53, 69),
            (80, 75),
        ):
            with self.subTest(code=code):
                result = self.bound_with(
                    lambda request: request.result(BIND_RESPONSE, code, text=b"because")
                )

                self.assert_fails(result, status, "the bind is refused", f"({code}): because")

    def test_reports_a_bind_that_refers(self):
        for code in (0, 10):
            with self.subTest(code=code):
                result = self.bound_with(
                    lambda request: request.result(
                        BIND_RESPONSE, code, referrals=[b"ldap://elsewhere/"]
                    )
                )

                self.assertIn(result.status, (69, 75))
                self.assertEqual(len(result.error_lines), 1)

    def test_reports_a_question_who_we_are_without_answer(self):
        def script(connection):
            while (request := connection.receive()) is not None:
                if request.operation == BIND:
                    connection.send(request.result(BIND_RESPONSE))
                elif request.operation != EXTENDED:
                    connection.send(request.empty())

        self.assert_fails(self.bound(script), 75, "did not answer the who am I request")

    def test_reports_a_search_without_answer_and_shows_what_came(self):
        result = self.answered(
            lambda request: request.entry(b"cn=a", cn=[b"a"]),
            "-o",
            "nettimeout=9",
            "--deadline",
            "1",
            "a",
        )

        self.assert_fails(result, 75, "within the deadline of 1 s", "--deadline")
        self.assertTrue(
            result.lines[0].startswith("# a: error 75 after 1 of its entries: "), result.output
        )
        self.assertIn("dn: cn=a", result.lines)

    def test_reports_a_busy_server_for_its_key_and_asks_for_the_others(self):
        def answer(request):
            if b"busy" in request.content:
                return request.result(SEARCH_DONE, 51)
            return request.found()

        result = self.answered(answer, "--format", "json", "a", "busy", "c")

        records = [json.loads(line) for line in result.lines]
        self.assertEqual(result.status, 75)
        self.assertEqual(
            [(record["key"], record["status"], record["code"]) for record in records],
            [("a", "found", 0), ("busy", "error", 51), ("c", "found", 0)],
        )
        self.assertEqual(len(result.error_lines), 1, result.errors)

    def test_repeats_each_search_that_the_server_ends_once(self):
        result = self.answered(lambda request: None, "--format", "json", "a", "b", "c")

        records = [json.loads(line) for line in result.lines]
        self.assertEqual(result.status, 75)
        self.assertEqual(
            [
                (record["key"], record["status"], record["code"], record["retried"])
                for record in records
            ],
            [(key, "error", -1, True) for key in ("a", "b", "c")],
        )

    def test_reports_a_search_that_refers_with_success(self):
        result = self.answered(
            lambda request: request.result(SEARCH_DONE, referrals=[b"ldap://elsewhere/"])
        )

        self.assert_fails(result, 69, "ldap://elsewhere/")

    def test_reports_an_answer_that_is_no_ldap(self):
        for answer in (
            b"HTTP/1.1 400 Bad Request\r\n\r\n",
            b"\x30\x80\x02\x01\x02",
            message(1, tlv(INTERMEDIATE, b"")),
            message(1, tlv(0x7E, b"")),
            b"\x30\x03\x02\x01",
        ):
            with self.subTest(answer=answer):
                result = self.answered(lambda request: answer, "--deadline", "3", "a")

                self.assertEqual(result.status, 75, result.errors)
                self.assertEqual(len(result.error_lines), 1, result.errors)

    def test_reports_a_reference_that_cannot_be_read(self):
        result = self.answered(
            lambda request: request.answer(tlv(SEARCH_REFERENCE, b"\x04\x7f")) + request.empty()
        )

        self.assertIn(result.status, (69, 75), result.errors)

    def test_reports_a_notice_of_disconnection(self):
        notice = message(
            0,
            tlv(
                0x78,
                tlv(0x0A, b"\x34"),
                tlv(0x04, b""),
                tlv(0x04, b"going down"),
                tlv(0x8A, b"1.3.6.1.4.1.1466.20036"),
            ),
        )

        # OpenLDAP 2.5 forgets the memory of a notice, in a program without this library as well.
        without_leak_search = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}
        result = self.answered(lambda request: notice, env=without_leak_search)

        self.assert_fails(
            result,
            75,
            "the connection broke during the search: the server is closing the connection: "
            "Server is unavailable (52): going down",
        )
        self.assertIn(": ldap://127.0.0.1:", result.errors)

    def test_names_no_password_in_a_failure(self):
        result = self.bound(
            serving(
                lambda request: request.empty(),
                on_bind=lambda request: request.result(BIND_RESPONSE, 49),
            ),
            "-v",
            "a",
        )

        self.assertEqual(result.status, 77)  # and look_up() has looked for the password


if __name__ == "__main__":
    unittest.main()
