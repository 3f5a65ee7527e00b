"""Real mail servers ask the service. Postfix: recipients, mail to a sink over LMTP, logins. Exim and
Sendmail: keys."""

import collections
import glob
import os
import pwd
import random
import shutil
import smtplib
import socketserver
import subprocess
import threading
import time
import unittest

from ldapd import GROUPS, Service, add_entries, group
from servers import Slapd, eventually
from support import DEADLINE, TESTBED, ToolTest, free_port

# Besides what the test bed sets.
MAIN = """
smtpd_error_sleep_time = 0
smtpd_soft_error_limit = 1000000
smtpd_hard_error_limit = 1000000
smtpd_junk_command_limit = 1000000
smtpd_client_connection_count_limit = 0
default_process_limit = 300
virtual_alias_maps = socketmap:unix:{socketmap}:aliases
virtual_alias_domains =
minimal_backoff_time = 2s
maximal_backoff_time = 2s
queue_run_delay = 2s
"""

USERS = "query_filter = (mail=$m)\nresult_attribute = uid\n"
TOO_MANY = 452  # recipients of one message
KNOWN = "user0000001@corp.test"


class Postfix:
    """A Postfix of the test's own, on loopback."""

    def __init__(self, test, service):
        self.folder = os.path.join(test.folder, "postfix")
        os.chmod(test.folder, 0o755)  # Postfix's programs have users of their own
        main = test.file("main.cf", MAIN.format(socketmap=service.users_path).encode())
        test.addCleanup(self._run, "stop", self.folder)
        sockets = ["--lookups", service.users_path, "--logins", service.auth_path]
        self._run("postfix-start", self.folder, *sockets, "--main", main)
        with open(os.path.join(self.folder, "server.env"), encoding="utf-8") as settings:
            self.port = int(settings.read().partition("SMTP_PORT=")[2])

    @staticmethod
    def _run(script, *arguments):
        done = subprocess.run(
            [os.path.join(TESTBED, script), *arguments],
            timeout=2 * DEADLINE,
            check=False,
            capture_output=True,
        )
        if done.returncode != 0:
            raise AssertionError(done.stderr.decode())

    def log(self):
        with open(os.path.join(self.folder, "log"), encoding="utf-8", errors="replace") as file:
            return file.read()

    def query(self, key, table):
        """What `postmap -q` prints, and its exit status."""
        done = subprocess.run(
            ["postmap", "-c", os.path.join(self.folder, "etc"), "-q", key, table],
            timeout=DEADLINE,
            check=False,
            capture_output=True,
            text=True,
        )
        return done.stdout, done.returncode

    def session(self, timeout=DEADLINE):
        session = smtplib.SMTP("127.0.0.1", self.port, timeout=timeout)
        session.ehlo()
        return session

    def recipient(self, address):
        """The code and the text of RCPT."""
        with self.session() as session:
            session.mail("sender@example.test")
            code, text = session.rcpt(address)
            return code, text.decode()

    def login(self, user, password, mechanism="PLAIN"):
        """The code of AUTH."""
        with self.session() as session:
            session.user, session.password = user, password
            ask = session.auth_plain if mechanism == "PLAIN" else session.auth_login
            try:
                return session.auth(mechanism, ask)[0]
            except smtplib.SMTPAuthenticationError as refused:
                return refused.smtp_code


class LmtpHandler(socketserver.StreamRequestHandler):
    """Takes all mail, as Dovecot would."""

    def handle(self):
        self.wfile.write(b"220 sink\r\n")
        recipients = []
        while line := self.rfile.readline():
            verb = line[:4].upper()
            if verb == b"RCPT":
                recipients.append(line[line.index(b"<") + 1 : line.index(b">")].decode())
            if verb == b"DATA":
                self.wfile.write(b"354 go on\r\n")
                while self.rfile.readline() not in (b".\r\n", b""):
                    pass
                self.wfile.write(b"250 ok\r\n" * len(recipients))
                self.server.delivered += recipients
                recipients = []
                continue
            self.wfile.write(b"221 bye\r\n" if verb == b"QUIT" else b"250 ok\r\n")


class LmtpSink(socketserver.ThreadingUnixStreamServer):
    """Mailboxes that keep the names of their messages' recipients."""

    def __init__(self, test, path):
        self.delivered = []
        super().__init__(path, LmtpHandler)
        os.chmod(path, 0o666)
        thread = threading.Thread(target=self.serve_forever)
        thread.start()
        test.addCleanup(thread.join)
        test.addCleanup(self.server_close)
        test.addCleanup(self.shutdown)


def connections_to(ports, process):
    """The connections to these ports that a process has, or is opening."""
    folder = f"/proc/{process}/fd"
    sockets = set()
    for name in os.listdir(folder):
        try:
            sockets.add(os.readlink(os.path.join(folder, name)))
        except FileNotFoundError:
            pass  # closed meanwhile
    with open("/proc/net/tcp", encoding="ascii") as table:
        rows = [row.split() for row in list(table)[1:]]
    return {
        row[9]
        for row in rows
        if int(row[2].split(":")[1], 16) in ports and f"socket:[{row[9]}]" in sockets
    }


