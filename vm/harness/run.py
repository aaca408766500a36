"""Runs scenarios against the real vhci_hcd of a real ARM kernel."""
import argparse
import os
import signal
import sys
import time
from collections.abc import Callable
from pathlib import Path

from harness import fetch, guest, processes, verdict
from harness.actions import Actions
from harness.folders import OUTPUT, VM, Builds
from harness.lines import Lines
from harness.log_folder import run_folder
from harness.scenario import Scenario, all_scenarios

BOOT_ALLOWANCE = 120  # seconds on top of a scenario's limit; a boot takes 5 on an idle machine
COUNTED_SLOWNESS = 4  # real seconds that a counted one may take; on an idle machine it is less than one


class Runner:
    def __init__(self, builds: Builds, native: bool, story: bool) -> None:
        self._builds = builds
        self._system = None if native else fetch.guest_system()
        self._story: Callable[[str], None] = (lambda line: print(line, flush=True)) if story else lambda _: None

    def run(self, name: str) -> bool:
        """Runs one and tells how it ended: whether it has passed."""
        try:
            scenario = Scenario(name)
        except FileNotFoundError:
            print(f"FAIL {name}: there is no such scenario; vm/run lists them")
            return False
        if self._system is None and scenario.needs_a_guest:
            print(f"FAIL {scenario.name}: it needs a guest with hardware or kernel options of its own")
            return False
        began = time.monotonic()
        with run_folder(scenario.name) as folder:
            ended = self._run_in(folder, scenario)
            reason = next(verdict.reasons_to_fail(folder, ended, scenario.limit), None)
            verdict.report(scenario.name, folder, time.monotonic() - began, reason)
        if reason is not None:
            verdict.tell_not_built(self._builds, self._builds.arm64 if self._system else self._builds.native)
        return reason is None

    def _run_in(self, folder: Path, scenario: Scenario) -> str:
        """Returns when everything has ended, in whatever way, that it has started."""
        actions = Actions(folder, self._builds, self._system, self._story)
        requests = Lines()
        child = None
        try:
            if self._system:
                child = self._boot(folder, scenario, requests, actions)
            else:
                child = self._start_natively(folder, scenario, requests)
            requests.far_end.close()
            actions.monitor.lines.far_end.close()
            slowness = COUNTED_SLOWNESS if scenario.counted else 1
            return actions.serve(requests, scenario.limit * slowness + BOOT_ALLOWANCE)
        finally:
            processes.end(child)
            actions.end()

    def _boot(self, folder: Path, scenario: Scenario, requests: Lines, actions: Actions) -> processes.Process:
        control, monitor = requests.far_end.fileno(), actions.monitor.lines.far_end.fileno()
        command = guest.qemu(self._system, self._builds, folder, scenario.file, scenario.limit,
                             scenario.counted, scenario.kernel_words)
        with (folder / "qemu.log").open("wb") as log:
            return processes.start(
                [*command, "-display", "none", "-serial", "file:console.log",
                 "-chardev", f"socket,id=monitor,fd={monitor}", "-mon", "monitor,mode=control",
                 "-chardev", f"socket,id=control,fd={control}", *scenario.hardware],
                cwd=folder, stdin=processes.NOTHING, stdout=log, stderr=log, pass_fds=(control, monitor))

    def _start_natively(self, folder: Path, scenario: Scenario, requests: Lines) -> processes.Process:
        """The same script on this machine. On SIGTERM `timeout` ends it with all that it started."""
        native = self._builds.native
        return processes.start(
            ["timeout", "--kill-after=5", str(scenario.limit), "bash", VM / "guest/native.sh", scenario.file],
            last_signal=signal.SIGTERM, cwd=folder, stdin=requests.far_end,
            env={**os.environ, "VM_DIR": str(VM), "LOG_DIR": str(folder), "REMOTE_ADDRESS": "127.0.0.1",
                 "HOST_PROGRAM": str(native / "host/xj-usbip-host"),
                 "MODULE": str(native / "libxj-client-usbip.so")})


def parse(arguments: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        "vm/run", allow_abbrev=False, description=__doc__,
        epilog=f"Logs of a scenario's last run are in {OUTPUT}/NAME (see $XJ_VM_OUTPUT).")
    parser.add_argument("names", metavar="NAME", nargs="*",
                        help="a scenario, or the path of its file below vm/; without one they are listed")
    parser.add_argument("--list", action="store_true", help="list the scenarios")
    parser.add_argument("--all", action="store_true", help="run all of them")
    builds = Builds()
    parser.add_argument("--arch-build", metavar="DIR", type=Path, default=builds.arm64,
                        help="guest binaries: module, host, tests ($XJ_ARM64_DIR, build/arm64)")
    parser.add_argument("--native-build", metavar="DIR", type=Path, default=builds.native,
                        help="the remote side, which runs outside ($XJ_NATIVE_DIR, build/release)")
    parser.add_argument("--native", action="store_true",
                        help="no guest: this machine's own vhci_hcd, all programs from --native-build")
    parser.add_argument("--story", action="store_true", help="show what the scenario says while it goes on")
    return parser.parse_args(arguments)


def main() -> None:
    options = parse(sys.argv[1:])
    if options.list or not (options.names or options.all):
        for scenario in all_scenarios():
            print(f"{scenario.name:<20} {scenario.about}")
        return
    processes.exit_on_signals()
    names = [scenario.name for scenario in all_scenarios()] if options.all else options.names
    try:
        runner = Runner(Builds(options.arch_build.resolve(), options.native_build.resolve()),
                        options.native, options.story)
        failed = sum(not runner.run(name) for name in names)
    except OSError as error:  # a program that is not installed, a disk that is full
        sys.exit(f"vm/run: {error}")
    if len(names) > 1:
        print(f"scenarios: {len(names) - failed} passed, {failed} failed")
    sys.exit(failed > 0)
