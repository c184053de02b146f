#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Configures, builds and runs every test. Used by the README's test command and by CI.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${BUILD_DIR:-$here/build}"
jobs="$(nproc)"

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" -j "$jobs"
cd "$build"
ctest --output-on-failure -j "$jobs" --timeout 600
