'''BlueZ's on-disk store through the real binary: the known-device listing
(-l), the restore from the backup (-r) and forgetting a device (-f) through
BlueZ or, failing that, in the store, with the backup saved afterwards.

Every run gets its own /var/lib/bluetooth and /tmp (see harness.py); the
trees below are built the way bluetoothd lays them out: adapter directories
named by address holding a settings file, a cache directory and one
directory per device with a 0600 info file that carries the link key.'''

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
NOT_ROOT = 65534


def dev_path(adapter, address):
    return '/org/bluez/%s/dev_%s' % (adapter, address.upper().replace(':', '_'))


def info(name=None, trusted=None, device_class=None, appearance=None, services=()):
    '''An info file as bluetoothd writes it, link key and device id included.'''
    lines = ['[General]']
    if name is not None:
        lines.append('Name=' + name)
    lines += ['AddressType=public', 'SupportedTechnologies=BR/EDR;']
    if trusted is not None:
        lines.append('Trusted=' + ('true' if trusted else 'false'))
    lines.append('Blocked=false')
    if device_class is not None:
        lines.append('Class=0x%06x' % device_class)
    if appearance is not None:
        lines.append('Appearance=0x%04x' % appearance)
    if services:
        lines.append('Services=' + ';'.join(services) + ';')
    lines += ['', '[LinkKey]', 'Key=8D6E2A7F0B9C4D1E2F3A4B5C6D7E8F90', 'Type=4', 'PINLength=0',
              '', '[DeviceID]', 'Source=1', 'Vendor=76', 'Product=8202', 'Version=257', '']
    return '\n'.join(lines)


def device_dir(adapter, address, info_text, mode=0o700):
    '''A device directory with its info and attributes files, both 0600.'''
    base = adapter + '/' + address
    return {
        base: Dir(mode),
        base + '/info': File(info_text, 0o600),
        base + '/attributes': File('[0x0001]\nUUID=00002800-0000-1000-8000-00805f9b34fb\n',
                                   0o600),
    }


def adapter_dir(adapter):
    '''An adapter directory without devices: settings and a cache entry.'''
    return {
        adapter: Dir(0o700),
        adapter + '/settings': File('[General]\nDiscoverable=false\nAlias=desk\n', 0o600),
        adapter + '/cache': Dir(0o700),
        adapter + '/cache/CC:CC:CC:CC:CC:CC': File('[General]\nName=Cached only\n', 0o600),
    }


def expected(description):
    '''A tree description as the snapshot of it reads: texts become 0644
    files, the root itself (".") is left out.'''
    tree = {}
    for path, value in description.items():
        if path == '.':
            continue
        tree[path] = File(value) if isinstance(value, (str, bytes)) else value
    return tree


def is_hidden(path):
    return any(part.startswith('.') for part in path.split('/'))


def visible(tree):
    '''What a copy takes along: no entry with a hidden name on its way.'''
    return {p: e for p, e in tree.items() if not is_hidden(p)}


def top_hidden(tree):
    '''What a cleared directory keeps: its own hidden entries.'''
    return {p: e for p, e in tree.items() if p.startswith('.')}


def below(tree, prefix):
    '''The part of a /tmp tree under prefix, relative to it.'''
    start = prefix + '/'
    return {p[len(start):]: e for p, e in tree.items() if p.startswith(start)}


def with_backup(backup, parents=Dir(0o755), root=Dir(0o700), **more):
    '''A /tmp description holding a backup tree.'''
    tmp = {'config': parents, 'config/files': parents, BACKUP: root}
    tmp.update({BACKUP + '/' + p: e for p, e in backup.items()})
    tmp.update(more)
    return tmp


def trace_lines(run):
    return run.stderr.splitlines()


# A realistic store: two adapters, devices with link keys, a cache, adapter
# settings and entries at the top that the tool must leave alone.
STORE = {
    '.': Dir(0o700),
    **adapter_dir(AD0),
    **device_dir(AD0, MAC, info('Keyboard', trusted=True, device_class=0x002540,
                                services=[HID_UUID])),
    **device_dir(AD0, OTHER, info('Mouse', appearance=0x03c2)),
    **adapter_dir(AD1),
    # The same device, paired with both adapters.
    **device_dir(AD1, MAC, info('Keyboard', trusted=True, device_class=0x002540,
                                services=[HID_UUID])),
    **device_dir(AD1, '22:22:22:22:22:22', info('Speaker', services=[AUDIO_UUID])),
    '.hidden': File('keep me\n', 0o600),
}


