'''Pair, trust and connect (-p) against the simulated BlueZ: the agent's
answers and the passkeys it publishes, discovery of unknown devices, the one
retry after "Page Timeout", the event file, the agent's withdrawal on every
way out, and what the front end prints and saves.'''

import threading
import time

import dbus
import pytest

from kelvane_sim.client import PAGE_TIMEOUT, passkey_display

MAC = 'AA:BB:CC:DD:EE:FF'
DEVICE = '/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF'
AGENT = '/org/kelvane/agent'
STORE = {'00:1A:7D:DA:00:00/' + MAC + '/info': '[General]\nName=Keyboard\n'}
BACKUP = 'config/files/var_bluetooth/00:1A:7D:DA:00:00/' + MAC + '/info'
NOT_FOUND = ('device not found during discovery. Put the device in pairing/discoverable mode, '
             'keep it close to the adapter, and confirm the MAC with -e.')
PAGE_TIMEOUT_ADVICE = ('Page Timeout: device not responding. Ensure it is powered on, in range, '
                       'and in pairing/discoverable mode, then try again.')
OK = {'adapters': [], 'devices': [], 'error': '', 'result': 'ok'}


def failed(message):
    return {'adapters': [], 'devices': [], 'error': message, 'result': 'error'}


def trace(run):
    return run.stderr.splitlines()


def assert_in_order(lines, expected):
    '''Every expected line occurs in `lines`, in this order.'''
    position = 0
    for line in expected:
        assert line in lines[position:], 'missing, or out of order: %r\n%s' % (
            line, '\n'.join(lines))
        position = lines.index(line, position) + 1


def tool_calls(sim):
    '''The calls the tool made (the test's own control calls are left out).'''
    return [(c.method, c.path) for c in sim.calls()]


def assert_agent_withdrawn(sim):
    calls, unregister = tool_calls(sim), ('UnregisterAgent', '/org/bluez')
    assert (calls[0], calls[-1], sim.agents()) == (unregister, unregister, [])


def event_names(run):
    return [event['event'] for event in run.events()]


def passkeys(run):
    return [event['passkey'] for event in run.events() if event['event'] == 'passkey']


# run_kelvane checked the result line against the schema, Run.events() checks the event file.
def check_result(run, expected):
    assert run.json == expected
    assert run.events() is not None, 'no event file'


# Numeric comparison and passkey display have traced tests of their own below.
SUCCESSFUL_PAIRINGS = {
    'passkey repeated by BlueZ': ([{'method': 'RequestConfirmation', 'passkey': 4711}] * 2,
                                  ['004711']),
    'PIN display': ([{'method': 'DisplayPinCode', 'pin': '0000'}], ['000000']),
    'just works': ([], []),
    'authorization': ([{'method': 'RequestAuthorization'}, {'method': 'AuthorizeService'}], []),
}


@pytest.mark.parametrize('steps,expected_passkeys', SUCCESSFUL_PAIRINGS.values(),
                         ids=SUCCESSFUL_PAIRINGS.keys())
def test_pairing_publishes_passkeys_and_succeeds(run_kelvane, sim, steps, expected_passkeys):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, name='Keyboard', pairing=steps)
    run = run_kelvane(['-p', MAC.lower().replace(':', '-')], store=STORE)
    check_result(run, OK)
    # Without -v nothing at all goes to standard error.
    assert run.stderr == ''
    assert passkeys(run) == expected_passkeys
    assert event_names(run) == ['passkey'] * len(expected_passkeys) + ['trusted', 'connected']
    # Every callback was answered without an error: accepted.
    assert all('error' not in call for call in sim.agent_calls())
    assert len(sim.agent_calls()) == len(steps)
    props = sim.props(DEVICE)
    assert (props['Paired'], props['Trusted'], props['Connected']) == (True, True, True)
    assert sim.props('/org/bluez/hci0')['Pairable'] is True
    assert_agent_withdrawn(sim)
    # After the result line, the store was mirrored into the backup.
    assert run.tmp.text(BACKUP) == STORE['00:1A:7D:DA:00:00/' + MAC + '/info']


