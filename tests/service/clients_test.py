"""Clients that are hostile, broken or idle, and logins."""

import resource
import select
import unittest

from ldapd import Client, Service, netstring
from servers import SEARCH, SEARCH_DONE, ScriptedDirectory, eventually, serving, silent
from support import DirectoryTest, free_port


class HostileClients(DirectoryTest):
    slapd_options = ["--users", "20"]

    def serves(self, service):
        return service.ask("users", "user0000001@corp.test") == "OK user0000001"

    def test_are_closed_for_garbage(self):
        service = Service(self, self.uri)

        with service.client() as client:
            client.send(b"GET / HTTP/1.1\r\n\r\n")

            self.assertTrue(client.is_closed())
        self.assertTrue(self.serves(service))
        self.assertEqual(service.stats()["solvane_ldapd_protocol_errors_total"], 1)

    def test_are_logged_once_a_minute(self):
        service = Service(self, self.uri)

        for _ in range(50):
            with service.client() as client:
                client.send(b"x")
                self.assertTrue(client.is_closed())

        self.assertEqual(service.stats()["solvane_ldapd_protocol_errors_total"], 50)
        service.await_line("closed a client: it sent a malformed netstring")
        service.stop()
        self.assertLess(service.count("closed a client"), 5)

    def test_leave_descriptors_for_lookups(self):
        service = Service(self, self.uri, is_started=False)
        limit = resource.getrlimit(resource.RLIMIT_NOFILE)
        service.start(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (100, 100)))
        self.assertEqual(resource.getrlimit(resource.RLIMIT_NOFILE), limit)
        service.await_line("the limit of open files (100) allows")
        clients = [service.client() for _ in range(100)]

        clients[0].send(netstring("users user0000001@corp.test"))

        self.assertEqual(clients[0].read_netstring(), "OK user0000001")
        service.reload()
        self.assertEqual(service.stats()["solvane_ldapd_reloads_total"], 1)

    def test_are_closed_for_a_request_that_is_too_long(self):
        service = Service(self, self.uri)

        with service.client() as client:
            client.send(b"16385:")

            self.assertTrue(client.is_closed())

    def test_are_closed_when_idle_even_if_they_send_bytes(self):
        service = Service(self, self.uri, "idle_time = 1\n")

        with service.client() as client:
            client.send(b"9000:")
            while not select.select([client.socket], [], [], 0.1)[0]:
                client.send(b"x")

            self.assertTrue(client.is_closed())

    def test_are_turned_away_if_there_are_too_many(self):
        service = Service(self, self.uri, "clients = 3\n")
        clients = [service.client() for _ in range(3)]
        for client in clients:
            client.ask("users", "nobody@corp.test")

        with service.client() as fourth:
            self.assertTrue(fourth.is_closed())

        self.assertEqual(service.stats()["solvane_ldapd_clients_turned_away_total"], 1)
        clients[0].socket.close()
        self.assertTrue(eventually(lambda: service.stats()["solvane_ldapd_clients"] == 3))
        self.assertTrue(self.serves(service))

    def test_wait_if_they_do_not_read_their_replies(self):
        service = Service(self, self.uri, "idle_time = 2\n")
        with service.client() as client:
            client.socket.settimeout(1)
            with self.assertRaises((TimeoutError, ConnectionError)):
                while True:
                    client.send(netstring("users user0000001@corp.test") * 1000)

            self.assertTrue(self.serves(service))

    def test_wait_while_long_replies_wait_for_an_earlier_one(self):
        release = []

        def answer(request):
            if b"slow" in request.content:
                eventually(lambda: release)
            return request.entry(uid=[b"x" * 60000]) + request.result(SEARCH_DONE)

        directory = ScriptedDirectory(self, serving(answer))
        service = Service(self, directory.uri, connections="2", window="1", bind="no")
        with service.client() as client:
            client.send(netstring("users slow"))
            self.assertTrue(eventually(lambda: directory.count(SEARCH) == 1))
            for count in (2, 3):
                client.send(netstring(f"users {count}"))
                self.assertTrue(eventually(lambda c=count: directory.count(SEARCH) == c))
                found = 'solvane_ldapd_requests_total{map="users",outcome="found"}'
                self.assertTrue(eventually(lambda c=count: service.stats()[found] == c - 1))

            client.send(netstring("users later"))
            service.ask("users", "another")  # asked for later, and answered

            self.assertEqual(directory.count(SEARCH), 4)
            release.append(True)
            for _ in range(4):
                self.assertEqual(len(client.read_netstring()), len("OK ") + 60000)

    def test_count_until_their_requests_are_answered(self):
        directory = ScriptedDirectory(self, silent)
        service = Service(
            self, directory.uri, "clients = 5\nclient_requests = 2\n", bind="no", deadline="60"
        )
        for _ in range(5):
            client = service.client()
            client.send(netstring("users a@corp.test") + netstring("users b@corp.test"))
            client.socket.close()
        accepted = "solvane_ldapd_clients_accepted_total"
        self.assertTrue(eventually(lambda: service.stats()[accepted] >= 6))

        with service.client() as client:
            self.assertTrue(client.is_closed())

    def test_cost_no_descriptors(self):
        service = Service(self, self.uri)
        self.serves(service)
        self.assertTrue(eventually(lambda: service.stats()["solvane_ldapd_clients"] == 1))
        before = service.descriptors()
        for content in (b"", b"1", b"5:abc", b"x", netstring("users nobody@corp.test") * 40):
            for _ in range(20):
                with Client(service.users_path) as client:
                    client.send(content)

        self.assertTrue(eventually(lambda: service.stats()["solvane_ldapd_clients"] == 1))
        self.assertTrue(eventually(lambda: service.descriptors() <= before))


