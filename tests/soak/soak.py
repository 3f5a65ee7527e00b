#!/usr/bin/env python3
"""A load of lookups on replicated servers that fail and recover, and its evaluation.

Starts two replicated providers behind HAProxy (testbed/cluster-start), has solvane_soak put its load
on them, and meanwhile kills, pauses and restarts them at random. Ends with 1 and says why where an
answer was wrong, a descriptor was left, memory grew, or there was no answer for too long although a
server was up; with 2 where it could not be run.
"""

import argparse
import contextlib
import json
import os
import platform
import random
import shutil
import subprocess
import sys
import tempfile
import threading
import time

sys.dont_write_bytecode = True  # the sources' folder stays as it is

import cluster
import judgement
import report

SKIPPED = 77
USERS = 1000
SETTLE_SHARE = 0.15  # of the time, at the end, without new faults


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("seconds", type=int)
    parser.add_argument("--program", required=True, help="solvane_soak")
    parser.add_argument("--service", help="solvane-ldapd; without it, the service is not used")
    parser.add_argument("--testbed", required=True, help="the folder testbed")
    parser.add_argument("--preset", default="?", help="how the program was built, for the report")
    parser.add_argument("--threads", type=int, default=64)
    parser.add_argument("--rate", type=float, default=2000, help="lookups a second in a flood")
    parser.add_argument(
        "--seed",
        type=int,
        default=random.SystemRandom().randrange(1, 1_000_000),
        help="of faults and questions",
    )
    parser.add_argument("--no-faults", action="store_true", help="all servers stay up")
    parser.add_argument("--json", help="file for everything that was measured")
    parser.add_argument("--write", help="document to put the figures into")
    parser.add_argument(
        "--skip-if-missing", action="store_true", help="end with 77 where a server is not installed"
    )
    return parser.parse_args()


def installed(program):
    search = os.pathsep.join([os.environ.get("PATH", ""), "/usr/local/sbin", "/usr/sbin", "/sbin"])
    return shutil.which(program, path=search)


def usage(process):
    """The resident set of a process in KiB, and its descriptors; empty if it has ended."""
    folder = f"/proc/{process}"
    page = os.sysconf("SC_PAGE_SIZE") // 1024
    try:
        with open(folder + "/statm", encoding="ascii") as file:
            return int(file.read().split()[1]) * page, len(os.listdir(folder + "/fd"))
    except (OSError, IndexError):
        return None


