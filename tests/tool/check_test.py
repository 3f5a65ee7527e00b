"""Every step of a check, the exit status of its failure, and the monitoring line."""

import os
import re
import unittest

from servers import NameServer, ScriptedDirectory, giving, service
from support import PEOPLE, READER, READER_PASSWORD, DirectoryTest, ToolTest
from support import bound, entry, free_port, message, outcome, run, searched, tlv

PLAIN_STEPS = [
    "settings",
    "template",
    "resolution",
    "TCP",
    "bind",
    "who am I",
    "root DSE",
    "base",
    "references",
    "schema",
    "probe",
    "pool",
    "latency",
]
POLICY_STEPS = [
    "verification",
    "TLS version",
    "ciphers",
    "authorities",
    "revocations",
    "client cert",
]
SECURE_STEPS = [
    *PLAIN_STEPS[:2],
    *POLICY_STEPS,
    *PLAIN_STEPS[2:4],
    *["TLS", "certificate", "name", "chain"],
    *PLAIN_STEPS[4:],
]
STEP = re.compile(
    rf"  (ok|warning|FAILED|-) +(settings|template|{'|'.join(POLICY_STEPS)}|SRV|resolution|TCP|socket"
    r"|StartTLS|TLS|certificate|name|chain|revocation|bind|SASL|who am I|root DSE|base|references"
    r"|schema|probe|pool|latency) +([0-9.]+ ms)?  (.*)"
)


class Steps:
    """The lines of a report: verdict and text of each step; of several servers, the last."""

    def __init__(self, result):
        matches = [match for match in map(STEP.fullmatch, result.lines) if match]
        self.names = [match[2] for match in matches]
        self.verdicts = {match[2]: match[1] for match in matches}
        self.texts = {match[2]: match[4] for match in matches}


class CheckTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.password = self.file("password", READER_PASSWORD.encode())

    def check(self, *arguments, **options):
        """Runs the check and sees to it that the password is in no output."""
        result = run("check", *arguments, **options)
        self.assertNotIn(READER_PASSWORD, result.output + result.errors)
        return result, Steps(result)

    def as_reader(self, uri, *arguments):
        return self.check("-H", uri, "-D", READER, "-y", self.password, *arguments)

    def assert_line(self, result, status, *words):
        """The one line of --nagios."""
        self.assertEqual(result.status, status, result.output)
        self.assertEqual(len(result.lines), 1, result.output)
        self.assertEqual(result.errors, "")
        state = ["OK", "WARNING", "CRITICAL", "UNKNOWN"][status]
        self.assertRegex(result.output, rf"^LDAP {state} - [^|]* \| time=[0-9.]+ms\n$")
        for word in words:
            self.assertIn(word, result.output)


