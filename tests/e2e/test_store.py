'''BlueZ's on-disk store through the real binary: the known-device listing
(-l), the restore from the backup (-r) and forgetting a device (-f) through
BlueZ or, failing that, in the store, with the backup saved afterwards.'''

import re

import pytest

import harness
from harness import NO_STORE, Dir, File, Symlink

AD0 = '00:1A:7D:DA:71:13'
AD1 = '5C:F3:70:0B:1E:42'
MAC = 'AA:BB:CC:DD:EE:FF'
OTHER = '11:22:33:44:55:66'
HID_UUID = '00001124-0000-1000-8000-00805f9b34fb'
AUDIO_UUID = '0000110b-0000-1000-8000-00805f9b34fb'

STORE_PATH = '/var/lib/bluetooth'
BACKUP = 'config/files/var_bluetooth'  # below /tmp
SAVE_WARNING = 'debug: warning: failed to save bluetooth config: '
NO_BUS = {'bus_address': harness.dead_bus_address()}


# The result line of -r, -f and of an empty listing.
def outcome(error=''):
    return {'adapters': [], 'devices': [], 'error': error, 'result': 'error' if error else 'ok'}


def dev_path(adapter, address):
    return '/org/bluez/%s/dev_%s' % (adapter, address.upper().replace(':', '_'))


def escaped(name):
    return name.replace(':', '\\:')


def info(name=None, trusted=None, device_class=None, appearance=None, services=()):
    '''An info file as bluetoothd writes it, link key and device id included.'''
    general = [('Name', name), ('AddressType', 'public'), ('SupportedTechnologies', 'BR/EDR;'),
               ('Trusted', None if trusted is None else str(trusted).lower()),
               ('Blocked', 'false'), ('Class', device_class and '0x%06x' % device_class),
               ('Appearance', appearance and '0x%04x' % appearance),
               ('Services', ''.join(uuid + ';' for uuid in services) or None)]
    return ('[General]\n' + ''.join('%s=%s\n' % f for f in general if f[1] is not None)
            + '\n[LinkKey]\nKey=8D6E2A7F0B9C4D1E2F3A4B5C6D7E8F90\nType=4\nPINLength=0\n'
            '\n[DeviceID]\nSource=1\nVendor=76\nProduct=8202\nVersion=257\n')


def device_dir(adapter, address, info_text):
    base = adapter + '/' + address
    return {base: Dir(0o700), base + '/info': File(info_text, 0o600),
            base + '/attributes': File('[0x0001]\nUUID=00002800-0000-1000-8000-00805f9b34fb\n',
                                       0o600)}


def adapter_dir(adapter):
    return {
        adapter: Dir(0o700),
        adapter + '/settings': File('[General]\nDiscoverable=false\nAlias=desk\n', 0o600),
        adapter + '/cache': Dir(0o700),
        adapter + '/cache/CC:CC:CC:CC:CC:CC': File('[General]\nName=Cached only\n', 0o600),
    }


def expected(description):
    '''A tree description as its snapshot reads: texts become 0644 files,
    the root itself (".") is left out.'''
    return {path: File(value) if isinstance(value, (str, bytes)) else value
            for path, value in description.items() if path != '.'}


def is_hidden(path):
    return any(part.startswith('.') for part in path.split('/'))


def below(tree, prefix):
    return {p[len(prefix) + 1:]: e for p, e in tree.items() if p.startswith(prefix + '/')}


def with_backup(backup, root=Dir(0o700), **more):
    return {'config': Dir(0o755), 'config/files': Dir(0o755), BACKUP: root,
            **{BACKUP + '/' + p: e for p, e in backup.items()}, **more}


