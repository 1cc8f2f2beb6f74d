'''Running the real kelvane binary for end-to-end tests.

run_kelvane() starts nsrun.py under `unshare --mount --propagation private`:
the tool sees a fresh tmpfs at /tmp and /var/lib, a /var/lib/bluetooth built
from the test's description (or none at all), the private bus as its system
bus, and optionally an unprivileged user. What it prints and the files it
leaves come back as a Run.
'''

import base64
import json
import os
import secrets
import subprocess
from dataclasses import dataclass
from pathlib import Path

import contract

HERE = Path(__file__).resolve().parent
NSRUN = HERE / 'nsrun.py'
PYTHON = '/usr/bin/python3'
NOBODY = 65534


@dataclass(frozen=True)
class File:
    content: bytes = b''
    mode: int = 0o644
    uid: int = 0
    gid: int = 0

    def __post_init__(self):
        if isinstance(self.content, str):
            object.__setattr__(self, 'content', self.content.encode())

    @property
    def text(self):
        return self.content.decode()


@dataclass(frozen=True)
class Dir:
    mode: int = 0o755
    uid: int = 0
    gid: int = 0


@dataclass(frozen=True)
class Symlink:
    target: str


@dataclass(frozen=True)
class Hardlink:
    target: str  # an absolute path, made before the link


@dataclass(frozen=True)
class Fifo:
    mode: int = 0o644
    uid: int = 0
    gid: int = 0


class _Absent:
    def __repr__(self):
        return 'NO_STORE'


# store=NO_STORE: /var/lib/bluetooth does not exist at all.
NO_STORE = _Absent()


class Tree(dict):
    '''A directory as {relative path: File | Dir | Symlink}, every level
    listed; `mode` is the mode of the directory itself.'''

    def __init__(self, entries=(), mode=None):
        super().__init__(entries)
        self.mode = mode

    def files(self):
        '''{path: bytes} of the regular files.'''
        return {p: e.content for p, e in self.items() if isinstance(e, File)}

    def text(self, path):
        return self[path].text

    def json(self, path):
        return json.loads(self[path].content)

    def without(self, *paths):
        '''The tree with these entries (and what is below them) left out.'''
        return {p: e for p, e in self.items()
                if not any(p == q or p.startswith(q + '/') for q in paths)}

    def below(self, directory):
        '''The entries below a directory, relative to it.'''
        return {p[len(directory) + 1:]: e for p, e in self.items()
                if p.startswith(directory + '/')}


def _describe(tree, root_mode):
    '''Test description -> request entries. Values: File, Dir, Symlink, or
    str/bytes (a file with mode 0644). "." describes the root itself.'''
    entries = {'.': {'type': 'dir', 'mode': root_mode}}
    for rel, value in (tree or {}).items():
        if rel.startswith('/') or '..' in rel.split('/'):
            raise ValueError('paths in a tree description are relative: %r' % rel)
        if isinstance(value, (str, bytes)):
            value = File(value)
        if isinstance(value, File):
            entries[rel] = {'type': 'file', 'content': base64.b64encode(value.content).decode(),
                            'mode': value.mode, 'uid': value.uid, 'gid': value.gid}
        elif isinstance(value, Dir):
            entries[rel] = {'type': 'dir', 'mode': value.mode, 'uid': value.uid, 'gid': value.gid}
        elif isinstance(value, Symlink):
            entries[rel] = {'type': 'symlink', 'target': value.target}
        elif isinstance(value, Hardlink):
            entries[rel] = {'type': 'hardlink', 'target': value.target}
        elif isinstance(value, Fifo):
            entries[rel] = {'type': 'fifo', 'mode': value.mode, 'uid': value.uid,
                            'gid': value.gid}
        else:
            raise TypeError('cannot describe %r' % (value,))
    return entries


def _tree(report):
    if report is None:
        return None
    entries = {}
    for rel, e in report['entries'].items():
        if e['type'] == 'file':
            entries[rel] = File(base64.b64decode(e['content']), e['mode'], e['uid'], e['gid'])
        elif e['type'] == 'dir':
            entries[rel] = Dir(e['mode'], e['uid'], e['gid'])
        elif e['type'] == 'symlink':
            entries[rel] = Symlink(e['target'])
        else:
            entries[rel] = e
    return Tree(entries, report['mode'])


class Run:
    '''One run of the tool: argv, status, stdout, stderr (text; *_bytes raw),
    json (the parsed result line when it was expected), tmp and store (Tree
    snapshots of /tmp and /var/lib/bluetooth after the run; store is None
    when the directory does not exist), seconds.'''

    def __init__(self, argv, report):
        self.argv = argv
        self.status = report['status']
        self.timed_out = report['timed_out']
        self.seconds = report['seconds']
        self.stdout_bytes = base64.b64decode(report['stdout'])
        self.stderr_bytes = base64.b64decode(report['stderr'])
        self.stdout = self.stdout_bytes.decode('utf-8', 'replace')
        self.stderr = self.stderr_bytes.decode('utf-8', 'replace')
        self.tmp = _tree(report['tmp'])
        self.store = _tree(report['store'])
        # What was there just before the tool started (with snapshot_before).
        self.tmp_before = _tree(report['before'].get('tmp'))
        self.store_before = _tree(report['before'].get('store'))
        self.json = None

    def events(self):
        '''The pairing event file, parsed (None when absent).'''
        if 'kelvane-events.json' not in self.tmp:
            return None
        return contract.validate_events(self.tmp['kelvane-events.json'].content)

    def __repr__(self):
        return ('Run(argv=%r, status=%r, %.1fs)\n--- stdout ---\n%s\n--- stderr ---\n%s'
                % (self.argv, self.status, self.seconds, self.stdout, self.stderr))


