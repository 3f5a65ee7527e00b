"""`solvane-ldap status` on a running service, and without one."""

import json
import os
import signal
import socket
import subprocess
import threading
import unittest

from ldapd import Service
from servers import Slapd, eventually
from support import DEADLINE, TOOL, DirectoryTest, ToolTest, free_port, run

TWO_MAPS = {
    "aliases": "query_filter = (cn=$m)\nresult_attribute = mail\n",
    "users": "query_filter = (mail=$m)\nresult_attribute = uid\n",
}

# Permissions hold for root too.
WITHOUT_PRIVILEGES = ["setpriv", "--bounding-set=-all"] if os.getuid() == 0 else []


def rows(text):
    """The lines of the tables, by their first column, as lists of the others."""
    return {line.split()[0]: line.split()[1:] for line in text.splitlines() if line.split()}


class Status(DirectoryTest):
    slapd_options = ["--users", "20"]

    def test_shows_what_the_service_counts(self):
        service = Service(self, self.uri, "cache_time = 60\n", maps=TWO_MAPS)
        for key in ("user0000001", "user0000001", "user0000002", "nobody"):
            service.ask("users", f"{key}@corp.test")
        service.auth_client().plain("user0000001@corp.test", "pw-user0000001")

        result = run("status", f"unix:{service.stats_path}")

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertRegex(result.lines[0], r"^solvane-ldapd \d+\.\d+\.\d+, up 0:0\d:\d\d$")
        table = rows(result.output)
        self.assertEqual(table["users"][:7], ["4", "-", "3", "1", "0", "1", "0"])
        self.assertRegex(" ".join(table["users"][7:]), r"^[\d.]+ [\d.]+$")
        self.assertEqual(table["aliases"], ["0", "-", "0", "0", "0", "0", "0", "-", "-"])
        self.assertEqual(table["1"][:4], ["1", "0", "0", "0"])  # logins
        servers = [line.split()[1:4] for line in result.lines if line.startswith(self.uri)]
        self.assertEqual([row[1] for row in servers if row[0] == "aliases"], ["up"])
        self.assertIn(["users", "(logins)", "up"], servers)

    def test_is_json_if_asked(self):
        service = Service(self, self.uri)
        service.ask("users", "user0000001@corp.test")
        service.ask("users", "nobody@corp.test")

        def status():
            return json.loads(run("status", "--format", "json", service.stats_path).output)

        # The clients of the two keys count until the service has seen their end.
        self.assertTrue(eventually(lambda: status()["clients"] == 1))
        shown = status()
        self.assertEqual(
            {
                name: shown["maps"][0][name]
                for name in ("map", "requests", "ok", "notfound", "temp")
            },
            {"map": "users", "requests": 2, "ok": 1, "notfound": 1, "temp": 0},
        )
        self.assertGreater(shown["maps"][0]["p99_ms"], 0)
        self.assertEqual(shown["servers"][0]["server"], self.uri)
        self.assertIs(shown["servers"][0]["up"], True)
        self.assertEqual(shown["logins"]["accepted"], 0)

    def test_is_read_by_tcp_too(self):
        port = free_port()
        service = Service(self, self.uri, is_started=False)
        service.write_service("")
        path = os.path.join(service.folder, "service.conf")
        with open(path, encoding="utf-8") as file:
            text = file.read().replace(f"unix:{service.stats_path}", f"inet:127.0.0.1:{port}")
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        service.start()

        result = run("status", f"inet:127.0.0.1:{port}")

        self.assertEqual((result.status, result.errors), (0, ""))

    def test_is_shown_again_and_again(self):
        service = Service(self, self.uri)
        with subprocess.Popen(
            [TOOL, "status", "--watch", service.stats_path],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        ) as watch:
            self.addCleanup(watch.kill)
            lines = iter(watch.stdout.readline, "")
            self.assertEqual(
                next(line for line in lines if line.startswith("users")).split()[2], "-"
            )
            service.ask("users", "user0000001@corp.test")

            second = next(line for line in lines if line.startswith("users")).split()
            self.assertRegex(second[2], r"^\d+\.\d$")
            service.stop()
            self.assertIn("no statistics", watch.stderr.readline())
            service.start()
            self.assertTrue(next(line for line in lines if line.startswith("users")))
            watch.send_signal(signal.SIGINT)
            self.assertEqual(watch.wait(DEADLINE), -signal.SIGINT)


class StatusWithTrouble(ToolTest):
    def test_names_the_servers_that_are_skipped(self):
        slapd = Slapd(self.addCleanup, "--users", "2")
        service = Service(self, slapd.uri)
        slapd.stop()
        service.ask("users", "user0000001@corp.test")

        self.assertTrue(
            eventually(
                lambda: "skipped for" in run("status", service.stats_path).output
                or service.ask("users", "user0000001@corp.test") is None
            )
        )
        self.assertGreater(int(rows(run("status", service.stats_path).output)["users"][4]), 0)

    def test_without_a_service_can_be_tried_again(self):
        path = os.path.join(self.folder, "stats")

        self.assert_fails(run("status", path), 75, f"unix:{path}", "No such file")
        self.assert_fails(run("status", f"inet:127.0.0.1:{free_port()}"), 75, "refused")

    def test_without_permission_says_so(self):
        path = os.path.join(self.folder, "stats")
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(path)
            listener.listen()
            os.chmod(path, 0)

            result = subprocess.run(
                [*WITHOUT_PRIVILEGES, TOOL, "status", path],
                capture_output=True,
                text=True,
                timeout=DEADLINE,
                check=False,
            )

        self.assertEqual(result.returncode, 77, result.stderr)
        self.assertIn(f"unix:{path}: Permission denied", result.stderr)

    def test_of_another_program_is_refused(self):
        path = os.path.join(self.folder, "other")
        for answer in (b"", b"garbage", b"HTTP/1.0 200 OK\r\n\r\n# nothing\nprocess_x 1\n"):
            with self.subTest(answer), socket.socket(socket.AF_UNIX) as listener:
                listener.bind(path)
                listener.listen()

                def serve(listener=listener, answer=answer):
                    peer, _ = listener.accept()
                    with peer:
                        peer.recv(1000)
                        peer.sendall(answer)

                thread = threading.Thread(target=serve)
                thread.start()
                self.assert_fails(run("status", path), 78, "is not a stats_socket")
                thread.join()
                os.unlink(path)

    def test_refuses_invalid_arguments(self):
        for arguments, word in (
            (["stats"], "invalid socket 'stats'"),
            (["unix:stats"], "is not absolute"),
            (["--watch=0", "/stats"], "--watch"),
            (["--watch=x", "/stats"], "--watch"),
            (["--format", "ldif", "/stats"], "status does not support --format ldif"),
        ):
            with self.subTest(arguments):
                self.assert_fails(run("status", *arguments), 64, word)


if __name__ == "__main__":
    unittest.main()
