#!/usr/bin/env python3
"""Measures the time from a call in one process to the callback in another, of this system and of others.

The rounds are interleaved, so that other load on the machine affects all systems alike.
"""

import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

import report
from machine import machine
from processes import RunFailed
from systems import ALL
from workloads import WORKLOADS, Sizes


def version_of(package):
    shown = subprocess.run(["dpkg-query", "--show", "--showformat=${Version}", package], capture_output=True,
                           text=True, check=False)
    return shown.stdout if shown.returncode == 0 else "unknown"


def versions(systems):
    packages = dict.fromkeys(["libzmq5", "libjsoncpp25"] + [one for each in systems for one in each.packages])
    return {package: version_of(package) for package in packages}


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench road", description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, help="number of rounds (default 5; 1 with --quick)")
    parser.add_argument("--quick", action="store_true", help="small sizes, to check that everything works")
    parser.add_argument("--only", action="append", default=[], metavar="SYSTEM|WORKLOAD",
                        help="one of " + ", ".join([one.name for one in ALL] + [one.name for one in WORKLOADS]))
    parser.add_argument("--build", required=True, type=os.path.abspath, help=argparse.SUPPRESS)  # where the programs are
    parser.add_argument("--results", required=True, help=argparse.SUPPRESS)  # where results.json goes
    parser.add_argument("--docs", help=argparse.SUPPRESS)  # a full run renews performance.md there
    parser.add_argument("--report", action="store_true", help="renew docs/performance.md from the last full run")
    parser.add_argument("--complete", action="store_true", help="fail if a run fails, or the product loses what is synced")
    options = parser.parse_args()
    unknown = set(options.only) - {one.name for one in ALL} - {one.name for one in WORKLOADS}
    if unknown:
        parser.error("neither a system nor a workload: " + ", ".join(sorted(unknown)))
    return options


def chosen(all_of_them, only):
    names = {one.name for one in all_of_them} & set(only)
    return [one for one in all_of_them if not names or one.name in names]


def measured(workload, system, sizes):
    try:
        with tempfile.TemporaryDirectory(prefix="bench.") as folder:
            return {"metrics": workload.run(system, sizes, folder)}
    except RunFailed as failure:
        return {"failed": str(failure)}


def shown(run):
    if "failed" in run:
        return "FAILED: " + run["failed"]
    return "  ".join(f"{name} {value:,.4g}" for name, value in run["metrics"].items() if value is not None)


def measure(systems, workloads, rounds, sizes):
    for workload in workloads:
        matching = [system for system in systems if workload.applies(system)]
        needed = {system.name: workload.rounds(system, rounds) for system in matching}
        for number in range(max(needed.values(), default=0)):
            for system in matching:
                if number >= needed[system.name]:
                    continue
                run = {"workload": workload.name, "system": system.name, "round": number}
                run |= measured(workload, system, sizes)
                print(f"{workload.name:8} {system.name:8} {number + 1:2}  {shown(run)}", flush=True)
                yield run


def is_complete(runs):
    lost = [run for run in runs if run["workload"] in ("synced", "queried", "paced") and run["system"] == "product"
            and run.get("metrics", {}).get("lost", 0) != 0]
    return not lost and not any("failed" in run for run in runs)


def main():
    options = arguments()
    file = os.path.join(options.results, "results.json")
    if options.report:
        with open(file, encoding="utf-8") as stored:
            report.write_documents(json.load(stored), options.docs)
        return
    rounds = options.rounds or (1 if options.quick else 5)
    sizes = Sizes.quick() if options.quick else Sizes()
    systems = [one for one in (each(options.build) for each in chosen(ALL, options.only)) if one.is_there()]
    results = {"date": time.strftime("%Y-%m-%d", time.gmtime()), "machine": machine(), "versions": versions(systems),
               "rounds": rounds, "sizes": vars(sizes), "titles": {one.name: one.title for one in systems}}
    results["runs"] = list(measure(systems, chosen(WORKLOADS, options.only), rounds, sizes))
    is_full = not options.quick and not options.only
    if not is_full:
        file = os.path.join(options.results, "results-partial.json")
    os.makedirs(options.results, exist_ok=True)
    with open(file, "w", encoding="utf-8") as stored:
        json.dump(results, stored, indent=1)
    print()
    print(report.tables(results))
    if is_full and options.docs:
        report.write_documents(results, options.docs)
    if options.complete and not is_complete(results["runs"]):
        sys.exit("bench: not complete")


if __name__ == "__main__":
    main()
