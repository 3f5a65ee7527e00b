"""Postfix's LDAP tables made settings: thirty as sites write them, and what an import says."""

import os
import shutil
import stat
import subprocess
import tempfile
import unittest

from support import DEADLINE, TOOL, DirectoryTest, ToolTest, run

POSTMAP = shutil.which("postmap", path=os.environ.get("PATH", "") + ":/usr/sbin")

SCHEMA = """
attributetype ( 1.3.6.1.4.1.4203.666.1.901 NAME ( 'maildrop' 'mailacceptinggeneralid' )
  EQUALITY caseIgnoreIA5Match SUBSTR caseIgnoreIA5SubstringsMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.26 )
attributetype ( 1.3.6.1.4.1.4203.666.1.902 NAME 'proxyAddresses'
  EQUALITY caseIgnoreMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 )
attributetype ( 1.3.6.1.4.1.4203.666.1.903 NAME 'mailHost'
  EQUALITY caseIgnoreIA5Match SYNTAX 1.3.6.1.4.1.1466.115.121.1.26 )
attributetype ( 1.3.6.1.4.1.4203.666.1.906 NAME 'sAMAccountName'
  EQUALITY caseIgnoreIA5Match SYNTAX 1.3.6.1.4.1.1466.115.121.1.26 )
attributetype ( 1.3.6.1.4.1.4203.666.1.904 NAME 'memberURL'
  EQUALITY caseExactIA5Match SYNTAX 1.3.6.1.4.1.1466.115.121.1.26 )
attributetype ( 1.3.6.1.4.1.4203.666.1.905 NAME 'login'
  EQUALITY caseExactIA5Match SYNTAX 1.3.6.1.4.1.1466.115.121.1.26 )
objectclass ( 1.3.6.1.4.1.4203.666.3.901 NAME 'mailThing' SUP top STRUCTURAL
  MUST cn MAY ( ou $ mail $ maildrop $ proxyAddresses $ mailHost $ sAMAccountName $ memberURL $ member $ login $
  associatedDomain $ description $ seeAlso ) )
"""


def entry(dn, **attributes):
    """A record of LDIF; values of a list are several."""
    lines = [f"dn: {dn},dc=corp,dc=test", "objectClass: mailThing"]
    for name, values in {"cn": dn.split(",")[0].split("=")[1], **attributes}.items():
        lines += [
            f"{name}: {value}" for value in (values if isinstance(values, list) else [values])
        ]
    return "\n".join(lines) + "\n\n"


def person(number):
    return f"uid=user{number:07},ou=people,dc=corp,dc=test"


def thing(name):
    return f"cn={name},ou=mail,dc=corp,dc=test"