def as_copied(source, tmp_tree):
    '''What copying the visible entries of a tree yields: links replaced by
    what they point to (files keep their mode, the owner becomes root),
    dangling links and hidden entries left out.'''
    result = {}

    def add(rel, entry, resolve_in):
        if isinstance(entry, Symlink):
            target = entry.target
            if target.startswith('/tmp/'):
                base, root = target[len('/tmp/'):], tmp_tree
            else:
                base, root = ('/'.join(rel.split('/')[:-1] + [target]).lstrip('/'), resolve_in)
            if base not in root:
                return
            add(rel, root[base], resolve_in)
            for path, sub in root.items():
                if path.startswith(base + '/') and not is_hidden(path[len(base) + 1:]):
                    add(rel + path[len(base):], sub, resolve_in)
            return
        result[rel] = (File(entry.content, entry.mode) if isinstance(entry, File)
                       else Dir(entry.mode))

    for rel, entry in source.items():
        if rel != '.' and not is_hidden(rel):
            add(rel, entry, source)
    return result


def bluez_knows(address, refuses=False):
    '''A world: BlueZ's hci0 knows one paired device (and refuses to remove it).'''
    def world(sim):
        sim.add_adapter('hci0')
        sim.add_device('hci0', address, paired=True)
        if refuses:
            sim.fault('RemoveDevice', 'org.bluez.Error.Failed', 'Operation not permitted',
                      times=None)
    return world


def start_world(request, world):
    '''The simulator set up by world(sim); no world: a bus without BlueZ.'''
    sim = world and request.getfixturevalue('sim')
    if sim:
        world(sim)
    return sim


# A realistic store: two adapters, the same device paired with both, a
# hidden entry at the top that the tool must leave alone.
STORE = {'.': Dir(0o700), **adapter_dir(AD0), **adapter_dir(AD1),
         **device_dir(AD0, MAC, info('Keyboard', trusted=True, services=[HID_UUID])),
         **device_dir(AD0, OTHER, info('Mouse', appearance=0x03c2)),
         **device_dir(AD1, MAC, info('Keyboard', trusted=True, services=[HID_UUID])),
         '.hidden': File('keep me\n', 0o600)}

# A store whose entries point out of it, into /tmp/outside.
LINKED_STORE = {
    '.': Dir(0o700),
    AD0: Dir(0o700),
    AD0 + '/settings': Symlink('/tmp/outside/settings'),
    AD0 + '/' + MAC: Symlink('/tmp/outside/device'),
    AD0 + '/' + OTHER: Dir(0o700),
    AD0 + '/' + OTHER + '/info': File(info('Mouse'), 0o600),
    AD0 + '/' + OTHER + '/cache': Symlink('/tmp/outside/cache'),
    AD0 + '/' + OTHER + '/attributes': Symlink('/tmp/outside/attributes'),
    AD1: Symlink('/tmp/outside/adapter'),
}
OUTSIDE = {
    'outside': Dir(0o755),
    'outside/settings': File('[General]\nDiscoverable=true\n', 0o640),
    'outside/attributes': File('[0x0001]\n', 0o600),
    'outside/device': Dir(0o700),
    'outside/device/info': File(info('Keyboard'), 0o600),
    'outside/cache': Dir(0o700),
    'outside/cache/entry': File('cached\n', 0o600),
    'outside/adapter': Dir(0o750),
    'outside/adapter/22:22:22:22:22:22': Dir(0o700),
    'outside/adapter/22:22:22:22:22:22/info': File(info('Speaker'), 0o600),
}


# -- -l ---------------------------------------------------------------------

