'''Runs kelvane once inside a private mount namespace (started by harness.py
through `unshare --mount --propagation private`).

Reads a JSON request on stdin, puts fresh tmpfs over /tmp and /var/lib (the
rest of /var/lib is bound back in, /var/lib/bluetooth is created from the
request or left absent), runs the tool, and writes a JSON report on stdout:
the tool's exit status, stdout, stderr, and what it left in /tmp and
/var/lib/bluetooth. Nothing of the host's /tmp or /var/lib is ever written:
the mounts vanish with the namespace.
'''

import base64
import ctypes
import json
import os
import signal
import stat
import subprocess
import sys
import time

MS_RDONLY = 1
MS_REMOUNT = 32
MS_BIND = 4096
MS_REC = 16384
MNT_DETACH = 2

STORE = '/var/lib/bluetooth'
STAGING = '/tmp/.kelvane-e2e-var-lib'
PRIVATE_DIR = '/var/lib/.kelvane-e2e'

_libc = ctypes.CDLL(None, use_errno=True)


def mount(source, target, fstype=None, flags=0, data=None):
    def c(text):
        return text.encode() if text is not None else None
    if _libc.mount(c(source), c(target), c(fstype), ctypes.c_ulong(flags), c(data)) != 0:
        err = ctypes.get_errno()
        raise OSError(err, 'mount %s on %s: %s' % (source, target, os.strerror(err)))


def umount(target):
    if _libc.umount2(target.encode(), MNT_DETACH) != 0:
        err = ctypes.get_errno()
        raise OSError(err, 'umount %s: %s' % (target, os.strerror(err)))


def tmpfs_options(mode, size):
    return 'mode=%s' % mode + (',size=%s' % size if size else '')


def overlay_var_lib(size=None):
    '''A tmpfs over /var/lib that still shows everything of the host's
    /var/lib except bluetooth, each entry bound back from a staging bind.'''
    os.mkdir(STAGING)
    mount('/var/lib', STAGING, flags=MS_BIND)
    mount('kelvane-var-lib', '/var/lib', 'tmpfs', data=tmpfs_options('0755', size))
    for entry in os.scandir(STAGING):
        if entry.name == 'bluetooth':
            continue
        target = os.path.join('/var/lib', entry.name)
        if entry.is_symlink():
            os.symlink(os.readlink(entry.path), target)
            continue
        if entry.is_dir():
            os.mkdir(target)
        else:
            open(target, 'w').close()
        mount(entry.path, target, flags=MS_BIND | MS_REC)
    umount(STAGING)
    os.rmdir(STAGING)


def stage_binary(fd, name):
    '''The tool's binary may live below /tmp or /var/lib (a build directory
    there): bind the file opened before the tmpfs went up into a private
    directory of the new /var/lib.'''
    os.makedirs(PRIVATE_DIR, exist_ok=True)
    target = os.path.join(PRIVATE_DIR, name)
    open(target, 'w').close()
    mount('/proc/self/fd/%d' % fd, target, flags=MS_BIND)
    return target


def populate(root, entries):
    '''Creates the described tree under root: entries map relative paths
    ("." for root itself) to {type: file|dir|symlink, content (base64),
    target, mode, uid, gid}. Modes are applied last, deepest first.'''
    modes = []
    def depth(item):
        # Hard links last: what they link to must exist first.
        return (item[1]['type'] == 'hardlink', item[0] != '.', item[0].count('/'))

    for rel, entry in sorted(entries.items(), key=depth):
        path = root if rel == '.' else os.path.join(root, rel)
        os.makedirs(os.path.dirname(path) if rel != '.' else root, exist_ok=True)
        kind = entry['type']
        if kind == 'dir':
            os.makedirs(path, exist_ok=True)
        elif kind == 'symlink':
            os.symlink(entry['target'], path)
            continue
        elif kind == 'hardlink':
            os.link(entry['target'], path)
            continue
        elif kind == 'fifo':
            os.mkfifo(path)
        else:
            with open(path, 'wb') as out:
                out.write(base64.b64decode(entry['content']))
        os.lchown(path, entry.get('uid', 0), entry.get('gid', 0))
        modes.append((path, entry['mode']))
    for path, mode in sorted(modes, key=lambda item: -item[0].count('/')):
        os.chmod(path, mode)


def snapshot(root):
    '''Everything under root as {relative path: entry}, plus root's mode.'''
    if not os.path.lexists(root):
        return None
    tree = {}
    for dirpath, dirnames, filenames in os.walk(root):
        for name in sorted(dirnames + filenames):
            path = os.path.join(dirpath, name)
            rel = os.path.relpath(path, root)
            info = os.lstat(path)
            entry = {'mode': stat.S_IMODE(info.st_mode), 'uid': info.st_uid, 'gid': info.st_gid}
            if stat.S_ISLNK(info.st_mode):
                entry.update(type='symlink', target=os.readlink(path))
            elif stat.S_ISDIR(info.st_mode):
                entry.update(type='dir')
            elif stat.S_ISREG(info.st_mode):
                with open(path, 'rb') as f:
                    entry.update(type='file', content=base64.b64encode(f.read()).decode())
            else:
                entry.update(type='other')
            tree[rel] = entry
    info = os.lstat(root)
    return {'mode': stat.S_IMODE(info.st_mode), 'entries': tree}


