#!/bin/sh
# Sets everything up and runs the main job: dependencies, build, then a scan
# (kelvane -e, one JSON line on stdout). The scan talks to the machine's BlueZ
# when org.bluez is on the system bus; otherwise it runs against the simulated
# BlueZ (demo set) on a private bus. Extra arguments go to kelvane (e.g. -v).
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
# Progress goes to stderr: stdout carries only the scan's result line.
"$top/scripts/install-deps.sh" >&2
"$top/scripts/build.sh" >&2
kelvane="${KELVANE_BUILD_DIR:-$top/build}/src/kelvane"

bluez_on_system_bus() {
    command -v dbus-send >/dev/null 2>&1 || return 1
    dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.NameHasOwner string:org.bluez 2>/dev/null | grep -q 'boolean true'
}

if bluez_on_system_bus; then
    echo "run: using the host's BlueZ (org.bluez on the system bus)" >&2
    exec "$kelvane" -e "$@"
fi
echo "run: org.bluez is not on the system bus; using the simulated BlueZ (demo set) on a private bus" >&2
exec "$top/sim/kelvane-sim" run --demo -- "$kelvane" -e "$@"
