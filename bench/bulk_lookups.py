#!/usr/bin/env python3
"""Bulk lookups of the tool beside those of postmap, over one directory, in one run.

Usage: bulk_lookups.py SOLVANE_LDAP TESTBED [--users N] [--keys N] [--rounds N]

Starts a throwaway slapd on loopback, asks both programs for the same keys in turn, and prints rates
and ratios: medians over the rounds, with the least and the greatest. The first row compares postmap
with itself and shows what is noise. Then the same through a proxy that takes 2.5 ms each way. Every
answer is compared with what it must be. Ends with 1 where a ratio misses its target.
"""

import argparse
import os
import queue
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

DEADLINE = 600  # seconds for one run of a program
BASE = "ou=people,dc=corp,dc=test"
READER = "cn=reader,dc=corp,dc=test"
PASSWORD = "reader-pw"


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


class Bench:
    """The programs, and the directory that they ask."""

    def __init__(self, tool, folder):
        self._tool = tool
        self._folder = folder
        self._password = self._write("password", PASSWORD + "\n")
        self._write("main.cf", "compatibility_level = 3.6\n"
                    f"queue_directory = {folder}\ndata_directory = {folder}\n")
        self._write("master.cf", "")

    def _write(self, name, text):
        path = os.path.join(self._folder, name)
        with open(path, "w", encoding="ascii") as opened:
            opened.write(text)
        os.chmod(path, 0o600)
        return path

    def _time(self, command, keys, expected):
        start = time.monotonic()
        done = subprocess.run(command, input="".join(key + "\n" for key in keys).encode(),
                              stdout=subprocess.PIPE, timeout=DEADLINE, check=False)
        seconds = time.monotonic() - start
        answers = [line.split("\t")[:2] for line in done.stdout.decode().splitlines()]
        if answers != expected:
            sys.exit(f"bulk_lookups: {command[0]} gave a wrong answer (exit {done.returncode})")
        return len(keys) / seconds

    def postmap(self, port, keys, expected):
        table = self._write("table.cf", f"server_host = ldap://127.0.0.1:{port}\nversion = 3\n"
                            f"search_base = {BASE}\nquery_filter = (mail=%s)\n"
                            "result_attribute = employeeNumber\nbind = yes\n"
                            f"bind_dn = {READER}\nbind_pw = {PASSWORD}\n")
        command = ["postmap", "-c", self._folder, "-q", "-", "ldap:" + table]
        return self._time(command, keys, expected)

    def solvane(self, port, keys, expected, *options):
        command = [self._tool, "lookup", "-H", f"ldap://127.0.0.1:{port}", "-D", READER, "-y",
                   self._password, "-b", BASE, "-t", "(mail=$m)", "--attrs", "employeeNumber",
                   "--format", "tsv", *options, "-f", "-"]
        return self._time(command, keys, expected)


def startDirectory(testbed, folder, users):
    directory = os.path.join(folder, "slapd")
    subprocess.run([os.path.join(testbed, "slapd-start"), directory, "--users", str(users),
                    "--owner", str(os.getpid())],
                   check=True, stdout=subprocess.DEVNULL)
    with open(os.path.join(directory, "server.env"), encoding="utf-8") as settings:
        values = dict(line.strip().split("=", 1) for line in settings if "=" in line)
    return directory, int(values["LDAP_PORT"])


def expectedAnswers(keys):
    """The attribute that is asked for is the number in the address."""
    return [[key, str(int(key[4:11]))] for key in keys]


failures = 0


def compare(name, target, rounds, ours, theirs):
    """Prints a row: the ratio of two rates, measured in turn."""
    global failures
    ratios, ourRates, theirRates = [], [], []
    for number in range(rounds):
        # The order changes, so that neither always comes first.
        if number % 2 == 0:
            mine, other = ours(), theirs()
        else:
            other, mine = theirs(), ours()
        ourRates.append(mine)
        theirRates.append(other)
        ratios.append(mine / other)
    ratio = statistics.median(ratios)
    verdict = ""
    if target is not None:
        verdict = f">= {target:<5} {'met' if ratio >= target else 'MISSED'}"
        failures += ratio < target
    print(f"{name:<44} {statistics.median(ourRates):>8.0f} {statistics.median(theirRates):>8.0f} "
          f"{ratio:>7.2f} ({min(ratios):.2f} to {max(ratios):.2f})  {verdict}", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("tool")
    parser.add_argument("testbed")
    parser.add_argument("--users", type=int, default=10000)
    parser.add_argument("--keys", type=int, default=10000)
    parser.add_argument("--rounds", type=int, default=7)
    arguments = parser.parse_args()
    os.environ["LDAPNOINIT"] = "1"

    folder = tempfile.mkdtemp(prefix="solvane-bench-")
    directory = None
    try:
        directory, port = startDirectory(arguments.testbed, folder, arguments.users)
        bench = Bench(arguments.tool, folder)
        keys = [f"user{number % arguments.users + 1:07d}@corp.test"
                for number in range(arguments.keys)]
        expected = expectedAnswers(keys)
        bench.solvane(port, keys, expected)  # warms the server's caches

        print(f"{arguments.keys} keys, {arguments.users} users, {arguments.rounds} rounds, "
              f"{os.cpu_count()} CPUs; keys a second, medians\n")
        print(f"{'':<44} {'ours':>8} {'theirs':>8} {'ratio':>7}")
        postmap = lambda: bench.postmap(port, keys, expected)
        compare("postmap beside postmap (noise)", None, arguments.rounds, postmap, postmap)
        compare("-j 1 --window 1 beside postmap", 1.0, arguments.rounds,
                lambda: bench.solvane(port, keys, expected, "-j", "1", "--window", "1"), postmap)
        compare("defaults beside postmap", 1.6, arguments.rounds,
                lambda: bench.solvane(port, keys, expected), postmap)

        far = DelayProxy(port, 0.0025).port
        few, fewExpected = keys[:200], expected[:200]
        compare("defaults beside postmap, 5 ms round trip", 50, 3,
                lambda: bench.solvane(far, keys, expected),
                lambda: bench.postmap(far, few, fewExpected))
    finally:
        if directory is not None:
            subprocess.run([os.path.join(arguments.testbed, "slapd-stop"), directory],
                           check=False, stdout=subprocess.DEVNULL)
        shutil.rmtree(folder, ignore_errors=True)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
