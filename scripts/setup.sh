#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs everything the build, the tests, the benchmarks and the fuzzers need on a
# fresh Debian 12 machine. Idempotent and non-interactive; safe to run again.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

packages=(
    build-essential cmake ninja-build ccache pkg-config git
    qtbase5-dev qtbase5-dev-tools qttools5-dev qttools5-dev-tools libqt5svg5-dev
    libeigen3-dev nlohmann-json3-dev libudev-dev libspdlog-dev libbenchmark-dev
    xvfb xauth openssl libssl3 fonts-dejavu-core clang-14 libclang-rt-14-dev libfuzzer-14-dev
    libsodium-dev minisign lintian dpkg-dev file
    nodejs npm
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# Node and npm may come from outside Debian on some machines: only ask apt for them when absent.
if command -v node >/dev/null && command -v npm >/dev/null; then
    filtered=()
    for p in "${missing[@]}"; do [[ "$p" == nodejs || "$p" == npm ]] || filtered+=("$p"); done
    missing=("${filtered[@]+"${filtered[@]}"}")
fi
if [ "${#missing[@]}" -gt 0 ]; then
    SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    export DEBIAN_FRONTEND=noninteractive
    $SUDO apt-get update -qq
    $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The real tus server the upload tests talk to, and the peers the benchmarks compare with.
for dir in "$here/tests/tus" "$here/bench/tus"; do
    if [ -f "$dir/package-lock.json" ]; then
        (cd "$dir" && npm ci --no-audit --no-fund --loglevel=error)
    fi
done
