"""How the C++ of a page becomes files to compile."""

import unittest

import blocks


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


if __name__ == "__main__":
    unittest.main()
