"""What the tests of the tool share: running it, also on a terminal, a directory, and messages."""

import base64
import os
import pty
import select
import shutil
import socket
import subprocess
import tempfile
import termios
import time
import unittest

TOOL = os.environ["SOLVANE_LDAP_TOOL"]
TESTBED = os.environ["SOLVANE_TESTBED"]
DEADLINE = 60  # seconds; far more than anything here takes

PEOPLE = "ou=people,dc=corp,dc=test"
PRIVATE = "ou=private,dc=corp,dc=test"
READER = "cn=reader,dc=corp,dc=test"
READER_PASSWORD = "reader-pw"


class Result:
    """What a run of the tool left: exit status, output, and error lines."""

    def __init__(self, status, output, errors):
        self.status = status
        self.bytes = output
        self.output = output.decode("utf-8", "backslashreplace")
        self.errors = errors.decode("utf-8", "backslashreplace")

    @property
    def lines(self):
        return self.output.splitlines()

    @property
    def error_lines(self):
        return self.errors.splitlines()


def run(*arguments, stdin=b"", **options):
    """Runs the tool to its end."""
    done = subprocess.run(
        [TOOL, *arguments],
        input=stdin,
        capture_output=True,
        timeout=DEADLINE,
        check=False,
        **options,
    )
    return Result(done.returncode, done.stdout, done.stderr)


