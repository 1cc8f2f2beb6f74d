# The scan (-e) against simulated daemons: one run per world, all at once
# (a scan polls for ten seconds per adapter), each world answering several
# questions. Order, labels and classification of the devices are unit tables.

import pytest

NO_OWNER = 'The name org.bluez was not provided by any .service files'
NO_METHOD = ('Method "GetManagedObjects" with signature "" on interface '
             '"org.freedesktop.DBus.ObjectManager" doesn\'t exist\n')


def busy(sim):
    # hci0 with devices that come, change and go; hci1 off (powered by the
    # scan); hci10 and usb0 refuse.
    sim.add_adapter('hci0', name='alpha')
    sim.add_device('hci0', '00:00:00:00:00:01', rssi=-40, name='Strong')
    sim.add_device('hci0', '00:00:00:00:00:02', rssi=-70, name='\ufeffBOM first')
    sim.add_device('hci0', '11:22:33:44:55:66', paired=True, name='Paired but off')
    rising = sim.add_device('hci0', 'AA:00:00:00:00:05', rssi=-80, appear_after=3)
    sim.schedule(rising, 7, rssi=-50, name='Came closer')
    sim.add_device('hci0', 'AA:00:00:00:00:07', rssi=-60, name='Left early', vanish_after=3)
    sim.add_adapter('hci1', powered=False)
    sim.add_device('hci1', '22:00:00:00:00:01', rssi=-55)
    sim.add_adapter('hci10')
    sim.add_device('hci10', '33:00:00:00:00:10', rssi=-45)
    sim.fault('StartDiscovery', 'org.bluez.Error.InProgress', 'Operation already in progress',
              path='/org/bluez/hci10')
    sim.add_adapter('/org/bluez/usb0', powered=False)
    sim.fault_set('Powered', 'org.bluez.Error.Blocked', 'Blocked through rfkill',
                  path='/org/bluez/usb0')


def empty_daemon(sim):
    sim.configure(list_manager=False)
    sim.object_managers('/', '/org/bluez')


def manager_below(sim):
    sim.object_managers('/org/bluez')
    sim.add_adapter('hci0')
    sim.add_device('hci0', '55:00:00:00:00:01', rssi=-30)


def probed(sim):
    sim.object_managers()
    sim.add_adapter('hci3', name='probed', alias='Probed', address='00:00:00:00:03:03')
    sim.add_device('hci3', '66:00:00:00:00:01', rssi=-30)
    sim.add_adapter('hci16', name='too far')


def leaves(sim):
    sim.add_adapter('hci0')
    sim.add_device('hci0', '77:00:00:00:00:01', rssi=-40)
    sim.add_device('hci0', '77:00:00:00:00:02', rssi=-50, appear_after=6)
    sim.leave_bus(after_managed_objects=4)  # the listing and three polls are answered


# world (None: no BlueZ), words, options -> exit status, error, {address: (rssi, name)} of
# the devices listed
SCANS = {
    # Every poll counts: a device that came late and changed, one gone early.
    # Nobody may scan.
    'busy': (busy, ['-v', '-e'], {'root': False}, 0,
             'adapter 10: Operation already in progress; adapter -1: Blocked through rfkill',
             {'00:00:00:00:00:01': (-40, 'Strong'), 'AA:00:00:00:00:05': (-50, 'Came closer'),
              '22:00:00:00:00:01': (-55, ''), 'AA:00:00:00:00:07': (-60, 'Left early'),
              '00:00:00:00:00:02': (-70, '\ufeffBOM first'),
              '11:22:33:44:55:66': (None, 'Paired but off')}),
    'empty daemon': (empty_daemon, ['-e'], {}, 1, 'no BlueZ objects found', {}),
    'no object manager': (lambda sim: sim.object_managers(), ['-e'], {}, 1, NO_METHOD, {}),
    'absent': (None, ['-v', '-e'], {}, 1, NO_OWNER, {}),
    'manager below': (manager_below, ['-v', '-e'], {}, 0, '', {'55:00:00:00:00:01': (-30, '')}),
    # Probing finds adapters, never devices.
    'probed': (probed, ['-e', '-v'], {}, 0, '', {}),
    # What was seen before BlueZ left.
    'leaves': (leaves, ['-v', '-e'], {}, 0, '', {'77:00:00:00:00:01': (-40, '')}),
}