needs_postfix = unittest.skipIf(
    os.getuid() != 0 or (shutil.which("postfix") is None and not os.environ.get("CI")),
    "needs Postfix, and root to start it",
)


@needs_postfix
class WithPostfix(ToolTest):
    def setUp(self):
        super().setUp()
        self.slapd = Slapd(self.addCleanup, "--users", "20")
        self.service = Service(
            self,
            self.slapd.uri,
            "socket_mode = 0666\nauth_needs_tls = no\n",
            maps={"users": USERS, "aliases": GROUPS},
            deadline="3",
        )
        self.postfix = Postfix(self, self.service)

    def table(self, name):
        return f"socketmap:unix:{self.service.users_path}:{name}"

    def test_postmap_finds_values(self):
        self.assertEqual(self.postfix.query(KNOWN, self.table("users")), ("user0000001\n", 0))
        self.assertEqual(self.postfix.query("nobody@corp.test", self.table("users")), ("", 1))

    def test_recipients_are_deferred_while_the_directory_is_down(self):
        self.assertEqual(self.postfix.recipient(KNOWN)[0], 250)
        code, text = self.postfix.recipient("nobody@corp.test")
        self.assertEqual(code, 550, text)
        self.assertIn("User unknown in virtual mailbox table", text)

        self.slapd.stop()
        for address in (KNOWN, "nobody@corp.test", "first@corp.test"):
            self.assertEqual(self.postfix.recipient(address)[0], 451)
        self.assertTrue(eventually(lambda: self.slapd.uri in self.postfix.log()))
        self.slapd.start()

        self.assertTrue(eventually(lambda: self.postfix.recipient(KNOWN)[0] == 250))
        # Postfix remembers a failed question for a domain: virtual_alias_domains is empty, so that
        # it asks none.
        for address in ("nobody@corp.test", "first@corp.test"):
            code, text = self.postfix.recipient(address)
            self.assertEqual(code, 550, (text, self.postfix.log(), self.service.lines))

    def test_logins_are_temporary_failures_while_the_directory_is_down(self):
        for mechanism in ("PLAIN", "LOGIN"):
            self.assertEqual(self.postfix.login(KNOWN, "pw-user0000001", mechanism), 235)
            self.assertEqual(self.postfix.login(KNOWN, "wrong", mechanism), 535)

        self.slapd.stop()
        for mechanism in ("PLAIN", "LOGIN"):
            self.assertEqual(self.postfix.login(KNOWN, "pw-user0000001", mechanism), 454)
        self.slapd.start()

        self.assertTrue(eventually(lambda: self.postfix.login(KNOWN, "pw-user0000001") == 235))

    def test_mail_is_delivered_once(self):
        sink = LmtpSink(self, os.path.join(self.postfix.folder, "lmtp"))
        with self.postfix.session() as session:
            session.sendmail(
                "sender@example.test",
                [KNOWN, "user0000002@corp.test"],
                "Subject: test\r\n\r\nHello\r\n",
            )

        self.assertTrue(eventually(lambda: len(sink.delivered) >= 2), self.postfix.log())
        self.assertTrue(eventually(lambda: "removed" in self.postfix.log()))
        self.assertEqual(sorted(sink.delivered), [KNOWN, "user0000002@corp.test"])

    def test_a_message_to_a_list_is_delivered_to_each_member_once(self):
        """The list has a list in it that has it again, and a member twice."""
        add_entries(self.slapd.uri, group("all", 1, "inner", 2) + group("inner", 3, 1, "all", 4, 5))
        sink = LmtpSink(self, os.path.join(self.postfix.folder, "lmtp"))
        with self.postfix.session() as session:
            session.sendmail(
                "sender@example.test", ["all@corp.test"], "Subject: test\r\n\r\nHi\r\n"
            )

        self.assertTrue(eventually(lambda: len(sink.delivered) >= 5), self.postfix.log())
        self.assertTrue(eventually(lambda: "removed" in self.postfix.log()))
        self.assertEqual(
            sorted(sink.delivered), [f"user{number:07d}@corp.test" for number in range(1, 6)]
        )

    def test_a_reload_in_the_middle_of_sessions_fails_nobody(self):
        codes = []

        def ask():
            for number in range(1, 11):
                codes.append(self.postfix.recipient(f"user{number:07d}@corp.test")[0])

        threads = [threading.Thread(target=ask) for _ in range(5)]
        for thread in threads:
            thread.start()
        for _ in range(3):
            self.service.reload()
        for thread in threads:
            thread.join()

        self.assertEqual(set(codes), {250})


