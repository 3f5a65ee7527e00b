#!/usr/bin/env python3
"""Measures everything and writes the records, for report.py to read.

Usage: run.py BUILD TESTBED OUTPUT [--quick] [--rounds N]

Starts a throwaway slapd on loopback and stops it again. With the client and the server on one
processor where the machine's wake-ups would hide the library's work; free where both are to run at a
time. BUILD is where the preset "bench" was built.
"""

import argparse
import contextlib
import json
import os
import platform
import shutil
import subprocess
import sys
import tempfile
import time

import bulk_lookups
import service_lookups
import streams

PINNED, FREE = "pinned", "free"


class Scale:
    """How much is measured: under 20 minutes, or under three."""

    def __init__(self, is_quick, rounds):
        self.users = 10000 if is_quick else 100000
        self.rounds = rounds or (3 if is_quick else 15)
        self.few_rounds = rounds or (3 if is_quick else 9)  # of what takes seconds
        self.block = 0.05 if is_quick else 0.25
        self.keys = 2000 if is_quick else 10000
        self.process_keys = 50 if is_quick else 200  # of each of 100 processes
        self.far_keys = 50 if is_quick else 200
        self.repetitions = rounds or (3 if is_quick else 9)
        self.micro_seconds = 0.01 if is_quick else 0.05
        self.growth_options = ["--quick"] if is_quick else []


class Directory:
    """A slapd of our own."""

    def __init__(self, testbed, folder, users):
        self._testbed = testbed
        self._folder = os.path.join(folder, "slapd")
        subprocess.run(
            [
                os.path.join(testbed, "slapd-start"),
                self._folder,
                "--users",
                str(users),
                "--sizelimit",
                "unlimited",
                "--owner",
                str(os.getpid()),
            ],
            check=True,
            stdout=subprocess.DEVNULL,
        )
        with open(os.path.join(self._folder, "server.env"), encoding="utf-8") as settings:
            values = dict(line.strip().split("=", 1) for line in settings if "=" in line)
        self.port, self.secure_port = int(values["LDAP_PORT"]), int(values["LDAPS_PORT"])
        self.ca_file = values["CA_FILE"]
        self._process = int(values["SERVER_PID"])

    def stop(self):
        subprocess.run(
            [os.path.join(self._testbed, "stop"), self._folder],
            check=False,
            stdout=subprocess.DEVNULL,
        )

    @contextlib.contextmanager
    def sharing(self, mode):
        """With the server and this program's children on one processor, or on all."""
        everywhere = os.sched_getaffinity(0)
        self._run_on({max(everywhere)} if mode == PINNED else everywhere)
        try:
            yield
        finally:
            self._run_on(everywhere)

    def _run_on(self, processors):
        os.sched_setaffinity(0, processors)
        for thread in os.listdir(f"/proc/{self._process}/task"):
            os.sched_setaffinity(int(thread), processors)


class Output:
    """The folder of the records."""

    def __init__(self, folder):
        self._folder = folder
        os.makedirs(folder, exist_ok=True)

    def path(self, name):
        return os.path.join(self._folder, name)

    def write(self, name, text):
        with open(self.path(name), "w", encoding="utf-8") as opened:
            opened.write(text)

    @contextlib.contextmanager
    def recording(self, name):
        with open(self.path(name), "w", encoding="utf-8") as opened:
            yield lambda turn: print(json.dumps(turn), file=opened, flush=True)


def first_line(*command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    lines = done.stdout.decode().splitlines()
    return lines[0] if lines else ""


def debian_version(package):
    """Empty if the package is not installed."""
    command = ["dpkg-query", "-W", "-f=${Version}", package]
    return subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False
    ).stdout


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        model = next(
            (line.split(":", 1)[1].strip() for line in info if line.startswith("model name")),
            platform.machine(),
        )
    return {
        "processors": len(os.sched_getaffinity(0)),
        "model": model,
        "kernel": platform.release(),
        "compiler": first_line("c++", "--version"),
        "date": time.strftime("%Y-%m-%d", time.gmtime()),
        "load": os.getloadavg()[0],
        "versions": {
            name: debian_version(name)
            for name in (
                "slapd",
                "libldap-dev",
                "postfix-ldap",
                "ldap-utils",
                "python3-ldap",
                "libnet-ldap-perl",
                "golang-github-go-ldap-ldap-dev",
                "libgnutls28-dev",
                "libc6",
            )
        },
    }


