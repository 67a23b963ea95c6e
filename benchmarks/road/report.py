"""Writes the results into the documents: tables, targets and plots."""

import math
import os
import re
import statistics

import plots
from documents import renew, table
from machine import described

FLOOR = "json"

# Workload, metric, label, unit.
ROWS = (
    ("synced", "rate", "burst, a sync every 250 posts", "delivered/s"),
    ("synced", "lost", "lost", ""),
    ("queried", "rate", "burst, a query every 250 posts", "delivered/s"),
    ("queried", "lost", "lost", ""),
    ("plain", "rate", "burst without sync", "delivered/s"),
    ("plain", "lost", "lost", ""),
    ("fanOut", "rate", "to 8 processes, a sync every 250 posts", "delivered/s"),
    ("fanOut", "lost", "lost", ""),
    ("paced", "p50", "one way at 1,000 posts/s, p50", "µs"),
    ("paced", "p99", "one way, p99", "µs"),
    ("paced", "p999", "one way, p99.9", "µs"),
    ("paced", "sleeps", "waits of a thread per delivery at 1,000 posts/s", ""),
    ("query", "p50", "query, p50", "µs"),
    ("query", "p99", "query, p99", "µs"),
    ("query", "perSecond", "sequential queries", "/s"),
    ("synced", "cpu", "CPU per 100,000 deliveries, synced burst", "s"),
    ("synced", "cpuPoster", "the poster's part", "s"),
    ("synced", "cpuBroker", "the broker's part", "s"),
    ("synced", "cpuSubscribers", "the subscriber's part", "s"),
    ("paced", "cpu", "CPU per 100,000 deliveries, 1,000 posts/s", "s"),
    ("memory", "idleRss", "broker, idle, RSS", "KiB"),
    ("memory", "idlePss", "broker, idle, PSS", "KiB"),
    ("memory", "storedRss", "broker, 10,000 keys, RSS", "KiB"),
    ("memory", "storedPss", "broker, 10,000 keys, PSS", "KiB"),
    ("memory", "clientRss", "idle client, RSS", "KiB"),
    ("memory", "clientPss", "idle client, PSS", "KiB"),
    ("start", "ms", "start, to the first callback", "ms"),
    ("together", "p50", "start of 100 at once, until each is connected, p50", "ms"),
    ("together", "longest", "start of 100 at once, until the last is connected", "ms"),
    ("together", "cpuBroker", "start of 100 at once, the broker's CPU for each", "ms"),
    ("together", "cpuClient", "start of 100 at once, each client's own CPU", "ms"),
    ("silent", "alone", "the broker's CPU per 100,000 deliveries, synced burst, s", ""),
    ("silent", "beside", "the same beside 1,000 silent connections, s", ""),
    ("silent", "idle", "the broker's CPU beside 1,000 silent connections while nothing is sent, µs per s", ""),
)


class Measured:
    """The metrics of all runs, by workload, system and name."""

    def __init__(self, results):
        self.results = results
        self.titles = results["titles"]

    def values(self, workload, system, metric):
        found = [run["metrics"].get(metric) for run in self.results["runs"]
                 if (run["workload"], run["system"]) == (workload, system) and "metrics" in run]
        return [value for value in found if value is not None]

    def median(self, workload, system, metric):
        values = self.values(workload, system, metric)
        return statistics.median(values) if values else None

    def ratio(self, workload, system, metric, to=FLOOR):
        value, other = self.median(workload, system, metric), self.median(workload, to, metric)
        return value / other if value is not None and other else None

    def spread(self, workload, system, metric):
        """Median, lowest, highest; None if it was not measured."""
        values = self.values(workload, system, metric)
        return (statistics.median(values), min(values), max(values)) if values else None

    def growth_names(self, prefix):
        names = {name for run in self.results["runs"] if run["workload"] == "growth"
                 for name in run.get("metrics", {}) if re.fullmatch(prefix + r"\d+", name)}
        return sorted(names, key=lambda name: int(name.removeprefix(prefix)))


