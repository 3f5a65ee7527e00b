#!/usr/bin/env python3
"""report.py FOLDER [--write]: tables of what the tests measured on each server.

FOLDER holds, for each kind of server, KIND.json (GoogleTest's report) and KIND.name (its name and version,
a line each), as scripts/test-servers leaves them. Prints the tables; --write puts them into
docs/guide/servers.md and docs/reliability.md, between the lines "<!-- servers -->" and "<!-- /servers -->".
Ends with 1 where a test failed.
"""

import argparse
import json
import pathlib
import re
import sys

KINDS = ("slapd", "389", "samba")
TOP = pathlib.Path(__file__).resolve().parents[2]
ABSENT = "–"


def suite_of(test):
    """Without the name of the instantiation, as in "Ways/LookupByAWay"."""
    return test["classname"].rpartition("/")[2]


class Server:
    """What the tests found out about a server."""

    def __init__(self, folder, kind):
        name, self.version = (folder / f"{kind}.name").read_text().splitlines()
        self.name = name
        report = json.loads((folder / f"{kind}.json").read_text())
        self.tests = [test for suite in report["testsuites"] for test in suite["testsuite"]]
        self.measured = {}
        for test in self.tests:
            self.measured.update(test)

    def counts(self, suite=None):
        """Tests run, and those of them that passed; skipped ones count as neither."""
        run = [
            test
            for test in self.tests
            if test["result"] == "COMPLETED" and suite in (None, suite_of(test))
        ]
        return len(run), sum("failures" not in test for test in run)

    def suites(self):
        return list(dict.fromkeys(suite_of(test) for test in self.tests))

    def __getitem__(self, name):
        return self.measured.get(name, "")


def shown(text):
    """As a cell of a table."""
    return str(text).strip(" :").replace("|", r"\|") or ABSENT


def code(name, good, text=None):
    """A cell for a result code, with the server's own text."""

    def cell(server):
        if server[name] == "":
            return ABSENT
        if int(server[name]) == 0:
            return good
        words = shown(server[text]) if text else ABSENT
        return f"code {server[name]}" + ("" if words == ABSENT else f": {words}")

    return cell


def plain(name, quoted=False):
    def cell(server):
        text = shown(server[name])
        return f"`{text}`" if quoted and text != ABSENT else text

    return cell


def limit(name):
    def cell(server):
        entries = server[f"{name}_entries"]
        return (
            f"code {server[name]} after {entries} entries"
            if int(server[name])
            else f"none: all {entries} entries"
        )

    return cell


def denial(state):
    """A cell for the right password of a person in this state."""
    return code(f"denied_{state}", "accepted, for the change only", f"denied_{state}_text")


UNSUPPORTED, CLOSED = (2, 12), -2


def request(name, good="supported", other=None):
    """A cell for a request or a critical control. good: words for code 0; other: for further codes that
    are no refusal."""

    def cell(server):
        if server[name] == "":
            return ABSENT
        answer = int(server[name])
        if answer in {0: good, **(other or {})}:
            return {0: good, **(other or {})}[answer]
        if answer == CLOSED:
            return "not supported: closes the connection"
        return f"not supported: code {answer}" if answer in UNSUPPORTED else f"code {answer}"

    return cell


def check(server):
    warned = server["check_who_am_i"] == "warning"
    return f'exit status {server["check"]}' + (', "who am I" a warning' if warned else "")


