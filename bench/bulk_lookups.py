"""Programs that look the same addresses up in one directory, in turn: the tool, its peers, raw calls.

Every answer is compared with what it must be.
"""

import os
import queue
import resource
import shutil
import socket
import subprocess
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
DEADLINE = 600  # seconds for one run of a program
BASE = "ou=people,dc=corp,dc=test"
READER = "cn=reader,dc=corp,dc=test"
PASSWORD = "reader-pw"
# What is asked for: the number in the address, so that every answer is known.
ATTRIBUTE = "employeeNumber"


class DelayProxy:
    """Passes bytes between its clients and a server, each on its way for a fixed time."""

    def __init__(self, port, seconds):
        self._server = ("127.0.0.1", port)
        self._seconds = seconds
        self._listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            client, _ = self._listener.accept()
            server = socket.create_connection(self._server)
            for end in (client, server):
                end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._relay(client, server)
            self._relay(server, client)

    def _relay(self, source, target):
        underway = queue.SimpleQueue()

        def receive():
            while True:
                try:
                    data = source.recv(65536)
                except OSError:
                    data = b""
                underway.put((time.monotonic() + self._seconds, data))
                if not data:
                    return

        def send():
            while True:
                due, data = underway.get()
                time.sleep(max(0, due - time.monotonic()))
                try:
                    if not data:
                        target.shutdown(socket.SHUT_WR)
                        return
                    target.sendall(data)
                except OSError:
                    return

        threading.Thread(target=receive, daemon=True).start()
        threading.Thread(target=send, daemon=True).start()


class WrongAnswer(Exception):
    """A figure would be one of wrong answers."""


class Keys:
    """Addresses, and what each must be answered with."""

    def __init__(self, count, users):
        self.addresses = [f"user{number % users + 1:07d}@corp.test" for number in range(count)]
        self.text = "".join(address + "\n" for address in self.addresses).encode()
        self.answers = [[address, str(int(address[4:11]))] for address in self.addresses]


def pairs(output):
    """Of lines with an address, a tab and a value."""
    return [line.split("\t")[:2] for line in output.decode().splitlines()]


def ldif_values(output):
    """Of LDIF, in the order of the addresses."""
    prefix = ATTRIBUTE + ": "
    return [line[len(prefix) :] for line in output.decode().splitlines() if line.startswith(prefix)]


class Programs:
    """Each method runs one program over all keys and gives a turn: seconds and processor time."""

    def __init__(self, build, folder):
        self._build = build
        self._folder = folder
        self._password = self._write("password", PASSWORD)
        self._write(
            "main.cf",
            "compatibility_level = 3.6\n"
            f"queue_directory = {folder}\ndata_directory = {folder}\n",
        )
        self._write("master.cf", "")

    def _write(self, name, text):
        path = os.path.join(self._folder, name)
        with open(path, "w", encoding="ascii") as opened:
            opened.write(text)
        os.chmod(path, 0o600)
        return path

    @staticmethod
    def _turn(command, keys, read=pairs, expected=None):
        cpu = resource.getrusage(resource.RUSAGE_CHILDREN)
        start = time.monotonic()
        done = subprocess.run(
            command, input=keys.text, stdout=subprocess.PIPE, timeout=DEADLINE, check=False
        )
        seconds = time.monotonic() - start
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        if read(done.stdout) != (keys.answers if expected is None else expected):
            raise WrongAnswer(f"{command[0]} gave a wrong answer (exit {done.returncode})")
        return {
            "operations": len(keys.addresses),
            "seconds": seconds,
            "cpu": after.ru_utime + after.ru_stime - cpu.ru_utime - cpu.ru_stime,
        }

    def tool(self, port, keys, *options):
        return self._turn(
            [
                os.path.join(self._build, "tool", "solvane-ldap"),
                "lookup",
                "-H",
                f"ldap://127.0.0.1:{port}",
                "-D",
                READER,
                "-y",
                self._password,
                "-b",
                BASE,
                "-t",
                "(mail=$m)",
                "--attrs",
                ATTRIBUTE,
                "--format",
                "tsv",
                *options,
                "-f",
                "-",
            ],
            keys,
        )

    def postmap(self, port, keys):
        table = self._write(
            "table.cf",
            f"server_host = ldap://127.0.0.1:{port}\nversion = 3\n"
            f"search_base = {BASE}\nquery_filter = (mail=%s)\n"
            f"result_attribute = {ATTRIBUTE}\nbind = yes\n"
            f"bind_dn = {READER}\nbind_pw = {PASSWORD}\n",
        )
        return self._turn(["postmap", "-c", self._folder, "-q", "-", "ldap:" + table], keys)

    def ldapsearch(self, port, keys):
        return self._turn(
            [
                "ldapsearch",
                "-x",
                "-LLL",
                "-H",
                f"ldap://127.0.0.1:{port}",
                "-D",
                READER,
                "-y",
                self._password,
                "-b",
                BASE,
                "-f",
                "-",
                "(mail=%s)",
                ATTRIBUTE,
            ],
            keys,
            ldif_values,
            [value for _, value in keys.answers],
        )

    def _peer(self, command, port, keys):
        return self._turn(
            [*command, f"ldap://127.0.0.1:{port}", READER, PASSWORD, BASE, ATTRIBUTE], keys
        )

    def raw(self, port, keys):
        program = os.path.join(self._build, "bench", "solvane_bench_raw_lookups")
        return self._peer([program], port, keys)

    def python_ldap(self, port, keys):
        return self._peer([os.path.join(HERE, "peers", "python_ldap.py")], port, keys)

    def net_ldap(self, port, keys):
        return self._peer([os.path.join(HERE, "peers", "net_ldap.pl")], port, keys)

    def go_ldap(self, port, keys):
        return self._peer([os.path.join(self._folder, "go_ldap")], port, keys)


def build_go(name, folder):
    """Builds bench/peers/NAME; whether the Go compiler and go-ldap, as Debian packages them, are at hand."""
    if shutil.which("go") is None:
        return False
    environment = dict(
        os.environ,
        GO111MODULE="off",
        GOPATH="/usr/share/gocode",
        GOCACHE=os.path.join(folder, "go-cache"),
        GOFLAGS="-buildvcs=false",
    )
    source = os.path.join(HERE, "peers", name, "main.go")
    command = ["go", "build", "-o", os.path.join(folder, name), source]
    done = subprocess.run(command, env=environment, stderr=subprocess.DEVNULL, check=False)
    return done.returncode == 0


def compare(row, rounds, contenders, record):
    """Each contender's turns, in an order that changes; record takes what each turn gave."""
    for number in range(rounds):
        for turn in range(len(contenders)):
            name, work = contenders[(turn + number) % len(contenders)]
            record({"row": row, "contender": name, "size": 0, "round": number, **work()})
