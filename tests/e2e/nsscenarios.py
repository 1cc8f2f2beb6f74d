'''Scenarios that nsrun.py plays inside the mount namespace: runs of the tool
at once, a hostile user racing it, runs killed part way. Each returns a
JSON-able report for the test to judge; the trees involved are built and
compared here, so nothing large crosses the pipe.'''

import contextlib
import hashlib
import os
import random
import shutil
import signal
import stat
import time

import nsrun

NOBODY = 65534
STORE = '/var/lib/bluetooth'
CONFIG = '/tmp/config'
BACKUP = '/tmp/config/files/var_bluetooth'
EVENTS = '/tmp/kelvane-events.json'
VICTIM = '/tmp/victim'


class Tool:
    '''Starts the binary under test with the run's environment.'''

    def __init__(self, binary, env, timeout):
        self.binary, self.env, self.timeout = binary, env, timeout

    def start(self, args, uid=None, umask=None):
        gid = None if uid is None else uid
        return nsrun.start_tool([self.binary] + list(args), self.binary, self.env, uid, gid,
                                umask)

    def finish(self, process):
        report = nsrun.finish_tool(process, self.timeout)
        for stream in ('stdout', 'stderr'):
            report[stream] = nsrun.base64.b64decode(report[stream]).decode(errors='replace')
        return report

    def run(self, args, **options):
        return self.finish(self.start(args, **options))


# -- trees ------------------------------------------------------------------

def device_spec(count, variant, adapters=('00:1A:7D:DA:71:13', '5C:F3:70:0B:1E:42'),
                without=()):
    '''A BlueZ-like store as {relative path: content or None for a directory}:
    `count` devices spread over the adapters, each with info and attributes.'''
    spec = {}
    for adapter in adapters:
        spec[adapter] = None
        spec[adapter + '/settings'] = '[General]\nAlias=%s\n' % variant
    for i in range(count):
        address = '%02X:00:00:00:%02X:%02X' % (0xAA, i >> 8, i & 0xFF)
        if address in without:
            continue
        base = adapters[i % len(adapters)] + '/' + address
        spec[base] = None
        spec[base + '/info'] = ('[General]\nName=%s device %d\nTrusted=true\n\n[LinkKey]\n'
                                'Key=%032X\nType=4\nPINLength=0\n' % (variant, i, i))
        spec[base + '/attributes'] = '[0x0001]\nUUID=00002800-0000-1000-8000-00805f9b34fb\n'
    return spec


def make_tree(root, spec, mode=0o700):
    '''Replaces root's visible entries with the spec (hidden ones stay).'''
    os.makedirs(root, exist_ok=True)
    for name in os.listdir(root):
        if not name.startswith('.'):
            path = os.path.join(root, name)
            shutil.rmtree(path) if os.path.isdir(path) and not os.path.islink(path) \
                else os.unlink(path)
    for rel in sorted(spec):
        path = os.path.join(root, rel)
        if spec[rel] is None:
            os.mkdir(path, 0o700)
        else:
            with open(path, 'w') as out:
                out.write(spec[rel])
            os.chmod(path, 0o600)
    os.chmod(root, mode)


def digest_spec(spec):
    h = hashlib.sha256()
    for rel in sorted(spec):
        h.update(('%s\0%s\0' % (rel, 'dir' if spec[rel] is None else spec[rel])).encode())
    return h.hexdigest()


def digest_tree(root):
    '''The digest of a tree's visible entries, comparable with digest_spec.'''
    spec = {}
    if not os.path.isdir(root):
        return None
    for dirpath, dirnames, filenames in os.walk(root):
        dirnames[:] = [d for d in dirnames if not d.startswith('.')]
        if dirpath != root and os.path.basename(dirpath).startswith('.'):
            continue
        for name in dirnames + [f for f in filenames if not f.startswith('.')]:
            path = os.path.join(dirpath, name)
            rel = os.path.relpath(path, root)
            if os.path.isdir(path):
                spec[rel] = None
            else:
                with open(path) as f:
                    spec[rel] = f.read()
    return digest_spec(spec)


def leftovers():
    '''What the tool's work in progress may leave, wherever it could be.'''
    found = []
    for where in ('/var/lib', STORE, '/tmp', '/tmp/config/files', BACKUP):
        if os.path.isdir(where) and not os.path.islink(where):
            found += [os.path.join(where, n) for n in os.listdir(where) if 'kelvane-' in n
                      and not n.startswith('kelvane-events')]
    return sorted(found)


def classify(root, versions):
    actual = digest_tree(root)
    return next((name for name, digest in versions.items() if digest == actual), 'mix')


# -- scenarios --------------------------------------------------------------

def concurrent(tool, runs):
    '''Starts every run (after its delay), then waits for all of them.'''
    started = []
    begin = time.monotonic()
    for run in runs:
        time.sleep(max(0.0, begin + run.get('delay', 0) - time.monotonic()))
        started.append(tool.start(run['args']))
    return [tool.finish(process) for process in started]


