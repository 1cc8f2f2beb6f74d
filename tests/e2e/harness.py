# Running the real kelvane binary for the end-to-end suites.
#
# conftest.py moves the whole test process into a mount namespace of its own
# with a fresh tmpfs on /tmp, so nothing here ever reaches the host's /tmp or
# /var/lib. Every run gets a Box there: the simulator's sandbox (three
# directories that the run sees as /tmp, /var/lib and /run) with the trees a
# test describes. Tests read them afterwards with plain file operations; runs
# that share a box see the same files.

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
from kelvane_sim.sandbox import MS_BIND, Sandbox, mount, own_mounts

NOBODY = 65534
NO_STORE = 'no store'  # store=NO_STORE: /var/lib/bluetooth does not exist


def enter_private_namespace():
    # A checkout or build that lives in /tmp stays where it was (pytest has
    # imported from there), bound back from the old /tmp; the build is also
    # bound at /mnt, where the runs, which get a /tmp of their own, still find
    # the binary.
    own_mounts()
    top = Path(__file__).resolve().parents[2]
    binary = Path(os.environ.get('KELVANE_BIN') or '/').resolve()
    build = next((p for p in binary.parents if (p / 'CMakeCache.txt').exists()), binary.parent)
    kept = [p for p in (top, build) if p.is_relative_to('/tmp') and p != Path('/tmp')]
    old_tmp = os.open('/tmp', os.O_PATH | os.O_DIRECTORY)
    mount('kelvane-e2e', '/tmp', 'tmpfs', data='mode=1777')
    for path in kept:
        path.mkdir(parents=True, exist_ok=True)
        mount('/proc/self/fd/%d/%s' % (old_tmp, path.relative_to('/tmp')), path, flags=MS_BIND)
    if build in kept:
        mount(build, '/mnt', flags=MS_BIND)
        os.environ['KELVANE_BIN'] = str('/mnt' / binary.relative_to(build))
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
Hardlink = make_dataclass('Hardlink', ['target'], frozen=True)  # below /tmp, as the tool sees it


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
    for path in Path(root).rglob('*'):  # symbolic links are not followed
        st = path.lstat()
        mode, kind = stat.S_IMODE(st.st_mode), stat.S_IFMT(st.st_mode)
        tree[str(path.relative_to(root))] = (
            Symlink(os.readlink(path)) if kind == stat.S_IFLNK else Dir(mode, st.st_uid)
            if kind == stat.S_IFDIR else File(path.read_bytes(), mode, st.st_uid)
            if kind == stat.S_IFREG else Fifo(mode, st.st_uid))
    return tree


def expected(description):
    # A description as its snapshot reads: missing parents are 0755 directories.
    tree = Tree()
    for path, entry in description.items():
        for parent in list(Path(path).parents)[:-1]:
            tree.setdefault(str(parent), Dir())
        tree[path] = File(entry) if isinstance(entry, (str, bytes)) else entry
    tree.pop('.', None)
    return tree


BACKUP = 'config/files/var_bluetooth'  # below /tmp


def with_backup(tree):
    # A description of /tmp holding tree as the backup.
    return {BACKUP: Dir(0o700), **{BACKUP + '/' + p: e for p, e in tree.items()}}


class Box(Sandbox):
    # A sandbox below the test's /tmp holding the trees described as tmp and
    # store; tmp_size, var_lib_size: a tmpfs of that size of its own;
    # store_from: a directory elsewhere (a simulator's store) that is the store.
    def __init__(self, tmp=None, store=None, tmp_size=None, var_lib_size=None, store_from=None):
        super().__init__(tempfile.mkdtemp(prefix='box-', dir='/tmp'), store_from)
        for where, mode, size in ((self.tmp, 0o1777, tmp_size), (self.var_lib, 0o755, var_lib_size)):
            if size:
                mount('kelvane-small', where, 'tmpfs', data='mode=%o,size=%s' % (mode, size))
        self.plant(self.tmp, tmp or {}, 0o1777)
        if not store_from and store != NO_STORE:
            self.plant(self.store, store or {}, 0o700)

    def plant(self, root, description, root_mode):
        # Parents first, hard links last; modes at the end, deepest first, so
        # that a read-only directory can be filled.
        modes, entries = [], {'.': description.get('.', Dir(root_mode)), **expected(description)}
        for rel, entry in sorted(entries.items(), key=lambda i: (
                isinstance(i[1], Hardlink), i[0] != '.', i[0].count('/'))):
            path = root / rel
            if isinstance(entry, Symlink):
                os.symlink(entry.target, path)
            elif isinstance(entry, Hardlink):
                os.link(self.tmp / Path(entry.target).relative_to('/tmp'), path)
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