class CheckOnADirectory(DirectoryTest, CheckTest):
    slapd_options = ["--users", "20"]

    KEY = "user0000001@corp.test"
    LOOKUP = ["-b", PEOPLE, "-t", "(mail=$m)"]

    def ca_file(self):
        return os.path.join(self.directory, "tls", "ca.pem")

    def test_takes_each_step_without_tls(self):
        result, steps = self.as_reader(self.uri, *self.LOOKUP, "--probe", self.KEY, "--repeat", "5")

        self.assertEqual(result.status, 0, result.output)
        self.assertEqual(steps.names, PLAIN_STEPS)
        self.assertEqual(set(steps.verdicts.values()), {"ok"})
        self.assertIn("uid=user0000001,", steps.texts["probe"])
        self.assertIn("reused the connection", steps.texts["pool"])
        self.assertEqual(steps.texts["who am I"], f"dn:{READER}")
        self.assertIn("namingContexts: dc=corp,dc=test", steps.texts["root DSE"])

    def test_takes_each_step_with_tls(self):
        result, steps = self.as_reader(
            self.secure_uri,
            "--tls-ca",
            self.ca_file(),
            *self.LOOKUP,
            "--probe",
            self.KEY,
            "--repeat",
            "5",
        )

        self.assertEqual(result.status, 0, result.output)
        self.assertEqual(steps.names, SECURE_STEPS)
        skipped = {name for name, verdict in steps.verdicts.items() if verdict != "ok"}
        self.assertEqual(skipped, {"revocations", "client cert"})
        self.assertRegex(steps.texts["TLS"], r"^TLSv?1\.\d, .+")
        self.assertRegex(
            steps.texts["certificate"], r"^CN=localhost, for localhost, .*expires in \d+ days$"
        )

    def test_shows_the_latencies_of_each_repetition(self):
        result, steps = self.as_reader(
            self.uri, *self.LOOKUP, "--probe", self.KEY, "--repeat", "30"
        )

        self.assertRegex(
            steps.texts["latency"], r"^min [\d.]+, p50 [\d.]+, p99 [\d.]+, max [\d.]+ ms"
        )
        counts = [int(line.split()[-1]) for line in result.lines if "  <" in line or ">=" in line]
        self.assertEqual(sum(counts), 30)

    def test_tries_no_lookup_without_a_key(self):
        result, steps = self.as_reader(self.uri)

        self.assertEqual(result.status, 0)
        for name in ("template", "base", "references", "probe", "pool", "latency"):
            self.assertEqual(steps.verdicts[name], "-")

    def test_tries_no_lookup_without_a_base(self):
        result, steps = self.as_reader(self.uri, "-t", "(mail=$m)", "--probe", self.KEY)

        self.assertEqual(result.status, 0)
        self.assertIn("skipped: a lookup needs a base", steps.texts["probe"])

    def test_is_anonymous_without_a_dn(self):
        result, steps = self.check("-H", self.uri)

        self.assertEqual(result.status, 0)
        self.assertEqual(steps.texts["bind"], "anonymous")
        self.assertEqual(steps.verdicts["who am I"], "-")

    def test_warns_of_a_key_that_nobody_has(self):
        result, steps = self.as_reader(self.uri, *self.LOOKUP, "--probe", "nobody@corp.test")

        self.assertEqual(result.status, 1)
        self.assertEqual(steps.verdicts["probe"], "warning")
        self.assertEqual(steps.verdicts["pool"], "ok")

    def test_fails_for_a_wrong_password(self):
        self.password = self.file("wrong", b"not-the-word")

        result, steps = self.as_reader(self.uri)

        self.assertEqual(result.status, 77)
        self.assertEqual(steps.verdicts["bind"], "FAILED")
        self.assertIn("Invalid credentials (49); check -D and the password", steps.texts["bind"])
        self.assertEqual(steps.texts["base"], "skipped: 'bind' failed")
        self.assertNotIn("not-the-word", result.output)

    def test_fails_for_a_base_that_is_missing(self):
        result, steps = self.as_reader(
            self.uri, "-b", "ou=nowhere,dc=corp,dc=test", "-t", "(mail=$m)", "--probe", self.KEY
        )

        self.assertEqual(result.status, 78)
        self.assertIn("No such object (32); correct the base (-b)", steps.texts["base"])
        self.assertEqual(steps.texts["probe"], "skipped: 'base' failed")

    def test_fails_for_a_template_that_is_none(self):
        result, steps = self.as_reader(
            self.uri, "-b", PEOPLE, "-t", "(mail=$m", "--probe", self.KEY
        )

        self.assertEqual(result.status, 65)
        self.assertEqual(steps.verdicts["template"], "FAILED")
        self.assertEqual(steps.verdicts["base"], "ok")
        self.assertEqual(steps.texts["probe"], "skipped: 'template' failed")

    def test_warns_of_a_template_that_asks_for_nobody(self):
        result, steps = self.as_reader(self.uri, "-b", PEOPLE, "-t", "(mail=x)")

        self.assertEqual(result.status, 0)
        self.assertEqual(steps.verdicts["template"], "warning")

    def test_fails_without_the_authority(self):
        other = os.path.join(self.directory, "tls", "bad.pem")

        result, steps = self.as_reader(self.secure_uri, "--tls-ca", other)

        self.assertEqual(result.status, 77)
        self.assertEqual(steps.verdicts["name"], "ok")
        self.assertIn("unknown authority: CN=Throwaway test authority", steps.texts["chain"])
        self.assertEqual(steps.texts["bind"], "skipped: 'chain' failed")

    def test_fails_for_authorities_that_cannot_be_read(self):
        result, steps = self.as_reader(self.secure_uri, "--tls-ca", "/nonexistent/ca.pem")

        self.assertEqual(result.status, 78, result.output + result.errors)
        self.assertIn("/nonexistent/ca.pem", result.output + result.errors)
        self.assertIn(
            "give the CA's file with --tls-ca or install the package " "ca-certificates",
            steps.texts["chain"],
        )
        self.assertNotEqual(steps.verdicts.get("bind"), "ok")

    def test_fails_for_a_server_that_is_down_and_tries_the_next_one(self):
        result, steps = self.as_reader(f"ldap://127.0.0.1:{free_port()}", "-H", self.uri)

        self.assertEqual(result.status, 75)
        self.assertIn("Connection refused; check that the server is running", result.output)
        self.assertEqual(steps.verdicts["bind"], "ok")

    def test_fails_for_a_host_that_does_not_resolve(self):
        result, steps = self.check("-H", "ldap://no-such-host.invalid")

        self.assertEqual(result.status, 75)
        self.assertIn("cannot resolve 'no-such-host.invalid'", steps.texts["resolution"])
        self.assertEqual(steps.texts["TCP"], "skipped: 'resolution' failed")

    def test_refuses_repetitions_of_nothing(self):
        result, _ = self.as_reader(self.uri, "--repeat", "5")

        self.assert_fails(result, 64, "--repeat", "--probe")

    def test_tells_a_monitor_that_all_is_well(self):
        result, _ = self.as_reader(
            self.secure_uri,
            "--tls-ca",
            self.ca_file(),
            *self.LOOKUP,
            "--probe",
            self.KEY,
            "--nagios",
        )

        self.assert_line(result, 0, "1 of 1 servers work")

    def test_warns_a_monitor_of_a_server_that_is_down_while_another_works(self):
        down = f"ldap://127.0.0.1:{free_port()}"

        result, _ = self.as_reader(self.uri, "-H", down, "--nagios")

        self.assert_line(result, 1, "1 of 2 servers work", down, "Connection refused")

    def test_warns_a_monitor_of_a_key_that_nobody_has(self):
        result, _ = self.as_reader(
            self.uri,
            "-b",
            PEOPLE,
            "-t",
            "(|(mail=$m)(cn=$m))",
            "--probe",
            "no|body@corp.test",
            "--nagios",
        )

        self.assert_line(result, 1, "'no/body@corp.test': not found")

    def test_alarms_a_monitor_where_no_server_works(self):
        result, _ = self.check("-H", f"ldap://127.0.0.1:{free_port()}", "--nagios")

        self.assert_line(result, 2, "0 of 1 servers work")

    def test_alarms_a_monitor_of_a_template_that_is_none(self):
        result, _ = self.as_reader(self.uri, *self.LOOKUP[:2], "-t", "(mail=$m", "--nagios")

        self.assert_line(result, 2, "template")

    def test_tells_a_monitor_of_settings_that_cannot_be_used(self):
        result, _ = self.check("-H", self.uri, "-D", READER, "-y", "/nonexistent", "--nagios")

        self.assert_line(result, 3, "/nonexistent")


