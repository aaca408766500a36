"""Tables and plots of what was measured, and the page docs/performance.md that shows them."""
import json
from pathlib import Path

import plot
from relays import CELLS, ROOT

PAGE = ROOT / "docs" / "performance.md"
RECORDS = ROOT / "docs" / "performance"  # NAME.json and the plots that the page shows
BEGIN, END = "<!-- measured: begin -->\n", "<!-- measured: end -->\n"
HOPS = ("the kernel's send, until the first thread has the PDU",
        "that thread: until the stream is written to",
        "the stream's send, until the remote side has the message",
        "the remote side, which answers at once",
        "the remote side's send, until the next thread has the message",
        "that thread: until the kernel's socket is written to",
        "the send to the kernel, until it has the reply",
        "all of it")


def number(value: float | None) -> str:
    if value is None:
        return "–"
    if value >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def speed(cell: str, rate: float) -> str:
    return f"{number(1e6 / rate)} µs" if CELLS[cell].alone else f"{rate:,.0f}/s"


def rows(result: dict, names: tuple[str, str]) -> list[list[str]]:
    """One run's table, heads first."""
    table = [["cell", *(f"{name}" for name in names), "rate", "CPU", "switches", "calls", "faults",
              "allocations", "instructions"]]
    for cell, values in result["cells"].items():
        ours, theirs = values["sides"]

        def pair(name: str, a: dict = ours, b: dict = theirs) -> str:
            return f"{number(a.get(name))} / {number(b.get(name))}"

        table.append([CELLS[cell].title, speed(cell, ours["rate"]), speed(cell, theirs["rate"]),
                      f"{values['rate_ratio']:.2f}", f"{values['cpu_ratio']:.2f}",
                      *(pair(name) for name in ("switches", "system_calls", "faults", "allocations",
                                                "instructions"))])
    return table


def text(table: list[list[str]]) -> str:
    widths = [max(len(row[i]) for row in table) for i in range(len(table[0]))]
    return "\n".join("  ".join(cell.ljust(width) if i == 0 else cell.rjust(width)
                               for i, (cell, width) in enumerate(zip(row, widths)))
                     for row in table)


def markdown(table: list[list[str]]) -> str:
    lines = ["| " + " | ".join(row) + " |" for row in table]
    return "\n".join([lines[0], "|---|" + "--:|" * (len(table[0]) - 1), *lines[1:]]) + "\n"


def plots(results: dict[str, dict], against: str) -> dict[str, str]:
    """By file name. `results`: one or two runs by their names. Every curve but the last is drawn
    from its run's ratios to `against`, whose figures are those of the first run."""
    base = next(iter(results.values()))["cells"]

    def series(prefix: str, suffix: str, value) -> plot.Series:
        cells = [cell for cell in base if cell.startswith(prefix) and cell.endswith(suffix)]
        lines = {name: [(CELLS[cell].size, value(cell, base[cell]["sides"][1]["rate"] *
                                                 result["cells"][cell]["rate_ratio"]))
                        for cell in cells if cell in result["cells"]]
                 for name, result in results.items()}
        lines[against] = [(CELLS[cell].size, value(cell, base[cell]["sides"][1]["rate"]))
                          for cell in cells]
        return {name: line for name, line in lines.items() if len(line) > 1}

    def megabytes(cell: str, rate: float) -> float:
        return rate * CELLS[cell].size / 1e6

    drawn = {
        "round-trip.svg": [("IN round trip, one under way, µs",
                            series("in-", "-w1", lambda _, rate: 1e6 / rate))],
        "throughput.svg": [("kernel to remote side, MB/s", series("to-remote-", "", megabytes)),
                           ("remote side to kernel, MB/s", series("to-kernel-", "", megabytes))],
    }
    return {file: plot.draw(panels) for file, panels in drawn.items()
            if all(lines for _, lines in panels)}


def hop_table(results: dict[str, dict]) -> list[list[str]]:
    first = next(iter(results.values()))
    table = [["hop of an IN request of 512 B, µs", *results, "lean relay"]]
    for i, hop in enumerate(HOPS):
        table.append([hop, *(number(result["hops"][0][i]) for result in results.values()),
                      number(first["hops"][1][i])])
    return table


def measured(results: dict[str, dict]) -> str:
    """What the page shows of the recorded runs."""
    names = list(results)
    both = ", ".join(names)
    ratios = [["cell", f"{names[0]}", "lean relay", f"rate: {both}", f"CPU: {both}"]]
    counts = [["per PDU or URB: " + ", ".join([*names, "lean relay"]), "context switches",
               "system calls", "page faults", "allocations", "instructions"]]
    for cell, values in results[names[0]]["cells"].items():
        all_values = [result["cells"][cell] for result in results.values()]
        ours, lean = values["sides"]
        ratios.append([CELLS[cell].title, speed(cell, ours["rate"]), speed(cell, lean["rate"]),
                       *(", ".join(f"{run[key]:.2f}" for run in all_values)
                         for key in ("rate_ratio", "cpu_ratio"))])
        sides = [*(run["sides"][0] for run in all_values), lean]
        counts.append([CELLS[cell].title,
                       *(", ".join(number(side.get(key)) for side in sides)
                         for key in ("switches", "system_calls", "faults", "allocations",
                                     "instructions"))])
    runs = "".join(f"- **{name}**: the library as of commit {result['commit']}; {result['machine']}, load "
                   f"{result['load']}.\n" for name, result in results.items())
    return "\n".join([runs, markdown(ratios),
                      "![Round trip over size](performance/round-trip.svg)\n",
                      "![Throughput over size](performance/throughput.svg)\n",
                      markdown(counts), markdown(hop_table(results))])


def write_page() -> None:
    results = {name: json.loads((RECORDS / f"{name}.json").read_text())
               for name in ("now", "before") if (RECORDS / f"{name}.json").exists()}
    for file, drawing in plots(results, "lean relay").items():
        (RECORDS / file).write_text(drawing)
    head, rest = PAGE.read_text().split(BEGIN)
    PAGE.write_text(f"{head}{BEGIN}\n{measured(results)}\n{END}{rest.split(END)[1]}")


def write_plots(folder: Path, result: dict, names: tuple[str, str]) -> None:
    for file, drawing in plots({names[0]: result}, names[1]).items():
        (folder / file).write_text(drawing)
