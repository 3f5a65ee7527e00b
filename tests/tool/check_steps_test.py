"""The steps of a check that not every server has: TLS settings, StartTLS, sockets, identities, schema,
aliases."""

import os
import ssl
import unittest

from check_test import CheckTest
from servers import (
    EXTENDED_RESPONSE,
    Certificates,
    ScriptedDirectory,
    giving,
    serving,
)
from support import PEOPLE, READER, DirectoryTest, free_port, message, outcome, run


class CheckOfAWayIn(DirectoryTest, CheckTest):
    slapd_options = ["--users", "20", "--client-certs", "try"]

    KEY = "user0000001@corp.test"
    LOOKUP = ["-b", PEOPLE, "-t", "(mail=$m)", "--probe", KEY]

    def tls_file(self, name):
        return os.path.join(self.directory, "tls", name)

    def trusted(self):
        return ["-Z", "--tls-ca", self.tls_file("ca.pem")]

    def with_certificate(self, name="client", key=None):
        return [
            *self.trusted(),
            *["--tls-cert", self.tls_file(name + ".pem")],
            *["--tls-key", self.tls_file((key or name) + ".key")],
        ]

    def test_shows_start_tls(self):
        result, steps = self.as_reader(self.uri, *self.trusted(), *self.LOOKUP)

        self.assertEqual(result.status, 0, result.output)
        self.assertEqual(
            steps.names[8:15],
            ["resolution", "TCP", "StartTLS", "TLS", "certificate", "name", "chain"],
        )
        self.assertEqual(steps.verdicts["StartTLS"], "ok")
        self.assertEqual(steps.texts["bind"], f"as {READER}")  # not in clear text

    def test_judges_the_certificate_of_start_tls(self):
        result, steps = self.as_reader(self.uri, "-Z", "--tls-ca", self.tls_file("bad.pem"))

        self.assertEqual(result.status, 77)
        self.assertEqual(steps.verdicts["StartTLS"], "ok")
        self.assertIn("unknown authority", steps.texts["chain"])
        self.assertEqual(steps.verdicts["bind"], "-")

    def test_shows_the_client_certificate(self):
        result, steps = self.check(
            "-H", self.uri, *self.with_certificate(), "-Y", "external", *self.LOOKUP
        )

        self.assertEqual(result.status, 0, result.output)
        self.assertEqual(steps.verdicts["client cert"], "ok")
        self.assertRegex(
            steps.texts["client cert"],
            r"^CN=reader,.*, expires in \d+ days, fits its key; from the settings$",
        )
        self.assertEqual(steps.texts["SASL"], "with EXTERNAL")
        self.assertEqual(steps.texts["who am I"], f"dn:{READER}")
        self.assertNotIn("bind", steps.names)

    def test_warns_of_a_client_certificate_that_has_expired(self):
        _, steps = self.check("-H", self.uri, *self.with_certificate("client-expired"))

        self.assertEqual(steps.verdicts["client cert"], "warning")
        self.assertRegex(steps.texts["client cert"], r"expired \d+ days ago")

    def test_fails_for_a_client_certificate_with_another_key(self):
        result, steps = self.check("-H", self.uri, *self.with_certificate("client", "good"))

        self.assertEqual(result.status, 78)
        self.assertEqual(steps.verdicts["client cert"], "FAILED")
        self.assertIn("correct --tls-cert and --tls-key", steps.texts["client cert"])

    def test_fails_for_a_client_certificate_without_a_key(self):
        options = self.with_certificate()[:-2]

        _, steps = self.check("-H", self.uri, *options)

        self.assertEqual(steps.verdicts["client cert"], "FAILED")

    def test_fails_where_no_certificate_makes_an_identity(self):
        result, steps = self.check("-H", self.uri, *self.trusted(), "-Y", "external")

        self.assertNotEqual(result.status, 0)
        self.assertIn("FAILED", steps.verdicts.values())
        self.assertEqual(steps.verdicts["root DSE"], "-")

    def test_shows_a_socket(self):
        result, steps = self.as_reader(self.server["LDAPI_URI"], *self.LOOKUP)

        self.assertEqual(result.status, 0, result.output)
        self.assertEqual(steps.names[2:4], ["socket", "bind"])
        self.assertTrue(steps.texts["socket"].endswith("/ldapi"), steps.texts["socket"])
        self.assertEqual(steps.texts["bind"], f"as {READER}")

    def test_fails_for_a_socket_that_is_missing(self):
        result, steps = self.check("-H", "ldapi://%2Fnonexistent%2Fldapi")

        self.assertEqual(result.status, 75, result.output)
        self.assertEqual(steps.verdicts["socket"], "FAILED")
        self.assertIn("listens on this path", steps.texts["socket"])

    def test_fails_for_a_server_without_start_tls(self):
        refusal = message(1, outcome(EXTENDED_RESPONSE, 2, text=b"no TLS here"))
        directory = ScriptedDirectory(self, giving(refusal))

        result, steps = self.as_reader(directory.uri, "-Z")

        self.assertNotEqual(result.status, 0)
        self.assertEqual(steps.verdicts["StartTLS"], "FAILED")
        self.assertIn("configure a certificate on the server", steps.texts["StartTLS"])
        self.assertEqual(steps.texts["bind"], "skipped: 'StartTLS' failed")


