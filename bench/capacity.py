#!/usr/bin/env python3
"""How many connections and servers a site needs: lookups simulated from measured service times.

  capacity.py simulate --rate N [--servers N] [--connections N] [--window N] [--down N]
  capacity.py recommend --rate N
  capacity.py table                      sites from 10,000 to 100 million addresses
  capacity.py measure SOLVANE_SOAK TESTBED   measures service times, and how far off the model is

A lookup waits for a connection, travels to the server that the connection leads to, waits there for
a core, is served, and travels back; then its place on the connection is free. Lookups come at random
(Poisson). Service times are those of bench/service_times.json, which `measure` writes.
"""

import argparse
import collections
import heapq
import json
import math
import os
import random
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
MEASURED = os.path.join(HERE, "service_times.json")
WARM_UP_SHARE = 0.1


class Times:
    """A distribution to draw from: measured ranges, each [its end, count]."""

    def __init__(self, ranges):
        self._ends = [end for end, _ in ranges]
        self._counts = [count for _, count in ranges]

    def draw(self, generator, count):
        return generator.choices(self._ends, weights=self._counts, k=count)

    def mean(self):
        return sum(end * count for end, count in zip(self._ends, self._counts)) / sum(self._counts)

    def percentile(self, share):
        rank, passed = share * sum(self._counts), 0
        for end, count in zip(self._ends, self._counts):
            passed += count
            if passed >= rank:
                return end
        return self._ends[-1]


class Site:
    """What a simulation is about. Times are in milliseconds."""

    def __init__(self, rate, servers=2, cores=2, connections=4, window=1, cpu=0.0, down=0):
        self.rate = rate                # lookups a second
        self.servers = servers          # that share the lookups
        self.cores = cores              # of each server; 0: as many as it takes
        self.connections = connections  # of all clients together
        self.window = window            # lookups at a time on each
        self.cpu = cpu                  # of a server for a lookup
        self.down = down                # servers that have failed

    @property
    def serversUp(self):
        return self.servers - self.down


class Simulation:
    """Lookups one by one, in the order of what happens. `take` draws the time that one takes where
    nobody else asks, the server's included."""

    def __init__(self, site, take, seed=1):
        self._site = site
        self._take = take
        self._random = random.Random(seed)
        self._events = []
        self._serial = 0
        # Places on connections; each connection leads to one server. The one used last is first.
        self._free = [place % site.serversUp for place in range(site.connections * site.window)]
        self._waiting = collections.deque()
        self._cores = [site.cores or math.inf] * site.serversUp
        self._queues = [collections.deque() for _ in range(site.serversUp)]

    def _at(self, moment, what, lookup):
        self._serial += 1
        heapq.heappush(self._events, (moment, self._serial, what, lookup))

    def run(self, count):
        """Waiting times for a connection, and whole times, in milliseconds and order of arrival."""
        site, moment = self._site, 0.0
        ways = [max(0.0, time - site.cpu) / 2 for time in self._take(self._random, count)]
        waits, totals = [0.0] * count, [0.0] * count
        arrivals = []
        for _ in range(count):
            moment += self._random.expovariate(site.rate / 1000)
            arrivals.append(moment)
        coming = 0
        while coming < count or self._events:
            if coming < count and (not self._events or arrivals[coming] <= self._events[0][0]):
                now, what, lookup = arrivals[coming], "asked", [coming, None]
                coming += 1
            else:
                now, _, what, lookup = heapq.heappop(self._events)
            number, server = lookup
            if what == "asked":
                self._waiting.append(lookup)
            elif what == "there":
                self._queues[server].append(lookup)
            elif what == "served":
                self._cores[server] += 1
                self._at(now + ways[number], "back", lookup)
            else:
                self._free.append(server)
                totals[number] = now - arrivals[number]
            while self._waiting and self._free:
                first = self._waiting.popleft()
                first[1] = self._free.pop()
                waits[first[0]] = now - arrivals[first[0]]
                self._at(now + ways[first[0]], "there", first)
            if server is not None and self._queues[server] and self._cores[server] > 0:
                self._cores[server] -= 1
                self._at(now + site.cpu, "served", self._queues[server].popleft())
        warm = int(count * WARM_UP_SHARE)
        return waits[warm:], totals[warm:]


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, max(0, math.ceil(share * len(ordered)) - 1))]


def figures(site, take, count, seed=1):
    waits, totals = Simulation(site, take, seed).run(count)
    span = {"waiting": waits, "whole": totals}
    return {name: {"mean": sum(values) / len(values), "p50": percentile(values, 0.5),
                   "p99": percentile(values, 0.99), "p99.9": percentile(values, 0.999)}
            for name, values in span.items()}


