"""`solvane-ldap add`: LDIF that is read and refused, the order of sending, and what is reported."""

import json
import os
import pty
import select
import subprocess
import time
import unittest

from servers import ADD, NameServer, ScriptedDirectory, hanging_up_after, service, silent
from support import (
    DEADLINE,
    READER,
    TOOL,
    DirectoryTest,
    ToolTest,
    free_port,
    message,
    outcome,
    run,
)

NEW = "ou=new,dc=corp,dc=test"


def unit(name, *more, above=NEW):
    """The record of an organizational unit."""
    return (
        "\n".join(
            [f"dn: ou={name},{above}", "objectClass: organizationalUnit", f"ou: {name}", *more]
        )
        + "\n\n"
    )


def added(number, code=0, **more):
    return message(number, outcome(0x69, code, **more))


class Ldif(ToolTest):
    """What is sent, as -n shows it."""

    def show(self, text, *arguments):
        ldif = text if isinstance(text, bytes) else text.encode()
        return run("add", "-n", *arguments, stdin=ldif)

    def assert_refused(self, text, line, *words):
        result = self.show(text)

        self.assert_fails(result, 65, f"standard input:{line}: ", *words)
        self.assertEqual(result.output, "")

    def test_is_shown_as_it_would_be_sent(self):
        result = self.show("version: 1\n\n" + unit("a", "description:: w7w="))

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertEqual(
            result.output,
            f"dn: ou=a,{NEW}\nchangetype: add\nobjectClass: organizationalUnit\n"
            "ou: a\ndescription:: w7w=\n\n",
        )

    def test_is_shown_as_json(self):
        result = self.show(unit("a", "ou: b", "description:: /w=="), "--format", "json")

        self.assertEqual(
            json.loads(result.output),
            {
                "dn": f"ou=a,{NEW}",
                "line": 1,
                "attrs": {
                    "objectClass": ["organizationalUnit"],
                    "ou": ["a", "b"],
                    "description": [{"base64": "/w=="}],
                },
            },
        )

    def test_may_have_comments_continuations_and_carriage_returns(self):
        result = self.show(
            "# a\n  comment\n\n\ndn: ou=a,\r\n ou=x\r\n# more\r\nou: a\r\n  b\r\n",
            "--format",
            "json",
        )

        self.assertEqual(
            json.loads(result.output), {"dn": "ou=a,ou=x", "line": 5, "attrs": {"ou": ["a b"]}}
        )

    def test_may_be_changes_that_add(self):
        result = self.show("dn: ou=a\nchangetype: add\nou: a\n", "--format", "json")

        self.assertEqual(json.loads(result.output)["attrs"], {"ou": ["a"]})

    def test_gathers_the_values_of_an_attribute_whatever_its_case(self):
        result = self.show("dn: ou=a\nou: a\ncn: x\nOU: b\n", "--format", "json")

        self.assertEqual(json.loads(result.output)["attrs"], {"ou": ["a", "b"], "cn": ["x"]})

    def test_may_end_without_a_newline(self):
        self.assertEqual(self.show("dn: ou=a\nou: a").status, 0)

    def test_may_be_empty(self):
        for text in ("", "\n\n", "# nothing\n", "version: 1\n"):
            with self.subTest(text=text):
                result = self.show(text)

                self.assertEqual((result.status, result.output, result.errors), (0, "", ""))

    def test_keeps_bytes_with_the_option_binary(self):
        result = self.show("dn: ou=a\nuserCertificate;binary:: AAEA\n")

        self.assertIn("userCertificate;binary:: AAEA\n", result.output)

    def test_ends_records_with_nul(self):
        self.assertEqual(
            self.show("dn: ou=a\nou: a\n", "-0").bytes, b"dn: ou=a\nchangetype: add\nou: a\n\0"
        )

    def test_is_refused_with_its_line(self):
        for text, line, words in (
            ("version: 2\n\ndn: ou=a\nou: a\n", 1, ["version '2'"]),
            ("\nou: a\n", 2, ["starts with 'ou'"]),
            ("dn: ou=a\nou a\n", 2, ["attribute: value"]),
            ("dn: ou=a\n: a\n", 2, ["attribute: value"]),
            ("dn: ou=a\no u: a\n", 2, ["invalid attribute name 'o u'"]),
            ("dn: ou=a\nou:: ???\n", 2, ["base64"]),
            ("dn: ou=a\nou: a\ndn: ou=b\nou: b\n", 3, ["second DN in one record"]),
            ("dn: ou=a\n", 1, ["no attributes"]),
            ("dn:\nou: a\n", 1, ["DN"]),
            ("dn:: /w==\nou: a\n", 1, ["not valid UTF-8"]),
            ("dn: ou=a\nchangetype: modify\n", 2, ["'modify'", "only add"]),
            ("dn: ou=a\nchangetype: delete\n", 2, ["'delete'"]),
            ("dn: ou=a\ncontrol: 1.2.3\nchangetype: add\nou: a\n", 2, ["controls"]),
            ("dn: ou=a\ncn: x\njpegPhoto:: AAEA\n", 3, ["NUL byte", ";binary"]),
            (b"dn: ou=a\nou: a\0b\n", 2, ["NUL byte", "base64"]),
            ("dn: ou=a\nchangetype: x\n", 2, ["'x'"]),
            ("dn: ou=a\nchangetype: add\n", 1, ["no attributes"]),
        ):
            with self.subTest(text=text):
                self.assert_refused(text, line, *words)

    def test_reads_no_other_files(self):
        secret = self.file("secret", b"dn: ou=hunter2\nou: hunter2\n")
        for text, line in (
            (f"dn: ou=a\nou:< file://{secret}\n", 2),
            (f"include: file://{secret}\n", 1),
            (f"dn:< file://{secret}\nou: a\n", 1),
            (f"version:< file://{secret}\n", 1),
        ):
            with self.subTest(text=text):
                self.assert_refused(text, line)

                self.assertNotIn("hunter2", self.show(text).output)

    def test_stops_at_the_first_wrong_record_unless_it_is_to_go_on(self):
        text = unit("a") + "dn: ou=x\n\n" + unit("b")

        stopped = self.show(text)
        went_on = self.show(text, "-c")

        self.assertEqual((stopped.status, went_on.status), (65, 65))
        self.assertEqual((stopped.output.count("dn: "), went_on.output.count("dn: ")), (1, 2))

    def test_is_read_from_a_file(self):
        path = self.file("a.ldif", b"dn: ou=a\nou: a\n\ndn: ou=b\n")

        self.assert_fails(run("add", "-n", "-f", path), 65, f"{path}:4: ")
        self.assert_fails(run("add", "-n", "-f", self.folder + "/none"), 78, "No such file")


