"""A soak as text: for the terminal, and as a section of a document."""

import judgement

BEGIN, END = "<!-- soak -->", "<!-- /soak -->"
WAYS = {
    "engine-balancer": "engine, balancer",
    "engine-list": "engine, list of both servers",
    "engine-name": "engine, name with a dead address",
    "engine-spoiled": "engine, list with a server that fails every search",
    "pool-balancer": "pool, balancer",
    "service": "service, list of both servers",
}
KINDS = {
    "crash": "killed (SIGKILL), started again",
    "hang": "paused (SIGSTOP), resumed",
    "restart": "shut down, started again",
    "blackout": "both killed; counted from the restart of the first",
}


ABOUT = f"""\
`scripts/soak` runs lookups in many threads while it kills, pauses and restarts two replicated servers at
random, and the balancer closes idle connections. A sixth of the threads each uses

- the engine through the balancer,
- the engine with both servers in its list,
- the engine through the balancer, under a name with two addresses, one of which refuses connections,
- the engine with three servers in its list, the first of which accepts every bind and fails every search,
- the pool through the balancer,
- the service `solvane-ldapd`, which has both servers in its list, by the socketmap protocol.

Four of five lookups are for an existing user, and the answer must be that user. The fifth is for an
address that does not exist. The run fails on a wrong answer, a leaked descriptor, growing memory, or more
than {judgement.LONGEST_STRETCH:.0f} s without any answer while a server is up. The settings are harsher than
[the guide](guide/replicas.md#the-library) recommends: the network timeout is 1 s, the deadline 5 s, and
only the balancer is in the list, unless stated otherwise.
"""


def _errors(way):
    return ", ".join(f"{reason}: {count}" for reason, count in sorted(way["errors"].items())) or "0"


def _seconds(times):
    return f"{times['median']:.2f} / {times['max']:.2f}"


def _felt(recovery):
    return _seconds(recovery["way"]), _seconds(recovery["thread"]), recovery["errors"]


def _memory(memory):
    if "first" not in memory:
        return "the run was too short to measure it"
    text = (
        f"{memory['first'] / 1024:.1f} MiB in the first third after warm-up, "
        f"{memory['last'] / 1024:.1f} MiB in the last"
    )
    return (
        text
        if memory["isJudged"]
        else text + " (not judged: the run is too short or has a sanitizer)"
    )


def _service(service):
    if service is None:
        return []
    return [
        f"- The service: {_memory(service['memory'])}; descriptors: {service['before']} before, "
        f"{service['after']} after, of these up to {service['connections']} connections."
    ]


def _table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return lines + ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]


def section(soak):
    """Markdown."""
    ways = soak["ways"]
    total = sum(way["lookups"] for way in ways)
    lines = [
        ABOUT,
        f"Run of {soak['date']}: {soak['seconds']} s, {soak['threads']} threads, two replicated servers "
        f"behind HAProxy; {len(soak['faults'])} faults, seed {soak['seed']}. "
        f"{total:,} lookups, **{sum(way['wrong'] for way in ways)} wrong answers**.",
        "",
    ]
    lines += _table(
        [
            "lookups by",
            "threads",
            "lookups",
            "found",
            "not found",
            "without an answer",
            "p50 / p99 / p99.9 / max, ms",
        ],
        [
            [
                WAYS[way["name"]],
                way["threads"],
                f"{way['lookups']:,}",
                f"{way['found']:,}",
                f"{way['notFound']:,}",
                _errors(way),
                " / ".join(
                    f"{way['milliseconds'][share]:.3g}"
                    if way["milliseconds"][share] < 1000
                    else f"{way['milliseconds'][share]:.0f}"
                    for share in ("p50", "p99", "p99.9", "max")
                ),
            ]
            for way in ways
        ],
    )
    lines += [
        "",
        "Outage after a fault, in seconds, median / longest: until *any* thread of the column got "
        "an answer again, and until the *last* one did; 0 means less than 0.1 s. *Failed*: "
        "lookups without an answer, after all faults of the kind.",
        "",
    ]
    kinds = [kind for kind in KINDS if kind in ways[0]["recoveries"]]
    lines += _table(
        ["fault", "times", *(f"{WAYS[way['name']]}: any | last | failed" for way in ways)],
        [
            [
                KINDS[kind],
                ways[0]["recoveries"][kind]["count"],
                *(cell for way in ways for cell in _felt(way["recoveries"][kind])),
            ]
            for kind in kinds
        ],
    )
    lines[-len(kinds) - 1] = "|" + "---|" * (2 + 3 * len(ways))
    descriptors, memory = soak["descriptors"], soak["memory"]
    lines += [
        "",
        "- Longest time without any answer while a server was up: "
        f"{max(way['longest_stretch'] for way in ways):.2f} s (allowed: "
        f"{judgement.LONGEST_STRETCH:.0f} s).",
        f"- Lookups that failed without a recent fault: {sum(way['strayErrors'] for way in ways)}.",
        f"- Descriptors: {descriptors['before']} before, {descriptors['after']} after, "
        f"{descriptors['most']} at most.",
        f"- Memory (resident set): {_memory(memory)}.",
        *_service(soak.get("service")),
        "- Idle connections closed by the balancer, detected on checkout: "
        f"{_counted(ways, 'stale')}. Lookups retried on another connection: "
        f"{_counted(ways, 'repeated')}.",
        f"- Replication between the servers: {soak['added']} entries were added during the run; "
        "at the end the servers had "
        f"{' and '.join(str(count) for count in soak['entries'])} of them.",
        f"- {soak['machine']}. {soak['versions']}. Build: {soak['preset']}. "
        f"Load average {soak['load'][0]:.1f} at the start, {soak['load'][1]:.1f} at the end.",
    ]
    return "\n".join(lines) + "\n"


def _counted(ways, name):
    return f"{sum(way['statistics'].get(name, 0) for way in ways):,}"


def write_into(path, text):
    """Replaces the text between the marks of a document."""
    try:
        with open(path, encoding="utf-8") as file:
            content = file.read()
    except FileNotFoundError:
        content = f"{BEGIN}\n{END}\n"
    before, begin, rest = content.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        raise ValueError(f"{path} has no place for it: {BEGIN} ... {END}")
    with open(path, "w", encoding="utf-8") as file:
        file.write(f"{before}{BEGIN}\n{text}{END}{after}")
