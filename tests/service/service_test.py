"""The service as mail servers see it, with real and scripted directories."""

import os
import resource
import signal
import socket
import time
import unittest

from ldapd import GROUPS, AuthClient, Client, Service, add_entries, group, netstring
from servers import (
    SEARCH,
    ScriptedDirectory,
    Slapd,
    eventually,
    serving,
    silent,
)
from support import PRIVATE, DirectoryTest, ToolTest, free_port

CONFIGURATION = 78  # the exit status for wrong settings

ALIASES = """
query_filter = (cn=$m)
search_base = ou=people,dc=corp,dc=test
result_attribute = mail
"""


class Lookups(DirectoryTest):
    slapd_options = ["--users", "200"]

    def test_answers_with_values(self):
        service = Service(self, self.uri)

        with service.client() as client:
            self.assertEqual(client.ask("users", "user0000001@corp.test"), "OK user0000001")
            self.assertEqual(client.ask("users", "nobody@corp.test"), "NOTFOUND ")
            self.assertEqual(client.ask("users", "user0000002@corp.test"), "OK user0000002")

    def test_joins_values_by_commas(self):
        users = "query_filter = (mail=$m)\nresult_attribute = uid, mail\n"
        service = Service(self, self.uri, maps={"users": users})

        self.assertEqual(
            service.ask("users", "user0000010@corp.test"),
            "OK user0000010,user0000010@corp.test,ukasz.10@alias.corp.test",
        )

    def test_finds_nothing_without_a_value(self):
        users = "query_filter = (mail=$m)\nresult_attribute = jpegPhoto, telephoneNumber\n"
        service = Service(self, self.uri, maps={"users": users})

        self.assertEqual(service.ask("users", "user0000001@corp.test"), "NOTFOUND ")
        self.assertEqual(service.stats()['solvane_ldapd_found_without_value_total{map="users"}'], 1)

    def test_defers_mail_for_an_attribute_that_the_server_names_otherwise(self):
        users = "query_filter = (mail=$m)\nresult_attribute = userid\n"
        service = Service(self, self.uri, maps={"users": users})

        self.assertRegex(service.ask("users", "user0000001@corp.test"), "^TEMP .* but of 'uid': ")

    def test_asks_no_server_for_other_domains(self):
        users = "query_filter = (mail=$m)\nresult_attribute = uid\ndomain = corp.test\n"
        service = Service(self, f"ldap://127.0.0.1:{free_port()}", maps={"users": users})

        self.assertEqual(service.ask("users", "anna@elsewhere.test"), "NOTFOUND ")
        self.assertEqual(service.ask("users", "anna"), "NOTFOUND ")
        self.assertTrue(service.ask("users", "anna@corp.test").startswith("TEMP "))

    def test_says_which_map_is_missing(self):
        service = Service(self, self.uri)

        self.assertEqual(service.ask("alias", "a@corp.test"), "TEMP there is no map 'alias'")
        self.assertEqual(service.stats()["solvane_ldapd_unknown_map_total"], 1)

    def test_answers_requests_that_arrive_together_in_their_order(self):
        service = Service(self, self.uri)

        with service.client() as client:
            numbers = range(1, 151)
            for number in numbers:
                client.send(netstring(f"users user{number:07d}@corp.test"))

            for number in numbers:
                self.assertEqual(client.read_netstring(), f"OK user{number:07d}")

    def test_answers_requests_in_pieces(self):
        service = Service(self, self.uri)

        with service.client() as client:
            for byte in netstring("users user0000001@corp.test"):
                client.send(bytes([byte]))

            self.assertEqual(client.read_netstring(), "OK user0000001")

    def test_answers_a_client_that_ends_its_side(self):
        service = Service(self, self.uri)

        with service.client() as client:
            client.send(netstring("users user0000001@corp.test"))
            client.socket.shutdown(socket.SHUT_WR)

            self.assertEqual(client.read_netstring(), "OK user0000001")
            self.assertTrue(client.is_closed())

    def test_maps_with_the_same_servers_share_connections(self):
        users = "query_filter = (mail=$m)\nresult_attribute = uid\n"
        service = Service(self, self.uri, maps={"aliases": ALIASES, "users": users})

        service.ask("users", "user0000001@corp.test")
        service.ask("aliases", "nobody")

        stats = service.stats()
        labels = f'{{pool="aliases",server="{self.uri}"}}'
        self.assertEqual(stats[f"solvane_ldapd_connections_opened_total{labels}"], 1)
        self.assertEqual(stats[f"solvane_ldapd_searches_answered_total{labels}"], 2)

    def test_serves_many_clients_in_several_threads(self):
        service = Service(self, self.uri, "threads = 3\n", connections="2")
        clients = [service.client() for _ in range(100)]

        for number, client in enumerate(clients, 1):
            client.send(netstring(f"users user{number:07d}@corp.test"))

        for number, client in enumerate(clients, 1):
            self.assertEqual(client.read_netstring(), f"OK user{number:07d}")
        stats = service.stats()
        labels = f'{{pool="users",server="{self.uri}"}}'
        in_use = stats[f"solvane_ldapd_connections_in_use{labels}"]
        self.assertLessEqual(in_use + stats[f"solvane_ldapd_connections_idle{labels}"], 2)
        self.assertEqual(stats["solvane_ldapd_clients"], 101)

    def test_counts_requests(self):
        service = Service(self, self.uri)
        service.ask("users", "user0000001@corp.test")
        service.ask("users", "nobody@corp.test")

        stats = service.stats()

        requests = "solvane_ldapd_requests_total"
        self.assertEqual(stats[f'{requests}{{map="users",outcome="found"}}'], 1)
        self.assertEqual(stats[f'{requests}{{map="users",outcome="not found"}}'], 1)
        self.assertEqual(stats['solvane_ldapd_request_seconds_count{map="users"}'], 2)
        self.assertEqual(stats['solvane_ldapd_request_seconds_bucket{map="users",le="+Inf"}'], 2)
        self.assertGreater(stats['solvane_ldapd_request_seconds_sum{map="users"}'], 0)

    def test_writes_metrics_into_a_file(self):
        path = os.path.join(self.folder, "metrics.prom")
        before = os.umask(0o077)
        self.addCleanup(os.umask, before)
        Service(self, self.uri, arguments=("--stats-file", path))

        self.assertTrue(eventually(lambda: os.path.exists(path)))
        with open(path, encoding="utf-8") as file:
            self.assertIn("solvane_ldapd_clients 0\n", file.read())
            self.assertEqual(os.fstat(file.fileno()).st_mode & 0o777, 0o644)

    def test_answers_while_the_file_of_metrics_cannot_be_written(self):
        path = os.path.join(self.folder, "metrics.prom")
        os.mkfifo(path + ".new")  # an open of it waits for a reader
        service = Service(self, self.uri, arguments=("--stats-file", path))

        self.assertEqual(service.ask("users", "user0000001@corp.test"), "OK user0000001")

        with open(path + ".new", encoding="utf-8") as file:
            self.assertIn("solvane_ldapd_clients 0\n", file.read())
        self.assertEqual(service.stop(), 0)

    def test_takes_signals_in_its_first_thread_only(self):
        file = os.path.join(self.folder, "metrics.prom")
        service = Service(self, self.uri, "threads = 3\n", arguments=("--stats-file", file))
        tasks = f"/proc/{service.process.pid}/task"
        taken = sum(1 << (each - 1) for each in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM))
        blocked = {}
        for task in os.listdir(tasks):
            with open(f"{tasks}/{task}/status", encoding="ascii") as status:
                mask = next(line.split()[1] for line in status if line.startswith("SigBlk"))
            blocked[int(task)] = int(mask, 16) & taken

        self.assertEqual(blocked.pop(service.process.pid), 0)
        self.assertGreaterEqual(len(blocked), 3)  # two workers, and the writer of the file
        self.assertEqual(set(blocked.values()), {taken})

    def test_says_why_the_file_of_metrics_cannot_be_written(self):
        os.symlink("elsewhere", os.path.join(self.folder, "link.new"))
        os.mkdir(os.path.join(self.folder, "taken"))
        for name, words in (
            ("link", "Too many levels of symbolic links"),
            ("none/metrics", "No such file or directory"),
            ("taken", "Is a directory"),
        ):
            with self.subTest(words):
                file = os.path.join(self.folder, name)
                service = Service(self, self.uri, arguments=("--stats-file", file))

                service.await_line(f"cannot write '{file}': {words}; check its folder")
                service.stop()

    def test_takes_the_password_of_the_map_rather_than_the_common_one(self):
        users = "query_filter = (cn=secret)\nresult_attribute = description\n"
        service = Service(
            self,
            self.uri,
            maps={"users": users + "bind_pw = reader-pw\n"},
            bind_pw="wrong-password",
            search_base=PRIVATE,
        )

        self.assertEqual(service.ask("users", "a"), "OK seen only by bound users")

    def test_logs_requests_if_asked(self):
        service = Service(self, self.uri, "log_requests = yes\n")

        service.ask("users", "user0000001@corp.test")

        service.await_line("users user0000001@corp.test: found, ")

    def test_logs_requests_and_answers_shortened_on_one_line(self):
        text = "no\u202e" + 50000 * "x"

        def deny(request):
            is_reader = b"cn=reader" in request.content
            return request.result(0x61, 0 if is_reader else 49, text=text.encode())

        directory = ScriptedDirectory(
            self, serving(lambda request: request.entry() + request.result(0x65), on_bind=deny)
        )
        service = Service(self, directory.uri, "log_requests = yes\n")
        service.ask("users", "a\u202e\n" + 5000 * "b")
        service.auth_client().plain("anna", "wrong")
        service.stop()

        directory = ScriptedDirectory(
            self,
            serving(None, on_bind=lambda request: request.result(0x61, 49, text=text.encode())),
        )
        other = Service(self, directory.uri)
        other.ask("users", "anna@corp.test")
        other.stop()

        for lines, words in (
            (service.lines, "users a\\xE2\\x80\\xAE\\x0Abbb"),
            (service.lines, "login of anna from 192.0.2.1: denied, "),
            (other.lines, "refuses the credentials: "),
        ):
            found = [line for line in lines if words in line]
            self.assertEqual(len(found), 1, (words, lines))
            self.assertLess(len(found[0]), 800)
            self.assertNotIn("\u202e", found[0])
            self.assertIn("\\xE2\\x80\\xAE", found[0])

    def test_keeps_answers_if_asked(self):
        service = Service(self, self.uri, "cache_time = 600\ncache_negative_time = 600\n")
        for _ in range(3):
            self.assertEqual(service.ask("users", "user0000001@corp.test"), "OK user0000001")
            self.assertEqual(service.ask("users", "nobody@corp.test"), "NOTFOUND ")

        stats = service.stats()

        self.assertEqual(stats['solvane_ldapd_cache_hits_total{map="users"}'], 4)
        self.assertEqual(stats['solvane_ldapd_request_seconds_count{map="users"}'], 2)
        service.reload()
        service.ask("users", "user0000001@corp.test")
        self.assertEqual(service.stats()['solvane_ldapd_request_seconds_count{map="users"}'], 3)


