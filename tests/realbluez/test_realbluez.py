'''kelvane against the real bluetoothd 5.66 with two btvirt controllers that
hear each other, in a QEMU VM booted once for the whole module (vm.sh,
guest.py). hci0 is the host the tool works with, hci1 the peer device. The
guest runs every case and brings back what each step left: the result line,
exit status, event file, store, backup, bluetoothd's objects and the agent
traffic on the bus. The tests here judge that, then hold the simulated BlueZ
of the end-to-end suites against the answers the real daemon gave.
'''

import configparser
import json
import os
import re
import subprocess
import sys
import tempfile
import warnings
from pathlib import Path

import dbus
import dbus.mainloop.glib
import pytest

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / 'e2e'))

import contract  # noqa: E402
import guest  # noqa: E402
from kelvane_sim.client import PrivateBus, Sim  # noqa: E402

VM = HERE / 'vm.sh'
# Seconds the guest may run; the VM gets a minute more to boot and power off.
GUEST_TIMEOUT = 240
AGENT = '/org/kelvane/agent'
NOT_FOUND = ('device not found during discovery. Put the device in pairing/discoverable mode, '
             'keep it close to the adapter, and confirm the MAC with -e.')
NO_LIVE_STATE = 'could not query live device state: '


class Boot:
    '''What one boot of the VM brought back.'''

    def __init__(self, work, status, results):
        self.work, self.status, self.results = work, status, results
        self.notes = results.get('notes', {})
        self.host, self.peer = self.notes.get('host'), self.notes.get('peer')
        self.peer_path = guest.device_path(guest.HOST_PATH, self.peer or '')

    def step(self, name):
        for step in self.results.get('steps', []):
            if step['name'] == name:
                return step
        pytest.fail('the guest did not run step %r (status %s)\n%s' % (
            name, self.status, self.log()))

    def log(self):
        text = (self.work / 'share' / 'guest.log').read_text(errors='replace') \
            if (self.work / 'share' / 'guest.log').exists() else '(no guest log)'
        return '%s\n(logs of bluetoothd, btvirt and the console in %s)' % (text[-6000:], self.work)


def boot(work, binary):
    try:
        return subprocess.run(['sh', str(VM), str(work), binary], timeout=GUEST_TIMEOUT + 120,
                              env=dict(os.environ, KELVANE_VM_TIMEOUT=str(GUEST_TIMEOUT)),
                              check=False).returncode
    except subprocess.TimeoutExpired:
        return 'the VM outlived its timeout'


@pytest.fixture(scope='module')
def vm():
    earlier = os.environ.get('KELVANE_VM_RESULTS')
    if earlier:
        # Judge the work directory of an earlier boot again, without booting.
        work = Path(earlier)
        status = int((work / 'share' / 'status').read_text())
    else:
        binary = os.environ.get('KELVANE_BIN')
        if not binary:
            pytest.skip('KELVANE_BIN is not set (ctest sets it to the built binary)')
        work = Path(os.environ.get('KELVANE_VM_WORK') or tempfile.mkdtemp(prefix='kelvane-vm-'))
        status = boot(work, binary)
        if status == guest.STARTUP_FAILURE:
            # Known fault of controller creation under emulation, not of the
            # tool: boot once more, and only for this status.
            warnings.warn('bluetoothd got only one controller; booted the VM a second time')
            status = boot(work, binary)
    results = work / 'share' / 'results.json'
    return Boot(work, status, json.loads(results.read_text()) if results.exists() else {})


# -- reading what the guest recorded -------------------------------------------

def live_objects(step):
    return step['bluez'].get('objects', {})


def live_device(step, path):
    return live_objects(step).get(path, {}).get(guest.DEVICE)


def visible(tree):
    '''A store or backup without its hidden entries, which neither side copies.'''
    return {path: text for path, text in (tree or {}).items()
            if not any(part.startswith('.') for part in path.split('/'))}


def info_file(text):
    info = configparser.ConfigParser(interpolation=None)
    info.optionxform = str
    info.read_string(text)
    return info


def stored_devices(store):
    '''(adapter, address) -> the [General] section of each device's info file.'''
    devices = {}
    for path, text in (store or {}).items():
        parts = path.split('/')
        if len(parts) == 3 and parts[2] == 'info' and parts[1] != 'cache':
            info = info_file(text)
            devices[parts[0], parts[1]] = dict(info['General']) if 'General' in info else {}
    return devices


def monitored(text):
    '''dbus-monitor's output as messages: kind, the header fields, body lines.'''
    messages = []
    for line in (text or '').splitlines():
        if not line.startswith(' '):
            kind = re.match(r'(method call|method return|error|signal)', line)
            fields = dict(re.findall(r'(\w+)=([^ ;]+)', line))
            messages.append(dict(fields, kind=kind.group(1) if kind else line, body=[]))
        elif messages:
            messages[-1]['body'].append(line.strip())
    return messages


