"""-C: the settings file, its grammar, its names, and what overrides it."""

import os
import unittest

from support import PEOPLE, PRIVATE, READER, READER_PASSWORD, DirectoryTest, ToolTest, run


class Grammar(ToolTest):
    def expand(self, text, *arguments, key="a+b@X.test", mode=0o600):
        return run("-C", self.file("conf", text.encode(), mode), "expand", *arguments, key)

    def assert_refused(self, text, line, *words, mode=0o600):
        result = self.expand(text, mode=mode)

        self.assert_fails(result, 78, f"conf:{line}: ", *words)
        self.assertEqual(result.output, "")

    def test_has_names_and_values_with_blanks_round_them(self):
        for text in (
            "query_filter=(m=$m)",
            "query_filter = (m=$m)\n",
            "query_filter\t=\t(m=$m) \r\n",
        ):
            with self.subTest(text=text):
                result = self.expand(text)

                self.assertEqual(
                    (result.status, result.lines), (0, ["(m=a+b@X.test)"]), result.errors
                )

    def test_passes_over_comments_and_empty_lines(self):
        result = self.expand("# query_filter = x\n\n  # more\n\t\nquery_filter = ($u)\n#\n")

        self.assertEqual(result.lines, ["(a+b)"], result.errors)

    def test_continues_a_line_that_begins_with_blanks(self):
        result = self.expand("query_filter = (&\n  (a=$u)\n# between\n\t(b=$d))\nb_value = 1\n")

        self.assertEqual(result.lines, ["(& (a=a+b) (b=X.test))"], result.errors)

    def test_keeps_equals_signs_of_the_value(self):
        self.assertEqual(self.expand("query_filter = (a=b=$u)\n").lines, ["(a=b=a+b)"])

    def test_reads_a_file_without_a_last_newline_and_an_empty_one(self):
        self.assertEqual(self.expand("b_value = v\nquery_filter = $b").lines, ["v"])
        self.assert_fails(self.expand(""), 64, "no template given", "query_filter")

    def test_is_overridden_by_options(self):
        settings = "query_filter = (file=$u)(b=$b)(g=$g)\nb_value = fb\ng_value = fg\n"

        self.assertEqual(self.expand(settings).lines, ["(file=a+b)(b=fb)(g=fg)"])
        self.assertEqual(self.expand(settings, "--b", "ob").lines, ["(file=a+b)(b=ob)(g=fg)"])
        self.assertEqual(self.expand(settings, "-t", "(opt=$u)").lines, ["(opt=a+b)"])

    def test_stands_before_or_behind_the_command(self):
        path = self.file("conf", b"query_filter = $u\n")

        self.assertEqual(run("expand", "-C", path, "a@b").lines, ["a"])
        self.assertEqual(run("-C", path, "expand", "a@b").lines, ["a"])

    def test_refuses_lines_that_are_none(self):
        self.assert_refused("\n# c\nquery_filter\n", 3, "no '='")
        self.assert_refused("  bind_dn = x\n", 1, "continuation line without a setting")
        self.assert_refused("b_value = 1\nfoo = 1\n", 2, "'foo'", "solvane-ldap.conf(5)")
        self.assert_refused("b_value = 1\n\nb_value = 1\n", 3, "b_value is set twice")
        self.assert_refused("b_value = a\x01b\n", 1, "b_value", "control character")
        self.assert_refused("Query_Filter = x\n", 1, "'Query_Filter'")

    def test_names_the_line_on_which_a_setting_begins(self):
        self.assert_refused(
            "b_value = 1\nscope =\n  all\nwindow = 1\n", 2, "scope: unsupported value 'all'"
        )

    def test_refuses_values_that_are_none(self):
        for setting, word in (
            ("server_host = http://h", "LDAP URI"),
            ("server_host = h:0", "port"),
            ("server_host = ldap://x@h", "'@'"),
            ("server_port = 65536", "65535"),
            ("version = 4", "2, 3"),
            ("timeout = 0", "from 1"),
            ("timeout = x", "from 1"),
            ("deadline = -1", "from 1"),
            ("bind = maybe", "yes or no"),
            ("scope = all", "base, one, sub"),
            ("dereference = 4", "never, search"),
            ("size_limit = x", "from 0"),
            ("time_limit = 1s", "from 0"),
            ("tls_verify = yes", "none, chain"),
            ("result_attribute = a,b c(", "commas"),
            ("domain =", "no domain given"),
            ("domain = a@b", "invalid domain"),
            ("forms = full,half", "noext"),
            ("delimiter = ab", "one ASCII"),
            ("connections = 0", "from 1"),
            ("window = 0", "from 1"),
            ("query_filter = (mail=%s)", "$m"),
            ("query_filter = (mail=%u@%d)", "$u"),
            ("bind_pw =", "empty"),
            ("server_host = ldap+srv:///x", "dc=example"),
            ("name_servers = ns.test", "192.0.2.1"),
            ("refused_hold = -1", "from 0"),
            ("entry_bytes = 1", "from 1024"),
            ("answer_bytes = 1", "from 1024"),
            ("key_bytes = 0", "from 1"),
            ("references = follow", "defer, ignore"),
            ("ascii_domains = maybe", "yes or no"),
        ):
            with self.subTest(setting=setting):
                self.assert_refused("# c\n" + setting + "\n", 2, setting.split()[0], word)

    def test_takes_every_name(self):
        domains = self.file("domains", b"x.test # ours\ny.test\n").encode()
        text = (
            b"server_host = h1 h2:390, ldaps://h3\nserver_port = 1389\nversion = 3\n"
            b"timeout = 5\ndeadline = 7\nbind = yes\nbind_dn = cn=x\nbind_pw = y\n"
            b"tls_verify = chain\ntls_ca_cert_file = /none\nsearch_base = dc=x\nscope = one\n"
            b"dereference = 2\nresult_attribute = cn, mail\nsize_limit = 0\ntime_limit = 3\n"
            b"query_filter = $u\nb_value = b\ng_value = g\ndomain = @" + domains + b"\n"
            b"forms = full, noext\ndelimiter = -\nconnections = 2\nwindow = 3\n"
            b"name_servers = 192.0.2.1, [2001:db8::1]:53\nrefused_hold = 0\n"
            b"entry_bytes = 1024\nanswer_bytes = 2147483647\nkey_bytes = 1\n"
            b"references = ignore\nascii_domains = no\n"
        )

        result = self.expand(text.decode())

        self.assertEqual((result.status, result.lines), (0, ["a+b"]), result.errors)

    def test_cannot_be_read_where_it_is_no_file(self):
        for path, word in (
            (self.folder + "/none", "No such file"),
            (self.folder, "Is a directory"),
        ):
            self.assert_fails(run("-C", path, "expand", "-t", "x", "a"), 78, word)

    def test_is_refused_with_a_password_that_others_can_read(self):
        for mode in (0o640, 0o604, 0o644, 0o602, 0o620):
            with self.subTest(mode=oct(mode)):
                self.assert_refused(
                    "query_filter = $u\nbind_pw = hunter2\n",
                    2,
                    "set mode 600",
                    f"mode {mode:03o}",
                    mode=mode,
                )

        self.assertEqual(self.expand("query_filter = $u\n", mode=0o644).status, 0)

    def test_may_begin_with_a_byte_order_mark(self):
        result = self.expand("\ufeffquery_filter = ($u)\n")
        template = self.file("template", "\ufeff[$u]".encode())
        keys = self.file("keys", "\ufeffa\n\ufeffb\n".encode())

        self.assertEqual(result.lines, ["(a+b)"])
        expanded = run("expand", "-T", template, "-f", keys)
        self.assertEqual(expanded.output, "[a]\n[\ufeffb]\n")

    def test_takes_domains_and_files_of_them(self):
        listed = self.file("domains", "\ufeffb.test # comment\nc.test\n".encode())
        for text in (f"a.test, {listed}", f"{listed} a.test", f"@{listed},a.test", "a.test"):
            with self.subTest(text):
                self.assertEqual(self.expand(f"query_filter = $u\ndomain = {text}\n").status, 0)
        for text, word in (
            ("a.test, hash:/etc/domains", "invalid domain 'hash:/etc/domains'"),
            ("texthash:/etc/domains", "invalid domain 'texthash:/etc/domains'"),
            ("a.test, !b.test", "invalid domain '!b.test'"),
            (".a.test", "invalid domain '.a.test'"),
            ("$mydestination", "invalid domain '$mydestination'"),
            ("a.test, /no/such/file", "cannot read the file of domains '/no/such/file'"),
        ):
            with self.subTest(text):
                self.assert_refused(f"query_filter = $u\ndomain = {text}\n", 2, word)

    def test_looks_up_as_postfix_only_if_asked_to(self):
        rules = "postfix_rules = yes\n"
        for template in ("(mail=%s)", "(uid=%Lu)", "(uid=%{user})", "(uid=%n)"):
            self.assert_refused(f"query_filter = {template}\n", 1, "$m")
        result = self.expand("query_filter = (mail=%s)\n" + rules)  # in any order
        self.assertEqual(result.lines, ["(mail=a\\2Bb@x.test)"])
        self.assertEqual(self.expand(rules + "query_filter = (x=%n)\n").status, 65)

    @unittest.skipIf(os.getuid() != 0, "needs root to give files away")
    def test_with_a_password_is_read_by_the_group_of_a_service(self):
        """Of another owner's file, this process is a reader by its group."""
        path = self.file("conf", b"query_filter = $u\nbind_pw = hunter2\n")
        own, other = os.getgid(), 12345
        for owner, group, mode, is_accepted in (
            (other, own, 0o640, True),
            (other, own, 0o440, True),
            (other, other, 0o640, False),
            (0, own, 0o640, False),
            (other, own, 0o660, False),
            (other, own, 0o644, False),
            (0, own, 0o602, False),
            (0, own, 0o620, False),
        ):
            with self.subTest(owner=owner, group=group, mode=oct(mode)):
                os.chown(path, owner, group)
                os.chmod(path, mode)
                result = run("-C", path, "expand", "a")

                if is_accepted:
                    self.assertEqual((result.status, result.errors), (0, ""))
                else:
                    self.assert_fails(result, 78, "able by other users", "set mode 600")

    def test_shows_no_password_of_a_wrong_line(self):
        for text in (
            "bind_pw hunter2\n",
            "bind_pw = hunter2\nbind_pw = hunter2\n",
            "bind_pw = hunter2\n",
            "bind_pw = hun\n  ter2\0\n",
        ):
            result = self.expand(text, mode=0o644)

            self.assertEqual(result.status, 78)
            self.assertNotIn("hunter2", result.errors)


