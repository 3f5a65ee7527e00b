"""The commands and the settings files of the guide's pages, run as they stand.

Names and files of the pages stand for those of a directory of the test. GuideTest.cpp runs the C++ of the same
pages.
"""

import os
import pathlib
import shutil
import subprocess
import sys
import unittest
from unittest import mock

import follow
from servers import Slapd
from support import DEADLINE, TESTBED, TOOL, ToolTest

EXAMPLES = os.environ["SOLVANE_EXAMPLES"]
GUIDE = pathlib.Path(TESTBED).parent / "docs" / "guide"


class Pages(ToolTest):
    """A test for each page; see the end of the file."""

    def follow(self, page):
        with_kerberos = page == "kerberos"
        if with_kerberos:
            self.start_kdc()
        slapd = Slapd(
            self.addCleanup,
            *["--users", "20", "--client-certs", "try"],
            *(["--kerberos", self.kdc] if with_kerberos else []),
        )
        text = (GUIDE / f"{page}.md").read_text(encoding="utf-8")
        for on_the_page, here in self.names(slapd):
            text = text.replace(on_the_page, here)
        done = subprocess.run(
            ["sh"],
            input=follow.steps(f"{page}.md", text, skipped=("cpp",)),
            capture_output=True,
            text=True,
            timeout=DEADLINE,
            check=False,
            cwd=self.folder,
            env={
                **os.environ,
                "PATH": os.pathsep.join([os.path.dirname(TOOL), EXAMPLES, os.environ["PATH"]]),
            },
        )

        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def names(self, slapd):
        """What stands on the pages, and what it stands for, in the order of replacing."""
        socket = os.path.join(slapd.folder, "ldapi")
        plain, secure = (uri.rsplit(":", 1)[1].strip("/") for uri in (slapd.uri, slapd.secure_uri))
        return [
            ("ldaps://ldap.example.com", f"ldaps://localhost:{secure}"),
            ("ldap://ldap.example.com", f"ldap://localhost:{plain}"),
            ("ldap.example.com 389", f"localhost {plain}"),
            ("ldap.example.com", "localhost"),
            ("/etc/ssl/our-authority.pem", slapd.ca_file),
            ("/etc/mail/ldap-client", os.path.join(slapd.folder, "tls", "client")),
            ("%2Frun%2Fslapd%2Fldapi", socket.replace("/", "%2F")),
            ("gidNumber=100+uidNumber=1000", f"gidNumber={os.getgid()}+uidNumber={os.getuid()}"),
            ("/etc/mail/ldap.keytab", os.path.join(self.folder, "kdc", "reader.keytab")),
            ("/run/mail/ldap.ccache", os.path.join(self.folder, "ccache")),
            ("mail/mx1.example.com", "reader"),
        ]

    @property
    def kdc(self):
        return os.path.join(self.folder, "kdc")

    def start_kdc(self):
        search = os.pathsep.join([os.environ.get("PATH", ""), "/usr/local/sbin", "/usr/sbin"])
        if shutil.which("krb5kdc", path=search) is None and not os.environ.get("CI"):
            self.skipTest("no KDC is installed")
        self.addCleanup(self.run_script, "stop", self.kdc)
        self.run_script("kdc-start", self.kdc, "--owner", str(os.getpid()))
        realm = os.path.join(self.kdc, "krb5.conf")
        here = os.path.join(self.folder, "krb5.conf")  # what the page says to set
        patch = mock.patch.dict(os.environ, KRB5_CONFIG=f"{here}:{realm}")
        patch.start()
        self.addCleanup(patch.stop)

    @staticmethod
    def run_script(name, *arguments):
        subprocess.run(
            [os.path.join(TESTBED, name), *arguments],
            check=True,
            timeout=DEADLINE,
            stdout=subprocess.DEVNULL,
        )


def following(page):
    return lambda self: self.follow(page)


for each in [name for name in sys.argv[1:] if not name.startswith("-")]:
    setattr(Pages, "test_" + each.replace("-", "_"), following(each))

if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
