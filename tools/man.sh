#!/usr/bin/env bash
# Holds the man pages, which install, equal to what the programs say by --help.
#   tools/man.sh check BUILD    fails if docs/man/ differs
#   tools/man.sh accept BUILD   writes docs/man/
set -euo pipefail
[ $# = 2 ] || { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0" >&2; exit 2; }
pages=$(cd "$(dirname "$0")/.." && pwd)/docs/man

# page PROGRAM TEXT: its man page; --help stands in it as it is.
page() {
    local name=${1##*/}
    printf '.TH %s 1\n.SH NAME\n%s \\- %s\n.SH DESCRIPTION\n.nf\n' "${name^^}" "$name" "$2"
    # Where the module is depends on who asks.
    "$1" --help | sed 's/\(--module PATH \[\).*/\1FILE]/; s/\\/\\e/g; s/-/\\-/g'"; s/^[.']/\\\\\&&/"
    printf '.fi\n.SH SEE ALSO\n.BR xj-usbip-host (1),\n.BR xj-usbip-remote (1)\n'
}

check() { diff -u "$pages/$1" - || { echo "tools/man.sh accept BUILD writes it anew" >&2; exit 1; }; }
accept() { cat >"$pages/$1"; }

page "$2/host/xj-usbip-host" "attaches the USB devices of a remote computer" | "$1" xj-usbip-host.1
page "$2/remote/xj-usbip-remote" "offers USB devices to xj-usbip-host" | "$1" xj-usbip-remote.1
