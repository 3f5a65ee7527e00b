"""How a page is followed: what runs, what is written, and what has to be printed."""

import pathlib
import subprocess
import tempfile
import unittest

import follow


class Following(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def follow(self, *lines):
        return subprocess.run(
            ["sh"],
            input=follow.steps("page.md", "\n".join(lines)),
            cwd=self.folder,
            capture_output=True,
            text=True,
            timeout=60,
            check=False,
        )

    def test_commands_share_a_shell_and_files_are_written(self):
        done = self.follow(
            "```sh",
            "name=$(echo a.txt)",
            "```",
            "Write `a.txt`:",
            "```cmake",
            "$one",
            "```",
            "```sh",
            "cat $name",
            "```",
        )
        self.assertEqual((done.returncode, done.stdout), (0, "$one\n"))

    def test_what_fails_is_named_by_its_line(self):
        done = self.follow("# Title", "```sh", "false", "```", "```sh", "touch later", "```")
        self.assertIn("page.md:3: failed", done.stderr)
        self.assertFalse((self.folder / "later").exists())

    def test_a_session_prints_what_the_page_shows(self):
        session = [
            "```console",
            "$ echo ldap://127.0.0.1:4711/ '(x)'",
            "ldap://127.0.0.1:19560/ (x)",
            "```",
        ]
        self.assertEqual(self.follow(*session).returncode, 0)
        session[2] = "ldap://127.0.0.1:19560/ (y)"
        self.assertIn("not printed", self.follow(*session).stderr)

    def test_input_goes_to_the_command_before_it(self):
        self.assertEqual(
            self.follow("```console", "$ cat", "(gdb) typed", "typed", "```").returncode, 0
        )

    def test_a_file_without_a_name_is_refused(self):
        with self.assertRaisesRegex(follow.Fault, "which file"):
            follow.steps("page.md", "```cpp\nint one;\n```\n")

    def test_a_session_that_shows_nothing_is_refused(self):
        with self.assertRaisesRegex(follow.Fault, "what it prints"):
            follow.steps("page.md", "```console\n$ true\n```\n")


if __name__ == "__main__":
    unittest.main()
