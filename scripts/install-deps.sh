#!/bin/sh
# Installs what building, testing and the simulated BlueZ need (Debian 12, as root).
# With --packaging also what scripts/build-deb.sh needs.
# Skips apt entirely when every package is already there.
set -eu
packages="cmake g++ make pkg-config qtbase5-dev libdbus-1-dev python3 python3-pytest python3-dbusmock
python3-dbus python3-gi python3-jsonschema dbus dbus-bin dbus-daemon util-linux mount groff-base"
if [ "${1-}" = "--packaging" ]; then
    packages="$packages dpkg-dev debhelper fakeroot lintian"
fi
missing=""
for p in $packages; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps: missing packages:$missing (run as root to install them)" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
# shellcheck disable=SC2086
apt-get install -y -q --no-install-recommends $missing
