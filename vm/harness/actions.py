"""What the guest can ask the machine outside for."""
import hashlib
import os
import subprocess
import time
import traceback
from collections.abc import Callable
from pathlib import Path

from harness import guest, processes
from harness.folders import VM, Builds
from harness.lines import Lines
from harness.monitor import ANSWER_PATIENCE, Monitor, MonitorError
from harness.remote import Remote

MIB = 1 << 20


class Actions:
    """Each method named act_..., here and of the remote side, is an action, called with the words of
    the request. It works in the scenario's folder, returns its answer, if any, and raises what keeps it
    from being done. None waits without a bound."""

    def __init__(self, folder: Path, builds: Builds, system: Path | None,
                 story: Callable[[str], None]) -> None:
        self._folder = folder
        self._builds = builds
        self.system = system
        self._story = story
        self.remote = Remote(builds.remote_program, folder)
        self._server: processes.Process | None = None
        self._serial_line = -1
        self.monitor = Monitor()

    def end(self) -> None:
        """Ends what the actions have started."""
        processes.end(self._server)
        self.remote.end()
        if self._serial_line >= 0:
            os.close(self._serial_line)

    def serve(self, requests: Lines, seconds: float) -> str:
        """Answers requests until the guest says how the scenario ended: that, "gone" or "silent"."""
        deadline = time.monotonic() + seconds
        try:
            while True:
                request = requests.receive(deadline)
                if request.startswith("done "):
                    return request.removeprefix("done ")
                requests.send(self._answer(request))
        except EOFError:
            return "gone"
        except TimeoutError:
            return "silent"

    def _answer(self, request: str) -> str:
        """Does what the guest asked for; the line that goes back."""
        name, *words = request.split(" ")
        action = getattr(self, f"act_{name}", None) or getattr(self.remote, f"act_{name}", None)
        if action is None:
            return "failed there is no such action"
        try:
            return f"ok {action(*words) or ''}"
        except Exception as error:  # whatever it is, it fails the scenario
            with (self._folder / "outside.log").open("a") as log:
                log.write(f"{request}\n{traceback.format_exc()}")
            return "failed " + " ".join((str(error) or repr(error)).split())

    def act_say(self, *words: str) -> None:
        """Shows it to the person who watches, spaces and all."""
        self._story("  " + " ".join(words))

    def act_make_random_image(self, name: str, mib: str) -> None:
        with (self._folder / name).open("wb") as image:
            for _ in range(int(mib)):
                image.write(os.urandom(MIB))

    def act_make_text_image(self, name: str, mib: str) -> None:
        """One that compresses well."""
        line = b"The quick brown fox jumps over the lazy dog.\n"
        size = int(mib) * MIB
        (self._folder / name).write_bytes((line * (size // len(line) + 1))[:size])

    def act_make_empty_image(self, name: str, mib: str) -> None:
        """Zeros that take no room."""
        with (self._folder / name).open("wb") as image:
            image.truncate(int(mib) * MIB)

    def act_sha256(self, name: str) -> str:
        with (self._folder / name).open("rb") as image:
            return hashlib.file_digest(image, "sha256").hexdigest()

    def act_scsi_commands(self, name: str) -> str:
        """What Wireshark finds in a capture: SCSI operation codes, each once, as "0x28"."""
        found = subprocess.run(
            ["tshark", "-r", self._folder / name, "-Y", "scsi_sbc.opcode",  # of block devices
             "-T", "fields", "-e", "scsi_sbc.opcode"],
            check=True, capture_output=True, text=True, timeout=300)
        return " ".join(sorted(set(found.stdout.split())))

    def act_first_line_at(self, name: str, block: str) -> str:
        """The text in this block of 1 KiB of an image."""
        with (self._folder / name).open("rb") as image:
            image.seek(int(block) * 1024)
            return image.read(1024).replace(b"\0", b"").partition(b"\n")[0].decode(errors="replace")

    def act_boot_server(self, script: str, *hardware: str) -> None:
        """A second guest, another computer, that runs this script of vm/guest. Its logs are in the
        folder `server`; nobody answers its requests."""
        logs = self._folder / "server"
        logs.mkdir()
        command = guest.qemu(self.system, self._builds, logs, VM / "guest" / script, 3600)
        with (logs / "qemu.log").open("wb") as log:
            self._server = processes.start(
                [*command, "-display", "none", "-monitor", "none", "-serial", "file:server/console.log",
                 "-chardev", "null,id=control", *hardware],
                cwd=self._folder, stdin=processes.NOTHING, stdout=log, stderr=log)

    def act_make_serial_line(self) -> None:
        """The other end of a serial line of QEMU's (a character device `pipe` named line): a file for
        what comes out, and a pipe, held open since QEMU takes its end for a hang-up."""
        os.mkfifo(self._folder / "line.in")
        (self._folder / "line.out").touch()
        self._serial_line = os.open(self._folder / "line.in", os.O_RDWR | os.O_NONBLOCK)

    def act_send_serial_line(self, name: str) -> None:
        data = (self._folder / name).read_bytes()
        if os.write(self._serial_line, data) != len(data):
            raise BlockingIOError("more than a pipe takes")

    def act_monitor(self, *words: str) -> None:
        """Has QEMU do this, a command of its human monitor."""
        try:
            self.monitor.type(" ".join(words))
        except (EOFError, TimeoutError):
            raise MonitorError("no answer") from None

    def act_add_drive(self, name: str, file: str) -> None:
        """A disk image for a device to come. QEMU lets go of one of this name, and of its image, only
        some time after its device has been pulled out."""
        deadline = time.monotonic() + ANSWER_PATIENCE
        while True:
            try:
                return self.act_monitor("drive_add", "0", f"if=none,id={name},format=raw,file={file}")
            except MonitorError:
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.05)
