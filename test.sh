#!/usr/bin/env bash
# Builds and tests everything: lint, the tests in release, with the address and undefined-behaviour
# sanitizers and with the thread sanitizer, 20 seconds of each fuzz target, then the scenarios on the
# real ARM kernel.
#   ./test.sh          all of it
#   ./test.sh --quick  what to run on every change: the fast part of the release tests and of lint
set -euo pipefail
cd "$(dirname "$0")"

case "${1:-}" in
"") quick=no ;;
--quick) quick=yes ;;
*)
    echo "usage: $0 [--quick]" >&2
    exit 2
    ;;
esac

passed=0
failed=0
skipped=0  # what a sanitizer cannot watch

# Runs ctest and adds its figures to the totals.
run_tests() {
    local preset=$1 log counts bad all left_out
    shift
    echo "== test: $preset $*"
    log=$(mktemp)
    ctest --preset "$preset" "$@" 2>&1 | tee "$log" || true
    # "98% tests passed, 2 tests failed out of 120"; without that line nothing ran, which is a failure
    counts=$(sed -nE 's/.* tests passed, ([0-9]+) tests failed out of ([0-9]+)/\1 \2/p' "$log")
    left_out=$(grep -c '\*\*\*Skipped' "$log" || true)
    rm -f "$log"
    read -r bad all <<<"${counts:-1 1}"
    passed=$((passed + all - bad - left_out))
    failed=$((failed + bad))
    skipped=$((skipped + left_out))
}

# PRESET [--target NAME...]
build() {
    echo "== build: $*"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$@"
}

cmake/packages.sh
build release
if [ "$quick" = yes ]; then
    run_tests release -LE 'vm|tidy|stress' -j "$(nproc)"
else
    for preset in asan tsan; do build "$preset"; done
    build arm64 --target xj-client-usbip xj-usbip-host xj-usbip-remote xj-usbip-microphone \
        abi_test library_test
    run_tests release -LE vm -j "$(nproc)"
    for preset in asan tsan; do run_tests "$preset" -j "$(nproc)"; done
    build fuzz
    run_tests fuzz -j "$(nproc)"
    run_tests release -L vm
fi

echo "$passed passed, $failed failed, $skipped skipped"
[ "$failed" = 0 ]
