#!/usr/bin/env python3
"""Holds what a PDU costs: counts instructions, system calls and allocations on a fixed schedule,
where they repeat whatever else the machine does, and compares them with bench/costs.txt.
  bench/costs.py           what rose by more than 3 % is told, and fails
  bench/costs.py --accept  writes what is counted now into bench/costs.txt
Ends with 77 where this machine does not let it count.
"""
import sys
from pathlib import Path

import relays

COSTS = Path(__file__).with_name("costs.txt")
HEAD = """\
# What a PDU costs, or an URB with its answer: user instructions, system calls, allocations.
# Checked by bench/costs.py, made by bench/costs.py --accept; x86-64, Debian 12's compiler, release.
"""
SLACK = 0.03
NAMES = ("instructions", "system calls", "allocations")


def count(name: str) -> list[float]:
    tapped = name.startswith(relays.TAPPED)
    cell = name.removeprefix(relays.TAPPED)
    side = relays.TAPPED * tapped + str(relays.LIBRARY)
    line = relays.run("--side", side, "--cell", cell, "--rounds", "0", "--pdus", "1600")[0]
    if line["system_calls"] < 0:
        raise PermissionError("the system does not count system calls for us")
    return [relays.instructions(side, cell),
            *(line[name] / line["pdus"] for name in ("system_calls", "allocations"))]


def title(name: str) -> str:
    cell = relays.CELLS[name.removeprefix(relays.TAPPED)].title
    return cell + (", tapped" if name.startswith(relays.TAPPED) else "")


def recorded() -> dict[str, list[float]]:
    lines = [line.split() for line in COSTS.read_text().splitlines() if not line.startswith("#")]
    return {cell: [float(figure) for figure in figures] for cell, *figures in lines}


def main() -> int:
    accept = sys.argv[1:] == ["--accept"]
    if sys.argv[1:] and not accept:
        print(__doc__, file=sys.stderr)
        return 2
    old = recorded()
    try:
        with relays.one_processor():
            new = {cell: count(cell) for cell in old}
    except PermissionError as error:
        print(f"not counted: {error}")
        return 77
    if accept:
        COSTS.write_text(HEAD + "".join(
            f"{cell:28}{figures[0]:10.0f}{figures[1]:8.2f}{figures[2]:8.2f}\n"
            for cell, figures in new.items()))
    risen = False
    for cell, figures in new.items():
        for name, before, now in zip(NAMES, old[cell], figures):
            # A hundredth: what was written was rounded.
            change = ("rose" if now > before * (1 + SLACK) + 0.01 else
                      "fell" if now < before * (1 - SLACK) - 0.01 else "")
            risen = risen or change == "rose"
            print(f"{title(cell):52}{name:14}{before:10.2f} -> {now:10.2f}  {change}")
    if risen and not accept:
        print("What rose is paid for every PDU. Worth it? Then: bench/costs.py --accept")
    return 1 if risen and not accept else 0


if __name__ == "__main__":
    sys.exit(main())
