#!/usr/bin/env python3
"""draw_charts.py: draws the charts of docs/performance.md, docs/charts/*.svg, from the figures in docs/charts/figures.json
and steps.json. `./run bench charts` measures these figures anew."""

import json
import math
import pathlib
import sys
from xml.sax.saxutils import escape

FOLDER = pathlib.Path(__file__).resolve().parent.parent / "docs/charts"
COLOURS = ("#2463a5", "#d97b29", "#4c9a5b", "#a04a8c", "#7b7b7b", "#c2443d")
WIDTH = 760
TEXT = 13


class Drawing:
    """The elements of one SVG file."""

    def __init__(self, height):
        self.height = height
        self.elements = []

    def rectangle(self, x, y, width, height, colour):
        self.elements.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{max(width, 0):.1f}" height="{height:.1f}" fill="{colour}"/>')

    def line(self, x1, y1, x2, y2, colour="#d8d8d8", width=1.0):
        self.elements.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" stroke-width="{width}"/>')

    def path(self, points, colour, dashed):
        joined = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        dash = ' stroke-dasharray="5 4"' if dashed else ""
        self.elements.append(f'<polyline points="{joined}" fill="none" stroke="{colour}" stroke-width="2"{dash}/>')

    def dot(self, x, y, colour):
        self.elements.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>')

    def text(self, x, y, text, anchor="start", size=TEXT, colour="#222222", bold=False):
        weight = ' font-weight="bold"' if bold else ""
        self.elements.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}" fill="{colour}"{weight}>{escape(text)}</text>')

    def save(self, name):
        head = (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {self.height:.0f}" '
                f'width="{WIDTH}" height="{self.height:.0f}" font-family="sans-serif">')
        background = f'<rect width="{WIDTH}" height="{self.height:.0f}" fill="#ffffff"/>'
        (FOLDER / name).write_text("\n".join([head, background, *self.elements, "</svg>"]) + "\n")


def short(value):
    """1234567 as "1.23 M"."""
    for limit, unit in ((1e6, " M"), (1e3, " k")):
        if abs(value) >= limit:
            return f"{value / limit:.3g}{unit}"
    return f"{value:.3g}"


def heading(drawing, title, explanation):
    drawing.text(16, 26, title, size=17, bold=True)
    drawing.text(16, 46, explanation, colour="#555555")


def legend(drawing, names, y):
    x = 16
    for name, colour in names:
        drawing.rectangle(x, y - 10, 12, 12, colour)
        drawing.text(x + 17, y, name, size=12)
        x += 34 + 6.7 * len(name)


def bar_chart(name, title, explanation, groups):
    """groups: (label, [(series, value, text)]); the same series has the same colour everywhere."""
    series = list(dict.fromkeys(entry[0] for _, entries in groups for entry in entries))
    colour = {one: COLOURS[i % len(COLOURS)] for i, one in enumerate(series)}
    left, right, top, bar, gap = 250, 110, 84, 17, 15
    height = top + sum(len(entries) * bar + gap for _, entries in groups) + 8
    drawing = Drawing(height)
    heading(drawing, title, explanation)
    legend(drawing, colour.items(), 68)
    scale = (WIDTH - left - right) / max(value for _, entries in groups for _, value, _ in entries)
    y = top
    for label, entries in groups:
        drawing.text(left - 10, y + len(entries) * bar / 2 + 4, label, anchor="end")
        for one, value, text in entries:
            drawing.rectangle(left, y, value * scale, bar - 3, colour[one])
            drawing.text(left + value * scale + 6, y + bar - 6, text, size=12)
            y += bar
        y += gap
    drawing.save(name)


def line_chart(name, title, explanation, axes, series):
    """axes: (label, ticks, ticks upwards), logarithmic where the ticks grow by factors; series: (name, points, dashed)."""
    left, right, top, bottom, inner = 70, 44, 88, 48, 290
    drawing = Drawing(top + inner + bottom)
    heading(drawing, title, explanation)
    colours = [COLOURS[i % len(COLOURS)] for i in range(len(series))]
    legend(drawing, [(one[0], colours[i]) for i, one in enumerate(series)], 68)

    def position(ticks, start, length):
        values = [value for value, _ in ticks]
        is_log = values[0] > 0 and values[-1] / values[0] >= 100
        measure = math.log10 if is_log else float
        low, high = measure(values[0]), measure(values[-1])
        return lambda value: start + length * (measure(min(max(value, values[0]), values[-1])) - low) / (high - low)

    x_label, x_ticks, y_ticks = axes
    x_of = position(x_ticks, left, WIDTH - left - right)
    y_of = position(y_ticks, top + inner, -inner)
    for value, text in x_ticks:
        drawing.line(x_of(value), top, x_of(value), top + inner)
        drawing.text(x_of(value), top + inner + 17, text, anchor="middle", size=12)
    for value, text in y_ticks:
        drawing.line(left, y_of(value), WIDTH - right, y_of(value))
        drawing.text(left - 7, y_of(value) + 4, text, anchor="end", size=12)
    drawing.text((left + WIDTH - right) / 2, top + inner + 38, x_label, anchor="middle")
    for (_, points, dashed), colour in zip(series, colours):
        drawing.path([(x_of(x), y_of(y)) for x, y in points], colour, dashed)
        for x, y in points:
            drawing.dot(x_of(x), y_of(y), colour)
    drawing.save(name)


