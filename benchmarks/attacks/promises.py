"""The bounds that the broker keeps during an attack, and the table of what was measured."""

import dataclasses
import math

from documents import table

ENOUGH = 200  # measurements; with fewer, the longest one counts as the 99th percentile
BOUNDS = {"start": 500, "query": 50, "sync": 100, "delivery": 100, "peak": 32, "after": 8, "end": 2}
COLUMNS = ["attack", "idle, MiB", "peak, MiB", "3 s later, MiB", "longest start, ms", "query, p50, ms", "query, p99, ms",
           "sync, p99, ms", "delivery, p99, ms", "end, s", "not confirmed", "met"]


@dataclasses.dataclass
class Outcome:
    """What was measured beside one attack: resident memory in MiB, and times in seconds."""

    idle: float
    peak: float
    after: float
    starts: list  # of new clients
    times: dict  # of queries, syncs and deliveries
    end: float

    def cost(self):
        """In the units of the bounds."""
        return {"start": max(one["start"] for one in self.starts) * 1e3, "peak": self.peak - self.idle, "after": self.after - self.idle,
                "end": self.end} | {what: p99(self.times[what]) for what in ("query", "sync", "delivery")}

    def missed(self):
        return [what for what, cost in self.cost().items() if cost > BOUNDS[what]]

    def row(self, title):
        cost = self.cost()
        numbers = (self.idle, self.peak, self.after, cost["start"], percentile(self.times["query"], 0.5), cost["query"],
                   cost["sync"], cost["delivery"], cost["end"])
        syncs = len(self.times["sync"]) + len(self.starts)
        unconfirmed = self.times["unconfirmed"] + sum(one["unconfirmed"] for one in self.starts)
        missed = ", ".join(self.missed())
        return [title, *(f"{number:.1f}" for number in numbers), f"{unconfirmed / syncs:.0%}", f"**no**: {missed}" if missed else "yes"]


def percentile(times, part):
    return sorted(times)[math.ceil(part * len(times)) - 1] * 1e3


def p99(times):
    return percentile(times, 0.99 if len(times) >= ENOUGH else 1)


def as_table(rows):
    return table(COLUMNS, rows)


def failed_row(title):
    return [title, *["-"] * (len(COLUMNS) - 2), "**failed**"]