UNNAMED = '00:11:22:33:44:55 '  # a trailing blank the live match ignores, the listing keeps
E1 = escaped(AD1)
# Store order is by name (Linked directory, Linked info, Mouse, Mouse (old),
# Stored only, Zebra keyboard, [unknown]); the document is ordered by
# address. OTHER is stored under both adapters: the copy listed first (AD1's)
# is kept, so AD1 is adapter 0; an adapter without devices is no adapter.
# AD1's directory also holds what is no device.
LIST_STORE = {
    '.': Dir(0o700),
    **adapter_dir(AD0), **adapter_dir('00:1A:7D:DA:71:99'),
    **device_dir(AD0, MAC, info('Zebra keyboard', trusted=True, device_class=0x002540,
                                services=[HID_UUID, AUDIO_UUID])),
    **device_dir(AD0, OTHER, info('Mouse (old)', trusted=True, device_class=0x240404)),
    **device_dir(AD0, UNNAMED, info(trusted=True)),
    **device_dir(AD0, '22:22:22:22:22:22', info('Stored only')),
    '.backup': Dir(0o700),
    **device_dir('.backup', 'AA:BB:CC:DD:EE:02', info('Hidden adapter')),
    **adapter_dir(E1),
    **device_dir(E1, escaped(OTHER), info('Mouse', trusted=False, appearance=0x03c2)),
    E1 + '/info': File(info('Adapter-level info'), 0o600),
    **device_dir(E1, '.AA:BB:CC:DD:EE:03', info('Hidden device')),
    E1 + '/cache/AA:BB:CC:DD:EE:04': File(info('Cache file'), 0o600),
    E1 + '/AA:BB:CC:DD:EE:06': Dir(0o700),
    E1 + '/AA:BB:CC:DD:EE:06/info': Dir(0o700),  # cannot be read as a file
    E1 + '/AA:BB:CC:DD:EE:07': Dir(0o700),
    E1 + '/AA:BB:CC:DD:EE:07/info': Symlink('/nonexistent/info'),
    E1 + '/AA:BB:CC:DD:EE:08': Dir(0o700),
    E1 + '/AA:BB:CC:DD:EE:08/info': Symlink('/tmp/elsewhere/info'),
    E1 + '/AA:BB:CC:DD:EE:09': Symlink('/tmp/elsewhere/device'),
}
ELSEWHERE = {
    'elsewhere': Dir(0o700),
    'elsewhere/info': File(info('Linked info'), 0o600),
    'elsewhere/device': Dir(0o700),
    'elsewhere/device/info': File(info('Linked directory'), 0o600),
}


def live_world(sim):
    sim.add_adapter('hci0')
    sim.add_adapter('hci1')
    # The bus knows better names, another trust and an RSSI: none of it counts.
    sim.add_device('hci0', MAC.lower(), name='Live name', rssi=-40, trusted=False,
                   connected=True, device_class=0x000104, uuids=[AUDIO_UUID])
    sim.add_device('hci0', OTHER, connected=False, paired=True)
    sim.add_device('hci1', OTHER, connected=True)  # a later partner does not count
    sim.add_device('hci1', '00:11:22:33:44:55', connected=True)
    sim.add_device('hci0', 'CC:CC:CC:CC:CC:CC', connected=True)  # live only: not listed


def listed(device):
    '''The members of a listed device that the listing itself decides.'''
    keys = ('address', 'name', 'alias', 'icon', 'path', 'paired', 'trusted', 'connected',
            'class_of_device', 'appearance', 'uuids', 'rssi', 'label')
    return {k: device[k] for k in keys}


def known(address, name='', path='', trusted=False, connected=False, device_class=None,
          appearance=None, uuids=()):
    return {'address': address, 'name': name, 'alias': '', 'icon': '', 'path': path,
            'paired': True, 'trusted': trusted, 'connected': connected,
            'class_of_device': device_class, 'appearance': appearance, 'uuids': list(uuids),
            'rssi': None, 'label': name or '[unknown]'}


NOT_LIVE = 'could not query live device state: .+'
# world, options, whether live_world's devices are there, the error (a pattern).
LIVE_STATES = {
    'bluez': (live_world, {}, True, ''),
    # BlueZ answers but knows no device: nothing failed.
    'no-live-devices': (lambda sim: sim.add_adapter('hci0'), {}, False, ''),
    'no-daemon': (None, {}, False, NOT_LIVE),
    'no-bus': (None, NO_BUS, False, NOT_LIVE),
}