def start_tool(argv, binary, env, uid=None, gid=None, umask=None, broken=()):
    '''Starts the tool (or any program) as uid/gid, with no groups, or as root.'''
    def prepare():
        # What `setpriv --reuid --regid --clear-groups` does, done here so
        # argv[0] can be any word.
        if umask is not None:
            os.umask(umask)
        if uid is not None:
            os.setgroups([])
            os.setresgid(gid, gid, gid)
            os.setresuid(uid, uid, uid)

    # A stream listed in "broken" is a pipe whose reader has already gone.
    streams = {}
    for name in ('stdout', 'stderr'):
        if name in broken:
            read_end, streams[name] = os.pipe()
            os.close(read_end)
        else:
            streams[name] = subprocess.PIPE
    process = subprocess.Popen(
        argv, executable=binary, env=env, cwd='/',
        stdin=subprocess.DEVNULL, stdout=streams['stdout'], stderr=streams['stderr'],
        preexec_fn=prepare, start_new_session=True)
    for stream in streams.values():
        if stream is not subprocess.PIPE:
            os.close(stream)
    process.started = time.monotonic()
    return process


def finish_tool(process, timeout):
    '''Waits for a process of start_tool; its report.'''
    timed_out = False
    try:
        stdout, stderr = process.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        timed_out = True
        os.killpg(process.pid, signal.SIGKILL)
        stdout, stderr = process.communicate()
    return {
        'status': process.returncode, 'timed_out': timed_out,
        'seconds': round(time.monotonic() - process.started, 3),
        'stdout': base64.b64encode(stdout or b'').decode(),
        'stderr': base64.b64encode(stderr or b'').decode(),
    }


def run_tool(request, binary):
    process = start_tool(request['argv'], binary, request['env'], request.get('uid'),
                         request.get('gid'), request.get('umask'), request.get('broken', ()))
    return finish_tool(process, request['timeout'])


def main():
    request = json.load(sys.stdin)
    binary = request['binary']
    binary_fd = os.open(binary, os.O_RDONLY)
    # Opened before /tmp is covered: the directory may well live there.
    store_from = os.open(request['store_from'], os.O_RDONLY | os.O_DIRECTORY) \
        if request.get('store_from') else -1
    mount('kelvane-tmp', '/tmp', 'tmpfs', data=tmpfs_options('1777', request.get('tmp_size')))
    # The tool's lock file lives in /run: a private one per run.
    mount('kelvane-run', '/run', 'tmpfs', data='mode=0755')
    overlay_var_lib(request.get('var_lib_size'))
    if os.path.realpath(binary).startswith(('/tmp/', '/var/lib/')):
        binary = stage_binary(binary_fd, os.path.basename(binary))
    os.close(binary_fd)
    if request.get('store_mount'):
        # The store as a file system of its own, as on hosts that keep it on
        # persistent storage: it cannot be renamed as a whole.
        os.mkdir(STORE)
        mount('kelvane-store', STORE, 'tmpfs', data='mode=0700')
    if store_from >= 0:
        # A directory of the host (a simulator's store, say) is the store.
        os.mkdir(STORE)
        mount('/proc/self/fd/%d' % store_from, STORE, flags=MS_BIND)
        os.close(store_from)
    populate('/tmp', request['tmp'])
    if request['store'] is not None:
        populate(STORE, request['store'])
    for target in request.get('bind', []):
        # A directory of /tmp bound onto itself is a mount point of its own.
        mount(target, target, flags=MS_BIND)
    for where in request.get('readonly', []):
        path = {'tmp': '/tmp', 'store': STORE}[where]
        mount(path, path, flags=MS_BIND)
        mount(None, path, flags=MS_REMOUNT | MS_BIND | MS_RDONLY)
    before = {'tmp': snapshot('/tmp'), 'store': snapshot(STORE)} \
        if request.get('snapshot_before') else {}
    if request.get('scenario'):
        import nsscenarios  # pylint: disable=import-outside-toplevel
        scenario = request['scenario']
        report = {'scenario': getattr(nsscenarios, scenario['name'])(
            nsscenarios.Tool(binary, request['env'], request['timeout']), **scenario['params'])}
    else:
        report = run_tool(request, binary)
    if not request.get('scenario') or request.get('snapshot'):
        report['tmp'] = snapshot('/tmp')
        report['store'] = snapshot(STORE)
    report['before'] = before
    json.dump(report, sys.stdout)


if __name__ == '__main__':
    main()