class CheckOfTheSchema(DirectoryTest, CheckTest):
    slapd_options = ["--users", "1"]

    def schema(self, *arguments):
        result, steps = self.as_reader(self.uri, "-b", PEOPLE, *arguments)
        return result, steps.verdicts["schema"], steps.texts["schema"]

    def test_knows_the_attributes_of_template_and_list(self):
        _, verdict, text = self.schema(
            *["-t", "(|(mail=$m)(2.5.4.3=$u))", "--attrs", "MAIL,cn;lang-fr,*,+,@person"]
        )

        self.assertEqual((verdict, text), ("ok", "the server knows mail, 2.5.4.3, MAIL, cn"))

    def test_warns_of_attributes_that_it_lacks(self):
        result, verdict, text = self.schema("-t", "(|(maill=$m)(mail=$m))", "--attrs", "uidd,xyzzy")

        self.assertEqual((result.status, verdict), (0, "warning"))
        self.assertEqual(
            text,
            "the server does not know the attribute 'maill' (similar: 'mail'), "
            "'uidd' (similar: 'uid'), 'xyzzy'",
        )

    def test_warns_a_monitor_of_attributes_that_it_lacks(self):
        result, _ = self.as_reader(self.uri, "-b", PEOPLE, "-t", "(maill=$m)", "--nagios")

        self.assert_line(result, 1, "schema", "'maill'")

    def test_is_skipped_where_nothing_is_named(self):
        _, verdict, text = self.schema()

        self.assertEqual((verdict, text), ("-", "skipped: no attributes named"))

    def test_takes_a_malformed_template_for_none(self):
        _, verdict, text = self.schema("-t", "(mail=$x)", "--attrs", "cn")

        self.assertEqual((verdict, text), ("ok", "the server knows cn"))


class CheckOfABase(DirectoryTest, CheckTest):
    slapd_options = ["--users", "20"]

    ALIAS = "cn=people,ou=aliases,dc=corp,dc=test"

    def test_warns_of_an_alias(self):
        result, steps = self.as_reader(self.uri, "-b", self.ALIAS)

        self.assertEqual(result.status, 0, result.output)
        self.assertEqual(steps.verdicts["base"], "warning")
        self.assertIn(f"{self.ALIAS} is an alias of {PEOPLE}", steps.texts["base"])
        self.assertIn("dereference = find", steps.texts["base"])

    def test_is_silent_about_an_alias_that_is_dereferenced(self):
        for deref in ("find", "always"):
            with self.subTest(deref=deref):
                _, steps = self.as_reader(self.uri, "-b", self.ALIAS, "-a", deref)

                self.assertEqual(steps.verdicts["base"], "ok")

    def test_warns_of_an_alias_that_is_dereferenced_below_the_base_only(self):
        _, steps = self.as_reader(self.uri, "-b", self.ALIAS, "-a", "search")

        self.assertEqual(steps.verdicts["base"], "warning")