def dead_bus_address():
    '''A bus address nobody listens on: a run without a bus must never reach
    the machine's own system bus.'''
    return 'unix:abstract=kelvane-no-bus-' + secrets.token_hex(8)


def _environment(root, bus_address, env):
    environment = {
        'PATH': '/usr/sbin:/usr/bin:/sbin:/bin', 'LANG': 'C.UTF-8',
        'HOME': '/root' if root else '/nonexistent',
        'DBUS_SYSTEM_BUS_ADDRESS': bus_address or dead_bus_address(),
    }
    for key, value in (env or {}).items():
        if value is None:
            environment.pop(key, None)
        else:
            environment[key] = value
    return environment


def _in_namespace(request, timeout):
    if os.geteuid() != 0:
        import pytest  # pylint: disable=import-outside-toplevel
        pytest.skip('the end-to-end harness needs root for its mount namespace')
    completed = subprocess.run(
        ['unshare', '--mount', '--propagation', 'private', PYTHON, str(NSRUN)],
        input=json.dumps(request).encode(), capture_output=True, timeout=timeout + 30,
        check=False)
    if completed.returncode != 0:
        raise RuntimeError('the namespace runner failed (%d):\n%s'
                           % (completed.returncode, completed.stderr.decode(errors='replace')))
    return json.loads(completed.stdout)


def _request(*, binary, bus_address, root, store, tmp, env, timeout, readonly, umask, tmp_size,
             var_lib_size, store_mount, bind, store_from=None):
    return {
        'binary': str(binary), 'env': _environment(root, bus_address, env), 'timeout': timeout,
        'uid': None if root else NOBODY, 'gid': None if root else NOBODY, 'umask': umask,
        'tmp': _describe(tmp, 0o1777),
        'store': None if store is NO_STORE or store_from else _describe(store, 0o700),
        'store_from': str(store_from) if store_from else None,
        'readonly': list(readonly), 'tmp_size': tmp_size, 'var_lib_size': var_lib_size,
        'store_mount': store_mount, 'bind': list(bind),
    }


def run_kelvane(args, *, binary, bus_address=None, root=True, store=None, tmp=None,
                env=None, argv0=None, timeout=60, expect_json=True, readonly=(), umask=None,
                tmp_size=None, var_lib_size=None, store_mount=False, bind=(),
                snapshot_before=False, broken=(), store_from=None):
    '''Runs `binary args...` in a private mount namespace and returns a Run.

    root: run as root, else as nobody (uid/gid 65534, no groups).
    store: description of /var/lib/bluetooth ({path: File|Dir|Symlink|Hardlink|Fifo|text},
        "." for the directory itself, default mode 0700), NO_STORE for none.
    tmp: description of /tmp (default: empty, mode 1777).
    env: extra environment (a None value removes a variable).
    argv0: the invocation word (default: the binary's path).
    expect_json: assert one compact JSON line on stdout, parse it and check
        it against the published schema.
    readonly: any of "tmp", "store": mounted read-only for the run.
    umask: the tool's umask. tmp_size, var_lib_size: tmpfs sizes ("64k").
    store_mount: /var/lib/bluetooth is a file system of its own.
    bind: absolute directories bound onto themselves (mount points of their own).
    store_from: a directory of the host bound onto /var/lib/bluetooth (a
        simulator's store): what the run changes there stays, store is ignored.
    snapshot_before: also take run.tmp_before and run.store_before.
    broken: any of "stdout", "stderr": a pipe whose reader has gone (what
        the tool writes there is lost; Run has it as empty).
    Every run has a timeout; running out of it fails the test.'''
    argv = [argv0 if argv0 is not None else str(binary)] + list(args)
    request = _request(binary=binary, bus_address=bus_address, root=root, store=store, tmp=tmp,
                       env=env, timeout=timeout, readonly=readonly, umask=umask,
                       tmp_size=tmp_size, var_lib_size=var_lib_size, store_mount=store_mount,
                       bind=bind, store_from=store_from)
    request['argv'] = argv
    request['snapshot_before'] = snapshot_before
    request['broken'] = list(broken)
    run = Run(argv, _in_namespace(request, timeout))
    if run.timed_out:
        raise AssertionError('kelvane did not finish within %ss\n%r' % (timeout, run))
    if expect_json:
        try:
            run.json = contract.validate_result(run.stdout_bytes)
        except AssertionError as e:
            raise AssertionError('%s\n%r' % (e, run)) from None
    return run


def run_scenario(name, *, binary, bus_address=None, store=None, tmp=None, timeout=120,
                 store_mount=False, bind=(), snapshot=False, **params):
    '''Plays nsscenarios.<name>(tool, **params) in a private mount namespace
    set up as for run_kelvane; returns its report and, with snapshot, the
    trees left behind as (tmp, store).'''
    request = _request(binary=binary, bus_address=bus_address, root=True, store=store, tmp=tmp,
                       env=None, timeout=timeout, readonly=(), umask=None, tmp_size=None,
                       var_lib_size=None, store_mount=store_mount, bind=bind)
    request['scenario'] = {'name': name, 'params': params}
    request['snapshot'] = snapshot
    report = _in_namespace(request, timeout * 4)
    trees = (_tree(report['tmp']), _tree(report['store'])) if snapshot else None
    return report['scenario'], trees