DATA = "dn: ou=mail,dc=corp,dc=test\nobjectClass: organizationalUnit\nou: mail\n\n" + "".join(
    [
        entry("cn=postmaster,ou=mail", maildrop="user0000001@corp.test"),
        entry("cn=webmaster,ou=mail", maildrop=["user0000002@corp.test", "user0000003@corp.test"]),
        entry("cn=abuse,ou=mail", mail="abuse@corp.test", maildrop=["/dev/null", "log@corp.test"]),
        entry("cn=empty,ou=mail", mail="empty@corp.test"),
        entry(
            "cn=info,ou=mail", mail=["info@corp.test", "Info@sub.corp.test"], maildrop="Anna@x.test"
        ),
        entry("cn=catchall,ou=mail", mail="@catch.test", maildrop="catch@corp.test"),
        entry(
            "cn=domain,ou=mail",
            associatedDomain=["corp.test", "catch.test"],
            mailHost="mx.corp.test",
        ),
        entry("cn=sub,ou=mail", associatedDomain="sub.corp.test", mailHost="[192.0.2.7]:26"),
        entry(
            "cn=ad,ou=mail",
            sAMAccountName="adams",
            mail="adam@corp.test",
            proxyAddresses=["SMTP:adam@corp.test", "smtp:eve@corp.test", "x500:/o=corp/cn=adam"],
        ),
        entry("cn=login,ou=mail", mail="sender@corp.test", login=["user0000001", "user0000002"]),
        entry("cn=lower,ou=mail", login="case@corp.test", mail="lower@corp.test"),
        entry("cn=upper,ou=mail", login="CASE@corp.test", mail="upper@corp.test"),
        entry("cn=odd*(name),ou=mail", mail="odd*(name)@corp.test", maildrop="odd@corp.test"),
        entry(
            "cn=team,ou=mail", mail="team@corp.test", member=[person(1), person(2), thing("gone")]
        ),
        entry(
            "cn=all,ou=mail",
            mail="all@corp.test",
            maildrop="first@corp.test",
            member=[thing("team"), person(3), thing("loop")],
        ),
        entry("cn=loop,ou=mail", mail="loop@corp.test", member=[person(4)]),
        entry(
            "cn=list,ou=mail",
            mail="list@corp.test",
            maildrop="majordomo@corp.test",
            member=person(5),
        ),
        entry(
            "cn=url,ou=mail",
            mail="url@corp.test",
            memberURL=[
                "ldap:///ou=people,dc=corp,dc=test?mail?one?(uid=user0000006)",
                "ldap:///ou=people,dc=corp,dc=test?mail?sub?(|(uid=user0000007)(uid=user0000008))",
            ],
        ),
    ]
)

# What most tables begin with.
HEAD = "server_host = {uri}\nversion = 3\nsearch_base = dc=corp,dc=test\nbind = no\n"
READER = "bind_dn = cn=reader,dc=corp,dc=test\nbind_pw = reader-pw\n"

