'''BlueZ's store (/var/lib/bluetooth) as the simulator keeps it.

bluetoothd 5.66, watched in tests/realbluez, keeps one directory per adapter
(named by its address) with a `settings` key file, one directory per bonded
device with an `info` key file, and `cache/<device>` with the device's name.
The simulator writes the same files at the same moments, so that a tool
reading the store sees what it would see next to the real daemon:

- a pairing writes the device's `info` ([General] with name, class,
  services, trust; [DeviceID] from its Modalias; [LinkKey], and the LE
  signature and long term keys of a device that also speaks LE), its cache
  entry, and an empty `settings` for an adapter that had none;
- a change of a stored device's Trusted or Blocked rewrites that key;
- RemoveDevice deletes the device's directory, then trims its cache entry to
  [General] Name (in that order: the tool waits for both);
- at start, the store's devices come back as bonded objects.

Only plain values cross this module's edges; D-Bus types are the caller's.
Files are replaced by rename, as bluetoothd does, with mode 0600 in 0700
directories.
'''

import hashlib
import os
import re
import shutil
from pathlib import Path

KEY_SECTIONS = ('LinkKey', 'LongTermKey', 'PeripheralLongTermKey', 'SlaveLongTermKey')
# The keys bluetoothd keeps for the LE side of a dual-mode device, beside its link key.
SIGNATURE_KEY = {'Counter': '0', 'Authenticated': 'false'}
LONG_TERM_KEY = {'Authenticated': '0', 'EncSize': '16', 'EDiv': '0', 'Rand': '0'}
LE_KEYS = {'RemoteSignatureKey': SIGNATURE_KEY, 'LocalSignatureKey': SIGNATURE_KEY,
           'PeripheralLongTermKey': LONG_TERM_KEY, 'SlaveLongTermKey': LONG_TERM_KEY}
# A Modalias and the Device ID it comes from (Source 1: Bluetooth SIG, 2: USB).
MODALIAS = re.compile(r'(bluetooth|usb):v([0-9A-F]{4})p([0-9A-F]{4})d([0-9A-F]{4})', re.I)
SOURCES, ID_KEYS = ('bluetooth', 'usb'), ('Vendor', 'Product', 'Version')


def parse_keyfile(text):
    '''{section: {key: value}} of a GKeyFile text, in file order; lines
    before the first section, comments and lines without "=" are skipped.'''
    sections, current = {}, None
    for line in text.splitlines():
        line = line.strip()
        if not line or line.startswith(('#', ';')):
            continue
        if line.startswith('[') and line.endswith(']'):
            current = sections.setdefault(line[1:-1], {})
        elif current is not None and '=' in line:
            key, value = line.split('=', 1)
            current[key.strip()] = value.strip()
    return sections


def render_keyfile(sections):
    '''The text GKeyFile writes: sections separated by one blank line.'''
    return '\n'.join('[%s]\n%s' % (name, ''.join('%s=%s\n' % item for item in keys.items()))
                     for name, keys in sections.items())


def link_key(adapter, device, kind=''):
    '''A key derived from the two addresses: a simulated pairing needs no
    secret, and a fixed key keeps runs and their backups reproducible.'''
    return hashlib.sha256(('%s/%s%s' % (adapter, device, kind)).encode()).hexdigest()[:32].upper()


def info_sections(adapter, props, technologies=None):
    '''The info file bluetoothd writes for a device paired through an
    adapter, from the device's properties (plain values) and the
    technologies it speaks (by default LE for a random address, else BR/EDR).'''
    low_energy = props.get('AddressType') == 'random'
    technologies = technologies or (['LE'] if low_energy else ['BR/EDR'])
    general = {}
    if props.get('Name'):
        general['Name'] = props['Name']
    if props.get('Class') is not None:
        general['Class'] = '0x%06x' % props['Class']
    if props.get('Appearance') is not None:
        general['Appearance'] = '0x%04x' % props['Appearance']
    general['SupportedTechnologies'] = ''.join(name + ';' for name in technologies)
    general['Trusted'] = stored_bool(props.get('Trusted', False))
    general['Blocked'] = stored_bool(props.get('Blocked', False))
    general['AddressType'] = 'static' if low_energy else 'public'
    if props.get('UUIDs'):
        general['Services'] = ''.join(uuid + ';' for uuid in props['UUIDs'])
    sections = {'General': general}
    device_id = MODALIAS.fullmatch(props.get('Modalias', ''))
    if device_id:
        source, *numbers = device_id.groups()
        sections['DeviceID'] = {'Source': str(SOURCES.index(source.lower()) + 1),
                                **{key: str(int(n, 16)) for key, n in zip(ID_KEYS, numbers)}}
    device = props['Address'].upper()
    sections['LinkKey'] = {'Key': link_key(adapter, device), 'Type': '4', 'PINLength': '0'}
    if 'LE' in technologies and 'BR/EDR' in technologies:
        for name, values in LE_KEYS.items():
            sections[name] = {'Key': link_key(adapter, device, name), **values}
    return sections


