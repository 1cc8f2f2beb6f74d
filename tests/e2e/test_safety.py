'''The store, its backup and the event file under attack and faults: entries
planted in /tmp by another user, a user racing the tool, runs killed part
way, a full disk, runs at the same time, an unusual umask. Nothing outside
the store and the backup may ever change, and the store and the backup are
always one complete version.'''

import contextlib
from pathlib import Path

import pytest

import contract
from harness import NOBODY, Dir, Fifo, File, Hardlink, Symlink

MAC = 'AA:BB:CC:DD:EE:FF'
ADAPTER = '00:1A:7D:DA:71:13'
DEVICE = '/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF'
BACKUP = 'config/files/var_bluetooth'
EVENTS = 'kelvane-events.json'
STORE = {ADAPTER: Dir(0o700), ADAPTER + '/' + MAC: Dir(0o700),
         ADAPTER + '/' + MAC + '/info': File('[General]\nName=Keyboard\n', 0o600)}
VICTIM = {'victim': Dir(0o755), 'victim/precious': File('precious\n', 0o644)}
SAVE_WARNING = 'debug: warning: failed to save bluetooth config: '
PROTECTIONS = ('protected_symlinks', 'protected_hardlinks', 'protected_fifos',
               'protected_regular')


@pytest.fixture(scope='module', autouse=True)
def unprotected():
    '''The kernel's fs.protected_* guards switched off where we may: the tool
    must be safe without them.'''
    saved = {}
    for name in PROTECTIONS:
        path = Path('/proc/sys/fs') / name
        with contextlib.suppress(OSError):
            saved[path] = path.read_text()
            path.write_text('0')
    yield
    for path, value in saved.items():
        with contextlib.suppress(OSError):
            path.write_text(value)


def paired_device(sim):
    '''A device that needs nothing: -p succeeds at once and saves.'''
    sim.add_adapter('hci0', pairable=True)
    sim.add_device('hci0', MAC, paired=True, trusted=True, connected=True)


def kinds(piece):
    '''What another user can plant at a piece of the path.'''
    target = '/tmp/victim' + ('/precious' if piece == EVENTS else '')
    return {
        'symlink': Symlink(target),
        'hard link': Hardlink('/tmp/victim/precious'),
        'fifo': Fifo(0o666, NOBODY, NOBODY),
        'foreign file': File('theirs\n', 0o666, NOBODY, NOBODY),
        'foreign directory': Dir(0o777, NOBODY, NOBODY),
    }


def parents(piece):
    pieces = piece.split('/')
    return {'/'.join(pieces[:i]): Dir(0o755) for i in range(1, len(pieces))}


PIECES = ['config', 'config/files', BACKUP, EVENTS]
PLANTED = [(piece, kind) for piece in PIECES for kind in kinds(piece)]


@pytest.mark.parametrize('piece,kind', PLANTED, ids=['%s-%s' % (p, k.replace(' ', '_')) for p, k in PLANTED])
def test_planted_entries_are_never_used(run_kelvane, sim, piece, kind):
    paired_device(sim)
    tmp = {**VICTIM, **parents(piece), piece: kinds(piece)[kind]}

    run = run_kelvane(['-v', '-p', MAC], store=STORE, tmp=tmp, snapshot_before=True)

    assert run.json['result'] == 'ok'
    assert run.store == run.store_before
    warnings = [line for line in run.stderr.splitlines() if line.startswith(SAVE_WARNING)]
    if piece == EVENTS:
        assert warnings == []
        replaced = kind != 'foreign directory'  # which cannot be replaced: left alone
        assert run.tmp.without(EVENTS, 'config') == run.tmp_before.without(EVENTS, 'config')
        assert run.tmp.below(BACKUP) == run.store
        if replaced:
            left = run.tmp[EVENTS]
            assert (type(left), left.uid, left.mode) == (File, 0, 0o644)
            assert [e['event'] for e in run.events()] == ['trusted', 'connected']
        else:
            assert run.tmp[EVENTS] == run.tmp_before[EVENTS]
        return
    assert warnings == [SAVE_WARNING + (
        'failed to create directory: /tmp/' + BACKUP if piece == BACKUP
        else 'failed to create parent directory: /tmp/config/files')]
    assert run.tmp.without(EVENTS) == run.tmp_before.without(EVENTS)

    # The restore reads nothing that is not ours alone; a non-directory of
    # ours (the hard link) is no backup at all.
    run = run_kelvane(['-r'], store=STORE, tmp=tmp, snapshot_before=True)
    refused = kind != 'hard link'
    assert run.json['error'] == ('untrusted backup path: /tmp/' + piece if refused else '')
    assert (run.store, run.tmp) == (run.store_before, run.tmp_before)


# The save comes at the end of a pairing, the restore at once: the user waits
# for them accordingly.
@pytest.mark.parametrize('args,pause', [(['-v', '-p', MAC], 0.4), (['-r'], 0.02)],
                         ids=['save', 'restore'])
def test_a_racing_user_never_gets_a_write_outside(run_scenario, sim, args, pause):
    paired_device(sim)
    report, _ = run_scenario('raced', args=args, rounds=100, pause=pause, tmp=VICTIM)
    assert report['victim_intact'] and report['store_ok'], report
    # The race was real: sometimes the user won a piece, sometimes the tool.
    assert report['refused'] > 0, report
    saving = '-p' in args
    assert (report['saved'] if saving else report['legit']) > 0, report
    assert report['statuses'] == ([0] if saving else [0, 1]), report


KILLS = {
    'restore': ('restore', ['-r'], {}),
    'restore into a mounted store': ('restore', ['-r'], {'store_mount': True}),
    'save': ('save', ['-f', 'AA:00:00:00:00:00'], {}),
    'save into a mounted backup': ('save', ['-f', 'AA:00:00:00:00:00'],
                                   {'bind': ['/tmp/' + BACKUP]}),
}


