#!/usr/bin/python3
"""Writes the document on the binary interface: report.py CLASSES LIBRARY... >docs/abi.md

CLASSES is what g++ -fdump-lang-class says of the public headers, each LIBRARY what abidw says of
one.
"""
import re
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

INTRODUCTION = """\
# Binary interface

Written by `scripts/abi --update`, for x86-64 and g++ 12.

Programs find the libraries by their SONAMEs, whose number is the major version. While the major version
stays the same, a program built with an earlier version works with a later one. `scripts/abi` compares the
libraries with `abi/*.abi`, and the libraries and headers with this page; it fails at every difference.

| change | requires |
|---|---|
| a new function or class | minor version |
| a new virtual function after the last one of a class that programs do not derive from | minor version |
| removing a symbol; changing a signature, return type, `const` or namespace | major version |
| changing the size or alignment of a class, or the offset, type or order of its members | major version |
| inserting or removing a virtual function; changing the order or a base class | major version |
| changing the value of an enumerator | major version |

The linker does not check texts, result codes and reported lines of exceptions, but callers use them
([errors](guide/errors.md)). To accept a change, run `scripts/abi --update` and, if symbols changed,
`scripts/package --update`.

Programs derive from `LDAPRequest`, `LDAPException` and the bodies in `<solvane/ldap/impl.h>`. For these
classes, every new virtual function requires a major version.

The libraries export what the headers mark with `SOLVANE_LDAP_EXPORT`, `SOLVANE_LOOKUP_EXPORT` or
`SOLVART_EXPORT`; everything else is compiled with hidden visibility. Templates of the C++ library and of
Boost are marked as visible, so a linker script (`cmake/exports.map.in`) hides them: it exports only
namespace `Solvane` and the two names of the runtime's debug output. Type information of other libraries'
classes is hidden too. Their exceptions are caught nevertheless, because libstdc++ compares types by name.

The symbols of `libsolvane-ldap` and `libsolvane-lookup` are versioned by major version: two major versions
can be in one process, for example through two modules of a server, and each finds its own symbols.
`cmake/packaging/*.symbols` has the minor version that added each symbol. Programs that were linked before
symbols had versions still find them. `libsolvart` is not versioned, because the product's own library may
replace it.

A program may define functions of the C library and of OpenLDAP itself: the libraries then call the program's. The
functions of one library call each other directly.
"""


def in_short(text):
    """A readable name with the usual names of the C++ library's classes."""
    for long_name, short_name in (
        (r"std::__cxx11::", "std::"),
        (r"\[abi:cxx11\]", ""),
        (r"basic_string<char, std::char_traits<char>, std::allocator<char> >", "string"),
        (r"basic_(string_view|ostream)<char, std::char_traits<char> >", r"\1"),
        (r"std::chrono::duration<long, std::ratio<1l, 1000l> >", "std::chrono::milliseconds"),
        (
            r"std::chrono::time_point<std::chrono::_V2::(steady|system)_clock, "
            r"std::chrono::duration<long, std::ratio<1l, 1000000000l> > >",
            r"std::chrono::\1_clock::time_point",
        ),
        (r", std::(?:allocator|default_delete)<[^<>]*(?:<[^<>]*>)?[^<>]*> ?(?=>)", ""),
    ):
        text = re.sub(long_name, short_name, text)
    return text


def demangle(names):
    """Maps mangled names to readable ones."""
    names = sorted(set(names))
    readable = subprocess.run(
        ["c++filt"], input="\n".join(names), text=True, check=True, stdout=subprocess.PIPE
    ).stdout.split("\n")
    return {name: in_short(text) for name, text in zip(names, readable)}