def listed(device):
    '''The members of a listed device that the listing itself decides.'''
    keys = ('address', 'name', 'alias', 'icon', 'path', 'paired', 'trusted', 'connected',
            'class_of_device', 'appearance', 'uuids', 'rssi', 'label')
    return {k: device[k] for k in keys}


def stored_adapter(index, address):
    return {'address': address, 'alias': '', 'discovering': False, 'id': index, 'name': '',
            'path': '', 'powered': False}


def known(address, name='', path='', trusted=False, connected=False, device_class=None,
          appearance=None, uuids=()):
    return {'address': address, 'name': name, 'alias': '', 'icon': '', 'path': path,
            'paired': True, 'trusted': trusted, 'connected': connected,
            'class_of_device': device_class, 'appearance': appearance, 'uuids': list(uuids),
            'rssi': None, 'label': name or '[unknown]'}


# -- -l ---------------------------------------------------------------------

def test_list_enriches_stored_devices_with_live_state(run_kelvane, sim):
    # Store order is by name (Mouse, Stored only, Zebra, [unknown]); the
    # document is ordered by address. One directory name carries a trailing
    # blank that the live match ignores and the listing keeps.
    unnamed = '00:11:22:33:44:55 '
    store = {
        '.': Dir(0o700), **adapter_dir(AD0),
        **device_dir(AD0, MAC, info('Zebra keyboard', trusted=True, device_class=0x002540,
                                    services=[HID_UUID, AUDIO_UUID])),
        **device_dir(AD0, OTHER, info('Mouse', trusted=False, appearance=0x03c2)),
        **device_dir(AD0, unnamed, info(trusted=True)),
        **device_dir(AD0, '22:22:22:22:22:22', info('Stored only')),
    }
    sim.add_adapter('hci0')
    sim.add_adapter('hci1')
    # The bus knows better names, another trust and an RSSI: none of it counts.
    sim.add_device('hci0', MAC.lower(), name='Live name', rssi=-40, trusted=False,
                   connected=True, device_class=0x000104, uuids=[AUDIO_UUID])
    sim.add_device('hci0', OTHER, connected=False, paired=True)
    sim.add_device('hci1', OTHER, connected=True)  # a later partner does not count
    sim.add_device('hci1', '00:11:22:33:44:55', connected=True)
    sim.add_device('hci0', 'CC:CC:CC:CC:CC:CC', connected=True)  # live only: not listed

    run = run_kelvane(['-l'], store=store)

    assert run.status == 0
    assert (run.json['result'], run.json['error'], run.stderr) == ('ok', '', '')
    assert [listed(d) for d in run.json['devices']] == [
        known(unnamed, path=dev_path('hci1', '00:11:22:33:44:55'), trusted=True,
              connected=True),
        known(OTHER, 'Mouse', path=dev_path('hci0', OTHER), appearance=0x03c2),
        known('22:22:22:22:22:22', 'Stored only'),
        known(MAC, 'Zebra keyboard', path=dev_path('hci0', MAC), trusted=True, connected=True,
              device_class=0x002540, uuids=[HID_UUID, AUDIO_UUID]),
    ]
    assert run.json['adapters'] == [stored_adapter(0, AD0)]
    # A listing only reads.
    assert run.store == expected(store)
    assert run.tmp == {}
    assert set(sim.methods()) == {'GetManagedObjects'}


@pytest.mark.parametrize('first', [AD0, AD1])
def test_list_shows_a_device_of_two_adapters_once(run_kelvane, sim, first):
    # Both copies have the same address; the one whose name sorts first is
    # the first in the store's listing, so it is kept and its adapter is 0.
    second = AD1 if first == AD0 else AD0
    store = {
        '.': Dir(0o700), **adapter_dir(AD0), **adapter_dir(AD1),
        **device_dir(first, MAC, info('Headset', trusted=True, device_class=0x240404)),
        **device_dir(second, MAC, info('Headset (old)', trusted=False)),
        **device_dir(second, OTHER, info('Mouse')),
    }
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, connected=True)

    run = run_kelvane(['-l'], store=store)

    assert run.status == 0
    assert [listed(d) for d in run.json['devices']] == [
        known(OTHER, 'Mouse'),
        known(MAC, 'Headset', path=dev_path('hci0', MAC), trusted=True, connected=True,
              device_class=0x240404),
    ]
    assert run.json['adapters'] == [stored_adapter(0, first), stored_adapter(1, second)]


