#!/bin/sh
# Checks on binaries what cmake/hardening.cmake asks for, and that they run where README.md says.
#   tools/hardened.sh PREFIX BINARY...   PREFIX: of the toolchain, such as aarch64-linux-gnu-, or ''
set -eu
case ${1-} in
-h | --help)
    sed -n '2,3s/^# //p' "$0"
    exit
    ;;
esac
[ $# -ge 2 ] || { echo "usage: $0 PREFIX BINARY..." >&2; exit 2; }
prefix=$1
shift

failed=0
# has BINARY WHAT PATTERN TEXT
has() {
    printf '%s\n' "$4" | grep -qE "$3" && return
    echo "$1: $2 is missing" >&2
    failed=1
}

# needs BINARY LIBRARY MOST: no symbol of it that came after this version
needs() {
    newest=$("${prefix}readelf" -VW "$1" | grep -oE "$2_[0-9.]+" | sort -uV | tail -n 1)
    [ "$(printf '%s\n' "$newest" "$2_$3" | sort -V | tail -n 1)" = "$2_$3" ] && return
    echo "$1: needs $newest, and README.md promises $2_$3" >&2
    failed=1
}

for binary; do
    needs "$binary" GLIBC 2.34
    case $binary in
    *xj-usbip-host) needs "$binary" GLIBCXX 3.4.30 ;;
    *) needs "$binary" GLIBCXX 3.4.29 ;;
    esac
    segments=$("${prefix}readelf" -hlW "$binary")
    dynamic=$("${prefix}readelf" -dW "$binary")
    symbols=$("${prefix}nm" -D --undefined-only "$binary")
    has "$binary" "a position of the loader's choice" 'Type:.*DYN' "$segments"
    has "$binary" "a stack without code" 'GNU_STACK.* RW +0x' "$segments"
    has "$binary" "relocation read-only after loading" GNU_RELRO "$segments"
    has "$binary" "binding of all symbols while loading" 'FLAGS.* (BIND_)?NOW' "$dynamic"
    has "$binary" "the stack protector" __stack_chk_fail "$symbols"
    has "$binary" "the fortified C library" '__[a-z]+_chk(@|$)' "$symbols"
    case $("${prefix}readelf" -hW "$binary") in
    *AArch64*)
        code=$("${prefix}objdump" -d --no-show-raw-insn "$binary")
        has "$binary" "the signing of return addresses" '\bpaciasp\b' "$code"
        has "$binary" "landing pads for indirect branches" '\bbti\b' "$code"
        ;;
    esac
done
exit "$failed"
