"""How the C++ of a page becomes files to compile, and how its steps are followed."""

import pathlib
import subprocess
import tempfile
import unittest

import blocks
import follow


def page(*lines):
    return "".join(line + "\n" for line in lines)


class Blocks(unittest.TestCase):
    def sources(self, *lines):
        return blocks.sources("page.md", page(*lines))

    def test_a_block_is_a_file_of_its_own(self):
        self.assertEqual(
            self.sources(
                "# Title",
                "```cpp",
                "int one();",
                "```",
                "```sh",
                "ls",
                "```",
                "```cpp",
                "int two();",
                "```",
            ),
            [
                blocks.PRELUDE + '#line 3 "page.md"\nint one();\n',
                blocks.PRELUDE + '#line 9 "page.md"\nint two();\n',
            ],
        )

    def test_a_program_brings_its_own_includes(self):
        self.assertEqual(
            self.sources("```cpp", "int main()", "{", "}", "```"),
            ['#line 2 "page.md"\nint main()\n{\n}\n'],
        )

    def test_statements_become_the_body_of_a_function(self):
        self.assertEqual(
            self.sources(
                "<!-- compile: function (LDAPSearch& search) -->",
                "```cpp",
                "#include <ctime>",
                "",
                "search.send();",
                "```",
            ),
            [
                blocks.PRELUDE + '#line 3 "page.md"\n#include <ctime>\n\n'
                'void block(LDAPSearch& search)\n{\n#line 5 "page.md"\nsearch.send();\n}\n'
            ],
        )

    def test_a_continued_block_joins_the_one_before(self):
        self.assertEqual(
            self.sources(
                "```cpp",
                "int one();",
                "```",
                "<!-- compile: continued -->",
                "```cpp",
                "int two = one();",
                "```",
            ),
            [
                blocks.PRELUDE + '#line 2 "page.md"\nint one();\n'
                '#line 6 "page.md"\nint two = one();\n'
            ],
        )

    def test_a_block_in_a_list_loses_its_indentation(self):
        self.assertEqual(
            self.sources("- item", "", "  ```cpp", "  int one();", "  ```"),
            [blocks.PRELUDE + '#line 4 "page.md"\nint one();\n'],
        )

    def test_a_block_is_left_out_for_a_reason_only(self):
        block = ("```cpp", "...", "```")
        self.assertEqual(self.sources("<!-- compile: no, a part of a message -->", *block), [])
        with self.assertRaisesRegex(blocks.Fault, "^1: expected"):
            self.sources("<!-- compile: no -->", *block)

    def test_mistakes_are_reported_with_their_line(self):
        for fault, lines in {
            "^1: write ```cpp": ("```c++", "```"),
            "^1: expected": ("<!-- compile: functions () -->", "```cpp", "```"),
            "^2: the comment": ("<!-- compile: continued -->", "", "```cpp", "```"),
            "^3: there is no block": ("<!-- compile: continued -->", "```cpp", "```"),
            "not complete": ("```cpp", "int one();"),
        }.items():
            with self.assertRaisesRegex(blocks.Fault, fault):
                self.sources(*lines)


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

    def test_lines_are_added_to_a_file(self):
        done = self.follow(
            *["```sh", "echo one >a.txt", "```", "Add to `a.txt`:", "```ini", "$two", "```"],
            *["```sh", "cat a.txt", "```"],
        )
        self.assertEqual((done.returncode, done.stdout), (0, "one\n$two\n"))

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