class Service:
    """A running solvane-ldapd with both servers in its list; a context manager."""

    def __init__(self, options, servers, folder):
        self.socket = os.path.join(folder, "socketmap")
        self.connections = max(2, options.threads // 6)
        self.before = self.after = None
        self._folder = os.path.join(folder, "service")
        self._program = options.service
        os.makedirs(os.path.join(self._folder, "maps"))
        values = {
            "server_host": ", ".join(f"ldap://127.0.0.1:{each.port}" for each in servers.providers),
            "bind_dn": servers.settings["READER_DN"],
            "bind_pw": servers.settings["READER_PW"],
            "search_base": "ou=people," + servers.settings["BASE_DN"],
            "query_filter": "(mail=$m)",
            "result_attribute": "uid, mail",
            "connections": self.connections,
            "timeout": 1,
            "deadline": 5,
        }
        self._write("maps/users.conf", values)
        self._write("service.conf", {"listen_socketmap": "unix:" + self.socket, "threads": 2})

    def _write(self, name, values):
        path = os.path.join(self._folder, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write("".join(f"{setting} = {value}\n" for setting, value in values.items()))
        os.chmod(path, 0o600)

    def __enter__(self):
        path = os.path.join(self._folder, "log")
        with open(path, "w", encoding="utf-8") as log:
            self._process = subprocess.Popen([self._program, "-C", self._folder], stderr=log)
        end = time.monotonic() + 30
        while True:  # its socket exists before it has all its descriptors
            with open(path, encoding="utf-8") as log:
                said = log.read()
            if "serving" in said:
                break
            if self._process.poll() is not None or time.monotonic() > end:
                self._process.kill()
                self._process.wait()
                raise RuntimeError("solvane-ldapd does not begin: " + said)
            time.sleep(0.05)
        self.before = self.usage()[1]
        return self

    def __exit__(self, *_):
        self._process.terminate()
        try:
            self._process.wait(30)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
            raise

    def usage(self):
        return usage(self._process.pid)

    def settle(self):
        """Counts its descriptors once its clients are gone, or after a timeout."""
        end = time.monotonic() + 10
        while True:
            self.after = self.usage()[1]
            if self.after <= self.before + self.connections or time.monotonic() > end:
                return
            time.sleep(0.1)


class Load:
    """A running solvane_soak, and its memory and descriptors; those of the service too."""

    def __init__(self, options, servers, tide, service):
        command = [
            options.program,
            "--seconds",
            options.seconds,
            "--threads",
            options.threads,
            "--rate",
            options.rate,
            "--seed",
            options.seed,
            "--tide",
            tide,
            "--users",
            USERS,
            "--connections",
            max(2, options.threads // 6),
            "--bind-dn",
            servers.settings["READER_DN"],
            "--base",
            "ou=people," + servers.settings["BASE_DN"],
            "--balancer",
            servers.settings["LDAP_PORT"],
        ]
        for provider in servers.providers:
            command += ["--provider", provider.port]
        if service is not None:
            command += ["--service", service.socket]
        self._service = service
        environment = {
            **os.environ,
            "LDAPNOINIT": "1",
            "LDAP_PASSWORD": servers.settings["READER_PW"],
        }
        self._process = subprocess.Popen(
            [str(word) for word in command],
            env=environment,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        self.samples = []  # moment, resident set in KiB, descriptors
        self.service_samples = []
        self.is_over = threading.Event()
        self._sampler = threading.Thread(target=self._sample)
        if self._process.stderr.readline() != b"load begins\n":
            self._process.wait(10)
            raise RuntimeError("solvane_soak does not begin")
        self._sampler.start()

    def _sample(self):
        while not self.is_over.wait(0.5):
            for samples, used in (
                (self.samples, usage(self._process.pid)),
                (self.service_samples, self._service and self._service.usage()),
            ):
                if used:
                    samples.append((time.monotonic(), *used))

    def result(self, seconds):
        """Its report. Kills it if that takes too long."""
        try:
            output, errors = self._process.communicate(timeout=seconds)
        except subprocess.TimeoutExpired:
            self._process.kill()
            raise
        finally:
            self.is_over.set()
            self._sampler.join()
        if self._process.returncode != 0:
            raise RuntimeError(
                f"solvane_soak ended with {self._process.returncode}:\n"
                + errors.decode("utf-8", "replace")
            )
        return json.loads(output)

    def end(self):
        if self._process.poll() is None:
            self._process.kill()
            self._process.wait()
        self.is_over.set()


class Writer:
    """Adds an entry from time to time, at any provider that accepts it."""

    def __init__(self, servers, seed):
        self._servers = servers
        self._random = random.Random(seed)
        self.names = set()

    def run(self, is_over):
        number = 0
        while not is_over.wait(1):
            name = f"soak{number:05}"
            if self._servers.add(self._random.choice(self._servers.providers), name):
                self.names.add(name)
            number += 1

    def held(self):
        """The number of entries at each provider after replication, or after a timeout."""
        end = time.monotonic() + 30
        while True:
            held = [self._servers.added(provider) for provider in self._servers.providers]
            if all(names >= self.names for names in held) or time.monotonic() > end:
                return [len(names & self.names) for names in held]
            time.sleep(0.2)


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        models = [line.partition(":")[2].strip() for line in file if line.startswith("model name")]
    with open("/proc/meminfo", encoding="ascii") as file:
        memory = int(file.readline().split()[1]) / (1 << 20)
    return (
        f"{len(models)} × {models[0] if models else platform.machine()}, {memory:.0f} GiB, "
        f"Linux {platform.release().split('-')[0]}; load, servers and balancer on the same machine"
    )


def package_version(name):
    found = subprocess.run(
        ["dpkg-query", "-W", "-f=${Version}", name], capture_output=True, text=True, check=False
    )
    return found.stdout or "?"


def versions():
    return ", ".join(
        f"{title} {package_version(name)}"
        for title, name in (("slapd", "slapd"), ("libldap", "libldap-dev"), ("HAProxy", "haproxy"))
    )


def run(options, folder):
    # Tides long enough for the balancer to close what is idle meanwhile.
    tide = min(20, max(5, options.seconds / 4))
    idle = max(1, int(tide / 10))
    with contextlib.ExitStack() as stack:
        servers = stack.enter_context(
            cluster.Cluster(options.testbed, os.path.join(folder, "cluster"), USERS, idle)
        )
        service = (
            stack.enter_context(Service(options, servers, folder)) if options.service else None
        )
        averages = [os.getloadavg()[0]]
        load = Load(options, servers, tide, service)
        try:
            writer = Writer(servers, options.seed)
            writing = threading.Thread(target=writer.run, args=(load.is_over,))
            writing.start()
            faults = cluster.Faults(
                servers,
                options.seed,
                min(1, options.seconds / 60),
                lambda seconds: not load.is_over.wait(seconds),
            )
            if not options.no_faults:
                faults.run(time.monotonic() + options.seconds * (1 - SETTLE_SHARE))
            soak = load.result(options.seconds + 60)
            writing.join()
        finally:
            load.end()
        averages.append(os.getloadavg()[0])
        if service is not None:
            service.settle()
            soak["service"] = {
                "before": service.before,
                "after": service.after,
                "connections": service.connections,
                "samples": load.service_samples,
            }
        soak.update(entries=writer.held(), added=len(writer.names))
        soak.update(
            faults=faults.log,
            load=averages,
            downs={provider.port: provider.down for provider in servers.providers},
            samples=load.samples,
        )
    return soak


def evaluate(soak, options):
    start, end = soak["start"], soak["end"]
    ups = judgement.up_times(soak["downs"].values(), start, end)
    for way in soak["ways"]:
        way["longest_stretch"] = judgement.longest_stretch(way["stretches"], ups)
        way["recoveries"] = judgement.recoveries(soak["faults"], way)
        way["strayErrors"] = len(way["errorTimes"]) - judgement.errors_near(
            soak["faults"], way["errorTimes"]
        )
    is_sanitized = (
        "san" in options.preset or "address" in options.preset or "thread" in options.preset
    )

    def growth(samples):
        memory = judgement.memory_growth(samples, start, end) or {}
        is_long = options.seconds >= judgement.SHORTEST_FOR_MEMORY
        return {**memory, "isJudged": "first" in memory and not is_sanitized and is_long}

    memory = growth(soak["samples"])
    if "service" in soak:
        soak["service"]["memory"] = growth(soak["service"]["samples"])
    soak["descriptors"]["most"] = max((count for _, _, count in soak["samples"]), default=0)
    soak.update(
        date=time.strftime("%Y-%m-%d"),
        seconds=options.seconds,
        threads=options.threads,
        seed=options.seed,
        memory=memory,
        preset=options.preset,
        machine=machine(),
        versions=versions(),
    )
    soak["complaints"] = judgement.complaints(soak)


def main():
    options = arguments()
    missing = [name for name in ("slapd", "haproxy", "ldapadd") if installed(name) is None]
    if missing:
        print("not installed: " + ", ".join(missing), file=sys.stderr)
        return SKIPPED if options.skip_if_missing else 2
    print(f"seed {options.seed}", flush=True)
    with tempfile.TemporaryDirectory(prefix="solvane-soak-") as folder:
        soak = run(options, folder)
    evaluate(soak, options)
    text = report.section(soak)
    print(text)
    for complaint in soak["complaints"]:
        print("FAILED: " + complaint)
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump(soak, file)
    if options.write:
        report.write_into(options.write, text)
    return 1 if soak["complaints"] else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (OSError, RuntimeError, ValueError, subprocess.SubprocessError) as failure:
        print(f"soak: {failure}", file=sys.stderr)
        sys.exit(2)