def agent_story(step):
    '''How the tool's agent fared with bluetoothd during one -p run: the
    callbacks bluetoothd made to it, whether it was the default agent, and
    whether its withdrawal came after the last callback and was accepted.'''
    messages = monitored(step['monitor'])
    registrations = [m for m in messages if m.get('member') == 'RegisterAgent'
                     and m['body'][:1] == ['object path "%s"' % AGENT]]
    assert registrations, 'the tool registered no agent at ' + AGENT
    tool = registrations[0]['sender']

    def answered(call):
        reply = [m for m in messages if m.get('reply_serial') == call['serial']
                 and m.get('destination') == tool]
        return bool(reply) and reply[0]['kind'] == 'method return'

    def calls(member):
        return [i for i, m in enumerate(messages) if m['kind'] == 'method call'
                and m.get('sender') == tool and m.get('member') == member]

    asked = [i for i, m in enumerate(messages) if m['kind'] == 'method call'
             and m.get('destination') == tool and m.get('interface') == guest.AGENT
             and m.get('path') == AGENT]
    withdrawal = calls('UnregisterAgent')[-1]
    return {
        'default': any(answered(messages[i]) for i in calls('RequestDefaultAgent')),
        'asked': [(messages[i]['member'], messages[i]['body']) for i in asked],
        'withdrawn': answered(messages[withdrawal]) and all(i < withdrawal for i in asked),
    }


# -- the outcome of every step ---------------------------------------------------

OUTCOMES = [  # step, exit status, pattern of the error
    ('scan-peer-hidden', 0, ''),
    ('scan', 0, ''),
    ('pair', 0, ''),
    ('list', 0, ''),
    ('forget', 0, ''),
    ('forget-again', 1, re.escape('device not found')),
    ('pair-absent', 1, re.escape(NOT_FOUND)),
    ('list-daemon-stopped', 0, re.escape(NO_LIVE_STATE) + '.+'),
    ('restore', 0, ''),
    ('list-restored', 0, ''),
]


def test_the_guest_ran_every_step(vm):
    assert vm.status == 0, vm.log()
    assert [step['name'] for step in vm.results['steps']] == [name for name, _, _ in OUTCOMES]


@pytest.mark.parametrize('name,status,error', OUTCOMES, ids=[o[0] for o in OUTCOMES])
def test_result_line_keeps_to_the_contract(vm, name, status, error):
    step = vm.step(name)
    doc = contract.validate_result(step['stdout'])
    assert (step['status'], doc['result']) == (status, 'error' if status else 'ok'), step['stderr']
    assert re.fullmatch(error, doc['error']), doc['error']
    if step['args'][0] == '-p':
        contract.validate_events(step['events'])


# -- scan ------------------------------------------------------------------------

@pytest.mark.parametrize('name', ['scan-peer-hidden', 'scan'])
def test_scan_reports_the_adapters_as_bluetoothd_does(vm, name):
    step = vm.step(name)
    expected = [{'address': a['Address'], 'alias': a['Alias'], 'discovering': a['Discovering'],
                 'id': int(path.rsplit('hci', 1)[1]), 'name': a['Name'], 'path': path,
                 'powered': a['Powered']}
                for path, a in ((p, i[guest.ADAPTER]) for p, i in sorted(live_objects(step).items())
                                if guest.ADAPTER in i)]
    assert len(expected) == 2
    assert contract.parse_line(step['stdout'])['adapters'] == expected


def test_scan_lists_only_the_discoverable_peer_with_its_signal(vm):
    hidden = contract.parse_line(vm.step('scan-peer-hidden')['stdout'])['devices']
    # Neither controller is discoverable yet: both scans find nothing.
    assert hidden == []
    step = vm.step('scan')
    # The peer is now; the host still is not, so the peer's own scan misses it.
    (device,) = contract.parse_line(step['stdout'])['devices']
    live = live_device(step, vm.peer_path)
    assert (device['address'], device['path']) == (vm.peer, vm.peer_path)
    assert -127 <= device['rssi'] < 0
    assert (device['name'], device['alias'], sorted(device['uuids'])) == (
        live['Name'], live['Alias'], sorted(live['UUIDs']))
    assert (device['paired'], device['trusted'], device['connected']) == (False, False, False)


# -- pair --------------------------------------------------------------------------

