#!/bin/sh
# Configures and builds into ./build (or $KELVANE_BUILD_DIR).
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
build=${KELVANE_BUILD_DIR:-$top/build}
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELVANE_WERROR=ON "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