@pytest.fixture(scope='module')
def scanned(at_once):
    return at_once({name: row[:3] for name, row in SCANS.items()}, 120)


@pytest.mark.parametrize('name', SCANS)
def test_outcome(scanned, name):
    run, _ = scanned[name]
    devices = {d['address']: (d['rssi'], d['name']) for d in run.json['devices']}
    assert (run.status, run.json['error'], devices) == SCANS[name][3:], run
    assert run.stderr == '' or '-v' in run.argv
    assert (run.tmp, run.store) == ({}, {})  # a scan writes nothing


def test_adapters_and_calls(scanned):
    run, sim = scanned['busy']
    assert [(a['path'], a['id'], a['powered'], a['name']) for a in run.json['adapters']] == [
        ('/org/bluez/hci0', 0, True, 'alpha'), ('/org/bluez/hci1', 1, False, 'sim-hci1'),
        ('/org/bluez/hci10', 10, True, 'sim-hci10'), ('/org/bluez/usb0', -1, False, 'sim-usb0')]
    # A snapshot for the listing and each poll of the two adapters that discovered.
    assert sim.methods().count('GetManagedObjects') == 21
    run, sim = scanned['probed']
    assert run.json['adapters'] == [{'address': '00:00:00:00:03:03', 'alias': 'Probed',
                                     'discovering': False, 'id': 3, 'name': 'probed',
                                     'path': '/org/bluez/hci3', 'powered': True}]
    # Probing stops at hci15; what the busy scan asked of each adapter is its trace.
    assert [c.method for c in sim.calls(path='/org/bluez/hci3') if c.method != 'GetAll'] == [
        'SetDiscoveryFilter', 'StartDiscovery', 'StopDiscovery']
    assert sim.calls(path='/org/bluez/hci16') == []


def gmo(path='/', outcome='ok'):
    return ['dbus >> org.bluez %s org.freedesktop.DBus.ObjectManager.GetManagedObjects' % path,
            'dbus << GetManagedObjects ' + outcome]


def discovery(adapter, start='ok', polls=0, stop='ok'):
    path = 'dbus >> org.bluez /org/bluez/%s org.bluez.Adapter1.' % adapter
    return ([path + 'SetDiscoveryFilter (Transport=auto)', 'dbus << SetDiscoveryFilter ok',
             path + 'StartDiscovery', 'dbus << StartDiscovery ' + start] + gmo() * polls
            + ([path + 'StopDiscovery', 'dbus << StopDiscovery ' + stop] if stop else []))


def power(adapter, outcome='ok: org.bluez.Adapter1.Powered=true'):
    return ['dbus >> org.bluez /org/bluez/%s org.freedesktop.DBus.Properties.Set '
            '(org.bluez.Adapter1.Powered=true)' % adapter, 'dbus << Properties.Set ' + outcome]


def test_traces(scanned):
    trace = {name: run.stderr for name, (run, _) in scanned.items()}
    assert trace['busy'].splitlines() == (
        gmo() + discovery('hci0', polls=10) + power('hci1') + discovery('hci1', polls=10)
        + discovery('hci10', 'error: Operation already in progress', stop=None)
        + power('usb0', 'error: Blocked through rfkill'))
    # Nobody owns org.bluez: an answer that cannot change ends the chain at once.
    assert trace['absent'].splitlines() == gmo(outcome='error: ' + NO_OWNER)
    # Asked in vain at /, the object manager below /org/bluez answers: no note of it.
    assert trace['manager below'].startswith('\n'.join(
        gmo(outcome='error: ' + NO_METHOD) + gmo('/org/bluez')))
    assert 'unavailable' not in trace['manager below']
    assert 'debug: GetManagedObjects unavailable at /org/bluez' in trace['probed'].splitlines()
    assert trace['leaves'].splitlines()[-2:] == discovery('hci0', stop='error: ' + NO_OWNER)[-2:]