def number(value):
    if value is None:
        return "-"
    if value == 0 or value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}" if value < 100 else f"{value:.0f}"


def cell(spread):
    if spread is None:
        return "-"
    median, low, high = (number(value) for value in spread)
    return median if low == high else f"{median} ({low} to {high})"


def comparison(measured):
    rows = []
    for workload, metric, label, unit in ROWS:
        cells = [cell(measured.spread(workload, system, metric)) for system in measured.titles]
        if all(text == "-" for text in cells):
            continue
        ratio = measured.ratio(workload, "product", metric)
        rows.append([f"{label}, {unit}" if unit else label, *cells, f"{ratio:.2f}" if ratio is not None else "-"])
    return table(["", *measured.titles.values(), "statusbroker / JSON floor"], rows) if rows else ""


def growth(measured):
    parts = []
    for prefix, what in (("keys", "µs of CPU per post, by keys"), ("clients", "µs of CPU per delivery, by clients"),
                         ("postsTo", "µs of CPU per post, by clients")):
        names = measured.growth_names(prefix)
        if names:
            header = [what, *[f"{int(name.removeprefix(prefix)):,}" for name in names]]
            parts.append(table(header, [
                [measured.titles[system], *[cell(measured.spread("growth", system, name)) for name in names]]
                for system in measured.titles if measured.values("growth", system, names[0])]))
    return "\n\n".join(parts)


def failures(measured):
    failed = [run for run in measured.results["runs"] if "failed" in run]
    return "\n".join(f"- {run['workload']}, {run['system']}: {run['failed']}" for run in failed)


# ------------------------------------------------------------------------------------------------- targets


def of_floor(workload, metric, text, bound):
    """A bound on the ratio to the JSON floor."""
    def judge(measured):
        ratio = measured.ratio(workload, "product", metric)
        if ratio is None:
            return None
        met = ratio >= bound if text == "at least" else ratio <= bound
        return f"{text} {bound} of the JSON floor", f"{ratio:.2f}", met
    return judge


def compared_with(workload, metric, other, sign):
    def judge(measured):
        ratio = measured.ratio(workload, "product", metric, other)
        if ratio is None:
            return None
        met = ratio > 1 if sign == "more" else ratio < 1
        return f"{sign} than {measured.titles[other]}", f"{ratio:.2f} times", met
    return judge


def below(workload, metric, bound, unit):
    def judge(measured):
        value = measured.median(workload, "product", metric)
        return None if value is None else (f"median below {bound:,} {unit}", f"{number(value)} {unit}", value < bound)
    return judge


def beside_silent_connections(measured):
    alone, beside = (measured.median("silent", "product", metric) for metric in ("alone", "beside"))
    if not alone or beside is None:
        return None
    return "1,000 silent connections: at most 1.1 times", f"{beside / alone:.2f} times", beside <= 1.1 * alone


def growth_with_keys(measured):
    names = measured.growth_names("keys")
    if len(names) < 2:
        return None
    few, many = (int(name.removeprefix("keys")) for name in (names[0], names[-1]))
    bound = math.log(many) / math.log(few)
    ratio = (measured.median("growth", "product", names[-1]) or math.inf) / measured.median("growth", "product", names[0])
    return f"{many:,} keys at most {bound:.1f} times {few:,}", f"{ratio:.2f} times", ratio <= bound


def growth_with_clients(measured):
    names = measured.growth_names("clients")
    if len(names) < 2:
        return None
    ratio = (measured.median("growth", "product", names[-1]) or math.inf) / measured.median("growth", "product", names[0])
    return f"{names[-1].removeprefix('clients')} clients at most 1.1 times 1", f"{ratio:.2f} times", ratio <= 1.1


