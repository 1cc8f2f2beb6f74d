# The store, its backup and the event file under attack and faults: entries
# planted in /tmp by another user (under a umask that would leave nothing),
# runs killed part way, a full disk, runs at the same time. Nothing outside
# the store and the backup may ever change, and the store and the backup are
# always one complete version.

import contextlib
import os
import signal
import subprocess
import time
from pathlib import Path

import pytest

import contract
import harness
from harness import BACKUP, NOBODY, Dir, Fifo, File, Hardlink, Symlink, with_backup

MAC = 'AA:BB:CC:DD:EE:FF'
ADAPTER = '00:1A:7D:DA:71:13'
EVENTS = 'kelvane-events.json'
STORE = {ADAPTER: Dir(0o700), ADAPTER + '/' + MAC: Dir(0o700),
         ADAPTER + '/' + MAC + '/info': File('[General]\nName=Keyboard\n', 0o600)}
VICTIM = {'victim': Dir(0o755), 'victim/precious': File('precious\n')}
SAVE_WARNING = 'debug: warning: failed to save bluetooth config: '


@pytest.fixture(scope='module', autouse=True)
def unprotected():
    # The kernel's fs.protected_* guards off where we may: the tool must be safe without them.
    saved = {}
    for name in ('symlinks', 'hardlinks', 'fifos', 'regular'):
        path = Path('/proc/sys/fs/protected_' + name)
        with contextlib.suppress(OSError):
            saved[path] = path.read_text()
            path.write_text('0')
    yield
    for path, value in saved.items():
        with contextlib.suppress(OSError):
            path.write_text(value)


def paired_device(sim):  # -p succeeds at once and saves
    sim.add_adapter('hci0', pairable=True)
    sim.add_device('hci0', MAC, paired=True, trusted=True, connected=True)


def kinds(piece):  # what another user can plant at a piece of the path
    return {'symlink': Symlink('/tmp/victim' + ('/precious' if piece == EVENTS else '')),
            'hard link': Hardlink('/tmp/victim/precious'), 'fifo': Fifo(0o666, NOBODY),
            'foreign file': File('theirs\n', 0o666, NOBODY), 'foreign dir': Dir(0o777, NOBODY)}


PLANTED = [(piece, kind) for piece in ['config', 'config/files', BACKUP, EVENTS]
           for kind in kinds(piece)]


@pytest.mark.parametrize('piece,kind', PLANTED, ids=['%s %s' % p for p in PLANTED])
def test_planted_entries_are_never_used(run_kelvane, sim, piece, kind):
    paired_device(sim)
    parents = {'/'.join(piece.split('/')[:i]): Dir() for i in range(1, piece.count('/') + 1)}
    tmp = {**VICTIM, **parents, piece: kinds(piece)[kind]}
    before = harness.Box(tmp, STORE)
    # Under a umask that would leave nothing: every mode is the tool's own.
    run = run_kelvane(['-v', '-p', MAC], store=STORE, tmp=tmp, umask=0o777)
    assert run.json['result'] == 'ok'
    assert run.store == harness.snapshot(before.store)
    warnings = [line for line in run.stderr.splitlines() if line.startswith(SAVE_WARNING)]
    old = harness.snapshot(before.tmp)
    if piece == EVENTS:
        # Replaced by a file of ours, or (a directory) left alone; the save went on.
        assert (warnings, run.tmp.without(EVENTS, 'config')) == ([], old.without(EVENTS))
        assert run.tmp.below(BACKUP) == run.store
        assert [run.tmp[p].mode for p in ('config', 'config/files', BACKUP)] == [0o755, 0o755,
                                                                                0o700]
        if kind == 'foreign dir':
            assert run.tmp[EVENTS] == old[EVENTS]
        else:
            assert (type(run.tmp[EVENTS]), run.tmp[EVENTS].uid, run.tmp[EVENTS].mode) == (
                File, 0, 0o644)
            assert [e['event'] for e in run.events()] == ['trusted', 'connected']
        return
    assert warnings == [SAVE_WARNING + ('failed to create directory: /tmp/' + BACKUP
                                        if piece == BACKUP else
                                        'failed to create parent directory: /tmp/config/files')]
    assert run.tmp.without(EVENTS) == old.without(EVENTS)
    # The restore reads nothing that is not ours alone; a non-directory of ours
    # (the hard link) is no backup at all.
    run = run_kelvane(['-r'], store=STORE, tmp=tmp, umask=0o777)
    assert run.json['error'] == ('' if kind == 'hard link' else 'untrusted backup path: /tmp/'
                                 + piece)
    assert (run.store, run.tmp) == (harness.expected(STORE), old)