class Groups(DirectoryTest):
    slapd_options = ["--users", "20"]

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        add_entries(
            cls.uri,
            group("all", 1, "inner", 2) + group("inner", 3, 1, "all", 4) + group("empty", "nobody"),
        )

    def test_are_answered_with_all_their_members(self):
        service = Service(self, self.uri, maps={"users": GROUPS})

        users = [f"user{number:07d}@corp.test" for number in (1, 3, 4, 2)]
        self.assertEqual(service.ask("users", "all@corp.test"), "OK " + ",".join(users))

    def test_are_not_found_without_a_member(self):
        service = Service(self, self.uri, maps={"users": GROUPS})

        self.assertEqual(service.ask("users", "empty@corp.test"), "NOTFOUND ")
        self.assertEqual(service.ask("users", "nobody@corp.test"), "NOTFOUND ")

    def test_are_never_shortened(self):
        for limit in ("expansion_limit = 3\n", "recursion_limit = 1\n"):
            with self.subTest(limit):
                service = Service(
                    self, self.uri, "cache_negative_time = 60\n", maps={"users": GROUPS + limit}
                )

                self.assertRegex(service.ask("users", "all@corp.test"), "^TEMP .*limit")
                service.stop()

    def test_values_have_the_format_of_the_map(self):
        users = "query_filter = (mail=$m)\nresult_attribute = mail\nresult_format = %u/smtp:[%S]\n"
        service = Service(self, self.uri, maps={"users": users})

        self.assertEqual(
            service.ask("users", "user0000001@corp.test"),
            "OK user0000001/smtp:[user0000001@corp.test]",
        )


