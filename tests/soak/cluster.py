"""A cluster of the test bed, and the faults injected into it."""

import os
import random
import signal
import subprocess
import time

DEADLINE = 120  # seconds for a script of the test bed


class Provider:
    """One of the replicated servers."""

    def __init__(self, testbed, folder, uri, port):
        self._testbed = testbed
        self._folder = folder
        self.uri = uri
        self.port = port
        self.down = []  # [from, to] of each time in which it did not answer; to: None until it does

    def _script(self, name, *arguments):
        subprocess.run(
            [os.path.join(self._testbed, name), self._folder, *arguments],
            check=True,
            timeout=DEADLINE,
            stdout=subprocess.DEVNULL,
        )

    def _signal(self, number):
        with open(os.path.join(self._folder, "slapd.pid"), encoding="ascii") as file:
            os.kill(int(file.read()), number)

    def _goes_down(self):
        self.down.append([time.monotonic(), None])

    def _is_up(self):
        self.down[-1][1] = time.monotonic()

    def crash(self):
        self._goes_down()
        self._signal(signal.SIGKILL)

    def hang(self):
        self._goes_down()
        self._signal(signal.SIGSTOP)

    def go_on(self):
        self._signal(signal.SIGCONT)
        self._is_up()

    def shut_down(self):
        self._goes_down()
        self._script("stop", "--keep")

    def come_back(self):
        """Returns when it answers."""
        self._script("slapd-run")
        self._is_up()


class Cluster:
    """Replicated servers behind a balancer; a context manager."""

    def __init__(self, testbed, folder, users, idle_seconds):
        self._testbed = testbed
        self._folder = folder
        self._options = [
            "--users",
            str(users),
            "--idle",
            str(idle_seconds),
            "--owner",
            str(os.getpid()),
        ]

    def __enter__(self):
        subprocess.run(
            [os.path.join(self._testbed, "cluster-start"), self._folder, *self._options],
            check=True,
            timeout=DEADLINE,
            stdout=subprocess.DEVNULL,
        )
        self.settings = {}
        with open(os.path.join(self._folder, "cluster.env"), encoding="utf-8") as file:
            for line in file:
                name, _, value = line.strip().partition("=")
                self.settings[name] = value
        self.providers = [
            Provider(
                self._testbed,
                os.path.join(self._folder, f"p{number}"),
                self.settings[f"P{number}_LDAP_URI"],
                self.settings[f"P{number}_LDAP_PORT"],
            )
            for number in range(1, int(self.settings["PROVIDERS"]) + 1)
        ]
        return self

    def __exit__(self, *_):
        subprocess.run(
            [os.path.join(self._testbed, "stop"), self._folder],
            check=True,
            timeout=DEADLINE,
        )

    def add(self, provider, name):
        """Adds an entry at one provider. Returns whether it reported success."""
        base = "ou=new," + self.settings["BASE_DN"]
        record = f"dn: cn={name},{base}\nobjectClass: device\ncn: {name}\n"
        return self._client("ldapadd", provider, [], record).returncode == 0

    def added(self, provider):
        """The names of the added entries that a provider has."""
        found = self._client(
            "ldapsearch",
            provider,
            ["-LLL", "-b", "ou=new," + self.settings["BASE_DN"], "(objectClass=device)", "cn"],
        )
        return {line[4:] for line in found.stdout.splitlines() if line.startswith("cn: ")}

    def _client(self, program, provider, arguments, text=""):
        command = [
            program,
            "-x",
            "-o",
            "nettimeout=2",
            "-H",
            provider.uri,
            "-D",
            self.settings["ADMIN_DN"],
            "-w",
            self.settings["ADMIN_PW"],
            *arguments,
        ]
        try:
            return subprocess.run(
                command, input=text, capture_output=True, text=True, timeout=10, check=False
            )
        except subprocess.TimeoutExpired:
            return subprocess.CompletedProcess(command, 1, "", "")


class Faults:
    """Takes providers away and brings them back, at random; the same seed makes the same plan.

    Between two faults all providers are up. Each fault is kept as kind, provider, from and to, both
    of the monotonic clock: when a provider went, and when one was there again.
    """

    # The faults, and how often of ten times.
    KINDS = ["crash"] * 4 + ["hang"] * 3 + ["restart"] * 2 + ["blackout"]

    def __init__(self, cluster, seed, scale, wait):
        self._cluster = cluster
        self._random = random.Random(seed)
        self._scale = scale  # of the times below, which are those of a long run
        self._wait = wait  # for so many seconds; false: stop
        self._deck = []
        self.log = []

    def run(self, until):
        """Runs until the time, and until the last fault has ended."""
        while self._pause(4, 9) and time.monotonic() < until:
            if not self._deck:  # so that a short run sees each kind too
                self._deck = self._random.sample(self.KINDS, len(self.KINDS))
            kind = self._deck.pop()
            victims = self._random.sample(self._cluster.providers, 2)
            start = time.monotonic()
            end = getattr(self, "_" + kind)(*victims)
            self.log.append({"kind": kind, "provider": victims[0].port, "from": start, "to": end})

    def _pause(self, least, most):
        return self._wait(self._random.uniform(least, most) * self._scale)

    def _crash(self, victim, _):
        victim.crash()
        self._pause(0.5, 6)
        victim.come_back()
        return time.monotonic()

    def _hang(self, victim, _):
        victim.hang()
        self._pause(0.3, 5)
        victim.go_on()
        return time.monotonic()

    def _restart(self, victim, _):
        victim.shut_down()
        victim.come_back()
        return time.monotonic()

    def _blackout(self, first, second):
        first.crash()
        self._pause(0, 1)
        second.crash()
        self._pause(0.5, 2)
        first.come_back()
        end = time.monotonic()
        second.come_back()
        return end