NO_BLUEZ = ['no-daemon', 'no-bus']


def bluez_absent(how):
    '''run_kelvane options for a bus without org.bluez, or no bus at all.'''
    return {} if how == 'no-daemon' else {'bus_address': harness.dead_bus_address()}


@pytest.mark.parametrize('how', NO_BLUEZ)
def test_list_without_bluez_still_lists_the_store(run_kelvane, how):
    run = run_kelvane(['-l'], store=STORE, **bluez_absent(how))

    assert run.status == 0
    assert run.json['result'] == 'ok'
    prefix = 'could not query live device state: '
    assert run.json['error'].startswith(prefix) and len(run.json['error']) > len(prefix)
    assert [listed(d) for d in run.json['devices']] == [
        known(OTHER, 'Mouse', appearance=0x03c2),
        known('22:22:22:22:22:22', 'Speaker', uuids=[AUDIO_UUID]),
        known(MAC, 'Keyboard', trusted=True, device_class=0x002540, uuids=[HID_UUID]),
    ]
    # The two Keyboard entries sort equal: either adapter may come first.
    adapters = sorted(run.json['adapters'], key=lambda a: a['id'])
    assert [a['id'] for a in adapters] == [0, 1]
    assert sorted(a['address'] for a in adapters) == [AD0, AD1]
    assert run.stderr == ''


def test_list_with_bluez_but_no_live_devices_reports_no_error(run_kelvane, sim):
    sim.add_adapter('hci0')
    run = run_kelvane(['-l'], store=STORE)
    assert (run.status, run.json['error']) == (0, '')
    assert [d['path'] for d in run.json['devices']] == ['', '', '']


EMPTY_STORES = {
    'missing': NO_STORE,
    'empty': {'.': Dir(0o700)},
    'adapters-without-devices': {'.': Dir(0o700), **adapter_dir(AD0), AD1: Dir(0o700)},
    'only-hidden': {'.': Dir(0o700), '.old': Dir(0o700),
                    **device_dir('.old', MAC, info('Hidden adapter'))},
}


@pytest.mark.parametrize('bluez', ['running', 'absent'])
@pytest.mark.parametrize('store', EMPTY_STORES.values(), ids=EMPTY_STORES.keys())
def test_list_of_an_empty_store_is_empty_without_error(run_kelvane, request, store, bluez):
    if bluez == 'running':
        sim = request.getfixturevalue('sim')
        sim.add_adapter('hci0')
        sim.add_device('hci0', MAC, connected=True)
    run = run_kelvane(['-l'], store=store)
    assert run.status == 0
    assert run.stdout == '{"adapters":[],"devices":[],"error":"","result":"ok"}\n'


def test_list_reads_only_device_directories_with_a_readable_info(run_kelvane, sim):
    escaped = AD0.replace(':', '\\:')
    good = 'AA:BB:CC:DD:EE:01'
    store = {
        '.': Dir(0o700),
        'README': 'not an adapter\n',
        escaped: Dir(0o700),
        **device_dir(escaped, good.replace(':', '\\:'), info('Escaped')),
        '.backup': Dir(0o700),
        **device_dir('.backup', 'AA:BB:CC:DD:EE:02', info('Hidden adapter')),
        **adapter_dir(AD1),
        AD1 + '/info': File(info('Adapter-level info'), 0o600),
        **device_dir(AD1, '.AA:BB:CC:DD:EE:03', info('Hidden device')),
        AD1 + '/cache/AA:BB:CC:DD:EE:04': File(info('Cache file'), 0o600),
        AD1 + '/AA:BB:CC:DD:EE:05': Dir(0o700),
        AD1 + '/AA:BB:CC:DD:EE:05/attributes': File('', 0o600),
        AD1 + '/AA:BB:CC:DD:EE:06': Dir(0o700),
        AD1 + '/AA:BB:CC:DD:EE:06/info': Dir(0o700),  # cannot be read as a file
        AD1 + '/AA:BB:CC:DD:EE:07': Dir(0o700),
        AD1 + '/AA:BB:CC:DD:EE:07/info': Symlink('/nonexistent/info'),
        AD1 + '/AA:BB:CC:DD:EE:08': Dir(0o700),
        AD1 + '/AA:BB:CC:DD:EE:08/info': Symlink('/tmp/elsewhere/info'),
        AD1 + '/AA:BB:CC:DD:EE:09': Symlink('/tmp/elsewhere/device'),
    }
    tmp = {
        'elsewhere': Dir(0o700),
        'elsewhere/info': File(info('Linked info'), 0o600),
        'elsewhere/device': Dir(0o700),
        'elsewhere/device/info': File(info('Linked directory'), 0o600),
    }
    sim.add_adapter('hci0')
    sim.add_device('hci0', good, connected=True)

    run = run_kelvane(['-l'], store=store, tmp=tmp)

    assert run.status == 0
    assert [(d['address'], d['name'], d['path']) for d in run.json['devices']] == [
        (good, 'Escaped', dev_path('hci0', good)),
        ('AA:BB:CC:DD:EE:08', 'Linked info', ''),
        ('AA:BB:CC:DD:EE:09', 'Linked directory', ''),
    ]
    assert [a['address'] for a in run.json['adapters']] == [AD0, AD1]
    assert run.store == expected(store)
    assert run.tmp == expected(tmp)


