"""The steps of a check that not every server has: StartTLS, sockets, identities, schema, aliases."""

import os
import unittest

from check_test import CheckTest
from servers import EXTENDED_RESPONSE, ScriptedDirectory, giving
from support import PEOPLE, READER, DirectoryTest, message, outcome


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
            steps.names[2:9],
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
            steps.texts["client cert"], r"^CN=reader,.*, expires in \d+ days, fits its key$"
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


if __name__ == "__main__":
    unittest.main()
