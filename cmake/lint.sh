#!/usr/bin/env bash
# Holds the house rules that a machine can hold: formatting, who may include whom, shell scripts,
# and, with --tidy, clang-tidy over every source file (minutes). Prints what is wrong; exits 1.
set -euo pipefail
cd "$(dirname "$0")/.."

failed=0
complain() {
    printf '%s\n' "$@" >&2
    failed=1
}

mapfile -t sources < <(git ls-files -co --exclude-standard '*.cpp' '*.h')
# Programs; shellcheck -x follows them into the files they source.
mapfile -t scripts < <(git ls-files -co --exclude-standard | xargs grep -lE '^#!.*(bash|/sh)$')

clang-format --dry-run -Werror "${sources[@]}" || complain "lint: clang-format -i mends the above"
shellcheck -x "${scripts[@]}" || complain "lint: shellcheck is not content"

tools/rooms.py || complain "lint: the rooms are in tools/rooms.py"

if [ "${1:-}" = --tidy ]; then
    cmake --preset lint >/dev/null
    run-clang-tidy -quiet -p build/lint -j "$(nproc)" "^$PWD/(base|bench|client|fakes|fuzz|host|module|plugin|posix|remote|tests|vhci|vm)/.*" \
        >build/lint/tidy.log 2>&1 || {
        grep -E 'error:|warning:' build/lint/tidy.log | sort -u >&2
        complain "lint: clang-tidy is not content"
    }
fi

[ "$failed" = 0 ] && echo "lint: ${#sources[@]} source files and ${#scripts[@]} scripts are clean"
exit "$failed"