# -- -r ---------------------------------------------------------------------

NO_BACKUP = {
    'nothing': {},
    'parents-only': {'config': Dir(0o755), 'config/files': Dir(0o755)},
    'plain-file': {'config': Dir(0o755), 'config/files': Dir(0o755),
                   BACKUP: File(info('Not a directory'), 0o600)},
    'dangling-link': {'config': Dir(0o755), 'config/files': Dir(0o755),
                      BACKUP: Symlink('/tmp/gone')},
}


@pytest.mark.parametrize('tmp', NO_BACKUP.values(), ids=NO_BACKUP.keys())
def test_restore_without_a_backup_directory_changes_nothing(run_kelvane, tmp):
    run = run_kelvane(['-r'], store=STORE, tmp=tmp)
    assert run.status == 0
    assert run.stdout == '{"adapters":[],"devices":[],"error":"","result":"ok"}\n'
    assert run.stderr == ''
    assert run.store == expected(STORE)
    assert run.store.mode == 0o700
    assert run.tmp == expected(tmp)


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
OUTSIDE = {
    'outside': Dir(0o755),
    'outside/settings': File('[General]\nDiscoverable=true\n', 0o640),
    'outside/adapter': Dir(0o750),
    'outside/adapter/22:22:22:22:22:22': Dir(0o700),
    'outside/adapter/22:22:22:22:22:22/info': File(info('Speaker'), 0o600),
}


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
        if isinstance(entry, File):
            result[rel] = File(entry.content, entry.mode)
        else:
            result[rel] = Dir(entry.mode)

    for rel, entry in source.items():
        if rel != '.' and not is_hidden(rel):
            add(rel, entry, source)
    return result


def test_restore_replaces_the_visible_store_with_the_backup(run_kelvane, sim):
    store = {**STORE, '.keep': Dir(0o700), '.keep/state': File('x', 0o600)}
    tmp = with_backup(RESTORE_SOURCE, **OUTSIDE)
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC)

    run = run_kelvane(['-r'], store=store, tmp=tmp)

    assert run.status == 0
    assert run.stdout == '{"adapters":[],"devices":[],"error":"","result":"ok"}\n'
    assert run.stderr == ''
    restored = as_copied(RESTORE_SOURCE, expected(tmp))
    # Sanity of the expectation itself: the links became real entries.
    assert restored[AD0 + '/' + OTHER + '/info'] == File(info('Keyboard', trusted=True), 0o600)
    assert restored[AD1 + '/22:22:22:22:22:22/info'].mode == 0o600
    assert AD0 + '/gone' not in restored
    assert run.store == {**restored, **top_hidden(expected(store))}
    assert run.store.mode == 0o700
    # The backup is exactly as it was, links and foreign owners included,
    # and nothing outside was touched.
    assert run.tmp == expected(tmp)
    assert sim.calls() == []


def test_restore_creates_a_missing_store(run_kelvane):
    backup = {**adapter_dir(AD0), **device_dir(AD0, MAC, info('Keyboard'))}
    run = run_kelvane(['-r'], store=NO_STORE, tmp=with_backup(backup))
    assert run.status == 0
    assert run.store == expected(backup)
    assert run.store.mode == 0o700


# /tmp is world-writable: a backup tree that another user planted there (or
# reached through a link they planted) must never be copied into the store.
INTRUDER = {**adapter_dir(AD1), **device_dir(AD1, MAC, info('Intruder'))}
FOREIGN_BACKUP = {
    'owned by another user': ({**with_backup(INTRUDER), 'config': Dir(0o755, uid=4242, gid=4242)},
                              '/tmp/config'),
    'linked elsewhere': ({'config': Dir(0o755), 'config/files': Symlink('/tmp/planted'),
                          'planted': Dir(0o755), 'planted/var_bluetooth': Dir(0o755),
                          **{'planted/var_bluetooth/' + rel: entry
                             for rel, entry in INTRUDER.items() if rel != '.'}},
                         '/tmp/config/files'),
}