def killed(tool, args, operation, count, fractions, after):
    '''Runs `args` on a store of `count` devices, SIGKILLs it at each fraction
    of its undisturbed duration, and reports which version the replaced tree
    holds right after the kill and after the next run (`after`), and what was
    left lying around.'''
    old_spec = device_spec(count, 'old')
    if operation == 'restore':
        # -r replaces the store (old) with the backup (new).
        target, new_spec = STORE, device_spec(count, 'new')

        def reset():
            make_tree(STORE, old_spec)
            make_tree(BACKUP, new_spec)
    else:
        # -f of the first device: it goes from the store, whose copy then
        # replaces the backup (old).
        target = BACKUP
        gone = '%02X:00:00:00:00:00' % 0xAA
        current = device_spec(count, 'current')
        new_spec = device_spec(count, 'current', without=(gone,))

        def reset():
            make_tree(STORE, current)
            make_tree(BACKUP, old_spec)
    versions = {'old': digest_spec(old_spec), 'new': digest_spec(new_spec)}
    os.makedirs(BACKUP, exist_ok=True)
    for path in ('/tmp/config', '/tmp/config/files'):
        os.chmod(path, 0o755)
    reset()
    undisturbed = tool.run(args)
    assert undisturbed['status'] == 0, undisturbed
    assert classify(target, versions) == 'new'
    points = []

    def kill_at(fraction):
        reset()
        process = tool.start(args)
        time.sleep(undisturbed['seconds'] * fraction)
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()
        killed_state = classify(target, versions)
        left = bool(leftovers())
        tool.run(after)
        points.append({'fraction': fraction, 'killed': killed_state, 'left': left,
                       'after': classify(target, versions), 'leftovers': leftovers()})

    for fraction in fractions:
        kill_at(fraction)
    # On a busy machine a run may take longer or shorter than the undisturbed
    # one did: reach further until kills have fallen on both sides of the swap.
    for fraction in (1.6, 2.4, 4.0, 0.05, 0.02, 0.0):
        outcomes = {p['after'] for p in points}
        if {'old', 'new'} <= outcomes:
            break
        if (fraction > 1) == ('new' not in outcomes):
            kill_at(fraction)
    return {'seconds': undisturbed['seconds'], 'points': points}


def _attack(stop_at, victim_file, pause):
    '''As nobody: plant our own directories and links wherever the tool's
    paths are missing, at random moments so that either side wins at times.'''
    planted = 0
    while time.monotonic() < stop_at:
        time.sleep(random.uniform(0, pause))
        for step in (lambda: os.mkdir(CONFIG, 0o777),
                     lambda: os.mkdir(CONFIG + '/files', 0o777),
                     lambda: os.symlink(VICTIM, BACKUP),
                     lambda: os.symlink(victim_file, EVENTS)):
            try:
                step()
                planted += 1
            except OSError:
                pass
    return planted


def _fork_as_nobody(function, *args):
    pid = os.fork()
    if pid == 0:
        try:
            os.setgroups([])
            os.setresgid(NOBODY, NOBODY, NOBODY)
            os.setresuid(NOBODY, NOBODY, NOBODY)
            function(*args)
        finally:
            os._exit(0)
    return pid


def _clear_config():
    '''Root's tmp cleaner: whatever is there, whoever made it (the attacker
    may be filling it again meanwhile).'''
    for path in (CONFIG, EVENTS):
        for _ in range(100):
            with contextlib.suppress(OSError):
                if os.path.isdir(path) and not os.path.islink(path):
                    shutil.rmtree(path)
                elif os.path.lexists(path):
                    os.unlink(path)
                break


def _legit_backup(spec):
    '''Root builds a backup the careful way; an attacker may have won a piece.'''
    try:
        for path in (CONFIG, CONFIG + '/files', BACKUP):
            os.mkdir(path, 0o700)
        make_tree(BACKUP, spec)
        return True
    except OSError:
        return False


def raced(tool, args, rounds, pause):
    '''Runs `args` `rounds` times while nobody plants links and directories in
    /tmp; before each round root clears /tmp/config (and, for -r, builds a
    legitimate backup when it wins the race). Both sides wait up to `pause`
    seconds at random, so that each wins at times. Reports whether anything
    outside the store and backup changed.'''
    os.makedirs(VICTIM, exist_ok=True)
    victim_file = VICTIM + '/precious'
    with open(victim_file, 'w') as out:
        out.write('precious\n')
    os.chmod(VICTIM, 0o755)
    victim_before = digest_tree(VICTIM)
    store_spec, backup_spec = device_spec(4, 'store'), device_spec(4, 'backup')
    make_tree(STORE, store_spec)
    allowed = {digest_spec(store_spec), digest_spec(backup_spec)}
    pid = _fork_as_nobody(_attack, time.monotonic() + 600, victim_file, pause)
    outcomes = {'saved': 0, 'refused': 0, 'legit': 0, 'store_ok': True, 'statuses': []}
    try:
        for _ in range(rounds):
            _clear_config()
            time.sleep(random.uniform(0, pause))
            if '-r' in args and _legit_backup(backup_spec):
                outcomes['legit'] += 1
            report = tool.run(args)
            outcomes['statuses'].append(report['status'])
            if 'failed to save' in report['stderr'] or 'untrusted' in report['stdout']:
                outcomes['refused'] += 1
                outcomes.setdefault('why', set()).add(
                    [line for line in (report['stderr'] + report['stdout']).splitlines()
                     if 'failed to save' in line or 'untrusted' in line][0])
            elif os.path.isdir(BACKUP) and not os.path.islink(BACKUP) \
                    and os.lstat(BACKUP).st_uid == 0 and '-r' not in args:
                outcomes['saved'] += 1
            outcomes['store_ok'] &= digest_tree(STORE) in allowed
            if '-r' in args:
                make_tree(STORE, store_spec)
    finally:
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
    outcomes['victim_intact'] = digest_tree(VICTIM) == victim_before and \
        stat.S_ISREG(os.lstat(victim_file).st_mode)
    outcomes['statuses'] = sorted(set(outcomes['statuses']))
    outcomes['why'] = sorted(outcomes.get('why', ()))
    return outcomes
