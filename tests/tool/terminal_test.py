"""A session at a terminal: the prompt for the password, and the progress of a long run."""

import os
import re
import signal
import threading
import time
import unittest

from servers import BIND_RESPONSE, ScriptedDirectory, eventually, serving, silent
from support import DEADLINE, Terminal, ToolTest, run

PROMPT = b"Password for cn=reader: "
ERASED = b"\r\x1b[K"
BAR = re.compile(rb"\r\x1b\[K\[#*\.*\] +\d+ % \d+/2000 \d+/s, \d+:\d\d left")


class Prompt(ToolTest):
    def begin(self, directory, **options):
        return Terminal(
            self.addCleanup,
            "lookup",
            "-H",
            directory.uri,
            "-D",
            "cn=reader",
            "-W",
            "-b",
            "dc=x",
            "-t",
            "(cn=$u)",
            "-o",
            "nettimeout=9",
            "a",
            **options,
        )

    def start(self, directory):
        """Returns when the tool has asked."""
        terminal = self.begin(directory)
        terminal.read_until(PROMPT)
        return terminal

    def found(self):
        return ScriptedDirectory(self, serving(lambda request: request.found()))

    def test_takes_the_password_without_echo(self):
        directory = self.found()
        terminal = self.start(directory)

        was_echoing = terminal.echoes()
        terminal.type(b"hunter2\n")
        status = terminal.read_to_end()

        self.assertEqual(status, 0, terminal.shown)
        self.assertFalse(was_echoing)
        self.assertIn(b"hunter2", directory.connections[0].requests[0].content)
        self.assertTrue(terminal.shown.startswith(PROMPT + b"\r\n# a: found 1\r\n"), terminal.shown)
        self.assertNotIn(b"hunter2", terminal.shown)
        self.assertTrue(terminal.echoes())

    def test_comes_before_any_server_is_connected_to(self):
        directory = self.found()

        self.start(directory)
        directory.finish()

        self.assertEqual(directory.connections, [])

    def test_takes_what_was_corrected_while_typing(self):
        directory = self.found()
        terminal = self.start(directory)

        terminal.type(b"hunterX\x7f2\n")
        terminal.read_to_end()

        self.assertIn(b"hunter2", directory.connections[0].requests[0].content)

    def test_ends_with_the_key_that_interrupts_and_echoes_afterwards(self):
        for key, number in ((b"\x03", signal.SIGINT), (b"\x1c", signal.SIGQUIT)):
            with self.subTest(signal=number):
                directory = self.found()
                terminal = self.start(directory)

                terminal.type(b"half" + key)
                status = terminal.read_to_end()
                directory.finish()

                self.assertEqual(status, -number)
                self.assertTrue(terminal.echoes())
                self.assertNotIn(b"half", terminal.shown)
                self.assertEqual(directory.connections, [])

    def test_echoes_after_a_signal_from_elsewhere(self):
        terminal = self.start(self.found())

        os.kill(terminal.pid, signal.SIGTERM)
        status = terminal.read_to_end()

        self.assertEqual(status, -signal.SIGTERM)
        self.assertTrue(terminal.echoes())

    def test_ends_with_a_signal_that_comes_before_it_is_shown(self):
        terminal = self.begin(self.found(), is_held=True)

        self.assertTrue(eventually(lambda: not terminal.echoes()))
        os.kill(terminal.pid, signal.SIGTERM)
        status = terminal.read_to_end()

        self.assertEqual(status, -signal.SIGTERM)
        self.assertTrue(terminal.echoes())
        self.assertEqual(terminal.shown, b"")

    def test_comes_again_after_a_stop(self):
        directory = self.found()
        terminal = self.start(directory)

        terminal.type(b"half\x1a")  # no shell is there to stop it, so it goes on at once
        terminal.read_until(PROMPT, after=PROMPT)
        terminal.type(b"hunter2\n")
        status = terminal.read_to_end()

        self.assertEqual(status, 0, terminal.shown)
        self.assertIn(b"\x80\x07hunter2", directory.connections[0].requests[0].content)

    def test_is_followed_by_what_is_wrong_with_the_password(self):
        directory = ScriptedDirectory(
            self,
            serving(
                lambda request: request.found(),
                on_bind=lambda request: request.result(BIND_RESPONSE, 49),
            ),
        )
        terminal = self.start(directory)

        terminal.type(b"hunter2\n")
        status = terminal.read_to_end()

        self.assertEqual(status, 77)
        self.assertIn(b"Invalid credentials (49); check -D and the password", terminal.shown)
        self.assertNotIn(b"hunter2", terminal.shown)

    def test_leaves_the_terminal_usable_while_the_server_is_silent(self):
        terminal = self.start(ScriptedDirectory(self, silent))

        terminal.type(b"hunter2\n")
        terminal.read_until(PROMPT + b"\r\n")
        is_echoing = eventually(terminal.echoes)
        terminal.type(b"\x03")

        self.assertEqual(terminal.read_to_end(), -signal.SIGINT)
        self.assertTrue(is_echoing)