class Trouble(ToolTest):
    def test_never_turns_down_into_unknown(self):
        slapd = Slapd(self.addCleanup, "--users", "10")
        service = Service(self, slapd.uri, "cache_negative_time = 600\n")
        self.assertEqual(service.ask("users", "user0000001@corp.test"), "OK user0000001")

        slapd.stop()
        reply = service.ask("users", "user0000001@corp.test")
        self.assertTrue(reply.startswith("TEMP "), reply)
        self.assertIn(slapd.uri, reply)
        slapd.start()

        self.assertTrue(
            eventually(lambda: service.ask("users", "user0000001@corp.test") == "OK user0000001")
        )
        self.assertEqual(service.ask("users", "nobody@corp.test"), "NOTFOUND ")
        service.await_line("is skipped for")
        service.await_line("serves again")

    def test_tells_no_secret(self):
        service = Service(
            self,
            ScriptedDirectory(
                self,
                serving(None, on_bind=lambda request: request.result(0x61, 49)),
            ).uri,
        )

        reply = service.ask("users", "a@corp.test")

        self.assertTrue(reply.startswith("TEMP "), reply)
        service.await_line("refuses the credentials")
        service.stop()
        self.assertNotIn("reader-pw", reply + "\n".join(service.lines))

    def test_asks_once_for_equal_keys(self):
        release = []

        def answer(request):
            eventually(lambda: release)
            return request.entry(uid=[b"anna"]) + request.result(0x65)

        directory = ScriptedDirectory(self, serving(answer))
        service = Service(self, directory.uri)
        clients = [service.client() for _ in range(20)]
        for client in clients:
            client.send(netstring("users anna@corp.test"))
        stats = 'solvane_ldapd_shared_answers_total{map="users"}'
        self.assertTrue(eventually(lambda: service.stats()[stats] == 19))

        release.append(True)

        for client in clients:
            self.assertEqual(client.read_netstring(), "OK anna")
        self.assertEqual(directory.count(SEARCH), 1)