class TlsTest(CheckTest):
    @classmethod
    def setUpClass(cls):
        cls.certificates = Certificates(cls.addClassCleanup)

    def tls(self, *names):
        """Files of certificates, keys and lists."""
        return [self.certificates.file(name) for name in names]

    def options(self, **files):
        """`ca="ca.pem"` is --tls-ca with that file."""
        return [
            word
            for name, file in files.items()
            for word in (f"--tls-{name}", self.certificates.file(file))
        ]


class CheckOfTheTlsPolicy(TlsTest):
    """Without a server: these steps come before."""

    def policy(self, *options, **more):
        _, steps = self.check("-H", f"ldaps://127.0.0.1:{free_port()}", *options, **more)
        return steps

    def assert_step(self, steps, name, verdict, *words):
        self.assertEqual(steps.verdicts[name], verdict, steps.texts[name])
        for word in words:
            self.assertIn(word, steps.texts[name])

    def test_shows_the_defaults(self):
        steps = self.policy()

        self.assertEqual(steps.texts["verification"][:5], "full:")
        self.assertEqual(steps.texts["TLS version"], "1.2 or later; default")
        self.assertEqual(steps.texts["ciphers"], "those of GnuTLS; default")
        self.assertEqual(steps.texts["revocations"], "skipped: no revocation list is set")
        self.assertEqual(steps.texts["client cert"], "skipped: none is set")
        self.assertRegex(steps.texts["authorities"], "the system's; default$|ca-certificates$")

    def test_shows_what_the_settings_say(self):
        steps = self.policy(
            *self.options(ca="ca.pem", crl="crl.pem", cert="client.pem", key="client.key"),
            *["--tls-min", "1.3", "--tls-ciphers", "SECURE192"],
        )

        self.assertEqual(steps.texts["TLS version"], "1.3 or later; from the settings")
        self.assertEqual(steps.texts["ciphers"], "SECURE192; from the settings")
        self.assertRegex(
            steps.texts["authorities"],
            r"/ca\.pem: CN=Throwaway test authority, expires in \d+ days; from the settings$",
        )
        self.assertRegex(
            steps.texts["revocations"],
            r"/crl\.pem: list of CN=Throwaway test authority, of 0 days ago, next update in \d+ days; "
            r"from the settings$",
        )
        self.assertRegex(steps.texts["client cert"], "; from the settings$")

    def environment(self, **variables):
        """OpenLDAP's settings are those of files and variables of this test only."""
        kept = {name: value for name, value in os.environ.items() if not name.startswith("LDAP")}
        empty = self.file("empty.conf", b"")
        return {**kept, "HOME": self.folder, "LDAPCONF": empty, **variables}

    def test_names_the_file_of_openldap(self):
        host = self.file(
            "host.conf",
            f"#TLS_CACERT /nonexistent\nTLS_CACERT /nonexistent\n"
            f"tls_cacert\t{self.certificates.file('ca.pem')} \nTLS_PROTOCOL_MIN 3.4\n".encode(),
        )
        user = self.file(
            ".ldaprc",
            f"TLS_CERT {self.certificates.file('client.pem')}\n"
            f"TLS_KEY {self.certificates.file('client.key')}\n".encode(),
        )

        steps = self.policy(env=self.environment(LDAPCONF=host))

        self.assertTrue(steps.texts["authorities"].endswith(f"; from TLS_CACERT in {host}"))
        self.assertEqual(
            steps.texts["TLS version"], f"1.3 or later; from TLS_PROTOCOL_MIN in {host}"
        )
        self.assertTrue(
            steps.texts["client cert"].endswith(
                f"; from TLS_CERT in {user}, the key " f"from TLS_KEY in {user}"
            )
        )

    def test_names_the_variable_of_openldap(self):
        host = self.file("host.conf", b"TLS_CACERT /nonexistent\nTLS_PROTOCOL_MIN 3.4\n")
        environment = self.environment(
            LDAPCONF=host,
            LDAPTLS_CACERT=self.certificates.file("ca.pem"),
            LDAPTLS_CACERTDIR=self.certificates.folder,
            LDAPTLS_PROTOCOL_MIN="3.3",
        )

        steps = self.policy(env=environment)

        self.assertRegex(
            steps.texts["authorities"],
            r"\d+ certificates; from LDAPTLS_CACERT in the environment, from LDAPTLS_CACERTDIR in the "
            r"environment$",
        )
        self.assertEqual(
            steps.texts["TLS version"],
            "1.2 or later; from LDAPTLS_PROTOCOL_MIN in the environment",
        )

    def test_prefers_the_settings(self):
        steps = self.policy(
            *self.options(ca="ca.pem"),
            env=self.environment(LDAPTLS_CACERT="/nonexistent", LDAPTLS_PROTOCOL_MIN="3.4"),
        )

        self.assert_step(steps, "authorities", "ok", "; from the settings")

    def test_judges_each_part(self):
        ours = ["--tls-ca", *self.tls("ca.pem")]
        client = self.options(cert="client.pem", key="client.key")
        for step, verdict, words, options in (
            ("verification", "warning", "any server is accepted", ["--tls-verify", "none"]),
            ("verification", "ok", "for any host", ["--tls-verify", "chain"]),
            ("TLS version", "warning", "obsolete", ["--tls-min", "1.0"]),
            ("TLS version", "warning", "obsolete", ["--tls-min", "1.1"]),
            ("ciphers", "FAILED", "error at 'BOGUS'", ["--tls-ciphers", "NORMAL:BOGUS"]),
            ("ciphers", "warning", "3DES", ["--tls-ciphers", "NORMAL:+3DES-CBC"]),
            ("ciphers", "warning", "weak keys", ["--tls-ciphers", "NORMAL:%PROFILE_LOW"]),
            ("ciphers", "ok", "", ["--tls-ciphers", "NORMAL:-VERS-ALL:+VERS-TLS1.2"]),
            (
                "ciphers",
                "FAILED",
                "excludes every version",
                ["--tls-ciphers", "NORMAL:-VERS-ALL:+VERS-TLS1.2", "--tls-min", "1.3"],
            ),
            ("authorities", "FAILED", "cannot be read", ["--tls-ca", "/nonexistent"]),
            ("authorities", "FAILED", "no certificates", ["--tls-ca", *self.tls("good.key")]),
            ("authorities", "FAILED", "correct --tls-ca-dir", ["--tls-ca-dir", "/nonexistent"]),
            ("authorities", "warning", "expired", ["--tls-ca", *self.tls("expired.pem")]),
            ("authorities", "-", "not used", [*ours, "--tls-verify", "none"]),
            (
                "revocations",
                "warning",
                "out of date",
                self.options(ca="ca.pem", crl="crl-expired.pem"),
            ),
            ("revocations", "FAILED", "correct --tls-crl", ["--tls-crl", "/nonexistent"]),
            ("revocations", "FAILED", "no usable", self.options(ca="ca.pem", crl="good.pem")),
            (
                "revocations",
                "-",
                "not used",
                [*self.options(crl="crl.pem"), "--tls-verify", "none"],
            ),
            ("client cert", "ok", "fits its key", client),
            ("client cert", "FAILED", "give its key with --tls-key", client[:2]),
            ("client cert", "FAILED", "give it with --tls-cert", client[2:]),
            ("client cert", "FAILED", "correct --tls-key", [*client[:3], "/nonexistent"]),
            (
                "client cert",
                "FAILED",
                "correct --tls-cert and --tls-key",
                self.options(cert="client.pem", key="good.key"),
            ),
            (
                "client cert",
                "warning",
                "not valid yet",
                self.options(cert="future.pem", key="future.key"),
            ),
        ):
            with self.subTest(step=step, options=options):
                steps = self.policy(*options)

                self.assert_step(steps, step, verdict, words)

    def test_warns_of_a_key_that_everybody_can_read(self):
        with open(self.certificates.file("client.key"), "rb") as key:
            readable = self.file("client.key", key.read(), 0o644)

        steps = self.policy("--tls-cert", *self.tls("client.pem"), "--tls-key", readable)

        self.assert_step(
            steps, "client cert", "warning", "every user of this host can read the key"
        )