@pytest.mark.parametrize('tmp,piece', FOREIGN_BACKUP.values(), ids=FOREIGN_BACKUP.keys())
def test_restore_refuses_a_backup_someone_else_planted(run_kelvane, tmp, piece):
    run = run_kelvane(['-r'], store=STORE, tmp=tmp)
    assert run.status == 1
    assert run.json['error'] == 'untrusted backup path: ' + piece
    assert run.store == expected(STORE)
    assert run.tmp == expected(tmp)


UNREMOVABLE = {
    'directory': ({'.': Dir(0o700), **adapter_dir(AD0)},
                  'failed to remove directory: %s/%s' % (STORE_PATH, AD0)),
    'file': ({'.': Dir(0o700), 'settings': File('x', 0o600), '.hidden': 'y'},
             'failed to remove file: %s/settings' % STORE_PATH),
}


@pytest.mark.parametrize('store,message', UNREMOVABLE.values(), ids=UNREMOVABLE.keys())
def test_restore_into_a_read_only_store_fails(run_kelvane, store, message):
    backup = {**adapter_dir(AD1), **device_dir(AD1, MAC, info('Keyboard'))}
    tmp = with_backup(backup)
    run = run_kelvane(['-r'], store=store, tmp=tmp, readonly=['store'])
    assert run.status == 1
    assert run.json == {'adapters': [], 'devices': [], 'error': message, 'result': 'error'}
    assert run.stderr == ''
    assert run.store == expected(store)
    assert run.tmp == expected(tmp)


# -- -f through BlueZ -------------------------------------------------------

FORGET_ARGS = [
    ['-f', MAC], ['-f', 'aa-bb-cc-dd-ee-ff'], ['-f', 'aA:Bb-cC:dD-eE:fF'],
    ['-f', '-v', MAC], ['-v', '-f', 'aa-bb-cc-dd-ee-ff'], ['-f', MAC, '-v'],
]


@pytest.mark.parametrize('args', FORGET_ARGS, ids=' '.join)
def test_forget_removes_the_device_through_bluez(run_kelvane, sim, args):
    sim.add_adapter('hci0')
    sim.add_adapter('hci1')
    sim.add_device('hci0', OTHER)
    sim.add_device('hci0', MAC, paired=True)
    sim.add_device('hci1', MAC, paired=True)

    run = run_kelvane(args, store=STORE)

    assert run.status == 0
    assert run.stdout == '{"adapters":[],"devices":[],"error":"","result":"ok"}\n'
    removals = sim.calls(method='RemoveDevice')
    assert [(c.path, c.interface, c.args, c.types) for c in removals] == [
        ('/org/bluez/hci0', 'org.bluez.Adapter1', [dev_path('hci0', MAC)], ['o'])]
    devices = {p for p, ifaces in sim.state()['objects'].items() if 'org.bluez.Device1' in ifaces}
    assert devices == {dev_path('hci0', OTHER), dev_path('hci1', MAC)}
    # BlueZ did the removal: the tool leaves the store to it and saves.
    assert run.store == expected(STORE)
    assert below(run.tmp, BACKUP) == visible(expected(STORE))
    if '-v' in args:
        lines = trace_lines(run)
        call = ('dbus >> org.bluez /org/bluez/hci0 org.bluez.Adapter1.RemoveDevice (%s)'
                % dev_path('hci0', MAC))
        assert call in lines
        assert lines[lines.index(call) + 1] == 'dbus << RemoveDevice ok'
        assert not any(line.startswith(SAVE_WARNING) for line in lines)
    else:
        assert run.stderr == ''


# -- -f in the store ----------------------------------------------------------

# The device under AD0 as bluetoothd writes it, under AD1 with an escaped
# name in lower case and without an info file: both directories must go.
FALLBACK_STORE = {
    '.': Dir(0o700),
    **adapter_dir(AD0),
    **device_dir(AD0, MAC, info('Keyboard', trusted=True)),
    **device_dir(AD0, OTHER, info('Mouse')),
    **adapter_dir(AD1),
    AD1 + '/' + MAC.lower().replace(':', '\\:'): Dir(0o700),
    AD1 + '/' + MAC.lower().replace(':', '\\:') + '/attributes': File('', 0o600),
    **device_dir(AD1, '22:22:22:22:22:22', info('Speaker')),
    '.hidden': File('keep me\n', 0o600),
}
FALLBACK_LEFT = {p: e for p, e in FALLBACK_STORE.items()
                 if MAC not in p and MAC.lower().replace(':', '\\:') not in p}


