# BlueZ's store through the real binary: the listing (-l) joins it with the
# live daemon, the restore (-r) replaces it with the backup, and forgetting
# (-f) goes through BlueZ or, failing that, through the store, then saves the
# backup. Reading info files, copying trees and deleting devices are unit
# tables; the planted paths are test_safety's.

import pytest

import harness
from harness import BACKUP, NO_STORE, Dir, File, with_backup

AD0, AD1 = '00:1A:7D:DA:71:13', '5C:F3:70:0B:1E:42'
MAC, OTHER = 'AA:BB:CC:DD:EE:FF', '11:22:33:44:55:66'
HID, AUDIO = '00001124-0000-1000-8000-00805f9b34fb', '0000110b-0000-1000-8000-00805f9b34fb'


def escaped(name):
    return name.replace(':', '\\:')


def device(adapter, address, general=''):
    base = adapter + '/' + address
    return {base: Dir(0o700), base + '/info': File('[General]\n%s\n[LinkKey]\nKey=8D6E\n'
                                                   % general, 0o600)}


def outcome(error=''):
    return {'adapters': [], 'devices': [], 'error': error, 'result': 'error' if error else 'ok'}


# -- -l ------------------------------------------------------------------------

UNNAMED = '00:11:22:33:44:55 '  # a trailing blank the live match ignores
LISTED = {**device(AD0, MAC, 'Name=Zebra keyboard\nTrusted=true\nClass=0x002540\n'
                   'Services=%s;%s;' % (HID, AUDIO)),
          **device(AD0, OTHER, 'Name=Mouse (old)\nTrusted=true'),
          **device(escaped(AD1), escaped(OTHER), 'Name=Mouse\nAppearance=0x03c2'),
          **device(AD0, UNNAMED, 'Trusted=true'),
          **device(AD0, '22:22:22:22:22:22', 'Name=Stored only'),
          '00:1A:7D:DA:71:99/settings': '[General]\n'}  # an adapter without devices


def known(name='', trusted=False, device_class=None, appearance=None, uuids=(), at=None):
    return {'name': name, 'trusted': trusted, 'class_of_device': device_class, 'paired': True,
            'appearance': appearance, 'uuids': list(uuids), 'rssi': None,
            'path': '/org/bluez/%s/dev_%s' % (at[0], at[1].replace(':', '_')) if at else '',
            'connected': bool(at and at[2])}


def test_list_joins_the_store_with_the_live_daemon(run_kelvane, sim):
    # The bus knows better names, another trust and an RSSI: none of it counts.
    # Without BlueZ the same devices come without path and connection (README's example).
    for adapter in ('hci0', 'hci1'):
        sim.add_adapter(adapter)
    sim.add_device('hci0', MAC.lower(), name='Live name', rssi=-40, connected=True)
    sim.add_device('hci0', OTHER, paired=True)
    sim.add_device('hci1', OTHER, connected=True)  # a later partner does not count
    sim.add_device('hci1', UNNAMED.strip(), connected=True)
    sim.add_device('hci0', 'CC:CC:CC:CC:CC:CC', connected=True)  # not stored: not listed
    run = run_kelvane(['-l'], store=LISTED)
    assert (run.status, run.json['error']) == (0, '')
    assert {d['address']: {k: d[k] for k in known()} for d in run.json['devices']} == {
        MAC: known('Zebra keyboard', True, 0x002540, uuids=[HID, AUDIO], at=('hci0', MAC, True)),
        OTHER: known('Mouse', appearance=0x03c2, at=('hci0', OTHER, False)),
        UNNAMED: known(trusted=True, at=('hci1', UNNAMED.strip(), True)),
        '22:22:22:22:22:22': known('Stored only')}
    # The adapters the store names, in the order of its devices by label:
    # "Mouse" (AD1) before "Mouse (old)", whose address was listed already.
    assert [(a['id'], a['address'], a['path']) for a in run.json['adapters']] == [
        (0, AD1, ''), (1, AD0, '')]
    assert run.store == harness.expected(LISTED)


# -- -r ------------------------------------------------------------------------

OLD = {'.': Dir(0o700), **device(AD0, OTHER, 'Name=Old'), '.hidden': File('keep me\n', 0o600)}
NEW = {AD1: Dir(0o750), **device(AD1, MAC, 'Name=Restored'),
       'foreign': File('not ours\n', 0o640, uid=4242)}  # a save would take it over
RESTORED = {**harness.expected(NEW), 'foreign': File('not ours\n', 0o640)}  # as root's
# store, backup, read-only mounts -> error, the store afterwards
RESTORES = {
    'restored': (OLD, with_backup(NEW), (), '', {**RESTORED, '.hidden': OLD['.hidden']}),
    'no store yet': (NO_STORE, with_backup(NEW), (), '', RESTORED),
    'no backup': (OLD, {}, (), '', harness.expected(OLD)),
    'read-only store': (OLD, with_backup(NEW), ['/var/lib/bluetooth'],
                        'failed to remove directory: /var/lib/bluetooth/' + AD0,
                        harness.expected(OLD)),
}