@pytest.mark.parametrize('world,options,live,error', LIVE_STATES.values(), ids=LIVE_STATES.keys())
def test_list_shows_the_stored_devices_with_their_live_state(run_kelvane, request, world,
                                                             options, live, error):
    sim = start_world(request, world)

    run = run_kelvane(['-l'], store=LIST_STORE, tmp=ELSEWHERE, **options)

    assert (run.status, run.json['result'], run.stderr) == (0, 'ok', '')
    assert re.fullmatch(error, run.json['error']), run.json['error']

    def at(adapter, address):
        return dev_path(adapter, address) if live else ''
    assert [listed(d) for d in run.json['devices']] == [
        known(UNNAMED, path=at('hci1', '00:11:22:33:44:55'), trusted=True, connected=live),
        known(OTHER, 'Mouse', path=at('hci0', OTHER), appearance=0x03c2),
        known('22:22:22:22:22:22', 'Stored only'),
        known('AA:BB:CC:DD:EE:08', 'Linked info'),
        known('AA:BB:CC:DD:EE:09', 'Linked directory'),
        known(MAC, 'Zebra keyboard', path=at('hci0', MAC), trusted=True, connected=live,
              device_class=0x002540, uuids=[HID_UUID, AUDIO_UUID]),
    ]
    assert run.json['adapters'] == [
        {'address': address, 'alias': '', 'discovering': False, 'id': index, 'name': '',
         'path': '', 'powered': False} for index, address in enumerate([AD1, AD0])]
    # A listing only reads: links are read through, nothing changes.
    assert run.store == expected(LIST_STORE)
    assert run.tmp == expected(ELSEWHERE)
    if sim:
        assert set(sim.methods()) == {'GetManagedObjects'}


def test_list_of_a_missing_store_is_empty_without_error(run_kelvane):
    # No BlueZ either, yet with nothing stored that is no error.
    run = run_kelvane(['-l'], store=NO_STORE)
    assert (run.status, run.json) == (0, outcome())


# -- -r ---------------------------------------------------------------------

# The backup as an earlier save left it, plus what a save would never
# produce: links, a hidden file, files of another owner. The latter show
# that a restore is not followed by a save, which would replace them.
RESTORE_SOURCE = {
    **adapter_dir(AD0),
    **device_dir(AD0, MAC, info('Keyboard', trusted=True)),
    AD0 + '/' + MAC + '/notes': File('read-only notes\n', 0o400, uid=4242, gid=4242),
    AD0 + '/' + OTHER: Symlink(MAC),
    AD0 + '/gone': Symlink('/nonexistent'),
    AD0 + '/settings-link': Symlink('/tmp/outside/settings'),
    AD1: Symlink('/tmp/outside/adapter'),
    'top-level': File('kept by the backup\n', 0o640, uid=4242, gid=4242),
    '.backup-only': File('hidden in the backup\n', 0o600),
}
HIDDEN = {'.hidden': File('keep me\n', 0o600), '.keep': Dir(0o700),
          '.keep/state': File('x', 0o600)}


@pytest.mark.parametrize('hidden', [HIDDEN, None], ids=['replaces-linked-store', 'no-store'])
def test_restore_replaces_the_visible_store_with_the_backup(run_kelvane, sim, hidden):
    # The store it replaces is full of links out of it: only the links go.
    store = NO_STORE if hidden is None else {**LINKED_STORE, **hidden}
    tmp = with_backup(RESTORE_SOURCE, **OUTSIDE)
    bluez_knows(MAC)(sim)

    run = run_kelvane(['-r'], store=store, tmp=tmp)

    assert (run.status, run.json, run.stderr) == (0, outcome(), '')
    restored = as_copied(RESTORE_SOURCE, expected(tmp))
    # Sanity of the expectation itself: the links became real entries.
    assert restored[AD0 + '/' + OTHER + '/info'] == File(info('Keyboard', trusted=True), 0o600)
    assert restored[AD1] == Dir(0o750)
    assert AD0 + '/gone' not in restored
    # The store's own hidden entries stay.
    assert run.store == {**restored, **(hidden or {})}
    assert run.store.mode == 0o700
    # The backup is exactly as it was, links and foreign owners included,
    # and nothing outside was touched.
    assert run.tmp == expected(tmp)
    assert sim.calls() == []


