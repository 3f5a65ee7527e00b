"""What gdb prints for the library's objects: for a handle, what its body says; never a password.

    (gdb) source support/gdb/solvane.py
    (gdb) print connection
    $1 = connection to ldap://[127.0.0.1]:389/ as "cn=reader,dc=corp,dc=test", in use, 2 handles

Reads memory alone and calls nothing in the program, so it serves for core files too. The library must have
been built with debug information. `print/r` prints an object without it.
"""

import sys

import gdb
import gdb.printing

LONGEST = 200  # characters of a text


def quoted(data, longest=LONGEST):
    """Bytes as text on one line, with non-ASCII bytes escaped so that every locale can print them."""

    def shown(byte):
        return chr(byte) if 0x20 <= byte < 0x7F and byte not in b'"\\' else f"\\x{byte:02x}"

    return '"' + "".join(map(shown, data[:longest])) + '"' + ("..." if len(data) > longest else "")


def bytes_of(string):
    """The bytes of a std::string."""
    length = int(string["_M_string_length"])
    return (
        bytes(gdb.selected_inferior().read_memory(int(string["_M_dataplus"]["_M_p"]), length))
        if length
        else b""
    )


def elements(values):
    """The elements of a std::list."""
    # A node begins with the pointers to its neighbours; the element is behind them.
    kind = values.type.strip_typedefs().template_argument(0)
    links = gdb.lookup_type("std::__detail::_List_node_base")
    head = values["_M_impl"]["_M_node"].address.cast(links.pointer())
    node = head["_M_next"]
    while int(node) != int(head):
        yield gdb.Value(int(node) + links.sizeof).cast(kind.pointer()).dereference()
        node = node.dereference()["_M_next"]


def whole(pointer):
    """The object behind a pointer to a part of it."""
    return pointer.cast(pointer.dereference().dynamic_type.pointer()).dereference()


def body_of(handle):
    """The body of a handle with its dynamic type, or None."""
    counted = handle["m_impl"]["m_counted"]
    if int(counted) == 0 or int(counted["m_body"]) == 0:
        return None
    return whole(counted["m_body"])


def handles(body):
    """How many handles share a body."""
    count = int(body["m_count"]["_M_i"])
    return f"{count} handle{'' if count == 1 else 's'}"


def credential(string):
    """Whether a password is set; never the password."""
    return "<set>" if int(string["_M_string_length"]) else "<empty>"


def buffer_text(buffer):
    """A buffer's bytes, quoted."""
    return quoted(bytes_of(buffer["m_bytes"]))


def type_text(handle):
    """An attribute description as text."""
    body = body_of(handle)
    if body is None:
        return b"(null handle)"
    return b";".join(
        [bytes_of(body["m_type"]), *(bytes_of(option) for option in elements(body["m_options"]))]
    )


def tokens(semaphore):
    """How many tokens a semaphore has: in the C library, the lower half of its first eight bytes."""
    start = int(semaphore["m_semaphore"].address)
    return int.from_bytes(gdb.selected_inferior().read_memory(start, 8), sys.byteorder) & 0xFFFFFFFF


def server_uri(pointer):
    """The URI of a shared server description."""
    server = pointer["px"]
    return (
        bytes_of(server["uri"]["m_text"]).decode(errors="replace") if int(server) else "no server"
    )


class Printer:
    """Prints one value; gdb calls `to_string` and, for what is inside, `children`."""

    def __init__(self, value):
        self.value = value


class Uri(Printer):
    """A URI, quoted: "ldap://[127.0.0.1]:389/"."""

    def to_string(self):
        return quoted(bytes_of(self.value["m_text"]))


class Buffer(Printer):
    """The length and the bytes: 5 bytes "hello"."""

    def to_string(self):
        length = int(self.value["m_bytes"]["_M_string_length"])
        return f"{length} byte{'' if length == 1 else 's'} {buffer_text(self.value)}"


class Counter(Printer):
    """The number alone."""

    def to_string(self):
        return str(int(self.value["m_value"]["_M_i"]))


class AttributeType(Printer):
    """The description, quoted: "cn;lang-en"."""

    def to_string(self):
        return "null handle" if body_of(self.value) is None else quoted(type_text(self.value))


class Attribute(Printer):
    """A description, and its values as children."""

    def to_string(self):
        body = body_of(self.value)
        return "null handle" if body is None else f"attribute {quoted(type_text(body['m_type']))}"

    def children(self):
        body = body_of(self.value)
        if body is not None:
            for index, value in enumerate(elements(body["m_values"])):
                yield f"[{index}]", value

    def display_hint(self):
        return "array"


class AttributeContainer(Printer):
    """The number of attributes, and the attributes as children."""

    def to_string(self):
        body = body_of(self.value)
        if body is None:
            return "null handle"
        count = int(body["m_attributes"]["_M_impl"]["_M_node"]["_M_size"])
        return f"{count} attribute{'' if count == 1 else 's'}"

    def children(self):
        body = body_of(self.value)
        if body is not None:
            for index, attribute in enumerate(elements(body["m_attributes"])):
                yield f"[{index}]", attribute

    def display_hint(self):
        return "array"