TABLES = {
    "relay_recipients": HEAD
    + "query_filter = (mail=%s)\nresult_attribute = mail\nresult_format = OK\n",
    "defaults": "server_host = {uri}\nsearch_base = dc=corp,dc=test\nbind = no\n",
    "local_aliases": HEAD
    + "scope = SUB\nquery_filter = (&(objectClass=mailThing)(cn=%s))\nresult_attribute = maildrop\n",
    "virtual_aliases": HEAD + "query_filter = (mail=%s)\nresult_attribute = maildrop, mailHost\n",
    "mailboxes": HEAD
    + "query_filter = (&(objectClass=inetOrgPerson)(mail=%s))\nresult_attribute = mail\n"
    "result_format = %d/%u/Maildir/\n",
    "several_attributes": HEAD + "query_filter = mail=%s\nresult_attribute = cn sn, uid\n",
    "bound": "server_host = {host}\nserver_port = {port}\nversion = 3\nbind = YES\n"
    + READER
    + "search_base = dc=corp,dc=test\nquery_filter = (uid=%u)\nresult_attribute = mail\n",
    "two_servers": "server_host = {host}:{port}, localhost:{port}\nversion = 3\nbind = none\n"
    "search_base = ou=people,dc=corp,dc=test\nscope = one\nquery_filter = (mail=%s)\n"
    "result_attribute = uid\ntimeout = 20\n",
    "users_of_a_domain": HEAD
    + "query_filter = (&(uid=%u)(mail=*@%d))\nresult_attribute = mail\ndomain = corp.test\n",
    "catch_all_with_domains": HEAD
    + "query_filter = (mail=%s)\nresult_attribute = maildrop\ndomain = catch.test, Corp.Test\n",
    "catch_all": HEAD + "query_filter = (mail=%s)\nresult_attribute = maildrop\n",
    "domains_of_a_file": HEAD
    + "query_filter = (mail=%s)\nresult_attribute = cn\ndomain = example.org, {folder}/domains\n",
    "domains_of_a_table": HEAD
    + "query_filter = (mail=%s)\nresult_attribute = cn\ndomain = texthash:{folder}/table\n",
    "relay_domains": HEAD
    + "query_filter = (associatedDomain=%s)\nresult_attribute = associatedDomain\n"
    "result_format = %S\n",
    "transports": HEAD + "query_filter = (associatedDomain=%s)\nresult_attribute = mailHost\n"
    "result_format = smtp:%s\n",
    "transports_of_addresses": HEAD
    + "query_filter = (associatedDomain=%d)\nresult_attribute = mailHost\nresult_filter = lmtp:%s\n",
    "sender_logins": HEAD + "query_filter = (mail=%s)\nresult_attribute = login, uid\n",
    "own_addresses": HEAD
    + "query_filter = (uid=%u)\nresult_attribute = uid\nresult_format = %U@%D\n",
    "top_domains": HEAD
    + "query_filter = (uid=%u)\nresult_attribute = uid\nresult_format = %s.%2.%1\n",
    "labels": HEAD
    + "query_filter = (|(associatedDomain=%3.%2.%1)(cn=%3))\nresult_attribute = cn\n",
    "base_of_a_domain": "server_host = {uri}\nversion = 3\nbind = no\n"
    "search_base = ou=people,dc=%2,dc=%1\nquery_filter = (uid=%u)\nresult_attribute = mail\n",
    "base_of_a_key": "server_host = {uri}\nversion = 3\nbind = no\nsearch_base = cn=%u,ou=mail,dc=corp,dc=test\n"
    "scope = base\nquery_filter = (objectClass=*)\nresult_attribute = mail, maildrop\n",
    "starttls": HEAD + "start_tls = Yes\ntls_ca_cert_file = {ca}\ntls_require_cert = yes\n"
    "query_filter = (mail=%s)\nresult_attribute = uid\n",
    "ldaps_unverified": "server_host = {secure}\nversion = 3\ntls_require_cert = no\nbind = simple\n"
    + READER
    + "search_base = dc=corp,dc=test\nquery_filter = (mail=%s)\nresult_attribute = uid\n",
    "sasl_on_a_socket": "server_host = {ldapi}\nversion = 3\nbind = sasl\nsasl_mechs = EXTERNAL\n"
    "search_base = dc=corp,dc=test\nquery_filter = (mail=%s)\nresult_attribute = uid\n",
    "active_directory": "server_host = {host}\nserver_port = {port}\nversion = 3\n"
    + READER
    + "search_base = dc=corp,dc=test\nscope = sub\nchase_referrals = no\nquery_filter =\n"
    "  (&(objectClass=*)\n    (|(mail=%s)(proxyAddresses=smtp:%s)))\nresult_attribute = mail, sAMAccountName\n",
    "groups": HEAD + "query_filter = (&(objectClass=mailThing)(mail=%s))\nresult_attribute = mail\n"
    "special_result_attribute = member\nrecursion_limit = 10\n",
    "groups_of_leaves": HEAD + "query_filter = (mail=%s)\nresult_attribute =\n"
    "leaf_result_attribute = mail\nspecial_result_attribute = member, memberURL\n",
    "lists": HEAD + "query_filter = (mail=%s)\nresult_attribute =\nleaf_result_attribute = mail\n"
    "special_result_attribute = member\nterminal_result_attribute = maildrop\nexpansion_limit = 100\n",
    "exact_case": HEAD
    + "query_filter = (login=%s)\nresult_attribute = mail\nresult_format = %s for %S\n",
    "percent_signs": HEAD + "query_filter = (|(mail=%s)(cn=100%%))\nresult_attribute = cn\n"
    "result_format = 100%% %s\ndereference = 3\ndebuglevel = 0\ncache = no\n",
}