# Without a backup directory there is nothing to restore. /tmp is
# world-writable: a backup tree that another user planted there (or reached
# through a link they planted) must never be copied into the store. A store
# that cannot be cleared fails with the entry that stayed.
INTRUDER = {**adapter_dir(AD1), **device_dir(AD1, MAC, info('Intruder'))}
RESTORES_CHANGING_NOTHING = {
    'no-backup': (STORE, {}, (), ''),
    'owned by another user': (
        STORE, {**with_backup(INTRUDER), 'config': Dir(0o755, uid=4242, gid=4242)}, (),
        'untrusted backup path: /tmp/config'),
    'linked elsewhere': (
        STORE, {'config': Dir(0o755), 'config/files': Symlink('/tmp/planted'),
                'planted': Dir(0o755), 'planted/var_bluetooth': Dir(0o755),
                **{'planted/var_bluetooth/' + rel: entry for rel, entry in INTRUDER.items()}},
        (), 'untrusted backup path: /tmp/config/files'),
    'read-only store, directory': (
        {'.': Dir(0o700), **adapter_dir(AD0)}, with_backup(INTRUDER), ('store',),
        'failed to remove directory: %s/%s' % (STORE_PATH, AD0)),
    'read-only store, file': (
        {'.': Dir(0o700), 'settings': File('x', 0o600), '.hidden': 'y'}, with_backup(INTRUDER),
        ('store',), 'failed to remove file: %s/settings' % STORE_PATH),
}


@pytest.mark.parametrize('store,tmp,readonly,error', RESTORES_CHANGING_NOTHING.values(),
                         ids=RESTORES_CHANGING_NOTHING.keys())
def test_restore_changes_nothing_without_a_trusted_backup(run_kelvane, store, tmp, readonly,
                                                          error):
    run = run_kelvane(['-r'], store=store, tmp=tmp, readonly=readonly)
    assert (run.status, run.json, run.stderr) == (1 if error else 0, outcome(error), '')
    assert run.store == expected(store)
    assert run.store.mode == 0o700
    assert run.tmp == expected(tmp)


# -- -f ---------------------------------------------------------------------

PRECIOUS = {'precious': Dir(0o700), 'precious/keep': File('must survive\n', 0o600),
            'precious/files': Dir(0o700), 'precious/files/var_bluetooth': Dir(0o700),
            'precious/files/var_bluetooth/keep': File('must survive too\n', 0o600)}
# store, tmp, read-only mounts, why the save after BlueZ's removal fails.
SAVE_FAILURES = {
    'no-store': (NO_STORE, {}, (), 'source directory does not exist: /var/lib/bluetooth'),
    'config-is-a-link': (STORE, {'config': Symlink('/tmp/precious'), **PRECIOUS}, (),
                         'failed to create parent directory: /tmp/config/files'),
    'config-is-a-file': (STORE, {'config': File('x', 0o644)}, (),
                         'failed to create parent directory: /tmp/config/files'),
    'files-is-a-link': (STORE, {'config': Dir(0o755), 'config/files': Symlink('/tmp/precious'),
                                **PRECIOUS}, (),
                        'failed to create parent directory: /tmp/config/files'),
    'backup-is-a-link': (STORE, {'config': Dir(0o755), 'config/files': Dir(0o755),
                                 BACKUP: Symlink('/tmp/precious'), **PRECIOUS}, (),
                         'failed to create directory: /tmp/config/files/var_bluetooth'),
    'config-of-another-user': (STORE, {'config': Dir(0o777, harness.NOBODY, harness.NOBODY)},
                               (), 'failed to create parent directory: /tmp/config/files'),
    'read-only-tmp': (STORE, {}, ('tmp',),
                      'failed to create parent directory: /tmp/config/files'),
}
# Every case traced; one also without -v, where a failed save leaves no trace.
SAVE_CASES = {**{name: (*case, True) for name, case in SAVE_FAILURES.items()},
              'config-is-a-link-quiet': (*SAVE_FAILURES['config-is-a-link'], False)}


