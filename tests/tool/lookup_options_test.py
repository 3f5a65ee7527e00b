"""Every option of `solvane-ldap lookup`, and every exit status, on real and scripted servers."""

import json
import subprocess
import threading
import time
import unittest

from servers import SEARCH, SEARCH_DONE, ScriptedDirectory, Slapd, serving, silent
from support import DEADLINE, PEOPLE, READER, READER_PASSWORD, TOOL, DirectoryTest, ToolTest
from support import free_port, read_ldif

SUFFIX = "dc=corp,dc=test"
CODES = "ou=codes,dc=corp,dc=test"
USER = "user0000001@corp.test"
EVERYTHING = "(objectClass=*)"


def records_in(result):
    return [json.loads(line) for line in result.lines]


class OptionsOnADirectory(DirectoryTest):
    slapd_options = ["--users", "200", "--retcode"]

    def as_reader(self):
        return ["-D", READER, "-y", self.file("password", READER_PASSWORD.encode())]

    def record_of(self, *arguments, **options):
        """The exit status, and the only JSON record."""
        result = self.look_up("--format", "json", *arguments, **options)
        self.assertEqual(len(result.lines), 1, result.errors)
        return result.status, json.loads(result.lines[0])

    # Servers and time

    def test_asks_the_servers_in_their_order(self):
        dead = f"ldap://127.0.0.1:{free_port()}"
        other = ScriptedDirectory(self, serving(lambda request: request.found()))

        for uris, answering in (
            ([dead, self.uri, other.uri], self.uri),
            ([self.uri, other.uri], self.uri),
            ([other.uri, self.uri], other.uri),
        ):
            with self.subTest(uris=uris):
                more = [word for uri in uris[1:] for word in ("-H", uri)]

                status, record = self.record_of(*more, USER, uri=uris[0])

                self.assertEqual((status, record["server"]), (0, answering))

    def test_speaks_the_version_that_it_is_told(self):
        for version in (2, 3):
            directory = ScriptedDirectory(self, serving(lambda request: request.found()))

            result = self.look_up("-P", str(version), *self.as_reader(), USER, uri=directory.uri)

            self.assertEqual(result.status, 0, result.errors)
            self.assertIn(
                bytes([0x02, 0x01, version, 0x04, len(READER)]) + READER.encode(),
                directory.connections[0].requests[0].content,
            )
            self.assertEqual(self.look_up("-P", str(version), *self.as_reader(), USER).status, 0)

    def test_waits_for_a_slow_server_as_long_as_it_is_told(self):
        slow = {"base": f"cn=sleep2,{CODES}", "template": EVERYTHING}

        patient = self.record_of("-o", "nettimeout=20", "x", **slow)
        impatient = self.record_of("-o", "nettimeout=1", "x", **slow)
        short = self.record_of(
            "--deadline", "1", "x", base=f"cn=sleep10,{CODES}", template=EVERYTHING
        )

        self.assertEqual((patient[0], patient[1]["status"]), (1, "notfound"))
        self.assertGreater(patient[1]["ms"], 1500)
        self.assertEqual((impatient[0], impatient[1]["code"]), (75, -5))
        self.assertEqual((short[0], short[1]["code"]), (75, -5))
        self.assertIn("within the deadline of 1 s", short[1]["text"])
        self.assertLess(short[1]["ms"], 8000, short)

    def test_tries_later_where_the_server_hangs_up(self):
        # With "post" the answer comes first, and counts.
        for name, code in (("pre", -1), ("post", 51)):
            with self.subTest(name=name):
                status, record = self.record_of(
                    "-s", "base", "x", base=f"cn={name},{CODES}", template=EVERYTHING
                )

                self.assertEqual((status, record["status"], record["code"]), (75, "error", code))

    # Exit statuses

    def test_ends_each_result_code_in_its_exit_status(self):
        for name, code, status in (
            ("ok", 0, 1),
            ("operationsError", 1, 75),
            ("timeLimitExceeded", 3, 75),
            ("sizeLimitExceeded", 4, 75),
            ("referral", 10, 69),
            ("noSuchObject", 32, 78),
            ("invalidDNSyntax", 34, 65),
            ("insufficientAccess", 50, 77),
            ("busy", 51, 75),
            ("unavailable", 52, 75),
            ("unwillingToPerform", 53, 69),
            ("other", 80, 75),
        ):
            with self.subTest(name=name):
                answered, record = self.record_of(
                    "x", base=f"cn={name},{CODES}", template=EVERYTHING
                )

                self.assertEqual((answered, record["code"]), (status, code))
                self.assertEqual(record["status"], "error" if code else "notfound")

    def test_ends_in_the_status_of_the_worst_key(self):
        def answer(request):
            for word, code in ((b"base", 32), (b"access", 50), (b"busy", 51), (b"will", 53)):
                if word in request.content:
                    return request.result(SEARCH_DONE, code)
            return request.found() if b"found" in request.content else request.empty()

        directory = ScriptedDirectory(self, serving(answer))
        ranked = [
            ("found", 0),
            ("nobody", 1),
            ("\x01", 65),
            ("will", 69),
            ("busy", 75),
            ("access", 77),
            ("base", 78),
        ]

        for worst in range(len(ranked)):
            result = self.look_up(
                *[key for key, _ in reversed(ranked[: worst + 1])],
                uri=directory.uri,
                base="dc=x",
                template="(uid=$u)",
            )

            self.assertEqual(result.status, ranked[worst][1], result.output)

    def test_maps_only_not_found_to_the_status_of_nouser(self):
        self.assertEqual(self.look_up("--nouser", "67", "nobody@corp.test").status, 67)
        self.assertEqual(self.look_up("--nouser", "67", USER).status, 0)
        self.assertEqual(self.look_up("--nouser", "67", "nobody@corp.test", "\x01").status, 65)
        self.assertEqual(
            self.look_up(
                "--nouser", "67", "nobody@corp.test", uri=f"ldap://127.0.0.1:{free_port()}"
            ).status,
            75,
        )

    def test_refuses_several_entries_where_one_is_wanted(self):
        one = self.record_of("--single", "--attrs", "1.1", USER)
        several = self.record_of("--single", "--attrs", "1.1", "Anna", template="(givenName=$u)")
        allowed = self.record_of("--attrs", "1.1", "Anna", template="(givenName=$u)")

        self.assertEqual((one[0], one[1]["status"]), (0, "found"))
        self.assertEqual((several[0], several[1]["status"]), (65, "error"))
        self.assertEqual(several[1]["code"], 0)  # the server has nothing against them
        self.assertIn("entries found, --single allows one", several[1]["text"])
        self.assertEqual((allowed[0], allowed[1]["status"]), (0, "found"))
        self.assertGreater(len(allowed[1]["entries"]), 1)

    # The search

    def test_searches_as_deep_as_it_is_told(self):
        def found(scope, base):
            record = self.record_of(
                "-s",
                scope,
                "--attrs",
                "1.1",
                "x",
                base=base,
                template="(|(uid=user0000001)(ou=people)(dc=corp))",
            )[1]
            return [entry["dn"] for entry in record["entries"]]

        top, people, user = SUFFIX, PEOPLE, f"uid=user0000001,{PEOPLE}"
        self.assertEqual(found("base", SUFFIX), [top])
        self.assertEqual(found("one", SUFFIX), [people])
        self.assertEqual(found("sub", SUFFIX), [top, people, user])
        self.assertEqual(found("one", PEOPLE), [user])

    def test_follows_aliases_as_it_is_told(self):
        def found(mode, base, scope):
            return {
                entry["dn"]
                for entry in self.record_of(
                    "-a", mode, "-s", scope, "--attrs", "1.1", "x", base=base, template=EVERYTHING
                )[1]["entries"]
            }

        alias = "uid=alias00001,ou=aliases,dc=corp,dc=test"
        user = f"uid=user0000001,{PEOPLE}"
        self.assertEqual(
            [found(mode, alias, "base") for mode in ("never", "search", "find", "always")],
            [{alias}, {alias}, {user}, {user}],
        )
        below = {
            mode: found(mode, "ou=aliases,dc=corp,dc=test", "one")
            for mode in ("never", "search", "find", "always")
        }
        self.assertIn(alias, below["never"])
        self.assertIn(alias, below["find"])
        self.assertIn(user, below["search"])
        self.assertIn(user, below["always"])

    def test_shows_the_attributes_that_are_named(self):
        def shown(*arguments):
            return set(self.record_of(*arguments, USER)[1]["entries"][0]["attrs"])

        self.assertEqual(shown("--attrs", "mail,uid"), {"mail", "uid"})
        self.assertEqual(shown("--attrs", "1.1"), set())
        self.assertTrue({"cn", "sn", "mail", "objectClass"} < shown())
        self.assertIn("entryUUID", shown("--attrs", "*,+"))
        self.assertNotIn("entryUUID", shown())

    def test_inserts_the_optional_values(self):
        status, record = self.record_of(
            "--b", "user0000007", "--g", "corp*", "x", template="(|(uid=$b)(o=$g))"
        )

        self.assertEqual(status, 0)
        self.assertEqual(record["filter"], "(|(uid=user0000007)(o=corp\\2A))")
        self.assertEqual(record["entries"][0]["dn"], f"uid=user0000007,{PEOPLE}")

    def test_keeps_the_limit_of_entries(self):
        for limit, status, count in (
            ("5", 75, 5),
            ("199", 75, 199),
            ("200", 0, 200),
            ("0", 0, 200),
        ):
            with self.subTest(limit=limit):
                answered, record = self.record_of(
                    "-z", limit, "--attrs", "1.1", "x", template="(uid=*)"
                )

                self.assertEqual((answered, len(record["entries"])), (status, count))
                self.assertEqual(record["code"], 4 if status else 0)

    def test_tells_the_server_both_limits(self):
        directory = ScriptedDirectory(self, serving(lambda request: request.found()))

        self.look_up("-z", "7", "-l", "5", USER, uri=directory.uri)

        self.assertIn(b"\x02\x01\x07\x02\x01\x05", directory.connections[0].requests[0].content)

    # Keys

    def test_skips_other_domains(self):
        served = self.file("domains", b"# ours\ncorp.test\nother.test\n")
        for domains in ("corp.test", "other.test, CORP.test", "@" + served):
            with self.subTest(domains=domains):
                result = self.look_up(
                    "--domains",
                    domains,
                    "--format",
                    "tsv",
                    "--attrs",
                    "uid",
                    USER,
                    "USER0000002@CORP.TEST",
                    "user0000001@elsewhere.test",
                    "user",
                )

                self.assertEqual(result.status, 1)
                self.assertEqual(
                    result.lines,
                    [
                        f"{USER}\tuser0000001\tfound",
                        "USER0000002@CORP.TEST\tuser0000002\tfound",
                        "user0000001@elsewhere.test\t\tskipped",
                        "user\t\tskipped",
                    ],
                )
                self.assertEqual(result.errors, "")

    def test_asks_nobody_about_other_domains(self):
        directory = ScriptedDirectory(self, silent)

        result = self.look_up("--domains", "corp.test", "a@x", "b@y", uri=directory.uri)
        directory.finish()

        self.assertEqual((result.status, directory.connections), (1, []))

    def test_tries_the_forms_in_their_order(self):
        directory = ScriptedDirectory(self, serving(lambda request: request.empty()))

        def asked(*arguments):
            before = len(directory.connections)
            self.look_up("-q", *arguments, uri=directory.uri, template="(m=<$u|$d>)")
            return [
                request.content[request.content.index(b"<") :].partition(b">")[0].decode()
                for connection in directory.connections[before:]
                for request in connection.requests
                if request.operation == SEARCH
            ]

        self.assertEqual(asked("u+x@d"), ["<u+x|d"])
        self.assertEqual(
            asked("--forms", "full,noext,bare,domain", "u+x@d"), ["<u+x|d", "<u|d", "<u|#", "<|d"]
        )
        self.assertEqual(asked("--forms", "domain,full", "u+x@d"), ["<|d", "<u+x|d"])
        self.assertEqual(asked("--forms", "full,noext", "u@d"), ["<u|d"])  # the same text once

    def test_finds_by_the_first_form_that_matches(self):
        status, record = self.record_of(
            "--forms", "full,noext", "--attrs", "uid", "user0000001+lists@corp.test"
        )

        self.assertEqual((status, record["filter"]), (0, f"(mail={USER})"))
        self.assertEqual(record["key"], "user0000001+lists@corp.test")

    def test_parts_the_extension_at_the_delimiter(self):
        for delimiter, key, status in (
            ("-", "user0000001-x@corp.test", 0),
            ("-", "user0000001+x@corp.test", 1),
            ("", "user0000001+x@corp.test", 1),
            ("+", "user0000001+x@corp.test", 0),
        ):
            with self.subTest(delimiter=delimiter, key=key):
                result = self.look_up("--forms", "full,noext", "--delimiter", delimiter, key)

                self.assertEqual(result.status, status, result.errors)

    def test_reads_keys_from_a_file_and_from_standard_input(self):
        content = b"user0000001@corp.test\nnobody@corp.test\nuser0000002@corp.test"
        expected = [
            f"{USER}\tuser0000001\tfound",
            "nobody@corp.test\t\tnotfound",
            "user0000002@corp.test\tuser0000002\tfound",
        ]

        for source, options in ((self.file("keys", content), {}), ("-", {"stdin": content})):
            result = self.look_up("-f", source, "--format", "tsv", "--attrs", "uid", **options)

            self.assertEqual((result.status, result.lines), (1, expected))

        self.assert_fails(self.look_up("-f", self.folder + "/none"), 78, "No such file")
        self.assertEqual(self.look_up("-f", "-").status, 0)  # no keys, no trouble

    def test_ends_keys_and_records_with_nul(self):
        result = self.look_up(
            "-0",
            "-f",
            "-",
            "--format",
            "values",
            "--attrs",
            "uid",
            stdin=b"user0000001@corp.test\0user0000002@corp.test\0",
        )

        self.assertEqual((result.status, result.bytes), (0, b"user0000001\0user0000002\0"))

    def test_goes_on_after_errors_with_and_without_being_told(self):
        for option in ([], ["-c"]):
            result = self.look_up(*option, "--format", "tsv", "--attrs", "uid", "\x01", USER)

            self.assertEqual((result.status, len(result.lines)), (65, 2))
            self.assertEqual(result.lines[1], f"{USER}\tuser0000001\tfound")

    # Connections

    def test_opens_as_many_connections_as_it_is_told(self):
        for connections in (1, 3):
            with self.subTest(connections=connections):
                opened = threading.Event()

                def answer(request, directory, wanted=connections, all_=opened):
                    if len(directory.connections) >= wanted:
                        all_.set()
                    all_.wait(DEADLINE)
                    return request.found()

                directory = ScriptedDirectory(
                    self,
                    lambda connection: serving(lambda request: answer(request, directory))(
                        connection
                    ),
                )

                result = self.look_up(
                    "-j",
                    str(connections),
                    "--window",
                    "1",
                    *[f"u{n}@x" for n in range(12)],
                    uri=directory.uri,
                )
                directory.finish()

                self.assertEqual(result.status, 0, result.errors)
                self.assertEqual(len(directory.connections), connections)

    def test_has_as_many_searches_in_flight_as_it_is_told(self):
        counts = []

        def script(connection):
            held = []
            while (request := connection.receive()) is not None:
                if request.operation == SEARCH:
                    held.append(request)
                    if len(held) == 5:  # no answer to fewer
                        counts.append(connection.has_more())
                        for each in held:
                            connection.send(each.found())
                        held = []

        directory = ScriptedDirectory(self, script)

        result = self.look_up(
            "-j", "1", "--window", "5", *[f"u{n}@x" for n in range(20)], uri=directory.uri
        )

        self.assertEqual(result.status, 0, result.errors)
        self.assertFalse(counts[0])

    # Output

    def test_writes_each_form(self):
        def written(form):
            return self.look_up("--format", form, "--attrs", "uid,mail", USER, "nobody@x", "\x01")

        dn = f"uid=user0000001,{PEOPLE}"
        self.assertEqual(
            written("text").lines,
            [
                f"# {USER}: found 1",
                f"dn: {dn}",
                "uid: user0000001",
                f"mail: {USER}",
                "",
                "# nobody@x: not found",
                "# \\x01: error 65: the key contains a control character at byte 0",
            ],
        )
        self.assertEqual(written("values").lines, [f"user0000001,{USER}", "", ""])
        self.assertEqual(
            written("tsv").lines,
            [
                f"{USER}\tuser0000001,{USER}\tfound",
                "nobody@x\t\tnotfound",
                "\\x01\t\terror\t" "the key contains a control character at byte 0",
            ],
        )
        self.assertEqual(
            [(record["key"], record["status"]) for record in records_in(written("json"))],
            [(USER, "found"), ("nobody@x", "notfound"), ("\x01", "error")],
        )
        self.assertEqual(
            read_ldif(written("ldif").output),
            [[("dn", dn.encode()), ("uid", b"user0000001"), ("mail", USER.encode())]],
        )

    def test_counts_what_it_did(self):
        keys = [USER, "user0000002@corp.test", "nobody@corp.test", "x@other.test", "\x01"]

        result = self.look_up(
            "--stats=json", "-q", "-j", "1", "--domains", "corp.test", *keys[:4], "\x01@corp.test"
        )
        text = self.look_up(
            "--stats", "-q", "-j", "1", "--domains", "corp.test", *keys[:4], "\x01@corp.test"
        )

        figures = json.loads(result.errors)
        times = {
            name: figures.pop(name) for name in ("p50_ms", "p99_ms", "seconds", "keys_per_second")
        }
        self.assertEqual(
            figures,
            {
                "keys": 5,
                "found": 2,
                "notfound": 1,
                "skipped": 1,
                "errors": 1,
                "repeats": 0,
                "pool_hits": 2,
                "pool_misses": 1,
                "stale": 0,
            },
        )
        self.assertGreater(min(times.values()), 0)
        self.assertGreaterEqual(times["p99_ms"], times["p50_ms"])
        self.assertEqual(
            text.error_lines[:2],
            [
                "keys 5: found 2, not found 1, skipped 1, errors 1",
                "repeats 0, pool hits 2, pool misses 1, stale 0",
            ],
        )
        self.assertRegex(
            text.error_lines[2], r"^p50 [\d.]+ ms, p99 [\d.]+ ms, [\d.]+ s, \d+ keys/s$"
        )

    def test_counts_repeats(self):
        searches = []

        def answer(request):
            searches.append(request)
            return request.found() if len(searches) > 1 else None

        directory = ScriptedDirectory(self, serving(answer))

        result = self.look_up("--stats=json", "-j", "1", "a@x", uri=directory.uri)

        figures = json.loads(result.errors)
        self.assertEqual((figures["repeats"], figures["pool_misses"], figures["found"]), (1, 2, 1))

    def test_says_more_or_nothing_on_request(self):
        quiet = self.look_up("-q", USER, "\x01")
        verbose = self.look_up("-v", USER, "\x01")

        self.assertEqual((quiet.status, quiet.errors), (65, ""))
        self.assertEqual(len(quiet.lines), len(verbose.lines))
        self.assertEqual(len(verbose.error_lines), 2)
        self.assertIn(f"found by {self.uri}", verbose.error_lines[0])


