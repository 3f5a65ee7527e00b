"""Ways to a server and identities: StartTLS, sockets, SASL, Kerberos, OpenLDAP's configuration."""

import os
import shutil
import subprocess
import tempfile
import unittest
from unittest import mock

from check_test import Steps
from servers import BIND, EXTENDED, EXTENDED_RESPONSE, ScriptedDirectory, Slapd, giving
from support import DEADLINE, PEOPLE, READER, TESTBED, DirectoryTest, ToolTest, message, outcome
from support import run

KEY = "user0000001@corp.test"
NEVER_ASKED = ["-H", "ldap://127.0.0.1:1", "-b", "dc=x", "-t", "(mail=$m)", "a"]


class WaysIn(DirectoryTest):
    slapd_options = ["--users", "20", "--client-certs", "try"]

    def tls_file(self, name):
        return os.path.join(self.directory, "tls", name)

    def found(self, *arguments, uri=None, **options):
        """Looks a key up that exists."""
        result = self.look_up(KEY, *arguments, uri=uri, **options)
        self.assertEqual((result.status, result.errors), (0, ""))
        return result

    def as_private(self, *arguments, **options):
        """Looks up what only bound users see."""
        return self.look_up(
            "secret",
            *arguments,
            base="ou=private,dc=corp,dc=test",
            template="(cn=$u)",
            **options,
        )


class StartTls(WaysIn):
    def test_is_required_with_one_letter_or_two(self):
        for option in (["-Z"], ["-ZZ"], ["--start-tls"], ["-Z", "-Z"]):
            with self.subTest(option=option):
                self.found(*option, "--tls-ca", self.tls_file("ca.pem"))

    def test_is_required_by_the_file(self):
        config = self.file(
            "conf", f"start_tls = yes\ntls_ca_cert_file = {self.tls_file('ca.pem')}\n".encode()
        )

        self.found("-C", config)
        self.assert_fails(self.look_up(KEY, "-C", config, "--tls-ca", self.tls_file("bad.pem")), 77)

    def test_leaves_servers_with_tls_as_they_are(self):
        self.found("-Z", "--tls-ca", self.tls_file("ca.pem"), uri=self.secure_uri)

    def test_never_goes_on_in_plain_text(self):
        refusal = message(1, outcome(EXTENDED_RESPONSE, 2, text=b"what?"))
        directory = ScriptedDirectory(self, giving(refusal))

        result = self.look_up(
            KEY, "-Z", "-D", READER, "-y", self.file("pw", b"reader-pw"), uri=directory.uri
        )
        directory.finish()

        self.assertNotEqual(result.status, 0)
        self.assertIn("StartTLS", result.errors)
        self.assertEqual(directory.count(BIND), 0)
        self.assertEqual(directory.count(EXTENDED), len(directory.connections))

    def test_takes_a_folder_of_authorities(self):
        self.found("-Z", "--tls-ca-dir", self.folder_of_authorities())

    def folder_of_authorities(self):
        folder = os.path.join(self.folder, "authorities")
        os.mkdir(folder)
        os.symlink(self.tls_file("ca.pem"), os.path.join(folder, "ca.pem"))
        return folder

    def test_has_a_lowest_version_and_ciphers(self):
        ca = ["--tls-ca", self.tls_file("ca.pem")]

        self.found("-Z", *ca, "--tls-min", "1.3")
        self.found("-Z", *ca, "--tls-ciphers", "NORMAL:-VERS-ALL:+VERS-TLS1.2")
        self.assert_fails(
            self.look_up(KEY, "-Z", *ca, "--tls-ciphers", "HIGH:!aNULL"), 78, "priority string"
        )

    def test_refuses_files_that_cannot_be_used(self):
        for option in ("--tls-crl", "--tls-ca-dir", "--tls-ca"):
            with self.subTest(option=option):
                result = self.look_up(KEY, "-Z", option, "/nonexistent")

                self.assertEqual(result.status, 78, result.errors)
                self.assertIn("/nonexistent", result.errors)

    def test_is_postfix_name_for_the_certificate(self):
        lenient = self.file("lenient", b"start_tls = yes\ntls_require_cert = no\n")
        strict = self.file("strict", b"start_tls = yes\ntls_require_cert = yes\n")
        both = self.file("both", b"tls_verify = full\ntls_require_cert = no\n")

        self.found("-C", lenient)
        self.assert_fails(self.look_up(KEY, "-C", strict), 77)
        self.assert_fails(self.look_up(KEY, "-C", both), 78, "tls_verify", "tls_require_cert")


