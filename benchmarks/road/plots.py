"""Plots as SVG, without any library: horizontal bars, and lines on logarithmic scales."""

import math
import os
from xml.sax.saxutils import escape

WIDTH = 760
LABELS = 190  # to the left of the bars
VALUES = 110  # to the right of them
BAR = 16
GAP = 6

# The text must be readable on a light page and on a dark page; the bars already are.
STYLE = """<style>
text { font: 12px sans-serif; fill: #24292f; }
.title { font-weight: bold; font-size: 13px; }
.small { font-size: 10px; }
.axis { stroke: #8c959f; stroke-width: 1; fill: none; }
.grid { stroke: #8c959f; stroke-width: 0.5; stroke-dasharray: 2 4; fill: none; }
@media (prefers-color-scheme: dark) { text { fill: #d1d7de; } }
</style>"""

COLOURS = {"product": "#2f81f7", "json": "#7d8590", "raw": "#a5adb6", "mqtt0": "#bf8700", "mqtt1": "#d4a72c",
           "redis": "#cf5348", "dbus": "#2da44e"}


def text(x, y, words, anchor="start", kind=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" class="{kind}">{escape(words)}</text>'


def line(x1, y1, x2, y2, kind="axis"):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>'


def svg(height, parts):
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height:.0f}" '
                      f'width="{WIDTH}" height="{height:.0f}" role="img">', STYLE, *parts, "</svg>", ""])


def short(value):
    if value >= 1_000_000:
        return f"{value / 1e6:.3g}M"
    if value >= 10_000:
        return f"{value / 1e3:.3g}k"
    return f"{value:,.0f}" if value >= 1000 else f"{value:.3g}"


def bars(measured, top, title, workload, metric):
    """Returns a panel with a bar and the spread of the rounds for each system, and the panel's lower end."""
    found = {system: measured.spread(workload, system, metric) for system in measured.titles}
    found = {system: spread for system, spread in found.items() if spread}
    parts = [text(0, top + 14, title, kind="title")]
    y = top + 24
    scale = (WIDTH - LABELS - VALUES) / max([high for _, _, high in found.values()] + [1e-9])
    for system, (median, low, high) in found.items():
        middle = y + BAR / 2
        parts.append(text(LABELS - 8, middle + 4, measured.titles[system], "end"))
        parts.append(f'<rect x="{LABELS}" y="{y}" width="{median * scale:.1f}" height="{BAR}" rx="2" '
                     f'fill="{COLOURS[system]}"/>')
        parts.append(line(LABELS + low * scale, middle, LABELS + high * scale, middle))
        parts.append(text(LABELS + high * scale + 8, middle + 4, short(median)))
        y += BAR + GAP
    return parts, y + 14


def panels(measured, *described):
    parts, y = [], 0
    for title, workload, metric in described:
        if any(measured.values(workload, system, metric) for system in measured.titles):
            panel, y = bars(measured, y, title, workload, metric)
            parts += panel
    return svg(max(y, 20), parts)


class LogScale:
    def __init__(self, values, begin, end):
        self.low, self.high = math.log10(min(values)), math.log10(max(values))
        if self.high == self.low:
            self.high += 1
        self.begin, self.end = begin, end

    def place(self, value):
        return self.begin + (math.log10(value) - self.low) / (self.high - self.low) * (self.end - self.begin)


def lines(measured, top, title, prefix, across):
    """Returns a panel of costs over sizes, both on logarithmic scales, and the panel's lower end."""
    height, left, right = 200, 60, WIDTH - 170
    names = measured.growth_names(prefix)
    curves = {system: [(int(name.removeprefix(prefix)), measured.median("growth", system, name)) for name in names
                       if measured.median("growth", system, name)] for system in measured.titles}
    curves = {system: points for system, points in curves.items() if points}
    costs = [cost for points in curves.values() for _, cost in points]
    parts = [text(0, top + 14, title, kind="title")]
    if not costs:
        return parts, top + 24
    sizes = [size for points in curves.values() for size, _ in points]
    bottom = top + 30 + height
    x = LogScale(sizes, left, right)
    low, high = 10 ** math.floor(math.log10(min(costs))), 10 ** math.ceil(math.log10(max(costs) * 1.01))
    y = LogScale((low, high), bottom, top + 30)
    parts.append(f'<path class="axis" d="M{left} {top + 30}V{bottom}H{right}"/>')
    for exponent in range(round(math.log10(low)), round(math.log10(high)) + 1):
        for factor in (1, 2, 5):
            cost = factor * 10.0 ** exponent
            if low <= cost <= high:
                parts.append(line(left, y.place(cost), right, y.place(cost), "grid"))
                parts.append(text(left - 6, y.place(cost) + 4, f"{cost:g}", "end", "small"))
    for size in sorted(set(sizes)):
        parts.append(text(x.place(size), bottom + 16, f"{size:,}", "middle", "small"))
    parts.append(text((left + right) / 2, bottom + 32, across, "middle"))
    ends = []
    for system, points in curves.items():
        places = [(x.place(size), y.place(cost)) for size, cost in points]
        path = " ".join(f"{a:.1f},{b:.1f}" for a, b in places)
        parts.append(f'<polyline points="{path}" fill="none" stroke="{COLOURS[system]}" stroke-width="2"/>')
        parts += [f'<circle cx="{a:.1f}" cy="{b:.1f}" r="3" fill="{COLOURS[system]}"/>' for a, b in places]
        ends.append((places[-1][1] + 4, measured.titles[system]))
    lowest = 0
    for end, label in sorted(ends):  # from the top, so that the labels have the order of the curves
        lowest = max(end, lowest + 14)
        parts.append(text(right + 8, lowest, label))
    return parts, bottom + 50


def growth(measured):
    parts, y = [], 0
    for title, prefix, across in (("CPU per post, µs", "keys", "keys"),
                                  ("CPU per delivery, µs", "clients", "subscribers")):
        panel, y = lines(measured, y, title, prefix, across)
        parts += panel
    return svg(y, parts)


def write_all(measured, folder):
    """Returns the names of the plots and their titles."""
    drawn = {
        "throughput": ("Values delivered per second", panels(
            measured, ("Burst with a sync every 250 posts, delivered per second", "synced", "rate"),
            ("Burst without sync, delivered per second", "plain", "rate"),
            ("Burst without sync, lost", "plain", "lost"),
            ("To 8 processes, a sync every 250 posts, delivered per second", "fanOut", "rate"))),
        "latency": ("Time from the post to the callback, and of a query", panels(
            measured, ("One way at 1,000 posts/s, p50, µs", "paced", "p50"),
            ("One way at 1,000 posts/s, p99, µs", "paced", "p99"), ("Query, p50, µs", "query", "p50"),
            ("Query, p99, µs", "query", "p99"))),
        "cpu": ("Processor time", panels(
            measured, ("CPU per 100,000 deliveries in a synced burst, s", "synced", "cpu"),
            ("CPU per 100,000 deliveries at 1,000 posts/s, s", "paced", "cpu"))),
        "memory": ("Memory", panels(
            measured, ("Broker, idle, RSS, KiB", "memory", "idleRss"),
            ("Broker, 10,000 keys, RSS, KiB", "memory", "storedRss"),
            ("Idle client, RSS, KiB", "memory", "clientRss"))),
        "growthPlot": ("Growth with keys and subscribers", growth(measured)),
    }
    for name, (_, picture) in drawn.items():
        with open(os.path.join(folder, name + ".svg"), "w", encoding="utf-8") as file:
            file.write(picture)
    return {name: title for name, (title, _) in drawn.items()}
