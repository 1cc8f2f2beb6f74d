#!/usr/bin/python3
'''Wall time of the backup save (after -f) and of the restore (-r) on a store
of 2,000 devices kept on a real disk, for one or more builds of kelvane, run
in alternating rounds so that they see the same machine state.

    sudo bench/backup.py BUILD/src/kelvane [OTHER/src/kelvane ...] [--rounds 10]

Each run happens in a private mount namespace in which scratch directories on
disk are bound over /tmp and /var/lib and a tmpfs covers /run (the tool's
paths are fixed),
without BlueZ, so that -f falls back to the store and then saves. Prints the
median seconds per build and, for two builds, the ratio of the second to the
first.'''

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

DEVICES = 2000
ADAPTER = '00:1A:7D:DA:71:13'
GONE = 'AA:00:00:00:00:00'

# Runs inside the namespace: argv = scratch, binary, operation.
INNER = r'''
set -e
scratch=$1; binary=$2; operation=$3
mount --bind "$scratch/tmp" /tmp
mount --bind "$scratch/varlib" /var/lib
# The lock file: a private /run, never the host's /run/kelvane.lock.
mount -t tmpfs -o mode=0755 kelvane-bench-run /run
export DBUS_SYSTEM_BUS_ADDRESS=unix:abstract=kelvane-bench-no-bus
if [ "$operation" = save ]; then
    exec "$binary" -f %s >/dev/null
fi
exec "$binary" -r >/dev/null
''' % GONE


def info(i):
    return ('[General]\nName=Device %d\nClass=0x240404\nAddressType=public\n'
            'SupportedTechnologies=BR/EDR;\nTrusted=true\nBlocked=false\n'
            'Services=0000110b-0000-1000-8000-00805f9b34fb;0000110e-0000-1000-8000-00805f9b34fb;\n'
            '\n[LinkKey]\nKey=%032X\nType=4\nPINLength=0\n\n[DeviceID]\nSource=1\nVendor=76\n'
            'Product=8202\nVersion=257\n' % (i, i))


def make_store(root):
    os.makedirs(os.path.join(root, ADAPTER), mode=0o700)
    for i in range(DEVICES):
        device = os.path.join(root, ADAPTER, 'AA:00:00:00:%02X:%02X' % (i >> 8, i & 0xFF))
        os.mkdir(device, 0o700)
        for name, text in (('info', info(i)), ('attributes', '[0x0001]\nUUID=00002800-0000-'
                                                             '1000-8000-00805f9b34fb\n' * 4)):
            with open(os.path.join(device, name), 'w') as out:
                out.write(text)
            os.chmod(os.path.join(device, name), 0o600)
    os.chmod(root, 0o700)


def prepare(scratch, pristine):
    '''The store as it was, and a backup equal to it (as after the last save).'''
    for name in ('varlib', 'tmp'):
        shutil.rmtree(os.path.join(scratch, name), ignore_errors=True)
    shutil.copytree(pristine, os.path.join(scratch, 'varlib', 'bluetooth'), symlinks=True)
    backup = os.path.join(scratch, 'tmp', 'config', 'files', 'var_bluetooth')
    os.makedirs(os.path.dirname(backup))
    os.chmod(os.path.join(scratch, 'tmp'), 0o1777)
    shutil.copytree(pristine, backup, symlinks=True)
    subprocess.run(['sync'], check=True)


def timed(scratch, binary, operation):
    started = time.monotonic()
    subprocess.run(['unshare', '--mount', '--propagation', 'private', 'sh', '-c', INNER, 'inner',
                    scratch, binary, operation], check=True)
    return time.monotonic() - started


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('binaries', nargs='+')
    parser.add_argument('--rounds', type=int, default=10)
    parser.add_argument('--scratch', default='/var/tmp',
                        help='a directory on the disk to measure (default /var/tmp)')
    options = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit('backup.py: needs root (mount namespaces)')
    scratch = tempfile.mkdtemp(prefix='kelvane-bench-', dir=options.scratch)
    try:
        pristine = os.path.join(scratch, 'pristine')
        make_store(pristine)
        # Copied out of the way: the bind mounts hide /tmp and /var/lib.
        binaries = []
        for index, binary in enumerate(options.binaries):
            binaries.append(os.path.join(scratch, 'kelvane-%d' % index))
            shutil.copy(binary, binaries[-1])
        times = {(b, op): [] for b in binaries for op in ('save', 'restore')}
        for _ in range(options.rounds):
            for operation in ('save', 'restore'):
                for binary in binaries:
                    prepare(scratch, pristine)
                    times[(binary, operation)].append(timed(scratch, binary, operation))
        for operation in ('save', 'restore'):
            medians = [statistics.median(times[(b, operation)]) for b in binaries]
            line = '%-8s' % operation + ''.join('  %8.3f s' % m for m in medians)
            if len(medians) == 2:
                line += '   ratio %.2f' % (medians[1] / medians[0])
            print(line)
    finally:
        shutil.rmtree(scratch, ignore_errors=True)


if __name__ == '__main__':
    main()
