#!/usr/bin/env bash
# Holds the house rules that a machine can hold: formatting, who may include whom, scripts, and,
# with --tidy, clang-tidy over every source file (minutes). Prints what is wrong; exits 1.
set -euo pipefail
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }
tidy=no
case ${1-} in
"") ;;
--tidy) tidy=yes ;;
-h | --help) usage && exit ;;
*) usage >&2 && exit 2 ;;
esac
cd "$(dirname "$0")/.."

failed=0
complain() {
    printf '%s\n' "$@" >&2
    failed=1
}

mapfile -t sources < <(git ls-files -co --exclude-standard '*.cpp' '*.h')
# Programs; shellcheck -x follows them into the files they source.
mapfile -t scripts < <(git ls-files -co --exclude-standard | xargs grep -lE '^#!.*(bash|/sh)$')
mapfile -t pythons < <(git ls-files -co --exclude-standard | xargs grep -lE '^#!.*python3$|^"""')

clang-format --dry-run -Werror "${sources[@]}" || complain "lint: clang-format -i mends the above"
shellcheck -x "${scripts[@]}" || complain "lint: shellcheck is not content"
pyflakes3 "${pythons[@]}" || complain "lint: pyflakes3 is not content"

tools/rooms.py || complain "lint: the rooms are in tools/rooms.py"

if [ "$tidy" = yes ]; then
    # All sources of a target at a time: most of the work is in the headers that they share.
    cmake --preset lint >/dev/null
    run-clang-tidy -quiet -p build/lint -j "$(nproc)" "^$PWD/(build/lint/.*/Unity|base|bench|client|fakes|fuzz|host|module|plugin|posix|remote|tests|vhci|vm)/.*" \
        >build/lint/tidy.log 2>&1 || {
        grep -E 'error:|warning:' build/lint/tidy.log | sort -u >&2
        complain "lint: clang-tidy is not content"
    }
fi

[ "$failed" = 0 ] && echo "lint: ${#sources[@]} source files and $((${#scripts[@]} + ${#pythons[@]})) scripts are clean"
exit "$failed"
