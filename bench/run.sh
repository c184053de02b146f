#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the benchmarks in Release mode, runs them all and prints one table.
#   bench/run.sh           full sizes
#   bench/run.sh --quick   a tenth of the sizes (or BENCH_SCALE=N for 1/N)
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${BENCH_BUILD_DIR:-$here/build-bench}"
if [ "${1:-}" = "--quick" ]; then export BENCH_SCALE="${BENCH_SCALE:-10}"; fi

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DGUI_HELPERS_BUILD_BENCHMARKS=ON -DGUI_HELPERS_BUILD_TESTS=OFF -DGUI_HELPERS_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" --target benchmarks >/dev/null
# downloadbench signs with minisign, serves with python3 and compares with curl.
command -v minisign >/dev/null && command -v curl >/dev/null || { echo "bench/run.sh needs minisign and curl (scripts/setup.sh)" >&2; exit 1; }

rows=$(mktemp)
trap 'rm -f "$rows"' EXIT
for program in $(cat "$build/bench/benchmarks.txt"); do
    echo "running $(basename "$program") ..." >&2
    "$program" | grep '^ROW|' >> "$rows" || { echo "$(basename "$program") failed" >&2; exit 1; }
done

echo
printf '| %-58s | %14s | %-30s | %14s | %-8s | %6s | %-7s |\n' figure ours peer "peer's" unit ratio target
printf '|%s|%s|%s|%s|%s|%s|%s|\n' "$(printf -- '-%.0s' {1..60})" "$(printf -- '-%.0s' {1..16})" "$(printf -- '-%.0s' {1..32})" "$(printf -- '-%.0s' {1..16})" "$(printf -- '-%.0s' {1..10})" "$(printf -- '-%.0s' {1..8})" "$(printf -- '-%.0s' {1..9})"
while IFS='|' read -r _ figure ours peer peerv unit ratio target; do
    printf '| %-58s | %14s | %-30s | %14s | %-8s | %6s | %-7s |\n' "$figure" "$ours" "$peer" "$peerv" "$unit" "$ratio" "$target"
done < "$rows"
echo
echo "ratio: ours relative to the peer, above 1 means ours is better (faster, or less memory)."
