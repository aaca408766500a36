#!/usr/bin/env bash
# Builds with counters, runs the tests that need no virtual machine, and tells which lines of the
# module they execute: a summary here, each line in build/coverage/report/index.html. Fails below
# 90 %.
set -euo pipefail
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }
case ${1-} in
"") ;;
-h | --help) usage && exit ;;
*) usage >&2 && exit 2 ;;
esac
cd "$(dirname "$0")/.."

cmake --preset coverage >/dev/null
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
ctest --preset coverage -LE 'vm|tidy' -j "$(nproc)"

report=build/coverage/report
mkdir -p "$report"
# What the compiler's own check at configuring counted is left out.
gcovr --root . --filter '(base|module|plugin|client|vhci)/' \
    --txt --print-summary --html-details "$report/index.html" --fail-under-line 90 \
    build/coverage/{CMakeFiles/xj-module-objects.dir,tests,fuzz}
