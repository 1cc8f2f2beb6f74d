'''The private view of the file system every measured command runs in.

kelvane's paths are fixed: the store /var/lib/bluetooth, the backup below
/tmp/config and the lock /run/kelvane.lock. compare.sh starts the driver
with `unshare --mount --propagation private`; here, inside that namespace,
directories of the scratch area are bound over /tmp and /var/lib and a tmpfs
goes over /run. Everything the tool (and the floors, and valgrind) writes
there lands in the scratch area, on the scratch area's file system, and the
host's real /tmp, /var/lib/bluetooth and /run/kelvane.lock are never seen.

The whole of /var/lib is covered, not just /var/lib/bluetooth: the store
must be a plain directory as on a host (a store that is a mount point takes
a different path through the tool's restore), and none of the programs
measured needs anything else from /var/lib.

Nothing here ever removes the scratch area: compare.sh does that after the
namespace is gone.
'''

import os
import subprocess

COVERED = ('/tmp', '/var/lib', '/run')


def mount_namespace():
    return os.readlink('/proc/self/ns/mnt')


def _mount(*arguments):
    subprocess.run(['mount', *arguments], check=True)


def scratch_is_usable(scratch):
    '''The scratch area must stay visible once the mounts are up.'''
    real = os.path.realpath(scratch)
    for covered in COVERED:
        if real == covered or real.startswith(covered + '/'):
            return False
    return True


def enter(scratch, outer_namespace):
    '''Binds scratch/tmp over /tmp and scratch/varlib over /var/lib, and puts
    a tmpfs over /run. Returns the two directories as seen from outside.
    outer_namespace: the mount namespace of whoever started us (as
    /proc/self/ns/mnt showed it there), which must not be ours.'''
    if not outer_namespace or mount_namespace() == outer_namespace:
        raise RuntimeError('not in a private mount namespace: refusing to mount anything')
    if not scratch_is_usable(scratch):
        raise RuntimeError('the scratch area must not lie below %s' % ', '.join(COVERED))
    # unshare --propagation private has done this already; it costs nothing to
    # be sure that no mount below leaks back to the host.
    _mount('--make-rprivate', '/')
    tmp = os.path.join(scratch, 'tmp')
    varlib = os.path.join(scratch, 'varlib')
    os.makedirs(tmp, exist_ok=True)
    os.makedirs(varlib, exist_ok=True)
    os.chmod(tmp, 0o1777)
    os.chmod(varlib, 0o755)
    _mount('--bind', tmp, '/tmp')
    _mount('--bind', varlib, '/var/lib')
    _mount('-t', 'tmpfs', '-o', 'mode=0755,size=16m', 'kelvane-bench-run', '/run')
    return tmp, varlib


def filesystem_type(path):
    '''The type of the file system holding path, as /proc/self/mountinfo says.'''
    best, kind = '', '?'
    real = os.path.realpath(path)
    with open('/proc/self/mountinfo') as mounts:
        for line in mounts:
            fields = line.split()
            point = fields[4].encode().decode('unicode_escape')
            separator = fields.index('-')
            if (real == point or real.startswith(point.rstrip('/') + '/')) and \
                    len(point) >= len(best):
                best, kind = point, fields[separator + 1]
    return kind