class Progress(ToolTest):
    """2,000 keys, slowly at first."""

    def setUp(self):
        super().setUp()
        self.hurry = threading.Event()
        self.addCleanup(self.hurry.set)
        self.directory = ScriptedDirectory(self, serving(self.answer))
        self.records = os.path.join(self.folder, "records")

    def answer(self, request):
        self.hurry.wait(0.02)  # what makes the server slow
        return request.found()

    def keys(self, *more):
        return self.file(
            "keys",
            b"".join(b"u%d@x\n" % n for n in range(2000 - len(more)))
            + b"".join(key + b"\n" for key in more),
        )

    def arguments(self, source, *more):
        return [
            "lookup",
            "-H",
            self.directory.uri,
            "-b",
            "dc=x",
            "-t",
            "(cn=$u)",
            "-j",
            "1",
            "--window",
            "4",
            "--format",
            "tsv",
            "-f",
            source,
            *more,
        ]

    def start(self, source, *more, output=None):
        with open(self.records, "wb") as records:
            return Terminal(
                self.addCleanup, *self.arguments(source, *more), output=output or records.fileno()
            )

    def record_count(self):
        with open(self.records, "rb") as records:
            return len(records.readlines())

    def test_is_a_bar_with_rate_and_time_left(self):
        terminal = self.start(self.keys())

        terminal.read_until(b" left")
        self.hurry.set()
        status = terminal.read_to_end()

        self.assertEqual((status, self.record_count()), (0, 2000), terminal.shown)
        self.assertRegex(terminal.shown, BAR)

    def test_is_erased_at_the_end(self):
        terminal = self.start(self.keys())

        terminal.read_until(b" left")
        self.hurry.set()
        terminal.read_to_end()

        self.assertTrue(terminal.shown.endswith(ERASED), terminal.shown)
        self.assertNotIn(b"\n", terminal.shown)

    def test_goes_forward(self):
        terminal = self.start(self.keys())

        terminal.read_until(b" left")
        terminal.read_until(b"\r", after=b" left")
        self.hurry.set()
        terminal.read_to_end()

        done = [int(count) for count in re.findall(rb" (\d+)/2000 ", terminal.shown)]
        self.assertGreaterEqual(len(done), 2)
        self.assertEqual(done, sorted(set(done)))

    def test_makes_room_for_an_error(self):
        terminal = self.start(self.keys(b"\xff"))

        terminal.read_until(b" left")
        self.hurry.set()
        status = terminal.read_to_end()

        self.assertEqual(status, 65)
        self.assertIn(
            ERASED + b"solvane-ldap: \\xFF: the key contains invalid UTF-8", terminal.shown
        )
        self.assertTrue(terminal.shown.endswith(ERASED), terminal.shown)

    def test_tells_count_and_rate_where_the_end_is_not_known(self):
        pipe = os.path.join(self.folder, "pipe")
        os.mkfifo(pipe)

        def write():
            with open(pipe, "wb") as keys:
                keys.write(b"".join(b"u%d@x\n" % n for n in range(2000)))

        writing = threading.Thread(target=write)
        writing.start()
        terminal = self.start(pipe)

        terminal.read_until(b"/s")
        self.hurry.set()
        status = terminal.read_to_end()
        writing.join(DEADLINE)

        self.assertEqual((status, self.record_count()), (0, 2000), terminal.shown)
        self.assertRegex(terminal.shown, rb"\r\x1b\[K\d+ \d+/s")
        self.assertNotIn(b"left", terminal.shown)

    def shown_during_a_run(self, *arguments):
        """On a run that is long enough to show something."""
        source = self.file("few", b"".join(b"u%d@x\n" % n for n in range(75)))
        started = time.monotonic()

        terminal = self.start(source, *arguments)
        status = terminal.read_to_end()

        self.assertEqual((status, self.record_count()), (0, 75))
        self.assertGreater(time.monotonic() - started, 1)
        return terminal.shown

    def test_is_not_there_when_it_is_to_be_quiet(self):
        self.assertEqual(self.shown_during_a_run("-q"), b"")

    def test_is_there_on_a_run_of_that_length(self):
        self.assertNotEqual(self.shown_during_a_run(), b"")

    def test_is_not_there_where_the_records_are(self):
        source = self.file("few", b"".join(b"u%d@x\n" % n for n in range(75)))
        terminal = Terminal(self.addCleanup, *self.arguments(source))

        terminal.read_to_end()

        self.assertEqual(terminal.shown.count(b"\tfound"), 75)
        self.assertNotIn(b"\x1b", terminal.shown)

    def test_is_not_there_where_standard_error_is_no_terminal(self):
        source = self.file("few", b"".join(b"u%d@x\n" % n for n in range(75)))

        result = run(*self.arguments(source))

        self.assertEqual((result.status, result.errors, len(result.lines)), (0, "", 75))

    def test_is_not_there_on_a_short_run(self):
        self.hurry.set()
        source = self.file("few", b"a@x\nb@x\n")
        started = time.monotonic()

        terminal = self.start(source)
        status = terminal.read_to_end()
        is_short = time.monotonic() - started < 0.5  # else it may be there, on a busy machine

        self.assertEqual(status, 0)
        self.assertTrue(terminal.shown == b"" or not is_short, terminal.shown)


if __name__ == "__main__":
    unittest.main()
