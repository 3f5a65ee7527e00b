"""Exim and Sendmail ask the service. Neither has to be installed: Debian's packages, unpacked below
SOLVANE_PROGRAMS, are enough."""

import glob
import os
import pwd
import shutil
import subprocess
import unittest

from ldapd import Service
from servers import Slapd
from support import DEADLINE, ToolTest, free_port

PROGRAMS = os.environ.get("SOLVANE_PROGRAMS", "")

HOSTS = "127.0.0.1 mx.corp.test localhost\n"

SENDMAIL = """V10
Djmx.corp.test
Kusers socket -T<TMPF> inet:{port}@127.0.0.1
"""
NO_HOST, TEMPORARY = 68, 75  # sysexits.h, as Sendmail shows them


def program(*paths):
    """The first of these that exists, installed or unpacked; null if there is none."""
    for path in paths:
        for found in (path, PROGRAMS + path if PROGRAMS else ""):
            if os.access(found, os.X_OK):
                return found
    return None


EXIM = program("/usr/sbin/exim4", "/usr/sbin/exim")
SENDMAIL_PROGRAM = program("/usr/libexec/sendmail/sendmail", "/usr/lib/sm.bin/sendmail")


@unittest.skipIf(os.getuid() != 0 or shutil.which("unshare") is None, "needs root, and unshare")
class Mailers(ToolTest):
    def setUp(self):
        super().setUp()
        self.slapd = Slapd(self.addCleanup, "--users", "5")
        self.port = free_port()
        self.service = Service(self, self.slapd.uri, is_started=False, deadline="5")
        path = os.path.join(self.service.folder, "service.conf")
        with open(path, encoding="utf-8") as file:
            text = file.read()
        with open(path, "w", encoding="utf-8") as file:
            file.write(text.replace("socketmap\n", f"socketmap inet:127.0.0.1:{self.port}\n", 1))
        self.service.start()

    def run_among(self, files, *command, stdin=""):
        """Runs a program that sees other files under these names, and another name of the host."""
        script = ["hostname mx.corp.test"]
        for name, content in files.items():
            copy = self.file(os.path.basename(name), content.encode(), 0o644)
            script.append(f"mount --bind '{copy}' '{name}'")
        libraries = glob.glob(PROGRAMS + "/usr/lib/*-linux-gnu") if PROGRAMS else []
        return subprocess.run(
            ["unshare", "-mu", "sh", "-ec", "\n".join([*script, 'exec "$@"']), "sh", *command],
            input=stdin,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=DEADLINE,
            check=False,
            env={**os.environ, "LD_LIBRARY_PATH": ":".join(libraries)},
        ).stdout

    @unittest.skipIf(EXIM is None, "Exim is neither installed nor unpacked")
    def test_exim_reads_the_reply(self):
        files = {}
        try:
            pwd.getpwnam("Debian-exim")
        except KeyError:  # its package would create it
            for name, line in (
                ("/etc/passwd", "Debian-exim:x:4242:4242::/:/bin/false\n"),
                ("/etc/group", "Debian-exim:x:4242:\n"),
            ):
                with open(name, encoding="utf-8") as file:
                    files[name] = file.read() + line
        settings = self.file("exim.conf", b"", 0o644)

        def ask(key):
            question = (
                f"${{readsocket{{{self.service.users_path}}}"
                f"{{${{strlen:users {key}}}:users {key},}}{{20s}}}}"
            )
            return self.run_among(files, EXIM, "-C", settings, "-be", question)

        self.assertEqual(ask("user0000001@corp.test"), "14:OK user0000001,\n")
        self.assertEqual(ask("nobody@corp.test"), "9:NOTFOUND ,\n")
        self.slapd.stop()
        self.assertRegex(ask("user0000001@corp.test"), r"^\d+:TEMP ldap://.*,\n$")

    @unittest.skipIf(SENDMAIL_PROGRAM is None, "Sendmail is neither installed nor unpacked")
    def test_sendmail_uses_the_map(self):
        settings = self.file("sendmail.cf", SENDMAIL.format(port=self.port).encode(), 0o644)

        def ask(key):
            return self.run_among(
                {"/etc/hosts": HOSTS},
                SENDMAIL_PROGRAM,
                "-bt",
                "-C",
                settings,
                stdin=f"/map users {key}\n",
            )

        self.assertIn("returns user0000001 (0)", ask("user0000001@corp.test"))
        self.assertIn(f"no match ({NO_HOST})", ask("nobody@corp.test"))
        self.slapd.stop()
        self.assertIn(f"no match ({TEMPORARY})", ask("user0000001@corp.test"))


if __name__ == "__main__":
    unittest.main()
