"""A real Postfix asks the service: recipients, mail to a sink over LMTP, logins."""

import os
import shutil
import smtplib
import socketserver
import subprocess
import threading
import unittest

from ldapd import Service
from servers import Slapd, eventually
from support import DEADLINE, ToolTest, free_port

MASTER = """
127.0.0.1:{port} inet n - n - - smtpd
pickup unix n - n 60 1 pickup
cleanup unix n - n - 0 cleanup
qmgr unix n - n 300 1 qmgr
rewrite unix - - n - - trivial-rewrite
bounce unix - - n - 0 bounce
defer unix - - n - 0 bounce
trace unix - - n - 0 bounce
verify unix - - n - 1 verify
flush unix n - n 1000? 0 flush
proxymap unix - - n - - proxymap
anvil unix - - n - 1 anvil
error unix - - n - - error
retry unix - - n - - error
lmtp unix - - n - - lmtp
postlog unix-dgram n - n - 1 postlogd
"""

MAIN = """
compatibility_level = 3.6
queue_directory = {folder}/spool
data_directory = {folder}/data
meta_directory = {folder}/etc
mail_owner = postfix
setgid_group = postdrop
myhostname = mx.corp.test
mydestination =
inet_interfaces = loopback-only
inet_protocols = ipv4
disable_dns_lookups = yes
smtpd_peername_lookup = no
smtpd_error_sleep_time = 0
smtpd_soft_error_limit = 1000
smtpd_hard_error_limit = 1000
smtpd_junk_command_limit = 1000
maillog_file = {folder}/log
maillog_file_prefixes = {folder}
virtual_mailbox_domains = corp.test
virtual_mailbox_maps = socketmap:unix:{socketmap}:users
virtual_alias_maps = socketmap:unix:{socketmap}:aliases
virtual_alias_domains =
virtual_transport = lmtp:unix:{folder}/lmtp
smtpd_sasl_auth_enable = yes
smtpd_sasl_type = dovecot
smtpd_sasl_path = {auth}
minimal_backoff_time = 2s
maximal_backoff_time = 2s
queue_run_delay = 2s
"""

USERS = "query_filter = (mail=$m)\nresult_attribute = uid\n"
ALIASES = "query_filter = (&(cn=$u)(objectClass=person))\nresult_attribute = mail\n"
KNOWN = "user0000001@corp.test"


class Postfix:
    """A Postfix of the test's own, on loopback."""

    def __init__(self, test, service):
        self.folder = os.path.join(test.folder, "postfix")
        etc = os.path.join(self.folder, "etc")
        for name in ("etc", "spool", "data"):
            os.makedirs(os.path.join(self.folder, name))
        for folder in (test.folder, self.folder):
            os.chmod(folder, 0o755)
        shutil.chown(os.path.join(self.folder, "data"), "postfix")
        for name in ("dynamicmaps.cf", "postfix-files"):
            shutil.copy(os.path.join("/etc/postfix", name), etc)
        for name in ("dynamicmaps.cf.d", "postfix-files.d"):
            if os.path.isdir(os.path.join("/etc/postfix", name)):
                shutil.copytree(os.path.join("/etc/postfix", name), os.path.join(etc, name))
        self.port = free_port()
        values = {
            "folder": self.folder,
            "port": self.port,
            "socketmap": service.users_path,
            "auth": service.auth_path,
        }
        for name, text in (("main.cf", MAIN), ("master.cf", MASTER)):
            with open(os.path.join(etc, name), "w", encoding="utf-8") as file:
                file.write(text.format(**values))
        self._etc = etc
        self._run("postfix", "-c", etc, "start")
        test.addCleanup(self._run, "postfix", "-c", etc, "stop")
        if not eventually(self._answers):
            raise AssertionError(self.log())

    @staticmethod
    def _run(*arguments):
        done = subprocess.run(arguments, timeout=DEADLINE, check=False, capture_output=True)
        if done.returncode != 0:
            raise AssertionError(done.stderr.decode())

    def _answers(self):
        try:
            with smtplib.SMTP("127.0.0.1", self.port, timeout=DEADLINE):
                return True
        except OSError:
            return False

    def log(self):
        with open(os.path.join(self.folder, "log"), encoding="utf-8", errors="replace") as file:
            return file.read()

    def query(self, key, table):
        """What `postmap -q` prints, and its exit status."""
        done = subprocess.run(
            ["postmap", "-c", self._etc, "-q", key, table],
            timeout=DEADLINE,
            check=False,
            capture_output=True,
            text=True,
        )
        return done.stdout, done.returncode

    def session(self):
        session = smtplib.SMTP("127.0.0.1", self.port, timeout=DEADLINE)
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


@unittest.skipIf(
    os.getuid() != 0 or (shutil.which("postfix") is None and not os.environ.get("CI")),
    "needs Postfix, and root to start it",
)
class WithPostfix(ToolTest):
    def setUp(self):
        super().setUp()
        self.slapd = Slapd(self.addCleanup, "--users", "20")
        self.service = Service(
            self,
            self.slapd.uri,
            "socket_mode = 0666\nauth_needs_tls = no\n",
            maps={"users": USERS, "aliases": ALIASES},
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
        self.assertIn(self.slapd.uri, self.postfix.log())
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
        self.assertEqual(sorted(sink.delivered), [KNOWN, "user0000002@corp.test"])

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


if __name__ == "__main__":
    unittest.main()
