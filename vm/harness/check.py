"""Tests the harness itself: scenarios below vm/selftest fail, hang and crash on purpose, and vm/run has
to say so, in time and with the right reason; and runs of one scenario, beside each other, are killed."""
import argparse
import re
import signal
import subprocess
import sys
import time
from collections.abc import Callable
from pathlib import Path

from harness import processes
from harness.folders import VM
from harness.verdict import lines_of

SELFTEST = VM / "selftest"


def start_run(file: Path) -> processes.Process:
    return processes.start([VM / "run", file], last_signal=signal.SIGTERM, stdin=processes.NOTHING,
                           stdout=subprocess.PIPE, text=True)


def verdict_is_right(file: Path, expected: str) -> bool:
    run = start_run(file)
    try:
        verdict = run.communicate(timeout=300)[0].partition("\n")[0]
    except subprocess.TimeoutExpired:
        verdict = "nothing in time"
    finally:
        processes.end(run)
    right = re.match(expected, verdict)
    print(f"right: {verdict}" if right else f"WRONG: {file}: expected '{expected}', got '{verdict}'", flush=True)
    return bool(right)


def processes_in(folder: Path) -> list[str]:
    """What works there: a guest and a remote side do."""
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if (process / "cwd").readlink() == folder:
                found.append((process / "comm").read_text().strip())
        except OSError:
            pass  # it has ended
    return found


def folder_of(run: processes.Process) -> Path | None:
    """Where the first child of this run works, when there is one."""
    try:
        first = Path(f"/proc/{run.pid}/task/{run.pid}/children").read_text().split()[0]
        return Path(f"/proc/{first}/cwd").readlink()
    except (OSError, IndexError):
        return None


def within(seconds: float, condition: Callable[[], bool]) -> bool:
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.1)
    return True


def waits(run: processes.Process) -> bool:
    """It has got as far as selftest/waits.sh goes, and both of its processes live."""
    folder = folder_of(run)
    return (folder is not None and any("let it be killed" in line for line in lines_of(folder / "guest.log"))
            and len(processes_in(folder)) == 2)


def runs_end_alone_and_whole() -> bool:
    """Runs of one scenario at once: each signal ends its own run, all of it, and leaves the others and
    the logs alone."""
    runs = {name: start_run(SELFTEST / "waits.sh") for name in ("SIGTERM", "SIGHUP", "SIGINT", "SIGKILL")}
    wrong = []
    try:
        for name, run in runs.items():
            within(300, lambda: waits(run) or run.poll() is not None)
            if not waits(run):
                wrong.append(f"the run for {name} does not get going")
        folders = {name: folder_of(run) for name, run in runs.items()}
        while runs and not wrong:
            name, run = runs.popitem()
            run.send_signal(signal.Signals[name])
            run.wait(60)
            if not within(60, lambda: not processes_in(folders[name])):
                wrong.append(f"{name} leaves {processes_in(folders[name])}")
            if not lines_of(folders[name] / "guest.log"):
                wrong.append(f"{name} leaves no logs")
            wrong += [f"{name} ends another run, too" for other in runs.values() if not waits(other)]
    finally:
        for run in runs.values():
            processes.end(run)
    print("WRONG: " + "; ".join(wrong) if wrong else "right: runs beside each other end alone and whole", flush=True)
    return not wrong


def main() -> None:
    argparse.ArgumentParser("vm/check", description=__doc__).parse_args()
    processes.exit_on_signals()
    results = [runs_end_alone_and_whole()]
    for file in sorted(SELFTEST.glob("*.sh")):
        expected = re.search("^# expect: *(.*)", file.read_text(), re.MULTILINE)
        if expected:
            results.append(verdict_is_right(file, expected[1]))
    sys.exit(not all(results))
