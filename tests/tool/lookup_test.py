"""`solvane-ldap lookup` against a directory: what is found, what is not, and what is refused."""

import unittest

from support import PEOPLE, PRIVATE, READER, READER_PASSWORD, DirectoryTest

SUFFIX = "dc=corp,dc=test"
CODES = "ou=codes,dc=corp,dc=test"


class Lookup(DirectoryTest):

    slapdOptions = ["--users", "200", "--sizelimit", "20", "--retcode"]

    def testFindsAnEntry(self):
        result = self.lookUp("--attrs", "cn,mail", "user0000001@corp.test")

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertEqual(result.lines, ["# user0000001@corp.test: found 1",
                                        "dn: uid=user0000001,ou=people,dc=corp,dc=test",
                                        "cn: Anna Berg 1", "mail: user0000001@corp.test", ""])

    def testSaysWhatItDidNotFind(self):
        result = self.lookUp("nobody@corp.test")

        self.assertEqual((result.status, result.lines, result.errors),
                         (1, ["# nobody@corp.test: not found"], ""))

    def testGivesEachKeyARecordInItsOrder(self):
        result = self.lookUp("--attrs", "uid", "-f", "-",
                             stdin=b"nobody@corp.test\n\xff\nuser0000002@corp.test\n\n")

        self.assertEqual(result.status, 65)
        self.assertEqual([line for line in result.lines if line.startswith("#")],
                         ["# nobody@corp.test: not found",
                          "# \\xFF: error 65: the key contains invalid UTF-8 at byte 0",
                          "# user0000002@corp.test: found 1",
                          "# : error 65: the key is empty"])
        self.assertEqual(len(result.errorLines), 2, result.errors)

    def testLetsNoKeyChangeTheFilter(self):
        result = self.lookUp("*)(uid=*", "*", "\\2A", template="(uid=$u)")

        self.assertEqual((result.status, result.lines),
                         (1, ["# *)(uid=*: not found", "# *: not found", "# \\2A: not found"]))

    def testFindsAKeyThatNeedsEscaping(self):
        result = self.lookUp("star * paren (x)", "back\\slash", "J\u00fcrgen Gr\u00f6\u00dfe",
                             base="ou=escapes,dc=corp,dc=test", template="(cn=$u)")

        self.assertEqual(result.status, 0, result.errors)
        self.assertIn("# star * paren (x): found 1", result.lines)
        self.assertIn("cn: J\u00fcrgen Gr\u00f6\u00dfe", result.lines)

    def testSearchesWithinTheScope(self):
        everything = "(objectClass=*)$c(objectClass=organizationalUnit)"

        found = {scope: self.lookUp("x", "--attrs", "1.1", "-s", scope, base=base,
                                    template=everything)
                 for scope, base in (("base", PEOPLE), ("one", SUFFIX), ("sub", PEOPLE))}

        self.assertEqual(found["base"].lines[0], "# x: found 1")
        self.assertIn("dn: ou=people,dc=corp,dc=test", found["one"].lines)
        self.assertNotIn("dn: dc=corp,dc=test", found["one"].lines)
        self.assertEqual(found["sub"].lines[0], "# x: found 1")

    def testFollowsAliasesAsTold(self):
        found = {mode: self.lookUp("alias00001", "-a", mode, "-s", "base", "--attrs", "uid",
                                   base="uid=alias00001,ou=aliases,dc=corp,dc=test",
                                   template="(objectClass=*)").lines
                 for mode in ("never", "search", "find", "always")}

        itself = "dn: uid=alias00001,ou=aliases,dc=corp,dc=test"
        target = "dn: uid=user0000001,ou=people,dc=corp,dc=test"
        self.assertEqual([found[mode][1] for mode in ("never", "search", "find", "always")],
                         [itself, itself, target, target])

    def testReportsAnAliasThatCannotBeFollowed(self):
        result = self.lookUp("x", "-a", "always", base="cn=loopA,ou=badaliases,dc=corp,dc=test",
                             template="(objectClass=*)")

        self.assertFails(result, 78, "Alias", "-a never")

    def testSpeaksTls(self):
        result = self.lookUp("--tls-ca", self.server["CA_FILE"], "--attrs", "uid",
                             "user0000003@corp.test", uri=self.secureUri)

        self.assertEqual((result.status, result.lines[2]), (0, "uid: user0000003"), result.errors)

    def testSpeaksProtocolVersionTwo(self):
        result = self.lookUp("-P", "2", "--attrs", "uid", "user0000003@corp.test")

        self.assertEqual((result.status, result.lines[2]), (0, "uid: user0000003"), result.errors)

    def testReachesAnIpv6Address(self):
        result = self.lookUp("user0000003@corp.test",
                             uri=f"ldap://[::1]:{self.server['LDAP_PORT']}")

        self.assertEqual(result.status, 0, result.errors)

    def testSaysOnRequestWhatItDoes(self):
        result = self.lookUp("-v", "nobody@corp.test", "user0000001@corp.test")

        self.assertEqual(result.status, 1)
        self.assertEqual(len(result.errorLines), 2, result.errors)
        for line, key, status in zip(result.errorLines,
                                     ("nobody@corp.test", "user0000001@corp.test"),
                                     ("notfound", "found")):
            self.assertRegex(line, rf"^solvane-ldap: {key}: {status} by {self.uri} in [\d.]+ ms: "
                             rf"\(mail={key}\)$")

    def testKeepsQuietOnRequest(self):
        result = self.lookUp("-q", "x", base="ou=missing,dc=corp,dc=test")

        self.assertEqual((result.status, result.errors), (78, ""))

    def testReportsABaseThatDoesNotExist(self):
        result = self.lookUp("x", base="ou=missing,dc=corp,dc=test")

        self.assertFails(result, 78, "No such object (32)", "matched DN 'dc=corp,dc=test'",
                         "correct the base (-b)")
        self.assertTrue(result.output.startswith("# x: error 78: "), result.output)

    def testReportsABaseThatIsNoDn(self):
        self.assertFails(self.lookUp("x", base="nonsense"), 65, "Invalid DN syntax (34)")

    def testReportsAMalformedTemplateOnceAndAsksNoServer(self):
        result = self.lookUp("a", "b", template="(mail=$q)")

        self.assertFails(result, 65, "at byte 6", "unknown specifier", "solvane-ldap expand")
        self.assertEqual(result.output, "")

    def testReportsAnInvalidFilter(self):
        result = self.lookUp("u", template="(mail=$u")

        self.assertFails(result, 65, "at byte 0: '(' without its ')'", "solvane-ldap expand")
        self.assertEqual(result.output, "")

    def testSendsNoEmptyFilter(self):
        result = self.lookUp("u", template="(mail=*)$b")

        self.assertFails(result, 65, "empty filter")
        self.assertNotIn("found", result.output)

    def testReportsAReferral(self):
        result = self.lookUp("x", "-s", "base", template="(objectClass=*)",
                             base="cn=elsewhere,ou=referrals,dc=corp,dc=test")

        self.assertFails(result, 69, "Referral (10)", "see ldap://other.corp.test:389/", "-H")

    def testShowsWhatCameBeforeALimitAndAsksToTryLater(self):
        result = self.lookUp("x", "--attrs", "1.1", template="(objectClass=*)")

        self.assertFails(result, 75, "Size limit exceeded (4)")
        self.assertTrue(result.lines[0].startswith("# x: error 75 after 20 of its entries: "),
                        result.lines[0])
        self.assertEqual(sum(line.startswith("dn: ") for line in result.lines), 20)

    def testGoesOnAfterAKeyThatFailed(self):
        result = self.lookUp("--attrs", "1.1", "x", "y", base=f"cn=busy,{CODES}",
                             template="(objectClass=*)")

        self.assertEqual([line[:14] for line in result.lines], ["# x: error 75:", "# y: error 75:"])
        self.assertEqual(len(result.errorLines), 2)

    def testGivesEachResultCodeItsExitStatus(self):
        for name, status in (("ok", 1), ("timeLimitExceeded", 75), ("busy", 75),
                             ("unavailable", 75), ("other", 75), ("operationsError", 75),
                             ("insufficientAccess", 77), ("invalidDNSyntax", 65),
                             ("unwillingToPerform", 69), ("referral", 69), ("noSuchObject", 78)):
            with self.subTest(code=name):
                result = self.lookUp("x", base=f"cn={name},{CODES}", template="(objectClass=*)")

                self.assertEqual(result.status, status, result.errors)

    def testLetsTheWorstKeyDecide(self):
        result = self.lookUp("user0000001@corp.test", "nobody@corp.test", "")

        self.assertEqual(result.status, 65)

    def testFindsNothingInWhatOthersMayNotSee(self):
        result = self.lookUp("secret", base=PRIVATE, template="(cn=$u)")

        self.assertEqual(result.status, 78)


class LookupWhereAnonymousIsRefused(DirectoryTest):

    slapdOptions = ["--users", "1", "--no-anon", "--no-v2"]

    def testReportsTheMissingBind(self):
        result = self.lookUp("user0000001@corp.test")

        self.assertFails(result, 69, "(53): authentication required")
        self.assertNotIn("not found", result.output)

    def testReportsARefusedProtocolVersion(self):
        password = self.file("password", READER_PASSWORD.encode())

        result = self.lookUp("-P", "2", "-D", READER, "-y", password, "user0000001@corp.test")

        self.assertFails(result, 78, "the bind is refused", "(2)", "-P")


if __name__ == "__main__":
    unittest.main()
