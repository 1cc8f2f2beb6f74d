# Running the real kelvane binary for the end-to-end suites.
#
# conftest.py moves the whole test process into a mount namespace of its own
# with a fresh tmpfs on /tmp, so nothing here ever reaches the host's /tmp or
# /var/lib. Every run gets a Box there: three directories that the run sees as
# /tmp, /var/lib and /run, bound over the real ones in a further namespace of
# the run alone. Tests build the trees before a run and read them afterwards
# with plain file operations; runs that share a box see the same files.

import ctypes
import os
import secrets
import signal
import stat
import subprocess
import tempfile
import time
from dataclasses import dataclass, make_dataclass
from pathlib import Path

import contract

NOBODY = 65534
NO_STORE = 'no store'  # store=NO_STORE: /var/lib/bluetooth does not exist
MS_RDONLY, MS_REMOUNT, MS_BIND, MS_REC, MS_PRIVATE = 1, 32, 4096, 16384, 1 << 18
_libc = ctypes.CDLL(None, use_errno=True)


def _mount(source, target, fstype=None, flags=0, data=None):
    def c(text):
        return None if text is None else str(text).encode()
    if _libc.mount(c(source), c(target), c(fstype), ctypes.c_ulong(flags), c(data)) != 0:
        raise OSError(ctypes.get_errno(), 'mount %s on %s' % (source, target))


def _own_mounts(binds=(), read_only=()):
    # A mount namespace of this process's own (CLONE_NEWNS) with the binds made.
    if _libc.unshare(0x20000) != 0:
        raise OSError(ctypes.get_errno(), 'unshare')
    _mount(None, '/', flags=MS_REC | MS_PRIVATE)
    for source, target in binds:
        _mount(source, target, flags=MS_BIND)
    for target in read_only:
        _mount(target, target, flags=MS_BIND)
        _mount(None, target, flags=MS_REMOUNT | MS_BIND | MS_RDONLY)


def enter_private_namespace():
    # A checkout or build that lives in /tmp stays where it was (pytest has
    # imported from there), bound back from the old /tmp; the build is also
    # bound at /mnt/kelvane-build, where the runs, which get a /tmp of their
    # own, still find the binary.
    _own_mounts()
    top = Path(__file__).resolve().parents[2]
    binary = Path(os.environ.get('KELVANE_BIN') or '/').resolve()
    build = next((p for p in binary.parents if (p / 'CMakeCache.txt').exists()), binary.parent)
    kept = [p for p in (top, build) if p.is_relative_to('/tmp') and p != Path('/tmp')]
    old_tmp = os.open('/tmp', os.O_PATH | os.O_DIRECTORY)
    _mount('kelvane-e2e', '/tmp', 'tmpfs', data='mode=1777')
    for path in kept:
        path.mkdir(parents=True, exist_ok=True)
        _mount('/proc/self/fd/%d/%s' % (old_tmp, path.relative_to('/tmp')), path, flags=MS_BIND)
    if build in kept:
        _mount('kelvane-e2e-build', '/mnt', 'tmpfs', data='mode=755')
        os.mkdir('/mnt/kelvane-build')
        _mount(str(build), '/mnt/kelvane-build', flags=MS_BIND)
        os.environ['KELVANE_BIN'] = str('/mnt/kelvane-build' / binary.relative_to(build))
    os.close(old_tmp)


# Trees are described, and snapshots read back, as {relative path: entry};
# a description may give a file as plain text and "." for the root itself.

@dataclass(frozen=True)
class File:
    content: bytes = b''
    mode: int = 0o644
    uid: int = 0

    def __post_init__(self):
        object.__setattr__(self, 'content', bytes(self.content, 'utf-8')
                           if isinstance(self.content, str) else self.content)


Dir = make_dataclass('Dir', [('mode', int, 0o755), ('uid', int, 0)], frozen=True)
Fifo = make_dataclass('Fifo', [('mode', int, 0o644), ('uid', int, 0)], frozen=True)
Symlink = make_dataclass('Symlink', ['target'], frozen=True)
Hardlink = make_dataclass('Hardlink', ['target'], frozen=True)  # the target as the tool sees it


class Tree(dict):
    mode = None  # of the root itself

    def below(self, directory):
        return {p[len(directory) + 1:]: e for p, e in self.items() if p.startswith(directory + '/')}

    def without(self, *paths):
        return {p: e for p, e in self.items()
                if not any(p == q or p.startswith(q + '/') for q in paths)}


