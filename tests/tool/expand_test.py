"""`solvane-ldap expand`: filters, their explanation, and findings, without any network."""

import subprocess
import threading
import unittest

from support import DEADLINE, TOOL, ToolTest, run


class Expand(ToolTest):
    def test_prints_the_filter_of_each_address(self):
        result = run("expand", "-t", "(mail=$m)", "a@x.test", "b@y.test")

        self.assertEqual(
            (result.status, result.lines, result.errors),
            (0, ["(mail=a@x.test)", "(mail=b@y.test)"], ""),
        )

    def test_splits_an_address_at_its_last_at(self):
        result = run("expand", "-t", "($u)($d)", '"a@b"@x.test')

        self.assertEqual(result.lines, ['("a@b")(x.test)'])

    def test_inserts_the_optional_values(self):
        result = run("expand", "-t", "(b=$b)(g=$g)", "--b-value", "1", "--g-value", "(2", "a@x")

        self.assertEqual(result.lines, ["(b=1)(g=\\282)"])

    def test_escapes_what_would_change_the_filter(self):
        result = run("expand", "-t", "(uid=$u)", "*)(uid=*@x")

        self.assertEqual(result.lines, ["(uid=\\2A\\29\\28uid=\\2A)"])

    def test_takes_keys_as_they_are(self):
        result = run("expand", "-t", "$u", "[a,b]", "{}", "expand", "--", "-x", "--explain")

        self.assertEqual(result.lines, ["[a,b]", "{}", "expand", "-x", "--explain"])

    def test_reads_the_template_from_a_file(self):
        template = self.file("template", b"(mail=$m)\r\n")

        result = run("expand", "-T", template, "a@x")

        self.assertEqual(result.lines, ["(mail=a@x)"])

    def test_reads_keys_line_by_line(self):
        result = run("expand", "-t", "$m", "-f", "-", stdin=b"a@x\nb@y")

        self.assertEqual(result.lines, ["a@x", "b@y"])

    def test_ends_keys_and_filters_with_nul(self):
        result = run("expand", "-0", "-t", "$m", "-f", "-", stdin=b"a@x\0b@y\0")

        self.assertEqual((result.status, result.bytes), (0, b"a@x\0b@y\0"))

    def test_prints_a_filter_before_the_next_address_is_there(self):
        with subprocess.Popen(
            [TOOL, "expand", "-t", "$m", "-f", "-"], stdin=subprocess.PIPE, stdout=subprocess.PIPE
        ) as tool:
            watchdog = threading.Timer(DEADLINE, tool.kill)
            self.addCleanup(watchdog.cancel)
            watchdog.start()
            for key in (b"a@x\n", b"b@y\n"):
                tool.stdin.write(key)
                tool.stdin.flush()

                self.assertEqual(tool.stdout.readline(), key)
            tool.stdin.close()
            self.assertEqual(tool.wait(DEADLINE), 0)

    def test_prints_every_one_of_many_filters(self):
        keys = b"".join(b"user%d@corp.test\n" % number for number in range(20000))

        result = run("expand", "-t", "$m", "-f", "-", stdin=keys)

        self.assertEqual((result.status, result.bytes), (0, keys))

    def test_keeps_utf8(self):
        result = run("expand", "-t", "$u", "j\u00fcrgen@x")

        self.assertEqual(result.lines, ["j\u00fcrgen"])