@pytest.mark.parametrize('operation,args,options', KILLS.values(), ids=KILLS.keys())
def test_a_killed_copy_leaves_one_complete_version(run_scenario, operation, args, options):
    # Spread over the undisturbed run's duration, and past it should this
    # run be slower.
    fractions = [0.1, 0.25, 0.4, 0.55, 0.7, 0.85, 1.0, 1.2]
    tmp = {'config': Dir(0o755), 'config/files': Dir(0o755), BACKUP: Dir(0o700)}
    report, _ = run_scenario('killed', args=args, operation=operation, count=2000,
                             fractions=fractions, after=['-f', '00:00:00:00:00:01'],
                             tmp=tmp, timeout=60, **options)
    points = report['points']
    mounted = bool(options)
    for point in points:
        # Swapped whole, the tree is one version at every moment; swapped
        # entry by entry (a mount point), the next run completes the move.
        assert point['killed'] in (('old', 'new', 'mix') if mounted else ('old', 'new')), point
        assert point['after'] in ('old', 'new') and point['leftovers'] == [], point
        if point['killed'] != 'mix':
            assert point['after'] == point['killed'], point
    # The kills fell both before and after the swap.
    assert {p['after'] for p in points} == {'old', 'new'}, report
    assert any(p['left'] for p in points), report


def many_devices(count, name):
    tree = {ADAPTER: Dir(0o700)}
    for i in range(count):
        base = '%s/AA:00:00:00:%02X:%02X' % (ADAPTER, i >> 8, i & 0xFF)
        tree[base] = Dir(0o700)
        tree[base + '/info'] = File('[General]\nName=%s %d\n' % (name, i), 0o600)
        tree[base + '/attributes'] = File('[0x0001]\n', 0o600)
    return tree


def test_a_full_disk_leaves_the_old_version(run_kelvane, sim):
    paired_device(sim)
    small = many_devices(40, 'old')
    backup = {'config': Dir(0o755), 'config/files': Dir(0o755), BACKUP: Dir(0o700),
              **{BACKUP + '/' + p: e for p, e in small.items()}}
    # The store's copy does not fit into /tmp beside the old backup.
    run = run_kelvane(['-v', '-p', MAC], store={**STORE, **many_devices(300, 'new')},
                      tmp=backup, tmp_size='1m')
    assert run.json['result'] == 'ok'
    assert any(line.startswith(SAVE_WARNING + 'failed to copy ') for line in
               run.stderr.splitlines()), run.stderr
    assert {p: e for p, e in run.tmp.items() if p.startswith('config')} == backup

    # The backup does not fit into the store's file system.
    run = run_kelvane(['-r'], store=small, tmp={BACKUP: Dir(0o700), **{
        BACKUP + '/' + p: e for p, e in many_devices(300, 'new').items()}}, var_lib_size='1m')
    assert run.json['error'].startswith(('failed to copy ', 'failed to create directory: '))
    assert run.store == small


def test_runs_at_once_take_turns(run_scenario, sim):
    sim.add_adapter('hci0')
    for address, passkey in (('11:11:11:11:11:11', 111111), ('22:22:22:22:22:22', 222222)):
        sim.add_device('hci0', address, pairing=[{'method': 'RequestConfirmation',
                                                  'passkey': passkey, 'delay': 0.3}])
    store = many_devices(2000, 'stored')
    first, second = 'AA:00:00:00:00:07', 'AA:00:00:00:01:00'
    report, (tmp, left) = run_scenario('concurrent', store=store, tmp={
        'config': Dir(0o755), 'config/files': Dir(0o755), BACKUP: Dir(0o700),
        **{BACKUP + '/' + p: e for p, e in store.items()}},
        runs=[{'args': ['-f', first]}, {'args': ['-r'], 'delay': 0.01},
              {'args': ['-f', second], 'delay': 0.02},
              {'args': ['-p', '11:11:11:11:11:11'], 'delay': 0.03},
              {'args': ['-p', '22:22:22:22:22:22'], 'delay': 0.04}], snapshot=True)
    assert [r['status'] for r in report] == [0] * 5, report
    # Whatever the order, no device was lost and the backup is the store.
    forgotten = {ADAPTER + '/' + first, ADAPTER + '/' + second}
    assert {p for p in left if p.count('/') == 1} == \
        {p for p in store if p.count('/') == 1} - forgotten
    assert tmp.below(BACKUP) == left
    # One run at a time: the calls of each run came together, and the event
    # file holds the last pairing's events alone.
    senders = [c.sender for c in sim.calls()]
    assert senders == sorted(senders, key=senders.index)
    last = sim.calls(method='Pair')[-1].path
    events = contract.validate_events(tmp[EVENTS].content)
    assert {e['device']['path'] for e in events} == {last}
    assert [e['passkey'] for e in events if e['event'] == 'passkey'] == [
        '111111' if last.endswith('11') else '222222']


def test_the_umask_does_not_decide_modes(run_kelvane, sim):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC)
    modes = []
    for umask in (0o000, 0o022, 0o777):
        run = run_kelvane(['-p', MAC], store=STORE, umask=umask)
        assert run.json['result'] == 'ok'
        modes.append({p: run.tmp[p].mode for p in ('config', 'config/files', BACKUP,
                                                   BACKUP + '/' + ADAPTER, EVENTS)})
    assert modes == [{'config': 0o755, 'config/files': 0o755, BACKUP: 0o700,
                      BACKUP + '/' + ADAPTER: 0o700, EVENTS: 0o644}] * 3
