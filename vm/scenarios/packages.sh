# about: the Debian packages: installed, doctor, a disk attached, removed without a trace
everything() { find / -xdev \( -path /tmp -o -path /var/lib/dpkg \) -prune -o ! -type d -print | sort; }

set -- "$ARM64_DIR"/packages/*_arm64.deb
expect_same "packages" 3 $#
mkdir -p /var/lib/dpkg/info
touch /var/lib/dpkg/status
# The guest's own libraries came without dpkg, and its loader without a cache to renew.
command -v ldconfig || ln -s /bin/true /sbin/ldconfig
everything >/tmp/before
dpkg --force-depends -i "$@"
HOST_PROGRAM=/usr/bin/xj-usbip-host MODULE=/usr/lib/libxj-client-usbip.so
for package in "$@"; do
    expect_same "version of $package" "$(dpkg-deb -f "$package" | sed -n "s/^Version: //p")" "$(xj-usbip-host --version)"
done
expect_same "the program" "$HOST_PROGRAM" "$(PATH=/usr/bin:/bin command -v xj-usbip-host)"

rmmod vhci_hcd
modprobe -a "$(grep -v '^#' /usr/lib/modules-load.d/xj-usbip.conf)"
"$HOST_PROGRAM" doctor
# shellcheck source=guest/disk.sh
. "$VM_DIR/guest/disk.sh"
disk_story random high

dpkg -P xj-usbip-tools libxj-client-usbip-dev libxj-client-usbip0
everything >/tmp/after
diff /tmp/before /tmp/after || fail "the packages leave something behind"
