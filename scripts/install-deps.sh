#!/bin/sh
# Installs what building, testing and the simulated BlueZ need (Debian 12, as root).
# Options (any number):
#   --packaging  also what scripts/build-deb.sh needs
#   --realbluez  also what the real-BlueZ tier needs (tests/realbluez): QEMU,
#                BlueZ with btvirt, busybox, and Debian's kernel unpacked into
#                $KELVANE_VM_KERNEL_DIR (default /var/cache/kelvane/vm-kernel)
#   --bench      also what bench/compare.sh needs: valgrind, GNU
#                time, rsync, libdbus-1-dev (the replay server), bluez
#                (bluetoothctl as the peer), systemd (busctl)
# Skips apt entirely when every package is already there.
set -eu
packages="cmake g++ make pkg-config qtbase5-dev libdbus-1-dev python3 python3-pytest python3-dbusmock
python3-dbus python3-gi python3-jsonschema dbus dbus-bin dbus-daemon util-linux mount groff-base jq"
realbluez=false
for option in "$@"; do
    case $option in
    --packaging) packages="$packages dpkg-dev debhelper fakeroot lintian dh-python" ;;
    --realbluez)
        realbluez=true
        packages="$packages qemu-system-x86 busybox-static bluez bluez-test-tools kmod cpio gzip"
        ;;
    --bench) packages="$packages valgrind time rsync libdbus-1-dev bluez systemd diffutils" ;;
    *) echo "install-deps: unknown option: $option" >&2; exit 2 ;;
    esac
done
kernel_dir=${KELVANE_VM_KERNEL_DIR:-/var/cache/kelvane/vm-kernel}

need_root() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "install-deps: $1 (run as root to install it)" >&2
        exit 1
    fi
}

# The VM boots Debian's own kernel. Its package is downloaded and unpacked
# rather than installed: installing runs initramfs hooks for minutes and
# would touch the host's /boot, and the VM needs only the image and modules.
fetch_vm_kernel() {
    [ -f "$kernel_dir/vmlinuz" ] && return 0
    need_root "the VM kernel is missing in $kernel_dir"
    pkg=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/ {print $2; exit}')
    if [ -z "$pkg" ]; then
        apt-get update -q
        pkg=$(apt-cache depends linux-image-amd64 | awk '/Depends: linux-image-[0-9]/ {print $2; exit}')
    fi
    work=$(mktemp -d)
    # apt-get downloads as the user _apt when it may write the directory.
    chown _apt "$work" 2>/dev/null || true
    (cd "$work" && apt-get download -q "$pkg")
    dpkg-deb -x "$work"/*.deb "$work/root"
    modules=$work/root/lib/modules
    [ -d "$modules" ] || modules=$work/root/usr/lib/modules
    version=$(ls "$modules")
    rm -rf "$kernel_dir.new"
    mkdir -p "$kernel_dir.new/lib/modules"
    mv "$modules/$version" "$kernel_dir.new/lib/modules/"
    mv "$work/root/boot/vmlinuz-$version" "$kernel_dir.new/vmlinuz"
    rm -rf "$work"
    depmod -b "$kernel_dir.new" "$version"
    rm -rf "$kernel_dir"
    mv "$kernel_dir.new" "$kernel_dir"
    echo "install-deps: VM kernel $version in $kernel_dir"
}

missing=""
for p in $packages; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
    need_root "missing packages:$missing"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    # shellcheck disable=SC2086
    apt-get install -y -q --no-install-recommends $missing
fi
if $realbluez; then
    fetch_vm_kernel
fi