class CheckOnAForeignCertificate(DirectoryTest, CheckTest):
    slapd_options = ["--users", "0", "--cert", "bad"]

    def test_fails_where_it_is_verified(self):
        ca = os.path.join(self.directory, "tls", "ca.pem")

        result, steps = self.as_reader(self.secure_uri, "--tls-ca", ca)

        self.assertEqual(result.status, 77)
        self.assertIn("does not match '127.0.0.1'", steps.texts["name"])
        self.assertIn("self-signed", steps.texts["chain"])
        self.assertEqual(steps.verdicts["bind"], "-")

    def test_fails_for_the_name_alone_where_the_chain_is_good(self):
        own = os.path.join(self.directory, "tls", "bad.pem")

        result, steps = self.as_reader(self.secure_uri, "--tls-ca", own)

        self.assertEqual(result.status, 77)
        self.assertEqual(steps.verdicts["name"], "FAILED")
        self.assertEqual(steps.verdicts["chain"], "ok")
        self.assertEqual(steps.verdicts["bind"], "-")

    def test_warns_where_it_is_not_verified(self):
        result, steps = self.as_reader(self.secure_uri, "--tls-verify", "none")

        self.assertEqual(result.status, 0)
        self.assertEqual(steps.verdicts["name"], "warning")
        self.assertEqual(steps.verdicts["chain"], "warning")
        self.assertEqual(steps.verdicts["bind"], "ok")