@pytest.mark.parametrize('store,tmp,readonly,error,after', RESTORES.values(), ids=RESTORES)
def test_restore(run_kelvane, sim, store, tmp, readonly, error, after):
    run = run_kelvane(['-r'], store=store, tmp=tmp, readonly=readonly)
    assert (run.status, run.json, run.stderr) == (1 if error else 0, outcome(error), '')
    assert (run.store, run.store.mode) == (after, 0o700)
    # The backup is as it was (no save follows a restore), BlueZ was not asked.
    assert (run.tmp, sim.calls()) == (harness.expected(tmp), [])


# -- -f ------------------------------------------------------------------------

STORE = {'.': Dir(0o700), **device(AD0, MAC, 'Name=Keyboard'), **device(AD0, OTHER),
         AD0 + '/cache': Dir(0o700), AD0 + '/cache/' + MAC: File('[General]\n', 0o600),
         AD1 + '/' + escaped(MAC.lower()): Dir(0o700), '.hidden': File('keep me\n', 0o600)}
STALE = with_backup({'stale': 'gone after the save\n', '.kept': 'the backup keeps its own\n'})
GONE = [AD0 + '/' + MAC, AD1 + '/' + escaped(MAC.lower())]


def bluez_knows(address, refuses=False):
    def world(sim):
        for adapter in ('hci0', 'hci1'):
            sim.add_adapter(adapter)
            sim.add_device(adapter, address, paired=True)
        if refuses:
            sim.fault('RemoveDevice', 'org.bluez.Error.Failed', 'Operation not permitted',
                      times=None)
    return world


DEVICE = '/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF'
# world (None: no BlueZ), store, words -> error, the store entries that go,
# the device (on hci0) BlueZ was asked to remove
FORGETS = {
    # BlueZ removes the first device at that address and leaves the store to it.
    'through BlueZ': (bluez_knows(MAC), STORE, ['-f', 'aa-Bb-cc:DD:ee:ff'], '', [], DEVICE),
    # BlueZ refuses, is not there, or does not know the (padded) address: the
    # device's directories under every adapter go from the store.
    'BlueZ refuses': (bluez_knows(MAC, refuses=True), STORE, ['-f', MAC], '', GONE, DEVICE),
    'no BlueZ': (None, STORE, ['-f', MAC], '', GONE, None),
    'unknown to BlueZ': (bluez_knows(OTHER), STORE, ['-f', ' aa-bb-cc-dd-ee-ff\t'], '', GONE, None),
    'invalid': (bluez_knows(MAC), STORE, ['-f', 'AA:BB:CC:DD:EE'],
                'invalid Bluetooth address: AA:BB:CC:DD:EE', [], None),
    'refused, not stored': (bluez_knows('12:34:56:78:9A:BC', refuses=True), STORE,
                            ['-f', '12:34:56:78:9a:bc'], 'Operation not permitted', [],
                            '/org/bluez/hci0/dev_12_34_56_78_9A_BC'),
    'nowhere': (None, NO_STORE, ['-f', MAC], 'device not found', [], None),
    # -l of that nothing: an empty listing, and no error.
    'nothing to list': (None, NO_STORE, ['-l'], '', [], None),
    # The whole trace of -f; with no store to save, the backup stays and only -v tells.
    'traced, nothing to save': (bluez_knows(MAC), NO_STORE, ['-v', '-f', MAC], '', [], DEVICE),
}
TRACE = '\n'.join([
    'dbus >> org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects',
    'dbus << GetManagedObjects ok',
    'dbus >> org.bluez /org/bluez/hci0 org.bluez.Adapter1.RemoveDevice (%s)' % DEVICE,
    'dbus << RemoveDevice ok',
    'debug: warning: failed to save bluetooth config: source directory does not exist: '
    '/var/lib/bluetooth', ''])


@pytest.mark.parametrize('world,store,words,error,gone,removed', FORGETS.values(), ids=FORGETS)
def test_forget(run_kelvane, request, world, store, words, error, gone, removed):
    sim = world and request.getfixturevalue('sim')
    if sim:
        world(sim)
    run = run_kelvane(words, store=store, tmp=STALE)
    assert (run.status, run.json, run.stderr) == (
        1 if error else 0, outcome(error), TRACE if '-v' in words else '')
    if sim and error.startswith('invalid'):
        assert sim.calls() == []  # the address is checked before BlueZ is asked
    if sim:
        assert [(c.path, c.args, c.types) for c in sim.calls(method='RemoveDevice')] == (
            [('/org/bluez/hci0', [removed], ['o'])] if removed else [])
    left = None if store == NO_STORE else harness.expected(store).without(*gone)
    assert run.store == left
    if error or left is None:
        assert run.tmp == harness.expected(STALE)  # no save after a failure, nor of no store
    else:
        # The store mirrored into the backup, which keeps its own hidden entries.
        assert run.tmp.below(BACKUP) == {**{p: e for p, e in left.items() if '/.' not in '/' + p},
                                         '.kept': File('the backup keeps its own\n')}