def bluez_refuses(sim):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, paired=True)
    sim.fault('RemoveDevice', 'org.bluez.Error.Failed', 'Operation not permitted', times=None)


def bluez_knows_other_devices(sim):
    sim.add_adapter('hci0')
    sim.add_device('hci0', OTHER)


FALLBACKS = {
    'bluez-refuses': (bluez_refuses, MAC, {}),
    'unknown-to-bluez': (bluez_knows_other_devices, 'aa-bb-cc-dd-ee-ff', {}),
    'no-daemon': (None, MAC, bluez_absent('no-daemon')),
    'no-bus': (None, MAC, bluez_absent('no-bus')),
    # Not an address for BlueZ (blanks), but the store trims it.
    'blanks-around': (bluez_knows_other_devices, ' aa-bb-cc-dd-ee-ff ', {}),
}


@pytest.mark.parametrize('world,typed,options', FALLBACKS.values(), ids=FALLBACKS.keys())
def test_forget_falls_back_to_the_store(run_kelvane, request, world, typed, options):
    sim = request.getfixturevalue('sim') if world else None
    if world:
        world(sim)

    run = run_kelvane(['-v', '-f', typed], store=FALLBACK_STORE, **options)


    assert run.status == 0
    assert run.json == {'adapters': [], 'devices': [], 'error': '', 'result': 'ok'}
    assert run.store == expected(FALLBACK_LEFT)
    assert run.store.mode == 0o700
    assert below(run.tmp, BACKUP) == visible(expected(FALLBACK_LEFT))
    assert not any(line.startswith(SAVE_WARNING) for line in trace_lines(run))
    if sim:
        removals = [c.args for c in sim.calls(method='RemoveDevice')]
        assert removals == ([[dev_path('hci0', MAC)]] if world is bluez_refuses else [])


FORGET_FAILURES = {
    'five-groups': ('AA:BB:CC:DD:EE', 'invalid Bluetooth address: AA:BB:CC:DD:EE'),
    'not-hex': ('zz:11:22:33:44:55', 'invalid Bluetooth address: zz:11:22:33:44:55'),
    'no-separators': ('AABBCCDDEEFF', 'invalid Bluetooth address: AABBCCDDEEFF'),
    'unknown': ('12:34:56:78:9A:BC', 'device not found'),
    'unknown-lower': ('12-34-56-78-9a-bc', 'device not found'),
}


@pytest.mark.parametrize('typed,message', FORGET_FAILURES.values(), ids=FORGET_FAILURES.keys())
def test_forget_of_a_device_found_nowhere_fails(run_kelvane, sim, typed, message):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, paired=True)
    tmp = with_backup({'stale': File('from an earlier save\n', 0o600)})

    run = run_kelvane(['-f', typed], store=STORE, tmp=tmp)

    assert run.status == 1
    assert run.json == {'adapters': [], 'devices': [], 'error': message, 'result': 'error'}
    assert run.stderr == ''
    assert sim.calls(method='RemoveDevice') == []
    if message.startswith('invalid'):
        assert sim.calls() == []  # the address is checked before the bus is asked
    else:
        assert sim.methods() == ['GetManagedObjects']
    # No save after a failure.
    assert run.store == expected(STORE)
    assert run.tmp == expected(tmp)


@pytest.mark.parametrize('store', [STORE, NO_STORE], ids=['device-not-stored', 'no-store'])
def test_forget_refused_by_bluez_and_not_stored_reports_bluez_error(run_kelvane, sim, store):
    sim.add_adapter('hci0')
    sim.add_device('hci0', '12:34:56:78:9A:BC', paired=True)
    sim.fault('RemoveDevice', 'org.bluez.Error.Failed', 'Operation not permitted', times=None)

    run = run_kelvane(['-f', '12:34:56:78:9a:bc'], store=store)

    assert run.status == 1
    assert run.json['error'] == 'Operation not permitted'
    assert run.json['result'] == 'error'
    assert run.tmp == {}
    assert run.store == (None if store is NO_STORE else expected(STORE))


