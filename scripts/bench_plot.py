#!/usr/bin/env python3
"""Draws Google Benchmark's JSON reports as SVG: our time divided by theirs, one dot for each peer.

A row is a pattern with its parameters, the axis is logarithmic, and left of the line at 1 we are faster.
What lies beyond the axis is written at its end. Dots of a row that is too noisy to say anything are hollow.
The same report gives the same bytes.
"""
import argparse
import json
import math
import statistics
import sys
from html import escape
from pathlib import Path

import bench_table

ROW, TOP, SCALE, LETTER = 17, 46, 420, 6.9
REACH = 3  # the axis goes from 1/8 to 8 at most
NOISY = 0.5  # spread
COLOURS = ["#1f77b4", "#d95f02", "#2a9d4a", "#c2185b", "#7b5fc0", "#8c6d1f", "#00838f", "#555555", "#e0a800",
           "#7fb800", "#a52a2a", "#5fa8d3"]


def ratios_of(patterns):
    """-> [(label, {peer: ratio}, whether it is noisy)], rows without peers left out"""
    rows = []
    for pattern, parameters in patterns.items():
        for parameter, row in parameters.items():
            medians = {name: statistics.median(times) for name, times in row.items()}
            ours = medians.pop(bench_table.OURS, None)
            found = {name: ours / theirs for name, theirs in medians.items() if ours and theirs}
            noisy = any((bench_table.spread(times) or 0) > NOISY for times in row.values())
            if found:
                rows.append((f"{pattern} {parameter}".strip(), found, noisy))
    return rows


def ticks_of(rows):
    """Powers of 2 around all ratios, REACH at most."""
    values = [math.log2(ratio) for _, row, _ in rows for ratio in row.values()]
    low = max(math.floor(min(values)), -REACH)
    high = min(math.ceil(max(values)), REACH)
    return list(range(min(low, -1), max(high, 1) + 1))


def beyond(ratio):
    """What is written where a ratio does not fit onto the axis; else empty."""
    if abs(math.log2(ratio)) <= REACH:
        return ""
    return f"{ratio:.0f}" if ratio > 1 else f"1/{1 / ratio:.0f}"


def margin(row, side):
    """Room for what a row has beyond one end of the axis."""
    return sum(LETTER * len(beyond(ratio)) + 8 for ratio in row.values() if side(ratio) and beyond(ratio))


def text(x, y, words, anchor="start", extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{extra}>{escape(words)}</text>'


def legend(peers, left, width):
    """-> elements, height"""
    parts, x, y = [], left, 18
    for peer, colour in peers.items():
        if x > left and x + 16 + LETTER * len(peer) > width:
            x, y = left, y + 16
        parts += [f'<circle cx="{x:.1f}" cy="{y - 4}" r="4" fill="{colour}"/>', text(x + 8, y, peer)]
        x += 26 + LETTER * len(peer)
    return parts, y


def plot(title, rows):
    peers = {}
    for _, row, _ in rows:
        for peer in row:
            peers.setdefault(peer, COLOURS[len(peers) % len(COLOURS)])
    ticks = ticks_of(rows)
    labels = 16 + LETTER * max(len(label) for label, _, _ in rows)
    left = labels + max(margin(row, lambda ratio: ratio < 1) for _, row, _ in rows)
    width = left + SCALE + 20 + max(margin(row, lambda ratio: ratio > 1) for _, row, _ in rows)
    keys, top = legend(peers, left, width)
    top += TOP - 18
    bottom = top + ROW * len(rows)

    def across(ratio):
        return left + SCALE * (math.log2(ratio) - ticks[0]) / (ticks[-1] - ticks[0])

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width:.0f}" height="{bottom + 26}" '
             f'font-family="sans-serif" font-size="11"><title>{escape(title)}</title>',
             f'<rect width="100%" height="100%" fill="#fff"/>', *keys]
    for tick in ticks:
        x = across(2.0 ** tick)
        style = "#000" if tick == 0 else "#ddd"
        parts += [f'<path d="M{x:.1f} {top - 4}V{bottom}" stroke="{style}"/>',
                  text(x, top - 8, f"1/{2 ** -tick}" if tick < 0 else f"{2 ** tick}", "middle")]
    for number, (label, row, noisy) in enumerate(rows):
        y = top + ROW * number + ROW / 2
        parts.append(text(labels - 8, y + 4, label, "end"))
        ends = {"start": left + SCALE + 8, "end": left - 8}
        for peer, ratio in row.items():
            words = beyond(ratio)
            if not words:
                opacity = 0 if noisy else .75
                parts.append(f'<circle cx="{across(ratio):.1f}" cy="{y:.1f}" r="3.5" fill="{peers[peer]}" '
                             f'fill-opacity="{opacity}" stroke="{peers[peer]}"/>')
                continue
            side = "start" if ratio > 1 else "end"
            parts.append(text(ends[side], y + 4, words, side, f' fill="{peers[peer]}"'))
            ends[side] += (LETTER * len(words) + 8) * (1 if ratio > 1 else -1)
    parts.append(text(across(1) - 8, bottom + 16, "we are faster", "end", ' fill="#555"'))
    parts.append(text(across(1) + 8, bottom + 16, "slower", "start", ' fill="#555"'))
    return "\n".join([*parts, "</svg>"]) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folder", type=Path, help="where SUBJECT.svg goes")
    parser.add_argument("report", nargs="+", type=Path, help="report written with --benchmark_out")
    arguments = parser.parse_args()
    arguments.folder.mkdir(parents=True, exist_ok=True)
    for path in arguments.report:
        try:
            patterns, _ = bench_table.collect(json.loads(path.read_text()))
            rows = ratios_of(patterns)
            if rows:
                title = f"{path.stem}: our time divided by theirs"
                (arguments.folder / f"{path.stem}.svg").write_text(plot(title, rows))
        except (OSError, ValueError, KeyError) as error:
            sys.exit(f"{path}: {error!r}")


if __name__ == "__main__":
    main()