class Reload(DirectoryTest):
    slapd_options = ["--users", "200"]

    def test_brings_new_maps_into_use(self):
        service = Service(self, self.uri)
        client = service.client()
        self.assertEqual(client.ask("users", "user0000001@corp.test"), "OK user0000001")

        service.write_map("users", "query_filter = (mail=$m)\nresult_attribute = mail\n")
        service.write_map("names", "query_filter = (uid=$u)\nresult_attribute = uid\n")
        service.reload()

        self.assertEqual(client.ask("users", "user0000001@corp.test"), "OK user0000001@corp.test")
        self.assertEqual(client.ask("names", "user0000002@corp.test"), "OK user0000002")
        self.assertEqual(service.stats()["solvane_ldapd_reloads_total"], 1)

    def test_keeps_connections_if_only_searches_change(self):
        service = Service(self, self.uri)
        service.ask("users", "user0000001@corp.test")

        service.write_map("users", "query_filter = (mail=$m)\nresult_attribute = mail\n")
        service.reload()
        service.ask("users", "user0000001@corp.test")

        labels = f'{{pool="users",server="{self.uri}"}}'
        opened = service.stats()[f"solvane_ldapd_connections_opened_total{labels}"]
        self.assertEqual(opened, 1)

    def test_changes_nothing_if_the_new_settings_are_invalid(self):
        service = Service(self, self.uri)

        service.write_map("users", "query_filter = (mail=$m\nresult_attribute = uid\nscop = sub\n")
        service.reload()

        self.assertEqual(service.ask("users", "user0000001@corp.test"), "OK user0000001")
        service.await_line("users.conf:4: unknown setting")
        self.assertEqual(service.stats()["solvane_ldapd_reloads_failed_total"], 1)

    def test_brings_new_settings_of_the_service_into_use(self):
        service = Service(self, self.uri, "auth_trouble = fail\nauth_failures = 1\n")
        client = service.auth_client()
        client.plain("user0000001@corp.test", "wrong")
        self.assertIn("temp", client.plain("user0000001@corp.test", "pw-user0000001"))

        service.write_map("names", "query_filter = (uid=$u)\nresult_attribute = uid\n")
        service.write_service(
            "auth_failures = 0\nlog_requests = yes\ncache_time = 60\nclients = 2\nthreads = 2\n"
        )
        service.reload()

        self.assertIn("OK", client.plain("user0000001@corp.test", "pw-user0000001"))
        with service.client() as second, service.client() as third:
            self.assertTrue(third.is_closed())
            for _ in range(2):
                self.assertEqual(second.ask("users", "user0000001@corp.test"), "OK user0000001")
            self.assertEqual(second.ask("names", "user0000001"), "OK user0000001")
        service.await_line("users user0000001@corp.test: found (kept)")
        service.await_line("threads has changed: restart")
        service.stop()
        self.assertEqual(service.count("has changed"), 1, service.lines)

    def test_changes_nothing_without_enough_descriptors(self):
        service = Service(self, self.uri)
        self.assertEqual(service.ask("users", "user0000001@corp.test"), "OK user0000001")
        for number in range(10):
            service.write_map(f"m{number}", "query_filter = (uid=$u)\nresult_attribute = uid\n")
        pid = service.process.pid
        limits = resource.prlimit(pid, resource.RLIMIT_NOFILE)

        most = 4 + max(int(name) for name in os.listdir(f"/proc/{pid}/fd"))
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (most, limits[1]))
        service.reload()
        resource.prlimit(pid, resource.RLIMIT_NOFILE, limits)

        service.await_line("cannot use the maps: ")
        self.assertEqual(service.ask("users", "user0000001@corp.test"), "OK user0000001")
        self.assertEqual(service.ask("m0", "user0000001"), "TEMP there is no map 'm0'")
        service.reload()
        self.assertEqual(service.ask("m0", "user0000001"), "OK user0000001")

    def test_loses_no_request(self):
        service = Service(self, self.uri, "threads = 2\n")
        clients = [service.client() for _ in range(10)]
        for turn in range(20):
            for number, client in enumerate(clients, 1):
                client.send(netstring(f"users user{number:07d}@corp.test"))
            if turn % 5 == 0:
                service.reload()
            for number, client in enumerate(clients, 1):
                self.assertEqual(client.read_netstring(), f"OK user{number:07d}")


