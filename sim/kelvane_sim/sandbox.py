'''A BlueZ host's fixed paths, private to one program (kelvane-sim run --isolate).

kelvane's paths are fixed: the store /var/lib/bluetooth, the backup below
/tmp/config, the event file /tmp/kelvane-events.json, the lock in /run. A
Sandbox is three directories that a program started through it sees as /tmp,
/var/lib and /run, bound over the real ones in a mount namespace of that
program alone, so that nothing it writes reaches the host's files and the
host's store is never read. The store is var_lib/bluetooth, or a directory
given (where a simulator keeps its store). Mount namespaces need root.
'''

import ctypes
import subprocess
import tempfile
from pathlib import Path

CLONE_NEWNS = 0x20000
MS_RDONLY, MS_REMOUNT, MS_BIND, MS_REC, MS_PRIVATE = 1, 32, 4096, 16384, 1 << 18
_libc = ctypes.CDLL(None, use_errno=True)


def mount(source, target, fstype=None, flags=0, data=None):
    def c(text):
        return None if text is None else str(text).encode()
    if _libc.mount(c(source), c(target), c(fstype), ctypes.c_ulong(flags), c(data)) != 0:
        raise OSError(ctypes.get_errno(), 'mount %s on %s' % (source, target))


def own_mounts(binds=(), read_only=()):
    '''Moves the calling process into a mount namespace of its own, from which
    no mount propagates back, binds each (source, target) in order and makes
    the read_only paths read-only.'''
    if _libc.unshare(CLONE_NEWNS) != 0:
        raise OSError(ctypes.get_errno(), 'unshare')
    mount(None, '/', flags=MS_REC | MS_PRIVATE)
    for source, target in binds:
        mount(source, target, flags=MS_BIND)
    for target in read_only:
        mount(target, target, flags=MS_BIND)
        mount(None, target, flags=MS_REMOUNT | MS_BIND | MS_RDONLY)


class Sandbox:
    '''base/tmp (mode 1777), base/var_lib and base/run (0755), in base or a
    fresh directory. Without store, the store is var_lib/bluetooth, which is
    not made: a host may have none yet.'''

    def __init__(self, base=None, store=None):
        self.base = Path(base or tempfile.mkdtemp(prefix='kelvane-sandbox-'))
        self.base.chmod(0o755)  # a program run as another user reaches its /tmp
        self.tmp, self.var_lib, self.run = (self.base / n for n in ('tmp', 'var_lib', 'run'))
        for where, mode in ((self.tmp, 0o1777), (self.var_lib, 0o755), (self.run, 0o755)):
            where.mkdir(mode)
            where.chmod(mode)  # whatever the umask
        self.store = self.var_lib / 'bluetooth'
        if store:
            self.store.mkdir(0o700)  # where the store is bound
            self.store = Path(store)

    def enter(self, read_only=(), bind=()):
        '''Called in the program's process before exec (Popen's preexec_fn):
        the sandbox over /var/lib, the store over /var/lib/bluetooth, /run and
        /tmp; each path of bind a mount point of its own; the read_only paths
        read-only. Paths in bind and read_only are as the program sees them.'''
        binds = [(self.var_lib, '/var/lib')]
        if self.store != self.var_lib / 'bluetooth':
            binds.append((self.store, '/var/lib/bluetooth'))
        # /tmp last: the sandbox, and the store, may lie below it.
        own_mounts(binds + [(self.run, '/run'), (self.tmp, '/tmp')] + [(p, p) for p in bind],
                   read_only)

    def popen(self, argv, **options):
        '''Starts argv in the sandbox; options are subprocess.Popen's.'''
        return subprocess.Popen(argv, preexec_fn=self.enter, **options)

