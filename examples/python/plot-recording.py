#!/usr/bin/python3
"""Draws a recording of `statusctl --json record`: the values that are numbers as lines, the events as marks.

    plot-recording.py RECORDING PICTURE [GLOB...]

PICTURE is a PNG, SVG or PDF file. With GLOBs, only matching names are drawn.
"""

import datetime
import fnmatch
import json
import sys

import matplotlib

matplotlib.use("Agg")  # writes files, and needs no screen
import matplotlib.pyplot as plt  # noqa: E402


def number_of(text):
    """Returns a value as a number; nothing if it is none, so that the line has a gap."""
    try:
        return float(text)
    except ValueError:
        return {"true": 1.0, "on": 1.0, "false": 0.0, "off": 0.0}.get(text, float("nan"))


def read(path, globs):
    """Returns the times and numbers of each key, and the events."""
    values, events = {}, []
    with open(path, encoding="utf-8") as recording:
        for line in recording:
            change = json.loads(line)
            name = change.get("name")
            if name is None or not any(fnmatch.fnmatchcase(name, glob) for glob in globs):
                continue
            time = datetime.datetime.fromisoformat(change["time"].replace("Z", "+00:00"))
            if change["kind"] == "event":
                events.append((time, name))
            else:
                times, numbers = values.setdefault(name, ([], []))
                times.append(time)
                numbers.append(number_of(change.get("value", "")))
    numeric = {name: line for name, line in values.items() if any(number == number for number in line[1])}
    return numeric, events


def draw(values, events, picture):
    """Draws each key below the other, over the same time."""
    figure, axes = plt.subplots(max(1, len(values)), sharex=True, squeeze=False, figsize=(10, 1 + 1.5 * len(values)))
    for axis, (name, (times, numbers)) in zip(axes[:, 0], sorted(values.items())):
        axis.step(times, numbers, where="post")
        axis.set_ylabel(name)
    for time, name in events:
        for axis in axes[:, 0]:
            axis.axvline(time, color="gray", linestyle="dotted")
        axes[0, 0].annotate(name, (time, 1), xycoords=("data", "axes fraction"), rotation=45)
    figure.autofmt_xdate()
    figure.savefig(picture)


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    recording, picture, *globs = sys.argv[1:]
    values, events = read(recording, globs or ["*"])
    if not values:
        sys.exit(f"{recording} has no numbers of these names")
    draw(values, events, picture)
    print(f"{len(values)} keys, {len(events)} events")


if __name__ == "__main__":
    main()
