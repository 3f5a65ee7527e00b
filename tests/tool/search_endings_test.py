"""How `solvane-ldap search` ends: by faults, signals and killed servers, and after long runs."""

import os
import signal
import subprocess
import threading
import unittest

from servers import (
    SEARCH,
    SEARCH_DONE,
    ScriptedDirectory,
    Slapd,
    serving,
    silent,
)
from support import DEADLINE, PEOPLE, TOOL, Terminal, ToolTest, free_port, run, tlv


class Faults(ToolTest):
    def search(self, directory, *arguments):
        return run(
            "search", "-H", directory.uri, "-b", "dc=x", "--format", "values", "cn", *arguments
        )

    def test_prints_what_came_before_the_connection_broke(self):
        def script(connection):
            request = connection.receive()
            connection.send(request.entry(cn=[b"one"]) + request.entry(cn=[b"two"]))

        result = self.search(ScriptedDirectory(self, script))

        self.assert_fails(result, 75, "after 2 entries")
        self.assertEqual(result.output, "one\ntwo\n")

    def test_prints_what_came_before_a_malformed_entry(self):
        def answer(request):
            return request.entry(cn=[b"one"]) + request.answer(tlv(0x64, b"\x04\x7f"))

        result = self.search(ScriptedDirectory(self, serving(answer)))

        self.assert_fails(result, 75, "after 1 entry", "invalid response")
        self.assertEqual(result.output, "one\n")

    def test_gives_up_a_server_that_falls_silent(self):
        def script(connection):
            request = connection.receive()
            connection.send(request.entry(cn=[b"one"]))
            silent(connection)

        result = self.search(ScriptedDirectory(self, script), "-o", "nettimeout=1")

        self.assert_fails(result, 75, "no answer in time, after 1 entry")
        self.assertEqual(result.output, "one\n")

    def test_reports_a_page_that_does_not_come(self):
        def page(request):
            cookie = tlv(0x30, tlv(0x02, b"\0"), tlv(0x04, b"next"))
            control = tlv(0x30, tlv(0x04, b"1.2.840.113556.1.4.319"), tlv(0x04, cookie))
            done = request.result(SEARCH_DONE)
            header = request.entry(cn=[b"one"])
            return header, done, control

        def script(connection):
            request = connection.receive()
            header, done, control = page(request)
            body = done[2:] + tlv(0xA0, control)  # short lengths
            connection.send(header + tlv(0x30, body))
            connection.receive()

        directory = ScriptedDirectory(self, script)
        result = self.search(directory, "--page-size", "1")
        directory.finish()

        self.assert_fails(result, 75, "after 1 entry")
        self.assertEqual(result.output, "one\n")
        self.assertEqual(directory.connections[0].operations.count(SEARCH), 2)
        self.assertIn(b"next", directory.connections[0].requests[1].content)

    def test_reports_a_page_that_may_not_be_the_last(self):
        def answer(request):  # the response to a page without its control
            return request.entry(cn=[b"one"]) + request.result(SEARCH_DONE)

        result = self.search(ScriptedDirectory(self, serving(answer)), "--page-size", "1")

        self.assert_fails(result, 75, "after 1 entry", "invalid response")
        self.assertEqual(result.output, "one\n")

    def test_fails_over_to_a_server_that_can_be_reached(self):
        directory = ScriptedDirectory(self, serving(lambda request: request.found()))
        dead = f"ldap://127.0.0.1:{free_port()}"

        result = run("search", "-H", dead, "-H", directory.uri, "-b", "dc=x", "--count")

        self.assertEqual((result.status, result.output), (0, "1\n"), result.errors)

    def test_reports_a_referral(self):
        def answer(request):
            return request.result(SEARCH_DONE, 10, referrals=[b"ldap://other.test/dc=x"])

        result = self.search(ScriptedDirectory(self, serving(answer)))

        self.assert_fails(result, 69, "(10)", "see ldap://other.test/dc=x")

    def test_a_signal_ends_it_after_what_came(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=number):

                def script(connection):
                    request = connection.receive()
                    connection.send(request.entry(cn=[b"one"]))
                    silent(connection)

                directory = ScriptedDirectory(self, script)
                with subprocess.Popen(
                    [TOOL, "search", "-H", directory.uri, "-b", "dc=x", "--format", "values", "cn"],
                    stdout=subprocess.PIPE,
                    bufsize=0,  # communicate() skips what readline() has buffered
                    stderr=subprocess.PIPE,
                ) as running:
                    first = running.stdout.readline()
                    running.send_signal(number)
                    rest, errors = running.communicate(timeout=DEADLINE)

                self.assertEqual((first, rest), (b"one\n", b""))
                self.assertEqual(running.returncode, -number, errors)
                self.assertIn(b"interrupted after 1 entry; ", errors)

    def test_a_signal_that_is_ignored_stays_so(self):
        ignored = threading.Event()

        def script(connection):
            request = connection.receive()
            connection.send(request.entry(cn=[b"one"]))
            ignored.wait(DEADLINE)
            connection.send(request.entry(cn=[b"two"]))
            silent(connection)

        directory = ScriptedDirectory(self, script)
        command = 'trap "" INT; exec "$0" "$@"'
        with subprocess.Popen(
            [
                *["sh", "-c", command, TOOL, "search", "-H", directory.uri, "-b", "dc=x"],
                *["--format", "values", "cn"],
            ],
            stdout=subprocess.PIPE,
            bufsize=0,  # communicate() skips what readline() has buffered
            stderr=subprocess.PIPE,
        ) as running:
            running.stdout.readline()
            running.send_signal(signal.SIGINT)
            ignored.set()
            self.assertEqual(running.stdout.readline(), b"two\n")
            running.send_signal(signal.SIGTERM)
            _, errors = running.communicate(timeout=DEADLINE)

        self.assertEqual(running.returncode, -signal.SIGTERM, errors)
        self.assertIn(b"interrupted after 2 entries; ", errors)