# Bare names, domains, addresses: known, unknown, in any case, and malformed.
KEYS = (
    [f"user{number:07}@corp.test" for number in range(1, 31)]
    + [f"USER{number:07}@Corp.Test" for number in range(31, 36)]
    + [f"user{number:07}@sub.corp.test" for number in range(36, 41)]
    + [f"user{number:07}" for number in range(41, 46)]
    + [f"user{number:07}@elsewhere.test" for number in range(46, 51)]
    + [f"nobody{number}@corp.test" for number in range(20)]
    + """postmaster webmaster abuse empty info Postmaster nobody all team list url loop login ad domain
    sub corp.test CATCH.test sub.corp.test test @corp.test @catch.test @ corp.test. postmaster@corp.test
    abuse@corp.test empty@corp.test info@corp.test INFO@SUB.corp.test info@sub.corp.test all@corp.test
    team@corp.test list@corp.test url@corp.test loop@corp.test adam@corp.test eve@corp.test
    adams@corp.test sender@corp.test case@corp.test CASE@corp.test odd*(name)@corp.test *@corp.test *
    a@b@corp.test user0000001@ user0000001@mail.sub.corp.test user0000001@corp..test x@catch.test
    info@x.y.corp.test ad,ou=mail@corp.test (mail=*) a\\b@corp.test 100% %s@corp.test""".split()
)


def unescaped(text):
    """Undoes the escapes of tsv."""
    return text.encode("utf-8").decode("unicode_escape").encode("latin-1").decode("utf-8")


def once(values):
    """Postfix repeats what it reaches on several ways."""
    return list(dict.fromkeys(values))


