"""`solvane-ldap apply`: what changes, what undoes it, and what is reported."""

import json
import os
import resource
import signal
import subprocess
import threading
import unittest

from servers import (
    ADD,
    SEARCH,
    SEARCH_DONE,
    ScriptedDirectory,
    Slapd,
)
from support import DEADLINE, TOOL, DirectoryTest, ToolTest, outcome, run, tlv

ADMIN = "cn=admin,dc=corp,dc=test"
NEW = "ou=new,dc=corp,dc=test"
PRE_READ, POST_READ = b"1.3.6.1.1.13.1", b"1.3.6.1.1.13.2"
MANAGE_DSA_IT = "2.16.840.1.113730.3.4.2"
MODIFY, DELETE = 0x66, 0x4A
MODIFIED, ADDED, DELETED = 0x67, 0x69, 0x6B

PERSON = f"""\
dn: uid=p,{NEW}
objectClass: inetOrgPerson
uid: p
cn: Person
cn: Second
sn: One
description;lang-de: eins
jpegPhoto:: AAECAGE=
userPassword: hunter2
"""


def open_bytes(path):
    with open(path, "rb") as opened:
        return opened.read()


class Applied(DirectoryTest):
    slapd_options = ["--users", "1"]

    def setUp(self):
        super().setUp()
        self.undo = os.path.join(self.folder, "undo")
        self.addCleanup(self.clear)

    def admin(self):
        return ["-H", self.uri, "-D", ADMIN, "-y", self.file("password", b"secret")]

    def apply(self, text, *arguments):
        return run("apply", *self.admin(), *arguments, stdin=text.encode())

    def tree(self):
        """The entries below ou=new as ldapsearch prints them, in the order of their names. Attributes
        are in the order of theirs, as a server may store them in any; values are as they come."""
        text = subprocess.run(
            [
                *["ldapsearch", "-LLL", "-x", "-H", self.uri, "-D", ADMIN, "-w", "secret"],
                *["-b", NEW, "-M", "-o", "ldif-wrap=no"],
            ],
            capture_output=True,
            check=True,
            timeout=DEADLINE,
        ).stdout.decode()
        entries = []
        for entry in text.strip("\n").split("\n\n"):
            dn, *lines = entry.split("\n")
            entries.append([dn, *sorted(lines, key=lambda line: line.partition(":")[0])])
        return "".join("\n".join(entry) + "\n\n" for entry in sorted(entries))

    def clear(self):
        names = [line[4:] for line in self.tree().splitlines() if line[:4] == "dn: "]
        text = "".join(
            f"dn: {name}\ncontrol: {MANAGE_DSA_IT} true\nchangetype: delete\n\n"
            for name in sorted(names, key=lambda name: -name.count(","))
            if name != NEW
        )
        self.assertEqual(self.apply(text).status, 0)

    def set_up(self, text):
        result = self.apply(text)
        self.assertEqual((result.status, result.errors), (0, ""))
        return self.tree()

    def assert_undone(self, text, before):
        """The changes are made, and undone."""
        result = self.apply(text, "--pre-read", self.undo)
        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertNotEqual(self.tree(), before)

        back = run("apply", *self.admin(), self.undo)

        self.assertEqual((back.status, back.errors), (0, ""))
        self.assertEqual(self.tree(), before)

    def test_prints_a_line_for_each_record(self):
        result = self.apply(
            PERSON
            + f"\ndn: uid=p,{NEW}\nchangetype: modify\nreplace: sn\nsn: Two\n-\n"
            + f"\ndn: uid=p,{NEW}\nchangetype: modrdn\nnewrdn: uid=q\ndeleteoldrdn: 1\n"
            + f"\ndn: ou=u,{NEW}\nobjectClass: organizationalUnit\n"
            + f"\ndn: uid=q,{NEW}\nchangetype: moddn\nnewrdn: uid=q\ndeleteoldrdn: 0\n"
            + f"newsuperior: ou=u,{NEW}\n"
            + f"\ndn: uid=q,ou=u,{NEW}\nchangetype: delete\n"
        )

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertEqual(
            result.lines,
            [
                f"added uid=p,{NEW}",
                f"modified uid=p,{NEW}",
                f"renamed uid=p,{NEW} to uid=q",
                f"added ou=u,{NEW}",
                f"renamed uid=q,{NEW} to uid=q below ou=u,{NEW}",
                f"deleted uid=q,ou=u,{NEW}",
            ],
        )

    def test_reports_as_json(self):
        result = self.apply(
            f"\n\ndn: uid=none,{NEW}\nchangetype: modify\ndelete: sn\n-\n", "--format", "json"
        )

        self.assertEqual(result.status, 65)
        record = json.loads(result.output)
        self.assertIn("No such object", record.pop("text"))
        self.assertEqual(
            record,
            {
                "dn": f"uid=none,{NEW}",
                "change": "modify",
                "status": "refused",
                "line": 3,
                "code": 32,
                "server": self.uri,
            },
        )

    def test_sends_values_with_all_their_bytes(self):
        tree = self.set_up(PERSON)

        self.assertIn("jpegPhoto:: AAECAGE=\n", tree)
        self.set_up(
            f"dn: uid=p,{NEW}\nchangetype: modify\nreplace: jpegPhoto\njpegPhoto:: AGEA\n-\n"
        )
        self.assertIn("jpegPhoto:: AGEA\n", self.tree())

    def test_undoes_every_kind_of_record(self):
        before = self.set_up(
            PERSON
            + f"\ndn: ou=from,{NEW}\nobjectClass: organizationalUnit\nou: FROM\nou: other\n"
            + f"\ndn: ou=to,{NEW}\nobjectClass: organizationalUnit\n"
            + f"\ndn: ou=gone,{NEW}\nobjectClass: organizationalUnit\ndescription:: AMO8\n"
            + f"\ndn: cn=ref,{NEW}\nobjectClass: referral\nobjectClass: extensibleObject\n"
            + "ref: ldap://elsewhere/\n"
            + f"\ndn: cn=g,{NEW}\nobjectClass: device\nobjectClass: extensibleObject\n"
            + "mailPreferenceOption: 7\n"
        )

        self.assert_undone(
            f"dn: uid=p,{NEW}\nchangetype: modify\nreplace: sn\nsn: Two\nsn: Three\n-\n"
            "add: description\ndescription: new\n-\ndelete: jpegPhoto\n-\n"
            "delete: commonName\ncommonName: Second\n-\nadd: mail\nmail: a@b\n-\ndelete: mail\n-\n"
            "replace: 2.5.4.35\n2.5.4.35: other\n-\nreplace: title\n-\n"
            f"\ndn: cn=g,{NEW}\nchangetype: modify\nincrement: mailPreferenceOption\nmailPreferenceOption: 3\n-\n"
            f"\ndn: ou=x,{NEW}\nobjectClass: organizationalUnit\n"
            f"\ndn: ou=y,ou=x,{NEW}\nchangetype: add\nobjectClass: organizationalUnit\n"
            f"\ndn: ou=gone,{NEW}\nchangetype: delete\n"
            f"\ndn: ou=from,{NEW}\nchangetype: modrdn\nnewrdn: ou=moved\ndeleteoldrdn: 1\n"
            f"newsuperior: ou=to,{NEW}\n"
            f"\ndn: cn=ref,{NEW}\ncontrol: {MANAGE_DSA_IT} true\nchangetype: delete\n"
            f"\ndn: uid=p,{NEW}\nchangetype: modrdn\nnewrdn: cn=Person\ndeleteoldrdn: 0\n",
            before,
        )

    def test_undoes_renames(self):
        before = self.set_up(PERSON)
        for rdn, deletes in (
            ("uid=q", 1),
            ("uid=q", 0),
            ("uid=P", 1),
            ("cn=second", 0),
            ("cn=new", 0),
            ("cn=Person+sn=New", 0),
            ("sn=One+uid=p", 1),
        ):
            with self.subTest(rdn=rdn, deletes=deletes):
                self.undo = os.path.join(self.folder, f"undo of {rdn} {deletes}")
                self.assert_undone(
                    f"dn: uid=p,{NEW}\nchangetype: modrdn\nnewrdn: {rdn}\ndeleteoldrdn: {deletes}\n",
                    before,
                )

    def test_restores_exactly_the_attributes_that_a_record_names(self):
        self.set_up(PERSON)
        self.apply(
            f"dn: uid=p,{NEW}\nchangetype: modify\nreplace: sn\nsn: Two\n-\n",
            *["--pre-read", self.undo],
        )
        self.set_up(f"dn: uid=p,{NEW}\nchangetype: modify\nreplace: mail\nmail: a@b\n-\n")

        self.assertEqual(run("apply", *self.admin(), self.undo).status, 0)
        self.assertIn("sn: One\n", self.tree())
        self.assertIn("mail: a@b\n", self.tree())

    def test_writes_a_private_file_that_is_new(self):
        old = self.file("old", b"mine", mode=0o644)
        result = self.apply(PERSON, "--pre-read", old)

        self.assert_fails(result, 64, "exists already")
        self.assertNotIn("uid=p,", self.tree())
        with open(old, "rb") as opened:
            self.assertEqual(opened.read(), b"mine")

        self.apply(PERSON, "--pre-read", self.undo)
        self.assertEqual(os.stat(self.undo).st_mode & 0o777, 0o600)
        with open(self.undo, encoding="ascii") as opened:
            self.assertIn(f"\ndn: uid=p,{NEW}\nchangetype: delete\n", opened.read())
        self.assertEqual(sorted(os.listdir(self.folder)), ["old", "password", "undo"])

    def test_leaves_no_file_if_nothing_was_changed(self):
        result = self.apply(f"dn: uid=none,{NEW}\nchangetype: delete\n", "--pre-read", self.undo)

        self.assertEqual(result.status, 65)
        self.assertFalse(os.path.exists(self.undo))

    def test_refuses_before_sending_what_it_cannot_undo(self):
        before = self.tree()
        for text, words in (
            (
                f"dn: {NEW}\ncontrol: 1.2.840.113556.1.4.805 true\nchangetype: delete\n",
                "1.2.840.113556.1.4.805 cannot be undone",
            ),
            (f"dn: {NEW}\nchangetype: modrdn\nnewrdn: x\ndeleteoldrdn: 0\n", "invalid DN"),
            (f"dn: {NEW}\nchangetype: modrdn\nnewrdn: a=b,c=d\ndeleteoldrdn: 0\n", "invalid RDN"),
        ):
            with self.subTest(words=words):
                result = self.apply(text, "--pre-read", self.undo)

                self.assertEqual(result.status, 65)
                self.assertIn(words, result.output)
        self.assertEqual(self.tree(), before)

    def test_ends_with_the_first_failure(self):
        result = self.apply(
            PERSON
            + f"\ndn: uid=none,{NEW}\nchangetype: delete\n\ndn: uid=p,{NEW}\nchangetype: delete\n"
        )

        self.assertEqual(result.status, 65)
        self.assertEqual(len(result.lines), 2)
        self.assertRegex(result.lines[1], f"^refused 32 uid=none,{NEW}: No such object")
        self.assertIn(
            "ended after the record at line 11: 1 applied, 1 refused, 0 unknown",
            result.error_lines[1],
        )
        self.assertIn("uid=p,", self.tree())

    def test_continues_after_failures_with_c(self):
        result = self.apply(
            f"dn: uid=none,{NEW}\nchangetype: delete\n\nnonsense\n\n" + PERSON + "\n" + PERSON,
            *["-c", "--stats", "--pre-read", self.undo],
        )

        self.assertEqual(result.status, 65, result.errors)
        self.assertEqual(
            [line.split(" ")[0] for line in result.lines], ["refused", "added", "refused"]
        )
        half = self.apply("dn: cn=a\nno change\n\n", "-c", "--format", "json")
        self.assertEqual(half.status, 65)
        record = json.loads(half.output)
        self.assertEqual((record["dn"], record["status"], record["code"]), ("cn=a", "refused", -9))
        self.assertNotIn("change", record)
        self.assertIn("standard input:4: ", result.errors)
        self.assertIn("1 applied, 3 refused, 0 unknown in ", result.errors)
        self.assertEqual(run("apply", *self.admin(), self.undo).status, 0)
        self.assertNotIn("uid=p,", self.tree())

    def test_sends_the_controls_of_a_record(self):
        self.set_up(PERSON)
        # (sn=Two), RFC 4528
        wrong = "control: 1.3.6.1.1.12 true:: owkEAnNuBANUd28=\n"
        unknown = "control: 1.2.3.4 true\n"
        for control, code, words in (
            (wrong, 122, "not as the record expects"),
            (unknown, 12, "control"),
        ):
            result = self.apply(f"dn: uid=p,{NEW}\n{control}changetype: delete\n")

            self.assertEqual(result.status, 69, result.errors)
            self.assertIn(f"refused {code} ", result.output)
            self.assertIn(words, result.errors)

    def test_ends_if_the_undo_cannot_be_written(self):
        """The undo of what was changed before stays usable."""
        before = self.tree()
        text = "".join(f"dn: ou={n},{NEW}\nobjectClass: organizationalUnit\n\n" for n in "abc")
        result = run(
            *["apply", *self.admin(), "-c", "--pre-read", self.undo],
            stdin=text.encode(),
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (160, 160)),
            # The limit would spoil the counts of a build for coverage.
            env={**os.environ, "GCOV_PREFIX": self.folder},
        )

        self.assertEqual(result.status, 74, result.errors)
        self.assertEqual(result.lines, [f"added ou=a,{NEW}", f"added ou=b,{NEW}"])
        self.assertIn("ou=b,", result.error_lines[0])
        self.assertIn("the change was made, but its undo could not be", result.error_lines[0])
        self.assertIn("cannot write", result.error_lines[1])
        self.assertIn("after the record at line 4: 2 applied", result.error_lines[2])
        back = run("apply", *self.admin(), self.undo)
        self.assertEqual((back.status, back.output), (0, f"deleted ou=a,{NEW}\n"))
        self.assertEqual(self.set_up(f"dn: ou=b,{NEW}\nchangetype: delete\n"), before)

    def test_applies_the_journal_of_a_killed_run_backwards(self):
        before = self.tree()
        apply = subprocess.Popen(
            [TOOL, "apply", *self.admin(), "--pre-read", self.undo],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        self.addCleanup(apply.stdout.close)
        self.addCleanup(apply.stdin.close)
        apply.stdin.write(
            f"dn: ou=x,{NEW}\nobjectClass: organizationalUnit\n\n".encode()
            + f"dn: ou=y,ou=x,{NEW}\nobjectClass: organizationalUnit\n\n".encode()
        )
        apply.stdin.flush()
        for _ in range(2):
            self.assertIn(b"added", apply.stdout.readline())
        apply.send_signal(signal.SIGKILL)
        apply.wait(DEADLINE)
        with open(self.undo, "ab") as opened:
            opened.write(b"dn: ou=x,")  # the kill came within a write

        with open(self.undo, "rb") as opened:
            journal = opened.read()
        for text in (journal, journal.replace(b"\n", b"\r\n"), b"version: 1\n\n" + journal):
            piped = run("apply", *self.admin(), stdin=text)
            self.assert_fails(piped, 78, "must be read from its end")
        shown = run("apply", "-n", self.undo)
        self.assertEqual(shown.lines, [f"would delete ou=y,ou=x,{NEW}", f"would delete ou=x,{NEW}"])
        with open(self.undo, "rb") as opened:
            back = subprocess.run(
                [TOOL, "apply", *self.admin()],
                stdin=opened,
                capture_output=True,
                timeout=DEADLINE,
                check=False,
            )

        self.assertEqual((back.returncode, back.stderr), (0, b""))
        self.assertEqual(self.tree(), before)

    def test_a_signal_ends_it_between_records(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(signal=number):
                undo = os.path.join(self.folder, f"undo-{number}")
                before = self.tree()
                with subprocess.Popen(
                    [TOOL, "apply", *self.admin(), "--pre-read", undo],
                    stdin=subprocess.PIPE,
                    stdout=subprocess.PIPE,
                    bufsize=0,  # communicate() skips what readline() has buffered
                    stderr=subprocess.PIPE,
                ) as apply:
                    apply.stdin.write(
                        f"dn: ou=x,{NEW}\nobjectClass: organizationalUnit\n\n".encode()
                    )
                    self.assertIn(b"added", apply.stdout.readline())
                    apply.send_signal(number)
                    self.assertEqual(apply.wait(DEADLINE), -number)
                    errors = apply.stderr.read()

                self.assertIn(b"ended after the record at line 1: 1 applied", errors)
                back = run("apply", *self.admin(), stdin=open_bytes(undo))
                self.assertEqual((back.status, back.output), (0, f"deleted ou=x,{NEW}\n"))
                self.assertEqual(self.tree(), before)

    def test_an_empty_replace_of_what_cannot_be_read_is_no_undo(self):
        """slapd's reader may change what it cannot see; an empty replace would delete it."""
        self.set_up(PERSON)
        text = f"dn: uid=p,{NEW}\nchangetype: modify\nreplace: description\n-\nreplace: mobile\n-\n"
        text += "add: title\ntitle: x\n-\ndelete: title\n-\n"

        result = self.apply(text, "--pre-read", self.undo)

        self.assertEqual(result.status, 0, result.errors)
        undo = open_bytes(self.undo).decode()
        self.assertNotIn("replace: mobile", undo)
        self.assertRegex(undo, "# Not known whether there were values before: .*: .*mobile, title")
        self.assertNotIn("title", undo.replace("mobile, title", ""))


class Read(ToolTest):
    """What -n makes of the records."""

    def show(self, text, *arguments):
        return run("apply", "-n", *arguments, stdin=text.encode())

    def test_is_shown_without_a_server(self):
        result = self.show(
            "dn: cn=a\nobjectClass: x\n\ndn: cn=b\nchangetype: modrdn\nnewrdn: cn=c\n"
            "deleteoldrdn: 1\n\ndn: cn=d\nchangetype: delete\n"
        )

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertEqual(
            result.lines, ["would add cn=a", "would rename cn=b to cn=c", "would delete cn=d"]
        )

    def test_is_shown_as_json(self):
        result = self.show("dn:: /w==\nchangetype: modify\nadd: a\na: b\n-\n", "--format", "json")

        self.assert_fails(result, 65, "standard input:1: ")
        result = self.show("dn: cn=a\nchangetype: modify\nadd: a\na: b\n-\n", "--format", "json")
        self.assertEqual(
            json.loads(result.output),
            {"dn": "cn=a", "change": "modify", "status": "parsed", "line": 1},
        )
        renaming = (
            "dn: cn=a\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: 1\nnewsuperior: cn=c\n"
        )
        record = json.loads(self.show(renaming, "--format", "json").output)
        self.assertEqual((record["newrdn"], record["newsuperior"]), ("cn=b", "cn=c"))

    def test_is_refused_with_its_line(self):
        for text, line, words in (
            ("dn: cn=a\nchangetype: modify\nadd: a\nb: c\n-\n", 4, ""),
            ("dn: cn=a\nchangetype: other\n", 2, "changetype"),
            ("\ndn: cn=a\njpegPhoto:< file:///etc/passwd\n", 3, "URL"),
            ("include: file:///etc/passwd\n", 1, "include"),
        ):
            with self.subTest(text=text):
                self.assert_fails(self.show(text), 65, f"standard input:{line}: ", words)

    def test_needs_a_usable_command_line(self):
        for arguments, words in (
            (["-n", "--pre-read", "x"], ["--pre-read"]),
            (["a", "-f", "b"], ["--file"]),
            (["-n", "--format", "ldif"], ["text or json"]),
            ([], ["no server given"]),
            (["-H", "ldap://h", "-D", "cn=a", "--password-fd", "0"], ["standard input"]),
        ):
            with self.subTest(arguments=arguments):
                self.assert_fails(run("apply", *arguments), 64, *words)

    def test_needs_a_file(self):
        missing = os.path.join(self.folder, "missing")

        self.assert_fails(run("apply", "-n", missing), 78, missing)


def offering(*controls, on_change=None, on_root=lambda: None):
    """A script: a directory with these controls, a small schema, and answers of `on_change`; calls
    `on_root` before it tells the controls."""

    def script(connection):
        while (request := connection.receive()) is not None:
            if request.operation == SEARCH and b"supportedControl" in request.content:
                on_root()
                connection.send(request.entry(b"", supportedControl=list(controls)))
            elif request.operation == SEARCH and b"subschemaSubentry" in request.content:
                connection.send(request.entry(b"", subschemaSubentry=[b"cn=schema"]))
            elif request.operation == SEARCH:
                connection.send(
                    request.entry(b"cn=schema", attributeTypes=[b"( 2.5.4.4 NAME 'sn' )"])
                )
            if request.operation == SEARCH:
                connection.send(request.result(SEARCH_DONE))
            elif request.operation in (ADD, MODIFY, DELETE):
                answer = on_change(request)
                if answer is None:
                    return
                connection.send(answer)

    return script


def shown(oid, *attributes):
    """A response control with an entry."""
    listed = [
        tlv(0x30, tlv(0x04, name), tlv(0x31, *[tlv(0x04, value) for value in values]))
        for name, values in attributes
    ]
    entry = tlv(0x64, tlv(0x04, b"cn=a"), tlv(0x30, *listed))
    return tlv(0x30, tlv(0x04, oid), tlv(0x04, entry))


class Responses(ToolTest):
    CHANGE = "dn: cn=a\nchangetype: modify\nreplace: sn\nsn: new\n-\n\n"

    def setUp(self):
        super().setUp()
        self.undo = os.path.join(self.folder, "undo")

    def ask(self, script, *arguments, text=CHANGE):
        directory = ScriptedDirectory(self, script)
        result = run(
            *["apply", "-H", directory.uri, "-o", "nettimeout=1", *arguments], stdin=text.encode()
        )
        directory.finish()
        self.directory = directory
        return result

    def undo_text(self):
        with open(self.undo, encoding="ascii") as opened:
            return opened.read()

    def test_of_a_server_without_pre_read_end_the_run_before_the_first_change(self):
        for controls in ([], [PRE_READ], [POST_READ]):
            with self.subTest(controls=controls):
                result = self.ask(offering(*controls), "--pre-read", self.undo)

                self.assert_fails(result, 69, "does not support the pre-read", "without --pre-read")
                self.assertEqual(self.directory.count(MODIFY), 0)
                self.assertFalse(os.path.exists(self.undo))

    def test_that_hide_an_attribute_leave_it_out_of_the_undo(self):
        """Else the undo would delete a value that may be written, but not read."""

        def on_change(request):
            controls = tlv(0xA0, shown(PRE_READ), shown(POST_READ))
            return request.answer(outcome(MODIFIED, 0), controls)

        result = self.ask(
            offering(PRE_READ, POST_READ, on_change=on_change), "--pre-read", self.undo
        )

        self.assertEqual((result.status, result.output), (77, "modified cn=a\n"))
        self.assertIn("cn=a: the change was made, but cannot be undone", result.error_lines[0])
        self.assertIn("sn", result.error_lines[0])
        self.assertNotIn("\ndn:", self.undo_text())

    def test_without_the_entry_say_that_the_change_cannot_be_undone(self):
        result = self.ask(
            offering(PRE_READ, POST_READ, on_change=lambda request: request.result(MODIFIED)),
            *["--pre-read", self.undo],
        )

        self.assertEqual((result.status, result.output), (77, "modified cn=a\n"))
        self.assertIn("does not show the entry", result.errors)
        self.assertIn("# Not undone", self.undo_text())

    def test_that_are_lost_leave_the_change_unknown(self):
        """Some changes are made, one is unknown, the others are not tried."""
        made = []

        def on_change(request):
            made.append(request)
            if len(made) == 2:
                return None
            return request.answer(
                outcome(MODIFIED, 0), tlv(0xA0, shown(PRE_READ, (b"sn", [b"old"])))
            )

        result = self.ask(
            offering(PRE_READ, POST_READ, on_change=on_change),
            "--pre-read",
            self.undo,
            text=self.CHANGE * 3,
        )

        self.assertEqual(result.status, 75)
        self.assertEqual(result.lines[0], "modified cn=a")
        self.assertRegex(result.lines[1], "^unknown cn=a: ")
        self.assertEqual(len(result.lines), 2)
        self.assertIn("check whether the change was made", result.error_lines[0])
        self.assertIn(
            "ended after the record at line 7: 1 applied, 0 refused, 1 unknown; no record after it",
            result.error_lines[1],
        )
        self.assertEqual(len(made), 2)
        self.assertIn("replace: sn\nsn: old\n-\n", self.undo_text())
        self.assertIn("unknown whether it was made: line 7, modify cn=a", self.undo_text())

    def test_that_hide_the_classes_of_a_deleted_entry_cannot_be_undone(self):
        def on_change(request):
            return request.answer(
                outcome(DELETED, 0), tlv(0xA0, shown(PRE_READ, (b"sn", [b"old"])))
            )

        result = self.ask(
            offering(PRE_READ, POST_READ, on_change=on_change),
            *["--pre-read", self.undo],
            text="dn: cn=a\nchangetype: delete\n",
        )

        self.assertEqual((result.status, result.output), (77, "deleted cn=a\n"))
        self.assertIn("objectClass", result.error_lines[0])
        self.assertNotIn("\ndn:", self.undo_text())

    def test_that_deny_to_act_as_a_user_are_permanent(self):
        for code in (47, 123):
            result = self.ask(offering(on_change=lambda request: request.result(MODIFIED, code)))

            self.assertEqual(result.status, 77, result.errors)
            self.assertIn("act as this user", result.errors)

    def test_that_come_after_a_signal_change_nothing(self):
        asked, interrupted = threading.Event(), threading.Event()

        def on_root():
            asked.set()
            interrupted.wait(DEADLINE)

        directory = ScriptedDirectory(
            self,
            offering(
                *[PRE_READ, POST_READ],
                on_change=lambda request: request.result(MODIFIED),
                on_root=on_root,
            ),
        )
        with subprocess.Popen(
            [TOOL, "apply", "-H", directory.uri, "--pre-read", self.undo],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        ) as apply:
            apply.stdin.write(self.CHANGE.encode())
            apply.stdin.flush()
            asked.wait(DEADLINE)
            apply.send_signal(signal.SIGTERM)
            interrupted.set()
            output, errors = apply.communicate(timeout=DEADLINE)
        directory.finish()

        self.assertEqual((apply.returncode, output), (-signal.SIGTERM, b""), errors)
        self.assertEqual(directory.count(MODIFY), 0)
        self.assertFalse(os.path.exists(self.undo))

    def test_that_do_not_come_leave_it_unknown(self):
        result = self.ask(offering(on_change=lambda request: b""))

        self.assertEqual(result.status, 75)
        self.assertRegex(result.output, "^unknown cn=a: no answer in time")

    def test_of_another_operation_leave_it_unknown(self):
        result = self.ask(offering(on_change=lambda request: request.result(DELETED)))

        self.assertEqual(result.status, 75)
        self.assertRegex(result.output, "^unknown cn=a: the server sent an invalid response")


class Killed(ToolTest):
    def test_server_does_not_hide_that_a_record_was_refused(self):
        slapd = Slapd(self.addCleanup, "--users", "1")
        with subprocess.Popen(
            [TOOL, "apply", "-c", "-H", slapd.uri, "--stats"],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            bufsize=0,  # communicate() skips what readline() has buffered
            stderr=subprocess.PIPE,
        ) as apply:
            record = f"dn: ou=x,{NEW}\nobjectClass: organizationalUnit\n\n".encode()
            apply.stdin.write(record)
            self.assertIn(b"refused 8 ", apply.stdout.readline())
            slapd.kill()
            output, errors = apply.communicate(record, timeout=DEADLINE)

        self.assertEqual((apply.returncode, output), (77, b""), errors)
        self.assertIn(b"cannot connect", errors)
        self.assertIn(b"0 applied, 1 refused, 0 unknown in", errors)

    def test_server_leaves_an_undo_of_what_was_changed(self):
        slapd = Slapd(self.addCleanup, "--users", "1")
        undo = os.path.join(self.folder, "undo")
        admin = ["-H", slapd.uri, "-D", ADMIN, "-y", self.file("password", b"secret")]
        unit = f"dn: ou=x,{NEW}\nobjectClass: organizationalUnit\n\n"
        apply = subprocess.Popen(
            [TOOL, "apply", *admin, "-o", "nettimeout=2", "--pre-read", undo],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        apply.stdin.write(unit.encode())
        apply.stdin.flush()
        self.assertIn(b"added", apply.stdout.readline())
        slapd.kill()
        output, errors = apply.communicate(
            f"dn: ou=x,{NEW}\nchangetype: delete\n\n".encode(), DEADLINE
        )

        self.assertEqual((apply.returncode, output), (75, b""), errors)
        self.assertIn(b"after the record at line 1: 1 applied, 0 refused, 0 unknown", errors)
        slapd.start()
        back = run("apply", "-H", slapd.uri, *admin[2:], undo)
        self.assertEqual((back.status, back.output), (0, f"deleted ou=x,{NEW}\n"), back.errors)


if __name__ == "__main__":
    unittest.main()
