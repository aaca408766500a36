#!/usr/bin/env bash
# Builds with counters, runs the tests that need no virtual machine, and tells which lines of the
# product they execute: a summary for each folder here, each line in
# build/coverage/report/index.html. Fails when a folder is below 90 %.
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
gcovr --root . --filter '(base|client|host|kit|module|plugin|posix|remote|vhci)/' \
    --txt --html-details "$report/index.html" --json-summary "$report/summary.json" \
    build/coverage/{CMakeFiles/xj-module-objects.dir,posix,kit,host,remote,tests,fuzz}
python3 - "$report/summary.json" <<'END'
import collections, json, sys
lines = collections.defaultdict(lambda: [0, 0])
for file in json.load(open(sys.argv[1]))["files"]:
    folder = lines[file["filename"].split("/")[0]]
    folder[0] += file["line_covered"]
    folder[1] += file["line_total"]
for folder, (covered, total) in sorted(lines.items()):
    print(f"{folder:8} {covered:5} of {total:5} lines {100 * covered / total:5.1f} %")
sys.exit(any(covered < 0.9 * total for covered, total in lines.values()))
END