class OnADirectory(DirectoryTest):
    slapd_options = ["--users", "5"]

    def settings(self, *lines):
        return self.file("conf", "\n".join(lines).encode() + b"\n")

    def everything(self, *more):
        return self.settings(
            f"server_host = {self.uri}",
            f"search_base = {PEOPLE}",
            "query_filter = (mail=$m)",
            "result_attribute = uid",
            *more,
        )

    def test_is_all_that_a_lookup_needs(self):
        result = run(
            "-C",
            self.everything(),
            "lookup",
            "--format",
            "values",
            "user0000001@corp.test",
            "nobody@corp.test",
        )

        self.assertEqual((result.status, result.lines), (1, ["user0000001", ""]), result.errors)

    def test_may_name_a_host_and_a_port(self):
        path = self.settings(
            "server_host = 127.0.0.1",
            f"server_port = {self.server['LDAP_PORT']}",
            f"search_base = {PEOPLE}",
            "query_filter = (mail=$m)",
        )

        self.assertEqual(run("-C", path, "lookup", "user0000001@corp.test").status, 0)

    def test_formats_results_under_both_names(self):
        for name in ("result_format", "result_filter"):
            path = self.everything(f"{name} = <%s>")
            lookup = run("-C", path, "lookup", "--format", "values", "user0000001@corp.test")
            invalid = run("-C", self.everything(f"{name} = %"), "lookup", "x")

            self.assertEqual(lookup.lines, ["<user0000001>"], lookup.errors)
            self.assert_fails(invalid, 78, f"conf:5: {name}", "single %")
        both = self.everything("result_format = %s", "result_filter = %u")
        self.assert_fails(run("-C", both, "lookup", "x"), 78, "result_format and result_filter")

    def test_binds_with_its_password(self):
        path = self.everything(f"bind_dn = {READER}", f"bind_pw = {READER_PASSWORD}")

        result = run(
            "-C", path, "lookup", "-v", "-b", PRIVATE, "-t", "(cn=$u)", "--format", "json", "secret"
        )

        self.assertEqual(result.status, 0, result.errors)
        self.assertNotIn(READER_PASSWORD, result.output + result.errors)

    def test_asks_anonymously_where_it_says_so(self):
        path = self.everything("bind = no", f"bind_dn = {READER}", "bind_pw = wrong")

        self.assertEqual(run("-C", path, "lookup", "user0000001@corp.test").status, 0)

    def test_gives_its_password_to_nobody_else(self):
        path = self.everything(f"bind_dn = {READER}", f"bind_pw = {READER_PASSWORD}")

        self.assert_fails(
            run("-C", path, "lookup", "-D", "cn=other", "a"), 64, "-D needs a password"
        )

    def test_gives_way_to_a_password_of_the_command_line(self):
        path = self.everything(f"bind_dn = {READER}", "bind_pw = wrong")

        self.assertEqual(run("-C", path, "lookup", "user0000001@corp.test").status, 77)
        result = run(
            "-C",
            path,
            "lookup",
            "-y",
            self.file("password", b"reader-pw\n"),
            "user0000001@corp.test",
        )
        self.assertEqual(result.status, 0, result.errors)

    def test_gives_way_to_a_server_of_the_command_line(self):
        path = self.settings(
            "server_host = ldap://127.0.0.1:1",
            f"search_base = {PEOPLE}",
            "query_filter = (mail=$m)",
        )

        result = run("-C", path, "lookup", "-H", self.uri, "user0000001@corp.test")

        self.assertEqual(result.status, 0, result.errors)

    def test_has_servers_in_order_of_trial(self):
        path = self.settings(
            f"server_host = ldap://127.0.0.1:1,\n  {self.uri}",
            f"search_base = {PEOPLE}",
            "query_filter = (mail=$m)",
        )

        self.assertEqual(run("-C", path, "lookup", "user0000001@corp.test").status, 0)

    def test_skips_domains_that_are_not_served(self):
        path = self.everything("domain = corp.test")

        result = run(
            "-C", path, "lookup", "--format", "tsv", "user0000001@corp.test", "a@other.test"
        )

        self.assertEqual([line.split("\t")[2] for line in result.lines], ["found", "skipped"])
        self.assertEqual(
            run(
                "-C",
                path,
                "lookup",
                "--domains",
                "other.test",
                "--format",
                "tsv",
                "user0000001@corp.test",
            )
            .lines[0]
            .split("\t")[2],
            "skipped",
        )

    def test_tries_its_forms(self):
        path = self.everything("forms = full,noext")

        self.assertEqual(run("-C", path, "lookup", "user0000001+x@corp.test").status, 0)
        self.assertEqual(
            run("-C", path, "lookup", "--forms", "full", "user0000001+x@corp.test").status, 1
        )

    def test_limits_the_entries(self):
        path = self.everything("size_limit = 2")

        self.assertEqual(run("-C", path, "lookup", "-t", "(uid=*)", "a").status, 75)
        self.assertEqual(run("-C", path, "lookup", "-t", "(uid=*)", "-z", "0", "a").status, 0)

    def test_needs_a_password_for_its_dn(self):
        self.assert_fails(
            run("-C", self.everything(f"bind_dn = {READER}"), "lookup", "a"),
            64,
            "bind_dn needs a password",
            "-W, -y FILE",
        )


