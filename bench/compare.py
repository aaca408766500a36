#!/usr/bin/env python3
"""What ./bench.sh runs once everything is built; see there."""
import argparse
import json
import os
import platform
import subprocess
import sys
from pathlib import Path

import page
import relays


def machine() -> str:
    model = next((line.split(":")[1].strip() for line in Path("/proc/cpuinfo").open()
                  if line.startswith("model name")), platform.machine())
    return f"{os.cpu_count()} processors ({model}), Linux {platform.release()}"


def commit() -> str:
    """The last one that changed the library."""
    done = subprocess.run(["git", "log", "-1", "--format=%h", "--", "base", "client", "include",
                           "module", "plugin", "vhci", "wire"], cwd=relays.ROOT, text=True,
                          stdout=subprocess.PIPE, check=False)
    return done.stdout.strip() or "unknown"


def measure(source: str, sides: tuple[str, str], cells: list[str], folder: Path) -> dict:
    result: dict = {"commit": source, "machine": machine(), "sides": sides, "cells": {}}
    before = os.getloadavg()[0]
    with (folder / "measurements.csv").open("w") as raw:
        print(*relays.FIELDS, sep=",", file=raw)
        for cell in cells:
            print(f"measuring: {relays.CELLS[cell].title}", file=sys.stderr)
            lines = relays.run("--side", sides[0], "--side", sides[1], "--cell", cell)
            for line in lines:
                print(*line.values(), sep=",", file=raw)
            result["cells"][cell] = relays.figures(lines)
    result["load"] = f"{before:.1f} at its beginning, {os.getloadavg()[0]:.1f} at its end"
    result["hops"] = [relays.hops(side, "in-512-w1") for side in sides]
    print("counting instructions", file=sys.stderr)
    try:
        with relays.one_processor():
            for cell in cells:
                for side, figures in zip(sides, result["cells"][cell]["sides"]):
                    figures["instructions"] = relays.instructions(side, cell)
    except PermissionError:
        print("not counted: this machine does not give us a processor for that", file=sys.stderr)
    return result


def main() -> None:
    parser = argparse.ArgumentParser(prog="./bench.sh", add_help=False)
    parser.add_argument("--against", type=Path)
    parser.add_argument("--library", type=Path, default=relays.LIBRARY)
    parser.add_argument("--tap", action="store_true")
    parser.add_argument("--cell", action="append", choices=relays.CELLS)
    parser.add_argument("--record", choices=("before", "now"))
    parser.add_argument("--commit", default=commit())
    options = parser.parse_args()
    if options.record and (options.against or options.cell or options.tap):
        parser.error("what is recorded is everything, against the lean relay")
    against = str(options.against.resolve()) if options.against else relays.LEAN
    names = ("this build", "the other") if options.against else ("module", "lean relay")
    library = str(options.library.resolve())
    if options.tap:
        library, against, names = relays.TAPPED + library, library, ("tapped", "untapped")

    folder = relays.ROOT / "build" / "bench"
    folder.mkdir(parents=True, exist_ok=True)
    result = measure(options.commit, (library, against),
                     options.cell or list(relays.CELLS), folder)
    (folder / "results.json").write_text(json.dumps(result, indent=1) + "\n")
    page.write_plots(folder, result, names)
    print(page.text(page.rows(result, names)))
    print(f"\nRatios are {names[0]} to {names[1]}, of neighbouring repetitions; per PDU, or per URB "
          f"where\neach is answered. {result['machine']}, load {result['load']}.\n"
          f"Written: measurements.csv, results.json and plots in {folder}")
    if options.record:
        page.RECORDS.mkdir(exist_ok=True)
        result["sides"] = ("module", "lean relay")
        (page.RECORDS / f"{options.record}.json").write_text(json.dumps(result, indent=1) + "\n")
        page.write_page()
        print(f"Recorded in {page.RECORDS} and {page.PAGE}")


if __name__ == "__main__":
    main()
