#!/bin/sh
# Builds the Debian packages kelvane and kelvane-sim from this tree into
# ./dist and checks them with lintian (fails on lintian errors). Run as root
# on Debian 12:
#     sh scripts/build-deb.sh && apt install ./dist/kelvane_*.deb ./dist/kelvane-sim_*.deb
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/install-deps.sh" --packaging

version=$(dpkg-parsechangelog -l "$top/debian/changelog" -S Version)
arch=$(dpkg --print-architecture)
dist=$top/dist

# dpkg-buildpackage writes its results next to the source tree and leaves
# build output inside it; build in a scratch copy so neither touches ours.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM
src=$work/kelvane-${version%-*}
mkdir "$src"
tar -C "$top" --exclude=./.git --exclude='./build*' --exclude=./dist \
    --exclude='./obj-*' --exclude=__pycache__ -cf - . | tar -C "$src" -xf -

# The package build runs the unit tests (debian/rules); nproc is capped
# because the build machines are small.
jobs=$(nproc)
[ "$jobs" -gt 2 ] && jobs=2
options="parallel=$jobs"
[ -n "${DEB_BUILD_OPTIONS:-}" ] && options="$DEB_BUILD_OPTIONS $options"
(cd "$src" && DEB_BUILD_OPTIONS=$options dpkg-buildpackage -b -us -uc)

mkdir -p "$dist"
debs="kelvane_${version}_${arch}.deb kelvane-sim_${version}_all.deb"
rm -f "$dist"/kelvane_*.deb "$dist"/kelvane-sim_*.deb
for deb in $debs; do
    cp "$work/$deb" "$dist/"
done

# shellcheck disable=SC2086
(cd "$dist" && lintian --pedantic --fail-on error,warning,info,pedantic --info $debs)
for deb in $debs; do
    echo "build-deb: $dist/$deb"
done
