"""Whether a scenario has passed, judged by what it left in its folder."""
import re
from collections.abc import Iterator
from pathlib import Path

from harness.folders import Builds

KERNEL_TROUBLE = (r"WARNING:|\bBUG[: ]|Oops|Kernel panic|Internal error|blocked for more than|"
                  r"refcount_t:|UBSAN")


def lines_of(file: Path) -> list[str]:
    return file.read_text(errors="replace").splitlines() if file.exists() else []


def reasons_to_fail(folder: Path, ended: str, limit: int) -> Iterator[str]:
    """Most telling first; none when it has passed. ENDED is what Actions.serve says."""
    for line in lines_of(folder / "guest.log"):
        if "FAIL: " in line:
            yield line[line.index("FAIL: "):]
    for log in ("dmesg", "console.log", "server/dmesg", "server/console.log"):
        yield from (line for line in lines_of(folder / log) if re.search(KERNEL_TROUBLE, line))
    if ended in ("124", "137", "143"):
        yield f"not finished within its limit of {limit} s"
    elif ended == "gone":
        yield "the guest ended before the scenario did"
    elif ended == "silent":
        yield "the guest gave no result in time"
    elif ended != "0":
        yield f"the script ended with status {ended}"
    elif not lines_of(folder / "dmesg"):
        yield "the kernel's messages were not brought back"


def report(name: str, folder: Path, seconds: float, reason: str | None) -> None:
    """Tells it. Images, which are large, are kept only from a run that has failed."""
    if reason is None:
        print(f"PASS {name} ({seconds:.0f} s)", flush=True)
        for image in folder.glob("*.img"):
            image.unlink()
        return
    print(f"FAIL {name} ({seconds:.0f} s): {reason}")
    print(f"  logs are in {folder}; the last lines of guest.log:")
    for line in lines_of(folder / "guest.log")[-12:]:
        print(f"    {line}")
    print(end="", flush=True)


def tell_not_built(builds: Builds, programs: Path) -> None:
    """Of the programs that scenarios use; each does without some of them."""
    for program in (builds.remote_program, programs / "libxj-client-usbip.so",
                    programs / "host/xj-usbip-host", programs / "remote/xj-usbip-remote",
                    programs / "vm/microphone/xj-usbip-microphone"):
        if not program.exists():
            print(f"  not built: {program}")