class Logins(DirectoryTest):
    slapd_options = ["--users", "20"]

    def test_are_accepted_or_denied(self):
        client = Service(self, self.uri).auth_client()

        self.assertIn("MECH\tPLAIN\tplaintext\nMECH\tLOGIN\tplaintext\n", client.greeting)
        self.assertEqual(
            client.plain("user0000001@corp.test", "pw-user0000001"),
            "OK\t1\tuser=user0000001@corp.test",
        )
        self.assertEqual(
            client.plain("user0000001@corp.test", "wrong"), "FAIL\t1\tuser=user0000001@corp.test"
        )
        self.assertEqual(
            client.plain("nobody@corp.test", "wrong"), "FAIL\t1\tuser=nobody@corp.test"
        )

    def test_are_refused_without_tls(self):
        client = Service(self, self.uri).auth_client()

        self.assertEqual(
            client.plain("user0000001@corp.test", "pw-user0000001", parameters="nologin"),
            "FAIL\t1\treason=passwords are refused without TLS",
        )

    def test_close_the_connection_while_the_directory_is_down(self):
        client = Service(self, f"ldap://127.0.0.1:{free_port()}").auth_client()

        with self.assertRaises(EOFError):
            client.plain("user0000001@corp.test", "pw-user0000001")

    def test_say_that_it_is_temporary_if_told_so(self):
        client = Service(
            self, f"ldap://127.0.0.1:{free_port()}", "auth_trouble = fail\n"
        ).auth_client()

        self.assertEqual(client.plain("anna", "secret"), "FAIL\t1\tuser=anna\ttemp\tcode=temp_fail")

    def test_are_limited(self):
        service = Service(self, self.uri, "auth_failures = 2\nauth_trouble = fail\n")
        client = service.auth_client()
        for _ in range(2):
            client.plain("user0000001@corp.test", "wrong")

        reply = client.plain("user0000001@corp.test", "pw-user0000001")

        self.assertIn("temp_fail", reply)
        stats = service.stats()
        self.assertEqual(stats["solvane_ldapd_logins_limited_total"], 1)
        self.assertEqual(stats['solvane_ldapd_logins_total{outcome="denied"}'], 2)

    def test_are_limited_however_many_arrive_at_the_same_time(self):
        def deny(request):
            return request.result(0x61, 0 if b"cn=reader" in request.content else 49)

        directory = ScriptedDirectory(
            self, serving(lambda request: request.entry() + request.result(0x65), on_bind=deny)
        )
        service = Service(
            self,
            directory.uri,
            "auth_failures = 3\nauth_trouble = fail\nthreads = 2\n",
            verify_connections="8",
        )
        clients = [service.auth_client() for _ in range(60)]
        for number, client in enumerate(clients):
            client.begin(f"anna+{number}@corp.test", "wrong")

        replies = [client.line() for client in clients]

        self.assertEqual(sum("temp_fail" not in reply for reply in replies), 3, replies)
        self.assertEqual(service.stats()["solvane_ldapd_logins_limited_total"], 57)

    def test_count_until_they_are_answered_even_if_they_are_cancelled(self):
        directory = ScriptedDirectory(self, silent)
        service = Service(self, directory.uri, "client_requests = 2\n", bind="no", deadline="60")
        client = service.auth_client()
        for number in range(1, 3):
            client.begin("anna", "wrong", number)
            client.send(f"AUTH\t9{number}\tNONE\n".encode())
            self.assertIn("unsupported", client.line())  # so the login is being verified
            client.send(f"CANCEL\t{number}\n".encode())

        client.socket.settimeout(1)
        with self.assertRaises(TimeoutError):  # it is not read any more
            for _ in range(100):
                client.send(b"NEWS\n" * 100000)

    def test_do_not_fail_after_dialogues_that_were_abandoned(self):
        client = Service(self, self.uri).auth_client()
        for number in range(1, 40):
            client.send(f"AUTH\t{number}\tLOGIN\tsecured\n".encode())
            self.assertEqual(client.line(), f"CONT\t{number}\tVXNlcm5hbWU6")

        self.assertIn("OK\t40\t", client.plain("user0000001@corp.test", "pw-user0000001", 40))

    def test_are_taken_from_a_mail_server_that_was_idle(self):
        service = Service(self, self.uri, "idle_time = 2\n")
        client = service.auth_client()
        client.plain("nobody@corp.test", "wrong")
        other = Client(service.auth_path)  # does not greet
        self.assertTrue(other.is_closed())
        other.socket.close()
        late = Client(service.auth_path)
        self.assertTrue(late.is_closed())
        late.socket.close()

        self.assertIn("OK\t", client.plain("user0000001@corp.test", "pw-user0000001"))

    def test_have_connections_of_their_own(self):
        service = Service(self, self.uri, verify_connections="1")
        client = service.auth_client()
        client.plain("user0000001@corp.test", "pw-user0000001")

        opened = "solvane_ldapd_connections_opened_total"
        labels = f'{{pool="users (logins)",server="{self.uri}"}}'
        self.assertEqual(service.stats()[opened + labels], 1)

    def test_leave_no_password_in_the_log(self):
        service = Service(self, self.uri, "log_requests = yes\n")
        client = service.auth_client()

        client.plain("user0000001@corp.test", "pw-user0000001")
        client.plain("user0000001@corp.test", "wrong-password")

        service.await_line("login of user0000001@corp.test from 192.0.2.1: denied")
        service.stop()
        for secret in ("pw-user0000001", "wrong-password"):
            self.assertNotIn(secret, "\n".join(service.lines))


if __name__ == "__main__":
    unittest.main()
