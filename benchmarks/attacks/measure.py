#!/usr/bin/env python3
"""Measures what a well-behaved client experiences while others attack the broker.

Each attack has a broker of its own, which is full. The client, new clients and the attackers are processes of their own.
"""

import argparse
import contextlib
import json
import os
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "../road"))

import documents  # noqa: E402
import promises  # noqa: E402
from attacks import ATTACKS  # noqa: E402
from machine import described, machine  # noqa: E402
from processes import Client, RunFailed  # noqa: E402
from promises import ENOUGH, Outcome  # noqa: E402
from systems import Product  # noqa: E402

YOUTH = 2.5  # seconds; a start may take longer in a broker's first two
LEAD = 1  # seconds from the beginning of an attack to the first measurement
REST = 3  # seconds after which the memory must be free again
LONGEST = 3  # times the time of an attack, if the measurements are too few
PATIENCE = 60  # seconds


class Broker:
    """The broker's process, its memory and its end."""

    def __init__(self, process):
        self.process = process

    def memory(self, what):
        """In MiB: VmRSS is now, VmHWM the peak."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith(what)) / 1024

    def forget_peak(self):
        with open(f"/proc/{self.process.pid}/clear_refs", "w", encoding="ascii") as file:
            file.write("5")

    def end(self):
        """Seconds from SIGTERM to the end."""
        self.process.check_alive()
        begin = time.monotonic()
        self.process.process.send_signal(signal.SIGTERM)
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.process.process.wait(PATIENCE)
        if self.process.process.returncode != 0:
            raise RunFailed(f"the broker ended with {self.process.process.returncode}: {self.process.logged()[-500:]}")
        return time.monotonic() - begin


class Scene:
    """A full broker, the observer, and new clients that have not connected."""

    def __init__(self, system, newcomers, folder, stack):
        self.folder = folder
        self.stack = stack
        process, _ = system.start(folder, "--state", os.path.join(folder, "state"))  # as delivered
        stack.callback(process.stop)
        self.broker = Broker(process)
        self.newcomers = [self.client("observer.py") for _ in range(newcomers)]
        self.observer = self.client("observer.py")
        self.observer.command("connect")
        self.observer.command("fill")
        self.observer.command("observe", YOUTH, 0, 0)

    def client(self, program, *arguments):
        command = [sys.executable, "-B", os.path.join(HERE, program), *map(str, arguments)]
        client = Client(command, self.folder)
        self.stack.callback(client.stop)
        return client

    def observe(self, seconds):
        """Times of new clients that start meanwhile, and of the observer."""
        self.observer.begin("observe", seconds, ENOUGH, LONGEST * seconds)
        starts = []
        for newcomer in self.newcomers:
            starts.append(newcomer.command("start"))
            newcomer.stop()
            time.sleep(seconds / len(self.newcomers) / 2)
        return starts, self.observer.answer(PATIENCE)

    def attack(self, attack):
        longest = PATIENCE + LEAD
        attackers = [self.client("attacker.py", attack.name, number, longest)
                     for number in range(len(attack.crowds))]
        time.sleep(LEAD)
        return attackers


def end(attackers):
    for attacker in attackers:
        attacker.process.send_signal(signal.SIGTERM)
    done = [attacker.answer() for attacker in attackers]
    for attacker in attackers:
        attacker.stop()
    if not all(one["connections"] for one in done):
        raise RunFailed("an attacker has not connected")
    return done


def measured(attack, system, seconds, newcomers):
    with contextlib.ExitStack() as stack:
        folder = stack.enter_context(tempfile.TemporaryDirectory(prefix="bench."))
        scene = Scene(system, newcomers, folder, stack)
        broker = scene.broker
        idle = broker.memory("VmRSS")
        broker.forget_peak()
        attackers = scene.attack(attack)
        starts, times = scene.observe(seconds)
        done = end(attackers)
        broker.process.check_alive()
        peak = broker.memory("VmHWM")
        time.sleep(REST)
        after = broker.memory("VmRSS")
        scene.observer.command("observe", 0, 1, 1)
        print(f"{attack.name:12} {len(times['query'])} rounds, load {os.getloadavg()[0]:.1f}, "
              f"attackers: {done}", flush=True)
        return Outcome(idle, peak, after, starts, times, broker.end())


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench attacks", description=__doc__.splitlines()[0])
    parser.add_argument("--only", action="append", default=[], metavar="ATTACK", help="may be repeated")
    parser.add_argument("--list", action="store_true", help="list the attacks")
    parser.add_argument("--quick", action="store_true", help="a short attack, to check that everything works")
    parser.add_argument("--docs", help="renew performance.md in this folder")
    parser.add_argument("--build", type=os.path.abspath, help=argparse.SUPPRESS)  # where the broker is
    options = parser.parse_args()
    unknown = set(options.only) - {one.name for one in ATTACKS}
    if unknown:
        parser.error("not an attack: " + ", ".join(sorted(unknown)))
    if not options.list and not options.build:
        parser.error("--build is missing")
    return options


def main():
    options = arguments()
    only = options.only or (["flood"] if options.quick else [one.name for one in ATTACKS])
    chosen = [one for one in ATTACKS if one.name in only]
    if options.list:
        print("\n".join(f"{one.name:12} {one.title}" for one in chosen))
        return
    seconds, newcomers = (1, 2) if options.quick else (4, 8)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # ends the other processes, too
    system = Product(options.build)
    where = f"Measured on {time.strftime('%Y-%m-%d', time.gmtime())}: {described(machine())}."
    rows, broken, failed = [], [], []
    for attack in chosen:
        try:
            outcome = measured(attack, system, seconds, newcomers)
            rows.append(outcome.row(attack.title))
            broken += [attack.name] if outcome.missed() else []
        except RunFailed as failure:
            print(f"{attack.name:12} FAILED: {failure}", flush=True)
            rows.append(promises.failed_row(attack.title))
            failed.append(attack.name)
    text = f"{where} Load at the end {os.getloadavg()[0]:.1f}.\n\n" + promises.as_table(rows)
    print("\n" + text)
    if options.docs:
        documents.renew(os.path.join(options.docs, "performance.md"), {"attacks": text})
    if failed or (broken and not options.quick):
        sys.exit(f"bench: bounds are missed beside: {', '.join(broken) or 'none'}; failed: {', '.join(failed) or 'none'}")


if __name__ == "__main__":
    main()