class Includes(ToolTest):
    def expand(self, text):
        return run("-C", self.file("conf", text), "expand", "a@x.test")

    def test_are_read_beside_the_file(self):
        self.file("common", b"query_filter = ($u=$b)\n")

        result = self.expand(b"include = common\nb_value = 1\n")

        self.assertEqual(result.lines, ["(a=1)"], result.errors)

    def test_count_less_than_the_file_wherever_they_stand(self):
        self.file("common", b"b_value = 2\ng_value = 3\n")

        for text in (b"include = common\nb_value = 1\n", b"b_value = 1\ninclude = common\n"):
            result = self.expand(text + b"query_filter = ($b=$g)\n")

            self.assertEqual(result.lines, ["(1=3)"], result.errors)

    def test_have_lines_of_their_own(self):
        self.file("common", b"\n\nb_values = 2\n")

        result = self.expand(b"include = common\n")

        self.assert_fails(result, 78, "/common:3: unknown setting 'b_values'")

    def test_must_agree_on_who_sets_a_name(self):
        self.file("one", b"b_value = 1\n")
        self.file("two", b"b_value = 1\n")

        result = self.expand(b"include = one\ninclude = two\n")

        self.assert_fails(result, 78, "/two:1: b_value is set twice")

    def test_end_if_they_go_in_a_circle(self):
        self.file("common", b"include = conf\n")

        result = self.expand(b"include = common\n")

        self.assert_fails(result, 78, "too many files include one another")

    def test_must_exist(self):
        result = self.expand(b"b_value = 1\ninclude = absent\n")

        self.assert_fails(result, 78, "conf:2: ", "/absent': No such file")

    def test_keep_their_passwords_from_others(self):
        self.file("common", b"bind_pw = secret\n", mode=0o644)

        result = self.expand(b"include = common\n")

        self.assert_fails(result, 78, "/common:1: bind_pw: the file is readable by other users")


if __name__ == "__main__":
    unittest.main()