class Measurement:
    """The parts of a run, in the order in which they are done."""

    def __init__(self, build, directory, output, scale, folder):
        self._build = build
        self._directory = directory
        self._output = output
        self._scale = scale
        self._folder = folder

    def _program(self, name):
        return os.path.join(self._build, "bench", name)

    def values(self):
        done = subprocess.run(
            [
                self._program("solvane_bench_values"),
                "--benchmark_format=json",
                f"--benchmark_min_time={self._scale.micro_seconds}",
                f"--benchmark_repetitions={self._scale.repetitions}",
                "--benchmark_enable_random_interleaving=true",
            ],
            check=False,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        if done.returncode != 0:
            sys.exit(f"run.py: solvane_bench_values failed: {done.stderr.decode()}")
        self._output.write("values.json", done.stdout.decode())

    def growth(self):
        with open(self._output.path("growth.jsonl"), "wb") as records:
            subprocess.run(
                [self._program("solvane_bench_growth"), *self._scale.growth_options],
                check=True,
                stdout=records,
            )

    def _directory_rows(self, name, rounds, rows):
        with open(self._output.path(name), "wb") as records:
            subprocess.run(
                [
                    self._program("solvane_bench_directory"),
                    "--port",
                    str(self._directory.port),
                    "--secure-port",
                    str(self._directory.secure_port),
                    "--ca",
                    self._directory.ca_file,
                    "--users",
                    str(self._scale.users),
                    "--rounds",
                    str(rounds),
                    "--block",
                    str(self._scale.block),
                    *rows,
                ],
                check=True,
                stdout=records,
            )

    def directory(self, mode):
        with self._directory.sharing(mode):
            self._directory_rows(
                f"{mode}.jsonl",
                self._scale.rounds,
                ["lookups", "binds", "verifies", "adds", "changes"],
            )
            self._directory_rows(
                f"{mode}-long.jsonl",
                self._scale.few_rounds,
                ["big"] if mode == PINNED else ["big", "windows", "threads"],
            )

    def programs(self):
        programs = bulk_lookups.Programs(self._build, self._folder)
        port = self._directory.port
        keys = bulk_lookups.Keys(self._scale.keys, self._scale.users)
        rounds = self._scale.few_rounds
        peers = [
            ("raw", programs.raw),
            ("raw again", programs.raw),
            ("tool, one in flight", lambda *of: programs.tool(*of, "-j", "1", "--window", "1")),
            ("ldapsearch -f", programs.ldapsearch),
            ("postmap", programs.postmap),
            ("python-ldap", programs.python_ldap),
            ("Net::LDAP", programs.net_ldap),
        ]
        if bulk_lookups.build_go("go_ldap", self._folder):
            peers.append(("go-ldap", programs.go_ldap))
        else:
            print("go-ldap is skipped: its compiler or its module is not at hand", file=sys.stderr)
        programs.tool(port, keys)  # warms the server's caches
        with self._output.recording("programs.jsonl") as record:
            with self._directory.sharing(PINNED):
                bulk_lookups.compare(
                    "programs",
                    rounds,
                    [(name, lambda of=of: of(port, keys)) for name, of in peers],
                    record,
                )
            bulk_lookups.compare(
                "bulk",
                rounds,
                [
                    ("postmap", lambda: programs.postmap(port, keys)),
                    ("postmap again", lambda: programs.postmap(port, keys)),
                    (
                        "tool, one in flight",
                        lambda: programs.tool(port, keys, "-j", "1", "--window", "1"),
                    ),
                    ("tool", lambda: programs.tool(port, keys)),
                ],
                record,
            )
            far = bulk_lookups.DelayProxy(port, 0.0025).port
            few = bulk_lookups.Keys(self._scale.far_keys, self._scale.users)
            bulk_lookups.compare(
                "bulk, far",
                min(rounds, 3),
                [
                    ("postmap", lambda: programs.postmap(far, few)),
                    ("tool", lambda: programs.tool(far, keys)),
                ],
                record,
            )

    def streams(self):
        programs = streams.Programs(
            self._build, self._folder, self._directory.port, self._scale.users
        )
        with self._output.recording("streams.jsonl") as record:
            with self._directory.sharing(PINNED):
                bulk_lookups.compare(
                    "stream", self._scale.few_rounds, programs.contenders(), record
                )

    def service(self):
        peers = service_lookups.Peers(self._build, self._folder, self._directory.port)
        keys, few = (
            bulk_lookups.Keys(count, self._scale.users)
            for count in (self._scale.keys, self._scale.process_keys)
        )
        with peers, self._output.recording("service.jsonl") as record:
            service_lookups.compare(self._scale.few_rounds, peers, keys, few, record)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build")
    parser.add_argument("testbed")
    parser.add_argument("output")
    parser.add_argument(
        "--quick", action="store_true", help="a look that takes under three minutes"
    )
    parser.add_argument("--rounds", type=int, help="turns of each contender")
    arguments = parser.parse_args()
    os.environ["LDAPNOINIT"] = "1"  # the host's ldap.conf stays out
    scale = Scale(arguments.quick, arguments.rounds)
    output = Output(arguments.output)

    folder = tempfile.mkdtemp(prefix="solvane-bench-")
    directory = None
    try:
        output.write(
            "machine.json", json.dumps({**machine(), "users": scale.users, "rounds": scale.rounds})
        )
        directory = Directory(arguments.testbed, folder, scale.users)
        run = Measurement(arguments.build, directory, output, scale, folder)
        for name, part in (
            ("values without a network", run.values),
            ("growth", run.growth),
            ("directory, client and server on one processor", lambda: run.directory(PINNED)),
            ("directory, client and server free", lambda: run.directory(FREE)),
            ("programs beside each other", run.programs),
            ("streams beside each other", run.streams),
            ("the service beside Postfix", run.service),
        ):
            start = time.monotonic()
            part()
            print(f"{name}: {time.monotonic() - start:.0f} s", file=sys.stderr, flush=True)
    except (bulk_lookups.WrongAnswer, subprocess.SubprocessError) as failure:
        sys.exit(f"run.py: {failure}")
    finally:
        if directory is not None:
            directory.stop()
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
