"""The readings of scripts/bench, and how they stand to the limits."""

import collections
import fnmatch
import json
import math
import os
import re
import statistics

BARE = "bare"
LIBRARY = "library"
LIMITS = os.path.join(os.path.dirname(__file__), "..", "benchmarks", "limits.txt")

# `spread` is half the distance of the quartiles, as a part of the median; None where there is one reading only.
Reading = collections.namedtuple("Reading", "nanoseconds spread")
Limit = collections.namedtuple("Limit", "measure at_most better")


class Work:
    """One work and the reading of each way of doing it, the library's first, then the bare one."""

    def __init__(self, name, ways, limit):
        self.name = name
        self.family, self.title = name.split("/")
        self.ways = dict(sorted(ways.items(), key=lambda way: (way[0] != LIBRARY, way[0] != BARE, way[0])))
        self.limit = limit

    def ratio(self, way=LIBRARY):
        """How many times the bare way's; None where one of them was not measured."""
        if way not in self.ways or BARE not in self.ways:
            return None
        return self.ways[way].nanoseconds / self.ways[BARE].nanoseconds

    def spread(self):
        """That of the ratio."""
        spreads = [self.ways[way].spread for way in (LIBRARY, BARE)]
        return None if None in spreads else math.hypot(*spreads)

    def excess(self):
        """What the limit is about, as a number; None where there is no limit."""
        if self.limit is None or self.ratio() is None:
            return None
        more = self.ways[LIBRARY].nanoseconds - self.ways[BARE].nanoseconds
        return {"ratio": self.ratio(), "ns more": more, "us more": more / 1000}[self.limit.measure]

    def is_over(self):
        return self.excess() is not None and self.excess() > self.limit.at_most

    def verdict(self, again=None):
        """In words. A limit is missed when two runs exceed it; `again` is the same work in the second."""
        if self.excess() is None:
            return "reported only"
        if not self.is_over():
            return "met, and better" if self.excess() <= self.limit.better else "met"
        if again is None or again.excess() is None:
            return "over in one run"
        return f"{'missed, again' if again.is_over() else 'met in a second run:'} {again.excess():.3f}"


def read_limits():
    limits = []
    with open(LIMITS, encoding="utf-8") as file:
        for line in file:
            fields = re.split(r"\s{2,}", line.strip())
            if line.startswith("#") or fields == [""]:
                continue
            pattern, measure, *numbers = fields
            limits.append((pattern, None if measure == "-" else Limit(measure, *map(float, numbers))))
    return limits


def quantile(ordered, part):
    return ordered[min(len(ordered) - 1, int(part * len(ordered)))]


def read_benchmarks(path):
    """Returns the machine's description and, for each work, its ways."""
    with open(path, encoding="utf-8") as file:
        document = json.load(file)
    times = {}
    # In the order in which they are registered.
    for entry in sorted(document["benchmarks"], key=lambda entry: entry["family_index"]):
        if entry["run_type"] == "iteration":
            family, title, way = entry["run_name"].split("/")[:3]
            times.setdefault(f"{family}/{title}", {}).setdefault(way, []).append(entry["real_time"])
    works = {}
    for name, ways in times.items():
        works[name] = {}
        for way, readings in ways.items():
            median = statistics.median(readings)
            lower, _, upper = statistics.quantiles(readings, n=4) if len(readings) > 1 else (None,) * 3
            spread = None if lower is None else (upper - lower) / 2 / median
            works[name][way] = Reading(median, spread)
    return document["context"], works


def read_timers(path):
    """Returns how the processors were kept awake and, for each quantile of the lateness, its ways."""
    with open(path, encoding="utf-8") as file:
        document = json.load(file)
    works = {}
    for priority, ways in document["readings"].items():
        ordered = {way: sorted(readings) for way, readings in ways.items()}
        for title, part in (("median", 0.5), ("99 %", 0.99), ("99.9 %", 0.999), ("maximum", 1)):
            works[f"timer/lateness at {priority}, {title}"] = {
                way: Reading(quantile(readings, part), None) for way, readings in ordered.items()
            }
    return document["awake"], works


def read(directory, suffix=""):
    """Returns the works of a run, by name, and the machine's description. What was not measured is not there."""
    context, works = {}, {}
    benchmarks = os.path.join(directory, f"bench{suffix}.json")
    timers = os.path.join(directory, f"timer{suffix}.json")
    if os.path.exists(benchmarks):
        context, works = read_benchmarks(benchmarks)
    if os.path.exists(timers):
        context["awake"], lateness = read_timers(timers)
        works |= lateness
    limits = read_limits()

    def limit_of(name):
        return next((limit for pattern, limit in limits if fnmatch.fnmatchcase(name, pattern)), None)

    families = {}
    for name, ways in works.items():
        work = Work(name, ways, limit_of(name))
        families.setdefault(work.family, []).append(work)
    return {work.name: work for family in families.values() for work in family}, context