class CheckOnAnExpiredCertificate(DirectoryTest, CheckTest):
    slapd_options = ["--users", "0", "--cert", "expired"]

    def test_says_since_when(self):
        ca = os.path.join(self.directory, "tls", "ca.pem")

        result, steps = self.as_reader(self.secure_uri, "--tls-ca", ca)

        self.assertEqual(result.status, 77)
        self.assertEqual(steps.verdicts["certificate"], "warning")
        self.assertIn("days ago", steps.texts["certificate"])
        self.assertIn("expired on 2021-01-01", steps.texts["chain"])


class CheckOnACertificateThatEndsSoon(DirectoryTest, CheckTest):
    slapd_options = ["--users", "0", "--cert", "soon"]

    def test_warns_a_monitor(self):
        ca = os.path.join(self.directory, "tls", "ca.pem")

        result, _ = self.as_reader(self.secure_uri, "--tls-ca", ca, "--nagios")

        self.assert_line(result, 1, "certificate")
        self.assertRegex(result.output, "expires in [67] days")


def identity(number, code, value=None):
    """The answer to "Who am I?"."""
    operation = outcome(0x78, code)
    if value is not None:
        body = operation[2:] + bytes([0x8B, len(value)]) + value
        operation = bytes([0x78, len(body)]) + body
    return message(number, operation)


def reference(number, *uris):
    """A search continuation (RFC 4511 section 4.5.3)."""
    return message(number, tlv(0x73, *[tlv(0x04, uri) for uri in uris]))


