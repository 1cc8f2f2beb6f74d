#!/bin/sh
# The whole test suite: dependencies, build, unit and end-to-end tests, and
# the tier against the real BlueZ daemon in a VM (tests/realbluez).
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/install-deps.sh" --realbluez
"$top/scripts/build.sh"
cd "${KELVANE_BUILD_DIR:-$top/build}"
ctest --output-on-failure -j 2
