#!/bin/sh
# kelvane against its floors (bare Qt clients doing the least the same job
# needs) and its peers (busctl, bluetoothctl), one table. See bench/README.md.
#
# Usage (as root, after `sh scripts/install-deps.sh --bench` and a build):
#   sh bench/compare.sh [--quick] [--keep] [--scratch-in DIR] [OPTIONS] [KELVANE]
#
#   KELVANE        the binary to measure (default: build/src/kelvane)
#   --quick        fewer rounds (about 6-8 minutes instead of 15-20)
#   --keep         leave the scratch area in place (its path is printed)
#   --scratch-in   where to make the scratch area (default /var/tmp); it
#                  must be on the disk the backup figures should describe
#   --json FILE    also write every figure (all rounds) to FILE
#   OPTIONS        passed to bench/compare.py: --sizes 10,1000,5000,
#                  --only PHASES, --time-limit SECONDS
#
# Everything is written below one scratch directory, removed at the end;
# every process started is stopped by its PID; the host's /tmp,
# /var/lib/bluetooth and /run are never touched (the measuring happens in a
# private mount namespace that binds scratch directories over them).
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
binary=$top/build/src/kelvane
parent=/var/tmp
keep=false
json=""
pass=""
while [ $# -gt 0 ]; do
    case $1 in
    --keep) keep=true ;;
    --scratch-in) parent=$2; shift ;;
    --quick) pass="$pass --quick" ;;
    --json) json=$2; shift ;;
    --sizes|--only|--time-limit) pass="$pass $1 $2"; shift ;;
    -h|--help) sed -n '2,20p' "$0"; exit 0 ;;
    -*) echo "compare.sh: unknown option $1" >&2; exit 2 ;;
    *) binary=$1 ;;
    esac
    shift
done

if [ "$(id -u)" -ne 0 ]; then
    echo "compare.sh: needs root (mount namespaces, and kelvane -l/-f/-r)" >&2
    exit 1
fi
for tool in valgrind rsync busctl bluetoothctl dbus-monitor dbus-daemon unshare diff g++ gcc pkg-config /usr/bin/time; do
    command -v "$tool" >/dev/null || { echo "compare.sh: $tool missing: sh scripts/install-deps.sh --bench" >&2; exit 1; }
done
pkg-config --exists dbus-1 Qt5DBus || { echo "compare.sh: libdbus-1-dev or qtbase5-dev missing: sh scripts/install-deps.sh --bench" >&2; exit 1; }
[ -x "$binary" ] || { echo "compare.sh: no binary at $binary (sh scripts/build.sh)" >&2; exit 1; }
binary=$(cd "$(dirname "$binary")" && pwd)/$(basename "$binary")

scratch=$(mktemp -d "$parent/kelvane-compare.XXXXXX")
cleanup() {
    if $keep; then
        echo "compare.sh: scratch area kept: $scratch" >&2
    else
        # Outside the namespace nothing is mounted below the scratch area, so
        # this removes only what the run wrote there.
        rm -rf --one-file-system "$scratch"
    fi
}
trap cleanup EXIT
# Without traps a signal would end the shell before the EXIT trap runs.
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

# The floors and the replay server, built as kelvane is (-O2 -g).
mkdir "$scratch/bin"
qt=$(pkg-config --cflags --libs Qt5DBus Qt5Core)
flags="-std=c++17 -O2 -g -fPIC -Wall -Wextra"
# shellcheck disable=SC2086
{
    g++ $flags "$top/bench/floors/floor_start.cpp" -o "$scratch/bin/floor_start" $(pkg-config --cflags --libs Qt5Core)
    g++ $flags -DWITH_JSON=0 "$top/bench/floors/floor_list.cpp" -o "$scratch/bin/floor_gmo" $qt
    g++ $flags -DWITH_JSON=1 "$top/bench/floors/floor_list.cpp" -o "$scratch/bin/floor_json" $qt
    g++ $flags "$top/bench/floors/floor_scan.cpp" -o "$scratch/bin/floor_scan" $qt
    gcc -std=c11 -O2 -g -Wall -Wextra "$top/bench/replay.c" -o "$scratch/bin/replay" $(pkg-config --cflags --libs dbus-1)
    gcc -std=c11 -O2 -Wall -Wextra "$top/bench/spawn.c" -o "$scratch/bin/spawn"
}
# A copy: the original may lie below a directory the namespace covers.
cp "$binary" "$scratch/bin/kelvane"

# The driver runs in the background so that a signal to this script reaches
# it (as SIGTERM: it then stops what it started and exits); unshare execs
# it, so $! is the driver itself. -B: no bytecode files in the source tree.
# shellcheck disable=SC2086
unshare --mount --propagation private /usr/bin/python3 -B "$top/bench/compare.py" \
    --kelvane "$scratch/bin/kelvane" --source "$binary" --bin "$scratch/bin" \
    --scratch "$scratch" --outer-namespace "$(readlink /proc/self/ns/mnt)" \
    --json "$scratch/result.json" $pass &
driver=$!
trap 'kill -TERM "$driver" 2>/dev/null || true' INT TERM HUP
status=0
wait "$driver" || status=$?
while kill -0 "$driver" 2>/dev/null; do
    wait "$driver" || status=$?
done
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP
[ "$status" -ne 0 ] || [ -z "$json" ] || cp "$scratch/result.json" "$json"
exit "$status"