class CheckOnAScriptedDirectory(CheckTest):
    def answered(self, *answers, arguments=()):
        return self.as_reader(
            ScriptedDirectory(self, giving(*answers)).uri, "-o", "nettimeout=1", *arguments
        )

    def test_gives_each_refusal_of_the_bind_its_exit_status(self):
        for code, status in ((49, 77), (53, 69), (10, 69), (51, 75), (34, 65), (2, 78)):
            with self.subTest(code=code):
                result, steps = self.answered(bound(code, text=b"because\x1b[2J"))

                self.assertEqual(result.status, status, result.output)
                self.assertEqual(steps.verdicts["bind"], "FAILED")
                self.assertIn(f"({code}): because\\x1B[2J", steps.texts["bind"])

    def test_fails_where_the_server_is_silent(self):
        result, steps = self.answered(b"")

        self.assertEqual(result.status, 75)
        self.assertIn("did not answer the bind within 1 s", steps.texts["bind"])

    def test_ends_each_step_with_a_silent_server_after_the_network_timeout(self):
        """A deadline of ten minutes would end the test."""
        root = tlv(0x30, tlv(0x04, b"supportedLDAPVersion"), tlv(0x31, tlv(0x04, b"3")))
        dse = message(3, tlv(0x64, tlv(0x04, b""), tlv(0x30, root)))
        for step, answers in (
            ("who am I", [bound(), b""]),
            ("root DSE", [bound(), identity(2, 0, b"dn:cn=x"), b""]),
            (
                "base",
                [bound(), identity(2, 0, b"dn:cn=x"), dse + message(3, outcome(0x65, 0)), b""],
            ),
        ):
            with self.subTest(step):
                arguments = ["--deadline", "600", "-b", PEOPLE]
                result, steps = self.answered(*answers, arguments=arguments)

                self.assertEqual(result.status, 75, result.output)
                self.assertEqual(steps.verdicts[step], "FAILED", result.output)
                self.assertRegex(steps.texts[step], "within 1 s|no answer in time")

    def test_fails_where_the_bind_made_nobody_of_us(self):
        result, steps = self.answered(bound(), identity(2, 0, b""))

        self.assertEqual(result.status, 77)
        self.assertEqual(steps.verdicts["who am I"], "FAILED")
        self.assertIn("anonymous", steps.texts["who am I"])
        self.assertEqual(steps.verdicts["root DSE"], "-")

    def test_warns_where_nobody_says_who_we_are(self):
        result, steps = self.answered(
            bound(), identity(2, 2), searched(3), searched(4), searched(5), arguments=["-b", "dc=x"]
        )

        self.assertEqual(result.status, 0, result.output)
        self.assertEqual(steps.verdicts["who am I"], "warning")
        self.assertIn("not readable", steps.texts["root DSE"])
        self.assertEqual(steps.verdicts["base"], "warning")

    def test_shows_what_the_root_dse_says(self):
        root_dse = entry(
            3, b"", (b"vendorName", [b"Some vendor"]), (b"supportedLDAPVersion", [b"2", b"3"])
        )

        _, steps = self.answered(bound(), identity(2, 0, b"dn:cn=x"), root_dse + searched(3))

        self.assertEqual(
            steps.texts["root DSE"], "vendorName: Some vendor; supportedLDAPVersion: 2, 3"
        )

    def test_fails_where_the_base_refers_elsewhere(self):
        referral = searched(4, 10, referrals=[b"ldap://elsewhere/"])

        result, steps = self.answered(
            bound(), identity(2, 0, b"dn:cn=x"), searched(3), referral, arguments=["-b", "dc=x"]
        )

        self.assertEqual(result.status, 69, result.output)
        self.assertIn("ask the server that holds the data", steps.texts["base"])

    def test_says_where_the_base_refers_to(self):
        referral = searched(4, 10, referrals=[b"ldap://elsewhere/"])

        _, steps = self.answered(
            bound(), identity(2, 0, b"dn:cn=x"), searched(3), referral, arguments=["-b", "dc=x"]
        )

        self.assertIn("see ldap://elsewhere/", steps.texts["base"])
        self.assertEqual(steps.texts["references"], "skipped: 'base' failed")

    def test_warns_of_references_below_the_base(self):
        below = reference(5, b"ldap://a.test/ou=x,dc=x") + reference(5, b"ldap://b.test/ou=y,dc=x")

        result, steps = self.answered(
            bound(),
            identity(2, 0, b"dn:cn=x"),
            searched(3),
            entry(4, b"dc=x") + searched(4),
            below + searched(5),
            arguments=["-b", "dc=x"],
        )

        self.assertEqual(result.status, 0, result.output)
        self.assertEqual(steps.verdicts["references"], "warning")
        self.assertIn(
            "2 below the base, such as ldap://a.test/ou=x,dc=x", steps.texts["references"]
        )
        self.assertIn("try later", steps.texts["references"])

    def test_takes_references_that_are_ignored(self):
        result, steps = self.answered(
            bound(),
            identity(2, 0, b"dn:cn=x"),
            searched(3),
            entry(4, b"dc=x") + searched(4),
            reference(5, b"ldap://a.test/ou=x,dc=x") + searched(5),
            arguments=["-b", "dc=x", "--references", "ignore"],
        )

        self.assertEqual(result.status, 0, result.output)
        self.assertEqual(steps.verdicts["references"], "ok")
        self.assertIn("1 below the base", steps.texts["references"])

    def test_holds_the_network_timeout_at_each_step(self):
        """With a deadline that no test would live to see."""
        answers = [
            bound(),
            identity(2, 0, b"dn:cn=x"),
            searched(3),
            entry(4, b"dc=x") + searched(4),
        ]
        for count, step in (
            (0, "bind"),
            (1, "who am I"),
            (2, "root DSE"),
            (3, "base"),
            (4, "references"),
        ):
            with self.subTest(step=step):
                result, steps = self.answered(
                    *answers[:count], arguments=["--deadline", "100000", "-b", "dc=x"]
                )

                self.assertEqual(result.status, 0 if step == "references" else 75, result.output)
                self.assertEqual(
                    steps.verdicts[step], "warning" if step == "references" else "FAILED"
                )
                self.assertRegex(steps.texts[step], "no answer in time|did not answer")

    def test_fails_for_an_answer_that_is_no_ldap(self):
        result, steps = self.answered(bound(), identity(2, 0, b"dn:cn=x"), b"HTTP/1.0 200 OK\r\n")

        self.assertEqual(result.status, 75, result.output)
        self.assertEqual(steps.verdicts["root DSE"], "FAILED")