@pytest.mark.parametrize('store,tmp,readonly,problem,verbose', SAVE_CASES.values(),
                         ids=SAVE_CASES.keys())
def test_a_failed_save_only_shows_in_the_trace(run_kelvane, sim, store, tmp, readonly, problem,
                                               verbose):
    sim.add_adapter('hci0')
    sim.add_adapter('hci1')
    sim.add_device('hci0', MAC, paired=True)
    sim.add_device('hci1', MAC, paired=True)
    args = ['-f', 'aa-bb-cc-dd-ee-ff', '-v'] if verbose else ['-f', 'aA:Bb-cC:dD-eE:fF']

    run = run_kelvane(args, store=store, tmp=tmp, readonly=readonly)

    # BlueZ removed the first device it knows at that address and leaves
    # the store to it; a failed save does not fail the forget.
    assert (run.status, run.json) == (0, outcome())
    removals = sim.calls(method='RemoveDevice')
    assert [(c.path, c.interface, c.args, c.types) for c in removals] == [
        ('/org/bluez/hci0', 'org.bluez.Adapter1', [dev_path('hci0', MAC)], ['o'])]
    assert run.store == (None if store is NO_STORE else expected(store))
    assert run.tmp == expected(tmp)
    lines = run.stderr.splitlines()
    if verbose:
        call = ('dbus >> org.bluez /org/bluez/hci0 org.bluez.Adapter1.RemoveDevice (%s)'
                % dev_path('hci0', MAC))
        assert lines[lines.index(call) + 1] == 'dbus << RemoveDevice ok'
    warnings = [line for line in lines if 'failed to save' in line]
    assert warnings == ([SAVE_WARNING + problem] if verbose else [])
    assert verbose or run.stderr == ''


# The device under AD0 as bluetoothd writes it, under AD1 with an escaped
# name in lower case and without an info file: both directories must go. A
# device directory that is a link elsewhere is copied into the backup.
FALLBACK_STORE = {
    '.': Dir(0o700),
    **adapter_dir(AD0),
    **device_dir(AD0, MAC, info('Keyboard', trusted=True)),
    **device_dir(AD0, OTHER, info('Mouse')),
    AD0 + '/cache/.tmp': File('hidden below an adapter\n', 0o600),
    **adapter_dir(AD1),
    AD1 + '/' + escaped(MAC.lower()): Dir(0o700),
    AD1 + '/' + escaped(MAC.lower()) + '/attributes': File('', 0o600),
    **device_dir(AD1, '22:22:22:22:22:22', info('Speaker')),
    AD1 + '/33:33:33:33:33:33': Symlink('/tmp/elsewhere/dev'),
    '.hidden': File('keep me\n', 0o600),
}
# The backup an earlier save left, with stale entries and a hidden file of its own.
STALE_TMP = with_backup(
    {AD0: Dir(0o755), AD0 + '/stale-file': 'gone after the save\n',
     'AA:AA:AA:AA:AA:AA': Dir(0o700),
     **device_dir('AA:AA:AA:AA:AA:AA', MAC, info('Stale adapter')),
     '.kept': File('hidden in the backup\n', 0o600)},
    root=Dir(0o755),
    **{'elsewhere': Dir(0o755), 'elsewhere/dev': Dir(0o750),
       'elsewhere/dev/info': File(info('Linked'), 0o600)})