class Stop(DirectoryTest):
    slapd_options = ["--users", "20"]

    def test_answers_requests_under_way_first(self):
        release = []

        def answer(request):
            eventually(lambda: release)
            return request.entry(uid=[b"anna"]) + request.result(0x65)

        directory = ScriptedDirectory(self, serving(answer))
        service = Service(self, directory.uri)
        idle = service.client()
        client = service.client()
        client.send(netstring("users anna@corp.test"))
        self.assertTrue(eventually(lambda: directory.count(SEARCH) == 1))

        service.process.terminate()
        self.assertTrue(idle.is_closed())
        release.append(True)

        self.assertEqual(client.read_netstring(), "OK anna")
        self.assertEqual(service.process.wait(60), 0)
        self.assertFalse(os.path.exists(service.users_path))

    def test_does_not_wait_for_ever(self):
        directory = ScriptedDirectory(self, silent)
        service = Service(self, directory.uri, "stop_time = 1\n", deadline="300", timeout="300")
        client = service.client()
        client.send(netstring("users anna@corp.test"))
        self.assertTrue(eventually(lambda: directory.connections))

        begin = time.monotonic()
        self.assertEqual(service.stop(), 0)

        self.assertLess(time.monotonic() - begin, 60)

    def test_leaves_a_socket_that_another_service_has(self):
        service = Service(self, self.uri)
        other = Service(self, self.uri, is_started=False)

        with self.assertRaisesRegex(AssertionError, "cannot listen on unix:.*in use"):
            other.start()

        self.assertEqual(service.ask("users", "user0000001@corp.test"), "OK user0000001")

    def test_leaves_a_socket_that_another_process_has_taken(self):
        service = Service(self, self.uri)
        os.unlink(service.users_path)
        with socket.socket(socket.AF_UNIX) as other:
            other.bind(service.users_path)

            self.assertEqual(service.stop(), 0)

            self.assertTrue(os.path.exists(service.users_path))

    def test_replaces_a_socket_that_was_left(self):
        service = Service(self, self.uri)
        service.process.kill()
        service.process.wait(60)

        again = Service(self, self.uri)

        self.assertEqual(again.ask("users", "user0000001@corp.test"), "OK user0000001")


