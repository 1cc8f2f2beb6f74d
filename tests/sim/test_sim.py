# What kelvane-sim(1) promises, one row each: the world a scenario sets up, a
# call made to it, and the reply, error or store it must leave. How the store
# takes a pairing, a change of trust and a removal is held against
# bluetoothd's own store in test_bluetoothd.py; the rows here pin the rest.

import json
import os
import subprocess
import sys
import time
from pathlib import Path

import pytest

from kelvane_sim import Sim, cli, scenario

LAUNCHER = [sys.executable, '-B', str(Path(__file__).resolve().parents[2] / 'sim' / 'kelvane-sim')]

HOST = '00:1A:7D:DA:71:13'
MAC = 'AA:BB:CC:DD:EE:FF'
DEV = '/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF'
INFO, CACHE, SETTINGS = HOST + '/' + MAC + '/info', HOST + '/cache/' + MAC, HOST + '/settings'
HID = '00001124-0000-1000-8000-00805f9b34fb'
PAGE_TIMEOUT = ['org.bluez.Error.ConnectionAttemptFailed', 'Page Timeout']
# usb:v046Dp4069d0100 as stored
DEVICE_ID = '[DeviceID]\nSource=2\nVendor=1133\nProduct=16489\nVersion=256\n\n'
STORED = {INFO: '[General]\nName=Mouse\nClass=0x002580\nTrusted=true\nServices=%s;\n\n%s'
                '[LinkKey]\nKey=00\n' % (HID, DEVICE_ID),
          HOST + '/' + MAC + '/attributes': '[1]\n',
          CACHE: '[General]\nName=Mouse\n\n[ServiceRecords]\n0x00010001=35\n',
          SETTINGS: '[General]\nDiscoverable=true\n'}


def device(**values):
    return dict({'adapter': 'hci0', 'address': MAC, 'name': 'Mouse'}, **values)


def world_of(*devices, **more):
    return dict({'adapters': [{'id': 'hci0', 'address': HOST}], 'devices': list(devices)}, **more)


def props(w, path, *names):
    return {name: w.devices().get(path, {}).get(name) for name in names}


def kelvane_sim(*argv):  # (exit status, stdout, stderr) of kelvane-sim with these words
    done = subprocess.run(LAUNCHER + [str(a) for a in argv], capture_output=True, text=True,
                          timeout=60, check=False)
    return done.returncode, done.stdout, done.stderr


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
    stored = sorted(w.files())
    removed = w.call('/org/bluez/hci0', 'org.bluez.Adapter1', 'RemoveDevice', 'o', DEV)
    gone = DEV not in w.devices()
    w.discover(0.6)
    return stored, removed, gone, props(w, DEV, 'Paired', 'Trusted'), INFO in w.files()


def serve_and_call(_w):
    # run without a command, driven by other processes until SIGTERM: call, a client of BlueZ;
    # once it has stopped, call finds no simulator there.
    process = subprocess.Popen(LAUNCHER + ['run', '--calls'], stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True)
    address = process.stdout.readline().strip().split('=', 1)[1]
    pen = json.dumps(device(address='11:22:33:44:55:66', name='Pen'))
    added, path, _ = kelvane_sim('call', address, 'add_device', pen)
    status, out, _ = kelvane_sim('call', address, 'props', '[%s]' % path)
    attached = Sim.attach(address)
    attached.conn.call_blocking('org.bluez', '/', 'org.freedesktop.DBus.ObjectManager',
                                'GetManagedObjects', '', [])
    attached.stop()
    process.terminate()
    _, errors = process.communicate(timeout=30)
    gone = kelvane_sim('call', address, 'state')
    return (added, status, json.loads(out)['Name'], process.returncode,
            'org.freedesktop.DBus.ObjectManager.GetManagedObjects' in errors,
            gone[0], gone[2].startswith('kelvane-sim: no simulated BlueZ on %s: ' % address))


def join_taken_bus(w):
    status, _, errors = kelvane_sim('run', '--empty', '--bus', w.bus.address, '--', 'true')
    return status, errors.replace(w.bus.address, 'BUS')


def isolated(w):
    # What the command sees of the host: only the store (the scenario's pairing).
    (w.root.parent / 'paired.json').write_text(json.dumps(world_of(device(paired=True))))
    leak = Path('/tmp/kelvane-sim-test-%d' % os.getpid())
    status, out, errors = kelvane_sim('run', '--isolate', '--scenario',
                                      w.root.parent / 'paired.json', '--', 'sh', '-c',
                                      'find /tmp /run /var/lib; touch ' + str(leak))
    return status, sorted(out.replace('/var/lib/bluetooth/', '').split()), errors, leak.exists()


def check_files(w):
    loud, lost = w.root.parent / 'loud.json', w.root.parent / 'lost.json'
    loud.write_text(json.dumps(world_of(device(adapter='hci1', rssi=300))))
    lost.write_text(json.dumps(world_of(device(adapter='hci1'))))
    status, out, errors = kelvane_sim('check', scenario.DEMO_PATH, loud, lost)
    return status, out, errors.replace(str(w.root.parent) + '/', '')


