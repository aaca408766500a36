#!/usr/bin/env bash
# Measures the module as it ships beside the least program that does its work, the lean relay: rate,
# round trip, processor time, context switches, system calls, page faults, allocations and
# instructions for each PDU. Prints a table; draws plots; writes everything into build/bench/. Takes
# some minutes on a quiet machine. docs/performance.md says how to read it.
#   ./bench.sh                all of it
#   ./bench.sh --against LIB  another build of the library in place of the lean relay
#   ./bench.sh --tap          with the kit's tap, and without in place of the lean relay
#   ./bench.sh --library LIB  this build in place of the one here
#   ./bench.sh --cell NAME    this cell alone (again for more)
#   ./bench.sh --record now   also makes it what docs/performance.md shows (or: --record before)
#   ./bench.sh --commit TEXT  of which commit the library is, for that page
set -euo pipefail
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }
case ${1-} in
"" | --against | --tap | --library | --cell | --record | --commit) ;;
-h | --help) usage && exit ;;
*) usage >&2 && exit 2 ;;
esac
here=$(dirname "$(readlink -f "$0")")

"$here/cmake/packages.sh"
cmake -S "$here" --preset release >/dev/null
cmake --build "$here/build/release" --target relay -- --quiet | sed '/^ninja: no work to do/d'
exec "$here/bench/compare.py" "$@"
