"""Lines to and from another process, over a socket pair."""
import contextlib
import socket
import time


class Lines:
    """One end; `far_end` is for the other process, and closed here once that has it."""

    def __init__(self) -> None:
        self._near_end, self.far_end = socket.socketpair()
        self._received = b""

    def send(self, line: str) -> None:
        """That the other process is gone is seen when receiving from it."""
        self._near_end.settimeout(30)
        with contextlib.suppress(BrokenPipeError, ConnectionResetError):
            self._near_end.sendall(line.encode() + b"\n")

    def receive(self, deadline: float) -> str:
        """The next line. EOFError: there is none; TimeoutError: none until then."""
        while b"\n" not in self._received:
            # With 0 the socket would not wait at all, and say so in another way.
            self._near_end.settimeout(max(0.001, deadline - time.monotonic()))
            try:
                data = self._near_end.recv(65536)
            except ConnectionResetError:
                data = b""
            if not data:
                raise EOFError
            self._received += data
        line, _, self._received = self._received.partition(b"\n")
        return line.decode(errors="replace")
