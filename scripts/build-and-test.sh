#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Configures, builds and runs every test. Used by the README's test command and by CI.
# Then the same suite under AddressSanitizer + UndefinedBehaviorSanitizer, the threaded
# tests under ThreadSanitizer, and a short run of every fuzz target; SANITIZERS=0 skips
# those three steps (quick local runs).
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${BUILD_DIR:-$here/build}"
jobs="$(nproc)"

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DGUI_HELPERS_WARNINGS_AS_ERRORS=ON
cmake --build "$build" -j "$jobs"
summary="$build/ctest-summary.txt"
(cd "$build" && ctest --output-on-failure -j "$jobs" --timeout 600) | tee "$build/ctest-output.txt"
grep -E 'tests passed|tests failed' "$build/ctest-output.txt" > "$summary" || true

[ "${SANITIZERS:-1}" = 0 ] && exit 0
cd "$here"

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
cmake --preset asan >/dev/null
cmake --build --preset asan -j "$jobs"
ctest --preset asan -j "$jobs" --timeout 600

echo "== ThreadSanitizer (tests labelled tsan)"
cmake --preset tsan >/dev/null
# Only the labelled tests run, so only they (and the libraries) are built.
mapfile -t tsan_tests < <(ctest --preset tsan -N | sed -n 's/^ *Test *#[0-9]*: *//p')
if [ "${#tsan_tests[@]}" -gt 0 ]; then
    cmake --build --preset tsan -j "$jobs" --target "${tsan_tests[@]}"
    ctest --preset tsan -j "$jobs" --timeout 600
fi

echo "== fuzz targets"
bash "$here/fuzz/run.sh" "${FUZZ_SECONDS:-30}"

# The main suite's verdict last, so the run ends with ctest's summary.
echo "== main test suite"
cat "$summary"