ROWS = [  # id, scenario, store before, what is done, what must come of it
    ('pairing writes info, cache entry and settings, the same key in every run',
     world_of(device(**{'class': '0x2580', 'uuids': [HID], 'pairing': 'just-works',
                        'modalias': 'usb:v046Dp4069d0100'})), None,
     lambda w: (w.pair(DEV), w.files()),
     ('ok', {INFO: '[General]\nName=Mouse\nClass=0x002580\nSupportedTechnologies=BR/EDR;\n'
                   'Trusted=false\nBlocked=false\nAddressType=public\nServices=%s;\n\n%s'
                   '[LinkKey]\nKey=51FA5422B30857F64AEAC29E55AD35AA\nType=4\nPINLength=0\n'
                   % (HID, DEVICE_ID), CACHE: '[General]\nName=Mouse\n', SETTINGS: ''})),
    ('RemoveDevice deletes the directory and trims the cache entry', world_of(), STORED,
     lambda w: (w.call('/org/bluez/hci0', 'org.bluez.Adapter1', 'RemoveDevice', 'o', DEV),
                w.files()),
     ('ok', {CACHE: '[General]\nName=Mouse\n', SETTINGS: STORED[SETTINGS]})),
    ('page timeout once, then the pairing goes through',
     world_of(device(pairing={'mode': 'just-works', 'page_timeout': 'once'})), None,
     lambda w: [w.pair(DEV), w.pair(DEV)], [PAGE_TIMEOUT, 'ok']),
    ('page timeout always', world_of(device(pairing={'page_timeout': 'always'})), None,
     lambda w: [w.pair(DEV), w.pair(DEV)], [PAGE_TIMEOUT, PAGE_TIMEOUT]),
    ('a pairing error comes after the steps and stores nothing',
     world_of(device(pairing={'error': {'name': 'org.bluez.Error.AuthenticationRejected',
                                        'message': 'Authentication Rejected'}})), None,
     lambda w: (w.pair(DEV), w.files()),
     (['org.bluez.Error.AuthenticationRejected', 'Authentication Rejected'], {})),
    ('a slow device takes its delay', world_of(device(pairing={'mode': 'just-works',
                                                               'delay': 0.4})), None,
     timed_pair, ('ok', True)),
    ('a device appears, then its signal changes, with discovery',
     world_of(device(appear_after=0.2, rssi=-70, changes=[{'after': 2.0, 'rssi': -40}])), None,
     appear_and_change, [False, -70, -40, None, -40]),
    ('a device paired in the scenario is stored at start; removed, it is found again, unpaired, '
     'and unstored', world_of(device(paired=True, trusted=True, reappear_after=0.3)), None,
     remove_and_rediscover,
     ([INFO, CACHE, SETTINGS], 'ok', True, {'Paired': False, 'Trusted': False}, False)),
    ('faults of the scenario', world_of(faults=[{'method': 'StartDiscovery',
                                                 'error': 'org.bluez.Error.Failed'}]), None,
     lambda w: [w.call('/org/bluez/hci0', 'org.bluez.Adapter1', 'StartDiscovery')
                for _ in range(2)], [['org.bluez.Error.Failed', 'Failed'], 'ok']),
    ('an adapter added later takes back its stored devices, bonded, and its settings', {},
     STORED, lambda w: (w.sim.add_adapter('hci0', address=HOST),
                        props(w, DEV, 'Paired', 'Bonded', 'Trusted', 'Connected', 'Class',
                              'UUIDs', 'Modalias'),
                        w.call('/org/bluez/hci0', 'org.freedesktop.DBus.Properties', 'Get',
                               'ss', 'org.bluez.Adapter1', 'Discoverable')),
     ('/org/bluez/hci0', {'Paired': True, 'Bonded': True, 'Trusted': True, 'Connected': False,
                          'Class': 0x2580, 'UUIDs': [HID], 'Modalias': 'usb:v046Dp4069d0100'},
      True)),
    ('run stays up for call and clients and logs their calls; call fails once it is gone', {},
     None, serve_and_call, (0, 0, 'Pen', 0, True, 1, True)),
    ('run joins a given bus, unless org.bluez is taken there', {}, None, join_taken_bus,
     (1, 'kelvane-sim: org.bluez is already owned on BUS\n')),
    ('run runs a command against the simulator and exits with its status', world_of(), None,
     lambda w: kelvane_sim('run', '--empty', '--store', w.root / 'new', '--', 'sh', '-c',
                           'test -n "$DBUS_SYSTEM_BUS_ADDRESS" && test -d %s && exit 3'
                           % (w.root / 'new'))[0], 3),
    ('run --isolate gives the command a /tmp, /run and /var/lib of its own, the store in it',
     {}, None, isolated,
     (0, sorted(['/tmp', '/run', '/var/lib', '/var/lib/bluetooth', HOST, HOST + '/' + MAC, INFO,
                 HOST + '/cache', CACHE, SETTINGS]), '', False)
     if os.geteuid() == 0 else (1, [], 'kelvane-sim: --isolate needs root (it makes a mount '
                                'namespace)\n', False)),
    ('check accepts the demo and names what is wrong', world_of(), None, check_files,
     (1, '%s: ok\n' % scenario.DEMO_PATH, 'loud.json: devices[0].rssi: 300 is greater than the '
      'maximum of 20\nlost.json: devices[0].adapter: no adapter hci1 in this scenario\n')),
    ('the manual page documents every method of call', {}, None,
     lambda w: [method for method in cli.CALLS
                if '.B ' + method not in (scenario.HERE.parent / 'kelvane-sim.1').read_text()], []),
]


@pytest.mark.parametrize('scenario_data,store,action,expected', [row[1:] for row in ROWS],
                         ids=[row[0] for row in ROWS])
def test_simulator(world, scenario_data, store, action, expected):
    assert action(world(scenario_data, store)) == expected