class Library:
    """What one library exports, and what abidw knows of the classes in it.

    slots has the readable function of (class, slot), members the (offset, type, name) of a class,
    and of its bases.
    """

    def __init__(self, path):
        root = ElementTree.parse(path).getroot()
        self.soname = root.get("soname")
        symbols = [symbol.get("name") for symbol in root.iter("elf-symbol")]
        self.symbol_count = len(symbols)
        readable = set(demangle(symbols).values())
        of_classes = {
            name
            for name in readable
            if re.match(r"(vtable|VTT|typeinfo( name)?) for |.*thunk to ", name)
        }
        self.functions = sorted(readable - of_classes, key=str.casefold)
        self.classes = sorted(
            (
                name.removeprefix("typeinfo for ")
                for name in of_classes
                if name.startswith("typeinfo for ")
            ),
            key=str.casefold,
        )
        self.slots = dict(self._slots(root))
        self.members = {}
        self._types = {element.get("id"): element for element in root.iter() if element.get("id")}
        for unit in root.iter("abi-instr"):
            self._collect_members(unit, "")

    @staticmethod
    def _slots(root):
        declared = []
        for member in root.iter("member-function"):
            function = member.find("function-decl")
            if member.get("vtable-offset") and function.get("mangled-name"):
                declared.append((int(member.get("vtable-offset")), function.get("mangled-name")))
        readable = demangle(name for _, name in declared)
        for slot, name in declared:
            yield (readable[name].split("(")[0].rpartition("::")[0], slot), readable[name]

    def _collect_members(self, scope, prefix):
        for element in scope:
            name = element.get("name")
            if element.tag in ("namespace-decl", "member-type"):
                self._collect_members(element, f"{prefix}{name}::" if name else prefix)
            elif element.tag == "class-decl" and element.get("is-declaration-only") != "yes":
                self.members[prefix + name] = [*self._bases(element), *self._fields(element)]
                self._collect_members(element, f"{prefix}{name}::")

    def _bases(self, element):
        for base in element.findall("base-class"):
            name = self._type_name(base.get("type-id"))
            if base.get("is-virtual") == "yes":  # where it is, an object's own class decides
                yield "-", "virtual base", name
            else:
                yield int(base.get("layout-offset-in-bits")) // 8, "base", name

    def _fields(self, element):
        for field in element.findall("data-member"):
            if field.get("layout-offset-in-bits"):  # not of the class itself
                variable = field.find("var-decl")
                yield (
                    int(field.get("layout-offset-in-bits")) // 8,
                    self._type_name(variable.get("type-id")),
                    variable.get("name"),
                )

    def _type_name(self, identity):
        """A type as it is to be read; of a class or typedef, its name without the namespace."""
        element = self._types[identity]
        target = element.get("type-id")
        if element.tag == "pointer-type-def":
            return self._type_name(target) + "*"
        if element.tag == "reference-type-def":
            return self._type_name(target) + "&"
        if element.tag == "qualified-type-def":
            return self._type_name(target) + (" const" if element.get("const") else " volatile")
        return in_short(element.get("name") or element.tag)


def classes_in(dump):
    """Yields (class, size, functions in the virtual table) of our classes."""
    tables = {}
    for block in dump.split("\n\n"):
        kind, _, name = block.partition("\n")[0].partition(" ")
        if kind == "Vtable":
            tables[name.removeprefix("for ")] = re.findall(r"^(\d+) +(.*)$", block, re.MULTILINE)
        elif kind == "Class" and name.startswith("Solvane::"):
            start = re.search(r"vptr=\(\(.*\) \+ (\d+)\)", block)
            functions = functions_from(tables[name], int(start.group(1))) if start else []
            yield name, re.search(r"size=(\d+)", block).group(1), list(functions)


def functions_from(entries, start):
    """Yields the functions of a table from where objects point to; an empty text is a pure one."""
    for offset, entry in entries:
        if int(offset) < start:
            continue
        function = re.fullmatch(
            r"(?:\(int \(\*\)\(\.\.\.\)\))?(Solvane::.*|__cxa_pure_virtual|0)", entry
        )
        if not function:
            return
        yield function.group(1) if function.group(1).startswith("Solvane::") else ""


def slot_text(name, slot, function, declared):
    """One function of a class's table as it is to be read."""
    if (name, slot) in declared:
        function = declared[name, slot] + ("" if function else " = 0")
    elif function:
        function = declared.get((function.rpartition("::")[0], slot), function)
    else:  # the destructor of an abstract class: no object is of it alone
        function = f'{name}::~{name.rpartition("::")[2]}'
    return function.replace("Solvane::", "")


def print_classes(dump, declared, members):
    """Prints every class; instances of one template are alike but for the argument."""
    print(
        """
## Classes

The classes of the public headers: the size of an object, the slots of the virtual table counted from
the address in the object, bases and members with their offsets. A destructor has two slots; the second
one also frees the object."""
    )
    shown = set()
    for name, size, functions in sorted(classes_in(dump)):
        title = re.sub(r"<.*>", "<T>", name)
        if title in shown:
            continue
        shown.add(title)
        lines = [
            f"slot {slot:3}  {slot_text(name, slot, function, declared)}"
            for slot, function in enumerate(functions)
        ]
        lines += [
            f'byte {offset:>3}  {kind.replace("Solvane::", "")} {member}'
            for offset, kind, member in members.get(name, [])
        ]
        print(f'\n### `{title.removeprefix("Solvane::")}`\n\n{size} bytes.')
        if lines:
            argument = name[len(title) - len("T>") : -1].replace("Solvane::", "")
            text = "\n".join(lines)
            print(f'\n```text\n{text if title == name else text.replace(argument, "T")}\n```')


def main():
    classes, *paths = sys.argv[1:]
    libraries = [Library(path) for path in paths]
    print(INTRODUCTION)
    print("## Libraries\n\n| SONAME | exported symbols |\n|---|---|")
    declared, members = {}, {}
    for library in libraries:
        print(f"| `{library.soname}` | {library.symbol_count} |")
        declared.update(library.slots)
        members.update(library.members)
    with open(classes, encoding="utf-8") as dump:
        print_classes(dump.read(), declared, members)
    print(
        "\n## Exported symbols\n\n"
        "Constructors and destructors have two or three symbols each under one name."
    )
    for library in libraries:
        print(f"\n### `{library.soname}`\n\n```text")
        print("\n".join(library.functions))
        if library.classes:
            print("```\n\nType information and virtual tables of\n\n```text")
            print("\n".join(library.classes))
        print("```")


if __name__ == "__main__":
    main()
