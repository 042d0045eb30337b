#!/usr/bin/env python3
"""Prints Google Benchmark's JSON reports as tables of medians and ratios.

Benchmarks are named "<pattern>/<contestant>/<parameters>". Each pattern gives one table, with the
contestants as columns and the parameters as rows; the contestant "ours" comes first.
"""
import argparse
import json
import re
import statistics
import sys
from pathlib import Path

OURS = "ours"
# What Google Benchmark itself appends to a name, and what tells which clock counts.
OPTIONS = re.compile(r"/(real_time|manual_time|process_time|(iterations|repeats|min_time|threads):[^/]*)")
UNITS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def parse_name(name):
    """-> (pattern, contestant, parameters)"""
    pattern, contestant, parameters = (OPTIONS.sub("", name).split("/", 2) + ["", ""])[:3]
    return pattern, contestant, parameters


def nanoseconds(run):
    """One repetition's time for an iteration: processor time unless the benchmark asks for real."""
    real = re.search(r"/(real|manual)_time", run["name"])
    return run["real_time" if real else "cpu_time"] * UNITS[run["time_unit"]]


def registered(run):
    """Where the program registered the benchmark; random interleaving mixes the runs."""
    return run.get("family_index", 0), run.get("per_family_instance_index", 0)


def collect(report):
    """-> {pattern: {parameters: {contestant: [ns, ...]}}}, {(pattern, parameters, reason): True}"""
    patterns, skipped = {}, {}
    for run in sorted(report["benchmarks"], key=registered):
        if run.get("run_type") == "aggregate":
            continue
        pattern, contestant, parameters = parse_name(run.get("run_name", run["name"]))
        if run.get("error_occurred"):
            skipped[(pattern, f"{parameters}:", run["error_message"])] = True
            continue
        row = patterns.setdefault(pattern, {}).setdefault(parameters, {})
        row.setdefault(contestant, []).append(nanoseconds(run))
    return patterns, skipped


def as_time(ns):
    """Three significant digits and a unit."""
    unit, size = next(((u, n) for u, n in (("s", 1e9), ("ms", 1e6), ("us", 1e3)) if ns >= n), ("ns", 1.0))
    value = ns / size
    return f"{value:.{2 if value < 9.995 else 1 if value < 99.95 else 0}f} {unit}"


def spread(times):
    """Distance between the quartiles as a part of the median."""
    if len(times) < 3:
        return None
    first, middle, third = statistics.quantiles(times, n=4, method="inclusive")
    return (third - first) / middle if middle else None


def cell(times, ours):
    if not times:
        return "-"
    median = statistics.median(times)
    if ours is None or ours is times or not median:
        return as_time(median)
    ratio = statistics.median(ours) / median
    return f"{as_time(median)} ({ratio:.{2 if ratio < 9.995 else 0}f})"


def contestants_of(rows):
    names = list(dict.fromkeys(name for row in rows.values() for name in row))
    return sorted(names, key=lambda name: name != OURS)


def table(pattern, rows):
    names = contestants_of(rows)
    lines = [[pattern, *names, "spread"]]
    for parameters, row in rows.items():
        widest = max((s for s in map(spread, row.values()) if s is not None), default=None)
        noise = "-" if widest is None else f"{widest:.0%}"
        lines.append([parameters, *(cell(row.get(n, []), row.get(OURS)) for n in names), noise])
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    lines.insert(1, ["-" * width for width in widths])
    return "\n".join("| " + " | ".join(map(str.ljust, line, widths)) + " |" for line in lines)


def heading(report):
    context = report.get("context", {})
    load = context.get("load_avg") or ["?"]
    repetitions = max((run.get("repetitions", 1) for run in report["benchmarks"]), default=0)
    return (f"Median of {repetitions} repetitions; {context.get('num_cpus', '?')} processors, "
            f"load {load[0]:.3} at the start.")


def tables(path):
    report = json.loads(path.read_text())
    patterns, skipped = collect(report)
    parts = [heading(report)]
    parts += [table(pattern, rows) for pattern, rows in patterns.items()]
    if skipped:
        parts.append("\n".join(f"- Skipped: {' '.join(part)}" for part in skipped))
    return "\n\n".join(parts) + "\n"


def write_into(page, path):
    """Replaces what stands between the page's marks for the report's subject."""
    begin, end = f"<!-- measured {path.stem} -->\n", "<!-- end -->\n"
    before, found, rest = page.read_text().partition(begin)
    old, closed, after = rest.partition(end)
    if not found or not closed:
        raise ValueError(f"{page} has no \"{begin.strip()}\" with its end")
    page.write_text(f"{before}{begin}\n{tables(path)}\n{end}{after}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--page", type=Path, help="write the tables into this page instead")
    parser.add_argument("report", nargs="+", type=Path, help="report written with --benchmark_out")
    arguments = parser.parse_args()
    if not arguments.page:
        print("In brackets: our time divided by theirs, below 1 we are faster.\n"
              "\"spread\" is the widest interquartile range of the row.\n")
    for path in arguments.report:
        try:
            if arguments.page:
                write_into(arguments.page, path)
            else:
                print(f"## {path.stem}\n\n{tables(path)}")
        except (OSError, ValueError, KeyError) as error:
            sys.exit(f"{path}: {error!r}")


if __name__ == "__main__":
    main()
