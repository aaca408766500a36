"""Processes that do not outlive us, and what ends us in an orderly way."""
import ctypes
import os
import signal
import subprocess
import sys
from collections.abc import Callable, Sequence
from pathlib import Path

_libc = ctypes.CDLL(None, use_errno=True)
_PR_SET_PDEATHSIG = 1

Process = subprocess.Popen
NOTHING = subprocess.DEVNULL


def _tied(last_signal: int) -> dict[str, Callable[[], None]]:
    """For a new child: the kernel sends it `last_signal` when we die, however that happens."""
    parent = os.getpid()

    def tie() -> None:
        _libc.prctl(_PR_SET_PDEATHSIG, last_signal)
        if os.getppid() != parent:  # we died before the kernel was told
            os._exit(1)

    return {"preexec_fn": tie}


def start(command: Sequence[str | Path], last_signal: int = signal.SIGKILL, **options) -> Process:
    return Process(command, **_tied(last_signal), **options)


def output_of(command: Sequence[str | Path], **options) -> str:
    """What it prints, standard error included; CalledProcessError tells of a failure."""
    return subprocess.run(command, check=True, stdin=NOTHING, stdout=subprocess.PIPE, text=True,
                          stderr=subprocess.STDOUT, **_tied(signal.SIGKILL), **options).stdout


def end(child: Process | None, patience: float = 10) -> None:
    """Ends it with SIGTERM or, after so many seconds, SIGKILL."""
    if child is None or child.poll() is not None:
        return
    child.terminate()
    try:
        child.wait(patience)
    except subprocess.TimeoutExpired:
        child.kill()
        child.wait()


def exit_on_signals() -> None:
    """Ctrl-C, SIGTERM and SIGHUP raise SystemExit, so that what was begun is ended. A signal that the
    caller ignores, as nohup does, stays ignored."""
    signals = [number for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
               if signal.getsignal(number) != signal.SIG_IGN]

    def leave(number: int, _frame: object) -> None:
        for each in signals:
            signal.signal(each, signal.SIG_IGN)  # once is enough; nothing interrupts the ending
        sys.exit(128 + number)

    for number in signals:
        signal.signal(number, leave)
