"""Programs that read every entry of one search, in turn: the library's stream, its peers, raw calls."""

import os
import shutil
import subprocess

from bulk_lookups import BASE, DEADLINE, HERE, PASSWORD, READER, WrongAnswer, build_go

FILTER = "(objectClass=inetOrgPerson)"


def entries_of_ldif(text):
    return sum(line.startswith(b"dn:") for line in text.splitlines())


def turn_of(measured, entries):
    """What bench/peers/peak wrote, as a record: an operation is an entry."""
    seconds, cpu, kilobytes = measured.split()
    return {
        "operations": entries,
        "seconds": float(seconds),
        "cpu": float(cpu),
        "peak": int(kilobytes) / 1000,
    }


class Programs:
    """Each method runs one program and gives a turn: seconds, processor time, peak memory in MB."""

    def __init__(self, build, folder, port, users):
        self._build = os.path.join(build, "bench")
        self._folder = folder
        self._port = port
        self._users = users

    def _turn(self, command, count):
        measured = os.path.join(self._folder, "peak")
        output = os.path.join(self._folder, "streamed")
        with open(output, "wb") as opened:
            subprocess.run(
                [os.path.join(self._build, "solvane_bench_peak"), measured, *command],
                stdout=opened,
                timeout=DEADLINE,
                check=True,
            )
        with open(output, "rb") as opened:
            entries = count(opened.read())
        os.unlink(output)
        if entries != self._users:
            raise WrongAnswer(f"{command[0]} read {entries} entries of {self._users}")
        with open(measured, encoding="ascii") as opened:
            return turn_of(opened.read(), entries)

    def _uri(self):
        return f"ldap://127.0.0.1:{self._port}"

    def _peer(self, *command):
        return self._turn([*command, self._uri(), READER, PASSWORD, BASE, FILTER], int)

    def raw(self):
        return self._peer(os.path.join(self._build, "solvane_bench_raw_stream"))

    def python_ldap(self):
        return self._peer(os.path.join(HERE, "peers", "python_ldap_stream.py"))

    def go_ldap(self):
        return self._peer(os.path.join(self._folder, "go_ldap_stream"))

    def library(self, page_size=0):
        program = os.path.join(self._build, "solvane_bench_stream")
        connection = ["127.0.0.1", str(self._port), READER, PASSWORD]
        return self._turn([program, *connection, BASE, FILTER, str(page_size)], int)

    def ldapsearch(self):
        options = ["-x", "-LLL", "-H", self._uri(), "-D", READER, "-w", PASSWORD, "-b", BASE]
        return self._turn(["ldapsearch", *options, FILTER], entries_of_ldif)

    def contenders(self):
        """Names and methods. python-ldap and go-ldap are missing where they are not installed."""
        named = [
            ("raw", self.raw),
            ("raw again", self.raw),
            ("stream", self.library),
            ("stream, pages", lambda: self.library(1000)),
            ("ldapsearch", self.ldapsearch),
        ]
        python = shutil.which("python3", path="/usr/bin")
        if (
            python is not None
            and not subprocess.run(
                [python, "-c", "import ldap"], stderr=subprocess.DEVNULL, check=False
            ).returncode
        ):
            named.append(("python-ldap", self.python_ldap))
        if build_go("go_ldap_stream", self._folder):
            named.append(("go-ldap", self.go_ldap))
        return named