def test_numeric_comparison_trace_and_events(run_kelvane, sim):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, name='Keyboard',
                   pairing=[{'method': 'RequestConfirmation', 'passkey': 4711}])
    run = run_kelvane(['-v', '-p', MAC], store=STORE)
    check_result(run, OK)
    assert_in_order(trace(run), [
        'debug: registered pairing agent at ' + AGENT,
        'dbus >> org.bluez /org/bluez org.bluez.AgentManager1.UnregisterAgent (' + AGENT + ')',
        'dbus >> org.bluez /org/bluez org.bluez.AgentManager1.RegisterAgent (' + AGENT
        + ' KeyboardDisplay)',
        'dbus << RegisterAgent ok',
        'dbus >> org.bluez /org/bluez org.bluez.AgentManager1.RequestDefaultAgent (' + AGENT + ')',
        'dbus << RequestDefaultAgent ok',
        'debug: pairing with address ' + MAC,
        'debug: using adapter /org/bluez/hci0',
        'debug: initial device path: ' + DEVICE,
        'debug: pair attempt 1',
        'dbus >> org.bluez ' + DEVICE + ' org.bluez.Device1.Pair',
        'dbus << org.bluez.Agent1.RequestConfirmation path=' + DEVICE + ' passkey=004711',
        'debug: pairing: confirming passkey 004711 for device ' + DEVICE,
        'dbus << Pair ok',
        'dbus << Properties.Set ok: org.bluez.Device1.Trusted=true',
        'dbus >> org.bluez ' + DEVICE + ' org.bluez.Device1.Connect',
        'dbus << Connect ok',
        'dbus >> org.bluez /org/bluez org.bluez.AgentManager1.UnregisterAgent (' + AGENT + ')',
        'dbus << UnregisterAgent ok',
    ])
    assert trace(run)[-1] == 'dbus << UnregisterAgent ok'
    # The agent was registered with BlueZ as the default one while Pair ran.
    agent_call = sim.agent_calls()[0]
    assert (agent_call['agent'], agent_call['reply']) == (AGENT, [])
    register = sim.calls(method='RegisterAgent')[0]
    assert (register.args, register.types) == ([AGENT, 'KeyboardDisplay'], ['o', 's'])
    # Each event carries the device as it was at that moment.
    passkey, trusted, connected = run.events()
    assert passkey['passkey'] == '004711'
    flags = [(e['device']['paired'], e['device']['trusted'], e['device']['connected'])
             for e in (passkey, trusted, connected)]
    assert flags == [(False, False, False), (True, True, False), (True, True, True)]
    assert passkey['device']['path'] == DEVICE
    assert passkey['timestamp'] <= trusted['timestamp'] <= connected['timestamp']
    assert sim.props('/org/bluez/hci0')['Pairable'] is True
    assert run.tmp.text(BACKUP) == STORE['00:1A:7D:DA:00:00/' + MAC + '/info']


@pytest.mark.parametrize('mode,message', [
    ('pin-entry', 'Legacy PIN pairing is not supported'),
    ('passkey-entry', 'Legacy passkey entry is not supported'),
])
def test_legacy_entry_is_rejected(run_kelvane, sim, mode, message):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, pairing=mode)
    run = run_kelvane(['-p', MAC], store=STORE)
    # The agent's refusal reaches the controller, not the caller of Pair.
    check_result(run, failed('Authentication Failed'))
    assert sim.agent_calls()[0]['error'] == {'name': 'org.bluez.Error.Rejected',
                                             'message': message}
    assert run.events() == []
    # Not a "Page Timeout": no removal, no retry, nothing after Pair.
    methods = [m for m, _ in tool_calls(sim)]
    assert (methods.count('Pair'), methods.count('RemoveDevice')) == (1, 0)
    assert sim.props(DEVICE)['Trusted'] is False
    assert_agent_withdrawn(sim)
    assert BACKUP not in run.tmp


def test_device_not_found_after_thirty_polls(run_kelvane, sim):
    sim.add_adapter('hci0')
    run = run_kelvane(['-p', MAC], timeout=90)
    check_result(run, failed(NOT_FOUND))
    methods = [m for m, _ in tool_calls(sim)]
    assert methods.count('GetManagedObjects') == 1 + 30
    assert methods.index('StopDiscovery') > len(methods) - 3
    assert 'Pair' not in methods
    assert run.seconds >= 30
    assert run.events() == []
    assert_agent_withdrawn(sim)


def test_already_paired_trusted_and_connected(run_kelvane, sim):
    sim.add_adapter('hci0', pairable=True)
    sim.add_device('hci0', MAC, paired=True, trusted=True, connected=True)
    run = run_kelvane(['-v', '-p', MAC])
    check_result(run, OK)
    assert 'debug: device already paired: ' + DEVICE in trace(run)
    assert 'debug: pair attempt 1' in trace(run)
    assert not {'Pair', 'Set', 'Connect', 'StartDiscovery'} & {m for m, _ in tool_calls(sim)}
    assert event_names(run) == ['trusted', 'connected']
    assert_agent_withdrawn(sim)


