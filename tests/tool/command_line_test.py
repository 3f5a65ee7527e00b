"""The command line itself: help, version, and what is wrong with it; standard output."""

import os
import subprocess
import unittest

from support import DEADLINE, TOOL, ToolTest, run

LOOKUP = ["lookup", "-H", "ldap://127.0.0.1:1", "-b", "dc=x", "-t", "$m"]


class CommandLine(ToolTest):

    def testPrintsHelpOnStandardOutput(self):
        for arguments in (["--help"], ["-h"], ["expand", "--help"], ["lookup", "--help"]):
            with self.subTest(arguments=arguments):
                result = run(*arguments)

                self.assertEqual((result.status, result.errors), (0, ""))
                self.assertIn("Usage: solvane-ldap", result.output)

    def testPrintsTheVersionsOfTheToolAndOfOpenLdap(self):
        for option in ("-V", "--version"):
            result = run(option)

            self.assertEqual((result.status, result.errors), (0, ""))
            self.assertRegex(result.output, r"^solvane-ldap \d+\.\d+\.\d+\n"
                             r"OpenLDAP \d+\.\d+\.\d+ compiled against, \d+\.\d+\.\d+ running\n$")

    def testRefusesWhatItDoesNotKnow(self):
        for arguments, word in (([], "subcommand"), (["lokup"], "'lokup'"), (["--nope"], "--nope"),
                                (["expand", "-x"], "-x"), (["lookup", "--nope=1"], "--nope")):
            with self.subTest(arguments=arguments):
                result = run(*arguments)

                self.assertFails(result, 64, word, "--help'")
                self.assertEqual(result.output, "")

    def testRefusesAnIncompleteLookup(self):
        for arguments, word in ((["lookup", "-b", "x", "-t", "x", "a"], "--uri"),
                                (["lookup", "-H", "ldap://h", "-t", "x", "a"], "--base"),
                                (["lookup", "-H", "ldap://h", "-b", "x", "a"], "-t TEMPLATE"),
                                (LOOKUP, "no address"),
                                ([*LOOKUP, "a", "-f", "-"], "-f"),
                                ([*LOOKUP, "-T", "file", "a"], "--template"),
                                ([*LOOKUP, "-v", "-q", "a"], "--quiet")):
            with self.subTest(arguments=arguments):
                self.assertFails(run(*arguments), 64, word)

    def testRefusesValuesOutOfTheirRange(self):
        for arguments, word in ((["-s", "all"], "base"), (["-a", "maybe"], "never"),
                                (["-P", "4"], "3"), (["--format", "xml"], "json"),
                                (["-o", "nettimeout=0"], "1 to"), (["-o", "nettimeout=x"], "1 to"),
                                (["-o", "nettimeout=-1"], "1 to"),
                                (["-o", "nettimeout=9999999999"], "1 to"),
                                (["-o", "tls=no"], "nettimeout="), (["--attrs", "a b"], "commas"),
                                (["--attrs", "cn,,mail"], "commas")):
            with self.subTest(arguments=arguments):
                self.assertFails(run(*LOOKUP, "a", *arguments), 64, word)

    def testRefusesAUriThatIsNoServer(self):
        for uri, word in (("http://h", "ldap://host"), ("ldapi://%2Fsocket", "ldapi"),
                          ("h", "LDAP URI"), ("ldap://", "no host"), ("ldap:///", "no host"),
                          ("ldap://h:0", "port"), ("ldap://h:65536", "port"),
                          ("ldap://h:4294967685", "port"), ("ldap://h:+389", "port"),
                          ("ldap://h:", "port"), ("ldap://::1:389", "ldap://[::1]:389"),
                          ("ldap://[fe80::1%25eth0]", "zone"), ("ldap://h/dc=x", "-b"),
                          ("ldap://h/?cn", "--attrs"), ("ldap://h??sub?(cn=x)", "-t")):
            with self.subTest(uri=uri):
                result = run("lookup", "-H", uri, "-b", "dc=x", "-t", "$m", "a")

                self.assertFails(result, 64, "-H: ", word)

    def testRefusesASecondServer(self):
        result = run(*LOOKUP, "-H", "ldap://127.0.0.1:2", "a")

        self.assertFails(result, 64, "-H was given more than once")

    def testShowsNoPasswordThatWasGivenAsAnArgument(self):
        for arguments in (["-w", "hunter2"], ["-whunter2"], ["--password=hunter2"],
                          ["--password-fd", "hunter2", "-D", "cn=x"],
                          ["-H", "ldap://cn=x:hunter2@h"]):
            with self.subTest(arguments=arguments):
                result = run("lookup", "-b", "dc=x", "-t", "$m", "a",
                             *([] if "-H" in arguments else ["-H", "ldap://127.0.0.1:1"]),
                             *arguments)

                self.assertFails(result, 64)
                self.assertNotIn("hunter2", result.output + result.errors)

    def testPairsTheBindDnWithASourceOfThePassword(self):
        password = self.file("password", b"x\n")
        for arguments, word in ((["-D", "cn=x"], "-W, -y FILE"), (["-W"], "--bind-dn"),
                                (["-y", password], "--bind-dn"), (["--password-fd", "0"], "--bind-dn"),
                                (["-D", "", "-y", password], "anonymously"),
                                (["-D", "cn=x", "-W", "-y", password], "--password-file"),
                                (["-D", "cn=x", "-y", password, "--password-fd", "0"],
                                 "--password-fd")):
            with self.subTest(arguments=arguments):
                self.assertFails(run(*LOOKUP, "a", *arguments), 64, word)

    def testRefusesTwoReadersOfStandardInput(self):
        result = run(*LOOKUP, "-f", "-", "-D", "cn=x", "--password-fd", "0", stdin=b"secret\n")

        self.assertFails(result, 64, "both come from standard input")


class StandardOutput(ToolTest):

    def testReportsAFullDevice(self):
        with open("/dev/full", "wb") as full:
            result = subprocess.run([TOOL, "expand", "-t", "$m", "a"], stdout=full,
                                    stderr=subprocess.PIPE, timeout=DEADLINE, check=False)

        self.assertEqual(result.returncode, 74)
        self.assertIn(b"No space left on device", result.stderr)

    def testReportsAFullDeviceForHelpToo(self):
        with open("/dev/full", "wb") as full:
            result = subprocess.run([TOOL, "--help"], stdout=full, stderr=subprocess.PIPE,
                                    timeout=DEADLINE, check=False)

        self.assertEqual(result.returncode, 74)

    def testReportsAClosedStream(self):
        result = subprocess.run(["sh", "-c", 'exec "$0" expand -t x a >&-', TOOL],
                                stderr=subprocess.PIPE, timeout=DEADLINE, check=False)

        self.assertEqual(result.returncode, 74)
        self.assertIn(b"Bad file descriptor", result.stderr)

    def testEndsQuietlyWhenTheReaderGoes(self):
        reading, writing = os.pipe()
        os.close(reading)
        try:
            result = subprocess.run([TOOL, "expand", "-t", "$m", "a", "b"], stdout=writing,
                                    stderr=subprocess.PIPE, timeout=DEADLINE, check=False)
        finally:
            os.close(writing)

        self.assertEqual((result.returncode, result.stderr), (74, b""))


if __name__ == "__main__":
    unittest.main()
