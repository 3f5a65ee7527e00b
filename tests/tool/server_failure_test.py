"""Servers that are down, silent, or make no sense: never "not found"."""

import json
import os
import unittest

from support import READER, ScriptedPeer, ToolTest, bound, entry, freePort, message, run
from support import searched, tlv


class ServerFailure(ToolTest):

    def lookUp(self, uri, *arguments, **options):
        result = run("lookup", "-H", uri, "-b", "dc=x", "-t", "(cn=$u)", "-o", "nettimeout=1",
                     *(arguments or ["a"]), **options)
        self.assertNotIn(": not found", result.output)
        return result

    def answered(self, *answers, hangsUp=True, **options):
        peer = ScriptedPeer(self, *answers, hangsUp=hangsUp)
        return self.lookUp(peer.uri, **options)

    def testReportsAServerThatIsDownOnceAndGivesEachKeyARecord(self):
        result = self.lookUp(f"ldap://127.0.0.1:{freePort()}", "a", "b", "")

        self.assertEqual(result.status, 75)
        self.assertEqual([line[:14] for line in result.lines],
                         ["# a: error 75:", "# b: error 75:", "# : error 65: "])
        self.assertEqual(len(result.errorLines), 2, result.errors)
        self.assertIn("cannot be reached: Can't contact LDAP server (-1)", result.errorLines[0])
        self.assertIn("check that the server runs", result.errorLines[0])

    def testReportsAHostThatDoesNotResolve(self):
        self.assertFails(self.lookUp("ldap://no-such-host.invalid"), 75,
                         "'no-such-host.invalid' does not resolve", "-H")

    def testReportsAServerThatSpeaksNoTls(self):
        peer = ScriptedPeer(self, b"HTTP/1.1 400 Bad Request\r\n\r\n")

        self.assertFails(self.lookUp(peer.uri.replace("ldap:", "ldaps:")), 75, "cannot be reached")

    def testReportsAServerThatStaysSilentWhileTlsBegins(self):
        peer = ScriptedPeer(self, hangsUp=False)

        self.assertFails(self.lookUp(peer.uri.replace("ldap:", "ldaps:")), 75, "cannot be reached")

    def testReportsABindWithoutAnswer(self):
        self.assertFails(self.answered(hangsUp=False), 75, "did not answer the bind within 1 s",
                         "nettimeout")

    def testReportsAnEndDuringTheBind(self):
        self.assertFails(self.answered(hangsUp=True), 75, "broke off during the bind")

    def testReportsABindAnsweredWithSomethingElse(self):
        self.assertFails(self.answered(searched(1), hangsUp=False), 75, "did not answer the bind")

    def testGivesEachCodeOfABindItsExitStatus(self):
        for code, status in ((1, 75), (2, 78), (7, 77), (8, 77), (10, 69), (13, 77), (32, 77),
                             (34, 65), (48, 77), (49, 77), (50, 77), (51, 75), (52, 75), (53, 69),
                             (80, 75)):
            with self.subTest(code=code):
                result = self.answered(bound(code, text=b"because"))

                self.assertFails(result, status, "refuses the bind", f"({code}): because")

    def testReportsABindThatRefers(self):
        for code in (0, 10):
            with self.subTest(code=code):
                result = self.answered(bound(code, referrals=[b"ldap://elsewhere/"]))

                self.assertIn(result.status, (69, 75))
                self.assertEqual(len(result.errorLines), 1)

    def testReportsASearchWithoutAnswerAndShowsWhatCame(self):
        result = self.answered(bound(), entry(2, b"cn=a", (b"cn", [b"a"])), hangsUp=False)

        self.assertFails(result, 75, "did not answer the search within 1 s")
        self.assertTrue(result.lines[0].startswith("# a: error 75 after 1 of its entries: "))
        self.assertIn("dn: cn=a", result.lines)

    def testReportsAnEndDuringTheSearchForTheKeysThatFollow(self):
        peer = ScriptedPeer(self, bound(), searched(2, 51))
        result = self.lookUp(peer.uri, "--format", "json", "a", "b", "c")

        records = [json.loads(line) for line in result.lines]
        self.assertEqual(result.status, 75)
        self.assertEqual([(record["key"], record["status"], record["code"]) for record in records],
                         [("a", "error", 51), ("b", "error", -1), ("c", "error", -1)])
        # Neither asked again without the bind, nor complained of twice.
        self.assertEqual(len(result.errorLines), 2, result.errors)

    def testReportsASearchThatRefersWithSuccess(self):
        result = self.answered(bound(), searched(2, referrals=[b"ldap://elsewhere/"]))

        self.assertFails(result, 69, "ldap://elsewhere/")

    def testReportsAnAnswerThatIsNoLdap(self):
        for answer in (b"HTTP/1.1 400 Bad Request\r\n\r\n", b"\x30\x80\x02\x01\x02",
                       message(2, tlv(0x7E, b"")), b"\x30\x03\x02\x01"):
            with self.subTest(answer=answer):
                result = self.answered(bound(), answer)

                self.assertEqual(result.status, 75, result.errors)
                self.assertEqual(len(result.errorLines), 1, result.errors)

    def testReportsAReferenceThatCannotBeRead(self):
        broken = message(2, tlv(0x73, b"\x04\x7f"))

        result = self.answered(bound(), broken + searched(2))

        self.assertIn(result.status, (69, 75), result.errors)

    def testReportsANoticeOfDisconnection(self):
        notice = message(0, tlv(0x78, tlv(0x0A, b"\x34"), tlv(0x04, b""), tlv(0x04, b"going down"),
                                tlv(0x8A, b"1.3.6.1.4.1.1466.20036")))

        # OpenLDAP 2.5 forgets the memory of a notice, in a program without this library as well.
        withoutLeakSearch = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}
        result = self.answered(bound(), notice, env=withoutLeakSearch)

        self.assertFails(result, 75, "Can't contact LDAP server")

    def testNamesNoPasswordInAFailure(self):
        password = self.file("password", b"hunter2")
        peer = ScriptedPeer(self, bound(49, text=b"no"))

        result = self.lookUp(peer.uri, "-D", READER, "-y", password, "-v", "a")

        self.assertEqual(result.status, 77)
        self.assertNotIn("hunter2", result.output + result.errors)


if __name__ == "__main__":
    unittest.main()
