#!/usr/bin/env python3
"""Measures how many changes a Python process takes per second from one publisher, with this package and with others.

The rounds are interleaved, so that other load on the machine affects all alike.
"""

import argparse
import contextlib
import os
import statistics
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROAD = os.path.join(HERE, "../road")
sys.path.insert(0, ROAD)

import measure as road_measure  # noqa: E402
import systems  # noqa: E402
from processes import Client, RunFailed  # noqa: E402
from workloads import cpu_seconds  # noqa: E402

KEYS = 100
RUN = 1
PYTHON = "/usr/bin/python3"  # Debian's, for which the other clients are packaged

# name in subscriber.py, title, system, Debian's package of the client
CLIENTS = (
    ("watch", "statusmanager, `watch`", systems.Product, None),
    ("blocking", "statusmanager, blocking `watch`", systems.Product, None),
    ("zmq_json", "pyzmq and json, to statusbroker", systems.Product, "python3-zmq"),
    ("zmq_plain", "pyzmq, to the ZeroMQ floor", systems.RawFloor, "python3-zmq"),
    ("redis", "redis-py", systems.Redis, "python3-redis"),
    ("mqtt", "paho-mqtt, QoS 0", systems.Mqtt0, "python3-paho-mqtt"),
)


def last_value(number):
    """The end of the value with this number; see Stamp.h."""
    return "".join(chr(ord("a") + int(digit, 16)) for digit in f"{RUN << 32 | number:016x}")


def posts_between_barriers(system):
    """0: none. Without barriers, the ZeroMQ floor would lose values, and the run would not end."""
    return 250 if isinstance(system, systems.Floor) else 0


def run(name, system, posts, folder):
    with contextlib.ExitStack() as stack:
        broker, arguments = system.start(folder)
        stack.callback(broker.stop)
        poster = Client([system.client_program(), *arguments], folder)
        stack.callback(poster.stop)
        poster.command("connect", 1)
        subscriber = Client([PYTHON, os.path.join(HERE, "subscriber.py"), name, str(KEYS), last_value(posts - 1),
                             *arguments], folder)
        stack.callback(subscriber.stop)
        probe_until_ready(poster, subscriber)
        everybody = (poster, broker, subscriber)
        before = cpu_seconds(everybody)
        poster.command("burst", RUN, posts, KEYS, posts_between_barriers(system), "sync", seconds=120)
        result = subscriber.answer(60)
        return result | {"allCpu": (cpu_seconds(everybody) - before) / result["count"] * 1e6}


def probe_until_ready(poster, subscriber):
    deadline = time.monotonic() + 20
    while time.monotonic() < deadline:
        poster.command("burst", 0, KEYS, KEYS, 0, "sync")
        with contextlib.suppress(RunFailed):
            subscriber.answer(0.1)
            return
    raise RunFailed("the subscriber got no probe")


def measured(name, system, posts):
    try:
        with tempfile.TemporaryDirectory(prefix="bench.") as folder:
            return run(name, system, posts, folder)
    except RunFailed as failure:
        print(f"{name:10} FAILED: {failure}", flush=True)
        return None


def spread(values, form):
    return f"{form.format(statistics.median(values))} ({form.format(min(values))} to {form.format(max(values))})"


def table(runs, posts):
    lines = ["| client | changes per second | its CPU µs per change | CPU µs of all processes | left out |",
             "| --- | ---: | ---: | ---: | ---: |"]
    for name, title, _, package in CLIENTS:
        results = [result for result in runs[name] if result]
        if not results:
            continue
        version = f" {road_measure.version_of(package)}" if package else ""
        left_out = spread([100 * (1 - result["count"] / posts) for result in results], "{:.0f} %")
        lines.append(f"| {title}{version} | {spread([result['rate'] for result in results], '{:,.0f}')} "
                     f"| {spread([result['cpu'] for result in results], '{:.1f}')} "
                     f"| {spread([result['allCpu'] for result in results], '{:.1f}')} | {left_out} |")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench python", description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--posts", type=int, default=200_000)
    parser.add_argument("--only", action="append", default=[], choices=[name for name, *_ in CLIENTS])
    parser.add_argument("--build", required=True, type=os.path.abspath, help=argparse.SUPPRESS)
    options = parser.parse_args()

    os.environ["LD_LIBRARY_PATH"] = os.path.join(options.build, "c")
    os.environ["PYTHONPATH"] = os.path.join(HERE, "../../python")
    clients = [(name, system(options.build)) for name, _, system, _ in CLIENTS
               if not options.only or name in options.only]
    runs = {name: [] for name, *_ in CLIENTS}
    print(road_measure.machine(), flush=True)
    for number in range(options.rounds):
        for name, system in clients:
            if not system.is_there():
                continue
            result = measured(name, system, options.posts)
            runs[name].append(result)
            print(f"{name:10} {number + 1:2}  {result}", flush=True)
    print()
    print(table(runs, options.posts))


if __name__ == "__main__":
    main()