@pytest.mark.parametrize('how', NO_BLUEZ)
def test_forget_with_neither_bluez_nor_store_reports_device_not_found(run_kelvane, how):
    run = run_kelvane(['-f', MAC], store=NO_STORE, **bluez_absent(how))
    assert run.status == 1
    assert run.json['error'] == 'device not found'
    assert run.store is None and run.tmp == {}


# -- the backup saved after -f -------------------------------------------------

def test_forget_mirrors_the_store_into_the_backup(run_kelvane, sim):
    # The store holds a device directory that is a link elsewhere: the
    # backup gets a real copy of it.
    store = {
        **FALLBACK_STORE,
        AD1 + '/33:33:33:33:33:33': Symlink('/tmp/elsewhere/dev'),
        AD0 + '/cache/.tmp': File('hidden below an adapter\n', 0o600),
    }
    tmp = with_backup(
        {
            AD0: Dir(0o755), AD0 + '/stale-file': 'gone after the save\n',
            'AA:AA:AA:AA:AA:AA': Dir(0o700),
            **device_dir('AA:AA:AA:AA:AA:AA', MAC, info('Stale adapter')),
            '.kept': File('hidden in the backup\n', 0o600),
        },
        root=Dir(0o755),
        **{'elsewhere': Dir(0o755), 'elsewhere/dev': Dir(0o750),
           'elsewhere/dev/info': File(info('Linked'), 0o600)})
    bluez_refuses(sim)

    run = run_kelvane(['-f', MAC], store=store, tmp=tmp)

    assert run.status == 0
    left = expected({p: e for p, e in store.items()
                     if MAC not in p and MAC.lower().replace(':', '\\:') not in p})
    assert run.store == left
    backup = below(run.tmp, BACKUP)
    # Mirrored with modes, hidden store entries left out, the backup's own
    # hidden file kept, links resolved.
    assert backup == {**as_copied(left, expected(tmp)), '.kept': File('hidden in the backup\n',
                                                                      0o600)}
    assert backup[AD0 + '/' + OTHER + '/info'].mode == 0o600
    assert backup[AD1 + '/33:33:33:33:33:33/info'] == File(info('Linked'), 0o600)
    assert AD0 + '/cache/.tmp' not in backup
    # The link's target is untouched.
    assert below(run.tmp, 'elsewhere') == below(expected(tmp), 'elsewhere')


def test_forget_creates_the_backup_with_its_parents(run_kelvane, sim):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC)
    run = run_kelvane(['-f', MAC], store=STORE)
    assert run.status == 0
    assert isinstance(run.tmp['config'], Dir) and isinstance(run.tmp['config/files'], Dir)
    assert below(run.tmp, BACKUP) == visible(expected(STORE))
    assert set(run.tmp) == {'config', 'config/files', BACKUP} | {
        BACKUP + '/' + p for p in visible(STORE)}


PRECIOUS = {
    'precious': Dir(0o700),
    'precious/keep': File('must survive\n', 0o600),
    'precious/files': Dir(0o700),
    'precious/files/var_bluetooth': Dir(0o700),
    'precious/files/var_bluetooth/keep': File('must survive too\n', 0o600),
}

SAVE_FAILURES = {
    'no-store': (NO_STORE, {}, (), 'source directory does not exist: /var/lib/bluetooth'),
    'config-is-a-link': (STORE, {'config': Symlink('/tmp/precious'), **PRECIOUS}, (),
                         'failed to create parent directory: /tmp/config'),
    'files-is-a-link': (STORE, {'config': Dir(0o755), 'config/files': Symlink('/tmp/precious'),
                                **PRECIOUS}, (),
                        'failed to create parent directory: /tmp/config/files'),
    'backup-is-a-link': (STORE, {'config': Dir(0o755), 'config/files': Dir(0o755),
                                 BACKUP: Symlink('/tmp/precious'), **PRECIOUS}, (),
                         'failed to create directory: /tmp/config/files/var_bluetooth'),
    'config-of-another-user': (STORE, {'config': Dir(0o777, uid=NOT_ROOT, gid=NOT_ROOT)}, (),
                               'failed to create parent directory: /tmp/config'),
    'read-only-tmp': (STORE, {}, ('tmp',),
                      'failed to create parent directory: /tmp/config/files'),
}


@pytest.mark.parametrize('verbose', [False, True], ids=['quiet', 'verbose'])
@pytest.mark.parametrize('store,tmp,readonly,message', SAVE_FAILURES.values(),
                         ids=SAVE_FAILURES.keys())