def draw_throughput(figures):
    works = (("744 bytes, one result a message", "744-byte values, one result a message"),
             ("744 bytes, results together", "744-byte values, a batch's results together"),
             ("12 bytes, results together", "12-byte values, a batch's results together"))
    groups = []
    for label, work in works:
        contenders = (("library", "library"), ("floor", "floor"),
                      ("floor with the duties of a call", "the same floor prepared for other threads"))
        values = [(name, figures[f"{work}, {what}"]["value"]) for name, what in contenders]
        groups.append((label, [(name, value, short(value)) for name, value in values]))
    for count, label in (("one", "service, 1 operation a message"), ("50", "service, 50 a message")):
        work = f"service operations, {count} a message"
        groups.append((label, [(who, figures[f"{work}, {who}"]["value"], short(figures[f"{work}, {who}"]["value"]))
                               for who in ("library", "floor")]))
    bar_chart("throughput.svg", "Requests a second",
              "One requesting thread. The floor only moves the bytes; its duties: locks, keeping, finding, a handler.", groups)


def draw_peers(figures):
    peers = ("scclib", "ZeroMQ", "nng", "sd-bus", "Cap'n Proto", "gRPC")
    charts = (("peers.svg", "Requests a second, beside other libraries",
               "744 bytes, each answered by a result, at most 4,096 outstanding, over a Unix socket.", "744 bytes", ""),
              ("peers_query.svg", "The median time of a query, beside other libraries",
               "152 bytes, answered by 36, over a Unix socket; one at a time.", "a query, median", " us"))
    for name, title, explanation, what, unit in charts:
        values = [(peer, figures[f"{what}, {peer}"]["value"]) for peer in peers]
        bar_chart(name, title, explanation,
                  [(peer, [("scclib" if peer == "scclib" else "others", value, short(value) + unit)])
                   for peer, value in values])


def draw_steps(steps):
    groups = {}
    for entry in steps:
        groups.setdefault(entry["work"], []).append(
            (entry["of"], entry["instructions"], short(entry["instructions"])))
    bar_chart("instructions.svg", "Instructions of an operation",
              "Counted by callgrind in user space, so other processes do not change them; system calls come on top.",
              list(groups.items()))


def draw_pending(figures):
    groups = []
    for label, what, sizes in (
            ("a result by itself", "a single result", ("10 pending", "1,000,000 pending, ascending",
                                                         "1,000,000 pending, descending", "1,000,000 pending, random")),
            ("500 results a message", "1,000,000 results, 500 a message", ("ascending", "descending", "random")),
            ("its memory accesses alone", "the memory accesses of such a result alone", ("ascending", "random"))):
        entries = []
        for size in sizes:
            value = figures[f"{what}, {size}"]["value"]
            series = size if size.startswith("10 ") else "a million, " + size.split(", ")[-1]
            entries.append((series, value, f"{value:.0f} ns"))
        groups.append((label, entries))
    bar_chart("pending.svg", "Processor time of a result, by the number of calls pending",
              "In random order every result misses the processor's caches, whoever looks it up.", groups)


def draw_latency(figures):
    x_ticks = [(percent, str(percent)) for percent in (0, 10, 25, 50, 75, 90, 99)]
    y_ticks = [(10, "10 us"), (100, "100 us"), (1000, "1 ms"), (10000, "10 ms")]
    series = []
    for name, what in (("1 request a second", "a request, 1 a second"), ("1,000 a second", "a request, 1,000 a second"),
                       ("1,000 a second, busy", "a request, 1,000 a second, busy machine"), ("query", "a query"),
                       ("query beside a stream", "a query while another thread streams")):
        points = [(float(at), value) for at, value in figures[what]["percentiles"].items() if 1 <= float(at) <= 99]
        series.append((name, points, "busy" in name))
    line_chart("latency.svg", "From a request to its result",
               "A batch waits up to 5 ms for the checker, so a lone request takes anything up to that. A query does not.",
               ("of 100 requests, so many are faster", x_ticks, y_ticks), series)


def draw_look_up(figures):
    series = []
    for name, what, sizes in (("in the cache", "finding an ACL", ("10", "1,000", "32,768", "1,900,544")),
                              ("through scc_acl_cls_get", "scc_acl_cls_get", ("10", "32,768", "1,900,544"))):
        series.append((name, [(float(size.replace(",", "")), figures[f"{what}, {size} held"]["value"]) for size in sizes],
                       False))
    most = max(value for _, points, _ in series for _, value in points)
    step = next(step for step in (10, 20, 50, 100, 200, 500) if step * 8 >= most)
    y_ticks = [(value, f"{value} ns") for value in range(0, step * (math.ceil(most / step) + 1), step)]
    x_ticks = [(10, "10"), (1000, "1,000"), (32768, "32,768"), (1900544, "1.9 million")]
    line_chart("look_up.svg", "Looking up an ACL, by the number of ACLs in the cache",
               "Processor time, in the order of creation. Beyond the processor's caches a look-up waits for memory.",
               ("ACLs held", x_ticks, y_ticks), series)


def main():
    lines = (FOLDER / "figures.json").read_text().splitlines()
    figures = {figure["what"]: figure for figure in map(json.loads, lines)}
    draw_throughput(figures)
    draw_peers(figures)
    draw_steps(json.loads((FOLDER / "steps.json").read_text()))
    draw_pending(figures)
    draw_latency(figures)
    draw_look_up(figures)
    return 0


if __name__ == "__main__":
    sys.exit(main())