class Usage(ToolTest):
    def test_refuses_what_it_cannot_do(self):
        for arguments, word in (
            (["--format", "ldif"], "text or json"),
            (["--window", "0"], "from 1"),
            ([], "no server given"),
            (["stray"], "stray"),
            (
                ["-H", "ldap://h", "-D", "cn=x", "--password-fd", "0"],
                "both read from standard input",
            ),
        ):
            with self.subTest(arguments=arguments):
                self.assert_fails(run("add", *arguments), 64, word)


class AddToADirectory(DirectoryTest):
    slapd_options = ["--users", "1", "--retcode"]

    def setUp(self):
        super().setUp()
        self.password = self.file("password", b"reader-pw\n")

    def add(self, text, *arguments, uri=None):
        return run(
            "add",
            "-H",
            uri or self.uri,
            "-D",
            READER,
            "-y",
            self.password,
            *arguments,
            stdin=text.encode(),
        )

    def test_reports_each_entry_in_its_order(self):
        result = self.add(unit("order1") + unit("order2"))

        self.assertEqual(
            (result.status, result.lines, result.errors),
            (0, [f"added ou=order1,{NEW}", f"added ou=order2,{NEW}"], ""),
        )
        self.assertEqual(self.look_up("order2", base=NEW, template="(ou=$u)").status, 0)

    def test_sends_no_entry_ahead_of_the_one_above_it(self):
        records, expected = [], []
        above = NEW
        for i in range(40):
            records.append(unit(f"level{i}", above=above))
            above = f"OU=Level{i} , {above}"
            expected.append("added")
        result = self.add("".join(records), "--window", "40")

        self.assertEqual(
            (result.status, [line.split()[0] for line in result.lines]),
            (0, expected),
            result.errors,
        )

    def test_keeps_the_order_of_many_in_flight(self):
        names = [f"many{i}" for i in range(500)]

        result = self.add("".join(map(unit, names)), "--window", "64", "--stats=json")

        self.assertEqual(result.lines, [f"added ou={name},{NEW}" for name in names])
        figures = json.loads(result.errors)
        self.assertEqual(
            [figures[name] for name in ("added", "exists", "refused", "unknown")], [500, 0, 0, 0]
        )

    def test_says_which_entries_exist(self):
        self.add(unit("there"))

        stopped = self.add(unit("there") + unit("behind1"), "--window", "1")
        went_on = self.add(unit("there") + unit("behind2"), "-c")

        self.assert_fails(stopped, 73, "already exists")
        self.assertEqual(stopped.lines, [f"exists ou=there,{NEW}"])
        self.assertEqual(
            (went_on.status, went_on.lines),
            (73, [f"exists ou=there,{NEW}", f"added ou=behind2,{NEW}"]),
        )

    def test_reports_what_was_in_flight_when_it_stops(self):
        self.add(unit("stop"))

        result = self.add(unit("stop") + "".join(unit(f"stop{i}") for i in range(5)))

        self.assertEqual((result.status, result.lines[0]), (73, f"exists ou=stop,{NEW}"))
        for line in result.lines:
            name = line.split()[1].partition(",")[0].partition("=")[2]
            self.assertEqual(self.look_up(name, base=NEW, template="(ou=$u)").status, 0, line)

    def test_tells_refusals_apart(self):
        wrong = f"dn: cn=w,{NEW}\nobjectClass: person\ncn: w\n"
        for text, status, code in (
            (wrong, 65, 65),
            (unit("a", above="ou=private,dc=corp,dc=test"), 77, 50),
            (unit("a", "nonsense: 1"), 65, 17),
            (unit("a", above="no dn"), 65, 34),
            (unit("a", above="ou=none," + NEW), 78, 32),
            ("dn: cn=busy,ou=codes,dc=corp,dc=test\nobjectClass: device\n" "cn: busy\n", 75, 51),
        ):
            with self.subTest(code=code):
                result = self.add(text)

                self.assert_fails(result, status, f"({code})")
                self.assertEqual(len(result.lines), 1)
                self.assertTrue(result.output.startswith(f"refused {code} "), result.output)

    def test_reports_in_json(self):
        result = self.add(unit("json") + unit("json"), "-c", "--format", "json")
        first, second = map(json.loads, result.lines)

        self.assertEqual(
            first,
            {
                "dn": f"ou=json,{NEW}",
                "status": "added",
                "line": 1,
                "code": 0,
                "text": "",
                "server": self.uri,
            },
        )
        self.assertEqual((second["status"], second["line"], second["code"]), ("exists", 5, 68))

    def test_reports_a_wrong_record_in_its_place(self):
        wrong = f"dn: ou=x,{NEW}\nou:< file:///x\n\n"

        result = self.add(unit("place1") + wrong + unit("place2"), "-c")

        self.assertEqual(result.status, 65)
        self.assertEqual([line.split()[0] for line in result.lines], ["added", "refused", "added"])
        self.assertIn(f"refused -9 ou=x,{NEW}: standard input:6: ", result.output)

    def test_asks_the_next_server_where_the_first_is_down(self):
        result = run(
            "add",
            "-H",
            f"ldap://127.0.0.1:{free_port()}",
            "-H",
            self.uri,
            "-D",
            READER,
            "-y",
            self.password,
            stdin=unit("next").encode(),
        )

        self.assertEqual(
            (result.status, result.lines), (0, [f"added ou=next,{NEW}"]), result.errors
        )

    def test_asks_the_servers_of_a_domain(self):
        names = NameServer(
            self,
            hosts={"ldap.corp.test": ["127.0.0.1"]},
            services={
                "_ldap._tcp.corp.test": [
                    service(20, 0, int(self.server["LDAP_PORT"]), "ldap.corp.test"),
                    service(10, 0, free_port(), "ldap.corp.test"),
                ]
            },
        )

        result = run(
            "add",
            "-H",
            "ldap+srv:///dc=corp,dc=test",
            "--name-servers",
            names.address,
            "-D",
            READER,
            "-y",
            self.password,
            stdin=unit("domain").encode(),
        )

        self.assertEqual(
            (result.status, result.lines), (0, [f"added ou=domain,{NEW}"]), result.errors
        )

    def test_adds_nothing_without_rights(self):
        result = run("add", "-H", self.uri, stdin=unit("anonymous").encode())

        self.assertEqual(result.status, 77, result.errors)
        self.assertNotIn("added", result.output)

    def test_is_refused_with_the_wrong_password(self):
        self.password = self.file("password", b"wrong\n")

        self.assert_fails(self.add(unit("a")), 77, "(49)")


