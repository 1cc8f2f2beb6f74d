#!/bin/sh
# Boots Debian's kernel under QEMU with software emulation (no KVM needed):
# the host's /usr and /etc read-only, the kernel's modules, and WORK/share
# writable. The guest runs guest.py against a real bluetoothd with two btvirt
# controllers and leaves its results in WORK/share.
#
# usage: vm.sh WORK KELVANE_BINARY
# env:   KELVANE_VM_KERNEL_DIR (default /var/cache/kelvane/vm-kernel, filled by
#        scripts/install-deps.sh --realbluez), KELVANE_VM_TIMEOUT (seconds the
#        guest may run, default 240)
# exit:  the guest's status (0 passed its steps, 75 the controllers did not
#        come up, others failed), 70 when it left none (as when the VM
#        outlived its timeout and was killed).
set -eu
here=$(cd "$(dirname "$0")" && pwd)
work=$1
binary=$2
kernel_dir=${KELVANE_VM_KERNEL_DIR:-/var/cache/kelvane/vm-kernel}
guest_timeout=${KELVANE_VM_TIMEOUT:-240}

# Nothing of an earlier boot may be mistaken for this one's results.
rm -rf "$work/share"
for need in "$kernel_dir/vmlinuz" /bin/busybox /usr/bin/btvirt /usr/libexec/bluetooth/bluetoothd \
    "$(command -v qemu-system-x86_64)" "$(command -v cpio)" "$(command -v modprobe)"; do
    if [ ! -e "$need" ]; then
        echo "vm.sh: the VM lacks ${need:-a program}; run: sh scripts/install-deps.sh --realbluez" >&2
        exit 69
    fi
done
mkdir -p "$work/share"
# The guest shares the recording of bluetoothd's answers with the simulator's tests.
cp "$here/guest.py" "$here/../sim/bluetoothd.py" "$here/../sim/bluetoothd-5.66.json" "$work/share/"
cp "$binary" "$work/share/kelvane"
echo "$guest_timeout" > "$work/share/guest-timeout"

# The initramfs: busybox, init, and what 9p over virtio needs, each module
# after those it depends on (init inserts them in that order).
tree=$work/initramfs
rm -rf "$tree"
mkdir -p "$tree/bin" "$tree/lib/modules" "$tree/proc" "$tree/sys" "$tree/dev" "$tree/newroot"
cp /bin/busybox "$tree/bin/busybox"
install -m 755 "$here/init" "$tree/init"
modprobe -d "$kernel_dir" -S "$(ls "$kernel_dir/lib/modules")" -a --show-depends virtio_pci 9pnet_virtio 9p |
    awk '$1 == "insmod" && !seen[$2]++ { print $2 }' | while read -r file; do
        cp "$file" "$tree/lib/modules/"
        basename "$file" >> "$tree/lib/modules/order"
    done
(cd "$tree" && find . | cpio -o -H newc --quiet | gzip -1) > "$work/initrd.gz"

ro=security_model=none,readonly=on
status=0
timeout -k 5 $((guest_timeout + 60)) qemu-system-x86_64 \
    -accel tcg -cpu qemu64 -m 1024 -smp "${KELVANE_VM_CPUS:-1}" \
    -nographic -no-reboot -monitor none -serial stdio -nic none \
    -kernel "$kernel_dir/vmlinuz" -initrd "$work/initrd.gz" \
    -append 'console=ttyS0 panic=-1 quiet loglevel=4' \
    -virtfs local,path=/usr,mount_tag=usr,$ro \
    -virtfs local,path=/etc,mount_tag=etc,$ro \
    -virtfs local,path="$kernel_dir",mount_tag=kernel,$ro \
    -virtfs local,path="$work/share",mount_tag=share,security_model=none \
    < /dev/null > "$work/console.log" 2>&1 || status=$?
if [ ! -f "$work/share/status" ]; then
    # qemu's status is timeout's 124 or 137 when it had to be killed.
    echo "vm.sh: the guest left no status (qemu exit $status; see $work/console.log)" >&2
    exit 70
fi
exit "$(cat "$work/share/status")"
