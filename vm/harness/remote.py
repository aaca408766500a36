"""The remote side that runs outside the guest."""
import re
import subprocess
import time
from pathlib import Path

from harness import processes

PATIENCE = 60  # seconds, for it to listen or to end; on an idle machine it is a few milliseconds


class Remote:
    """At most one at a time; started again, it listens where it did before."""

    def __init__(self, program: Path, folder: Path) -> None:
        self._program = program
        self._folder = folder
        self._log = folder / "remote.log"
        self._process: processes.Process | None = None
        self.port = 0  # 0: it chooses a free one

    def start(self, arguments: tuple[str, ...]) -> None:
        """Waits until it listens."""
        if self._process:
            raise RuntimeError("a remote side is running already")
        with self._log.open("ab") as log:
            begin = log.tell()
            self._process = processes.start(
                [self._program, "--listen", f"127.0.0.1:{self.port}", *arguments], cwd=self._folder,
                stdin=subprocess.PIPE, stdout=log, stderr=log, bufsize=0)
        deadline = time.monotonic() + PATIENCE
        while not (listening := re.search(rb"listening on .*:(\d+)\n", self._log.read_bytes()[begin:])):
            if self._process.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError("the remote side does not listen; see remote.log")
            time.sleep(0.02)
        self.port = int(listening[1])

    def tell(self, command: str) -> None:
        """One command on its standard input."""
        self._running().stdin.write(command.encode() + b"\n")

    def stop(self) -> None:
        """As a person would; it must succeed."""
        self.tell("quit")
        try:
            status = self._running().wait(PATIENCE)
        except subprocess.TimeoutExpired:
            raise RuntimeError("the remote side does not end") from None
        self._process = None
        if status:
            raise RuntimeError(f"the remote side ended with status {status}")

    def send_signal(self, number: int) -> None:
        self._running().send_signal(number)

    def kill(self) -> None:
        self._running().kill()
        self._running().wait()
        self._process = None

    def counter(self, name: str) -> str:
        """From the line that it leaves when it ends."""
        found = re.findall(rf" {re.escape(name)} (\d+)", self._log.read_text(errors="replace"))
        if not found:
            raise RuntimeError(f"remote.log does not tell a number for {name}")
        return found[-1]

    def end(self) -> None:
        processes.end(self._process)

    def _running(self) -> processes.Process:
        if self._process is None:
            raise RuntimeError("no remote side is running")
        return self._process
