"""A prompt in the guest: vhci_hcd loaded, our programs in the PATH, and a remote side running outside
that waits for the host. It serves one disk of 64 MiB, build/vm/shell/disk.img, or what the arguments
of xj-usbip-remote say, such as --disk IMAGE; IMAGE is an absolute path."""
import sys
from pathlib import Path

from harness import fetch, guest, processes
from harness.actions import Actions
from harness.folders import OUTPUT, Builds
from harness.lines import Lines
from harness.log_folder import exclusive
from harness.verdict import lines_of

USAGE = "usage: vm/shell [--disk IMAGE | another argument of xj-usbip-remote]..."
FOREVER = 30 * 24 * 3600


def main() -> None:
    offered = sys.argv[1:]
    if offered in (["-h"], ["--help"]):
        print(f"{USAGE}\n\n{__doc__}")
        return
    processes.exit_on_signals()
    folder = OUTPUT / "shell"
    folder.mkdir(parents=True, exist_ok=True)
    try:
        with exclusive(folder):
            run(folder, offered)
    except BlockingIOError:
        sys.exit("vm/shell: there is one already")


def run(folder: Path, offered: list[str]) -> None:
    builds = Builds()
    for log in folder.glob("*.log"):
        log.unlink()
    actions = Actions(folder, builds, fetch.guest_system(), print)
    requests = Lines()
    child = None
    try:
        if not offered and not (folder / "disk.img").exists():
            actions.act_make_random_image("disk.img", "64")
        try:
            actions.remote.act_start_remote(*(offered or ["--disk", "disk.img"]))
        except RuntimeError:
            print("\n".join(lines_of(folder / "remote.log")), USAGE, sep="\n", file=sys.stderr)
            sys.exit(2)
        control = requests.far_end.fileno()
        child = processes.start(
            [*guest.qemu(actions.system, builds, folder), "-nographic",
             "-chardev", f"socket,id=control,fd={control}"], cwd=folder, pass_fds=(control,))
        requests.far_end.close()
        actions.serve(requests, FOREVER)
    finally:
        processes.end(child)
        actions.end()