class LongRuns(ToolTest):
    def test_shows_its_progress_on_a_terminal(self):
        hurry = threading.Event()

        def script(connection):
            request = connection.receive()
            while not hurry.wait(0.02):
                connection.send(request.entry(cn=[b"one"]))
            connection.send(request.empty())
            silent(connection)

        directory = ScriptedDirectory(self, script)
        self.addCleanup(hurry.set)
        with open(os.path.join(self.folder, "records"), "wb") as records:
            terminal = Terminal(
                self.addCleanup,
                *["search", "-H", directory.uri, "-b", "dc=x", "cn=*"],
                output=records.fileno(),
            )

        terminal.read_until(b"/s")
        hurry.set()
        status = terminal.read_to_end()

        self.assertEqual(status, 0, terminal.shown)
        self.assertRegex(terminal.shown, rb"\r\x1b\[K\d+ \d+/s")
        self.assertTrue(terminal.shown.endswith(b"\r\x1b[K"), terminal.shown)

    def peak(self, count):
        """The resident kilobytes of a search that finds so many entries of 64 KB."""

        def script(connection):
            request = connection.receive()
            one = request.entry(description=[b"x" * 65536])
            for _ in range(count):
                connection.send(one)
            connection.send(request.empty())
            silent(connection)

        directory = ScriptedDirectory(self, script)
        # ASan keeps what is freed, up to this size.
        options = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1"
        with subprocess.Popen(
            [TOOL, "search", "-H", directory.uri, "-b", "dc=x", "--format", "values", "cn=*"],
            stdout=subprocess.DEVNULL,
            env={**os.environ, "ASAN_OPTIONS": options},
        ) as running:
            _, status, usage = os.wait4(running.pid, 0)
            running.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual(running.returncode, 0)
        return usage.ru_maxrss

    def test_takes_the_memory_of_a_short_one(self):
        """Entries of 128 MB in all, to a reader that takes them as they come."""
        self.assertLess(self.peak(2048), self.peak(2) + 64 * 1024)


class Killed(ToolTest):
    def test_a_killed_server_ends_it_after_what_came(self):
        """The output blocks, since the test does not read it; so no further page is asked for. Without pages,
        sockets may hold the whole answer."""
        slapd = Slapd(self.addCleanup, "--users", "20000", "--sizelimit", "unlimited")
        command = ["search", "-H", slapd.uri, "-b", PEOPLE, "--page-size", "500", "--format", "tsv"]
        with subprocess.Popen(
            [TOOL, *command, "(uid=*)", "uid"],
            stdout=subprocess.PIPE,
            bufsize=0,  # communicate() skips what readline() has buffered
            stderr=subprocess.PIPE,
        ) as running:
            read = running.stdout.readline()
            slapd.kill()
            rest, errors = running.communicate(timeout=DEADLINE)

        lines = (read + rest).decode().splitlines()
        self.assertEqual(running.returncode, 75, errors)
        count = "1 entry" if len(lines) == 1 else f"{len(lines)} entries"
        self.assertIn(f"after {count}; ".encode(), errors)
        self.assertEqual(len(set(lines)), len(lines))
        self.assertLess(len(lines), 20000)


if __name__ == "__main__":
    unittest.main()
