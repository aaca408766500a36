"""Runs bench/relay and makes figures of what it prints."""
import contextlib
import csv
import dataclasses
import os
import statistics
import subprocess
import tempfile
from collections.abc import Iterator
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "release"
LIBRARY = BUILD / "libxj-client-usbip.so"
LEAN = "lean"
TAPPED = "tapped:"  # before a library: its stream goes through the kit's tap


@dataclasses.dataclass(frozen=True)
class Cell:
    """What is measured; bench/relay knows the same names."""
    title: str
    size: int  # of an URB's data
    answered: bool = False  # then figures are those of an URB, else of a PDU
    alone: bool = False  # one URB under way: the round trip counts


def _cells() -> dict[str, Cell]:
    sizes = {"512": ("512 B", 1 << 9), "4k": ("4 KiB", 1 << 12), "64k": ("64 KiB", 1 << 16),
             "1m": ("1 MiB", 1 << 20)}
    cells = {}
    for name, title in (("to-remote", "kernel to remote side"),
                        ("to-kernel", "remote side to kernel")):
        for size, (text, count) in sizes.items():
            cells[f"{name}-{size}"] = Cell(f"{title}, {text}", count)
    for size, (text, count) in sizes.items():
        cells[f"in-{size}-w1"] = Cell(f"IN, {text}, one under way", count, True, True)
    for size in ("512", "64k"):
        text, count = sizes[size]
        for way in ("in", "out"):
            cells[f"{way}-{size}-w32"] = Cell(f"{way.upper()}, {text}, 32 under way", count, True)
    for way in ("in", "out"):
        cells[f"{way}-512-w32-d16"] = Cell(f"{way.upper()}, 512 B, 32 under way, 16 devices", 512,
                                           True)
    return cells


CELLS = _cells()
ONCE = ("--rounds", "1", "--repetitions", "1", "--not-counted")
COUNTS = ("switches", "faults", "system_calls", "allocations")
FIELDS = ("cell", "side", "kind", "pdus", "seconds", "round_trip", "cpu") + COUNTS


def run(*arguments: str, **options) -> list[dict]:
    """One run of bench/relay: a record for each line."""
    done = subprocess.run([BUILD / "bench" / "relay", *arguments], check=True, text=True,
                          stdout=subprocess.PIPE, **options)
    return [{name: text if name in ("cell", "kind") else float(text)
             for name, text in row.items()}
            for row in csv.DictReader(done.stdout.splitlines(), FIELDS)]


def figures(lines: list[dict]) -> dict:
    """Of one cell's lines: medians for both sides, and medians of the ratios of neighbours."""
    timed = [[line for line in lines if line["kind"] == "timed" and line["side"] == side]
             for side in (0, 1)]
    counted = {line["side"]: line for line in lines if line["kind"] == "counted"}

    def median(side: int, of) -> float:
        return statistics.median(of(line) for line in timed[side])

    def ratio(of) -> float:
        return statistics.median(of(ours) / of(theirs) for ours, theirs in zip(*timed))

    def rate(line: dict) -> float:
        return 1 / line["round_trip"] if line["round_trip"] > 0 else line["pdus"] / line["seconds"]

    def cpu(line: dict) -> float:
        return line["cpu"] / line["pdus"] * 1e6

    result: dict = {"rate_ratio": ratio(rate), "cpu_ratio": ratio(cpu), "sides": []}
    for side in (0, 1):
        values = {"rate": median(side, rate), "cpu": median(side, cpu)}
        for name in COUNTS:
            if name in ("switches", "faults"):
                values[name] = median(side, lambda line, name=name: line[name] / line["pdus"])
            elif counted[side][name] >= 0:
                values[name] = counted[side][name] / counted[side]["pdus"]
        result["sides"].append(values)
    return result


@contextlib.contextmanager
def one_processor() -> Iterator[None]:
    """What is started within: no two threads run at once, and each runs until it waits, in the order
    in which they were woken. What is counted then repeats, whatever else the machine does. Raises
    PermissionError where that may not be."""
    processors = os.sched_getaffinity(0)
    os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1))
    os.sched_setaffinity(0, {min(processors)})
    try:
        yield
    finally:
        os.sched_setaffinity(0, processors)
        os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))


# The C library copies with what every x86-64 has, so that counts are of no particular processor.
PLAIN = ("GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-AVX,-ERMS,-FSRM,-AVX512F,-AVX512VL,"
         "-AVX_Fast_Unaligned_Load,-Prefer_ERMS,-SSSE3,-Fast_Unaligned_Copy")


def instructions(side: str, cell: str) -> float:
    """User-space instructions for a PDU, of all threads of the relay, the C library's included. To
    be called on one processor."""
    few = max(4, min(500, (8 << 20) // CELLS[cell].size))
    few -= few % 16 if cell.endswith("d16") else 0
    with tempfile.TemporaryDirectory() as folder:
        def total(pdus: int) -> int:
            out = Path(folder) / "callgrind"
            run("--side", side, "--cell", cell, *ONCE,
                "--pdus", str(pdus), "--wrapper",
                f"env {PLAIN} valgrind -q --tool=callgrind --callgrind-out-file={out}")
            for line in out.read_text().splitlines():
                if line.startswith("totals:"):
                    return int(line.split()[1])
            raise RuntimeError(f"no total in {out}")
        return (total(3 * few) - total(few)) / (2 * few)


def hops(side: str, cell: str) -> list[float]:
    """Where the time of a round trip goes, in microseconds: medians between the eight times at
    which bytes change hands, starting with the kernel's command and ending with its reply."""
    with tempfile.TemporaryDirectory() as folder:
        run("--side", side, "--cell", cell, *ONCE, "--pdus", "4000",
            env={**os.environ, "LD_PRELOAD": str(BUILD / "bench" / "libxj-observe.so"),
                 "XJ_STAMPS": f"{folder}/stamps"})
        files = sorted(Path(folder).iterdir(), key=lambda file: int(file.suffix[1:]))
        events = []
        for who, file in zip("TR", files):  # the traffic's process is the older one
            for line in file.read_text().splitlines():
                what, time = line.split()
                events.append((int(time), who + what))
    events.sort()
    order = ["Tsend", "Rrecv", "Rsend", "Trecv"] * 2
    spans: list[list[float]] = [[] for _ in range(8)]
    times: list[int] = []
    for time, what in events:
        if times and what == order[len(times) - 1] and what.endswith("recv"):
            times[-1] = time  # received in parts
        elif what == order[len(times)]:
            times.append(time)
        else:
            times = [time] if what == order[0] else []
        if len(times) == len(order):
            for span, begin, end in zip(spans, times, times[1:]):
                span.append((end - begin) / 1000)
            spans[7].append((times[7] - times[0]) / 1000)
            times = []
    return [statistics.median(span) for span in spans]
