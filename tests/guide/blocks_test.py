"""How the C++ of a page becomes files to compile."""

import unittest

import blocks


def page(*lines):
    return "".join(line + "\n" for line in lines)


class Blocks(unittest.TestCase):

    def sources(self, *lines):
        return blocks.sources("page.md", page(*lines))

    def testABlockIsAFileOfItsOwn(self):
        self.assertEqual(self.sources("# Title", "```cpp", "int one();", "```", "```sh", "ls", "```",
                                      "```cpp", "int two();", "```"),
                         [blocks.PRELUDE + '#line 3 "page.md"\nint one();\n',
                          blocks.PRELUDE + '#line 9 "page.md"\nint two();\n'])

    def testAProgramBringsItsOwnIncludes(self):
        self.assertEqual(self.sources("```cpp", "int main()", "{", "}", "```"),
                         ['#line 2 "page.md"\nint main()\n{\n}\n'])

    def testStatementsBecomeTheBodyOfAFunction(self):
        self.assertEqual(self.sources("<!-- compile: function (LDAPSearch& search) -->", "```cpp",
                                      "#include <ctime>", "", "search.send();", "```"),
                         [blocks.PRELUDE + '#line 3 "page.md"\n#include <ctime>\n\n'
                          'void block(LDAPSearch& search)\n{\n#line 5 "page.md"\nsearch.send();\n}\n'])

    def testAContinuedBlockJoinsTheOneBefore(self):
        self.assertEqual(self.sources("```cpp", "int one();", "```", "<!-- compile: continued -->",
                                      "```cpp", "int two = one();", "```"),
                         [blocks.PRELUDE + '#line 2 "page.md"\nint one();\n'
                          '#line 6 "page.md"\nint two = one();\n'])

    def testABlockInAListLosesItsIndentation(self):
        self.assertEqual(self.sources("- item", "", "  ```cpp", "  int one();", "  ```"),
                         [blocks.PRELUDE + '#line 4 "page.md"\nint one();\n'])

    def testABlockIsLeftOutForAReasonOnly(self):
        block = ("```cpp", "...", "```")
        self.assertEqual(self.sources("<!-- compile: no, a part of a message -->", *block), [])
        with self.assertRaisesRegex(blocks.Fault, "^1: expected"):
            self.sources("<!-- compile: no -->", *block)

    def testMistakesAreReportedWithTheirLine(self):
        for fault, lines in {"^1: write ```cpp": ("```c++", "```"),
                             "^1: expected": ("<!-- compile: functions () -->", "```cpp", "```"),
                             "^2: the comment": ("<!-- compile: continued -->", "", "```cpp", "```"),
                             "^3: there is no block": ("<!-- compile: continued -->", "```cpp", "```"),
                             "not complete": ("```cpp", "int one();")}.items():
            with self.assertRaisesRegex(blocks.Fault, fault):
                self.sources(*lines)


if __name__ == "__main__":
    unittest.main()
