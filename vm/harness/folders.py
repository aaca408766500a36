"""Where things are."""
import os
from dataclasses import dataclass
from pathlib import Path

VM = Path(__file__).resolve().parent.parent
PROJECT = VM.parent


def _folder(variable: str, default: str) -> Path:
    return Path(os.environ.get(variable) or PROJECT / "build" / default).resolve()


OUTPUT = _folder("XJ_VM_OUTPUT", "vm")


@dataclass
class Builds:
    """Programs for the guest, and for the machine outside."""
    arm64: Path = _folder("XJ_ARM64_DIR", "arm64")
    native: Path = _folder("XJ_NATIVE_DIR", "release")

    @property
    def remote_program(self) -> Path:
        return self.native / "remote/xj-usbip-remote"