def snapshot(root):
    # Everything below root, hidden entries too; None when root is absent.
    if not os.path.lexists(root):
        return None
    tree = Tree()
    tree.mode = stat.S_IMODE(os.lstat(root).st_mode)
    for top, dirs, files in os.walk(root):
        for path in (Path(top, name) for name in dirs + files):
            st = path.lstat()
            mode, kind = stat.S_IMODE(st.st_mode), stat.S_IFMT(st.st_mode)
            tree[str(path.relative_to(root))] = (
                Symlink(os.readlink(path)) if kind == stat.S_IFLNK else Dir(mode, st.st_uid)
                if kind == stat.S_IFDIR else File(path.read_bytes(), mode, st.st_uid)
                if kind == stat.S_IFREG else Fifo(mode, st.st_uid))
    return tree


def expected(description):
    # A description as its snapshot reads: missing parents are 0755 directories.
    tree = {}
    for path, entry in description.items():
        parts = path.split('/')
        for i in range(1, len(parts)):
            tree.setdefault('/'.join(parts[:i]), Dir())
        tree[path] = File(entry) if isinstance(entry, (str, bytes)) else entry
    tree.pop('.', None)
    return tree


BACKUP = 'config/files/var_bluetooth'  # below /tmp


def with_backup(tree):
    # A description of /tmp holding tree as the backup.
    return {'config': Dir(), 'config/files': Dir(), BACKUP: Dir(0o700),
            **{BACKUP + '/' + p: e for p, e in tree.items()}}


class Box:
    # What runs see as /tmp (tmp), /var/lib (var_lib, holding the store as
    # store) and /run; tmp_size, var_lib_size: a tmpfs of that size of its own;
    # store_from: a directory elsewhere (a simulator's store) that is the store.
    def __init__(self, tmp=None, store=None, tmp_size=None, var_lib_size=None, store_from=None):
        self.base = Path(tempfile.mkdtemp(prefix='box-', dir='/tmp'))
        self.base.chmod(0o755)  # so that nobody, too, reaches the tmp inside
        self.tmp, self.var_lib, self.run = (self.base / n for n in ('tmp', 'var_lib', 'run'))
        self.store = self.var_lib / 'bluetooth'
        for where, mode, size in ((self.tmp, 0o1777, tmp_size), (self.var_lib, 0o755, var_lib_size),
                                  (self.run, 0o755, None)):
            where.mkdir(mode)
            if size:
                _mount('kelvane-small', where, 'tmpfs', data='mode=%o,size=%s' % (mode, size))
        self.plant(self.tmp, tmp or {}, 0o1777)
        if store_from:
            self.store.mkdir()
            self.store = Path(store_from)
        elif store != NO_STORE:
            self.plant(self.store, store or {}, 0o700)

    def host(self, seen):
        # The path here of a path as the tool sees it.
        for inside, outside in (('/tmp', self.tmp), ('/var/lib', self.var_lib)):
            if seen.startswith(inside + '/'):
                return outside / seen[len(inside) + 1:]
        raise ValueError(seen)

    def plant(self, root, description, root_mode):
        # Modes last, deepest first, so that a read-only directory can be filled.
        modes = []
        for rel, entry in sorted({'.': Dir(root_mode), **description}.items(), key=lambda i: (
                isinstance(i[1], Hardlink), i[0] != '.', i[0].count('/'))):
            entry = File(entry) if isinstance(entry, (str, bytes)) else entry
            path = root / rel
            path.parent.mkdir(parents=True, exist_ok=True)
            if isinstance(entry, Symlink):
                os.symlink(entry.target, path)
            elif isinstance(entry, Hardlink):
                os.link(self.host(entry.target), path)
            elif isinstance(entry, Dir):
                path.mkdir(exist_ok=True)
            elif isinstance(entry, Fifo):
                os.mkfifo(path)
            else:
                path.write_bytes(entry.content)
            if hasattr(entry, 'mode'):
                os.lchown(path, entry.uid, entry.uid)
                modes.append((path, entry.mode))
        for path, mode in sorted(modes, key=lambda m: -len(m[0].parts)):
            path.chmod(mode)


def dead_bus_address():
    # Nobody listens there: a run without a bus never reaches the machine's own.
    return 'unix:abstract=kelvane-no-bus-' + secrets.token_hex(8)


