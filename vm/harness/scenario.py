"""Scenarios: shell scripts of the guest's, and what their heads say of them."""
import re
from pathlib import Path

from harness.folders import VM


class Scenario:
    """Lines `# KEY: VALUE` among its first ten say: about, what it shows; limit, how many seconds of
    the guest's time it may take; qemu and kernel, options for these; clock, `counted` for a guest
    whose time is counted (see guest.py)."""

    def __init__(self, name: str) -> None:
        """By its name, or by its path when that has a slash."""
        self.file = Path(name).resolve() if "/" in name else VM / "scenarios" / f"{name}.sh"
        self.name = self.file.stem
        head = self.file.read_text().splitlines()[:10]
        keys = dict(found.groups() for line in head if (found := re.match(r"# (\w+): *(.*)", line)))
        self.about = keys.get("about", "")
        self.limit = int(keys.get("limit", 240))
        self.hardware = keys.get("qemu", "").split()
        self.kernel_words = keys.get("kernel", "")
        self.counted = keys.get("clock") == "counted"

    @property
    def needs_a_guest(self) -> bool:
        """Hardware, a kernel or a clock of its own."""
        return bool(self.hardware or self.kernel_words or self.counted)


def all_scenarios() -> list[Scenario]:
    return [Scenario(str(file)) for file in sorted((VM / "scenarios").glob("*.sh"))]