def test_pair_leaves_the_peer_paired_trusted_and_connected(vm):
    step = vm.step('pair')
    live = live_device(step, vm.peer_path)
    assert (live['Paired'], live['Trusted'], live['Connected']) == (True, True, True)
    events = contract.validate_events(step['events'])
    assert [e['event'] for e in events] == ['passkey', 'trusted', 'connected']
    assert {e['device']['path'] for e in events} == {vm.peer_path}
    final = events[-1]['device']
    assert (final['paired'], final['trusted'], final['connected']) == (True, True, True)
    # The passkey published is the one bluetoothd asked the agent to confirm.
    story = agent_story(step)
    assert story['asked'] == [('RequestConfirmation', [
        'object path "%s"' % vm.peer_path, 'uint32 %d' % int(events[0]['passkey'])])]
    assert story['default'] and story['withdrawn'], story
    # The save ran once the peer was trusted. bluetoothd goes on writing for a
    # moment (the peer controller's side, services it resolves), so the store
    # may have grown since; what a restore needs is the host's record.
    pairing = '%s/%s/info' % (vm.host, vm.peer)
    saved, now = info_file(step['backup'][pairing]), info_file(step['store'][pairing])
    assert saved['LinkKey']['Key'] == now['LinkKey']['Key']
    assert saved['General']['Trusted'] == 'true'


def test_pair_of_an_absent_address_gives_up_after_its_polls(vm):
    step = vm.step('pair-absent')
    assert step['seconds'] >= 30
    assert step['events'] == '[]\n'
    assert live_objects(step)[guest.HOST_PATH][guest.ADAPTER]['Discovering'] is False
    story = agent_story(step)
    assert (story['asked'], story['default'], story['withdrawn']) == ([], True, True), story


# -- list, forget, restore ------------------------------------------------------------

@pytest.mark.parametrize('name', ['list', 'list-daemon-stopped', 'list-restored'])
def test_list_joins_the_store_with_the_live_path(vm, name):
    step = vm.step(name)
    doc = contract.parse_line(step['stdout'])
    stored = stored_devices(step['store'])
    assert (vm.host, vm.peer) in stored or name == 'list-daemon-stopped'
    # Address -> (path, connected) of the first device object in path order.
    live = {d[guest.DEVICE]['Address'].upper(): (path, d[guest.DEVICE]['Connected'])
            for path, d in sorted(live_objects(step).items(), reverse=True) if guest.DEVICE in d}
    expected = {}
    for (_adapter, address), general in stored.items():
        expected.setdefault(address, {
            'address': address, 'name': general.get('Name', ''), 'alias': '', 'icon': '',
            'paired': True, 'trusted': general.get('Trusted') == 'true', 'rssi': None,
            'class_of_device': int(general['Class'], 0) if 'Class' in general else None,
            'appearance': int(general['Appearance'], 0) if 'Appearance' in general else None,
            'uuids': [u for u in general.get('Services', '').split(';') if u],
            'path': live.get(address.upper(), ('', False))[0],
            'connected': live.get(address.upper(), ('', False))[1]})
    listed = {d['address']: {k: d[k] for k in expected[d['address']]} for d in doc['devices']
              if d['address'] in expected}
    assert (len(doc['devices']), listed) == (len(expected), expected)
    adapters = doc['adapters']
    assert sorted(a['address'] for a in adapters) == sorted({a for a, _ in stored})
    assert [a['id'] for a in adapters] == list(range(len(adapters)))


def test_forget_removes_the_peer_from_bluetoothd_and_the_store(vm):
    before, step = vm.step('list'), vm.step('forget')
    pairing = '%s/%s' % (vm.host, vm.peer)
    assert vm.peer_path in live_objects(before) and pairing in before['store']
    assert vm.peer_path not in live_objects(step)
    assert pairing not in step['store'] and pairing + '/info' not in step['store']
    # The peer's own record of the host is another device: it stays.
    assert '%s/%s/info' % (vm.peer, vm.host) in step['store']
    assert visible(step['backup']) == visible(step['store'])
    # Nothing left to forget: the store and backup stay as they were.
    again = vm.step('forget-again')
    assert (again['store'], again['backup']) == (step['store'], step['backup'])


def test_restore_with_the_daemon_stopped_brings_the_pairing_back(vm):
    step = vm.step('restore')
    assert 'error' in step['bluez'], 'bluetoothd was still running'
    pairing = '%s/%s/info' % (vm.host, vm.peer)
    assert pairing not in vm.step('list-daemon-stopped')['store']
    assert pairing in step['backup']
    assert visible(step['store']) == visible(step['backup'])
    assert vm.notes['restarted'] is True
    live = live_device(vm.step('list-restored'), vm.peer_path)
    assert (live['Paired'], live['Trusted']) == (True, True)


# -- the simulated BlueZ answers as the real one did ------------------------------------

