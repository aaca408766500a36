"""QEMU's monitor, in its machine protocol (QMP): JSON, one object a line."""
import json
import time

from harness.lines import Lines

ANSWER_PATIENCE = 60  # seconds; on an idle machine it is a few milliseconds


class MonitorError(Exception):
    """QEMU does not do it."""


class Monitor:
    def __init__(self) -> None:
        self.lines = Lines()
        self._last_id = 0
        self._send("qmp_capabilities")  # QEMU reads it when it is up

    def type(self, command: str) -> None:
        """Has QEMU do a command of its human monitor, which answers with nothing, OK or a complaint."""
        self._send("human-monitor-command", {"command-line": command})
        answer = self._answer()
        complaint = answer.get("error", {}).get("desc") or answer.get("return")
        if complaint and complaint.strip() != "OK":
            raise MonitorError(complaint.strip())

    def _send(self, command: str, arguments: dict[str, str] | None = None) -> None:
        self._last_id += 1
        self.lines.send(json.dumps({"execute": command, "arguments": arguments or {}, "id": self._last_id}))

    def _answer(self) -> dict:
        """To what was sent last: events and earlier answers are passed over."""
        deadline = time.monotonic() + ANSWER_PATIENCE
        while True:
            answer = json.loads(self.lines.receive(deadline))
            if answer.get("id") == self._last_id:
                return answer
