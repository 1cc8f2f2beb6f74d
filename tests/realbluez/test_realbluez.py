# kelvane against the real bluetoothd 5.66 with two btvirt controllers that
# hear each other (hci0 the host, hci1 the peer), in a QEMU VM booted once for
# the module (vm.sh, guest.py); the tests judge what every step left, and that
# bluetoothd still answers as tests/sim/bluetoothd-5.66.json recorded (the
# simulator's own tests hold the simulator against that recording).
# KELVANE_RECORD_BLUETOOTHD=1 rewrites the recording from this boot instead.

import json
import os
import re
import subprocess
import tempfile
import warnings
from pathlib import Path

import pytest

import bluetoothd
import contract

GUEST_TIMEOUT = 240  # seconds; the VM gets a minute more to boot and power off
STARTUP_FAILURE = 75  # guest.py: bluetoothd got only one controller
RECORD = os.environ.get('KELVANE_RECORD_BLUETOOTHD')
NOT_FOUND = 'device not found during discovery. Put the device in pairing/discoverable mode'
T, F, DOWN = True, False, 'bluetoothd stopped'
# step: exit status and start of the error; then, as the step left them, the peer in bluetoothd
# (Paired, Trusted, Connected; None without its object), whether the store holds the pairing,
# and the peer in the tool's result line (paired, trusted, connected; None when not there)
STEPS = {'scan-peer-hidden': (0, '', None, F, None),
         'scan': (0, '', (F, F, F), F, (F, F, F)),
         'pair': (0, '', (T, T, T), T, None),
         'list': (0, '', (T, T, T), T, (T, T, T)),
         'forget': (0, '', None, F, None),
         'forget-again': (1, 'device not found', None, F, None),
         'pair-absent': (1, NOT_FOUND, (F, F, F), F, None),
         'list-daemon-stopped': (0, 'could not query live device state: ', DOWN, F, None),
         'restore': (0, '', DOWN, T, None),
         'list-restored': (0, '', (T, T, F), T, (T, T, F))}


def boot(work, binary):  # vm.sh's status; a VM that outlives even vm.sh's timeout is an error
    return subprocess.run(['sh', str(Path(__file__).with_name('vm.sh')), str(work), binary],
                          env=dict(os.environ, KELVANE_VM_TIMEOUT=str(GUEST_TIMEOUT)),
                          timeout=GUEST_TIMEOUT + 120, check=False).returncode


class Boot:  # what one boot of the VM brought back
    def __init__(self, work):
        results = work / 'share' / 'results.json'
        results = json.loads(results.read_text()) if results.exists() else {}
        self.work, self.notes = work, results.get('notes', {})
        self.steps, self.answers = results.get('steps', {}), results.get('bluetoothd', {})
        self.host, self.peer, self.peer_path = map(self.notes.get, ('host', 'peer', 'path'))


@pytest.fixture(scope='module')
def vm():
    # KELVANE_VM_RESULTS=WORK judges an earlier boot's work directory again.
    work = Path(os.environ.get('KELVANE_VM_RESULTS') or os.environ.get('KELVANE_VM_WORK')
                or tempfile.mkdtemp(prefix='kelvane-vm-'))
    if not os.environ.get('KELVANE_VM_RESULTS'):
        if not os.environ.get('KELVANE_BIN'):
            pytest.skip('KELVANE_BIN is not set (ctest sets it to the built binary)')
        if boot(work, os.environ['KELVANE_BIN']) == STARTUP_FAILURE:
            # A known fault of controller creation under emulation, not the tool's.
            warnings.warn('bluetoothd got only one controller; booted the VM a second time')
            boot(work, os.environ['KELVANE_BIN'])
    found = Boot(work)
    if RECORD and found.notes.get('status') == 0:
        bluetoothd.RECORDING.write_text(json.dumps(found.answers, indent=1) + '\n')
    return found


def test_the_guest_ran_every_step(vm):
    log = vm.work / 'share' / 'guest.log'
    assert (vm.notes.get('status'), list(vm.steps)) == (0, list(STEPS)), \
        (log.read_text()[-6000:] if log.exists() else '(no guest log)') + \
        '\n(logs of bluetoothd, btvirt and the console in %s)' % vm.work