class Systemd(DirectoryTest):
    slapd_options = ["--users", "20"]

    def test_is_told_when_the_service_is_ready(self):
        path = os.path.join(self.folder, "notify")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(path)
            manager.settimeout(60)
            service = Service(self, self.uri, is_started=False)
            service.start(env={**os.environ, "NOTIFY_SOCKET": path, "WATCHDOG_USEC": "400000"})

            self.assertEqual(manager.recv(100), b"READY=1")
            self.assertEqual(manager.recv(100), b"WATCHDOG=1")
            self.assertEqual(manager.recv(100), b"WATCHDOG=1")
            service.reload()
            states = [manager.recv(100) for _ in range(20)]
            self.assertTrue(any(b"RELOADING=1\nMONOTONIC_USEC=" in state for state in states))
            self.assertIn(b"READY=1", states)
            service.process.terminate()
            self.assertTrue(eventually(lambda: manager.recv(100) == b"STOPPING=1"))

    def start_with_socket(self, service, kind):
        """Starts it with an open socket of this kind, as systemd does, and returns the path."""
        path = os.path.join(self.folder, "activated")
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(path)
            listener.listen()

            def pass_on():
                os.dup2(listener.fileno(), 3)
                os.set_inheritable(3, True)
                os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS="1", LISTEN_FDNAMES=kind)

            service.start(preexec_fn=pass_on, close_fds=False)
        return path

    def test_opens_the_sockets(self):
        service = Service(self, self.uri, is_started=False)

        path = self.start_with_socket(service, "socketmap")

        with Client(path) as client:
            self.assertEqual(client.ask("users", "user0000001@corp.test"), "OK user0000001")
        self.assertFalse(os.path.exists(service.users_path))

    def test_opens_no_socket_for_logins_without_a_map_for_them(self):
        service = Service(self, self.uri, is_started=False)
        service.write_service("", has_logins=False)

        with self.assertRaisesRegex(AssertionError, "a socket for logins, but auth_map is not set"):
            self.start_with_socket(service, "auth")

        self.assertEqual(service.process.returncode, CONFIGURATION)
        self.assertFalse(os.path.exists(service.users_path))

    def test_keeps_the_map_for_logins_as_long_as_its_socket_is_open(self):
        service = Service(self, self.uri, is_started=False)
        service.write_service("auth_map = users\n", has_logins=False)
        path = self.start_with_socket(service, "auth")

        service.write_service("", has_logins=False)
        service.reload()

        service.await_line("a socket for logins, but auth_map is not set")
        with AuthClient(path) as client:
            self.assertIn("OK\t", client.plain("user0000001@corp.test", "pw-user0000001"))


if __name__ == "__main__":
    unittest.main()