class ClientCertificate(WaysIn):
    def files(self, name="client"):
        return [
            *["-Z", "--tls-ca", self.tls_file("ca.pem")],
            *[
                "--tls-cert",
                self.tls_file(name + ".pem"),
                "--tls-key",
                self.tls_file(name + ".key"),
            ],
        ]

    def test_is_an_identity(self):
        for mechanism in ("external", "EXTERNAL"):
            result = self.as_private("-Y", mechanism, *self.files())

            self.assertEqual((result.status, result.errors), (0, ""), result.output)
            self.assertIn("dn: cn=secret,", result.output)

    def test_is_an_identity_from_the_file(self):
        config = self.file(
            "conf",
            (
                "start_tls = yes\nsasl_mechanism = external\n"
                f"tls_ca_cert_file = {self.tls_file('ca.pem')}\n"
                f"tls_cert = {self.tls_file('client.pem')}\ntls_key = {self.tls_file('client.key')}\n"
            ).encode(),
        )

        self.assertEqual(self.as_private("-C", config).status, 0)

    def test_must_fit_its_key(self):
        options = self.files()
        options[-1] = self.tls_file("good.key")

        self.assert_fails(self.as_private("-Y", "external", *options), 78, "client.pem")

    def test_is_needed(self):
        result = self.as_private("-Y", "external", "-Z", "--tls-ca", self.tls_file("ca.pem"))

        self.assertNotEqual(result.status, 0)
        self.assertEqual(result.output.count("found"), 0)


class Socket(WaysIn):
    def test_is_a_server(self):
        self.found(uri=self.server["LDAPI_URI"])

    def test_may_follow_another_server(self):
        result = self.found(
            "-H", self.server["LDAPI_URI"], "--format", "json", uri="ldap://127.0.0.1:1"
        )

        self.assertIn('"server":"ldapi://', result.output)

    def test_that_is_missing_is_a_server_that_is_down(self):
        self.assert_fails(
            self.look_up(KEY, uri="ldapi://%2Fnonexistent%2Fldapi"), 75, "/nonexistent/ldapi"
        )

    def test_has_an_absolute_path_and_no_port(self):
        for uri in (
            "ldapi://relative",
            "ldapi://%2Fx:389",
            "ldapi://%2Fx%0Ay",
            "ldapi://%2Fx/dc=x",
        ):
            with self.subTest(uri=uri):
                self.assert_fails(self.look_up(KEY, uri=uri), 64, "-H: ")


class Configuration(WaysIn):
    """OpenLDAP's, from its environment."""

    def environment(self, **values):
        kept = {name: value for name, value in os.environ.items() if name != "LDAPNOINIT"}
        return dict(kept, **values)

    def test_names_servers_and_base(self):
        result = run(
            "lookup",
            *["-t", "(mail=$m)", KEY],
            env=self.environment(LDAPURI=f"ldap://127.0.0.1:1 {self.uri}", LDAPBASE=PEOPLE),
        )

        self.assertEqual((result.status, result.errors), (0, ""))

    def test_is_overridden(self):
        environment = self.environment(LDAPURI="ldap://127.0.0.1:1", LDAPBASE="dc=nowhere")
        config = self.file("conf", f"server_host = {self.uri}\nsearch_base = {PEOPLE}\n".encode())

        self.found(env=environment)
        result = run("lookup", "-C", config, "-t", "(mail=$m)", KEY, env=environment)

        self.assertEqual((result.status, result.errors), (0, ""))

    def test_may_be_absent(self):
        result = run("lookup", "-b", "dc=x", "-t", "(mail=$m)", KEY, env=self.environment())

        self.assert_fails(result, 64, "no server given", "LDAPURI")

    def test_is_no_reason_to_ask_what_cannot_be_asked(self):
        result = run(
            *["lookup", "-b", "dc=x", "-t", "(mail=$m)", KEY],
            env=self.environment(LDAPURI="ldap://h/dc=y"),
        )

        self.assert_fails(result, 78, "LDAPURI: ", "has more than scheme, host and port")

    def test_is_checked(self):
        result = run("check", env=self.environment(LDAPURI=self.uri, LDAPBASE=PEOPLE))

        self.assertEqual(result.status, 0, result.output)
        self.assertIn(PEOPLE, result.output)


