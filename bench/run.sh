#!/bin/sh
# Builds and runs the benchmarks, then measures the peak memory of whole runs.
# Usage: sh bench/run.sh   (as root, after scripts/install-deps.sh)
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
build=${KELVANE_BENCH_DIR:-$top/build-bench}
cmake -S "$top" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKELVANE_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target bench_core kelvane
"$build/bench/bench_core" -iterations 20
/usr/bin/python3 "$top/bench/peak_memory.py" "$build/src/kelvane"