class ToolTest(unittest.TestCase):
    """A test with a folder of its own."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="solvane-tool-")
        self.addCleanup(shutil.rmtree, self.folder)

    def file(self, name, content, mode=0o600):
        path = os.path.join(self.folder, name)
        with open(path, "wb") as opened:
            opened.write(content)
        os.chmod(path, mode)
        return path

    def assert_fails(self, result, status, *words):
        """One line on standard error that holds the words; the exit status; no sign of a crash."""
        self.assertEqual(result.status, status, result.errors)
        self.assertEqual(len(result.error_lines), 1, result.errors)
        self.assertTrue(result.errors.startswith("solvane-ldap: "), result.errors)
        self.assertIn("; ", result.errors)
        for word in words:
            self.assertIn(word, result.errors)


class DirectoryTest(ToolTest):
    """A test with a running slapd, one for all tests of a class."""

    slapd_options = ["--users", "200"]

    @classmethod
    def setUpClass(cls):
        search = os.pathsep.join([os.environ.get("PATH", ""), "/usr/local/sbin", "/usr/sbin"])
        if shutil.which("slapd", path=search) is None and not os.environ.get("CI"):
            raise unittest.SkipTest("slapd is not installed")
        parent = tempfile.mkdtemp(prefix="solvane-tool-")
        cls.addClassCleanup(shutil.rmtree, parent)
        cls.directory = os.path.join(parent, "slapd")
        cls.addClassCleanup(
            subprocess.run,
            [os.path.join(TESTBED, "stop"), cls.directory],
            check=True,
            timeout=DEADLINE,
            stdout=subprocess.DEVNULL,
        )
        subprocess.run(
            [os.path.join(TESTBED, "slapd-start"), cls.directory, *cls.slapd_options],
            check=True,
            timeout=DEADLINE,
            stdout=subprocess.DEVNULL,
        )
        cls.server = {}
        with open(os.path.join(cls.directory, "server.env"), encoding="utf-8") as settings:
            for line in settings:
                name, _, value = line.strip().partition("=")
                cls.server[name] = value
        cls.uri = cls.server["LDAP_URI"]
        cls.secure_uri = cls.server["LDAPS_URI"]

    def look_up(self, *arguments, uri=None, base=PEOPLE, template="(mail=$m)", **options):
        return run(
            "lookup", "-H", uri or self.uri, "-b", base, "-t", template, *arguments, **options
        )


class Terminal:
    """A run whose terminal the test reads and types on.

    `output` is a descriptor that takes the place of standard output; `cleanup` is the test's
    addCleanup; where the terminal `isHeld`, it takes no output, as after Ctrl-S.
    """

    def __init__(self, cleanup, *arguments, output=None, is_held=False):
        self.shown = b""
        self.pid, self._terminal = pty.fork()
        if self.pid == 0:
            if is_held:
                termios.tcflow(0, termios.TCOOFF)
            if output is not None:
                os.dup2(output, 1)
            os.execv(TOOL, [TOOL, *arguments])
        self._status = None
        cleanup(self._end)

    def type(self, text):
        os.write(self._terminal, text)

    def echoes(self):
        return bool(termios.tcgetattr(self._terminal)[3] & termios.ECHO)

    def read_until(self, text, after=b""):
        """Until the text is on the terminal, behind another one; fails where it does not come."""
        deadline = time.monotonic() + DEADLINE
        while text not in (self.shown.partition(after)[2] if after else self.shown):
            if not self._read_before(deadline):
                raise AssertionError(f"{text} is not in {self.shown}")

    def read_to_end(self):
        """The exit status; negative, the number of the signal that ended the run."""
        deadline = time.monotonic() + DEADLINE
        while self._read_before(deadline):
            pass
        if time.monotonic() >= deadline:
            raise AssertionError(f"the run does not end; it shows {self.shown}")
        return self._wait()

    def _read_before(self, deadline):
        readable, _, _ = select.select(
            [self._terminal], [], [], max(deadline - time.monotonic(), 0)
        )
        if not readable:
            return False
        try:
            part = os.read(self._terminal, 4096)
        except OSError:  # the terminal's last user is gone
            return False
        self.shown += part
        return bool(part)

    def _wait(self):
        if self._status is None:
            _, status = os.waitpid(self.pid, 0)
            self._status = os.waitstatus_to_exitcode(status)
        return self._status

    def _end(self):
        if self._status is None:
            os.kill(self.pid, 9)
            self._wait()
        os.close(self._terminal)


def tlv(tag, *parts):
    """BER: tag, length, value."""
    body = b"".join(parts)
    size = len(body)
    if size < 128:
        return bytes([tag, size]) + body
    length = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(length)]) + length + body


def message(number, *operation):
    return tlv(0x30, tlv(0x02, bytes([number])), *operation)


def outcome(tag, code, text=b"", referrals=()):
    """An LDAPResult (RFC 4511 section 4.1.9) of the operation `tag`."""
    parts = [tlv(0x0A, bytes([code])), tlv(0x04, b""), tlv(0x04, text)]
    if referrals:
        parts.append(tlv(0xA3, *[tlv(0x04, referral) for referral in referrals]))
    return tlv(tag, *parts)


def bound(code=0, **more):
    return message(1, outcome(0x61, code, **more))


def searched(number, code=0, **more):
    return message(number, outcome(0x65, code, **more))


def entry(number, dn, *attributes):
    """A search entry; attributes are pairs of a description and a list of values."""
    listed = [
        tlv(0x30, tlv(0x04, name), tlv(0x31, *[tlv(0x04, value) for value in values]))
        for name, values in attributes
    ]
    return message(number, tlv(0x64, tlv(0x04, dn), tlv(0x30, *listed)))


def free_port():
    """A port without a listener."""
    with socket.create_server(("127.0.0.1", 0)) as probe:
        return probe.getsockname()[1]


def read_ldif(text):
    """The records of LDIF text, each a list of (name, bytes)."""
    version, _, content = text.partition("\n")
    if version != "version: 1":
        raise ValueError("no version: " + version)
    records = []
    unfolded = content.replace("\n ", "")
    for block in unfolded.split("\n\n"):
        lines = [line for line in block.splitlines() if line and not line.startswith("#")]
        record = []
        for line in lines:
            name, _, value = line.partition(":")
            if value.startswith(":"):
                record.append((name, base64.b64decode(value[1:].strip(), validate=True)))
            else:
                record.append((name, value[1:].encode()))
        if record:
            records.append(record)
    return records