class Identity(ToolTest):
    def test_of_a_mechanism_with_a_password_is_refused(self):
        for mechanism in ("DIGEST-MD5", "PLAIN", "SCRAM-SHA-256", ""):
            with self.subTest(mechanism=mechanism):
                self.assert_fails(
                    run("lookup", "-Y", mechanism, *NEVER_ASKED),
                    64,
                    f"-Y: unsupported SASL mechanism '{mechanism}'",
                    "external or gssapi",
                )

    def test_is_one(self):
        password = self.file("pw", b"secret")
        simple = self.file("simple", b"bind_dn = cn=x\nbind_pw = y\n")
        sasl = self.file("sasl", b"sasl_mechanism = external\nsasl_authz_id = u:x\n")
        both = self.file("both", b"sasl_mechanism = gssapi\nbind_dn = cn=x\nbind_pw = y\n")
        alone = self.file("alone", b"sasl_authz_id = u:x\n")
        for arguments, status, word in (
            (["-Y", "external", "-D", "cn=x", "-y", password], 64, "-x"),
            (["-Y", "external", "-y", password], 64, "-x"),
            (["-C", sasl, "-D", "cn=x", "-y", password], 64, "-x"),
            (["-C", both], 78, "-x"),
            (["-C", alone], 78, "-Y"),
            (["-X", "u:x"], 64, "-Y"),
            (["-x", "-Y", "external"], 64, "-"),
            (["-Y", "external", "-X", "x"], 64, "-X: invalid identity 'x'"),
            # These ask the server, which is down.
            (["-C", simple, "-Y", "gssapi"], 75, "refused"),
            (["-C", sasl, "-x"], 75, "refused"),
            (["-C", both, "-x"], 75, "refused"),
            (["-x"], 75, "refused"),
        ):
            with self.subTest(arguments=arguments):
                self.assert_fails(run("lookup", *arguments, *NEVER_ASKED), status, word)

    def test_is_nobody_where_the_file_says_so(self):
        config = self.file("conf", b"bind = no\nsasl_mechanism = gssapi\nsasl_authz_id = u:x\n")

        self.assert_fails(run("lookup", "-C", config, *NEVER_ASKED), 75, "refused")


class Ldif(WaysIn):
    def test_has_less_and_less_besides_the_entries(self):
        outputs = [
            self.look_up(KEY, "nobody@corp.test", "--attrs", "cn", *option)
            for option in (["--format", "ldif"], ["-L"], ["-LL"], ["-LLL"])
        ]

        self.assertEqual({result.status for result in outputs}, {1})
        self.assertEqual(outputs[0].output, outputs[1].output)
        self.assertIn("# nobody@corp.test: not found", outputs[1].output)
        self.assertTrue(outputs[2].output.startswith("version: 1\n\ndn: "), outputs[2].output)
        self.assertNotIn("#", outputs[2].output)
        self.assertEqual(outputs[2].output, "version: 1\n\n" + outputs[3].output)

    def test_has_the_bytes_that_ldapsearch_prints(self):
        bind = ["-D", READER, "-y", self.file("pw", b"reader-pw")]
        everything = "(|(uid=$u)(objectClass=*))"
        for base in ("ou=big,dc=corp,dc=test", "ou=escapes,dc=corp,dc=test"):
            with self.subTest(base=base):
                ours = self.look_up("a@b", "-LLL", *bind, base=base, template=everything)
                theirs = subprocess.run(
                    ["ldapsearch", "-LLL", "-x", "-H", self.uri, "-b", base, *bind],
                    capture_output=True,
                    timeout=DEADLINE,
                    check=True,
                )

                self.assertIn(b"dn:: " if "escapes" in base else b"jpegPhoto:: ", theirs.stdout)
                self.assertEqual(ours.bytes, theirs.stdout)

    def test_is_no_other_format(self):
        self.assert_fails(self.look_up(KEY, "-LLL", "--format", "json"), 64, "--format json")
        self.found("-LLL", "--format", "ldif")


