"""What users of directory lookups complain about elsewhere, and what they see here instead."""

import json
import os
import subprocess
import time
import unittest

from servers import BIND, BIND_RESPONSE, SEARCH, ScriptedDirectory, Slapd, eventually, serving
from servers import silent
from support import DEADLINE, PEOPLE, PRIVATE, READER, READER_PASSWORD, TESTBED, TOOL
from support import DirectoryTest, ToolTest, free_port, run

USER = "user0000001@corp.test"
QUICK = ["-o", "nettimeout=1"]


class LookupTest(ToolTest):
    def look_up(self, uri, *arguments, base=PEOPLE, template="(mail=$m)", **options):
        uris = [uri] if isinstance(uri, str) else uri
        servers = [word for one in uris for word in ("-H", one)]
        return run("lookup", *servers, "-b", base, "-t", template, *arguments, **options)

    def records_of(self, uri, *arguments, **options):
        """The exit status, and the JSON records."""
        result = self.look_up(uri, "--format", "json", *arguments, **options)
        return result.status, [json.loads(line) for line in result.lines]

    def as_reader(self):
        return ["-D", READER, "-y", self.file("password", READER_PASSWORD.encode())]


class Dialogue:
    """One run of the tool that is asked again and again over a pipe."""

    def __init__(self, test, uri, *arguments, base=PEOPLE, template="(mail=$m)"):
        self._tool = subprocess.Popen(
            [
                TOOL,
                "lookup",
                "-H",
                uri,
                "-b",
                base,
                "-t",
                template,
                "--format",
                "json",
                "--attrs",
                "1.1",
                *QUICK,
                *arguments,
                "-f",
                "-",
            ],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        test.addCleanup(self._close)

    def ask(self, key):
        self._tool.stdin.write(key.encode() + b"\n")
        self._tool.stdin.flush()
        return json.loads(self._tool.stdout.readline())

    def end(self):
        """The exit status, and standard error."""
        _, errors = self._tool.communicate(timeout=DEADLINE)
        return self._tool.returncode, errors.decode()

    def _close(self):
        if self._tool.returncode is None:
            self._tool.kill()
            self._tool.communicate()


class AServerThatIsDown(LookupTest):
    """Mail must not bounce for it (docker-mailserver#1833)."""

    def setUp(self):
        super().setUp()
        self.slapd = Slapd(self.addCleanup, "--users", "50")

    def assert_says_try_later(self, *arguments):
        """To a user that exists, to one that does not, and to a whole list of both."""
        keys = b"".join(b"user%07d@corp.test\nnobody%d@corp.test\n" % (n, n) for n in range(50))
        for asked, options in (
            ([USER], {}),
            (["nobody@corp.test"], {}),
            (["-f", "-"], {"stdin": keys}),
        ):
            status, records = self.records_of(self.slapd.uri, *QUICK, *arguments, *asked, **options)

            self.assertEqual(status, 75)
            self.assertEqual(len(records), 100 if options else 1)
            self.assertEqual({record["status"] for record in records}, {"error"})
            self.assertNotIn(0, [record["code"] for record in records])

    def test_is_no_unknown_user_when_it_was_stopped(self):
        self.slapd.stop()

        self.assert_says_try_later()

    def test_is_no_unknown_user_when_it_was_killed(self):
        self.slapd.kill()

        self.assert_says_try_later()
        self.assert_says_try_later(*self.as_reader())

    def test_is_no_unknown_user_when_it_does_not_answer(self):
        self.slapd.pause()

        self.assert_says_try_later("--deadline", "2")
        self.assert_says_try_later("--deadline", "2", *self.as_reader())

    def test_is_no_unknown_user_while_it_restarts(self):
        dialogue = Dialogue(self, self.slapd.uri, *self.as_reader())

        before = dialogue.ask(USER)
        self.slapd.kill()
        during = dialogue.ask(USER)
        nobody = dialogue.ask("nobody@corp.test")
        self.slapd.start()
        found = eventually(lambda: dialogue.ask(USER)["status"] == "found")
        after = dialogue.ask("nobody@corp.test")
        status, _ = dialogue.end()

        self.assertEqual(
            [before["status"], during["status"], nobody["status"]], ["found", "error", "error"]
        )
        self.assertTrue(found)
        self.assertEqual(after["status"], "notfound")
        self.assertEqual(status, 75)

    def test_is_no_unknown_user_when_it_goes_in_the_middle_of_an_answer(self):
        directory = ScriptedDirectory(self, serving(lambda request: None))

        status, records = self.records_of(directory.uri, "a@x", "b@x")

        self.assertEqual(
            (status, [record["status"] for record in records]), (75, ["error", "error"])
        )


class AConnectionClosedForIdleness(LookupTest):
    """It causes no error and no message (sssd#6003, mtpolicyd#27, cockroach#133777)."""

    def setUp(self):
        super().setUp()
        self.slapd = Slapd(self.addCleanup, "--users", "5", "--idletimeout", "1")

    def assert_asks_again(self, *arguments):
        dialogue = Dialogue(self, self.slapd.uri, "--stats=json", *arguments)

        first = dialogue.ask(USER)
        self.assertTrue(eventually(self.slapd.has_closed_a_connection))
        second = dialogue.ask("user0000002@corp.test")
        third = dialogue.ask("nobody@corp.test")
        status, errors = dialogue.end()

        self.assertEqual(
            [answer["status"] for answer in (first, second, third)], ["found", "found", "notfound"]
        )
        self.assertFalse(second["retried"])
        self.assertEqual(status, 1)
        figures = json.loads(errors)  # and nothing but the figures
        self.assertEqual(
            {
                name: figures[name]
                for name in (
                    "keys",
                    "found",
                    "notfound",
                    "errors",
                    "repeats",
                    "stale",
                    "pool_hits",
                    "pool_misses",
                )
            },
            {
                "keys": 3,
                "found": 2,
                "notfound": 1,
                "errors": 0,
                "repeats": 0,
                "stale": 1,
                "pool_hits": 1,
                "pool_misses": 2,
            },
        )

    def test_is_replaced_before_use(self):
        self.assert_asks_again()

    def test_is_replaced_by_one_that_is_bound_again(self):
        self.assert_asks_again(*self.as_reader())

    def test_is_repeated_when_the_server_hangs_up_at_the_search(self):
        searches = []

        def answer(request):
            searches.append(request)
            return request.found() if len(searches) > 1 else None

        directory = ScriptedDirectory(self, serving(answer))

        status, records = self.records_of(directory.uri, "a@x")

        self.assertEqual((status, records[0]["status"], records[0]["retried"]), (0, "found", True))


class AConnectionThatLostItsBind(LookupTest):
    """It gives no empty answers (courier#66, ldapts#435, node-ldapauth-fork#67)."""

    def assert_never_asks_anonymously(self, directory, status):
        result = self.look_up(directory.uri, *self.as_reader(), *QUICK, "a@x", "b@x")
        directory.finish()

        self.assertEqual(result.status, status, result.errors)
        self.assertNotIn("not found", result.output)
        for connection in directory.connections:
            if SEARCH in connection.operations:
                self.assertEqual(connection.operations[0], BIND)

    def test_is_closed_by_a_server_that_would_answer_empty_afterwards(self):
        def hang_up_after_the_bind(connection):
            request = connection.receive()
            if request.operation == BIND:
                connection.send(request.result(BIND_RESPONSE))
                return
            while request is not None:
                connection.send(request.empty())
                request = connection.receive()

        directory = ScriptedDirectory(self, hang_up_after_the_bind)

        self.assert_never_asks_anonymously(directory, 75)

    def test_is_closed_at_the_search_by_a_server_that_would_answer_empty_afterwards(self):
        bound = serving(lambda request: None)
        unbound = serving(lambda request: request.empty())

        def script(connection):
            is_first = len(directory.connections) == 1
            (bound if is_first else unbound)(connection)

        directory = ScriptedDirectory(self, script)
        result = self.look_up(directory.uri, *self.as_reader(), *QUICK, "-q", "a@x")
        directory.finish()

        # Repeated, and bound again before: so the second answer counts.
        self.assertEqual((result.status, result.lines), (1, ["# a@x: not found"]))
        self.assertEqual(
            [connection.operations[0] for connection in directory.connections], [BIND, BIND]
        )

    def test_is_refused_where_the_server_says_that_we_are_nobody(self):
        directory = ScriptedDirectory(self, serving(lambda request: request.empty(), identity=b""))

        self.assert_never_asks_anonymously(directory, 77)
        self.assertEqual(directory.count(SEARCH), 0)

    def test_is_refused_where_the_second_bind_is(self):
        binds = []

        def bind_once(request):
            binds.append(request)
            return request.result(BIND_RESPONSE, 0 if len(binds) == 1 else 49)

        directory = ScriptedDirectory(self, serving(lambda request: None, on_bind=bind_once))

        result = self.look_up(directory.uri, *self.as_reader(), "a@x")

        self.assert_fails(result, 77, "Invalid credentials (49)")
        self.assertNotIn("not found", result.output)

    def test_sees_what_only_the_bound_user_may_see_after_a_servers_restart(self):
        slapd = Slapd(self.addCleanup, "--users", "1")
        dialogue = Dialogue(self, slapd.uri, *self.as_reader(), base=PRIVATE, template="(cn=$u)")

        before = dialogue.ask("secret")
        slapd.kill()
        slapd.start()
        after = dialogue.ask("secret")

        self.assertEqual((before["status"], after["status"]), ("found", "found"))


class OneServerOfAList(LookupTest):
    """It delays no lookup for long, dead or paused (ejabberd#788, opnsense-core#5932)."""

    def setUp(self):
        super().setUp()
        self.slapd = Slapd(self.addCleanup, "--users", "200")

    def assert_others_answer(self, uris):
        keys = b"".join(b"user%07d@corp.test\n" % n for n in range(1, 201))
        started = time.monotonic()

        status, records = self.records_of(uris, *QUICK, *self.as_reader(), "-f", "-", stdin=keys)

        self.assertEqual(status, 0, records[0])
        self.assertEqual([record["key"].encode() for record in records], keys.splitlines())
        self.assertEqual({record["server"] for record in records}, {self.slapd.uri})
        # Waited for a few times, not for each of the 200.
        self.assertLess(time.monotonic() - started, 30)

    def test_is_passed_over_when_it_is_dead(self):
        self.assert_others_answer([f"ldap://127.0.0.1:{free_port()}", self.slapd.uri])

    def test_is_passed_over_when_it_is_paused(self):
        first = Slapd(self.addCleanup, "--users", "1")
        first.pause()

        self.assert_others_answer([first.uri, self.slapd.uri])

    def test_is_passed_over_when_its_name_is_unknown(self):
        self.assert_others_answer(["ldap://no-such-host.invalid", self.slapd.uri])

    def test_is_not_asked_where_the_first_one_answers(self):
        second = ScriptedDirectory(self, silent)

        self.assert_others_answer([self.slapd.uri, second.uri])
        second.finish()
        self.assertEqual(second.connections, [])

    def test_is_replaced_when_it_stops_in_the_middle(self):
        searches = []

        def answer(request):
            searches.append(request)
            return request.found() if len(searches) <= 20 else None

        def bind_until_then(request):
            return request.result(BIND_RESPONSE) if len(searches) <= 20 else None

        first = ScriptedDirectory(self, serving(answer, on_bind=bind_until_then))

        status, records = self.records_of(
            [first.uri, self.slapd.uri],
            *self.as_reader(),
            "-j",
            "1",
            "--window",
            "4",
            *[f"user{n:07d}@corp.test" for n in range(1, 101)],
        )

        self.assertEqual(status, 0)
        self.assertEqual({record["server"] for record in records}, {first.uri, self.slapd.uri})

    def test_takes_no_more_than_the_deadline_of_a_key(self):
        first = ScriptedDirectory(self, silent)
        second = ScriptedDirectory(self, silent)
        started = time.monotonic()

        status, records = self.records_of(
            [first.uri, second.uri],
            *self.as_reader(),
            "-o",
            "nettimeout=30",
            "--deadline",
            "1",
            "a@x",
        )

        self.assertEqual((status, records[0]["status"], records[0]["code"]), (75, "error", -5))
        self.assertLess(time.monotonic() - started, 15)


class APlaceholder(ToolTest):
    """It can be seen before it is used (stalwart#1784, docker-mailserver#1101)."""

    def test_is_called_an_error_where_there_is_none_of_that_name(self):
        for template in ("(mail=%s)", "(mail=$s)", "(mail={user})"):
            with self.subTest(template=template):
                result = run("expand", "--lint", "-t", template)

                self.assertIn("template:", result.output)
                self.assertEqual(result.status, 0 if "{" in template else 65)

    def test_is_called_an_error_by_a_lookup_before_any_server_is_asked(self):
        for template in ("(mail=$s)", "(mail=%s)"):
            with self.subTest(template=template):
                directory = ScriptedDirectory(self, silent)

                result = run("lookup", "-H", directory.uri, "-b", "dc=x", "-t", template, "a@x")
                directory.finish()

                self.assert_fails(result, 65, "at byte 6", "expand --lint")
                self.assertEqual(directory.connections, [])


class ASpecialCharacter(DirectoryTest):
    """It is part of the name, and of nothing else (sssd#6673, Dovecot CVE-2026-27860)."""

    ESCAPES = "ou=escapes,dc=corp,dc=test"

    def test_finds_who_has_it(self):
        names = [
            "star * paren (x)",
            "back\\slash",
            'comma, plus+ quote" semi;',
            "#hash <angle> equal=",
            "J\u00fcrgen Gr\u00f6\u00dfe",
        ]

        result = self.look_up(
            *names, "--format", "tsv", "--attrs", "uid", base=self.ESCAPES, template="(cn=$u)"
        )

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertEqual(
            [line.split("\t")[1] for line in result.lines],
            ["escape0", "escape1", "escape2", "escape3", "escape5"],
        )

    def test_finds_nobody_else(self):
        keys = [
            "*",
            ")(uid=*",
            "*)(objectClass=*",
            "user000000*",
            "\\2a",
            "user0000001)(x=",
            "*))(|(uid=*",
        ]

        result = self.look_up(*keys, "--format", "tsv", template="(uid=$u)")

        self.assertEqual((result.status, result.errors), (1, ""))
        shown = [key.replace("\\", "\\x5C") for key in keys]
        self.assertEqual(result.lines, [f"{key}\t\tnotfound" for key in shown])

    def test_is_refused_where_it_can_hide_what_is_asked_for(self):
        for key, words in (
            (b"user0000001\x00x", "a control character at byte 11"),
            (b"user0000001\x01", "a control character at byte 11"),
            (b"user0000001\x7f", "a control character at byte 11"),
            (b"\x1b[31mred", "a control character at byte 0"),
            (b"user\xc2\x85", "a control character at byte 4"),
            (b"user\xff", "invalid UTF-8 at byte 4"),
            (b"\xc0\xaa", "invalid UTF-8 at byte 0"),
            (b"\xed\xa0\x80", "invalid UTF-8 at byte 0"),
        ):
            with self.subTest(key=key):
                result = self.look_up("-f", "-", template="(uid=$u)", stdin=key + b"\n")

                self.assert_fails(result, 65, words)
                self.assertEqual(len(result.lines), 1)

    def test_is_refused_between_keys_that_end_in_nul(self):
        result = self.look_up(
            "-0",
            "-f",
            "-",
            "--format",
            "tsv",
            "--attrs",
            "uid",
            template="(uid=$u)",
            stdin=b"user0000001\0user\n0000001\0\0*\0",
        )

        self.assertEqual(result.status, 65)
        self.assertEqual(
            [record.split(b"\t")[:3] for record in result.bytes.split(b"\0")[:-1]],
            [
                [b"user0000001", b"user0000001", b"found"],
                [b"user\\x0A0000001", b"", b"error"],
                [b"", b"", b"error"],
                [b"*", b"", b"notfound"],
            ],
        )


class ACertificate(LookupTest):
    """Verified as told, and what is wrong with it is said (docker-mailserver#4687,
    php-src#17776)."""

    def directory(self, certificate):
        return Slapd(self.addCleanup, "--users", "1", "--cert", certificate)

    def other_authority(self):
        folder = os.path.join(self.folder, "other")
        subprocess.run(
            ["env", "-u", "SOLVANE_TEST_CERTIFICATES", os.path.join(TESTBED, "mkcerts"), folder],
            check=True,
            timeout=DEADLINE,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        return os.path.join(folder, "ca.pem")

    def assert_refused(self, slapd, arguments, status, *words):
        result = self.look_up(slapd.secure_uri, *arguments, *QUICK, *self.as_reader(), USER)

        self.assert_fails(result, status, *words)
        self.assertNotIn("not found", result.output)
        unverified = self.look_up(
            slapd.secure_uri, *arguments, "--tls-verify", "none", *QUICK, *self.as_reader(), USER
        )
        self.assertEqual((unverified.status, unverified.errors), (0, ""))

    def test_is_accepted_when_it_is_good(self):
        slapd = self.directory("good")

        for verify in ("full", "chain", "none"):
            result = self.look_up(
                slapd.secure_uri, "--tls-ca", slapd.ca_file, "--tls-verify", verify, USER
            )
            self.assertEqual((result.status, result.errors), (0, ""))

    def test_is_refused_without_the_file_of_its_authority(self):
        slapd = self.directory("good")

        self.assert_refused(
            slapd, ["--tls-ca", self.folder + "/none.pem"], 78, "none.pem", "No such file"
        )

    def test_is_refused_with_a_file_that_holds_no_authority(self):
        slapd = self.directory("good")

        self.assert_refused(
            slapd,
            ["--tls-ca", self.file("ca.pem", b"no certificate\n")],
            78,
            "ca.pem",
            "no certificate",
        )

    def test_is_refused_when_another_authority_signed_it(self):
        slapd = self.directory("good")

        self.assert_refused(
            slapd,
            ["--tls-ca", self.other_authority()],
            77,
            "the certificate is not accepted: ",
            "give the CA's file with --tls-ca",
        )

    def test_is_refused_when_its_time_is_over(self):
        slapd = self.directory("expired")

        self.assert_refused(
            slapd, ["--tls-ca", slapd.ca_file], 77, "the certificate is not accepted: ", "expired"
        )

    def test_is_refused_when_it_is_for_another_host(self):
        slapd = self.directory("bad")
        itself = os.path.join(slapd.folder, "tls", "bad.pem")

        self.assert_refused(
            slapd,
            ["--tls-ca", itself],
            77,
            "the certificate does not match '127.0.0.1', it is for wrong.example.test",
        )
        chain = self.look_up(slapd.secure_uri, "--tls-ca", itself, "--tls-verify", "chain", USER)
        self.assertEqual((chain.status, chain.errors), (0, ""))

    def test_is_refused_when_it_signed_itself(self):
        slapd = self.directory("bad")

        self.assert_refused(
            slapd,
            ["--tls-ca", slapd.ca_file],
            77,
            "the certificate is not accepted: self-signed",
        )


class ASecret(LookupTest):
    """It is on no command line and in no message (docker-mailserver#3457)."""

    def setUp(self):
        super().setUp()
        self.password = self.file("password", b"hunter2")
        # Whatever goes wrong, and whatever goes well.
        self.peers = [
            serving(lambda request: request.found()),
            serving(lambda request: request.empty(), identity=b""),
            serving(
                lambda request: request.found(),
                on_bind=lambda request: request.result(BIND_RESPONSE, 49),
            ),
            lambda connection: connection.receive(),
        ]

    def test_is_in_no_output_at_any_level(self):
        for script in self.peers:
            for options in (
                ["-v"],
                ["-d", "any"],
                ["-d", "1"],
                ["-d", "2"],
                ["-d", "16"],
                ["-d", "65535"],
                ["-v", "-d", "-1"],
            ):
                with self.subTest(options=options):
                    directory = ScriptedDirectory(self, script)

                    result = self.look_up(
                        directory.uri, "-D", "cn=x", "-y", self.password, *QUICK, *options, "a@x"
                    )
                    directory.finish()

                    self.assertIn(b"hunter2", directory.connections[0].requests[0].content)
                    self.assertNotIn("hunter2", result.output + result.errors)
                    self.assertNotIn("68 75 6e 74 65 72 32", result.errors)  # dumped as bytes

    def test_is_not_taken_from_settings_that_others_can_read(self):
        settings = self.file("settings", b"bind_dn = cn=x\nbind_pw = hunter2\n", 0o644)

        result = self.look_up("ldap://127.0.0.1:1", "-C", settings, "a@x")

        self.assertEqual(result.status, 78, result.errors)
        self.assertNotIn("hunter2", result.output + result.errors)


class AnExitStatus(LookupTest):
    """Not one for everything."""

    def test_tells_five_failures_apart(self):
        slapd = Slapd(self.addCleanup, "--users", "1")
        wrong = self.file("wrong", b"wrong")

        statuses = {
            "found": self.look_up(slapd.uri, USER).status,
            "not found": self.look_up(slapd.uri, "nobody@corp.test").status,
            "down": self.look_up(f"ldap://127.0.0.1:{free_port()}", USER).status,
            "bad password": self.look_up(slapd.uri, "-D", READER, "-y", wrong, USER).status,
            "bad template": self.look_up(slapd.uri, USER, template="(mail=$m").status,
            "missing base": self.look_up(slapd.uri, USER, base="ou=none,dc=corp,dc=test").status,
        }

        self.assertEqual(
            statuses,
            {
                "found": 0,
                "not found": 1,
                "down": 75,
                "bad password": 77,
                "bad template": 65,
                "missing base": 78,
            },
        )


class ABulkRun(DirectoryTest):
    """Every key gets its record, and none is a pattern."""

    def test_gives_each_key_its_record_and_goes_on_after_errors(self):
        keys = b"nobody\n\xff\nuser0000001\n\nuser0000002\n*\nuser0000001\n"

        result = self.look_up(
            "-f", "-", "--format", "tsv", "--attrs", "uid", template="(uid=$u)", stdin=keys
        )

        self.assertEqual(
            [line.split("\t")[:3] for line in result.lines],
            [
                ["nobody", "", "notfound"],
                ["\\xFF", "", "error"],
                ["user0000001", "user0000001", "found"],
                ["", "", "error"],
                ["user0000002", "user0000002", "found"],
                ["*", "", "notfound"],
                ["user0000001", "user0000001", "found"],
            ],
        )
        self.assertEqual(result.status, 65)
        self.assertEqual(len(result.error_lines), 2)


if __name__ == "__main__":
    unittest.main()