def device_props(sections):
    '''The properties bluetoothd gives a device it loads from the store:
    bonded when the file holds a key, never connected.'''
    general = sections.get('General', {})
    bonded = any(name in sections for name in KEY_SECTIONS)
    props = {'Paired': bonded, 'Bonded': bonded, 'Connected': False,
             'Trusted': general.get('Trusted') == 'true',
             'Blocked': general.get('Blocked') == 'true',
             'AddressType': 'random' if general.get('AddressType') == 'static' else 'public'}
    if general.get('Name'):
        props['Name'] = props['Alias'] = general['Name']
    for key in ('Class', 'Appearance'):
        if general.get(key):
            props[key] = int(general[key], 16)
    if 'Services' in general:
        props['UUIDs'] = [uuid for uuid in general['Services'].split(';') if uuid]
    device_id = sections.get('DeviceID', {})
    if device_id.get('Source') in ('1', '2'):
        props['Modalias'] = '%s:v%04Xp%04Xd%04X' % (SOURCES[int(device_id['Source']) - 1], *(
            int(device_id.get(key, '0')) for key in ID_KEYS))
    return props


def adapter_props(settings):
    '''What bluetoothd takes back from an adapter's settings at start.'''
    general = settings.get('General', {})
    props = {}
    if 'Discoverable' in general:
        props['Discoverable'] = general['Discoverable'] == 'true'
    if 'DiscoverableTimeout' in general:
        props['DiscoverableTimeout'] = int(general['DiscoverableTimeout'])
    if 'Alias' in general:
        props['Alias'] = general['Alias']
    return props


def stored_bool(value):
    return 'true' if value else 'false'


class Store:
    '''The store under `root`, created (mode 0700) when missing.'''

    def __init__(self, root):
        self.root = Path(root)
        self.root.mkdir(mode=0o700, parents=True, exist_ok=True)
        if not os.access(self.root, os.W_OK | os.X_OK):
            raise PermissionError('the store %s is not writable' % self.root)

    def devices(self, adapter):
        '''{device address: info sections} of the adapter's stored devices.'''
        found = {}
        directory = self.root / adapter
        for entry in sorted(directory.iterdir()) if directory.is_dir() else ():
            info = entry / 'info'
            if entry.is_dir() and info.is_file():
                found[entry.name] = parse_keyfile(info.read_text(errors='replace'))
        return found

    def settings(self, adapter):
        path = self.root / adapter / 'settings'
        return parse_keyfile(path.read_text(errors='replace')) if path.is_file() else {}

    def holds(self, adapter, device):
        return (self.root / adapter / device / 'info').is_file()

    def paired(self, adapter, props, technologies=None):
        '''A pairing completed: the device's info and cache entry, and the
        adapter's settings when it had none.'''
        device = props['Address'].upper()
        if not (self.root / adapter / 'settings').exists():
            self._write(Path(adapter, 'settings'), '')
        self._write(Path(adapter, device, 'info'),
                    render_keyfile(info_sections(adapter, props, technologies)))
        if props.get('Name'):
            self._merge(Path(adapter, 'cache', device), 'General', {'Name': props['Name']})

    def update_device(self, adapter, device, changes):
        '''Rewrites [General] keys of a stored device; others are not stored.'''
        if self.holds(adapter, device):
            self._merge(Path(adapter, device, 'info'), 'General', changes)

    def update_settings(self, adapter, changes):
        self._merge(Path(adapter, 'settings'), 'General', changes)

    def remove(self, adapter, device):
        '''RemoveDevice: the directory goes first, then the cache entry is
        cut down to the name, as bluetoothd does it.'''
        shutil.rmtree(self.root / adapter / device, ignore_errors=True)
        cache = self.root / adapter / 'cache' / device
        if cache.is_file():
            name = parse_keyfile(cache.read_text(errors='replace')).get('General', {}).get('Name')
            self._write(cache.relative_to(self.root),
                        render_keyfile({'General': {'Name': name}} if name else {}))

    def _merge(self, relative, section, changes):
        path = self.root / relative
        sections = parse_keyfile(path.read_text(errors='replace')) if path.is_file() else {}
        sections.setdefault(section, {}).update(changes)
        self._write(relative, render_keyfile(sections))

    def _write(self, relative, text):
        '''Writes beside and renames over, directories made level by level
        with mode 0700.'''
        directory = self.root
        for part in relative.parent.parts:
            directory = directory / part
            if not directory.is_dir():
                directory.mkdir(mode=0o700)
        target = self.root / relative
        temporary = target.with_name(target.name + '.sim-new')
        descriptor = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC,
                             0o600)
        with os.fdopen(descriptor, 'w') as out:
            out.write(text)
        os.replace(temporary, target)
