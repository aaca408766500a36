"""How a guest is booted."""
from pathlib import Path

from harness.folders import VM, Builds

# A guest whose time is counted: each instruction takes 8 ns, so that a busy machine makes everything
# slower but nothing late. When its processor idles, such a clock would leap to the next timer, while
# the machine outside has not moved: guest/start.sh keeps it busy.
COUNTED_TIME = ["-smp", "1", "-icount", "shift=3,sleep=off"]
REAL_TIME = ["-smp", "2"]


def qemu(system: Path, builds: Builds, log_dir: Path, scenario: Path | None = None, limit: int = 0,
         counted: bool = False, kernel_words: str = "") -> list[str]:
    """QEMU's command line. SYSTEM is what harness/fetch.py made; LOG_DIR is the one folder that the
    guest can write to; no scenario means a prompt. To be added: where the console goes, and which
    character device, named `control`, carries the guest's requests."""
    # The kernel passes those in capitals on to the guest's first process, as its environment.
    words = ["console=ttyAMA0", "panic=-1", "quiet", kernel_words, f"VM_DIR={VM}",
             f"ARM64_DIR={builds.arm64}", f"LOG_DIR={log_dir}", f"SCENARIO={scenario or ''}",
             f"LIMIT={limit}", f"CLOCK={'counted' if counted else 'real'}"]
    shares = []
    for tag, folder, options in (("vm", VM, ",readonly=on"), ("arm64", builds.arm64, ",readonly=on"),
                                 ("log", log_dir, "")):
        shares += ["-fsdev", f"local,security_model=none,id={tag},path={folder}{options}",
                   "-device", f"virtio-9p-device,fsdev={tag},mount_tag={tag}"]
    # Memory-mapped virtio devices: no PCI bus to go through, no firmware to load.
    return ["qemu-system-aarch64", "-M", "virt", "-cpu", "cortex-a53", "-m", "1G",
            *(COUNTED_TIME if counted else REAL_TIME), "-no-reboot",
            "-kernel", str(system / "vmlinuz"), "-initrd", str(system / "initramfs"),
            "-append", " ".join(words), *shares,
            "-netdev", "user,id=net", "-device", "virtio-net-device,netdev=net",
            "-device", "virtio-serial-device", "-device", "virtserialport,chardev=control,name=control"]
