"""A soak as text: for the terminal, and as a section of a document."""

import judgement

BEGIN, END = "<!-- soak -->", "<!-- /soak -->"
WAYS = {
    "engine-balancer": "engine, by the balancer",
    "engine-list": "engine, list of both servers",
    "pool-balancer": "pool, by the balancer",
}
KINDS = {
    "crash": "killed (SIGKILL), started again",
    "hang": "paused (SIGSTOP), resumed",
    "restart": "shut down, started again",
    "blackout": "both killed; counted from the first one's return",
}


ABOUT = f"""\
`scripts/soak` has threads look users up by the engine through a balancer, by the engine with both
servers as its list, and by the pool through the balancer, while the servers are killed, paused and
restarted at random and the balancer closes connections that are idle. Four of five questions are for
users who exist: the answer must be that user and no other. The fifth is for nobody. It fails with a
wrong answer, a descriptor that is left, memory that grows, or nobody answered for more than
{judgement.LONGEST_STRETCH:.0f} s though a server is up. The network timeout is 1 s and the deadline
5 s, and the ways through the balancer have nothing but the balancer: less than
[the guide](guide/replicas.md#the-library) advises.
"""


def _errors(way):
    return ", ".join(f"{reason}: {count}" for reason, count in sorted(way["errors"].items())) or "0"


def _seconds(times):
    return f"{times['median']:.2f} / {times['max']:.2f}"


def _felt(recovery):
    return _seconds(recovery["way"]), _seconds(recovery["thread"]), recovery["errors"]


def _memory(memory):
    if "first" not in memory:
        return "too short a run to tell"
    text = (f"{memory['first'] / 1024:.1f} MiB in the first third after warm-up, "
            f"{memory['last'] / 1024:.1f} MiB in the last")
    return text if memory["isJudged"] else text + " (not judged in a run of this kind)"


def _table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return lines + ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]


def section(soak):
    """Markdown."""
    ways = soak["ways"]
    total = sum(way["lookups"] for way in ways)
    lines = [
        ABOUT,
        f"{soak['seconds']} s, {soak['threads']} threads, two replicated servers behind HAProxy; "
        f"{len(soak['faults'])} faults, seed {soak['seed']}. "
        f"{total:,} lookups, **{sum(way['wrong'] for way in ways)} wrong answers**.", ""]
    lines += _table(
        ["way", "threads", "lookups", "found", "not found", "without an answer",
         "p50 / p99 / p99.9 / max, ms"],
        [[WAYS[way["name"]], way["threads"], f"{way['lookups']:,}", f"{way['found']:,}",
          f"{way['notFound']:,}", _errors(way),
          " / ".join(f"{way['milliseconds'][share]:.3g}" if way["milliseconds"][share] < 1000
                     else f"{way['milliseconds'][share]:.0f}"
                     for share in ("p50", "p99", "p99.9", "max"))] for way in ways])
    lines += ["", "How long a fault was felt, in seconds, median / longest: until *any* lookup of "
              "the way had its answer again, and until the *last* of its threads had one; 0: for "
              "less than 0.1 s. *Failed*: lookups that ended without an answer, of all faults of "
              "the kind.", ""]
    kinds = [kind for kind in KINDS if kind in ways[0]["recoveries"]]
    lines += _table(
        ["fault", "times", *(f"{WAYS[way['name']]}: any | last | failed" for way in ways)],
        [[KINDS[kind], ways[0]["recoveries"][kind]["count"],
          *(cell for way in ways for cell in _felt(way["recoveries"][kind]))] for kind in kinds])
    lines[-len(kinds) - 1] = "|" + "---|" * (2 + 3 * len(ways))
    descriptors, memory = soak["descriptors"], soak["memory"]
    lines += [
        "",
        "- Longest stretch without an answer while a server was up: "
        f"{max(way['longestStretch'] for way in ways):.2f} s (allowed: "
        f"{judgement.LONGEST_STRETCH:.0f} s).",
        f"- Lookups that failed with no fault near: {sum(way['strayErrors'] for way in ways)}.",
        f"- Descriptors: {descriptors['before']} before, {descriptors['after']} after, "
        f"{descriptors['most']} at most.",
        f"- Memory (resident set): {_memory(memory)}.",
        "- Connections that the balancer had closed while they were idle: found by the engine's "
        f"look before use {_counted(ways, 'stale')}; lookups repeated on another connection "
        f"{_counted(ways, 'repeated')}.",
        f"- Replication, which is the servers' own matter: {soak['added']} entries were added "
        "meanwhile, at either server; in the end the servers had "
        f"{' and '.join(str(count) for count in soak['entries'])} of them.",
        f"- {soak['machine']}. {soak['versions']}. Build: {soak['preset']}. "
        f"Load average {soak['load'][0]:.1f} at the start, {soak['load'][1]:.1f} at the end.",
    ]
    return "\n".join(lines) + "\n"


def _counted(ways, name):
    return f"{sum(way['statistics'].get(name, 0) for way in ways):,}"


def writeInto(path, text):
    """Replaces what stands between the marks of a document."""
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