# -- runs killed part way -------------------------------------------------------

def devices(count, variant, without=None):  # a store like BlueZ's
    tree = {ADAPTER: Dir(0o700), ADAPTER + '/settings': File('[General]\n', 0o600)}
    for i in range(count):
        base = '%s/AA:00:00:00:%02X:%02X' % (ADAPTER, i >> 8, i & 0xFF)
        if base.endswith(without or '-'):
            continue
        tree.update({base: Dir(0o700), base + '/attributes': File('[0x0001]\n', 0o600),
                     base + '/info': File('[General]\nName=%s %d\n[LinkKey]\nKey=%032X\n'
                                          % (variant, i, i), 0o600)})
    return tree


def leftovers(box):
    places = [box.var_lib, box.store, box.tmp, box.tmp / 'config/files', box.tmp / BACKUP]
    return sorted(str(p / n) for p in places if p.is_dir() for n in os.listdir(p)
                  if 'kelvane-' in n and not n.startswith('kelvane-events'))


def version(tree, versions):
    seen = {p: e for p, e in (harness.snapshot(tree) or {}).items() if '.kelvane' not in p}
    return next((name for name, v in versions.items() if seen == v), 'mix')


KILLS = {'restore': (['-r'], {}), 'restore into a mounted store': (['-r'], {'store_mount': True}),
         'save': (['-f', 'AA:00:00:00:00:00'], {}),
         'save into a mounted backup': (['-f', 'AA:00:00:00:00:00'], {'bind': ['/tmp/' + BACKUP]})}


@pytest.mark.parametrize('args,options', KILLS.values(), ids=KILLS)
def test_a_killed_copy_leaves_one_complete_version(binary, args, options):
    count = 2000
    restore = args == ['-r']
    # -r replaces the store (old) with the backup (new); -f of the first
    # device takes it from the store, whose copy then replaces the backup (old).
    store = devices(count, 'old' if restore else 'current')
    backup = devices(count, 'new' if restore else 'old')
    versions = {'old': harness.expected(devices(count, 'old')),
                'new': harness.expected(devices(count, 'new') if restore else devices(
                    count, 'current', without='AA:00:00:00:00:00'))}
    template = harness.Box(with_backup(backup), store)

    def target(box):
        return box.store if restore else box.tmp / BACKUP

    def fresh():
        box = harness.Box()
        for part in ('tmp', 'var_lib'):
            subprocess.run(['cp', '-a', '-T', getattr(template, part), getattr(box, part)],
                           check=True)
        return box

    undisturbed = harness.finish(harness.start(args, binary=binary, box=fresh(), **options))
    assert undisturbed.status == 0 and version(target(undisturbed.box), versions) == 'new'
    assert leftovers(undisturbed.box) == []  # the old tree does not stay beside

    def swapped(tree, _):
        info = tree / ADAPTER / 'AA:00:00:00:00:00' / 'info'
        return 'new' in info.read_text() if restore else not info.parent.exists()

    # Kill while the copy is made, right after the swap (and, into a mount
    # point, while its entries move), and at points spread over the
    # undisturbed run's duration.
    triggers = [lambda tree, _: any('kelvane-staging' in name for name in os.listdir(tree.parent))
                or (tree / '.kelvane-staging').exists(), swapped]
    triggers += [lambda tree, _, name=name: (tree / name).exists()
                 for name in ('.kelvane-ready', '.kelvane-retired') if options]
    triggers += [lambda _, elapsed, at=f * undisturbed.seconds: elapsed > at for f in (.3, .6, .9)]
    points = []
    for trigger in triggers:
        box = fresh()
        tree = target(box)
        process = harness.start(args, binary=binary, box=box, **options)
        with contextlib.suppress(OSError):
            while process.poll() is None and not trigger(tree,
                                                         time.monotonic() - process.run.started):
                pass
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
        process.wait()
        killed, left = version(tree, versions), leftovers(box)
        harness.finish(harness.start(['-f', '00:00:00:00:00:01'], binary=binary, box=box,
                                     **options))
        point = {'killed': killed, 'left': left, 'after': version(tree, versions),
                 'leftovers': leftovers(box)}
        points.append(point)
        # Swapped whole, the tree is one version at every moment; moved entry
        # by entry into a mount point, the next run completes the move.
        assert killed in ('old', 'new', 'mix' if options else 'old'), point
        assert point['after'] in ('old', 'new') and point['leftovers'] == [], point
        # A run killed past the point of no return (the new entries complete in
        # .kelvane-ready) left the old version visible; the next run moves the new one in.
        ready = any(name.endswith('/.kelvane-ready') for name in left)
        assert killed in ('mix', point['after']) or ready and point['after'] == 'new', point
    # The kills fell before and after the swap, some leaving work for the next run.
    assert {p['after'] for p in points} == {'old', 'new'} and any(p['left'] for p in points)


