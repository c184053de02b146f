#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Configures and builds the demo host application (with the reference update server it
# starts), then runs it: in a window when there is a display, otherwise headless, writing
# PNG screenshots of its windows. Arguments are passed on to gui_helpers_demo.
#   SCREENSHOT_DIR  where a headless run writes its PNG files (default: <build>/screenshots)
#   BUILD_DIR       build directory (default: ./build, shared with build-and-test.sh)
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${BUILD_DIR:-$here/build}"

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target gui_helpers_demo -j "$(nproc)"

demo="$build/examples/demo/gui_helpers_demo"
if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] || [[ " $* " == *" --screenshots "* ]]; then
    exec "$demo" "$@"
fi
shots="${SCREENSHOT_DIR:-$build/screenshots}"
echo "No display: running the demo headless; screenshots go to $shots"
exec "$demo" --screenshots "$shots" "$@"
