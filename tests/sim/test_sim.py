'''What kelvane-sim(1) promises, one row each: the world a scenario sets
up, a call made to it, and the reply, error or store it must leave.'''

import json
import re
import subprocess
import sys
import time
from pathlib import Path

import pytest

from kelvane_sim import Sim, cli, scenario

LAUNCHER = Path(__file__).resolve().parents[2] / 'sim' / 'kelvane-sim'

HOST = '00:1A:7D:DA:71:13'
MAC = 'AA:BB:CC:DD:EE:FF'
DEV = '/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF'
INFO, CACHE, SETTINGS = HOST + '/' + MAC + '/info', HOST + '/cache/' + MAC, HOST + '/settings'
HID = '00001124-0000-1000-8000-00805f9b34fb'
PAGE_TIMEOUT = 'org.bluez.Error.ConnectionAttemptFailed'
STORED = {INFO: '[General]\nName=Mouse\nClass=0x002580\nTrusted=true\nServices=%s;\n\n'
                '[LinkKey]\nKey=00\n' % HID,
          HOST + '/' + MAC + '/attributes': '[1]\n',
          CACHE: '[General]\nName=Mouse\n\n[ServiceRecords]\n0x00010001=35\n',
          SETTINGS: '[General]\nDiscoverable=true\n'}


def device(**values):
    return dict({'adapter': 'hci0', 'address': MAC, 'name': 'Mouse'}, **values)


def world_of(*devices, **more):
    return dict({'adapters': [{'id': 'hci0', 'address': HOST}], 'devices': list(devices)}, **more)


def props(w, path, *names):
    return {name: w.devices().get(path, {}).get(name) for name in names}


def timed_pair(w):
    started = time.monotonic()
    return w.pair(DEV), time.monotonic() - started >= 0.4


def appear_and_change(w):
    seen = [DEV in w.devices()]
    w.discover(0.5)
    seen.append(props(w, DEV, 'RSSI')['RSSI'])
    w.discover(2.0)
    seen.append(props(w, DEV, 'RSSI')['RSSI'])
    # Heard only while discovery runs, and heard again when it runs again.
    w.call('/org/bluez/hci0', 'org.bluez.Adapter1', 'StopDiscovery')
    seen.append(props(w, DEV, 'RSSI')['RSSI'])
    w.discover(0.1)
    return seen + [props(w, DEV, 'RSSI')['RSSI']]


def remove_and_rediscover(w):
    removed = w.call('/org/bluez/hci0', 'org.bluez.Adapter1', 'RemoveDevice', 'o', DEV)
    gone = DEV not in w.devices()
    w.discover(0.6)
    return removed, gone, props(w, DEV, 'Paired', 'Trusted'), INFO in w.files()


def call_through_cli(w):
    added = w.cli('call', w.bus.address, 'add_device',
                  json.dumps({'adapter': 'hci0', 'address': '11:22:33:44:55:66', 'name': 'Pen'}))
    status, out, _ = w.cli('call', w.bus.address, 'props', '["%s"]' % DEV.replace(MAC.replace(
        ':', '_'), '11_22_33_44_55_66'))
    return added[0], status, json.loads(out)['Name']


