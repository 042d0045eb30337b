"""Shows the daemons at work, station by station; scripts/demo builds what it needs.

demo_run BUILD_FOLDER SOURCE_FOLDER [--without=PROGRAM]...
"""

import os
import subprocess
import sys
import time

import private_world
import programs
# These two add to the list, in the order of the imports.
import stations_daemon  # noqa: F401
import stations_peers  # noqa: F401
from station import STATIONS
from world import World


def reach(world):
    """Goes to every station; what was seen at each."""
    rows = []
    for number, (name, expected, visit) in enumerate(STATIONS, 1):
        print(f"--- {number}/{len(STATIONS)} {name}", flush=True)
        try:
            seen = visit(world)
        # A daemon that is not there makes itself felt in many ways.
        except Exception as error:
            seen = str(error) if isinstance(error, (programs.Missing, OSError)) else repr(error)
        if seen != expected:
            programs.lose_patience()
            programs.show("MISSED", seen)
        rows.append((name, expected, seen, "yes" if seen == expected else "NO"))
    return rows


def table(rows):
    rows = [("station", "expected", "seen", "ok"), *rows]
    widths = [min(48, max(len(row[column]) for row in rows)) for column in range(4)]
    for row in rows:
        print("  ".join(f"{text:<{width}}" for text, width in zip(row, widths)).rstrip())


def demonstrate(build, source, without):
    started = time.monotonic()
    world = World(build, source, without)
    print("--- files and peers", flush=True)
    try:
        world.prepare()
        world.start_peers()
        rows = reach(world)
    except (programs.Missing, OSError, subprocess.SubprocessError) as error:
        print(f"demo: cannot begin: {error}", file=sys.stderr)
        rows = [(name, expected, "not reached", "NO") for name, expected, _ in STATIONS]
    reached = sum(row[3] == "yes" for row in rows)
    print("--- summary")
    table(rows)
    print(f"demo: {reached} of {len(STATIONS)} stations reached in {time.monotonic() - started:.0f} s")
    return 0 if reached == len(STATIONS) else 1


def main():
    build, source, *options = sys.argv[1:]
    without = [option.split("=", 1)[1] for option in options]
    return private_world.run(lambda: demonstrate(
        os.path.realpath(build), os.path.realpath(source), without))


sys.exit(main())
