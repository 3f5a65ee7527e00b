"""The examples, each run as its first lines say."""

import os
import subprocess
import unittest

from support import DEADLINE, PEOPLE, READER, READER_PASSWORD, DirectoryTest, Result, free_port

EXAMPLES = os.environ["SOLVANE_EXAMPLES"]
NEW = "ou=new,dc=corp,dc=test"
USER1 = "uid=user0000001," + PEOPLE


class Examples(DirectoryTest):
    def example(
        self, name, *arguments, port=None, password=READER_PASSWORD, environment=None, stdin=b""
    ):
        command = [
            os.path.join(EXAMPLES, name),
            "127.0.0.1",
            str(port or self.server["LDAP_PORT"]),
            *arguments,
        ]
        done = subprocess.run(
            command,
            input=stdin,
            capture_output=True,
            timeout=DEADLINE,
            check=False,
            env={**os.environ, "LDAP_PASSWORD": password, **(environment or {})},
        )
        return Result(done.returncode, done.stdout, done.stderr)

    def test_one_lookup_prints_the_entry(self):
        result = self.example("one_lookup", READER, PEOPLE, "user0000010@corp.test")

        self.assertEqual((result.status, result.errors), (0, ""))
        self.assertEqual(
            result.lines,
            [
                "dn: uid=user0000010," + PEOPLE,
                "cn: Łukasz Kern 10",
                "mail: user0000010@corp.test",
                "mail: ukasz.10@alias.corp.test",
            ],
        )

    def test_one_lookup_tells_not_found_from_trouble(self):
        unknown = self.example("one_lookup", READER, PEOPLE, "nobody@corp.test")
        refused = self.example(
            "one_lookup", READER, PEOPLE, "user0000010@corp.test", password="wrong"
        )
        down = self.example("one_lookup", READER, PEOPLE, "user0000010@corp.test", port=free_port())

        self.assertEqual((unknown.status, unknown.output, unknown.errors), (1, "", ""))
        self.assertEqual(refused.status, 2)
        self.assertIn("Invalid credentials", refused.errors)
        self.assertEqual(down.status, 2)
        self.assertIn("Can't contact LDAP server", down.errors)

    def test_address_lookup_delivers_rejects_and_defers(self):
        both = self.example(
            "address_lookup", READER, PEOPLE, "user0000010@corp.test", "nobody@corp.test"
        )
        down = self.example(
            "address_lookup", READER, PEOPLE, "user0000010@corp.test", port=free_port()
        )
        refused = self.example(
            "address_lookup", READER, PEOPLE, "user0000010@corp.test", password="wrong"
        )

        self.assertEqual(
            both.lines,
            [
                "user0000010@corp.test: deliver to uid=user0000010," + PEOPLE,
                "nobody@corp.test: reject, no such user",
            ],
        )
        self.assertEqual((both.status, both.errors), (1, ""))
        self.assertEqual(down.status, 75)
        self.assertIn("user0000010@corp.test: defer, ldap://127.0.0.1:", down.output)
        self.assertEqual(refused.status, 78)
        self.assertIn("Invalid credentials", refused.output)

    def test_verify_password_accepts_refuses_and_defers(self):
        def verify(address, typed, **where):
            return self.example(
                "verify_password", READER, PEOPLE, address, stdin=typed.encode(), **where
            )

        right = verify("user0000001@corp.test", "pw-user0000001\n")
        wrong = verify("user0000001@corp.test", "pw-user0000002\n")
        unknown = verify("nobody@corp.test", "pw-user0000001\n")
        empty = verify("user0000001@corp.test", "\n")
        down = verify("user0000001@corp.test", "pw-user0000001\n", port=free_port())

        self.assertEqual((right.status, right.output), (0, f"welcome, {USER1}\n"))
        for refused in (wrong, unknown, empty):
            self.assertEqual(
                (refused.status, refused.output), (1, "refused: wrong address or password\n")
            )
        self.assertEqual((down.status, down.output), (75, "try later\n"))
        self.assertIn("cannot connect", down.errors)

    def test_poll_lookups_answer_each_line(self):
        addresses = [f"user{number:07}@corp.test" for number in range(1, 51)] + ["nobody@corp.test"]
        lines = "".join(address + "\n" for address in addresses * 100)

        result = self.example("poll_lookups", READER, PEOPLE, stdin=lines.encode())
        down = self.example(
            "poll_lookups", READER, PEOPLE, stdin=b"user0000001@corp.test\n", port=free_port()
        )

        self.assertEqual((result.status, result.errors), (0, ""))
        answers = sorted(result.lines, key=lambda line: int(line.split()[0]))
        self.assertEqual(
            answers,
            [
                f"{number} {address}: " + ("not found" if "nobody" in address else "found")
                for number, address in enumerate(addresses * 100, 1)
            ],
        )
        self.assertEqual((down.status, down.lines), (75, ["1 user0000001@corp.test: try later"]))

    def test_asio_lookups_call_a_handler_for_each_address(self):
        addresses = [f"user{number:07}@corp.test" for number in range(1, 51)]

        both = self.example("asio_lookups", READER, PEOPLE, *addresses, "nobody@corp.test")
        down = self.example("asio_lookups", READER, PEOPLE, addresses[0], port=free_port())

        self.assertEqual((both.status, both.errors), (1, ""))
        self.assertEqual(
            sorted(both.lines),
            ["nobody@corp.test: not found"] + [address + ": found" for address in addresses],
        )
        self.assertEqual((down.status, down.lines), (75, [addresses[0] + ": try later"]))

    def test_pooled_lookups_from_many_threads_share_connections(self):
        result = self.example("pooled_lookups", READER, PEOPLE, "8", "200")

        self.assertEqual((result.status, result.errors), (0, ""))
        lookups, connections, hits, wrong = [
            int(word) for word in result.output.split() if word.isdigit()
        ]
        self.assertEqual((lookups, wrong), (200, 0))
        self.assertLessEqual(connections, 8)
        self.assertEqual(connections + hits, 200)

    def test_driven_queries_answer_each_in_order(self):
        result = self.example(
            "driven_queries",
            READER,
            PEOPLE,
            "user0000001@corp.test",
            "nobody@corp.test",
            "user0000002@corp.test",
        )

        self.assertEqual((result.status, result.errors), (1, ""))
        self.assertEqual(
            result.lines,
            [
                "user0000001@corp.test: " + USER1,
                "nobody@corp.test: not found",
                "user0000002@corp.test: uid=user0000002," + PEOPLE,
            ],
        )

    def test_driven_queries_share_one_connection(self):
        addresses = [f"user{number:07}@corp.test" for number in range(1, 51)]

        result = self.example(
            "driven_queries",
            READER,
            PEOPLE,
            *addresses,
            environment={"SOLVANE_DEBUG_MASK": "0x80008"},
        )

        self.assertEqual((result.status, len(result.lines)), (0, 50))
        self.assertEqual(result.errors.count("New LDAP Connection"), 1)

    def test_add_entry_adds_text_and_binary_attributes_once(self):
        certificate = os.path.join(self.directory, "tls", "good.der")
        arguments = (READER, "uid=newcomer," + NEW, "newcomer", certificate)

        first = self.example("add_entry", *arguments)
        second = self.example("add_entry", *arguments)
        found = self.example("one_lookup", READER, NEW, "newcomer@corp.test")

        self.assertEqual((first.status, first.output), (0, f"added uid=newcomer,{NEW}\n"))
        self.assertEqual((second.status, second.output), (1, "refused 68 Already exists\n"))
        self.assertEqual(found.status, 0)

    def test_add_entry_reports_a_schema_violation(self):
        result = self.example("add_entry", READER, "dc=other," + NEW, "other")

        self.assertEqual(result.status, 1)
        self.assertRegex(result.output, r"^refused 65 ")

    def test_own_request_compares(self):
        self.assertEqual(self.example("own_request", USER1, "sn", "Berg").output, "yes\n")
        self.assertEqual(self.example("own_request", USER1, "sn", "Abel").output, "no\n")
        self.assertEqual(self.example("own_request", USER1, "sn", "x", port=free_port()).status, 2)

    def test_debug_log_switches_on_and_off(self):
        result = self.example("debug_log")

        self.assertEqual((result.status, result.output), (0, "switched on: 0, switched off: 0\n"))


if __name__ == "__main__":
    unittest.main()
