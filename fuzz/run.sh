#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# fuzz/run.sh <seconds> [target...]
#
# Configures and builds the libFuzzer targets (preset "fuzz", clang-14, ASan + UBSan) and
# runs each one for <seconds>, one after the other. Fails when any target finds a crash,
# a leak, a sanitizer report or a slow input; the input is kept under build-fuzz/artifacts/.
# Without target names every target is run. The working corpus (build-fuzz/corpus/<name>)
# starts from the committed seeds in fuzz/corpus/<name> and grows across runs; the seeds
# themselves are never modified.
#
# Environment: FUZZ_BUILD_DIR (default build-fuzz), FUZZ_TIMEOUT seconds per input (10),
# FUZZ_RSS_LIMIT_MB (2048), FUZZ_SKIP_BUILD=1 to reuse an existing build.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
seconds="${1:?usage: fuzz/run.sh <seconds> [target...]}"
shift
build="${FUZZ_BUILD_DIR:-$here/build-fuzz}"
timeout="${FUZZ_TIMEOUT:-10}"
rss="${FUZZ_RSS_LIMIT_MB:-2048}"

cd "$here"
if [ "${FUZZ_SKIP_BUILD:-0}" != 1 ]; then
    cmake --preset fuzz -B "$build" >/dev/null
    cmake --build "$build" -j "$(nproc)"
fi

if [ "$#" -gt 0 ]; then
    targets=("$@")
else
    mapfile -t targets < <(grep -v '^$' "$build/fuzz/fuzzers.txt" | sed 's/^fuzz_//')
fi

# Qt's platform plugins are not loaded here; only leaks of the process itself count.
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export LSAN_OPTIONS="${LSAN_OPTIONS:-suppressions=$here/tests/sanitizers/lsan.supp:print_suppressions=0}"

failed=()
summary=()
for name in "${targets[@]}"; do
    binary="$build/fuzz/fuzz_$name"
    corpus="$build/corpus/$name"
    artifacts="$build/artifacts/$name"
    log="$build/logs/$name.log"
    mkdir -p "$corpus" "$artifacts" "$(dirname "$log")"
    seeds=()
    [ -d "$here/fuzz/corpus/$name" ] && seeds=("$here/fuzz/corpus/$name")
    dict=()
    [ -f "$here/fuzz/dict/$name.dict" ] && dict=("-dict=$here/fuzz/dict/$name.dict")
    echo "== fuzz_$name for ${seconds}s"
    rc=0
    "$binary" "$corpus" "${seeds[@]}" "${dict[@]}" \
        -max_total_time="$seconds" -timeout="$timeout" -rss_limit_mb="$rss" \
        -print_final_stats=1 -artifact_prefix="$artifacts/" \
        >"$log" 2>&1 || rc=$?
    runs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n1)"
    cov="$(grep -oE 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -n1 || true)"
    summary+=("$(printf '%-28s rc=%-3s runs=%-10s %s' "fuzz_$name" "$rc" "${runs:-?}" "${cov:-}")")
    if [ "$rc" -ne 0 ]; then
        failed+=("$name")
        echo "fuzz_$name FAILED (exit $rc); last lines of $log:"
        tail -n 60 "$log"
    fi
done

echo "== fuzz summary"
printf '%s\n' "${summary[@]}"
if [ "${#failed[@]}" -gt 0 ]; then
    echo "failing targets: ${failed[*]} (inputs in $build/artifacts/)"
    exit 1
fi