class AddToAPeer(ToolTest):
    def add(self, script, text, *arguments):
        self.directory = ScriptedDirectory(self, script)
        result = run("add", "-H", self.directory.uri, *arguments, stdin=text.encode())
        self.directory.finish()
        return result

    def test_does_not_know_what_became_of_entries_on_a_lost_connection(self):
        result = self.add(
            hanging_up_after(added(1)), unit("a") + unit("b", above=f"ou=a,{NEW}") + unit("c")
        )

        self.assertEqual(result.status, 75, result.errors)
        self.assertEqual(result.lines[0], f"added ou=a,{NEW}")
        self.assertEqual(
            result.lines[1], f"unknown ou=b,ou=a,{NEW}: connection lost before the answer"
        )
        self.assertIn("check whether the entry exists", result.errors)

    def test_sends_nothing_twice(self):
        result = self.add(hanging_up_after(), unit("once"))

        self.assertEqual((result.status, len(result.lines)), (75, 1))
        self.assertEqual(self.directory.count(ADD), 1)

    def test_waits_no_longer_than_it_may(self):
        for limit in (["-o", "nettimeout=1"], ["--deadline", "1"]):
            with self.subTest(limit=limit):
                result = self.add(silent, unit("a"), *limit)

                self.assertEqual(
                    (result.status, result.lines), (75, [f"unknown ou=a,{NEW}: no answer in time"])
                )

    def test_refuses_an_answer_that_is_none(self):
        result = self.add(hanging_up_after(message(1, outcome(0x65, 0))), unit("a"))

        self.assertEqual(result.lines, [f"unknown ou=a,{NEW}: the server sent an invalid response"])

    def test_reports_a_referral(self):
        result = self.add(hanging_up_after(added(1, 10, referrals=[b"ldap://other/"])), unit("a"))

        self.assertEqual(
            (result.status, result.lines),
            (69, [f"refused 10 ou=a,{NEW}: Referral, see ldap://other/"]),
        )

    def test_shows_the_servers_text_on_one_line(self):
        result = self.add(hanging_up_after(added(1, 53, text=b"no\n\x1b[31m")), unit("a"))

        self.assertEqual(
            result.lines,
            [f"refused 53 ou=a,{NEW}: Server is unwilling to perform: " "no\\x0A\\x1B[31m"],
        )