@pytest.fixture(scope='module')
def simulated(vm):
    '''The guest's questions put to the simulator in the same situations.'''
    if not vm.peer:
        pytest.fail('the guest recorded no controllers\n' + vm.log())
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    with PrivateBus() as bus, Sim(bus) as sim:
        conn = bus.connect()
        sim.add_adapter('hci0', address=vm.host)
        sim.add_adapter('hci1', address=vm.peer)
        dev = sim.add_device('hci0', vm.peer, name='peer', uuids=[], rssi=-60, paired=True,
                             trusted=True, connected=True, pairing='confirm')
        answers = {'paired': guest.probe(conn, guest.PROBES_PAIRED, dev)}
        sim.set_props(dev, connected=False)
        answers['objects'] = guest.objects_view(conn)
        # These start and stop a discovery on hci0, among other things.
        answers['idle'] = guest.probe(conn, guest.PROBES_IDLE, dev)
        answers['after_discovery'] = guest.objects_view(conn)
        sim.set_props(dev, paired=False)
        answers['pair_refused'] = guest.pair_refused(conn, dev)
        conn.close()
    return answers


PROBES = [(stage, label) for stage, probes in (('paired', guest.PROBES_PAIRED),
                                               ('idle', guest.PROBES_IDLE))
          for label, *_ in probes]


@pytest.mark.parametrize('stage,label', PROBES, ids=[label for _, label in PROBES])
def test_simulator_answers_like_bluetoothd(vm, simulated, stage, label):
    def reply(answers):
        return next(a['reply'] for a in answers[stage] if a['label'] == label)

    assert reply(simulated) == reply(vm.results['probes'])


def test_simulator_fails_a_refused_pairing_like_bluetoothd(vm, simulated):
    assert simulated['pair_refused'] == vm.notes['pair_refused']


def test_simulator_objects_carry_bluetoothds_property_types(vm, simulated):
    real = vm.step('scan')['bluez']['types']
    sim = simulated['objects']['types']
    assert sim[guest.HOST_PATH][guest.ADAPTER] == real[guest.HOST_PATH][guest.ADAPTER]
    # A device the scan found. Modalias needs the device's Device ID; RSSI
    # lasts only while discovery runs (next test).
    real_device = {k: v for k, v in real[vm.peer_path][guest.DEVICE].items() if k != 'Modalias'}
    sim_device = {k: v for k, v in sim[vm.peer_path][guest.DEVICE].items() if k != 'RSSI'}
    assert sim_device == real_device


def test_simulator_forgets_the_signal_strength_when_discovery_ends(vm, simulated):
    # The guest read bluetoothd's objects after the scan's discovery ended.
    assert 'RSSI' not in live_device(vm.step('scan'), vm.peer_path)
    before, after = (simulated[view]['objects'][vm.peer_path][guest.DEVICE]
                     for view in ('objects', 'after_discovery'))
    assert ('RSSI' in before, 'RSSI' in after) == (True, False)


# Sections of bluetoothd's info file the simulator does not write: the Device
# ID and the keys of the LE side of a dual-mode device.
NOT_SIMULATED = {'DeviceID', 'LocalSignatureKey', 'RemoteSignatureKey', 'PeripheralLongTermKey',
                 'SlaveLongTermKey'}


def test_simulator_keeps_the_store_as_bluetoothd_does(vm, tmp_path):
    '''The pairing, the trust the tool sets and the removal, done to the
    simulator with a store, leave the files bluetoothd left.'''
    info, cache, settings = ('%s/%s/info' % (vm.host, vm.peer),
                             '%s/cache/%s' % (vm.host, vm.peer), vm.host + '/settings')
    paired_store = vm.step('pair')['store']
    real = info_file(paired_store[info])
    with PrivateBus() as bus, Sim(bus, store=tmp_path) as sim:
        sim.add_adapter('hci0', address=vm.host)
        dev = sim.add_device('hci0', vm.peer, name=real['General']['Name'], pairing='just-works',
                             uuids=real['General']['Services'].split(';')[:-1])
        conn = bus.connect()
        conn.call_blocking('org.bluez', dev, guest.DEVICE, 'Pair', '', [])
        conn.call_blocking('org.bluez', dev, guest.PROPS, 'Set', 'ssv',
                           [guest.DEVICE, 'Trusted', dbus.Boolean(True, variant_level=1)])
        paired = {path: (tmp_path / path).read_text() for path in (info, settings)}
        conn.call_blocking('org.bluez', guest.HOST_PATH, guest.ADAPTER, 'RemoveDevice', 'o', [dev])
        removed = ((tmp_path / cache).read_text(), (tmp_path / vm.host / vm.peer).exists())
        conn.close()
    simulated = info_file(paired[info])
    assert sorted(simulated) == sorted(set(real) - NOT_SIMULATED)
    assert {name: list(simulated[name]) for name in simulated} == {
        name: list(real[name]) for name in simulated}
    # The peer is a dual-mode controller; the simulated device is BR/EDR only.
    assert dict(simulated['General'], SupportedTechnologies='BR/EDR;LE;') == dict(real['General'])
    assert paired[settings] == paired_store[settings]
    assert removed == (vm.step('forget')['store'][cache], False)