class ExpandExplain(ToolTest):
    def test_names_position_insertion_dropped_text_and_removal(self):
        template = "  (|(uid=$u)(x=1)$c(mail=$m${@corp.test})(b=$b)(g=$g) "

        result = run("expand", "--explain", "-t", template, "--g", "7", "jdoe@corp.test")

        self.assertEqual(
            result.lines,
            [
                "# jdoe@corp.test",
                '#   at 9: $u inserted "jdoe"',
                '#   at 17: $c inserted nothing, dropped the text ")(x=1)"',
                '#   at 25: $m inserted "jdoe@corp.test"',
                '#   at 27: ${@corp.test} removed "@corp.test"',
                '#   at 44: $b inserted nothing, dropped the text ")(b="',
                '#   at 50: $g inserted "7"',
                "(|(uid=jdoe(mail=jdoe)(g=7)",
            ],
        )

    def test_says_where_nothing_was_removed(self):
        result = run("expand", "--explain", "-t", "$u${zz}", "ab@x")

        self.assertEqual(
            result.lines,
            ["# ab@x", '#   at 0: $u inserted "ab"', "#   at 2: ${zz} removed nothing", "ab"],
        )

    def test_shows_the_first_occurrence_removed_and_the_text_dropped_before_it(self):
        result = run("expand", "--explain", "-t", "$m-${^a}", "aba@x")

        self.assertEqual(
            result.lines,
            [
                "# aba@x",
                '#   at 0: $m inserted "aba@x"',
                '#   at 3: ${^a} removed "a", dropped the text "-"',
                "ba@x",
            ],
        )

    def test_shows_a_cut_that_reaches_behind_the_last_expansion(self):
        # The "#" of an empty domain does not count as an expansion: the cut takes it.
        result = run("expand", "--explain", "-t", "$u$d${b}", "ab")

        self.assertEqual(
            result.lines,
            [
                "# ab",
                '#   at 0: $u inserted "ab"',
                '#   at 2: $d inserted "#"',
                '#   at 4: ${b} replaced the end "b#" by "a"',
                "aa",
            ],
        )

    def test_ends_each_explained_filter_with_nul(self):
        result = run("expand", "-0", "--explain", "-t", "$u", "a", "b")

        self.assertEqual(
            result.bytes,
            b'# a\n#   at 0: $u inserted "a"\na\0' b'# b\n#   at 0: $u inserted "b"\nb\0',
        )

    def test_explains_what_stands_before_a_fault(self):
        result = run("expand", "--explain", "-t", "(x=$u)(y=$q)", "jdoe@x")

        self.assert_fails(
            result, 65, "error in template '(x=$u)(y=$q)' at byte 9: unknown specifier", "--lint"
        )
        self.assertEqual(result.lines, ["# jdoe@x", '#   at 3: $u inserted "jdoe"'])


class ExpandLint(ToolTest):
    def test_says_nothing_of_a_clean_template(self):
        result = run("expand", "--lint", "-t", "(mail=$m)")

        self.assertEqual((result.status, result.output, result.errors), (0, "", ""))

    def test_marks_each_finding_under_the_template(self):
        result = run("expand", "--lint", "-t", "(&(uid=$u)(ou=$b)(x=$q)")

        self.assertEqual((result.status, result.errors), (65, ""))
        self.assertEqual(
            result.lines,
            [
                "template:0: error: '(' without its ')'",
                "(&(uid=$u)(ou=$b)(x=$q)",
                "^",
                "template:9: warning: this text is dropped before $b, which is empty",
                "(&(uid=$u)(ou=$b)(x=$q)",
                "         ^~~~~",
                "template:20: error: unknown specifier; use $u $n $N $d $m $a $A $b $g $c ${text}, "
                "or \\24 for a literal '$'",
                "(&(uid=$u)(ou=$b)(x=$q)",
                "                    ^~",
            ],
        )

    def test_warns_of_specifiers_of_other_programs(self):
        for specifier in ("%s", "%n", "%Lu", "%{user}", "%1"):
            with self.subTest(specifier):
                result = run("expand", "--lint", "-t", f"(|(mail=$m)(uid={specifier}))")

                self.assertEqual((result.status, len(result.lines)), (0, 3))
                self.assertIn("template:16: warning: plain text, not a specifier", result.lines[0])
                self.assertEqual(result.lines[2], " " * 16 + "^" + "~" * (len(specifier) - 1))
                alone = run("expand", "--lint", "-t", f"(uid={specifier})")
                self.assertIn("template:5: error: unsupported specifier", alone.lines[0])
        self.assertEqual(run("expand", "--lint", "-t", "(|(mail=$m)(cn=100%)(cn=%%))").output, "")

    def test_succeeds_with_warnings(self):
        result = run("expand", "--lint", "-t", "(&(uid=$u)(dc=$d))")

        self.assertEqual(
            (result.status, result.lines),
            (
                0,
                [
                    "template:14: warning: expands to '#' for an address without a domain",
                    "(&(uid=$u)(dc=$d))",
                    "              ^~",
                ],
            ),
        )

    def test_counts_bytes_and_marks_characters(self):
        result = run("expand", "--lint", "-t", "  (cn=\u00fc\u20ac$\u00e4)")

        self.assertEqual(result.status, 65)
        self.assertTrue(result.lines[0].startswith("template:11: error: "), result.lines)
        self.assertEqual(result.lines[1:], ["  (cn=\u00fc\u20ac$\u00e4)", "        ^~"])

    def test_marks_bytes_as_they_are_shown(self):
        result = run("expand", "--lint", "-t", b"(cn=\xfc\t$u)")

        self.assertEqual((result.status, result.lines[1:]), (65, ["(cn=\\xFC\\x09$u)", "    ^~~~"]))

    def test_marks_the_place_of_an_empty_template(self):
        result = run("expand", "--lint", "-t", " ")

        self.assertEqual(
            (result.status, result.lines),
            (
                65,
                [
                    "template:0: error: expands to an empty filter, which matches every entry",
                    " ",
                    "^",
                ],
            ),
        )

    def test_knows_the_optional_values(self):
        result = run("expand", "--lint", "-t", "(&(uid=$u)(ou=$b))", "--b", "sales")

        self.assertEqual((result.status, result.output), (0, ""))

    def test_is_followed_by_the_filters_of_addresses(self):
        warned = run("expand", "--lint", "-t", "(dc=$d)", "a@x", "b@y")
        wrong = run("expand", "--lint", "-t", "(uid=$u))", "a@x")
        malformed = run("expand", "--lint", "-t", "(uid=$x)", "a@x", "b@y")

        self.assertEqual((warned.status, len(warned.lines)), (0, 5))
        self.assertEqual(warned.lines[3:], ["(dc=x)", "(dc=y)"])
        self.assertEqual((wrong.status, wrong.lines[3:]), (65, ["(uid=a))"]))
        self.assert_fails(malformed, 65, "at byte 5")
        self.assertEqual(len(malformed.lines), 3)

    def test_ends_findings_with_nul(self):
        result = run("expand", "-0", "--lint", "-t", "(dc=$d)", "a@x")

        self.assertEqual(
            result.bytes,
            b"template:4: warning: expands to '#' for an address without a domain\n"
            b"(dc=$d)\n    ^~\0(dc=x)\0",
        )

    def test_needs_a_template(self):
        self.assert_fails(run("expand", "--lint"), 64, "template")


