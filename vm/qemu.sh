# shellcheck shell=bash
# The folders that all of vm/ agrees on, and how a guest is booted.

vm_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
project_dir=$(dirname "$vm_dir")
arm64_dir=$(realpath -m "${XJ_ARM64_DIR:-$project_dir/build/arm64}")
native_dir=$(realpath -m "${XJ_NATIVE_DIR:-$project_dir/build/release}")
output_dir=$(realpath -m "${XJ_VM_OUTPUT:-$project_dir/build/vm}")

# boot READY_DIR LOG_DIR SCENARIO LIMIT QEMU_ARG...: replaces this process by a guest. READY_DIR is
# vm/fetch's; LOG_DIR is the one folder that the guest can write to; no SCENARIO means a prompt.
# The QEMU arguments say where the console goes and which character device, named `control`,
# carries the guest's requests. $kernel_words are further options for the guest's kernel.
kernel_words=
boot() {
    local ready=$1 log_dir=$2 scenario=$3 limit=$4
    shift 4
    local -a shares=()
    share() {
        shares+=(-fsdev "local,security_model=none,id=$1,path=$2$3"
            -device "virtio-9p-device,fsdev=$1,mount_tag=$1")
    }
    share vm "$vm_dir" ,readonly=on
    share arm64 "$arm64_dir" ,readonly=on
    share log "$log_dir" ''
    # Memory-mapped virtio devices: no PCI bus to go through, no firmware to load.
    exec qemu-system-aarch64 -M virt -cpu cortex-a53 -m 1G -smp 2 -no-reboot \
        -kernel "$ready/vmlinuz" -initrd "$ready/initramfs" \
        -append "console=ttyAMA0 panic=-1 quiet $kernel_words VM_DIR=$vm_dir ARM64_DIR=$arm64_dir LOG_DIR=$log_dir SCENARIO=$scenario LIMIT=$limit" \
        "${shares[@]}" \
        -netdev user,id=net -device virtio-net-device,netdev=net \
        -device virtio-serial-device -device virtserialport,chardev=control,name=control \
        "$@"
}