class ProgressOfAnAdd(DirectoryTest):
    slapd_options = ["--users", "1"]

    def test_is_shown_on_a_terminal_and_erased(self):
        password = self.file("password", b"reader-pw\n")
        terminal, its_end = pty.openpty()
        self.addCleanup(os.close, terminal)
        with subprocess.Popen(
            [TOOL, "add", "-H", self.uri, "-D", READER, "-y", password, "-c"],
            stdin=subprocess.PIPE,
            stdout=subprocess.DEVNULL,
            stderr=its_end,
        ) as process:
            os.close(its_end)
            shown = b""
            deadline = time.monotonic() + DEADLINE
            number = 0
            while b"/s" not in shown and time.monotonic() < deadline:
                process.stdin.write(unit(f"p{number}").encode())
                process.stdin.flush()
                number += 1
                if select.select([terminal], [], [], 0.01)[0]:
                    shown += os.read(terminal, 4096)
            process.stdin.write(unit("p0").encode())
            process.stdin.close()
            while True:
                try:
                    shown += os.read(terminal, 4096)
                except OSError:  # its last user is gone
                    break
            process.wait(DEADLINE)

        self.assertEqual(process.returncode, 73, shown)
        self.assertRegex(shown, rb"\r\x1b\[K\d+ \d+/s")
        # The message has its own line, and the progress line is erased at the end.
        self.assertIn(b"\r\x1b[Ksolvane-ldap: ou=p0," + NEW.encode() + b": already exists", shown)
        self.assertTrue(shown.endswith(b"\r\x1b[K"), shown[-80:])

    def test_is_not_shown_elsewhere(self):
        result = run("add", "-H", self.uri, stdin=unit("x").encode())

        self.assertNotIn("\x1b", result.errors)