class Sessions:
    """SMTP sessions that ask for recipients at once, until they are told to end."""

    def __init__(self, postfix, count, users):
        self.codes = collections.Counter()  # of pairs: whether the recipient exists, and the code
        self.failures = []  # that ended a session
        self.is_over = threading.Event()
        self._postfix = postfix
        self._users = users
        self._lock = threading.Lock()
        self.busy = 0  # sessions that have had an answer
        self._threads = [threading.Thread(target=self._run, args=(i,)) for i in range(count)]
        for thread in self._threads:
            thread.start()

    def end(self):
        self.is_over.set()
        for thread in self._threads:
            thread.join()

    def _run(self, number):
        choice = random.Random(number)
        try:
            with self._postfix.session(timeout=5 * DEADLINE) as session:
                session.mail("sender@example.test")
                is_first = True
                while not self.is_over.is_set():
                    exists = choice.random() < 0.7
                    name = "user" if exists else "nobody"
                    address = f"{name}{choice.randint(1, self._users):07d}@corp.test"
                    code = session.rcpt(address)[0]
                    with self._lock:
                        self.codes[exists, code] += 1
                        self.busy += is_first
                        is_first = False
                    if code == TOO_MANY:
                        session.rset()
                        session.mail("sender@example.test")
        except (OSError, smtplib.SMTPException) as failure:
            self.failures.append(repr(failure))


@needs_postfix
class Storm(ToolTest):
    """SOLVANE_POSTFIX_SECONDS says for how long; 10 by default."""

    SECONDS = float(os.environ.get("SOLVANE_POSTFIX_SECONDS", "10"))
    SESSIONS = 200
    CONNECTIONS = 4
    USERS = 50

    def setUp(self):
        super().setUp()
        self.servers = [Slapd(self.addCleanup, "--users", str(self.USERS)) for _ in range(2)]
        self.service = Service(
            self,
            " ".join(server.uri for server in self.servers),
            "socket_mode = 0666\n",
            maps={"users": USERS, "aliases": GROUPS},
            connections=str(self.CONNECTIONS),
            timeout="2",
            deadline="5",
        )
        self.postfix = Postfix(self, self.service)
        self.most_connections = 0

    def watch(self, is_over):
        ports = {int(server.uri.rpartition(":")[2]) for server in self.servers}
        before = set()
        while not is_over.wait(0.02):
            # A look takes time, in which one is closed and another one is opened.
            now = connections_to(ports, self.service.process.pid)
            self.most_connections = max(self.most_connections, len(now & before))
            before = now

    def disturb(self, choice, until):
        """Kills and pauses servers, also both at once, and reloads in between."""
        while time.monotonic() < until:
            victims = choice.sample(self.servers, choice.choice((1, 1, 2)))
            is_kill = choice.random() < 0.5
            for victim in victims:
                if is_kill:
                    victim.kill()
                else:
                    victim.pause()
            time.sleep(choice.uniform(0.1, 4))
            self.service.reload()
            for victim in victims:
                if is_kill:
                    victim.start()
                else:
                    victim.resume()
            time.sleep(choice.uniform(0.1, 2))

    def test_gives_no_wrong_code(self):
        sessions = Sessions(self.postfix, self.SESSIONS, self.USERS)
        self.addCleanup(sessions.end)
        watcher = threading.Thread(target=self.watch, args=(sessions.is_over,))
        watcher.start()
        is_busy = any(eventually(lambda: sessions.busy == self.SESSIONS) for _ in range(5))
        self.assertTrue(is_busy, (sessions.codes, sessions.failures))

        self.disturb(random.Random(1), time.monotonic() + self.SECONDS)

        before = sessions.codes.copy()
        for expected in ((True, 250), (False, 550)):  # with the servers up again
            self.assertTrue(eventually(lambda e=expected: sessions.codes[e] > before[e] + 10))
        sessions.end()
        watcher.join()
        print(self.SECONDS, "s:", dict(sessions.codes), "connections:", self.most_connections)
        allowed = {(True, 250), (False, 550)}
        allowed |= {(exists, code) for exists in (True, False) for code in (451, TOO_MANY)}
        self.assertEqual(sessions.failures, [])
        self.assertLessEqual(set(sessions.codes), allowed, sessions.codes)
        self.assertGreater(sessions.codes[True, 451], 0)
        self.assertTrue(1 <= self.most_connections <= self.CONNECTIONS, self.most_connections)
        self.service.await_line("serves again")


# Exim and Sendmail need not be installed: Debian's packages, unpacked here, are enough.
PROGRAMS = os.environ.get("SOLVANE_PROGRAMS", "")

SENDMAIL_HOSTS = "127.0.0.1 mx.corp.test localhost\n"

SENDMAIL_CF = """V10
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
        settings = self.file("sendmail.cf", SENDMAIL_CF.format(port=self.port).encode(), 0o644)

        def ask(key):
            return self.run_among(
                {"/etc/hosts": SENDMAIL_HOSTS},
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
