"""The settings of the service, as --check judges them."""

import os
import re
import unittest

from ldapd import Service
from support import ToolTest


class Settings(ToolTest):
    uri = "ldap://192.0.2.1"

    def test_are_checked(self):
        service = Service(self, self.uri, is_started=False)

        result = service.check()

        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertIn("1 maps are valid", result.stdout)

    def test_have_all_their_errors_told_at_once(self):
        service = Service(
            self,
            self.uri,
            "thread = 2\nclients = many\n",
            maps={
                "users": "query_filter = (mail=%s)\nresult_attribute = uid\nscope = all\n",
                "aliases": "query_filter = (mail=$m)\n",
            },
            is_started=False,
        )

        result = service.check()

        self.assertEqual(result.returncode, 78)
        lines = result.stderr.splitlines()
        for words in (
            "service.conf:5: unknown setting 'thread'",
            "service.conf:6: clients: 'many' is not a number",
            "users.conf:2: query_filter: unsupported specifier '%s'",
            "users.conf:4: scope: unsupported value 'all'",
            "aliases.conf: result_attribute is not set",
        ):
            self.assertEqual(sum(words in line for line in lines), 1, (words, result.stderr))
        self.assertEqual(len(lines), 5, result.stderr)

    def test_name_the_line_of_an_included_file(self):
        service = Service(self, self.uri, is_started=False, timeout="0")

        result = service.check()

        self.assertIn("common.settings:6: timeout: ", result.stderr)

    def test_override_what_they_include(self):
        users = "query_filter = (mail=$m)\nresult_attribute = uid\nserver_host = [\n"
        service = Service(self, "ldap://192.0.2.1", maps={"users": users}, is_started=False)

        self.assertIn("users.conf:4: server_host: ", service.check().stderr)

    def test_keep_passwords_from_others(self):
        service = Service(self, self.uri, is_started=False)
        os.chmod(os.path.join(service.folder, "common.settings"), 0o644)

        result = service.check()

        self.assertEqual(result.returncode, 78)
        self.assertIn("readable by other users (mode 644)", result.stderr)

    @unittest.skipIf(os.getuid() != 0, "needs root to give files away")
    def test_are_read_by_the_group_of_the_service_only(self):
        service = Service(self, self.uri, is_started=False)
        path = os.path.join(service.folder, "common.settings")
        os.chmod(self.folder, 0o755)
        for owners, mode, is_accepted in (
            (12345, 0o640, True),
            (12345, 0o660, False),
            (12345, 0o642, False),
            (12346, 0o640, False),
        ):
            with self.subTest(group=owners, mode=oct(mode)):
                os.chown(path, 12345, owners)
                os.chmod(path, mode)
                for name in os.listdir(os.path.join(service.folder, "maps")):
                    os.chmod(os.path.join(service.folder, "maps", name), 0o644)

                try:
                    result = service.check(user=12345, group=12345, extra_groups=[])
                except PermissionError:
                    self.skipTest("other users cannot run the program")

                self.assertEqual(result.returncode, 0 if is_accepted else 78, result.stderr)
                self.assertEqual("able by other users" in result.stderr, not is_accepted)

    def test_name_the_attributes_whose_values_are_returned(self):
        for attribute in ("*", "+", "1.1", "@person", "0.9.2342.19200300.100.1.1"):
            with self.subTest(attribute):
                users = f"query_filter = (mail=$m)\nresult_attribute = mail, {attribute}\n"
                service = Service(self, self.uri, maps={"users": users}, is_started=False)

                self.assertIn(f"'{attribute}' is not the name of an attr", service.check().stderr)

    def test_keep_passwords_from_others_even_if_they_are_overridden(self):
        users = "query_filter = (mail=$m)\nresult_attribute = uid\nbind_pw = another\n"
        service = Service(self, self.uri, maps={"users": users}, is_started=False)
        os.chmod(os.path.join(service.folder, "common.settings"), 0o644)

        self.assertIn("by other users (mode 644)", service.check().stderr)

    def test_show_no_text_that_is_not_a_name(self):
        service = Service(self, self.uri, "bind_pw: secret=1\n", is_started=False)

        result = service.check()

        self.assertIn("the text before '=' is not the name of a setting", result.stderr)
        self.assertNotIn("secret", result.stderr)

    def test_are_not_in_hidden_files(self):
        service = Service(self, self.uri, is_started=False)
        os.symlink("nowhere", os.path.join(service.folder, "maps", ".#users.conf"))

        self.assertEqual(service.check().returncode, 0)

    def test_are_in_the_manual_page(self):
        root = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
        with open(os.path.join(root, "docs/man/solvane-ldapd.8"), encoding="utf-8") as page:
            described = re.findall(r"^\.It Cm (\w+)$", page.read(), re.MULTILINE)
        with open(os.path.join(root, "service/ServiceSettings.cpp"), encoding="utf-8") as source:
            known = re.findall(r"^ +\{ \"(\w+)\",", source.read(), re.MULTILINE)

        self.assertGreater(len(known), 10)
        self.assertEqual(sorted(described), sorted(known))

    def test_need_a_map_for_logins(self):
        service = Service(self, self.uri, is_started=False)
        os.rename(
            os.path.join(service.folder, "maps", "users.conf"),
            os.path.join(service.folder, "maps", "other.conf"),
        )

        self.assertIn("auth_map: there is no map 'users'", service.check().stderr)


if __name__ == "__main__":
    unittest.main()