def test_page_timeout_is_retried_once(run_kelvane, sim):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, pairing=[{'method': 'RequestConfirmation', 'passkey': 4711}])
    # Once removed, the device comes back when the adapter discovers it again;
    # then its passkey is displayed and typed: keypresses are traced, not published.
    again = sim.add_device('hci0', MAC, path=DEVICE + '_again', appear_after=1,
                           pairing=passkey_display(815, digits=3))
    sim.page_timeout(times=1)
    run = run_kelvane(['-v', '-p', MAC])
    check_result(run, OK)
    assert_in_order(trace(run), [
        'debug: pair attempt 1',
        'dbus << Pair error: Page Timeout',
        'dbus >> org.bluez /org/bluez/hci0 org.bluez.Adapter1.RemoveDevice (' + DEVICE + ')',
        'debug: pair attempt 2',
        'dbus >> org.bluez /org/bluez/hci0 org.bluez.Adapter1.StartDiscovery',
        'dbus >> org.bluez ' + again + ' org.bluez.Device1.Pair',
        'dbus << org.bluez.Agent1.DisplayPasskey path=' + again + ' passkey=000815 entered=0',
        'dbus << org.bluez.Agent1.DisplayPasskey path=' + again + ' passkey=000815 entered=1',
        'debug: pairing: device ' + again + ' passkey 000815 (1 digits entered)',
        'debug: pairing: device ' + again + ' passkey 000815 (3 digits entered)',
        'dbus << Pair ok',
    ])
    pairs = [path for method, path in tool_calls(sim) if method == 'Pair']
    assert pairs == [DEVICE, again]
    assert sim.calls(method='RemoveDevice')[0].args == [DEVICE]
    assert passkeys(run) == ['000815']
    assert event_names(run) == ['passkey', 'trusted', 'connected']
    assert all('error' not in call for call in sim.agent_calls())
    assert run.events()[-1]['device']['path'] == again
    assert_agent_withdrawn(sim)


@pytest.mark.parametrize('error', [PAGE_TIMEOUT,
                                   ('org.bluez.Error.Failed', 'connection failed: page timeout')],
                         ids=['bluez', 'lower case'])
def test_second_page_timeout_fails(run_kelvane, sim, error):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC)
    again = sim.add_device('hci0', MAC, path=DEVICE + '_again', appear_after=1)
    sim.fault('Pair', *error, times=2)
    run = run_kelvane(['-v', '-p', MAC], store=STORE)
    check_result(run, failed(PAGE_TIMEOUT_ADVICE))
    assert 'debug: pair attempt 2' in trace(run)
    assert 'debug: pair attempt 3' not in trace(run)
    # Each timed-out device was removed; the second search was not repeated.
    assert [c.args for c in sim.calls(method='RemoveDevice')] == [[DEVICE], [again]]
    assert [c.fault for c in sim.calls(method='Pair')] == [error[0]] * 2
    assert [m for m, _ in tool_calls(sim)].count('StartDiscovery') == 1
    assert run.events() == []
    assert_agent_withdrawn(sim)
    assert BACKUP not in run.tmp


def test_connect_refused(run_kelvane, sim):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, pairing=[{'method': 'RequestConfirmation', 'passkey': 4711}])
    sim.fault('Connect', 'org.bluez.Error.Failed', 'br-connection-refused')
    run = run_kelvane(['-v', '-p', MAC], store=STORE)
    check_result(run, failed('br-connection-refused'))
    assert 'dbus << Connect error: br-connection-refused' in trace(run)
    assert event_names(run) == ['passkey', 'trusted']
    assert sim.props(DEVICE)['Trusted'] is True
    assert_agent_withdrawn(sim)
    assert BACKUP not in run.tmp


def test_unknown_device_on_the_first_powered_adapter_despite_agent_problems(run_kelvane, sim):
    # The first adapter is off: the first powered one is used, and there the
    # device shows up only after 3 s of discovery.
    sim.add_adapter('hci0', powered=False)
    sim.add_adapter('hci1')
    device = sim.add_device('hci1', MAC, appear_after=3)
    sim.fault('RegisterAgent', 'org.bluez.Error.Failed', 'no agents today')
    run = run_kelvane(['-v', '-p', MAC])
    check_result(run, OK)
    assert 'debug: using adapter /org/bluez/hci1' in trace(run)
    assert 'debug: initial device path: (not found)' in trace(run)
    methods = [m for m, _ in tool_calls(sim)]
    assert methods.index('StartDiscovery') < methods.index('StopDiscovery') < methods.index('Pair')
    # One snapshot at the start, then one per second until the device showed up.
    polls = methods[methods.index('StartDiscovery'):methods.index('StopDiscovery')]
    assert 3 <= polls.count('GetManagedObjects') <= 5
    assert sim.state()['adapters']['/org/bluez/hci1']['sessions'] == []
    assert sim.props('/org/bluez/hci0')['Powered'] is False
    assert sim.props(device)['Connected'] is True
    assert_in_order(trace(run), [
        'debug: warning: RegisterAgent failed: no agents today',
        'dbus >> org.bluez /org/bluez org.bluez.AgentManager1.RequestDefaultAgent (' + AGENT + ')',
        'debug: warning: RequestDefaultAgent failed: Does Not Exist',
        'dbus << Pair ok',
    ])
    assert 'dbus << RegisterAgent ok' not in trace(run)
    # BlueZ never knew the agent, yet it is withdrawn and reported so.
    assert trace(run)[-1] == 'dbus << UnregisterAgent ok'
    assert sim.agent_calls() == []
    assert_agent_withdrawn(sim)