class CheckOnAHostWithSeveralAddresses(DirectoryTest, CheckTest):
    slapd_options = ["--users", "1"]

    def check_by_name(self, *addresses):
        names = NameServer(self, hosts={"ldap.corp.test": addresses})
        port = self.server["LDAP_PORT"]
        return self.as_reader(
            f"ldap://ldap.corp.test:{port}", "--name-servers", names.address, "-o", "nettimeout=5"
        )

    def test_shows_them_all(self):
        result, steps = self.check_by_name("127.0.0.1", "127.0.0.2", "127.0.0.3")

        self.assertEqual(result.status, 0, result.output)
        self.assertEqual(
            set(steps.texts["resolution"].split(", ")), {"127.0.0.1", "127.0.0.2", "127.0.0.3"}
        )
        self.assertEqual(steps.verdicts["TCP"], "ok")
        self.assertEqual(steps.texts["TCP"], f"127.0.0.1 port {self.server['LDAP_PORT']}")
        for dead in ("127.0.0.2", "127.0.0.3"):
            self.assertRegex(result.output, rf"\n {{36}}.*{dead} port \d+.*[Rr]efused")

    def test_says_why_each_fails(self):
        result, steps = self.check_by_name("127.0.0.2", "127.0.0.3")

        self.assertEqual(result.status, 75, result.output)
        self.assertEqual(steps.verdicts["TCP"], "FAILED")
        self.assertIn("127.0.0.2", steps.texts["TCP"])
        self.assertIn("127.0.0.3", steps.texts["TCP"])

    def check_domain(self, services, *arguments):
        names = NameServer(self, hosts={"ldap.corp.test": ["127.0.0.1"]}, services=services)
        return self.as_reader(
            "ldap+srv:///dc=corp,dc=test",
            "--name-servers",
            names.address,
            "-o",
            "nettimeout=5",
            *arguments,
        )

    def test_shows_the_servers_of_a_domain(self):
        port = int(self.server["LDAP_PORT"])

        result, steps = self.check_domain(
            {
                "_ldap._tcp.corp.test": [
                    service(20, 0, free_port(), "ldap.corp.test"),
                    service(10, 0, port, "ldap.corp.test"),
                ]
            }
        )

        self.assertEqual(result.status, 75, result.output)
        self.assertIn(
            f"corp.test: ldap.corp.test port {port}, ldap.corp.test port ", steps.texts["SRV"]
        )
        self.assertIn(f"\nldap://ldap.corp.test:{port}\n", result.output)
        self.assertEqual(result.output.count("ok       resolution"), 2)
        self.assertEqual(result.output.count("ok       bind"), 1)

    def test_fails_for_a_domain_without_servers(self):
        result, steps = self.check_domain({})

        self.assertEqual(result.status, 75, result.output)
        self.assertEqual(steps.verdicts["SRV"], "FAILED")
        self.assertIn("check the domain in -H", steps.texts["SRV"])

    def test_warns_a_monitor_of_a_domain_without_servers_while_another_server_works(self):
        result, _ = self.check_domain({}, "-H", self.uri, "--nagios")

        self.assert_line(result, 1, "1 of 2 servers work", "corp.test: SRV")


if __name__ == "__main__":
    unittest.main()