class ExpandRefuses(ToolTest):
    def test_an_unknown_specifier(self):
        result = run("expand", "-t", "(x=$q)", "a@x", "b@x")

        self.assert_fails(result, 65, "error in template '(x=$q)' at byte 3", "use $u")
        self.assertEqual(result.output, "")

    def test_a_dollar_at_the_end(self):
        result = run("expand", "-t", "cn=$", "a@x")

        self.assert_fails(result, 65, "error in template 'cn=$' at byte 3", "\\24")

    def test_a_brace_that_is_not_closed(self):
        result = run("expand", "-t", "$u${abc", "a@x")

        self.assert_fails(result, 65, "error in template '$u${abc' at byte 2", "without its '}'")

    def test_a_template_that_comes_out_empty(self):
        result = run("expand", "-t", " (x=1)$b ", "a@x")

        self.assert_fails(result, 65, "empty filter")

    def test_a_template_of_several_lines(self):
        result = run("expand", "-t", "(&(a=1)\n(b=2))", "a@x")

        self.assert_fails(
            result, 65, "'(&(a=1)\\x0A(b=2))' contains a control character at byte 7", "--lint"
        )

    def test_a_template_that_is_no_utf8(self):
        result = run("expand", "-t", b"(cn=\xfc)$u", "a@x")

        self.assert_fails(result, 65, "invalid UTF-8 at byte 4")

    def test_a_filter_whose_cut_took_half_a_character(self):
        result = run("expand", "-t", "$u\u00fc$d${b}", "ab")

        self.assert_fails(result, 65, "'ab\\xC3a' contains invalid UTF-8 at byte 2")

    def test_a_bad_key_and_goes_on(self):
        for key, words in (
            (b"", "empty"),
            (b"a\nb", "a control character at byte 1"),
            (b"\xc2\x85", "a control character at byte 0"),
            (b"a\x7f", "a control character at byte 1"),
            (b"\xff", "invalid UTF-8 at byte 0"),
            (b"\xc0\xaf", "invalid UTF-8 at byte 0"),
            (b"\xed\xa0\x80", "invalid UTF-8 at byte 0"),
            (b"\xf4\x90\x80\x80", "invalid UTF-8 at byte 0"),
            (b"\xe2\x82", "invalid UTF-8 at byte 0"),
        ):
            with self.subTest(key=key):
                result = run("expand", "-t", "$u", key, "next@x")

                self.assert_fails(result, 65, words)
                self.assertEqual(result.lines, ["next"])

    def test_a_key_with_nul_from_a_file(self):
        result = run("expand", "-t", "$u", "-f", "-", stdin=b"a\0b\n")

        self.assert_fails(result, 65, "a control character at byte 1")

    def test_no_address_at_all(self):
        self.assert_fails(run("expand", "-t", "$u"), 64, "no address given")

    def test_a_file_that_cannot_be_read(self):
        self.assert_fails(
            run("expand", "-T", "/nonexistent", "a"), 78, "'/nonexistent'", "No such file"
        )
        self.assert_fails(run("expand", "-T", self.folder, "a"), 78, "Is a directory")
        self.assert_fails(run("expand", "-t", "$u", "-f", "/nonexistent"), 78, "No such file")
        self.assert_fails(run("expand", "-t", "$u", "-f", self.folder), 78, "Is a directory")


if __name__ == "__main__":
    unittest.main()