@pytest.mark.parametrize('name', STEPS)
def test_each_step_answers_and_leaves_the_peer_as_expected(vm, name):
    step = vm.steps[name]
    doc = contract.validate_result(step['stdout'])
    objects = step['bluez'].get('objects', {})
    live = objects.get(vm.peer_path, {}).get('org.bluez.Device1')
    listed = [d for d in doc['devices'] if d['address'] == vm.peer]
    assert (step['status'], doc['error'][:len(STEPS[name][1])],
            DOWN if 'error' in step['bluez'] else live and (
                live['Paired'], live['Trusted'], live['Connected']),
            '%s/%s' % (vm.host, vm.peer) in step['store'],
            listed and (listed[0]['paired'], listed[0]['trusted'], listed[0]['connected']) or None
            ) == STEPS[name], step
    # Wherever the tool lists the peer, it is once, by bluetoothd's path and name.
    assert [(d['path'], d['name']) for d in listed] == [
        (vm.peer_path, (live or {}).get('Name'))] * bool(listed)
    if step['args'] == ['-e']:  # bluetoothd's adapters; the peer heard once discoverable
        assert [(a['path'], a['address'], a['name'], a['powered']) for a in doc['adapters']] == [
            (path, a['Address'], a['Name'], a['Powered']) for path, a in sorted(
                (p, i['org.bluez.Adapter1']) for p, i in objects.items()
                if 'org.bluez.Adapter1' in i)]
        assert [-127 <= d['rssi'] < 0 for d in doc['devices']] == [True] * (name == 'scan')


def agent_story(step):
    # From the -v trace: the agent manager's answers and bluetoothd's calls to the tool's agent.
    return re.findall(r'^dbus << ((?:RegisterAgent|RequestDefaultAgent) ok|org\.bluez\.Agent1.*)$',
                      step['stderr'], re.M)


def test_pair_publishes_the_passkey_bluetoothd_asked_to_confirm(vm):
    step = vm.steps['pair']
    events = contract.validate_events(step['events'])
    assert [(e['event'], e['device']['path']) for e in events] == [
        (name, vm.peer_path) for name in ('passkey', 'trusted', 'connected')]
    passkey = events[0]['passkey']
    assert agent_story(step) == ['RegisterAgent ok', 'RequestDefaultAgent ok',
                                 'org.bluez.Agent1.RequestConfirmation path=%s passkey=%s'
                                 % (vm.peer_path, passkey)]
    # bluetoothd's own debug log names the passkey it sent the tool's agent.
    assert re.findall(r'Calling Agent\.(\w+): name=\S+ path=/org/kelvane/agent, passkey=(\d+)',
                      (vm.work / 'share' / 'bluetoothd-1.log').read_text()) == [
        ('RequestConfirmation', passkey)]
    # Saved once the peer was trusted (bluetoothd may add to the store later).
    pairing = '%s/%s/info' % (vm.host, vm.peer)
    assert 'Trusted=true' in step['backup'][pairing]
    assert step['backup'][pairing].split('[LinkKey]')[1].split('\n')[1] == \
        step['store'][pairing].split('[LinkKey]')[1].split('\n')[1]


def visible(tree):
    return {p: t for p, t in (tree or {}).items() if not any(s.startswith('.')
                                                             for s in p.split('/'))}


def test_the_backup_follows_forget_and_restore_brings_it_back(vm):
    forget, again, restore = (vm.steps[n] for n in ('forget', 'forget-again', 'restore'))
    assert visible(forget['backup']) == visible(forget['store'])
    assert (again['store'], again['backup']) == (forget['store'], forget['backup'])
    assert visible(restore['store']) == visible(restore['backup'])


@pytest.mark.parametrize('part', bluetoothd.recording())
def test_bluetoothd_answers_as_recorded(vm, part):
    if RECORD:
        pytest.skip('KELVANE_RECORD_BLUETOOTHD: the recording was rewritten from this boot')
    assert vm.answers.get(part) == bluetoothd.recording()[part]
