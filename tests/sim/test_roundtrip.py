'''kelvane itself against the simulator's store: -p, -l, -f and -r round-trip
through the files the simulator writes, across a restart of the simulator.
Each run happens in a mount namespace (tests/e2e/harness.py) in which the
simulator's store directory is /var/lib/bluetooth.'''

import os
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / 'tests' / 'e2e'))

import harness  # noqa: E402  pylint: disable=wrong-import-position
from kelvane_sim.client import PrivateBus, Sim  # noqa: E402  pylint: disable=wrong-import-position

if os.geteuid() == 0:  # a /tmp of this process's own, as in the end-to-end suites
    harness.enter_private_namespace()

HOST, MAC = '00:1A:7D:DA:71:13', 'C8:7B:23:9A:11:F0'
DEV = '/org/bluez/hci0/dev_C8_7B_23_9A_11_F0'
INFO, CACHE = '%s/%s/info' % (HOST, MAC), '%s/cache/%s' % (HOST, MAC)
HID = '00001124-0000-1000-8000-00805f9b34fb'
# Out of reach at the first attempt, back one second into the discovery the
# tool starts after removing it; then a passkey to confirm.
WORLD = {'adapters': [{'id': 'hci0', 'address': HOST}],
         'devices': [{'adapter': 'hci0', 'address': MAC, 'name': 'Desk Keyboard',
                      'class': '0x002540', 'uuids': [HID], 'rssi': -60, 'reappear_after': 1,
                      'pairing': {'mode': 'confirm', 'passkey': 4711, 'page_timeout': 'once'}}]}


def test_pair_list_forget_restore_and_restart(tmp_path):
    binary = os.environ.get('KELVANE_BIN') or pytest.skip('KELVANE_BIN is set by CTest')
    if os.geteuid() != 0:
        pytest.skip('the runs need root for their mount namespaces')
    store = tmp_path / 'store'
    store.mkdir(mode=0o700)
    with PrivateBus() as bus:
        def run(args, tmp=None):
            return harness.run_kelvane(args, binary=binary, bus_address=bus.address,
                                       box=harness.Box(tmp, store_from=store))

        with Sim(bus, scenario=WORLD, store=store):
            paired = run(['-p', MAC])
            paired_info, paired_tmp = (store / INFO).read_text(), paired.tmp
            listed, forgotten = run(['-l']), run(['-f', MAC])
            forgotten_left = ((store / INFO).exists(), (store / CACHE).read_text())
            restored, restored_info = run(['-r'], tmp=paired_tmp), (store / INFO).read_text()
        with Sim(bus, scenario=WORLD, store=store) as restarted:
            relisted, live = run(['-l']), restarted.props(DEV)

    runs = (paired, listed, forgotten, restored, relisted)
    assert [(r.status, r.json['error']) for r in runs] == [(0, '')] * 5, runs
    events = paired.events()
    assert [(e['event'], e.get('passkey')) for e in events] == [
        ('passkey', '004711'), ('trusted', None), ('connected', None)]
    expected = {'address': MAC, 'name': 'Desk Keyboard', 'class_of_device': 0x2540,
                'uuids': [HID], 'paired': True, 'trusted': True, 'path': DEV}
    assert [{k: d[k] for k in expected} for d in listed.json['devices']] == [expected]
    assert forgotten_left == (False, '[General]\nName=Desk Keyboard\n')
    assert restored_info == paired_info
    assert [{k: d[k] for k in expected} for d in relisted.json['devices']] == [expected]
    assert (live['Paired'], live['Trusted'], live['Connected']) == (True, True, False)