def test_a_full_disk_leaves_the_old_version(run_kelvane, sim):
    paired_device(sim)
    small, big = devices(40, 'old'), devices(300, 'new')
    # The store's copy does not fit into /tmp beside the old backup.
    run = run_kelvane(['-v', '-p', MAC], store={**STORE, **big}, tmp=with_backup(small),
                      tmp_size='1m')
    assert SAVE_WARNING + 'failed to copy ' in run.stderr, run
    assert run.tmp.without(EVENTS) == harness.expected(with_backup(small))
    # The backup does not fit into the store's file system.
    run = run_kelvane(['-r'], store=small, tmp=with_backup(big), var_lib_size='1m')
    assert run.json['error'].startswith(('failed to copy ', 'failed to create directory: '))
    assert run.store == harness.expected(small)


def test_runs_at_once_take_turns(sim, bus, binary):
    sim.add_adapter('hci0')
    for address, passkey in (('11:11:11:11:11:11', 111111), ('22:22:22:22:22:22', 222222)):
        sim.add_device('hci0', address, pairing=[{'method': 'RequestConfirmation',
                                                  'passkey': passkey, 'delay': 0.3}])
    store = devices(2000, 'stored')
    box = harness.Box(with_backup(store), store)
    first, second = 'AA:00:00:00:00:07', 'AA:00:00:00:01:00'
    runs = []
    for args in (['-f', first], ['-r'], ['-f', second], ['-p', '11:11:11:11:11:11'],
                 ['-p', '22:22:22:22:22:22']):
        runs.append(harness.start(args, binary=binary, box=box, bus_address=bus.address))
        time.sleep(0.01)
    assert [r.status for r in harness.finish_all(runs)] == [0] * 5
    # Whatever the order, no device was lost and the backup is the store.
    left = harness.snapshot(box.store)
    assert {p for p in left if p.count('/') == 1} == \
        {p for p in store if p.count('/') == 1} - {ADAPTER + '/' + first, ADAPTER + '/' + second}
    assert harness.snapshot(box.tmp).below(BACKUP) == left
    # One run at a time: the calls of each run came together, and the event
    # file holds the last pairing's events alone.
    senders = [c.sender for c in sim.calls()]
    assert senders == sorted(senders, key=senders.index)
    last = sim.calls(method='Pair')[-1].path
    events = contract.validate_events((box.tmp / EVENTS).read_bytes())
    assert {e['device']['path'] for e in events} == {last}
    assert [e['passkey'] for e in events if 'passkey' in e] == [last[-2:] * 3]

