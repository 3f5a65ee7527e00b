"""What users of directory lookups complain about elsewhere, and what they see here instead."""

import json
import os
import subprocess
import time
import unittest

from servers import BIND, BIND_RESPONSE, SEARCH, ScriptedDirectory, Slapd, eventually, serving
from servers import silent
from support import DEADLINE, PEOPLE, PRIVATE, READER, READER_PASSWORD, TESTBED, TOOL
from support import DirectoryTest, ToolTest, freePort, run
from terminal import Terminal

USER = "user0000001@corp.test"
QUICK = ["-o", "nettimeout=1"]


class LookupTest(ToolTest):

    def lookUp(self, uri, *arguments, base=PEOPLE, template="(mail=$m)", **options):
        uris = [uri] if isinstance(uri, str) else uri
        servers = [word for one in uris for word in ("-H", one)]
        return run("lookup", *servers, "-b", base, "-t", template, *arguments, **options)

    def recordsOf(self, uri, *arguments, **options):
        """The exit status, and the JSON records."""
        result = self.lookUp(uri, "--format", "json", *arguments, **options)
        return result.status, [json.loads(line) for line in result.lines]

    def asReader(self):
        return ["-D", READER, "-y", self.file("password", READER_PASSWORD.encode())]


class Dialogue:
    """One run of the tool that is asked again and again over a pipe."""

    def __init__(self, test, uri, *arguments, base=PEOPLE, template="(mail=$m)"):
        self._tool = subprocess.Popen(
            [TOOL, "lookup", "-H", uri, "-b", base, "-t", template, "--format", "json",
             "--attrs", "1.1", *QUICK, *arguments, "-f", "-"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
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

    def assertSaysTryLater(self, *arguments):
        """To a user that exists, to one that does not, and to a whole list of both."""
        keys = b"".join(b"user%07d@corp.test\nnobody%d@corp.test\n" % (n, n) for n in range(50))
        for asked, options in (([USER], {}), (["nobody@corp.test"], {}),
                               (["-f", "-"], {"stdin": keys})):
            status, records = self.recordsOf(self.slapd.uri, *QUICK, *arguments, *asked, **options)

            self.assertEqual(status, 75)
            self.assertEqual(len(records), 100 if options else 1)
            self.assertEqual({record["status"] for record in records}, {"error"})
            self.assertNotIn(0, [record["code"] for record in records])

    def testIsNoUnknownUserWhenItWasStopped(self):
        self.slapd.stop()

        self.assertSaysTryLater()

    def testIsNoUnknownUserWhenItWasKilled(self):
        self.slapd.kill()

        self.assertSaysTryLater()
        self.assertSaysTryLater(*self.asReader())

    def testIsNoUnknownUserWhenItDoesNotAnswer(self):
        self.slapd.pause()

        self.assertSaysTryLater("--deadline", "2")
        self.assertSaysTryLater("--deadline", "2", *self.asReader())

    def testIsNoUnknownUserWhileItRestarts(self):
        dialogue = Dialogue(self, self.slapd.uri, *self.asReader())

        before = dialogue.ask(USER)
        self.slapd.kill()
        during = dialogue.ask(USER)
        nobody = dialogue.ask("nobody@corp.test")
        self.slapd.start()
        found = eventually(lambda: dialogue.ask(USER)["status"] == "found")
        after = dialogue.ask("nobody@corp.test")
        status, _ = dialogue.end()

        self.assertEqual([before["status"], during["status"], nobody["status"]],
                         ["found", "error", "error"])
        self.assertTrue(found)
        self.assertEqual(after["status"], "notfound")
        self.assertEqual(status, 75)

    def testIsNoUnknownUserWhenItGoesInTheMiddleOfAnAnswer(self):
        directory = ScriptedDirectory(self, serving(lambda request: None))

        status, records = self.recordsOf(directory.uri, "a@x", "b@x")

        self.assertEqual((status, [record["status"] for record in records]),
                         (75, ["error", "error"]))


class AConnectionClosedForIdleness(LookupTest):
    """It causes no error and no message (sssd#6003, mtpolicyd#27, cockroach#133777)."""

    def setUp(self):
        super().setUp()
        self.slapd = Slapd(self.addCleanup, "--users", "5", "--idletimeout", "1")

    def assertAsksAgain(self, *arguments):
        dialogue = Dialogue(self, self.slapd.uri, "--stats=json", *arguments)

        first = dialogue.ask(USER)
        self.assertTrue(eventually(self.slapd.hasHungUpOnSomebody))
        second = dialogue.ask("user0000002@corp.test")
        third = dialogue.ask("nobody@corp.test")
        status, errors = dialogue.end()

        self.assertEqual([answer["status"] for answer in (first, second, third)],
                         ["found", "found", "notfound"])
        self.assertFalse(second["retried"])
        self.assertEqual(status, 1)
        figures = json.loads(errors)  # and nothing but the figures
        self.assertEqual({name: figures[name] for name in
                          ("keys", "found", "notfound", "errors", "repeats", "stale",
                           "pool_hits", "pool_misses")},
                         {"keys": 3, "found": 2, "notfound": 1, "errors": 0, "repeats": 0,
                          "stale": 1, "pool_hits": 1, "pool_misses": 2})

    def testIsReplacedBeforeUse(self):
        self.assertAsksAgain()

    def testIsReplacedByOneThatIsBoundAgain(self):
        self.assertAsksAgain(*self.asReader())

    def testIsRepeatedWhenTheServerHangsUpAtTheSearch(self):
        searches = []

        def answer(request):
            searches.append(request)
            return request.found() if len(searches) > 1 else None

        directory = ScriptedDirectory(self, serving(answer))

        status, records = self.recordsOf(directory.uri, "a@x")

        self.assertEqual((status, records[0]["status"], records[0]["retried"]), (0, "found", True))


class AConnectionThatLostItsBind(LookupTest):
    """It gives no empty answers (courier#66, ldapts#435, node-ldapauth-fork#67)."""

    def assertNeverAsksAnonymously(self, directory, status):
        result = self.lookUp(directory.uri, *self.asReader(), *QUICK, "a@x", "b@x")

        self.assertEqual(result.status, status, result.errors)
        self.assertNotIn("not found", result.output)
        for connection in directory.connections:
            if SEARCH in connection.operations:
                self.assertEqual(connection.operations[0], BIND)

    def testIsClosedByAServerThatWouldAnswerEmptyAfterwards(self):
        def hangUpAfterTheBind(connection):
            request = connection.receive()
            if request.operation == BIND:
                connection.send(request.result(BIND_RESPONSE))
                return
            while request is not None:
                connection.send(request.empty())
                request = connection.receive()

        directory = ScriptedDirectory(self, hangUpAfterTheBind)

        self.assertNeverAsksAnonymously(directory, 75)

    def testIsClosedAtTheSearchByAServerThatWouldAnswerEmptyAfterwards(self):
        bound = serving(lambda request: None)
        unbound = serving(lambda request: request.empty())

        def script(connection):
            isFirst = len(directory.connections) == 1
            (bound if isFirst else unbound)(connection)

        directory = ScriptedDirectory(self, script)
        result = self.lookUp(directory.uri, *self.asReader(), *QUICK, "a@x")

        # Repeated, and bound again before: so the second answer counts.
        self.assertEqual((result.status, result.lines), (1, ["# a@x: not found"]))
        self.assertEqual([connection.operations[0] for connection in directory.connections],
                         [BIND, BIND])

    def testIsRefusedIfTheServerReportsAnonymous(self):
        directory = ScriptedDirectory(self, serving(lambda request: request.empty(), identity=b""))

        self.assertNeverAsksAnonymously(directory, 77)
        self.assertEqual(directory.count(SEARCH), 0)

    def testIsRefusedWhereTheSecondBindIs(self):
        binds = []

        def bindOnce(request):
            binds.append(request)
            return request.result(BIND_RESPONSE, 0 if len(binds) == 1 else 49)

        directory = ScriptedDirectory(self, serving(lambda request: None, onBind=bindOnce))

        result = self.lookUp(directory.uri, *self.asReader(), "a@x")

        self.assertFails(result, 77, "Invalid credentials (49)")
        self.assertNotIn("not found", result.output)

    def testSeesWhatOnlyTheBoundUserMaySeeAfterAServersRestart(self):
        slapd = Slapd(self.addCleanup, "--users", "1")
        dialogue = Dialogue(self, slapd.uri, *self.asReader(), base=PRIVATE, template="(cn=$u)")

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

    def assertOthersAnswer(self, uris):
        keys = b"".join(b"user%07d@corp.test\n" % n for n in range(1, 201))
        started = time.monotonic()

        status, records = self.recordsOf(uris, *QUICK, *self.asReader(), "-f", "-", stdin=keys)

        self.assertEqual(status, 0, records[0])
        self.assertEqual([record["key"].encode() for record in records], keys.splitlines())
        self.assertEqual({record["server"] for record in records}, {self.slapd.uri})
        # Waited for a few times, not for each of the 200.
        self.assertLess(time.monotonic() - started, 30)

    def testIsSkippedWhenItIsDead(self):
        self.assertOthersAnswer([f"ldap://127.0.0.1:{freePort()}", self.slapd.uri])

    def testIsSkippedWhenItIsPaused(self):
        first = Slapd(self.addCleanup, "--users", "1")
        first.pause()

        self.assertOthersAnswer([first.uri, self.slapd.uri])

    def testIsSkippedWhenItsNameIsUnknown(self):
        self.assertOthersAnswer(["ldap://no-such-host.invalid", self.slapd.uri])

    def testIsNotAskedWhereTheFirstOneAnswers(self):
        second = ScriptedDirectory(self, silent)

        self.assertOthersAnswer([self.slapd.uri, second.uri])
        self.assertEqual(second.connections, [])

    def testIsReplacedWhenItStopsInTheMiddle(self):
        searches = []

        def answer(request):
            searches.append(request)
            return request.found() if len(searches) <= 20 else None

        def bindUntilThen(request):
            return request.result(BIND_RESPONSE) if len(searches) <= 20 else None

        first = ScriptedDirectory(self, serving(answer, onBind=bindUntilThen))

        status, records = self.recordsOf([first.uri, self.slapd.uri], *self.asReader(),
                                         "-j", "1", "--window", "4",
                                         *[f"user{n:07d}@corp.test" for n in range(1, 101)])

        self.assertEqual(status, 0)
        self.assertEqual({record["server"] for record in records}, {first.uri, self.slapd.uri})

    def testTakesNoMoreThanTheDeadlineOfAKey(self):
        first = ScriptedDirectory(self, silent)
        second = ScriptedDirectory(self, silent)
        started = time.monotonic()

        status, records = self.recordsOf([first.uri, second.uri], *self.asReader(),
                                         "-o", "nettimeout=30", "--deadline", "1", "a@x")

        self.assertEqual((status, records[0]["status"], records[0]["code"]), (75, "error", -5))
        self.assertLess(time.monotonic() - started, 15)


class APlaceholder(ToolTest):
    """It can be seen before it is used (stalwart#1784, docker-mailserver#1101)."""

    def testIsExplainedWithoutAnyServer(self):
        directory = ScriptedDirectory(self, silent)

        result = run("expand", "-H", directory.uri, "-t", "(&(mail=$m)(uid=$u)(dc=$d))",
                     "--explain", "Jane.Doe@corp.test")

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertEqual(result.lines[0], "# Jane.Doe@corp.test")
        self.assertIn('inserted "Jane.Doe@corp.test"', result.lines[1])
        self.assertIn('inserted "Jane.Doe"', result.lines[2])
        self.assertIn('inserted "corp.test"', result.lines[3])
        self.assertEqual(result.lines[4],
                         "(&(mail=Jane.Doe@corp.test)(uid=Jane.Doe)(dc=corp.test))")
        self.assertEqual(directory.connections, [])

    def testIsExplainedWhereItTakesTextWithIt(self):
        result = run("expand", "-t", "(b=$b)(uid=$u)", "--explain", "a@x")

        self.assertIn("dropped the text", result.lines[1])
        self.assertEqual(result.status, 0)

    def testIsCalledAnErrorWhereThereIsNoneOfThatName(self):
        for template in ("(mail=%s)", "(mail=$s)", "(mail={user})"):
            with self.subTest(template=template):
                result = run("expand", "--lint", "-t", template)

                self.assertIn("template:", result.output)
                self.assertEqual(result.status, 0 if "{" in template else 65)

    def testIsCalledAnErrorByALookupBeforeAnyServerIsAsked(self):
        for template in ("(mail=$s)", "(mail=%s)"):
            with self.subTest(template=template):
                directory = ScriptedDirectory(self, silent)

                result = run("lookup", "-H", directory.uri, "-b", "dc=x", "-t", template, "a@x")

                self.assertFails(result, 65, "at byte 6", "expand --lint")
                self.assertEqual(directory.connections, [])


class ASpecialCharacter(DirectoryTest):
    """It is part of the name, and of nothing else (sssd#6673, Dovecot CVE-2026-27860)."""

    ESCAPES = "ou=escapes,dc=corp,dc=test"

    def testFindsWhoHasIt(self):
        names = ["star * paren (x)", "back\\slash", "comma, plus+ quote\" semi;",
                 "#hash <angle> equal=", "J\u00fcrgen Gr\u00f6\u00dfe"]

        result = self.lookUp(*names, "--format", "tsv", "--attrs", "uid", base=self.ESCAPES,
                             template="(cn=$u)")

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertEqual([line.split("\t")[1] for line in result.lines],
                         ["escape0", "escape1", "escape2", "escape3", "escape5"])

    def testFindsNoOtherEntry(self):
        keys = ["*", ")(uid=*", "*)(objectClass=*", "user000000*", "\\2a", "user0000001)(x=",
                "*))(|(uid=*"]

        result = self.lookUp(*keys, "--format", "tsv", template="(uid=$u)")

        self.assertEqual((result.status, result.errors), (1, ""))
        self.assertEqual(result.lines, [f"{key}\t\tnotfound" for key in keys])

    def testIsRefusedWhereItCanHideWhatIsAskedFor(self):
        for key, words in ((b"user0000001\x00x", "a control character at byte 11"),
                           (b"user0000001\x01", "a control character at byte 11"),
                           (b"user0000001\x7f", "a control character at byte 11"),
                           (b"\x1b[31mred", "a control character at byte 0"),
                           (b"user\xc2\x85", "a control character at byte 4"),
                           (b"user\xff", "invalid UTF-8 at byte 4"),
                           (b"\xc0\xaa", "invalid UTF-8 at byte 0"),
                           (b"\xed\xa0\x80", "invalid UTF-8 at byte 0")):
            with self.subTest(key=key):
                result = self.lookUp("-f", "-", template="(uid=$u)", stdin=key + b"\n")

                self.assertFails(result, 65, words)
                self.assertEqual(len(result.lines), 1)

    def testIsRefusedBetweenKeysThatEndInNul(self):
        result = self.lookUp("-0", "-f", "-", "--format", "tsv", "--attrs", "uid",
                             template="(uid=$u)", stdin=b"user0000001\0user\n0000001\0\0*\0")

        self.assertEqual(result.status, 65)
        self.assertEqual([record.split(b"\t")[:3] for record in result.bytes.split(b"\0")[:-1]],
                         [[b"user0000001", b"user0000001", b"found"],
                          [b"user\\x0A0000001", b"", b"error"], [b"", b"", b"error"],
                          [b"*", b"", b"notfound"]])


class ACertificate(LookupTest):
    """Verified as told, and what is wrong with it is said (docker-mailserver#4687,
    php-src#17776)."""

    def directory(self, certificate):
        return Slapd(self.addCleanup, "--users", "1", "--cert", certificate)

    def otherAuthority(self):
        folder = os.path.join(self.folder, "other")
        subprocess.run([os.path.join(TESTBED, "mkcerts"), folder], check=True, timeout=DEADLINE,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return os.path.join(folder, "ca.pem")

    def assertRefused(self, slapd, arguments, status, *words):
        result = self.lookUp(slapd.secureUri, *arguments, *QUICK, *self.asReader(), USER)

        self.assertFails(result, status, *words)
        self.assertNotIn("not found", result.output)
        unverified = self.lookUp(slapd.secureUri, *arguments, "--tls-verify", "none", *QUICK,
                                 *self.asReader(), USER)
        self.assertEqual((unverified.status, unverified.errors), (0, ""))

    def testIsAcceptedWhenItIsGood(self):
        slapd = self.directory("good")

        for verify in ("full", "chain", "none"):
            result = self.lookUp(slapd.secureUri, "--tls-ca", slapd.caFile, "--tls-verify", verify,
                                 USER)
            self.assertEqual((result.status, result.errors), (0, ""))

    def testIsRefusedWithoutTheFileOfItsAuthority(self):
        slapd = self.directory("good")

        self.assertRefused(slapd, ["--tls-ca", self.folder + "/none.pem"], 78, "none.pem",
                           "No such file")

    def testIsRefusedWithAFileThatHoldsNoAuthority(self):
        slapd = self.directory("good")

        self.assertRefused(slapd, ["--tls-ca", self.file("ca.pem", b"no certificate\n")], 78,
                           "ca.pem", "no certificate")

    def testIsRefusedWhenAnotherAuthoritySignedIt(self):
        slapd = self.directory("good")

        self.assertRefused(slapd, ["--tls-ca", self.otherAuthority()], 77,
                           "the certificate is not accepted: ", "solvane-ldap check")

    def testIsRefusedWhenItsTimeIsOver(self):
        slapd = self.directory("expired")

        self.assertRefused(slapd, ["--tls-ca", slapd.caFile], 77,
                           "the certificate is not accepted: ", "expired")

    def testIsRefusedWhenItIsForAnotherHost(self):
        slapd = self.directory("bad")
        itself = os.path.join(slapd.folder, "tls", "bad.pem")

        self.assertRefused(slapd, ["--tls-ca", itself], 77,
                           "the certificate does not match '127.0.0.1', it is for wrong.example.test")
        chain = self.lookUp(slapd.secureUri, "--tls-ca", itself, "--tls-verify", "chain", USER)
        self.assertEqual((chain.status, chain.errors), (0, ""))

    def testIsRefusedWhenItSignedItself(self):
        slapd = self.directory("bad")

        self.assertRefused(slapd, ["--tls-ca", slapd.caFile], 77,
                           "the certificate is not accepted: self-signed")

    def testIsShownByTheCheck(self):
        slapd = self.directory("expired")

        result = run("check", "-H", slapd.secureUri, "--tls-ca", slapd.caFile)

        self.assertEqual(result.status, 77)
        self.assertIn("expired", result.output)
        self.assertIn("CN=", result.output)


class ASecret(LookupTest):
    """It is on no command line and in no message (docker-mailserver#3457)."""

    def setUp(self):
        super().setUp()
        self.password = self.file("password", b"hunter2")
        # Whatever goes wrong, and whatever goes well.
        self.peers = [serving(lambda request: request.found()),
                      serving(lambda request: request.empty(), identity=b""),
                      serving(lambda request: request.found(),
                              onBind=lambda request: request.result(BIND_RESPONSE, 49)),
                      lambda connection: connection.receive()]

    def testIsInNoOutputAtAnyLevel(self):
        for script in self.peers:
            for options in (["-v"], ["-d", "any"], ["-d", "1"], ["-d", "2"], ["-d", "16"],
                            ["-d", "65535"], ["-v", "-d", "-1"]):
                with self.subTest(options=options):
                    directory = ScriptedDirectory(self, script)

                    result = self.lookUp(directory.uri, "-D", "cn=x", "-y", self.password, *QUICK,
                                         *options, "a@x")

                    self.assertIn(b"hunter2", directory.connections[0].requests[0].content)
                    self.assertNotIn("hunter2", result.output + result.errors)
                    self.assertNotIn("68 75 6e 74 65 72 32", result.errors)  # dumped as bytes

    def testIsInNoArgumentWhileTheToolRuns(self):
        directory = ScriptedDirectory(self, silent)
        with subprocess.Popen([TOOL, "lookup", "-H", directory.uri, "-D", "cn=x", "-y",
                               self.password, "-b", "dc=x", "-t", "(cn=$u)", *QUICK, "a"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as tool:
            self.assertTrue(eventually(lambda: directory.count(BIND) != 0))
            with open(f"/proc/{tool.pid}/cmdline", "rb") as arguments, \
                    open(f"/proc/{tool.pid}/environ", "rb") as environment:
                seen = arguments.read() + environment.read()
            tool.wait(DEADLINE)

        self.assertIn(b"hunter2", directory.connections[0].requests[0].content)
        self.assertIn(b"lookup", seen)
        self.assertNotIn(b"hunter2", seen)

    def testIsNotTakenFromAFileThatOthersCanRead(self):
        directory = ScriptedDirectory(self, silent)
        os.chmod(self.password, 0o644)

        result = self.lookUp(directory.uri, "-D", "cn=x", "-y", self.password, "a@x")

        self.assertFails(result, 78, "is readable by other users", "set mode 600")
        self.assertEqual(directory.connections, [])

    def testIsNotTakenFromSettingsThatOthersCanRead(self):
        settings = self.file("settings", b"bind_dn = cn=x\nbind_pw = hunter2\n", 0o644)

        result = self.lookUp("ldap://127.0.0.1:1", "-C", settings, "a@x")

        self.assertEqual(result.status, 78, result.errors)
        self.assertNotIn("hunter2", result.output + result.errors)

    def testIsTypedWithoutBeingSeen(self):
        directory = ScriptedDirectory(self, serving(lambda request: request.found()))
        terminal = Terminal(self.addCleanup, "lookup", "-H", directory.uri, "-D", "cn=x", "-W",
                            "-b", "dc=x", "-t", "(cn=$u)", "a")

        terminal.readUntil(b"Password for cn=x: ")
        terminal.type(b"hunter2\n")
        status = terminal.readToEnd()

        self.assertEqual(status, 0, terminal.shown)
        self.assertIn(b"hunter2", directory.connections[0].requests[0].content)
        self.assertNotIn(b"hunter2", terminal.shown)


class AnExitStatus(LookupTest):
    """Not one for everything."""

    def testTellsFiveFailuresApart(self):
        slapd = Slapd(self.addCleanup, "--users", "1")
        wrong = self.file("wrong", b"wrong")

        statuses = {
            "found": self.lookUp(slapd.uri, USER).status,
            "not found": self.lookUp(slapd.uri, "nobody@corp.test").status,
            "down": self.lookUp(f"ldap://127.0.0.1:{freePort()}", USER).status,
            "bad password": self.lookUp(slapd.uri, "-D", READER, "-y", wrong, USER).status,
            "bad template": self.lookUp(slapd.uri, USER, template="(mail=$m").status,
            "missing base": self.lookUp(slapd.uri, USER, base="ou=none,dc=corp,dc=test").status,
        }

        self.assertEqual(statuses, {"found": 0, "not found": 1, "down": 75, "bad password": 77,
                                    "bad template": 65, "missing base": 78})


class ABulkRun(DirectoryTest):
    """Every key gets its record, and none is a pattern."""

    def testTakesALineWithAnAsteriskForAName(self):
        result = self.lookUp("-f", "-", template="(uid=$u)", stdin=b"*\n")

        self.assertEqual((result.status, result.lines), (1, ["# *: not found"]))

    def testGivesEachKeyItsRecordAndGoesOnAfterErrors(self):
        keys = b"nobody\n\xff\nuser0000001\n\nuser0000002\n*\nuser0000001\n"

        result = self.lookUp("-f", "-", "--format", "tsv", "--attrs", "uid", template="(uid=$u)",
                             stdin=keys)

        self.assertEqual([line.split("\t")[:3] for line in result.lines],
                         [["nobody", "", "notfound"], ["\\xFF", "", "error"],
                          ["user0000001", "user0000001", "found"], ["", "", "error"],
                          ["user0000002", "user0000002", "found"], ["*", "", "notfound"],
                          ["user0000001", "user0000001", "found"]])
        self.assertEqual(result.status, 65)
        self.assertEqual(len(result.errorLines), 2)


if __name__ == "__main__":
    unittest.main()
