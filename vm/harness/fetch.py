"""Fetches Debian's arm64 kernel and the guest's programs as Debian packages and makes of them what
QEMU boots: `vmlinuz` and `initramfs`. Nothing is installed. Done once: later calls find it in the
folder, which is outside the tree; delete that to fetch anew."""
import argparse
import fcntl
import hashlib
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from harness.folders import VM
from harness.processes import exit_on_signals, output_of

# The meta package names the current kernel. The cloud flavour would not do: it has no USB.
KERNEL_META = "linux-image-arm64"
GUEST_PACKAGES = """busybox-static libc6 libgcc-s1 libstdc++6 libudev1 zlib1g
    e2fsprogs libext2fs2 libcom-err2 libblkid1 libuuid1
    usbip libwrap0 libnsl2 libtirpc3 libgssapi-krb5-2 libkrb5-3 libk5crypto3 libkrb5support0
    libkeyutils1 libssl3
    alsa-utils libasound2""".split()
GUEST_DATA = ["libasound2-data"]  # packages for every architecture
# Programs among them that Debian keeps below /usr, and the data they cannot do without.
GUEST_FILES = ["usr/sbin/usbip", "usr/sbin/usbipd", "usr/bin/aplay", "usr/bin/arecord", "usr/share/alsa"]
# What these need comes along. USB over sockets; the disk; file systems; the ways out of the guest;
# a real bus with devices of several kinds, to be served; a bus whose devices the guest itself plays.
KERNEL_MODULES = """vhci-hcd usb-storage sd_mod ext4 crc32c_generic
    virtio_mmio virtio_net virtio_console 9p 9pnet_virtio
    xhci-pci usbip-host usbhid hid-generic evdev snd-usb-audio ftdi_sio
    dummy_hcd usb_f_mass_storage usb_f_hid usb_f_acm cdc-acm""".split()

CACHE = Path(os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache") / "xj-usbip-vm"
# depmod and modprobe, for users too; and messages that can be parsed.
ENVIRONMENT = {**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin:/sbin", "LC_ALL": "C"}


def _do(*command: str | Path, folder: Path | None = None) -> str:
    return output_of(command, cwd=folder, env=ENVIRONMENT)


def _prepare_apt() -> None:
    """It may know the foreign architecture without its package lists, or neither."""
    if "arm64" not in _do("dpkg", "--print-foreign-architectures").split():
        _do("dpkg", "--add-architecture", "arm64")
    try:
        _do("apt-cache", "show", f"{KERNEL_META}:arm64")
    except subprocess.CalledProcessError:
        _do("apt-get", "update", "-qq")


def _download(debs: Path) -> None:
    kernel = re.search(r"Depends: (linux-image-[^:\s]*)", _do("apt-cache", "depends", f"{KERNEL_META}:arm64"))
    if not kernel:
        sys.exit(f"vm/fetch: apt names no kernel behind {KERNEL_META}:arm64")
    print(f"vm/fetch: fetching {kernel[1]} and the guest's programs (once, about 75 MB) ...", file=sys.stderr)
    packages = [f"{package}:arm64" for package in (kernel[1], *GUEST_PACKAGES)] + GUEST_DATA
    # Without the option, apt complains that its own user may not write here.
    _do("apt-get", "-o", "APT::Sandbox::User=root", "-qq", "download", *packages, folder=debs)


def _copy(source: Path, target: Path) -> None:
    """Files, links and folders as they are, into what is there already."""
    target.parent.mkdir(parents=True, exist_ok=True)
    if source.is_dir() and not source.is_symlink():
        shutil.copytree(source, target, symlinks=True, dirs_exist_ok=True)
    else:
        shutil.copy2(source, target, follow_symlinks=False)


def _copy_modules(unpacked: Path, root: Path) -> None:
    """The modules we name and all they need, indexed for modprobe."""
    modules, = (unpacked / "lib/modules").iterdir()
    release = modules.name
    _do("depmod", "-b", unpacked, release)
    # Lines such as: insmod /path/of/module.ko options
    needed = {line.split()[1] for module in KERNEL_MODULES for line in
              _do("modprobe", "-d", unpacked, "-S", release, "--show-depends", module).splitlines()
              if line.startswith("insmod ")}
    needed |= {str(modules / f"modules.{kind}") for kind in ("builtin", "builtin.modinfo", "order")}
    for file in needed:
        _copy(Path(file), root / Path(file).relative_to(unpacked))
    _do("depmod", "-b", root, release)


def _make_root(unpacked: Path, root: Path) -> None:
    """The guest's root directory."""
    for folder in "dev proc sys tmp mnt root etc run var lib".split():
        (root / folder).mkdir(parents=True)
    (root / "var/run").symlink_to("../run")
    for folder in ("bin", "sbin", *(f"lib/{each.name}" for each in (unpacked / "lib").iterdir()
                                    if each.name != "modules"), *GUEST_FILES):
        _copy(unpacked / folder, root / folder)
    # The shared libraries beside the loader, not the character set tables and the like below them.
    for library in (unpacked / "usr/lib/aarch64-linux-gnu").glob("*.so*"):
        _copy(library, root / "lib/aarch64-linux-gnu" / library.name)
    # usbip complains without this list of makers' names. It is long, and read by each command.
    (root / "usr/share/misc").mkdir(parents=True)
    (root / "usr/share/misc/usb.ids").touch()
    (root / "etc/mtab").symlink_to("/proc/mounts")
    shutil.copy(VM / "guest/init", root / "init")
    (root / "init").chmod(0o755)
    _copy_modules(unpacked, root)


def _make(work: Path) -> Path:
    for folder in ("debs", "unpacked", "ready"):
        (work / folder).mkdir(parents=True)
    _prepare_apt()
    _download(work / "debs")
    for deb in (work / "debs").glob("*.deb"):
        _do("dpkg-deb", "-x", deb, work / "unpacked")
    _make_root(work / "unpacked", work / "root")
    kernel, = (work / "unpacked/boot").glob("vmlinuz-*")
    shutil.copyfile(kernel, work / "ready/vmlinuz")
    # Not compressed: an emulated processor unpacks slower than QEMU copies.
    _do("sh", "-c", 'find . | cpio --quiet -o -H newc -R 0:0 >"$0"', work / "ready/initramfs", folder=work / "root")
    return work / "ready"


def guest_system() -> Path:
    """The folder with `vmlinuz` and `initramfs`."""
    # Everything that decides what the guest is made of is in these two files.
    recipe = Path(__file__).read_bytes() + (VM / "guest/init").read_bytes()
    ready = CACHE / f"guest-{hashlib.sha256(recipe).hexdigest()[:16]}"
    CACHE.mkdir(parents=True, exist_ok=True)
    with (CACHE / "lock").open("w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # a second run waits here and then finds everything done
        if not ready.is_dir():
            work = CACHE / "work"
            shutil.rmtree(work, ignore_errors=True)  # of one that was killed
            try:
                _make(work).rename(ready)
            except subprocess.CalledProcessError as error:
                sys.exit(f"vm/fetch: {' '.join(map(str, error.cmd))}: {error.output}")
            finally:
                shutil.rmtree(work, ignore_errors=True)
    return ready


def main() -> None:
    argparse.ArgumentParser("vm/fetch", description=__doc__ + " Prints the folder.").parse_args()
    exit_on_signals()
    print(guest_system())