# What is asked of a recommendation.
BUSY_AT_MOST = 0.6      # of the cores, also where a server has failed
WAIT_P99_AT_MOST = 1.0  # ms for a connection
COUNT = 60_000          # lookups of a simulation

# The place at which the model is compared with what was measured.
ROAD = 50   # ms there and back
LANES = 20  # connections


def serversFor(rate, cpu, cores):
    """So many that the others carry the load when one fails."""
    return max(2, math.ceil(rate * cpu / 1000 / (cores * BUSY_AT_MOST)) + 1)


def connectionsFor(site, take):
    """The fewest with which 99 of 100 lookups hardly wait, with one server less. Makes them so. At
    least one to each server."""
    mean = sum(take(random.Random(1), 10_000)) / 10_000  # of a lookup, in milliseconds
    site.down = 1
    site.connections = max(site.servers, math.ceil(site.rate * mean / 1000 / site.window))
    while True:
        if figures(site, take, COUNT)["waiting"]["p99"] <= WAIT_P99_AT_MOST:
            site.down = 0
            return site.connections
        site.connections += max(1, site.connections // 20)


def serviceTimes(path, network):
    """What one lookup takes where nobody else asks, with so many milliseconds of network, and the
    processor time that the server needs of it."""
    with open(path, encoding="utf-8") as file:
        measured = json.load(file)
    times = Times(measured["ranges"])
    return (lambda generator, count: [network + time for time in times.draw(generator, count)],
            measured["cpu"])


def describe(site, result):
    busy = site.rate * site.cpu / 1000 / (site.serversUp * site.cores)
    print(f"{site.rate:,.0f} lookups/s, {site.serversUp} of {site.servers} servers with "
          f"{site.cores} cores each ({busy:.0%} busy), {site.connections} connections, "
          f"{site.window} at a time on each")
    for name, of in result.items():
        print(f"  {name:8} " + "  ".join(f"{share} {of[share]:8.2f} ms" for share in of))


def simulate(options):
    take, cpu = serviceTimes(options.service_times, options.network)
    site = Site(options.rate, options.servers, options.cores, options.connections, options.window,
                cpu, options.down)
    describe(site, figures(site, take, options.lookups))


def recommend(options):
    take, cpu = serviceTimes(options.service_times, options.network)
    site = Site(options.rate, serversFor(options.rate, cpu, options.cores), options.cores, 1,
                options.window, cpu)
    connectionsFor(site, take)
    for down in (0, 1):
        site.down = down
        describe(site, figures(site, take, options.lookups))


def table(options):
    """Markdown."""
    take, cpu = serviceTimes(options.service_times, options.network)
    print("| addresses | lookups/s, day's mean | in the peak | servers | connections, one lookup on "
          "each | `window` 32 | whole time p50 / p99, ms | one server down |")
    print("|" + "---|" * 8)
    for addresses in (10_000, 100_000, 1_000_000, 10_000_000, 100_000_000):
        mean = addresses * options.daily / 86_400
        rate = mean * options.peak
        servers = serversFor(rate, cpu, options.cores)
        wide = Site(rate, servers, options.cores, 1, 32, cpu)
        single = Site(rate, servers, options.cores, 1, 1, cpu)
        counts = [connectionsFor(site, take) for site in (single, wide)]
        times = []
        for single.down in (0, 1):
            whole = figures(single, take, COUNT)["whole"]
            times.append(f"{whole['p50']:.1f} / {whole['p99']:.1f}")
        print(f"| {addresses:,} | {mean:,.0f} | {rate:,.0f} | {servers} | {counts[0]} | {counts[1]} | "
              f"{times[0]} | {times[1]} |", flush=True)


class Bench:
    """A directory of its own, and lookups by the engine at a chosen rate."""

    def __init__(self, program, testbed, folder):
        self._program = program
        self._testbed = testbed
        self._folder = os.path.join(folder, "slapd")

    def __enter__(self):
        subprocess.run([os.path.join(self._testbed, "slapd-start"), self._folder, "--owner",
                        str(os.getpid())], check=True, timeout=120, stdout=subprocess.DEVNULL)
        with open(os.path.join(self._folder, "server.env"), encoding="utf-8") as file:
            self.server = dict(line.strip().split("=", 1) for line in file)
        return self

    def __exit__(self, *_):
        subprocess.run([os.path.join(self._testbed, "slapd-stop"), self._folder], check=True,
                       timeout=60)

    def cpuSeconds(self):
        with open(f"/proc/{self.server['SERVER_PID']}/stat", encoding="ascii") as file:
            fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def lookUp(self, port, seconds, rate, connections, threads):
        """Measured ranges of whole times, and the rate that came of it."""
        warmUp = seconds // 4
        command = [self._program, "--seconds", seconds, "--warm-up", warmUp, "--threads", threads, "--rate", rate,
                   "--tide", 2 * seconds, "--connections", connections, "--way", "engine-balancer",
                   "--bind-dn", self.server["READER_DN"], "--base",
                   "ou=people," + self.server["BASE_DN"], "--balancer", port, "--provider", port]
        done = subprocess.run([str(word) for word in command], check=True, timeout=seconds + 60,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                              env={**os.environ, "LDAPNOINIT": "1",
                                   "LDAP_PASSWORD": self.server["READER_PW"]})
        way = json.loads(done.stdout)["ways"][0]
        if way["wrong"] or way["errors"]:
            sys.exit(f"capacity: wrong answers or errors: {way['wrong']}, {way['errors']}")
        return way["milliseconds"]["ranges"], way["lookups"] / (seconds - warmUp)


def measure(options):
    sys.dont_write_bytecode = True  # the sources' folder stays as it is
    from bulk_lookups import DelayProxy

    seconds = options.seconds
    folder = tempfile.mkdtemp(prefix="solvane-capacity-")
    try:
        with Bench(options.program, options.testbed, folder) as bench:
            port = bench.server["LDAP_PORT"]
            ranges, _ = bench.lookUp(port, seconds, 200, 8, 8)
            # Of a server that is busy, as one that is woken for each request needs more.
            before = bench.cpuSeconds()
            _, rate = bench.lookUp(port, seconds, 3000, 16, 64)
            cpu = (bench.cpuSeconds() - before) / (rate * seconds) * 1000
            # A known long road makes the wait for a connection what there is to measure. What a
            # lookup takes without it is measured at the same rate, over more connections.
            far = DelayProxy(int(port), ROAD / 2000).port
            points = [(*bench.lookUp(far, seconds, rate, 3 * LANES, 256),
                       *bench.lookUp(far, seconds, rate, LANES, 256)) for rate in options.rate]
    finally:
        shutil.rmtree(folder)
    with open(options.service_times, "w", encoding="utf-8") as file:
        json.dump({"cpu": round(cpu, 4), "ranges": ranges}, file)
        file.write("\n")
    print(f"service time p50 {Times(ranges).percentile(0.5):.3f} ms, p99 "
          f"{Times(ranges).percentile(0.99):.3f} ms; {cpu:.4f} ms of it the server's processor")
    for alone, _, crowded, rate in points:
        compare(Times(alone), Times(crowded), rate)


def compare(alone, crowded, rate):
    """What was measured over LANES connections beside what the model makes of it."""
    _, totals = Simulation(Site(rate, 1, 0, LANES), alone.draw).run(200_000)
    busy = rate / 1000 * alone.mean() / LANES
    print(f"{LANES} connections, {rate:.0f} lookups/s over a round trip of {ROAD} ms, {busy:.0%} "
          f"busy (without waiting p50 {alone.percentile(0.5):.2f} ms)")
    for share in (0.5, 0.9, 0.99):
        seen, made = crowded.percentile(share), percentile(totals, share)
        print(f"  p{share * 100:g}: measured {seen:.2f} ms, simulated {made:.2f} ms, "
              f"off by {made / seen - 1:+.0%}")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True)
    for name, run in (("simulate", simulate), ("recommend", recommend), ("table", table),
                      ("measure", measure)):
        command = commands.add_parser(name)
        command.set_defaults(run=run)
        command.add_argument("--service-times", default=MEASURED)
        if name == "measure":
            command.add_argument("program", help="solvane_soak")
            command.add_argument("testbed")
            command.add_argument("--seconds", type=int, default=20)
            command.add_argument("--rate", type=float, nargs="+", default=[200, 275, 330],
                                 help="lookups a second to compare the model at")
            continue
        command.add_argument("--network", type=float, default=0.5, help="round trip, ms")
        command.add_argument("--cores", type=int, default=4, help="of each server")
        command.add_argument("--lookups", type=int, default=COUNT, help="to simulate")
        if name == "table":
            command.add_argument("--daily", type=float, default=30,
                                 help="lookups per address and day")
            command.add_argument("--peak", type=float, default=5, help="times the day's mean")
            continue
        command.add_argument("--rate", type=float, required=True, help="lookups a second")
        command.add_argument("--window", type=int, default=1)
        if name == "simulate":
            command.add_argument("--servers", type=int, default=2)
            command.add_argument("--connections", type=int, default=4)
            command.add_argument("--down", type=int, default=0, help="servers that have failed")
    options = parser.parse_args()
    options.run(options)


if __name__ == "__main__":
    main()
