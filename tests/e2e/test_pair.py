# Pair, trust and connect (-p) against simulated daemons, as one table:
# the world, the words, the result, the events published and the calls BlueZ
# received. All rows run at once, each on its own bus; how the agent answers
# each request is a unit table, and the whole -v trace of a pairing is the
# manual page's example (test_docs.py).

import contextlib
import time

import dbus
import pytest

import harness
from kelvane_sim.client import passkey_display

MAC = 'AA:BB:CC:DD:EE:FF'
DEVICE = '/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF'
AGENT = '/org/kelvane/agent'
INFO = '00:1A:7D:DA:00:00/%s/info' % MAC
STORE = {INFO: '[General]\nName=Keyboard\n'}
EARLIER = '[{"event":"connected","timestamp":1}]\n'
NOT_FOUND = ('device not found during discovery. Put the device in pairing/discoverable mode, '
             'keep it close to the adapter, and confirm the MAC with -e.')
PAGE_TIMEOUT_ADVICE = ('Page Timeout: device not responding. Ensure it is powered on, in range, '
                       'and in pairing/discoverable mode, then try again.')
CONFIRM = [{'method': 'RequestConfirmation', 'passkey': 4711}]

# The tool's calls, GetManagedObjects left out (how many depends on timing).
REGISTER = ['UnregisterAgent', 'RegisterAgent', 'RequestDefaultAgent']
PAIR = REGISTER + ['Set Pairable', 'Pair']
DISCOVER = ['SetDiscoveryFilter', 'StartDiscovery', 'StopDiscovery']
DONE = ['Get Trusted', 'Set Trusted', 'Get Connected', 'Connect', 'UnregisterAgent']


def on_hci0(fault=None, **device):
    def build(sim):
        sim.add_adapter('hci0', pairable=device.pop('pairable', False))
        sim.add_device('hci0', MAC, **device)
        if fault:
            sim.fault(*fault)
    return build


def page_timeout_twice(sim):
    on_hci0()(sim)
    sim.add_device('hci0', MAC, path=DEVICE + '_again', appear_after=1)
    sim.fault('Pair', 'org.bluez.Error.Failed', 'connection failed: page timeout', times=2)


def page_timeout_once(sim):
    on_hci0(pairing=CONFIRM)(sim)
    # Removed, the device comes back when discovered again; its passkey is
    # then shown and typed: keypresses are no news for the event file.
    sim.add_device('hci0', MAC, path=DEVICE + '_again', appear_after=1,
                   pairing=passkey_display(815, digits=3))
    sim.page_timeout(times=1)


def unknown_on_the_first_powered_adapter(sim):
    sim.add_adapter('hci0', powered=False)
    sim.add_adapter('hci1')
    sim.add_device('hci1', MAC, appear_after=3, pairing=[])
    sim.fault('RegisterAgent', 'org.bluez.Error.Failed', 'no agents today')


def after_pair(sim, action):
    # Runs action(the tool's unique name) in a thread once Pair was sent.
    def during():
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and not sim.calls(method='Pair'):
            time.sleep(0.05)
        action(sim.calls(method='Pair')[0].sender)
    return during


def intruder(sim):
    # BlueZ asks after a while; meanwhile another client of the bus confirms
    # a passkey of its own for the device being paired (refused: the events
    # show BlueZ's passkey alone).
    on_hci0(pairing=[dict(CONFIRM[0], delay=2)])(sim)

    def intrude(tool):
        with contextlib.suppress(dbus.exceptions.DBusException):
            sim.bus.connect().call_blocking(tool, AGENT, 'org.bluez.Agent1',
                                            'RequestConfirmation', 'ou', [DEVICE, 999999])
    return after_pair(sim, intrude)


def leaves_while_pairing(sim):
    on_hci0(pairing=[dict(CONFIRM[0], delay=30)])(sim)  # Pair stays pending
    return after_pair(sim, lambda _: sim.process.kill())