class ManyKeys(ToolTest):
    """5,000 keys while a server comes and goes."""

    COUNT = 5000

    def setUp(self):
        super().setUp()
        self.first = Slapd(self.addCleanup, "--users", str(self.COUNT))
        self.keys = [f"user{n:07d}@corp.test" for n in range(1, self.COUNT + 1)]

    def start(self, *uris):
        servers = [word for uri in uris for word in ("-H", uri)]
        tool = subprocess.Popen(
            [
                TOOL,
                "lookup",
                *servers,
                "-b",
                PEOPLE,
                "-t",
                "(mail=$m)",
                "--format",
                "tsv",
                "--attrs",
                "uid",
                "-q",
                "-f",
                "-",
            ],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        self.addCleanup(tool.__exit__, None, None, None)
        self.addCleanup(tool.kill)
        watchdog = threading.Timer(4 * DEADLINE, tool.kill)
        watchdog.start()
        self.addCleanup(watchdog.cancel)
        return tool

    @staticmethod
    def give(tool, keys):
        """Without waiting for the tool to take them."""

        def write():
            tool.stdin.write("".join(key + "\n" for key in keys).encode())
            tool.stdin.flush()

        writing = threading.Thread(target=write)
        writing.start()
        return writing

    @staticmethod
    def take(tool, count):
        return [tool.stdout.readline().decode().rstrip("\n").split("\t") for _ in range(count)]

    def assert_in_order(self, records):
        self.assertEqual([record[0] for record in records], self.keys)
        for key, value, status, *_ in records:
            self.assertIn((value, status), ((key.partition("@")[0], "found"), ("", "error")))

    def test_are_all_answered_in_order_though_the_server_is_killed_and_started_again(self):
        half = self.COUNT // 2
        tool = self.start(self.first.uri)

        writing = self.give(tool, self.keys[:half])
        records = self.take(tool, 500)
        self.first.kill()
        records += self.take(tool, half - 500)
        writing.join(DEADLINE)
        self.first.start()
        writing = self.give(tool, self.keys[half:])
        records += self.take(tool, self.COUNT - half)
        writing.join(DEADLINE)
        rest, _ = tool.communicate(timeout=DEADLINE)

        self.assertEqual(rest, b"")
        self.assert_in_order(records)
        self.assertEqual({record[2] for record in records[:500] + records[half:]}, {"found"})
        self.assertEqual(records[half - 1][2], "error")
        self.assertEqual(tool.returncode, 75)

    def test_are_all_found_where_another_server_is_there(self):
        second = Slapd(self.addCleanup, "--users", str(self.COUNT))
        tool = self.start(self.first.uri, second.uri)

        writing = self.give(tool, self.keys)
        records = self.take(tool, 500)
        self.first.kill()
        records += self.take(tool, 500)
        self.first.start()
        records += self.take(tool, self.COUNT - 1000)
        writing.join(DEADLINE)
        tool.stdin.close()

        self.assertEqual(tool.stdout.read(), b"")
        self.assert_in_order(records)
        self.assertEqual({record[2] for record in records}, {"found"})
        self.assertEqual(tool.wait(DEADLINE), 0)

    def test_are_all_answered_though_the_server_pauses(self):
        tool = self.start(self.first.uri)

        writing = self.give(tool, self.keys)
        records = self.take(tool, 500)
        self.first.pause()
        time.sleep(0.5)  # the pause itself
        self.first.resume()
        records += self.take(tool, self.COUNT - 500)
        writing.join(DEADLINE)
        tool.stdin.close()

        self.assert_in_order(records)
        self.assertEqual({record[2] for record in records}, {"found"})
        self.assertEqual(tool.wait(DEADLINE), 0)


if __name__ == "__main__":
    unittest.main()
