"""A folder for each run's logs, so that runs of the same scenario do not disturb each other."""
import fcntl
import os
import shutil
import tempfile
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager, suppress
from pathlib import Path

from harness.folders import OUTPUT


@contextmanager
def _locked(folder: Path, how: int = fcntl.LOCK_EX) -> Iterator[None]:
    """The kernel drops the lock when we die, and children do not inherit it."""
    handle = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(handle, how)
        yield
    finally:
        os.close(handle)


@contextmanager
def exclusive(folder: Path) -> Iterator[None]:
    """BlockingIOError: somebody has it."""
    with _locked(folder, fcntl.LOCK_EX | fcntl.LOCK_NB):
        yield


@contextmanager
def run_folder(name: str) -> Iterator[Path]:
    """A new one below build/vm/runs, where the link build/vm/NAME leads. It stays when the run has
    ended, until the scenario is run again."""
    runs = OUTPUT / "runs"
    runs.mkdir(parents=True, exist_ok=True)
    with ExitStack() as stack:
        with _locked(runs):  # nobody takes a folder for abandoned that is just being made
            for earlier in runs.glob(f"{name}.*"):
                with suppress(BlockingIOError), exclusive(earlier):  # else that run is under way
                    shutil.rmtree(earlier)
            folder = Path(tempfile.mkdtemp(prefix=f"{name}.", dir=runs))
            folder.chmod(0o755)
            stack.enter_context(exclusive(folder))
            last = OUTPUT / name
            if not last.is_symlink():
                shutil.rmtree(last, ignore_errors=True)
            last.unlink(missing_ok=True)
            last.symlink_to(folder.relative_to(OUTPUT))
        yield folder
