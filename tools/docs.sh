#!/usr/bin/env bash
# Holds the documents to what they speak of: links lead to files, and the lines by which
# docs/troubleshooting.md and docs/integrate.md are keyed are in the sources.
set -euo pipefail
cd "$(dirname "$0")/.."
bad=0

for page in *.md docs/*.md; do
    while read -r target; do
        [ -e "$(dirname "$page")/$target" ] || { echo "$page: no $target"; bad=1; }
    done < <(grep -oP '\]\(\K[^)#:]+(?=[#)])' "$page")
done

keys=0
while IFS= read -r key; do
    keys=$((keys + 1))
    [ "$key" != "Connection refused" ] || continue  # the system's own words
    grep -rqF -- "$key" host kit remote posix client vhci plugin module || { echo "nobody says: '$key'"; bad=1; }
done < <(sed -n 's/^| \(`[^|]*\)|.*/\1/p' docs/troubleshooting.md docs/integrate.md |
    awk -F'`' '{ for (i = 2; i <= NF; i += 2) print $i }' | sed 's/…/\n/g' | grep '[a-z]')
[ "$keys" -gt 20 ] || { echo "only $keys lines found"; bad=1; }
exit "$bad"
