"""Evaluates the figures of a soak test. Pure functions of the measurements."""

import statistics

# Longest time without a correct answer, in seconds, while a provider is up.
LONGEST_STRETCH = 5.0
# Allowed growth of the resident set after warm-up: the greater of the two.
MEMORY_TOLERANCE_KIB = 2048
MEMORY_TOLERANCE_SHARE = 0.05
WARM_UP_SHARE = 0.2
# Seconds after a fault in which its consequences are still visible: a balancer needs two checks to
# find a server up again, and a broken connection is noticed when it is used.
AFTERMATH = 1.5
# Shorter runs cannot distinguish growth from filling the pools.
SHORTEST_FOR_MEMORY = 120


def up_times(downs, start, end):
    """The spans in which at least one provider was up, computed from their down times."""
    edges = sorted(
        {
            start,
            end,
            *(edge for down in downs for span in down for edge in span if start < edge < end),
        }
    )
    spans = []
    for begin, finish in zip(edges, edges[1:]):
        middle = (begin + finish) / 2
        if all(any(gone <= middle < back for gone, back in down) for down in downs):
            continue
        if spans and spans[-1][1] == begin:
            spans[-1] = (spans[-1][0], finish)
        else:
            spans.append((begin, finish))
    return spans


def overlap(span, other):
    """The length of the intersection of two spans."""
    return max(0.0, min(span[1], other[1]) - max(span[0], other[0]))


def longest_stretch(stretches, ups):
    """The longest time without an answer while a provider was continuously up."""
    return max((overlap(stretch, up) for stretch in stretches for up in ups), default=0.0)


def after_fault(fault, spans):
    """How long the longest of the spans went on, of those that a fault may have to do with.

    Counted from the fault; after a blackout, in which no server can answer, from its end.
    """
    start = fault["to"] if fault["kind"] == "blackout" else fault["from"]
    last = fault["to"] + AFTERMATH
    return max(
        (end - max(begin, start) for begin, end in spans if begin < last and end > start),
        default=0.0,
    )


def errors_near(faults, moments):
    """The number of times that lie in a fault or in its recovery time."""
    return sum(
        any(fault["from"] <= moment < fault["to"] + AFTERMATH for fault in faults)
        for moment in moments
    )


def recoveries(faults, way):
    """For each kind of fault: the number, and the effect on lookups."""
    table = {}
    for kind in sorted({fault["kind"] for fault in faults}):
        of = [fault for fault in faults if fault["kind"] == kind]
        row = {"count": len(of), "errors": errors_near(of, way["errorTimes"])}
        for name, spans in (("way", way["stretches"]), ("thread", way["outages"])):
            times = [after_fault(fault, spans) for fault in of]
            row[name] = {"median": statistics.median(times), "max": max(times)}
        table[kind] = row
    return table


def memory_growth(samples, start, end):
    """Medians of the first and the last third of the resident set after warm-up, in KiB."""
    warm = start + (end - start) * WARM_UP_SHARE
    third = (end - warm) / 3
    first = [rss for moment, rss, _ in samples if warm <= moment < warm + third]
    last = [rss for moment, rss, _ in samples if end - third <= moment <= end]
    if not first or not last:
        return None
    return {
        "first": statistics.median(first),
        "last": statistics.median(last),
        "max": max(rss for _, rss, _ in samples),
    }


def memory_tolerance(first):
    return max(MEMORY_TOLERANCE_KIB, first * MEMORY_TOLERANCE_SHARE)


def complaints(soak):
    """The reasons why the soak failed, a sentence each; empty if it passed."""
    found = []
    for way in soak["ways"]:
        name = way["name"]
        if way["wrong"]:
            found.append(f"{name}: {way['wrong']} wrong answers, as {way['wrongAnswers'][0]}")
        if not way["found"] or not way["notFound"]:
            found.append(
                f"{name}: found {way['found']}, did not find {way['notFound']}: "
                "there must be some of both"
            )
        # The injected faults cause no misconfiguration and no refusal.
        for reason in way["errors"]:
            if not reason.startswith("TryLater"):
                found.append(f"{name}: {way['errors'][reason]} times {reason}")
        if way["longest_stretch"] > LONGEST_STRETCH:
            found.append(
                f"{name}: no answer for {way['longest_stretch']:.1f} s while a server was "
                f"up; at most {LONGEST_STRETCH:.0f} s are allowed"
            )
    descriptors = soak["descriptors"]
    if descriptors["after"] != descriptors["before"]:
        found.append(f"descriptors: {descriptors['before']} before, {descriptors['after']} after")
    found += growth_complaints("memory", soak["memory"])
    service = soak.get("service")
    if service is not None:
        found += growth_complaints("memory of the service", service["memory"])
        most = service["before"] + service["connections"]
        if service["after"] > most:
            found.append(
                f"descriptors of the service: {service['before']} before, {service['after']} after; "
                f"at most {most} are allowed"
            )
    return found


def growth_complaints(what, memory):
    grown = memory["last"] - memory["first"] if memory["isJudged"] else 0
    if not memory["isJudged"] or grown <= memory_tolerance(memory["first"]):
        return []
    return [
        f"{what}: grew by {grown:.0f} KiB after warm-up; "
        f"{memory_tolerance(memory['first']):.0f} KiB are allowed"
    ]