class Run:
    # One run: argv, status, stdout and stderr (text; *_bytes raw), json (the
    # result line parsed, when one was expected), seconds, and its box, whose
    # trees tmp and store snapshot as they are now.
    tmp = property(lambda self: snapshot(self.box.tmp))
    store = property(lambda self: snapshot(self.box.store))

    def events(self):
        # The pairing event file, checked against the schema (None when absent).
        path = self.box.tmp / 'kelvane-events.json'
        return contract.validate_events(path.read_bytes()) if path.is_file() else None

    def __repr__(self):
        return 'Run(%r, status %r, %.1fs)\n--- stdout ---\n%s\n--- stderr ---\n%s' % (
            self.argv, self.status, self.seconds, self.stdout, self.stderr)


def start(args, *, binary, box, bus_address=None, root=True, env=None, argv0=None,
          readonly=(), umask=None, store_mount=False, bind=(), broken=()):
    # Starts `binary args` seeing the box, as root or as nobody (uid/gid 65534,
    # no groups). readonly: "tmp", "store" mounted read-only. store_mount:
    # /var/lib/bluetooth a mount point of its own; bind: more such paths (as
    # the tool sees them). broken: "stdout", "stderr" are pipes nobody reads.
    environment = {'PATH': '/usr/sbin:/usr/bin:/sbin:/bin', 'LANG': 'C.UTF-8',
                   'HOME': '/root' if root else '/nonexistent',
                   'DBUS_SYSTEM_BUS_ADDRESS': bus_address or dead_bus_address(), **(env or {})}
    outputs = {}
    for name in ('stdout', 'stderr'):
        if name in broken:
            read_end, outputs[name] = os.pipe()
            os.close(read_end)
        else:
            outputs[name] = open(box.base / ('%s.%d' % (name, time.monotonic_ns())), 'w+b')
    # /tmp last: the box (and maybe the store) lives below it.
    binds = [(box.var_lib, '/var/lib')] + [(box.store, '/var/lib/bluetooth')] * (
        box.store.parent != box.var_lib) + [(box.run, '/run'), (box.tmp, '/tmp')] + [
        (path, path) for path in ['/var/lib/bluetooth'] * store_mount + list(bind)]
    read_only = [{'tmp': '/tmp', 'store': '/var/lib/bluetooth'}[w] for w in readonly]

    def enter():  # in the child, before exec
        _own_mounts(binds, read_only)
        if umask is not None:
            os.umask(umask)
        if not root:
            os.setgroups([])
            os.setresgid(NOBODY, NOBODY, NOBODY)
            os.setresuid(NOBODY, NOBODY, NOBODY)

    process = subprocess.Popen([argv0 or binary] + list(args), executable=binary, cwd='/',
                               env=environment, stdin=subprocess.DEVNULL, preexec_fn=enter,
                               start_new_session=True, **outputs)
    for stream in outputs.values():
        if isinstance(stream, int):
            os.close(stream)
    process.run = run = Run()
    run.argv, run.box, run.outputs, run.started = process.args, box, outputs, time.monotonic()
    return process


def finish_all(processes, timeout=60, expect_json=True):
    # The Runs of processes of start(), killed (and failing) after `timeout`
    # seconds. With expect_json, stdout must be one result line that keeps to
    # the contract; run.json holds it parsed.
    pending, deadline = list(processes), time.monotonic() + timeout
    while pending:
        for process in [p for p in pending if p.poll() is not None or time.monotonic() > deadline]:
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGKILL)
                process.wait()
            process.run.seconds = time.monotonic() - process.run.started
            pending.remove(process)
        time.sleep(0.01)
    runs = [process.run for process in processes]
    for process, run in zip(processes, runs):
        run.status = process.returncode
        for name, stream in run.outputs.items():
            captured = b''
            if not isinstance(stream, int):
                with stream:
                    stream.seek(0)
                    captured = stream.read()
            setattr(run, name + '_bytes', captured)
            setattr(run, name, captured.decode('utf-8', 'replace'))
        assert run.seconds < timeout, 'kelvane did not finish within %ss\n%r' % (timeout, run)
        try:
            run.json = contract.validate_result(run.stdout_bytes) if expect_json else None
        except (AssertionError, ValueError) as error:
            raise AssertionError('%s\n%r' % (error, run)) from None
    return runs


def finish(process, timeout=60, expect_json=True):
    return finish_all([process], timeout, expect_json)[0]


def run_kelvane(args, *, binary, store=None, tmp=None, box=None, tmp_size=None,
                var_lib_size=None, timeout=60, expect_json=True, **options):
    # One run in the given box, or in a fresh one made from the descriptions.
    box = box or Box(tmp, store, tmp_size, var_lib_size)
    return finish(start(args, binary=binary, box=box, **options), timeout, expect_json)