@unittest.skipIf(POSTMAP is None and not os.environ.get("CI"), "Postfix is not installed")
class Tables(DirectoryTest):
    """Each table finds the same with Postfix and, imported, with the tool."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.mkdtemp(prefix="solvane-tool-")
        cls.addClassCleanup(shutil.rmtree, folder)
        cls.make_postfix(os.path.join(folder, "etc"))
        schema = os.path.join(folder, "schema.conf")
        with open(schema, "w", encoding="utf-8") as file:
            file.write(SCHEMA)
        cls.slapd_options = ["--users", "60", "--global-conf", schema]
        super().setUpClass()
        subprocess.run(
            [
                "ldapadd",
                "-x",
                "-H",
                cls.uri,
                "-D",
                cls.server["ADMIN_DN"],
                "-w",
                cls.server["ADMIN_PW"],
            ],
            input=DATA.encode(),
            check=True,
            timeout=DEADLINE,
            stdout=subprocess.DEVNULL,
        )

    @classmethod
    def make_postfix(cls, folder):
        """A configuration that has nothing but the types of tables."""
        cls.postfix = folder
        os.mkdir(cls.postfix)
        for name in ("dynamicmaps.cf", "dynamicmaps.cf.d"):
            path = os.path.join("/etc/postfix", name)
            if os.path.isdir(path):
                shutil.copytree(path, os.path.join(cls.postfix, name))
            elif os.path.exists(path):
                shutil.copy(path, cls.postfix)
        with open(os.path.join(cls.postfix, "main.cf"), "w", encoding="utf-8") as file:
            file.write("compatibility_level = 3.6\n")
        with open(os.path.join(cls.postfix, "none.cf"), "w", encoding="utf-8") as file:
            file.write("server_host = ldap://127.0.0.1:1\n")
        tried = subprocess.run(
            [POSTMAP, "-c", folder, "-q", "x", f"ldap:{folder}/none.cf"],
            capture_output=True,
            timeout=DEADLINE,
            check=False,
        )
        if b"unsupported" in tried.stderr and not os.environ.get("CI"):
            raise unittest.SkipTest("postfix-ldap is not installed")

    def table(self, text):
        self.file("domains", b"corp.test\n")
        self.file("table", b"corp.test yes\n.sub.corp.test yes\n")
        values = {
            "uri": self.uri,
            "secure": self.secure_uri,
            "ldapi": self.server["LDAPI_URI"],
            "ca": self.server["CA_FILE"],
            "host": "127.0.0.1",
            "port": self.server["LDAP_PORT"],
            "folder": self.folder,
        }
        for name, value in values.items():
            text = text.replace("{" + name + "}", value)
        return self.file("table.cf", text.encode())

    def by_postfix(self, path):
        done = subprocess.run(
            [POSTMAP, "-c", self.postfix, "-q", "-", f"ldap:{path}"],
            input="\n".join(KEYS).encode() + b"\n",
            capture_output=True,
            timeout=DEADLINE,
            check=False,
        )
        self.assertNotIn(b"fatal", done.stderr)
        self.assertNotIn(b"error", done.stderr)
        lines = [line.split("\t", 1) for line in done.stdout.decode().splitlines()]
        return {key: once(value.split(",")) for key, value in lines}

    def imported(self, path):
        output = os.path.join(self.folder, "imported.conf")
        result = run(
            "import", path, "--output", output, "--force",
            env={**os.environ, "MAIL_CONFIG": self.postfix},
        )  # fmt: skip
        self.assertEqual(result.status, 0, result.errors)
        return output

    def by_tool(self, path):
        keys = self.file("keys", "\n".join(KEYS).encode() + b"\n")
        result = run("-C", self.imported(path), "lookup", "--format", "tsv", "-f", keys)
        found = {}
        rows = [line.split("\t") for line in result.lines]
        self.assertEqual([unescaped(row[0]) for row in rows], KEYS)
        for key, values, status, *_ in rows:
            self.assertIn(status, ("found", "notfound", "novalue", "skipped"), result.output)
            if status == "found":
                found[unescaped(key)] = once([unescaped(value) for value in values.split(",")])
        return found

    def test_find_the_same_as_postfix(self):
        self.assertGreaterEqual(len(TABLES), 30)
        self.assertGreaterEqual(len(set(KEYS)), 100)
        for name, text in TABLES.items():
            with self.subTest(name):
                path = self.table(text)
                theirs = self.by_postfix(path)
                self.assertEqual(self.by_tool(path), theirs)
                self.assertTrue(theirs, "the table finds nothing: it proves nothing")

    def test_a_missing_base_is_not_found_only_if_it_is_made_from_the_key(self):
        table = "server_host = {uri}\nsearch_base = %s\nquery_filter = (mail=%%s)\nresult_attribute = mail\n"
        for base, status in (("ou=%d,dc=corp,dc=test", 1), ("o=100%%,dc=corp,dc=test", 78)):
            with self.subTest(base):
                path = self.imported(self.table(table % base))

                self.assertEqual(run("-C", path, "lookup", "-q", "a@b.c").status, status)
                checked = run("-C", path, "check", "--probe", "a@b.c")
                self.assertEqual(
                    "made from the address" in checked.output, status == 1, checked.errors
                )

    def test_a_table_without_domains_is_not_every_domain(self):
        self.file("none", b"@corp.test yes\n")
        table = self.table("server_host = h\nsearch_base = dc=x\ndomain = texthash:{folder}/none\n")

        result = run("import", table, env={**os.environ, "MAIL_CONFIG": self.postfix})
        self.assertEqual((result.status, result.output), (78, ""))
        self.assertIn("t.cf:3".replace("t.cf", "table.cf"), result.errors)
        self.assertIn("has no domain, so no address is ever found", result.errors)


class Words(ToolTest):
    """What an import says; no server and no Postfix are needed."""

    TABLE = "server_host = h\nversion = 3\nsearch_base = dc=x\nquery_filter = (mail=%s)\nresult_attribute = mail\n"

    def importing(self, text, *arguments, mode=0o600):
        return run("import", self.file("t.cf", text.encode(), mode), *arguments)

    def settings(self, text, *arguments):
        """The settings that are printed, by name."""
        result = self.importing(text, *arguments)
        self.assertEqual(result.status, 0, result.errors)
        lines = [line.split(" = ", 1) for line in result.lines if not line.startswith("#")]
        return dict(lines)

    def test_reports_nothing_for_what_is_the_same(self):
        result = self.importing(self.TABLE)

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertIn("postfix_rules = yes\n", result.output)
        self.assertIn("query_filter = (mail=%s)\n", result.output)

    def test_reports_what_differs_with_its_line(self):
        for line, word in (
            ("version = 2", "t.cf:6: warning: version: it is 2"),
            ("chase_referrals = yes", "t.cf:6: warning: chase_referrals"),
            ("cache = yes", "t.cf:6: note: cache"),
            ("cache_size = 7", "t.cf:6: note: cache_size"),
            ("cache_expiry = 7", "t.cf:6: note: cache_expiry"),
            ("debuglevel = 1", "t.cf:6: note: debuglevel"),
            ("tls_random_file = /dev/urandom", "t.cf:6: note: tls_random_file"),
            ("serch_base = dc=y", "t.cf:6: warning: serch_base: unknown setting"),
            ("start_tls = yes", "warning: tls_require_cert: it is not set"),
            ("start_tls = yes\ntls_require_cert = no", "t.cf:7: warning: tls_require_cert: any"),
            ("scope = tree", "t.cf:6: warning: scope"),
            ("dereference = 7", "t.cf:6: warning: dereference"),
            ("timeout = 60", "t.cf:6: note: timeout"),
            ("bind_pw = geheim", "t.cf:6: warning: bind_pw: it is left out"),
            ("bind = no\nbind_dn = cn=x", "t.cf:7: note: bind_dn: it is left out"),
            ("sasl_mechs = EXTERNAL", "t.cf:6: note: sasl_mechs"),
            ("result_attribute = cn", "it is set again in line 6, which counts"),
        ):
            with self.subTest(line):
                text = (
                    self.TABLE.replace("version = 3\n", "\n") if "version" in line else self.TABLE
                )
                result = self.importing(text + line + "\n")

                self.assertEqual(result.status, 0, result.errors)
                self.assertIn(word, result.errors)
                self.assertNotIn("geheim", result.errors + result.output)

    def test_has_the_defaults_of_postfix(self):
        made = self.settings("search_base = dc=x\n")

        self.assertEqual(made["server_host"], "localhost")
        self.assertEqual(made["query_filter"], "(mailacceptinggeneralid=%s)")
        self.assertEqual(made["result_attribute"], "maildrop")
        self.assertEqual((made["size_limit"], made["references"]), ("0", "ignore"))
        self.assertNotIn("tls_verify", made)

    def test_takes_words_in_any_case(self):
        made = self.settings(
            self.TABLE + "bind = NONE\nscope = ONE\nstart_tls = YES\ntls_require_cert = Yes\n"
        )

        self.assertEqual((made["scope"], made["start_tls"]), ("one", "yes"))
        self.assertEqual(made["tls_verify"], "full")

    def test_takes_limits_and_formats(self):
        made = self.settings(
            self.TABLE
            + "expansion_limit = 5\nrecursion_limit = 3\nresult_filter = <%s>\ntimeout = 30\n"
        )

        self.assertEqual((made["size_limit"], made["expansion_limit"]), ("5", "5"))
        self.assertEqual((made["recursion_limit"], made["result_format"]), ("3", "<%s>"))
        self.assertEqual((made["timeout"], made["deadline"]), ("30", "30"))

    def test_chooses_a_mechanism(self):
        made = self.settings(
            self.TABLE + "bind = sasl\nsasl_mechs = DIGEST-MD5 GSSAPI\nsasl_authz_id = u:x\n"
        )

        self.assertEqual((made["sasl_mechanism"], made["sasl_authz_id"]), ("gssapi", "u:x"))

    def test_reports_all_errors_and_writes_nothing(self):
        output = os.path.join(self.folder, "out")
        result = self.importing(
            "server_host = ftp://h\nbind = maybe\nscope\nversion = 4\ntimeout = 5s\n"
            "query_filter = (mail=%x)\nsearch_base = %q\nresult_format = %z\nresult_attribute =\n"
            "start_tls = perhaps\ndomain = example.org, !sub.example.org\ntls_cipher_suite = HIGH:!MD5\n",
            "--output",
            output,
        )

        self.assertEqual((result.status, result.output), (78, ""))
        for line in (1, 2, 3, 4, 5, 8, 9, 10, 11, 12):
            self.assertIn(f"t.cf:{line}: ", result.errors)
        self.assertFalse(os.path.exists(output))

    def test_reports_errors_of_templates_and_of_settings_that_do_not_fit(self):
        for line, words in (
            ("query_filter = (mail=%x)", "%x"),
            ("query_filter = (mail=%s", "OpenLDAP rejects the filter"),
            ('query_filter = "(mail=%s)"', "OpenLDAP rejects the filter"),
            ("search_base = ou=%x", "%x"),
            ("special_result_attribute = mail", "'mail' is a result attribute too"),
            ("bind_dn = cn=x", "there is no bind_pw"),
            ("bind = sasl", "no mechanism is named"),
            ("bind = sasl\nsasl_mechs = PLAIN LOGIN", "unsupported mechanism 'PLAIN LOGIN'"),
            ("result_attribute = mail, *", "Postfix finds nothing with '*'"),
            ("leaf_result_attribute = +", "Postfix finds nothing with '*'"),
            ("start_tls = 1", "unsupported value '1'"),
            ("domain = nosuchtype:/table", "'nosuchtype:/table' cannot be read"),
            ("domain = /no/such/file", "cannot read the file of domains"),
        ):
            with self.subTest(line):
                result = self.importing(self.TABLE + line + "\n")

                self.assertEqual((result.status, result.output), (78, ""), result.errors)
                self.assertIn(words, result.errors)

    def test_keeps_the_password_to_itself(self):
        text = self.TABLE + "bind_dn = cn=reader\nbind_pw = ge heim\n"
        output = os.path.join(self.folder, "out.conf")
        shown = self.importing(text)
        written = self.importing(text, "--output", output, mode=0o644)

        self.assertEqual((shown.status, written.status), (0, 0))
        self.assertIn("bind_pw is not printed", shown.errors)
        self.assertIn("bind_pw: other users have access to the table (mode 644)", written.errors)
        for result in (shown, written):
            self.assertNotIn("heim", result.output + result.errors)
        misspelt = self.importing(self.TABLE + "bind_pw: geheim = x\nbind_pw geheim = x\n")
        self.assertEqual(misspelt.errors.count("is not the name of a setting"), 2, misspelt.errors)
        self.assertNotIn("heim", misspelt.errors)
        self.assertEqual(os.stat(output).st_mode & 0o777, 0o600)
        with open(output, encoding="utf-8") as file:
            self.assertIn("bind_pw = ge heim\n", file.read())

    def test_replaces_a_file_only_if_asked_to(self):
        output = self.file("out.conf", b"mine\n", 0o644)

        self.assert_fails(self.importing(self.TABLE, "--output", output), 64, "--force")
        with open(output, encoding="utf-8") as file:
            self.assertEqual(file.read(), "mine\n")
        self.assertEqual(self.importing(self.TABLE, "--output", output, "--force").status, 0)
        self.assertEqual(os.stat(output).st_mode & 0o777, 0o600)
        self.assertEqual(sorted(os.listdir(self.folder)), ["out.conf", "t.cf"])
        self.assertEqual(self.importing(self.TABLE, "--force").status, 64)
        fifo = os.path.join(self.folder, "fifo")
        os.mkfifo(fifo)
        replaced = self.importing(self.TABLE, "--output", fifo, "--force")
        self.assert_fails(replaced, 64, "is not a regular file")
        self.assertTrue(stat.S_ISFIFO(os.stat(fifo).st_mode))
        missing = os.path.join(self.folder, "no/out.conf")
        self.assert_fails(self.importing(self.TABLE, "--output", missing), 74, "No such file")

    def access(self, path):
        status = os.stat(path)
        return status.st_gid, status.st_mode & 0o777

    def test_keeps_the_mode_of_a_file_that_it_replaces(self):
        own = self.access(self.folder)[0]
        for mode, kept in ((0o640, 0o640), (0o440, 0o440), (0o400, 0o400), (0o600, 0o600)):
            with self.subTest(oct(mode)):
                output = self.file("out.conf", b"", mode)
                result = self.importing(self.TABLE, "--output", output, "--force")

                self.assertEqual((result.status, result.errors), (0, ""))
                self.assertEqual(self.access(output), (own, kept))
                os.unlink(output)
        for mode in (0o644, 0o660, 0o604):
            with self.subTest(oct(mode)):
                output = self.file("out.conf", b"", mode)
                group = 12345 if os.getuid() == 0 else own
                os.chown(output, -1, group)
                result = self.importing(self.TABLE, "--output", output, "--force")

                words = f"out.conf: warning: the mode {mode:o} is not kept; its mode is 600 now"
                self.assertEqual((result.status, len(result.error_lines)), (0, 1), result.errors)
                self.assertIn(words, result.errors)
                self.assertEqual(self.access(output), (group, 0o600))

    @unittest.skipIf(os.getuid() != 0, "needs root to give files away")
    def test_keeps_the_group_of_a_file_that_it_replaces(self):
        output = self.file("out.conf", b"", 0o640)
        os.chown(output, -1, 12345)
        kept = self.importing(self.TABLE, "--output", output, "--force")
        self.assertEqual((kept.status, kept.errors), (0, ""))
        self.assertEqual(self.access(output), (12345, 0o640))

        table = os.path.join(self.folder, "t.cf")
        command = [TOOL, "import", table, "--output", output, "--force"]
        lost = subprocess.run(
            ["setpriv", "--bounding-set=-all", *command],
            capture_output=True,
            timeout=DEADLINE,
            check=False,
        )
        words = b"out.conf: warning: the group '12345' cannot be kept: "
        self.assertEqual((lost.returncode, lost.stderr.count(b"\n")), (0, 1), lost.stderr)
        self.assertIn(words, lost.stderr)
        self.assertEqual(self.access(output), (os.getegid(), 0o600))

    def test_reads_a_table_of_main_cf(self):
        text = "myhostname = a.b\nx_server_host = h\nx_search_base = dc=x\ny_search_base = dc=$y\n"

        self.assertEqual(self.settings(text, "--source", "x")["search_base"], "dc=x")
        dollar = self.importing(text, "--source", "y")
        self.assertEqual((dollar.status, dollar.output), (78, ""))
        self.assertIn("t.cf:4: search_base: it has a '$', which Postfix expands", dollar.errors)
        self.assert_fails(self.importing(text, "--source", "z"), 78, "no table 'z'")
        secret = self.importing(text + "x_bind_dn = cn=r\nx_bind_pw = ge$$heim\n", "--source", "x")
        self.assertEqual(secret.status, 78)
        self.assertIn("bind_pw: it has a '$'", secret.errors)
        self.assertNotIn("heim", secret.errors)

    def test_makes_settings_that_expand(self):
        made = self.importing(
            "search_base = dc=%d\nquery_filter = (&(mail=%s)(o=%2)(cn=%u$u%%))\n"
        ).output
        path = self.file("conf", made.encode())

        result = run("-C", path, "expand", "An*@Sub.Corp.test", "bare")
        self.assertEqual(result.lines, ["(&(mail=an\\2A@sub.corp.test)(o=corp)(cn=an\\2A$u%))"])
        self.assertEqual(result.status, 65)
        self.assertIn("'bare' has no label 2 of a domain", result.errors)
        explained = run("-C", path, "expand", "--explain", "a@b.c").output
        self.assertIn('#   at 8: %s inserted "a@b.c"', explained)
        self.assertEqual(run("-C", path, "expand", "--lint").output, "")


if __name__ == "__main__":
    unittest.main()
