"""The tool with Kerberos: a ticket, a keytab, neither."""

import os
import shutil
import subprocess
import tempfile
import unittest
from unittest import mock

from check_test import Steps
from servers import Slapd
from support import DEADLINE, READER, TESTBED, ToolTest, run

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