GONE = [AD0 + '/' + MAC, AD1 + '/' + escaped(MAC.lower())]
# world, run options, store, /tmp, the typed address, the error, the store entries that go.
FORGETS = {
    # BlueZ cannot remove it, or does not know it: the device's directories go
    # from the store, which is saved.
    'bluez-refuses': (bluez_knows(MAC, refuses=True), {}, FALLBACK_STORE, STALE_TMP, MAC, '',
                      GONE),
    'no-bus': (None, NO_BUS, FALLBACK_STORE, STALE_TMP, MAC, '', GONE),
    'unknown-to-bluez': (bluez_knows(OTHER), {}, FALLBACK_STORE, STALE_TMP,
                         ' aa-bb-cc-dd-ee-ff ', '', GONE),
    'invalid': (bluez_knows(MAC), {}, STORE, STALE_TMP, 'AA:BB:CC:DD:EE',
                'invalid Bluetooth address: AA:BB:CC:DD:EE', []),
    # The address is read once, blanks trimmed: BlueZ removes the device and
    # the store is left to it. A word that is no address deletes nothing,
    # though the store has a directory of that name under every adapter.
    'blanks-trimmed': (bluez_knows(MAC), {}, STORE, STALE_TMP, ' aa-bb-cc-dd-ee-ff\t', '', []),
    'not-an-address': (None, {}, STORE, STALE_TMP, 'cache', 'invalid Bluetooth address: cache',
                       []),
    'unknown': (bluez_knows(MAC), {}, STORE, STALE_TMP, '12-34-56-78-9a-bc', 'device not found',
                []),
    # BlueZ's own error when it refuses and the store lacks the device.
    'refused-not-stored': (bluez_knows('12:34:56:78:9A:BC', refuses=True), {}, STORE, STALE_TMP,
                           '12:34:56:78:9a:bc', 'Operation not permitted', []),
    'no-bluez-no-store': (None, {}, NO_STORE, STALE_TMP, MAC, 'device not found', []),
    # Links in the store never lead to changes outside it.
    'linked-device': (None, {}, LINKED_STORE, OUTSIDE, MAC, '', [AD0 + '/' + MAC]),
    'device-holding-links': (None, {}, LINKED_STORE, OUTSIDE, OTHER, '', [AD0 + '/' + OTHER]),
    # An adapter kept elsewhere through a link is part of the store.
    'under-linked-adapter': (None, {}, LINKED_STORE, OUTSIDE, '22:22:22:22:22:22', '',
                             ['/tmp/outside/adapter/22:22:22:22:22:22']),
    # BlueZ removes it; the backup, made afresh, holds copies of what the links reach.
    'linked-store-via-bluez': (bluez_knows(MAC), {}, LINKED_STORE, OUTSIDE, 'aa-Bb-cc:DD:ee:ff',
                               '', []),
}


def outside_the_backup(tree):
    return {p: e for p, e in tree.items()
            if p not in ('config', 'config/files', BACKUP) and not p.startswith(BACKUP + '/')}


@pytest.mark.parametrize('world,options,store,tmp,typed,error,gone', FORGETS.values(),
                         ids=FORGETS.keys())
def test_forget_changes_only_what_it_should(run_kelvane, request, world, options, store, tmp,
                                            typed, error, gone):
    sim = start_world(request, world)

    run = run_kelvane(['-f', typed], store=store, tmp=tmp, **options)

    assert (run.status, run.json, run.stderr) == (1 if error else 0, outcome(error), '')
    if sim and error.startswith('invalid'):
        assert sim.calls() == []  # the address is checked before the bus is asked
    if sim and not gone and not error:
        assert [c.args for c in sim.calls(method='RemoveDevice')] == [[dev_path('hci0', MAC)]]
    def without_gone(tree, prefix=''):
        return {p: e for p, e in tree.items()
                if not any(prefix + p == g or (prefix + p).startswith(g + '/') for g in gone)}
    left = None if store is NO_STORE else without_gone(expected(store))
    tmp_left = without_gone(expected(tmp), '/tmp/')
    assert run.store == left
    if error:
        assert run.tmp == expected(tmp)  # no save after a failure
        return
    assert run.store.mode == 0o700
    # The store mirrored into the backup: modes kept, links resolved, hidden
    # entries left out but the backup's own kept. Outside the backup and its
    # parents /tmp is as it was, but for a device of an adapter linked there.
    own_hidden = {p: e for p, e in below(expected(tmp), BACKUP).items() if p.startswith('.')}
    assert below(run.tmp, BACKUP) == {**as_copied(left, tmp_left), **own_hidden}
    assert run.tmp[BACKUP].mode == 0o700
    assert outside_the_backup(run.tmp) == outside_the_backup(tmp_left)