class Entry(Printer):
    """The DN: entry "cn=a,dc=example"; and its attributes as children."""

    def to_string(self):
        return f"entry {quoted(bytes_of(self.value['m_entryName']))}"

    def children(self):
        yield from AttributeContainer(self.value["m_attributes"]).children()

    def display_hint(self):
        return "array"


class Result(Printer):
    """What was answered so far, and its entries as children."""

    KINDS = (
        "nothing yet",
        "bind",
        "search entry",
        "search reference",
        "search",
        "modify",
        "add",
        "delete",
        "modify DN",
        "compare",
        "extended",
    )

    def to_string(self):
        body = body_of(self.value)
        if body is None:
            return "null handle: nothing has been answered"
        text = bytes_of(body["m_errorMessage"])
        return (
            f"result: {self.KINDS[int(body['m_resultType'])]}, code {int(body['m_resultCode'])}"
            + (f" {quoted(text)}" if text else "")
            + f", {handles(body)}"
        )

    def children(self):
        body = body_of(self.value)
        if body is not None:
            for index, entry in enumerate(elements(body["m_searchResultEntries"])):
                yield f"[{index}]", entry

    def display_hint(self):
        return "array"


class Connection(Printer):
    """Server, bind DN, state and handles: connection to ldap://... as "cn=a", in use, 2 handles."""

    def to_string(self):
        body = body_of(self.value)
        if body is None:
            return "null handle"
        dn = bytes_of(body["m_bindDn"])
        parts = [
            f"connection to {server_uri(body['m_server'])}" + (f" as {quoted(dn)}" if dn else "")
        ]
        if bool(body["m_sessionEnded"]):
            parts.append("session ended")
        if tokens(body["m_available"]) == 0:
            parts.append("in use")
        if int(body["m_openldapErrorCode"]):
            parts.append(f"error {int(body['m_openldapErrorCode'])}")
        return ", ".join([*parts, handles(body)])


class RefServer(Printer):
    """The URI alone: server ldap://[127.0.0.1]:389/."""

    def to_string(self):
        return f"server {server_uri(self.value)}"


class Request(Printer):
    """LDAPSearchImpl with message id 3, 1 handle; its connection, result and contents as children."""

    def to_string(self):
        body = body_of(self.value)
        if body is None:
            return "null handle"
        kind = str(body.type.strip_typedefs()).rpartition("::")[2]
        return f"{kind} with message id {int(body['m_id'])}, {handles(body)}"

    def children(self):
        body = body_of(self.value)
        if body is not None:
            yield "connection", body["m_connection"]
            for name in ("m_result", "m_name", "m_attributes"):
                if any(field.name == name for field in body.type.fields()):
                    yield name[2:], body[name]


class Failure(Printer):
    """An exception: code, type, place and text."""

    def to_string(self):
        value = self.value
        text = f"{bytes_of(value['m_name']).decode(errors='replace')} code {int(value['m_code'])}"
        if any(field.name == "m_type" for field in value.type.strip_typedefs().fields()):
            text += f", type {int(value['m_type'])}"
        file = bytes_of(value["m_fileName"]).decode(errors="replace")
        if file:
            text += f" at {file}:{int(value['m_lineNumber'])}"
        detail = bytes_of(value["m_stringParameter"])
        if detail:
            text += f": {quoted(detail)}"
        if int(value["m_cause"]["_M_ptr"]):
            text += ", with a cause"
        return text

    def children(self):
        cause = self.value["m_cause"]["_M_ptr"]
        if int(cause):
            yield "cause", whole(cause)


class WithCredential(Printer):
    """Every member as it is, but for the password."""

    def children(self):
        kind = self.value.type.strip_typedefs()
        for field in kind.fields():
            if hasattr(field, "bitpos") and not field.artificial and not field.is_base_class:
                member = self.value[field.name]
                hidden = field.name in ("m_bindPassword", "password")
                yield field.name, credential(member) if hidden else member


PRINTERS = {
    "Uri": Uri,
    "Buffer": Buffer,
    "Counter": Counter,
    "LDAPAttributeType": AttributeType,
    "LDAPAttribute": Attribute,
    "LDAPAttributeContainer": AttributeContainer,
    "LDAPSearchResultEntry": Entry,
    "LDAPResult": Result,
    "LDAPConnection": Connection,
    "LDAPConnection::RefServer": RefServer,
    "(LDAPRequest|LDAPSearch|LDAPAdd|LDAPOperation)": Request,
    "LDAP(BinaryAdd|Compare|Delete|Extended|Modify|Rename|SearchStream)": Request,
    "(LDAP)?Exception": Failure,
    "(LDAPConnectionImpl|_LDAPQuery|LDAPLookup::Settings)": WithCredential,
}


class Printers(gdb.printing.RegexpCollectionPrettyPrinter):
    """Steps aside where memory or debug information is missing: gdb then prints what it knows itself."""

    def __call__(self, value):
        printer = super().__call__(value)
        try:
            if hasattr(printer, "to_string"):
                printer.to_string()
        except gdb.error:
            return None
        return printer


def register():
    printers = Printers("solvane-ldap")
    for name, printer in PRINTERS.items():
        printers.add_printer(name, f"^Solvane::{name}$", printer)
    gdb.printing.register_pretty_printer(gdb.current_objfile(), printers, replace=True)


register()