def nothing_lost(measured):
    lost = measured.values("plain", "product", "lost")
    rate = measured.median("plain", "product", "rate")
    if not lost or rate is None:
        return None
    return (f"nothing lost in {len(lost)} runs, 200,000 posts/s",
            f"{sum(one != 0 for one in lost)} runs with losses, at most {max(lost):,.0f}; {rate:,.0f} delivered/s",
            max(lost) == 0 and rate >= 200_000 and len(lost) >= 20)


TARGETS = (
    ("burst with a sync every 250", of_floor("synced", "rate", "at least", 1.0)),
    *(("burst without sync", compared_with("plain", "rate", other, "more"))
      for other in ("mqtt0", "mqtt1", "redis", "dbus")),
    ("burst with a sync every 250", compared_with("synced", "rate", "mqtt0", "more")),
    ("one way at 1,000/s, p50", of_floor("paced", "p50", "at most", 1.0)),
    ("one way at 1,000/s, p99", of_floor("paced", "p99", "at most", 1.0)),
    ("query, p50", of_floor("query", "p50", "at most", 0.9)),
    ("deliveries per second to 8 processes", of_floor("fanOut", "rate", "at least", 1.0)),
    *(("deliveries per second to 8 processes", compared_with("fanOut", "rate", other, "more"))
      for other in ("mqtt0", "mqtt1", "dbus")),
    # The previous broker took 0.61 of the floor's CPU; this one may take at most 0.35 of that.
    ("the broker's CPU per delivery", of_floor("synced", "cpuBroker", "at most", 0.21)),
    ("the broker's CPU per delivery", beside_silent_connections),
    ("the broker's CPU beside 1,000 silent connections", below("silent", "idle", 1000, "µs per s")),
    ("CPU per 100,000 deliveries", of_floor("synced", "cpu", "at most", 1.0)),
    ("broker's RSS, idle", below("memory", "idleRss", 5 * 1024, "KiB")),
    ("broker's RSS, 10,000 keys", below("memory", "storedRss", 15 * 512, "KiB")),
    ("start, to the first callback", below("start", "ms", 6, "ms")),
    ("start of 100 at once, p50", below("together", "p50", 6, "ms")),
    ("CPU per post, by keys", growth_with_keys),
    ("CPU per delivery, by clients", growth_with_clients),
    ("burst without sync", nothing_lost),
)


def targets(measured):
    judged = [(what, judge(measured)) for what, judge in TARGETS]
    rows = [[what, *found[:2], "yes" if found[2] else "**no**"] for what, found in judged if found]
    return table(["what", "target", "measured", "met"], rows) if rows else ""


# ----------------------------------------------------------------------------------------------- documents


def circumstances(measured):
    machine, sizes = measured.results["machine"], measured.results["sizes"]
    packages = ", ".join(f"{name} {version}" for name, version in measured.results["versions"].items())
    return (f"Measured on {measured.results['date']}: {described(machine)}. {packages}. {measured.results['rounds']} rounds, bursts of {sizes['burst']:,} posts, "
            f"{sizes['fan_out']:,} to 8 processes, {sizes['seconds']} s at 1,000 posts/s, {sizes['queries']:,} queries.\n\n"
            "Each number is the median of the rounds, with the lowest and the highest.")


def tables(results):
    measured = Measured(results)
    parts = {"Compared": comparison(measured), "Growth": growth(measured), "Targets": targets(measured),
             "Failed runs": failures(measured)}
    return "\n\n".join(f"{title}\n\n{text}" for title, text in parts.items() if text)


def write_documents(results, docs):
    """Renews the text between the marks of performance.md; all other text stays."""
    measured = Measured(results)
    folder = os.path.join(docs, "performance")
    os.makedirs(folder, exist_ok=True)
    names = plots.write_all(measured, folder)
    sections = {
        "machine": circumstances(measured),
        "targets": targets(measured),
        "comparison": "\n\n".join(part for part in (comparison(measured), failures(measured)) if part),
        "growth": growth(measured),
    } | {name: f"![{title}](performance/{name}.svg)" for name, title in names.items()}
    renew(os.path.join(docs, "performance.md"), sections)
