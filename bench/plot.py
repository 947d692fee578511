#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Draws the figures of hoflow-bench: plot.py FIGURES.json OUT.svg

One panel an operation and size, one bar a contender: ns an operation, the median, with a line from the least to the
most sample. Writes the SVG by hand, so that it needs nothing but Python. Changes no figure; a bar that is longer than
its panel is cut and says its value.
"""
import json
import sys
from html import escape

OPERATIONS = ["hit", "miss", "insert", "overwrite", "remove", "walk"]
COLOURS = {"hoflow": "#c23b22", "hoflow (fixed)": "#e08e7f", "bare limit": "#bbbbbb"}
PEER_COLOURS = ["#2b5c8a", "#4f8fc0", "#7fb2d6", "#8a7a2b", "#c2ad55", "#6b8a5a"]
BAR, GAP, LABEL, PANEL, TOP = 15, 26, 130, 200, 74


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: plot.py FIGURES.json OUT.svg")
    with open(sys.argv[1]) as source:
        data = json.load(source)
    names = [each["name"] for each in data["contenders"]]
    peers = [each["name"] for each in data["contenders"] if each["peer"]]
    colour = {**dict.fromkeys(names, "#444444"),
              **{name: PEER_COLOURS[n % len(PEER_COLOURS)] for n, name in enumerate(peers)}, **COLOURS}
    figures = {(f["keys"], f["rows"], f["contender"], f["operation"]): f for f in data.get("figures", [])}
    blocks = sorted({(keys, rows) for keys, rows, _, operation in figures if operation in OPERATIONS})
    if not blocks:
        print("plot.py: no single-thread figures, nothing drawn", file=sys.stderr)
        return

    height = TOP + len(blocks) * (len(names) * BAR + GAP + 14) + 10
    width = LABEL + len(OPERATIONS) * (PANEL + 20)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           'font-family="sans-serif" font-size="11">',
           f'<rect width="{width}" height="{height}" fill="white"/>',
           '<text x="8" y="20" font-size="15">ns an operation, one thread: median, line from least to most</text>']
    machine = data["machine"]
    out.append(f'<text x="8" y="38" fill="#555">{escape(machine["processor"])}, {escape(machine["buildType"])}; '
               f'{data["keyBytes"]}-byte key, {data["rowBytes"]}-byte row copied out; '
               f'load {machine["loadBefore"]:.1f} before, {machine["loadAfter"]:.1f} after</text>')
    for n, operation in enumerate(OPERATIONS):
        out.append(f'<text x="{LABEL + n * (PANEL + 20)}" y="{TOP - 12}" font-size="13">{operation}</text>')

    y = TOP
    for keys, rows in blocks:
        out.append(f'<text x="8" y="{y + 8}" font-weight="bold">{rows} rows, {keys} keys</text>')
        y += 14
        for n, operation in enumerate(OPERATIONS):
            draw_panel(out, LABEL + n * (PANEL + 20), y, names, colour,
                       {name: figures.get((keys, rows, name, operation)) for name in names})
        for n, name in enumerate(names):
            out.append(f'<text x="{LABEL - 6}" y="{y + n * BAR + 11}" text-anchor="end">{escape(name)}</text>')
        y += len(names) * BAR + GAP
    out.append("</svg>")
    with open(sys.argv[2], "w") as target:
        target.write("\n".join(out) + "\n")


def draw_panel(out, x, y, names, colour, found):
    # The scale ends at three times our own figure: what is slower than that is cut and says its value.
    ours = found.get("hoflow") or next((f for f in found.values() if f), None)
    if not ours:
        return
    scale = (PANEL - 45) / (3 * max(ours["median"], 1e-9))
    for n, name in enumerate(names):
        figure = found[name]
        if not figure:
            continue
        top = y + n * BAR
        long = figure["median"] * scale
        shown = min(long, PANEL - 45)
        out.append(f'<rect x="{x}" y="{top + 2}" width="{shown:.1f}" height="{BAR - 4}" fill="{colour[name]}"/>')
        least, most = (min(figure[each] * scale, PANEL - 45) for each in ("least", "most"))
        out.append(f'<line x1="{x + least:.1f}" x2="{x + most:.1f}" y1="{top + BAR / 2}" y2="{top + BAR / 2}" '
                   'stroke="black" stroke-width="0.8"/>')
        cut = "…" if long > shown else ""
        at = max(shown, most) + 4
        out.append(f'<text x="{x + at:.1f}" y="{top + 11}">{cut}{figure["median"]:.0f}</text>')


main()