# world, words -> error, events, passkeys published, calls (None: BlueZ died)
PAIRINGS = {
    'confirm': (on_hci0(name='Keyboard', pairing=CONFIRM * 2), ['-v', '-p', MAC], '',
                ['passkey', 'trusted', 'connected'], ['004711'], PAIR + DONE),
    'not found': (lambda sim: sim.add_adapter('hci0'), ['-p', MAC], NOT_FOUND, [], [],
                  REGISTER + ['Set Pairable'] + DISCOVER + ['UnregisterAgent']),
    # A refused discovery filter ends the search before it starts.
    'discovery refused': (on_hci0(appear_after=1, fault=('SetDiscoveryFilter', 'org.bluez.Error.'
                                                         'NotReady', 'Resource Not Ready')),
                          ['-p', MAC], NOT_FOUND, [], [],
                          REGISTER + ['Set Pairable', 'SetDiscoveryFilter', 'UnregisterAgent']),
    'already paired': (on_hci0(pairable=True, paired=True, trusted=True, connected=True),
                       ['-p', MAC], '', ['trusted', 'connected'], [],
                       REGISTER + ['Get Trusted', 'Get Connected', 'UnregisterAgent']),
    'page timeout once': (page_timeout_once, ['-p', MAC], '', ['passkey', 'trusted', 'connected'],
                          ['000815'], PAIR + ['RemoveDevice'] + DISCOVER + ['Pair'] + DONE),
    'page timeout twice': (page_timeout_twice, ['-p', MAC], PAGE_TIMEOUT_ADVICE, [], [],
                           PAIR + ['RemoveDevice'] + DISCOVER + ['Pair', 'RemoveDevice',
                                                                 'UnregisterAgent']),
    'connect refused': (on_hci0(pairing=CONFIRM, fault=('Connect', 'org.bluez.Error.Failed',
                                                        'br-connection-refused')),
                        ['-p', MAC], 'br-connection-refused',
                        ['passkey', 'trusted'], ['004711'], PAIR + DONE),
    'unknown, found by discovery': (unknown_on_the_first_powered_adapter, ['-p', MAC], '',
                                    ['trusted', 'connected'], [],
                                    REGISTER + ['Set Pairable'] + DISCOVER + ['Pair'] + DONE),
    'invalid address': (on_hci0(), ['-p', ' ' + MAC], 'invalid Bluetooth address:  ' + MAC,
                        None, [], []),
    'another client intrudes': (intruder, ['-p', MAC], '', ['passkey', 'trusted', 'connected'],
                                ['004711'], PAIR + DONE),
    'BlueZ leaves while pairing': (leaves_while_pairing, ['-v', '-p', MAC], None, [], [], None),
}


@pytest.fixture(scope='module')
def paired(at_once):
    def box():
        return harness.Box(store=STORE, tmp={'kelvane-events.json': EARLIER})
    return at_once({name: (build, args, {'box': box})
                    for name, (build, args, *_) in PAIRINGS.items()}, 90)


def tool_calls(sim):
    return [c.method + (' ' + c.args[1] if c.method in ('Set', 'Get') else '')
            for c in sim.calls() if c.method != 'GetManagedObjects']


@pytest.mark.parametrize('name', PAIRINGS)
def test_pairing(paired, name):
    run, sim = paired[name]
    _, _, error, events, passkeys, calls = PAIRINGS[name]
    if error is None:  # the error BlueZ's departure left is the bus's own
        error = run.stderr.split('dbus << Pair error: ', 1)[-1].split('\n')[0]
        assert error and run.seconds < 15 and run.stderr.count('dbus << Pair error: ') == 1, run
    assert (run.status, run.json['error']) == ((1, error) if error else (0, '')), run
    if events is None:  # refused before anything was touched
        assert (run.box.tmp / 'kelvane-events.json').read_text() == EARLIER
    else:
        assert [e['event'] for e in run.events()] == events
        assert [e['passkey'] for e in run.events() if 'passkey' in e] == passkeys
    if calls is not None:
        assert tool_calls(sim) == calls
        assert sim.agents() == []
    if name == 'not found':  # all 30 discovery polls, one second apart, then it gives up
        assert run.seconds >= 30 and sim.methods().count('GetManagedObjects') == 1 + 30
    # After the result line of a pairing, the store is mirrored into the backup.
    backup = run.box.tmp / 'config/files/var_bluetooth' / INFO
    assert backup.exists() == (not error) and (error or backup.read_text() == STORE[INFO])

