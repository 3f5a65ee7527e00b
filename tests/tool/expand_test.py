"""`solvane-ldap expand`: filters and their explanation, without any network."""

import unittest

from support import ToolTest, run


class Expand(ToolTest):

    def testPrintsTheFilterOfEachAddress(self):
        result = run("expand", "-t", "(mail=$m)", "a@x.test", "b@y.test")

        self.assertEqual((result.status, result.lines, result.errors),
                         (0, ["(mail=a@x.test)", "(mail=b@y.test)"], ""))

    def testSplitsAnAddressAtItsLastAt(self):
        result = run("expand", "-t", "($u)($d)", "\"a@b\"@x.test")

        self.assertEqual(result.lines, ["(\"a@b\")(x.test)"])

    def testInsertsTheOptionalValues(self):
        result = run("expand", "-t", "(b=$b)(g=$g)", "--b", "1", "--g", "(2", "a@x")

        self.assertEqual(result.lines, ["(b=1)(g=\\282)"])

    def testEscapesWhatWouldChangeTheFilter(self):
        result = run("expand", "-t", "(uid=$u)", "*)(uid=*@x")

        self.assertEqual(result.lines, ["(uid=\\2A\\29\\28uid=\\2A)"])

    def testTakesKeysAsTheyAre(self):
        result = run("expand", "-t", "$u", "[a,b]", "{}", "expand", "--", "-x", "--explain")

        self.assertEqual(result.lines, ["[a,b]", "{}", "expand", "-x", "--explain"])

    def testReadsTheTemplateFromAFile(self):
        template = self.file("template", b"(mail=$m)\r\n")

        result = run("expand", "-T", template, "a@x")

        self.assertEqual(result.lines, ["(mail=a@x)"])

    def testReadsKeysLineByLine(self):
        result = run("expand", "-t", "$m", "-f", "-", stdin=b"a@x\nb@y")

        self.assertEqual(result.lines, ["a@x", "b@y"])

    def testKeepsUtf8(self):
        result = run("expand", "-t", "$u", "j\u00fcrgen@x")

        self.assertEqual(result.lines, ["j\u00fcrgen"])


class ExpandExplain(ToolTest):

    def testNamesPositionInsertionDroppedTextAndRemoval(self):
        template = "  (|(uid=$u)(x=1)$c(mail=$m${@corp.test})(b=$b)(g=$g) "

        result = run("expand", "--explain", "-t", template, "--g", "7", "jdoe@corp.test")

        self.assertEqual(result.lines, [
            "# jdoe@corp.test",
            "#   at 7: $u inserted \"jdoe\"",
            "#   at 15: $c inserted nothing, dropped the text \")(x=1)\"",
            "#   at 23: $m inserted \"jdoe@corp.test\"",
            "#   at 25: ${@corp.test} removed \"@corp.test\"",
            "#   at 42: $b inserted nothing, dropped the text \")(b=\"",
            "#   at 48: $g inserted \"7\"",
            "(|(uid=jdoe(mail=jdoe)(g=7)"])

    def testSaysWhereNothingWasRemoved(self):
        result = run("expand", "--explain", "-t", "$u${zz}", "ab@x")

        self.assertEqual(result.lines, ["# ab@x", "#   at 0: $u inserted \"ab\"",
                                        "#   at 2: ${zz} removed nothing", "ab"])

    def testShowsTheFirstOccurrenceRemovedAndTheTextDroppedBeforeIt(self):
        result = run("expand", "--explain", "-t", "$m-${^a}", "aba@x")

        self.assertEqual(result.lines, ["# aba@x", "#   at 0: $m inserted \"aba@x\"",
                                        "#   at 3: ${^a} removed \"a\", dropped the text \"-\"",
                                        "ba@x"])

    def testShowsACutThatReachesBehindTheLastExpansion(self):
        # The "#" of an empty domain does not count as an expansion: the cut takes it.
        result = run("expand", "--explain", "-t", "$u$d${b}", "ab")

        self.assertEqual(result.lines, ["# ab", "#   at 0: $u inserted \"ab\"",
                                        "#   at 2: $d inserted \"#\"",
                                        "#   at 4: ${b} turned the end \"b#\" into \"a\"", "aa"])

    def testExplainsWhatStandsBeforeAFault(self):
        result = run("expand", "--explain", "-t", "(x=$u)(y=$q)", "jdoe@x")

        self.assertFails(result, 65, "at pos 9 (q) : (x=$u)(y=$q)")
        self.assertEqual(result.lines, ["# jdoe@x", "#   at 3: $u inserted \"jdoe\""])


class ExpandRefuses(ToolTest):

    def testAnUnknownSpecifier(self):
        result = run("expand", "-t", "(x=$q)", "a@x", "b@x")

        self.assertFails(result, 65, "at pos 3 (q) : (x=$q)", "use $u")
        self.assertEqual(result.output, "")

    def testADollarAtTheEnd(self):
        result = run("expand", "-t", "cn=$", "a@x")

        self.assertFails(result, 65, "The last character", ": cn=$", "\\24")

    def testABraceThatIsNotClosed(self):
        result = run("expand", "-t", "$u${abc", "a@x")

        self.assertFails(result, 65, "missing matching bracket '}' : $u${abc", "close the brace")

    def testATemplateThatComesOutEmpty(self):
        result = run("expand", "-t", " (x=1)$b ", "a@x")

        self.assertFails(result, 65, "empty filter")

    def testATemplateOfSeveralLines(self):
        result = run("expand", "-t", "(&(a=1)\n(b=2))", "a@x")

        self.assertFails(result, 65, "a control character at byte 7", "one line")

    def testATemplateThatIsNoUtf8(self):
        result = run("expand", "-t", b"(cn=\xfc)$u", "a@x")

        self.assertFails(result, 65, "invalid UTF-8 at byte 4")

    def testAFilterWhoseCutTookHalfACharacter(self):
        result = run("expand", "-t", "$u\u00fc$d${b}", "ab")

        self.assertFails(result, 65, "'ab\\xC3a' is no UTF-8")

    def testABadKeyAndGoesOn(self):
        for key, words in ((b"", "empty"), (b"a\nb", "a control character at byte 1"),
                           (b"\xc2\x85", "a control character at byte 0"),
                           (b"a\x7f", "a control character at byte 1"),
                           (b"\xff", "invalid UTF-8 at byte 0"),
                           (b"\xc0\xaf", "invalid UTF-8 at byte 0"),
                           (b"\xed\xa0\x80", "invalid UTF-8 at byte 0"),
                           (b"\xf4\x90\x80\x80", "invalid UTF-8 at byte 0"),
                           (b"\xe2\x82", "invalid UTF-8 at byte 0")):
            with self.subTest(key=key):
                result = run("expand", "-t", "$u", key, "next@x")

                self.assertFails(result, 65, words)
                self.assertEqual(result.lines, ["next"])

    def testAKeyWithNulFromAFile(self):
        result = run("expand", "-t", "$u", "-f", "-", stdin=b"a\0b\n")

        self.assertFails(result, 65, "a control character at byte 1")

    def testAFileThatCannotBeRead(self):
        self.assertFails(run("expand", "-T", "/nonexistent", "a"), 78, "'/nonexistent'",
                         "No such file")
        self.assertFails(run("expand", "-T", self.folder, "a"), 78, "Is a directory")
        self.assertFails(run("expand", "-t", "$u", "-f", "/nonexistent"), 78, "No such file")
        self.assertFails(run("expand", "-t", "$u", "-f", self.folder), 78, "Is a directory")


if __name__ == "__main__":
    unittest.main()