def test_a_failed_save_only_shows_in_the_trace(run_kelvane, sim, store, tmp, readonly, message,
                                               verbose):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC)
    args = ['-v', '-f', MAC] if verbose else ['-f', MAC]

    run = run_kelvane(args, store=store, tmp=tmp, readonly=readonly)

    assert run.status == 0
    assert run.stdout == '{"adapters":[],"devices":[],"error":"","result":"ok"}\n'
    assert [c.args for c in sim.calls(method='RemoveDevice')] == [[dev_path('hci0', MAC)]]
    if verbose:
        warnings = [line for line in trace_lines(run) if 'failed to save' in line]
        assert warnings == [SAVE_WARNING + message]
    else:
        assert run.stderr == ''
    assert run.tmp == expected(tmp)
    assert run.store == (None if store is NO_STORE else expected(store))


# -- as a normal user ------------------------------------------------------------

NORMAL_USER = [(['-l'], '-l'), (['-r'], '-r'), (['-f', MAC], '-f'), (['-v', '-f', OTHER], '-f')]


@pytest.mark.parametrize('args,option', NORMAL_USER, ids=[' '.join(a) for a, _ in NORMAL_USER])
def test_a_normal_user_gets_only_the_root_error(run_kelvane, sim, args, option):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, paired=True)
    tmp = with_backup(RESTORE_SOURCE, **OUTSIDE)

    run = run_kelvane(args, root=False, store=STORE, tmp=tmp, expect_json=False)

    assert (run.status, run.stdout) == (1, '')
    assert run.stderr == 'error: ' + option + ' requires root privileges\n'
    assert sim.calls() == []
    assert run.store == expected(STORE)
    assert run.tmp == expected(tmp)


# -- links never lead outside ----------------------------------------------------

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
LINK_TARGETS = {
    'outside': Dir(0o755),
    'outside/settings': File('[General]\nDiscoverable=true\n', 0o600),
    'outside/attributes': File('[0x0001]\n', 0o600),
    'outside/device': Dir(0o700),
    'outside/device/info': File(info('Keyboard'), 0o600),
    'outside/cache': Dir(0o700),
    'outside/cache/entry': File('cached\n', 0o600),
    'outside/adapter': Dir(0o700),
    'outside/adapter/22:22:22:22:22:22': Dir(0o700),
    'outside/adapter/22:22:22:22:22:22/info': File(info('Speaker'), 0o600),
}
RESTORE_WITH_LINK = {**adapter_dir(AD0), AD0 + '/' + MAC: Symlink('/tmp/outside/device')}
# args, device BlueZ knows, the error, the store entries that go.
LINK_CASES = {
    'forget-linked-device': (['-f', MAC], None, '', [AD0 + '/' + MAC]),
    'forget-device-holding-links': (['-f', OTHER], None, '', [AD0 + '/' + OTHER]),
    # Deleting there would delete in /tmp/outside: the store has no such device.
    'forget-under-linked-adapter': (['-f', '22:22:22:22:22:22'], None, 'device not found', []),
    'forget-via-bluez': (['-f', MAC], MAC, '', []),
    'list': (['-l'], OTHER, '', []),
    'restore': (['-r'], None, '', list(LINKED_STORE)),
}


@pytest.mark.parametrize('args,live,error,gone', LINK_CASES.values(), ids=LINK_CASES.keys())
def test_links_in_the_store_never_lead_to_changes_outside(run_kelvane, request, args, live,
                                                          error, gone):
    if live:
        sim = request.getfixturevalue('sim')
        sim.add_adapter('hci0')
        sim.add_device('hci0', live)
    tmp = dict(LINK_TARGETS)
    if args == ['-r']:
        tmp.update(with_backup(RESTORE_WITH_LINK))

    run = run_kelvane(args, store=LINKED_STORE, tmp=tmp)

    assert (run.status, run.json['error']) == (1 if error else 0, error)
    assert below(run.tmp, 'outside') == below(expected(tmp), 'outside')
    left = {p: e for p, e in expected(LINKED_STORE).items()
            if not any(p == g or p.startswith(g + '/') for g in gone)}
    restored = as_copied(RESTORE_WITH_LINK, expected(tmp)) if args == ['-r'] else {}
    assert run.store == {**left, **restored}
    if args[0] == '-f' and not error:
        # The saved backup holds copies, never links.
        assert below(run.tmp, BACKUP) == as_copied(left, expected(tmp))
