"""Sources of passwords, refused passwords, and that no password is ever shown."""

import os
import pty
import select
import signal
import subprocess
import termios
import time
import unittest

from servers import BIND, ScriptedDirectory, eventually, silent
from support import DEADLINE, PRIVATE, READER, READER_PASSWORD, TOOL, DirectoryTest


class Password(DirectoryTest):

    slapdOptions = ["--users", "1"]

    def lookUpAsReader(self, *arguments, **options):
        result = self.lookUp("-D", READER, "secret", *arguments, base=PRIVATE, template="(cn=$u)",
                             **options)
        self.assertNotIn(READER_PASSWORD, result.output + result.errors)
        return result

    def testComesFromAFileWithoutItsLastNewline(self):
        for content in (b"reader-pw", b"reader-pw\n"):
            result = self.lookUpAsReader("-y", self.file("password", content))

            self.assertEqual((result.status, result.lines[0]), (0, "# secret: found 1"),
                             result.errors)

    def testIsOtherwiseTakenAsItIs(self):
        for content in (b"reader-pw\n\n", b"reader-pw ", b" reader-pw", b"reader-pw\r\n"):
            result = self.lookUpAsReader("-y", self.file("password", content))

            self.assertFails(result, 77, "Invalid credentials (49)")

    def testComesFromADescriptor(self):
        reading, writing = os.pipe()
        os.write(writing, b"reader-pw\n")
        os.close(writing)
        try:
            result = self.lookUpAsReader("--password-fd", str(reading), pass_fds=[reading])
        finally:
            os.close(reading)

        self.assertEqual(result.status, 0, result.errors)

    def testIsRefusedFromADescriptorThatIsNotOpen(self):
        self.assertFails(self.lookUpAsReader("--password-fd", "99"), 78, "descriptor 99",
                         "Bad file descriptor")

    def testMustBeRight(self):
        result = self.lookUpAsReader("-y", self.file("password", b"wrong"))

        self.assertFails(result, 77, "the bind is refused: Invalid credentials (49)",
                         "check -D and the password")
        self.assertNotIn("not found", result.output)

    def testIsRefusedFromAFileThatOthersCanRead(self):
        for mode in (0o640, 0o604, 0o644, 0o666):
            with self.subTest(mode=oct(mode)):
                path = self.file("password", b"reader-pw", mode)

                self.assertFails(self.lookUpAsReader("-y", path), 78,
                                 f"is readable by other users (mode {mode:03o})", "set mode 600")

    def testIsJudgedByTheFileBehindALink(self):
        link = os.path.join(self.folder, "link")
        os.symlink(self.file("password", b"reader-pw", 0o644), link)

        self.assertFails(self.lookUpAsReader("-y", link), 78, "is readable by other users")

        os.chmod(os.path.realpath(link), 0o400)
        self.assertEqual(self.lookUpAsReader("-y", link).status, 0)

    def testIsRefusedWhenItCannotBeOne(self):
        for content, words in ((b"", "is empty"), (b"\n", "is empty"), (b"a\0b", "a NUL byte"),
                               (b"x" * 1025, "longer than 1024 bytes")):
            with self.subTest(content=content[:4]):
                result = self.lookUpAsReader("-y", self.file("password", content))

                self.assertFails(result, 78, words)
                self.assertEqual(result.output, "")

    def testIsRefusedFromAFileThatCannotBeRead(self):
        self.assertFails(self.lookUpAsReader("-y", self.folder + "/none"), 78, "No such file")
        self.assertFails(self.lookUpAsReader("-y", self.folder), 78, "Is a directory")

    def testNeedsATerminalToBeAskedFor(self):
        result = self.lookUpAsReader("-W", start_new_session=True)

        self.assertFails(result, 78, "no terminal", "-y FILE or --password-fd N")

    def testIsSentOnceAndSeenNowhere(self):
        directory = ScriptedDirectory(self, silent)
        path = self.file("password", b"hunter2\n")
        with subprocess.Popen([TOOL, "lookup", "-H", directory.uri, "-D", "cn=x", "-y", path, "-b",
                               "dc=x", "-t", "(cn=$u)", "-v", "-o", "nettimeout=1", "a"],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as process:
            self.assertTrue(eventually(lambda: directory.count(BIND)))
            with open(f"/proc/{process.pid}/cmdline", "rb") as arguments, \
                    open(f"/proc/{process.pid}/environ", "rb") as environment:
                seen = arguments.read() + environment.read()
            output, _ = process.communicate(timeout=DEADLINE)

        self.assertEqual(process.returncode, 75, output)
        self.assertIn(b"hunter2", directory.connections[0].requests[0].content)
        self.assertNotIn(b"hunter2", seen + output)


    def testIsInNoDebugOutput(self):
        path = self.file("password", b"reader-pw")
        for level in ("1", "2", "16", "18", "65535", "any", "-1"):
            with self.subTest(level=level):
                result = self.lookUpAsReader("-y", path, "-d", level)

                self.assertEqual(result.status, 0, result.errors)
                self.assertNotRegex(result.errors, "(?m)^ +0000: ")  # a dump of a message
                if level != "1":
                    self.assertIn("would print the password", result.errors)

    def testKeepsNoDebugOutputFromWhoeverHasNone(self):
        result = self.lookUp("a", "-d", "2")

        self.assertRegex(result.errors, "(?m)^ +0000: ")


class PasswordPrompt(DirectoryTest):
    """-W on a terminal of its own."""

    slapdOptions = ["--users", "1"]

    def start(self):
        """The tool on a new terminal; returns when it has asked."""
        child, self.terminal = pty.fork()
        if child == 0:
            os.execv(TOOL, [TOOL, "lookup", "-H", self.uri, "-D", READER, "-W", "-b", PRIVATE,
                            "-t", "(cn=$u)", "--attrs", "cn", "secret"])
        self.child = child
        self.addCleanup(os.close, self.terminal)
        self.shown = b""
        self.readUntil(b"Password for " + READER.encode() + b": ")
        return child

    def readUntil(self, text):
        deadline = time.monotonic() + DEADLINE
        while text not in self.shown:
            readable, _, _ = select.select([self.terminal], [], [], deadline - time.monotonic())
            self.assertTrue(readable, self.shown)
            self.shown += os.read(self.terminal, 4096)

    def readToEnd(self):
        while True:
            try:
                part = os.read(self.terminal, 4096)
            except OSError:  # the terminal's last user is gone
                return
            if not part:
                return
            self.shown += part

    def echoes(self):
        return bool(termios.tcgetattr(self.terminal)[3] & termios.ECHO)

    def testAsksWithoutEcho(self):
        child = self.start()

        self.assertFalse(self.echoes())
        os.write(self.terminal, b"reader-pw\n")
        self.readToEnd()
        _, status = os.waitpid(child, 0)

        self.assertEqual(os.waitstatus_to_exitcode(status), 0, self.shown)
        self.assertIn(b"cn: secret", self.shown)
        self.assertNotIn(b"reader-pw", self.shown)
        self.assertTrue(self.echoes())

    def testRefusesAnEmptyAnswer(self):
        child = self.start()

        os.write(self.terminal, b"\n")
        self.readToEnd()
        _, status = os.waitpid(child, 0)

        self.assertEqual(os.waitstatus_to_exitcode(status), 78)
        self.assertIn(b"the password is empty", self.shown)

    def testTurnsEchoOnAgainWhenItIsInterrupted(self):
        child = self.start()

        os.write(self.terminal, b"half\x03")
        _, status = os.waitpid(child, 0)

        self.assertTrue(os.WIFSIGNALED(status))
        self.assertEqual(os.WTERMSIG(status), signal.SIGINT)
        self.assertTrue(self.echoes())


if __name__ == "__main__":
    unittest.main()