PRIVATE = ["-b", "ou=private,dc=corp,dc=test", "-t", "(cn=$u)"]
MODULES = [f"/usr/lib/{folder}sasl2/libgssapiv2.so" for folder in ("", "x86_64-linux-gnu/")]
SASL_SETTINGS = """sasl-host localhost
sasl-realm CORP.TEST
authz-regexp uid=([^,]*)(,cn=[^,]*)?,cn=gssapi,cn=auth cn=$1,dc=corp,dc=test
"""


class Kerberos(ToolTest):
    @classmethod
    def setUpClass(cls):
        search = os.pathsep.join([os.environ.get("PATH", ""), "/usr/local/sbin", "/usr/sbin"])
        has_kdc = shutil.which("krb5kdc", path=search) and any(map(os.path.exists, MODULES))
        if not has_kdc and not os.environ.get("CI"):
            raise unittest.SkipTest("no KDC, or no SASL mechanism GSSAPI")
        parent = tempfile.mkdtemp(prefix="solvane-tool-")
        cls.addClassCleanup(shutil.rmtree, parent)
        cls.kdc = os.path.join(parent, "kdc")
        cls.run_script("kdc-start", cls.kdc, "--owner", str(os.getpid()))
        cls.addClassCleanup(cls.run_script, "stop", cls.kdc)
        settings = os.path.join(cls.kdc, "sasl.conf")
        with open(settings, "w", encoding="ascii") as file:
            file.write(SASL_SETTINGS)
        environment = {
            "KRB5_CONFIG": os.path.join(cls.kdc, "krb5.conf"),
            "KRB5_KTNAME": os.path.join(cls.kdc, "service.keytab"),
            "KRB5RCACHENAME": "none:",
        }
        patch = mock.patch.dict(os.environ, environment)
        patch.start()
        cls.addClassCleanup(patch.stop)
        cls.slapd = Slapd(cls.addClassCleanup, "--users", "1", "--global-conf", settings)
        cls.uri = cls.slapd.uri.replace("127.0.0.1", "localhost")

    @staticmethod
    def run_script(script, *arguments):
        subprocess.run(
            [os.path.join(TESTBED, script), *arguments],
            check=True,
            timeout=DEADLINE,
            stdout=subprocess.DEVNULL,
        )

    def environment(self, keytab="/nonexistent"):
        return dict(
            os.environ,
            KRB5CCNAME="FILE:" + os.path.join(self.folder, "ccache"),
            KRB5_CLIENT_KTNAME="FILE:" + keytab,
        )

    def with_keytab(self, name="reader"):
        return self.environment(os.path.join(self.kdc, name + ".keytab"))

    def test_is_an_identity(self):
        result = run(
            *["lookup", "-H", self.uri, "-Y", "GSSAPI", *PRIVATE, "secret"], env=self.with_keytab()
        )

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertIn("dn: cn=secret,", result.output)

    def test_acts_as_another(self):
        result = run(
            *["check", "-H", self.uri, "-Y", "gssapi", "-X", f"dn:{READER}"],
            env=self.with_keytab("admin"),
        )

        steps = Steps(result)
        self.assertEqual(result.status, 0, result.output)
        self.assertEqual(steps.texts["SASL"], f"with GSSAPI, as dn:{READER}")
        self.assertEqual(steps.texts["who am I"], f"dn:{READER}")

    def test_works_under_start_tls(self):
        result = run(
            *["lookup", "-Z", "--tls-ca", self.slapd.ca_file, "-H", self.uri, "-Y", "GSSAPI"],
            *[*PRIVATE, "secret"],
            # Without a security layer, the plugin of Cyrus SASL loses the credentials of a bind.
            env={**self.with_keytab(), "ASAN_OPTIONS": "detect_leaks=0"},
        )

        self.assertEqual((result.status, result.errors), (0, ""))

    def test_says_that_there_is_no_ticket(self):
        lookup = run(
            *["lookup", "-H", self.uri, "-Y", "gssapi", *PRIVATE, "secret"], env=self.environment()
        )
        check = Steps(run("check", "-H", self.uri, "-Y", "gssapi", env=self.environment()))

        self.assertNotIn(lookup.status, (0, 1))
        self.assertIn("Kerberos", lookup.errors)
        self.assertEqual(check.verdicts["SASL"], "FAILED")
        self.assertIn("Kerberos", check.texts["SASL"])


if __name__ == "__main__":
    unittest.main()