@pytest.mark.parametrize('address', ['AA:BB:CC:DD:EE:FG', ' ' + MAC])
def test_invalid_address_changes_nothing(run_kelvane, sim, address):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC)
    earlier = '[{"event":"connected","timestamp":1}]\n'
    run = run_kelvane(['-v', '-p', address], store=STORE, tmp={'kelvane-events.json': earlier})
    assert run.json == failed('invalid Bluetooth address: ' + address)
    assert run.tmp.text('kelvane-events.json') == earlier
    assert sim.calls() == []
    assert run.stderr == ''
    assert BACKUP not in run.tmp


def test_bluez_leaving_while_pair_is_pending(run_kelvane, sim):
    sim.add_adapter('hci0')
    # BlueZ waits before asking the agent anything, so Pair stays pending
    # until the daemon goes away.
    sim.add_device('hci0', MAC, pairing=[{'method': 'RequestConfirmation', 'passkey': 4711,
                                          'delay': 30}])

    def leave_once_pairing():
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and not sim.calls(method='Pair'):
            time.sleep(0.05)
        sim.process.kill()

    killer = threading.Thread(target=leave_once_pairing)
    killer.start()
    try:
        run = run_kelvane(['-v', '-p', MAC], timeout=40)
    finally:
        killer.join()
    # One result line (checked by run_kelvane) carrying the bus's own error.
    pair_errors = [line for line in trace(run) if line.startswith('dbus << Pair error: ')]
    assert len(pair_errors) == 1
    message = pair_errors[0][len('dbus << Pair error: '):]
    assert message
    check_result(run, failed(message))
    assert run.seconds < 15
    assert trace(run)[-1] == 'dbus << UnregisterAgent ok'


def test_structured_property_values_read_as_false(run_kelvane, sim):
    # Wrong types convert as the rules for wrong types say, whatever their
    # shape: Powered as a struct is not powered, so the adapter is powered on.
    sim.add_adapter('hci0', props={
        'Powered': dbus.Struct((dbus.Boolean(True),), signature='b'),
        'Pairable': dbus.Dictionary({'on': dbus.Boolean(True)}, signature='sv')})
    sim.add_device('hci0', MAC, props={
        'Paired': dbus.Dictionary({}, signature='sv'),
        'Trusted': dbus.Struct((dbus.Boolean(True),), signature='b')})
    run = run_kelvane(['-p', MAC])
    check_result(run, OK)
    assert [c.args[1] for c in sim.calls(method='Set')] == ['Powered', 'Pairable', 'Trusted']
    assert [m for m, _ in tool_calls(sim)].count('Pair') == 1
    assert sim.props(DEVICE)['Connected'] is True


def test_the_agent_answers_bluez_only(run_kelvane, sim, bus):
    sim.add_adapter('hci0')
    # BlueZ asks only after a while; meanwhile another client of the bus
    # tries to confirm a passkey of its own for the device being paired.
    sim.add_device('hci0', MAC, pairing=[{'method': 'RequestConfirmation', 'passkey': 4711,
                                          'delay': 2}])
    intruder = {}

    def intrude():
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and not sim.calls(method='Pair'):
            time.sleep(0.05)
        tool = sim.calls(method='Pair')[0].sender
        try:
            bus.connect().call_blocking(tool, AGENT, 'org.bluez.Agent1', 'RequestConfirmation',
                                        'ou', [DEVICE, 999999])
            intruder['answer'] = 'accepted'
        except dbus.exceptions.DBusException as e:
            intruder['answer'] = e.get_dbus_name()

    thread = threading.Thread(target=intrude)
    thread.start()
    try:
        run = run_kelvane(['-v', '-p', MAC])
    finally:
        thread.join()
    check_result(run, OK)
    assert intruder['answer'] == 'org.freedesktop.DBus.Error.AccessDenied'
    assert passkeys(run) == ['004711']
    assert not any('999999' in line and 'dbus <<' in line for line in trace(run))