DIFFERENCES = (
    (
        "names to bind with, beside the DN",
        lambda server: ", ".join(f"`{name}`" for name in server["other_bind_names"].split())
        or ABSENT,
    ),
    ("password without TLS", code("plain_bind", "accepted", "plain_bind_text")),
    ("wrong password", code("wrong_password", "", "wrong_password_text")),
    ("account locked after wrong passwords", denial("guessed")),
    ("account locked by the administrator", denial("inactive")),
    ("expired password", denial("expired")),
    ("password that must be changed", denial("reset")),
    ("bind of protocol version 2", code("version_2", "accepted")),
    ("search without a bind", code("anonymous_search", "answered", "anonymous_search_text")),
    (
        '"Who am I?"',
        lambda server: f'`{server["who_am_i"]}`'
        if server["who_am_i"]
        else "not supported: `Unconfirmed`",
    ),
    ("7 entries, the search limited to 5", limit("client_limit")),
    ("all people; the first two are set to 500", limit("server_limit")),
    ("references in a search from the top", plain("references_from_the_top")),
    ("base search of a referral entry", code("at_referral_entry", "a reference, code 0")),
    ("missing base: what it says exists", plain("missing_base_matched", quoted=True)),
    ("request for types without values", plain("types_only")),
    ("add of `description;lang-fr`", code("language_option", "stored")),
    ("a person's certificate", plain("certificate", quoted=True)),
    ("add of `userCertificate;binary`", code("binary_option", "stored")),
    ("add with an unknown type", code("undefined_type", "stored")),
    ("modify with an increment", request("increment")),
    ("rename that keeps the values of the old name", request("keep_old_rdn")),
    ("compare with an attribute that the entry lacks", request("compare_missing")),
    ("change of a password (RFC 3062), by the administrator", request("passwd")),
    ("the same by the user, with a wrong old password", request("passwd_wrong")),
    ("cancel (RFC 3909)", request("cancel", other={119: "supported"})),
    (
        "unknown critical control",
        request("control_unknown", other={12: "code 12", CLOSED: "closes the connection"}),
    ),
    ("control: pages, in a stream", lambda server: "supported" if server["pages"] else ABSENT),
    ("control: sort", request("control_sort")),
    ("control: assertion", request("control_assertion", other={122: "supported"})),
    ("control: pre-read", request("control_pre_read")),
    ("control: post-read", request("control_post_read")),
    (
        "control: proxied authorization, as a user without rights",
        request("control_proxy", other={50: "supported: code 50"}),
    ),
    ("control: ManageDsaIT", request("control_manage")),
    ("control: subentries", request("control_subentries")),
    ("control: password policy", request("control_policy")),
    ("TLS", plain("tls")),
    ("`check` with `ldaps://`", check),
    ("`check` with `ldap://`", lambda server: f'exit status {server["check_without_tls"]}'),
    ("`apply --pre-read`, and its undo", lambda server: f'exit status {server["apply_undo"]}'),
)


WAYS = (
    ("PLAIN", "plain"),
    ("LDAPS", "`ldaps://`"),
    ("STARTTLS", "StartTLS"),
    ("LDAPI", "`ldapi://`"),
)
IDENTITIES = (
    ("nobody", "no bind"),
    ("reader", "password"),
    ("external", "SASL EXTERNAL"),
    ("gssapi", "SASL GSSAPI"),
)


NOT_SENT = -9  # the session refuses, as there is no client certificate


def way(name):
    """A cell for a lookup by one way in, as one identity."""

    def cell(server):
        if server[name] == "":
            return ABSENT
        if int(server[name]) == NOT_SENT:
            return "not possible"
        if int(server[name]) == 0:
            identity = shown(server[f"{name}_identity"])
            return "answered" if identity == ABSENT else f"as `{identity}`"
        words = shown(server[f"{name}_text"])
        return f"code {server[name]}" + ("" if words == ABSENT else f": {words}")

    return cell


def ways():
    return [
        (f"{way_text}, {identity_text}", way(f"way_{way_name}_{identity_name}"))
        for way_name, way_text in WAYS
        for identity_name, identity_text in IDENTITIES
    ]


def table(servers, rows):
    lines = [["", *(server.name for server in servers)], ["---"] * (len(servers) + 1)]
    lines += [[label, *(cell(server) for server in servers)] for label, cell in rows]
    return "".join(f'| {" | ".join(line)} |\n' for line in lines).replace("|  |", "| |")


def passed(suite=None):
    return lambda server: "{1} of {0} passed".format(*server.counts(suite))


def replace(path, text):
    """Puts text between the markers of a file."""
    old = path.read_text()
    new, count = re.subn(
        r"(?<=<!-- servers -->\n).*?(?=<!-- /servers -->)",
        lambda _: f"\n{text}\n",
        old,
        flags=re.DOTALL,
    )
    if not count:
        sys.exit(f'report.py: {path.name} has no lines "<!-- servers -->" and "<!-- /servers -->"')
    path.write_text(new)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--write", action="store_true", help="write the tables into the documents")
    arguments = parser.parse_args()
    servers = [
        Server(arguments.folder, kind)
        for kind in KINDS
        if (arguments.folder / f"{kind}.json").exists()
    ]
    if not servers or arguments.write and len(servers) < len(KINDS):
        sys.exit("report.py: not all servers were tested")

    version = ("version", lambda server: server.version)
    differences = table(servers, [version, ("tests", passed()), *DIFFERENCES])
    in_ways = table(servers, ways())
    suites = table(
        servers,
        [version, *((suite, passed(suite)) for suite in servers[0].suites()), ("all", passed())],
    )
    if arguments.write:
        replace(TOP / "docs/guide/servers.md", f"{differences}\n{in_ways}")
        if (TOP / "docs/reliability.md").exists():
            replace(
                TOP / "docs/reliability.md",
                f"{suites}\nHow they differ: [Directory servers](guide/servers.md#what-differs).\n",
            )
    print(differences)
    print(in_ways)
    print(suites)
    sys.exit(any(run != good for run, good in (server.counts() for server in servers)))


main()