def serve_and_attach(_w):
    '''run without a command, driven by another process until SIGTERM.'''
    process = subprocess.Popen([sys.executable, str(LAUNCHER), 'run', '--empty', '--calls'],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    address = process.stdout.readline().strip().split('=', 1)[1]
    attached = Sim.attach(address)
    attached.add_adapter('hci0')
    attached.conn.call_blocking('org.bluez', '/', 'org.freedesktop.DBus.ObjectManager',
                                'GetManagedObjects', '', [])
    attached.stop()
    process.terminate()
    _, errors = process.communicate(timeout=30)
    return process.returncode, 'org.freedesktop.DBus.ObjectManager.GetManagedObjects' in errors


def check_files(w):
    bad = w.root.parent / 'bad.json'
    bad.write_text(json.dumps(world_of(device(adapter='hci1', rssi=300))))
    first = w.cli('check', scenario.DEMO_PATH, bad)
    bad.write_text(json.dumps(world_of(device(adapter='hci1'))))
    second = w.cli('check', bad)
    return first[0], first[1], first[2].replace(str(bad), 'F'), second[2].replace(str(bad), 'F')


def documented_calls(_w):
    manual = (scenario.HERE.parent / 'kelvane-sim.1').read_text()
    return [method for method in cli.CALLS if '.B ' + method not in manual]


ROWS = [  # id, scenario, store before, what is done, what must come of it
    ('pairing writes info, cache entry and settings',
     world_of(device(**{'class': '0x2580', 'uuids': [HID], 'pairing': 'just-works'})), None,
     lambda w: (w.pair(DEV), sorted(w.files().items())),
     ('ok', [(INFO, re.compile(
         r'\[General\]\nName=Mouse\nClass=0x002580\nSupportedTechnologies=BR/EDR;\n'
         r'Trusted=false\nBlocked=false\nAddressType=public\nServices=%s;\n\n'
         r'\[LinkKey\]\nKey=[0-9A-F]{32}\nType=4\nPINLength=0\n' % HID)),
             (CACHE, '[General]\nName=Mouse\n'), (SETTINGS, '')])),
    ('a stored device comes back bonded, its adapter discoverable', world_of(), STORED,
     lambda w: (props(w, DEV, 'Paired', 'Bonded', 'Trusted', 'Connected', 'Class', 'UUIDs'),
                w.call('/org/bluez/hci0', 'org.freedesktop.DBus.Properties', 'Get', 'ss',
                       'org.bluez.Adapter1', 'Discoverable')),
     ({'Paired': True, 'Bonded': True, 'Trusted': True, 'Connected': False, 'Class': 0x2580,
       'UUIDs': [HID]}, True)),
    ('a change of trust is written to the store', world_of(), STORED,
     lambda w: (w.call(DEV, 'org.freedesktop.DBus.Properties', 'Set', 'ssv', 'org.bluez.Device1',
                       'Trusted', False), w.files()[INFO].splitlines()[3]),
     ('ok', 'Trusted=false')),
    ('RemoveDevice deletes the directory and trims the cache entry', world_of(), STORED,
     lambda w: (w.call('/org/bluez/hci0', 'org.bluez.Adapter1', 'RemoveDevice', 'o', DEV),
                w.files()),
     ('ok', {CACHE: '[General]\nName=Mouse\n', SETTINGS: STORED[SETTINGS]})),
    ('a device paired in the scenario is stored at start', world_of(device(paired=True)), None,
     lambda w: sorted(w.files()), sorted([SETTINGS, CACHE, INFO])),
    ('page timeout once, then the pairing goes through',
     world_of(device(pairing={'mode': 'just-works', 'page_timeout': 'once'})), None,
     lambda w: [w.pair(DEV), w.pair(DEV)], [PAGE_TIMEOUT, 'ok']),
    ('page timeout always', world_of(device(pairing={'page_timeout': 'always'})), None,
     lambda w: [w.pair(DEV), w.pair(DEV)], [PAGE_TIMEOUT, PAGE_TIMEOUT]),
    ('a pairing error comes after the steps and stores nothing',
     world_of(device(pairing={'error': {'name': 'org.bluez.Error.AuthenticationRejected',
                                        'message': 'Authentication Rejected'}})), None,
     lambda w: (w.pair(DEV), w.files()), ('org.bluez.Error.AuthenticationRejected', {})),
    ('a slow device takes its delay', world_of(device(pairing={'mode': 'just-works',
                                                               'delay': 0.4})), None,
     timed_pair, ('ok', True)),
    ('a device appears, then its signal changes, with discovery',
     world_of(device(appear_after=0.2, rssi=-70, changes=[{'after': 2.0, 'rssi': -40}])), None,
     appear_and_change, [False, -70, -40, None, -40]),
    ('a removed device is found again, unpaired, and unstored',
     world_of(device(paired=True, trusted=True, reappear_after=0.3)), None,
     remove_and_rediscover, ('ok', True, {'Paired': False, 'Trusted': False}, False)),
    ('faults of the scenario', world_of(faults=[{'method': 'StartDiscovery',
                                                 'error': 'org.bluez.Error.Failed'}]), None,
     lambda w: [w.call('/org/bluez/hci0', 'org.bluez.Adapter1', 'StartDiscovery')
                for _ in range(2)], ['org.bluez.Error.Failed', 'ok']),
    ('an adapter added later takes back its stored devices', {}, STORED,
     lambda w: (w.sim.add_adapter('hci0', address=HOST), props(w, DEV, 'Paired')),
     ('/org/bluez/hci0', {'Paired': True})),
    ('run stays up for clients that attach, and logs their calls', {}, None, serve_and_attach,
     (0, True)),
    ('run joins a given bus, unless org.bluez is taken there', {}, None,
     lambda w: w.cli('run', '--empty', '--bus', w.bus.address, '--', 'true')[::2],
     (1, re.compile(r'kelvane-sim: org\.bluez is already owned on unix:abstract=kelvane-.+\n'))),
    ('call drives a running simulator', world_of(), None, call_through_cli, (0, 0, 'Pen')),
    ('call without a simulator there', world_of(), None,
     lambda w: w.cli('call', 'unix:abstract=kelvane-nobody-here', 'state')[::2],
     (1, re.compile(r'kelvane-sim: no simulated BlueZ on unix:abstract=kelvane-nobody-here: .+\n'))),
    ('run runs a command against the simulator and exits with its status', world_of(), None,
     lambda w: w.cli('run', '--empty', '--store', w.root / 'new', '--', 'sh', '-c',
                     'test -n "$DBUS_SYSTEM_BUS_ADDRESS" && test -d %s && exit 3'
                     % (w.root / 'new'))[0], 3),
    ('check accepts the demo and names what is wrong', world_of(), None, check_files,
     (1, '%s: ok\n' % scenario.DEMO_PATH, 'F: devices[0].rssi: 300 is greater than the maximum '
      'of 20\n', 'F: devices[0].adapter: no adapter hci1 in this scenario\n')),
    ('the manual page documents every method of call', world_of(), None, documented_calls, []),
]


def matches(actual, expected):
    if isinstance(expected, re.Pattern):
        return isinstance(actual, str) and expected.fullmatch(actual) is not None
    if isinstance(expected, (list, tuple)):
        return isinstance(actual, (list, tuple)) and len(actual) == len(expected) and all(
            matches(a, e) for a, e in zip(actual, expected))
    return actual == expected


@pytest.mark.parametrize('scenario_data,store,action,expected', [row[1:] for row in ROWS],
                         ids=[row[0] for row in ROWS])
def test_simulator(world, scenario_data, store, action, expected):
    outcome = action(world(scenario_data, store))
    assert matches(outcome, expected), outcome
