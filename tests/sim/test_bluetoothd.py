# The simulator against bluetoothd 5.66 as the real-BlueZ tier recorded it
# (bluetoothd-5.66.json, bluetoothd.py): each part of the recording, its
# situation set up in the simulator, comes out as bluetoothd's did. What the
# simulator does not model is not asked (sim/README.md, "How far the
# simulator is from bluetoothd").

import pytest

import bluetoothd

RECORDED = bluetoothd.recording()
GENERAL = dict(line.split('=', 1) for line in RECORDED['store']['info']['General'])
HOST, PEER = '00:AA:01:00:00:00', '00:AA:01:01:00:01'
DEV = bluetoothd.HCI0 + '/dev_' + PEER.replace(':', '_')
# The peer as each table of calls found it in the VM.
CALLS = {'calls while connected': dict(paired=True, trusted=True, connected=True),
         'calls to a peer found again': dict(pairing='confirm'),
         'calls after a restart': dict(paired=True, trusted=True)}


def answers(world, part):
    # The host, the peer's controller, and the peer as hci0 knows it (dual-mode, with a
    # Device ID): as the table of calls found it, else unpaired, pairing without an agent's
    # question.
    w = world({'adapters': [{'id': 'hci0', 'address': HOST}, {'id': 'hci1', 'address': PEER}],
               'devices': [dict(adapter='hci0', address=PEER, name=GENERAL['Name'],
                                uuids=GENERAL['Services'].split(';')[:-1],
                                modalias='usb:v1D6Bp0246d0542', technologies=['BR/EDR', 'LE'],
                                **CALLS.get(part, {'pairing': 'just-works'}))]})
    if part in CALLS:
        return bluetoothd.probe(w.sim.conn, RECORDED[part], DEV)
    if part == 'types':  # bluetoothd's were read once discovery had ended and RSSI was gone
        # (that the simulator drops RSSI then too is a row of test_sim.py)
        return bluetoothd.property_types(w.bus.address, DEV)
    # The store: the pairing, the trust kelvane sets, the removal.
    w.pair(DEV)
    w.call(DEV, bluetoothd.PROPS, 'Set', 'ssv', bluetoothd.DEVICE, 'Trusted', True)
    paired = w.files()
    w.call(bluetoothd.HCI0, 'org.bluez.Adapter1', 'RemoveDevice', 'o', DEV)
    return {'info': bluetoothd.info_layout(paired['%s/%s/info' % (HOST, PEER)]),
            'settings': paired[HOST + '/settings'],
            'cache after removal': w.files()['%s/cache/%s' % (HOST, PEER)]}


@pytest.mark.parametrize('part', RECORDED)
def test_simulator_answers_as_bluetoothd_did(world, part):
    assert answers(world, part) == RECORDED[part]