class Run:
    # One run: argv, status, stdout and stderr (text), json (the result line
    # parsed, when one was expected), seconds, and its box, whose trees tmp and
    # store snapshot as they are now.
    tmp = property(lambda self: snapshot(self.box.tmp))
    store = property(lambda self: snapshot(self.box.store))

    def events(self):
        # The pairing event file, checked against the schema (None when absent).
        path = self.box.tmp / 'kelvane-events.json'
        return contract.validate_events(path.read_bytes()) if path.is_file() else None

    def __repr__(self):
        return 'Run(%r, status %r, %.1fs)\n--- stdout ---\n%s\n--- stderr ---\n%s' % (
            self.argv, self.status, self.seconds, self.stdout, self.stderr)


def start(args, *, binary, box, bus_address=None, root=True, argv0=None, readonly=(),
          umask=None, store_mount=False, bind=(), broken=()):
    # Starts `binary args` seeing the box, as root or as nobody (uid/gid 65534,
    # no groups). readonly: paths (as the tool sees them) mounted read-only.
    # store_mount: /var/lib/bluetooth a mount point of its own; bind: more such
    # paths. broken: "stdout", "stderr" are pipes nobody reads.
    # Without a bus, the address is one nobody listens on, never the machine's bus.
    nowhere = 'unix:abstract=kelvane-no-bus-' + secrets.token_hex(8)
    environment = {'PATH': '/usr/sbin:/usr/bin:/sbin:/bin', 'LANG': 'C.UTF-8',
                   'HOME': '/root' if root else '/nonexistent',
                   'DBUS_SYSTEM_BUS_ADDRESS': bus_address or nowhere}
    run = Run()
    run.box, run.outputs, streams = box, {}, {}
    for name in ('stdout', 'stderr'):
        run.outputs[name] = box.base / ('%s.%d' % (name, time.monotonic_ns()))
        if name in broken:  # nothing is captured
            read_end, streams[name] = os.pipe()
            os.close(read_end)
        else:
            streams[name] = os.open(run.outputs[name], os.O_WRONLY | os.O_CREAT, 0o600)
    def enter():  # in the child, before exec
        box.enter(readonly, ['/var/lib/bluetooth'] * store_mount + list(bind))
        if umask is not None:
            os.umask(umask)
        if not root:
            os.setgroups([])
            os.setresgid(NOBODY, NOBODY, NOBODY)
            os.setresuid(NOBODY, NOBODY, NOBODY)

    process = subprocess.Popen([argv0 or binary] + list(args), executable=binary, cwd='/',
                               env=environment, stdin=subprocess.DEVNULL, preexec_fn=enter,
                               start_new_session=True, **streams)
    for fd in streams.values():
        os.close(fd)
    process.run = run
    run.argv, run.started = process.args, time.monotonic()
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
            run = process.run
            run.status, run.seconds = process.wait(), time.monotonic() - run.started
            pending.remove(process)
        time.sleep(0.01)
    runs = [process.run for process in processes]
    for run in runs:
        raw = {name: path.read_bytes() if path.exists() else b''
               for name, path in run.outputs.items()}
        run.stdout, run.stderr = (raw[n].decode('utf-8', 'replace') for n in ('stdout', 'stderr'))
        assert run.seconds < timeout, 'kelvane did not finish within %ss\n%r' % (timeout, run)
        try:
            run.json = contract.validate_result(raw['stdout']) if expect_json else None
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