class CheckOfATlsServer(TlsTest):
    def check_server(self, options, **tls):
        script = serving(lambda request: request.empty())
        directory = ScriptedDirectory(self, script, self.certificates.server(**tls))
        return self.as_reader(directory.uri, *options)

    def test_says_whose_list_names_no_revocation(self):
        _, steps = self.check_server(self.options(ca="ca.pem", crl="crl.pem"))

        self.assertEqual(steps.verdicts["revocation"], "ok")
        self.assertEqual(steps.texts["revocation"], "not revoked by CN=Throwaway test authority")
        self.assertEqual(steps.verdicts["bind"], "ok")

    def test_warns_if_no_list_is_of_the_authority(self):
        _, steps = self.check_server(self.options(ca="ca.pem", crl="crl-other.pem"))

        self.assertEqual(steps.verdicts["chain"], "ok")
        self.assertEqual(steps.verdicts["revocation"], "warning")
        self.assertIn("no list of CN=Throwaway test authority", steps.texts["revocation"])

    def test_names_the_cause_and_its_remedy(self):
        ca = self.options(ca="ca.pem")
        client = self.options(ca="ca.pem", cert="client-expired.pem", key="client-expired.key")
        until_12 = {"at_most": ssl.TLSVersion.TLSv1_2}
        one_cipher = {**until_12, "ciphers": "ECDHE-ECDSA-AES256-GCM-SHA384"}
        for step, cause, remedy, options, tls in (
            ("chain", "expired on", "renew the certificate", ca, {"name": "expired"}),
            ("chain", "not valid before", "correct the clock", ca, {"name": "future"}),
            ("chain", "too weak", "stronger key", ca, {"name": "weak"}),
            ("chain", "not valid for servers", "by one for servers", ca, {"name": "client"}),
            ("chain", "self-signed", "give the certificate's file", ca, {"name": "bad"}),
            ("chain", "unknown authority", "give the CA's file", self.options(ca="bad.pem"), {}),
            ("name", "does not match", "names in -H", ca, {"name": "bad"}),
            (
                "chain",
                "revoked",
                "its authority has revoked it",
                self.options(ca="ca.pem", crl="crl.pem"),
                {"name": "revoked"},
            ),
            (
                "chain",
                "revoked",
                "its authority has revoked it",
                self.options(ca="ca.pem", crl="crl-expired.pem"),
                {"name": "revoked"},
            ),
            ("TLS", "refuses TLS", "compare --tls-min", [*ca, "--tls-min", "1.3"], until_12),
            (
                "TLS",
                "refuses TLS",
                "--tls-ciphers",
                [*ca, "--tls-ciphers", "NORMAL:-CIPHER-ALL:+AES-128-GCM"],
                one_cipher,
            ),
            (
                "bind",
                "requested a client certificate",
                "give a client certificate with --tls-cert",
                ca,
                {"demands_certificate": True},
            ),
            (
                "bind",
                "client-expired.pem",
                "use a client certificate that is valid",
                client,
                {"demands_certificate": True},
            ),
        ):
            with self.subTest(cause=cause, tls=tls):
                result, steps = self.check_server(options, **tls)

                self.assertEqual(result.status, 77, result.output)
                self.assertEqual(steps.verdicts[step], "FAILED", result.output)
                self.assertIn(cause, steps.texts[step])
                self.assertIn(remedy, steps.texts[step].partition("; ")[2])

    def test_names_the_remedy_in_a_lookup_too(self):
        script = serving(lambda request: request.empty())
        directory = ScriptedDirectory(self, script, self.certificates.server("expired"))

        result = run(
            *["lookup", "-H", directory.uri, *self.options(ca="ca.pem")],
            *["-b", PEOPLE, "-t", "(mail=$m)", "user@corp.test"],
        )

        self.assert_fails(result, 77, "expired on", "renew the certificate that has expired")


if __name__ == "__main__":
    unittest.main()
