"""The remote side that runs outside the guest, and what the guest can ask for there."""
import re
import signal
import socket
import struct
import subprocess
import threading
import time
from pathlib import Path

from harness import processes

PATIENCE = 60  # seconds, for it to listen or to end; on an idle machine it is a few milliseconds


def _message(kind: int, body: bytes) -> bytes:
    inner = struct.pack("<IB3x", len(body), kind) + body
    return struct.pack("<IB3x", len(inner), 0x0B) + inner


def _map(number: int) -> bytes:
    """Of a high-speed device with this id."""
    return _message(3, struct.pack("<I256s544xIIIHH8x", number, b"silent", 1, number, 3, 1, number))


class Remote:
    """At most one at a time; started again, it listens where it did before."""

    def __init__(self, program: Path, folder: Path) -> None:
        self._program = program
        self._log = folder / "remote.log"
        self._child: processes.Process | None = None
        self._port = 0  # 0: it chooses a free one

    def end(self) -> None:
        processes.end(self._child)

    def act_start_silent_remote(self, devices: str) -> str:
        """A remote side of one host, with so many devices that never answer. Its port."""
        listener = socket.create_server(("127.0.0.1", 0))

        def serve() -> None:
            with listener, listener.accept()[0] as host:
                host.sendall(_message(1, bytes(4)) + b"".join(map(_map, range(1, int(devices) + 1))))
                while host.recv(65536):
                    pass

        threading.Thread(target=serve, daemon=True).start()
        return str(listener.getsockname()[1])

    def act_start_remote(self, *arguments: str) -> None:
        """Waits until it listens."""
        if self._child:
            raise RuntimeError("a remote side is running already")
        with self._log.open("ab") as log:
            begin = log.tell()
            self._child = processes.start(
                [self._program, "--listen", f"127.0.0.1:{self._port}", *arguments],
                cwd=self._log.parent, stdin=subprocess.PIPE, stdout=log, stderr=log, bufsize=0)
        deadline = time.monotonic() + PATIENCE
        while not (line := re.search(rb"listening on .*:(\d+)\n", self._log.read_bytes()[begin:])):
            if self._child.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError("the remote side does not listen; see remote.log")
            time.sleep(0.02)
        self._port = int(line[1])

    def act_remote_port(self) -> str:
        return str(self._port)

    def act_tell_remote(self, *words: str) -> None:
        """One command on its standard input."""
        self._running().stdin.write(" ".join(words).encode() + b"\n")

    def act_ask_remote(self, *words: str) -> str:
        """Over its control socket, which is to be `control`. The lines of the answer, with ; between."""
        done = subprocess.run([self._program, *words, "--control", "control"], cwd=self._log.parent,
                              check=False, capture_output=True, text=True, timeout=PATIENCE)
        if done.returncode != 0:
            raise RuntimeError(done.stderr)
        return ";".join(done.stdout.splitlines())

    def act_stop_remote(self) -> None:
        """As a person would; it must succeed."""
        self.act_tell_remote("quit")
        if status := self._ended():
            raise RuntimeError(f"the remote side ended with status {status}")

    def act_kill_remote(self) -> None:
        self._running().kill()
        self._ended()

    def act_pause_remote(self) -> None:
        """Until it is resumed it answers nothing, and what it is told waits."""
        self._running().send_signal(signal.SIGSTOP)

    def act_resume_remote(self) -> None:
        self._running().send_signal(signal.SIGCONT)

    def act_remote_counter(self, name: str) -> str:
        """From the line that it leaves when it ends."""
        found = re.findall(rf" {re.escape(name)} (\d+)", self._log.read_text(errors="replace"))
        if not found:
            raise RuntimeError(f"remote.log does not tell a number for {name}")
        return found[-1]

    def _running(self) -> processes.Process:
        if self._child is None:
            raise RuntimeError("no remote side is running")
        return self._child

    def _ended(self) -> int:
        """Its exit status."""
        status = self._running().wait(PATIENCE)
        self._child = None
        return status