class AddFromAPipe(DirectoryTest):
    slapd_options = ["--users", "1"]

    def begin(self, entries):
        """The tool, after it got these entries; more could follow."""
        password = self.file("password", b"reader-pw\n")
        process = subprocess.Popen(
            [TOOL, "add", "-H", self.uri, "-D", READER, "-y", password],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stdin.close)
        self.addCleanup(process.kill)
        process.stdin.write(entries.encode())
        process.stdin.flush()
        return process

    def test_reports_each_answer_before_more_entries_come(self):
        process = self.begin(unit("p0") + unit("p1"))

        self.assertTrue(process.stdout.readline().startswith(b"added ou=p0,"))
        self.assertTrue(process.stdout.readline().startswith(b"added ou=p1,"))

    def test_ends_after_a_failure_though_more_could_come(self):
        process = self.begin(unit("q0") + unit("q0"))

        self.assertEqual(process.wait(DEADLINE), 73)
        self.assertIn(b"exists ou=q0,", process.stdout.read())


class AddToAServerThatEnds(DirectoryTest):
    slapd_options = ["--users", "1"]

    def test_reports_every_entry_that_was_sent(self):
        password = self.file("password", b"reader-pw\n")
        with subprocess.Popen(
            [TOOL, "add", "-H", self.uri, "-D", READER, "-y", password, "-q"],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        ) as process:
            process.stdin.write("".join(unit(f"e{i}") for i in range(50)).encode())
            process.stdin.flush()
            first = process.stdout.readline()
            subprocess.run(["kill", "-KILL", self.server["SERVER_PID"]], check=True)
            try:
                process.stdin.write("".join(unit(f"f{i}") for i in range(2000)).encode())
                process.stdin.close()
            except BrokenPipeError:
                pass
            lines = [first, *process.stdout.read().splitlines()]
            process.wait(DEADLINE)

        self.assertEqual(process.returncode, 75)
        self.assertTrue(first.startswith(b"added "), first)
        names = [line.split()[1].partition(b",")[0] for line in lines]
        expected = [
            f"ou={name}".encode()
            for name in [f"e{i}" for i in range(50)] + [f"f{i}" for i in range(2000)]
        ]
        self.assertEqual(names, expected[: len(names)])


if __name__ == "__main__":
    unittest.main()
