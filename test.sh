#!/usr/bin/env bash
# Builds and tests everything: lint, the tests in release, with the address and undefined-behaviour
# sanitizers and with the thread sanitizer, 20 seconds of each fuzz target, then the scenarios on the
# real ARM kernel.
#   ./test.sh          all of it
#   ./test.sh --quick  what to run on every change: the fast part of the release tests and of lint
set -euo pipefail
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }
case ${1-} in
"") quick=no ;;
--quick) quick=yes ;;
-h | --help) usage && exit ;;
*) usage >&2 && exit 2 ;;
esac
cd "$(dirname "$0")"

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

build() { # PRESET
    echo "== build: $1"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1"
}

cmake/packages.sh
build release
if [ "$quick" = yes ]; then
    run_tests release -LE 'vm|tidy|stress' -j "$(nproc)"
else
    for preset in asan tsan; do build "$preset"; done
    run_tests release -LE vm -j "$(nproc)"
    for preset in asan tsan; do run_tests "$preset" -j "$(nproc)"; done
    build fuzz
    run_tests fuzz -j "$(nproc)"
    run_tests release -L vm -j "$(nproc)"
fi

echo "$passed passed, $failed failed, $skipped skipped"
[ "$failed" = 0 ]
