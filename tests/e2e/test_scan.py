'''The scan (-e) through the real binary against the simulated BlueZ.

A scan polls for ten seconds per adapter on purpose, so the worlds below are
built first and all scanned at once, each on its own bus; the tests then
read what each run printed and what the simulator saw. Every world is made
to answer several questions from one run.'''

import concurrent.futures
import os

import dbus
import pytest

import harness
from kelvane_sim.client import PrivateBus, Sim, describe_failure

ADAPTER = 'org.bluez.Adapter1'
PROPERTIES = 'org.freedesktop.DBus.Properties'
NO_OWNER = 'The name org.bluez was not provided by any .service files'


def dev(adapter, address):
    return '/org/bluez/%s/dev_%s' % (adapter, address.replace(':', '_'))


def gmo_lines(path='/', error=None):
    call = 'dbus >> org.bluez %s org.freedesktop.DBus.ObjectManager.GetManagedObjects' % path
    return [call, 'dbus << GetManagedObjects ' + ('ok' if error is None else 'error: ' + error)]


def discovery_lines(adapter, start_error=None):
    path = '/org/bluez/' + adapter
    lines = ['dbus >> org.bluez %s org.bluez.Adapter1.SetDiscoveryFilter (Transport=auto)' % path,
             'dbus << SetDiscoveryFilter ok',
             'dbus >> org.bluez %s org.bluez.Adapter1.StartDiscovery' % path]
    if start_error is not None:
        return lines + ['dbus << StartDiscovery error: ' + start_error]
    return lines + ['dbus << StartDiscovery ok']


def stop_lines(adapter, error=None):
    return ['dbus >> org.bluez /org/bluez/%s org.bluez.Adapter1.StopDiscovery' % adapter,
            'dbus << StopDiscovery ' + ('ok' if error is None else 'error: ' + error)]


def power_lines(path, error=None):
    detail = 'org.bluez.Adapter1.Powered=true'
    return ['dbus >> org.bluez %s org.freedesktop.DBus.Properties.Set (%s)' % (path, detail),
            'dbus << Properties.Set ' + ('ok: ' + detail if error is None else 'error: ' + error)]


# -- the worlds --------------------------------------------------------------
# Each takes the simulator (None when BlueZ is not on the bus at all) and
# returns the run options; tests look the world up by name.

WORLDS = {}


def world(name, args=('-e',), with_sim=True, root=True):
    def register(build):
        WORLDS[name] = (build, list(args), with_sim, root)
        return build
    return register


@world('busy', args=('-v', '-e'), root=False)
def _busy(sim):
    '''Four adapters in path order hci0, hci1, hci10, usb0 and one without an
    address. hci0 carries the devices whose order and latest values count;
    hci1 is off and gets powered; hci10 and usb0 refuse, hci10 with devices
    that hci1's scan must not pick up.'''
    sim.add_adapter('hci0', name='alpha')
    sim.add_device('hci0', '00:00:00:00:00:01', rssi=-40, name='Strong')
    sim.add_device('hci0', '00:00:00:00:00:02', rssi=-70, name='\ufeffBOM first')
    sim.add_device('hci0', '11:22:33:44:55:66', paired=True, trusted=True, name='Paired but off')
    sim.add_device('hci0', '0A:BB:CC:DD:EE:FF')
    rising = sim.add_device('hci0', 'AA:00:00:00:00:05', rssi=-80, appear_after=3)
    sim.schedule(rising, 7, rssi=-50, name='Came closer')
    fading = sim.add_device('hci0', 'AA:00:00:00:00:06', rssi=-50)
    sim.schedule(fading, 5, rssi=-80)
    sim.add_device('hci0', 'AA:00:00:00:00:07', rssi=-60, name='Left early', vanish_after=3)
    sim.add_device('hci0', 'AA:00:00:00:00:08', props={
        'Name': dbus.Int32(42), 'RSSI': dbus.String('strong'), 'Class': dbus.String('phone'),
        'UUIDs': dbus.Array([dbus.Int32(1)], signature='i'),
        'Appearance': dbus.UInt32(0x10003C1), 'Paired': dbus.Int32(1)})
    sim.add_device('hci0', 'AA:00:00:00:00:09', path=dev('hci0', 'AA:00:00:00:00:09'),
                   omit=['Address'], rssi=-10)
    sim.add_device('hci0', 'AA:00:00:00:00:0A', path=dev('hci0', 'AA:00:00:00:00:0A'),
                   props={'Address': dbus.UInt32(42)})
    sim.add_adapter('hci1', powered=False, name='beta')
    sim.add_device('hci1', '22:00:00:00:00:01', rssi=-55)
    sim.add_adapter('hci10')
    sim.add_device('hci10', '33:00:00:00:00:10', rssi=-45)
    sim.fault('StartDiscovery', 'org.bluez.Error.InProgress', 'Operation already in progress',
              path='/org/bluez/hci10')
    sim.add_adapter('hci3', omit=['Address'])
    sim.add_adapter('/org/bluez/usb0', powered=False)
    sim.fault_set('Powered', 'org.bluez.Error.Blocked', 'Blocked through rfkill',
                  path='/org/bluez/usb0')


@world('all-fail')
def _all_fail(sim):
    sim.add_adapter('hci0', powered=False)
    sim.fault_set('Powered', 'org.bluez.Error.Failed', 'Not Ready', path='/org/bluez/hci0')
    sim.add_adapter('hci1')
    sim.add_device('hci1', '44:00:00:00:00:01', rssi=-20)
    sim.fault('SetDiscoveryFilter', 'org.bluez.Error.NotReady', 'Resource Not Ready',
              path='/org/bluez/hci1')


@world('no-address')
def _no_address(sim):
    sim.add_adapter('hci0', omit=['Address'])


@world('empty-daemon')
def _empty_daemon(sim):
    sim.configure(list_manager=False)
    sim.object_managers('/', '/org/bluez')


@world('no-object-manager')
def _no_object_manager(sim):
    sim.object_managers()


@world('absent', with_sim=False)
def _absent(sim):
    del sim


@world('manager-below', args=('-v', '-e'))
def _manager_below(sim):
    sim.object_managers('/org/bluez')
    sim.add_adapter('hci0')
    sim.add_device('hci0', '55:00:00:00:00:01', rssi=-30, name='Found below')


@world('probed', args=('-e', '-v'))
def _probed(sim):
    sim.object_managers()
    sim.add_adapter('hci3', name='probed', alias='Probed')
    sim.add_device('hci3', '66:00:00:00:00:01', rssi=-30)
    sim.add_adapter('hci16', name='too far')


@world('leaves', args=('-v', '-e'))
def _leaves(sim):
    sim.add_adapter('hci0')
    sim.add_device('hci0', '77:00:00:00:00:01', rssi=-40)
    sim.add_device('hci0', '77:00:00:00:00:02', rssi=-50, appear_after=6)
    # The listing and three polls are answered, then org.bluez is gone.
    sim.leave_bus(after_managed_objects=4)


class Scanned:
    '''One world after its run: run (harness.Run), doc (the result), sim.'''

    def __init__(self, name, run, sim):
        self.name, self.run, self.sim = name, run, sim
        self.doc = run.json

    def devices(self):
        return [(d['address'], d['rssi']) for d in self.doc['devices']]

    def adapter_calls(self, path):
        '''(method, detail) of the tool's calls on one adapter, in order.'''
        out = []
        for call in self.sim.calls(path=path):
            if call.interface == ADAPTER:
                out.append((call.method, call.args[0] if call.args else None))
            elif call.interface == PROPERTIES and call.method == 'Set':
                out.append(('Set', '%s.%s=%s' % (call.args[0], call.args[1], call.args[2])))
        return out

    def trace(self):
        return self.run.stderr.splitlines()


@pytest.fixture(scope='module')
def scanned(request):
    binary = os.environ.get('KELVANE_BIN')
    if not binary:
        pytest.skip('KELVANE_BIN is not set (ctest sets it to the built binary)')
    if os.geteuid() != 0:
        pytest.skip('the end-to-end harness needs root for its mount namespace')
    buses, sims, jobs = [], {}, {}
    try:
        for name, (build, args, with_sim, root) in WORLDS.items():
            bus = PrivateBus()
            buses.append(bus)
            sim = Sim(bus) if with_sim else None
            sims[name] = sim
            build(sim)
            jobs[name] = (args, dict(binary=binary, bus_address=bus.address, root=root))
        with concurrent.futures.ThreadPoolExecutor(len(jobs)) as pool:
            futures = {name: pool.submit(harness.run_kelvane, args, timeout=120, **options)
                       for name, (args, options) in jobs.items()}
            runs = {name: future.result() for name, future in futures.items()}
        yield {name: Scanned(name, runs[name], sims[name]) for name in WORLDS}
    finally:
        if request.session.testsfailed:
            print('\n'.join(describe_failure(sim=s) for s in sims.values() if s))
        for sim in sims.values():
            if sim:
                sim.stop()
        for bus in buses:
            bus.stop()


# -- what the runs show --------------------------------------------------------

def test_adapters_in_path_order_without_addressless_ones(scanned):
    busy = scanned['busy']
    assert busy.run.status == 0, busy.run
    assert [(a['path'], a['id'], a['powered']) for a in busy.doc['adapters']] == [
        ('/org/bluez/hci0', 0, True), ('/org/bluez/hci1', 1, False),
        ('/org/bluez/hci10', 10, True), ('/org/bluez/usb0', -1, False)]
    assert busy.doc['adapters'][0]['name'] == 'alpha'
    assert busy.adapter_calls('/org/bluez/hci3') == []


def test_devices_by_strength_then_address_with_the_latest_poll_winning(scanned):
    busy = scanned['busy']
    assert busy.devices() == [
        ('AA:00:00:00:00:08', 0),  # an RSSI of the wrong type counts as 0
        ('00:00:00:00:00:01', -40),
        ('AA:00:00:00:00:05', -50),  # appeared at -80, came closer
        ('22:00:00:00:00:01', -55),  # hci1, powered by the scan
        ('AA:00:00:00:00:07', -60),  # gone after 3 s, still reported
        ('00:00:00:00:00:02', -70),
        ('AA:00:00:00:00:06', -80),  # started at -50, moved away
        ('0A:BB:CC:DD:EE:FF', None),
        ('11:22:33:44:55:66', None),
        ('42', None)]  # an Address of the wrong type, as text
    by_address = {d['address']: d for d in busy.doc['devices']}
    assert by_address['AA:00:00:00:00:05']['name'] == 'Came closer'
    assert by_address['AA:00:00:00:00:07']['name'] == 'Left early'
    assert by_address['11:22:33:44:55:66']['paired'] is True
    assert by_address['00:00:00:00:00:02']['name'] == '\ufeffBOM first'  # bus texts as sent
    assert by_address['0A:BB:CC:DD:EE:FF']['class_of_device'] is None
    assert by_address['0A:BB:CC:DD:EE:FF']['appearance'] is None
    assert by_address['0A:BB:CC:DD:EE:FF']['uuids'] == []


def test_wrongly_typed_properties_are_converted_not_fatal(scanned):
    odd = {d['address']: d for d in scanned['busy'].doc['devices']}['AA:00:00:00:00:08']
    assert (odd['name'], odd['label'], odd['class_of_device'], odd['uuids'], odd['appearance'],
            odd['paired']) == ('42', '42', 0, [], 0x03C1, True)


def test_failed_adapters_are_reported_by_id_and_the_rest_still_scanned(scanned):
    busy = scanned['busy']
    assert busy.doc['result'] == 'ok'
    assert busy.doc['error'] == ('adapter 10: Operation already in progress; '
                                 'adapter -1: Blocked through rfkill')
    assert '33:00:00:00:00:10' not in [a for a, _ in busy.devices()]


def test_powering_and_discovery_calls_per_adapter(scanned):
    busy = scanned['busy']
    start = [('SetDiscoveryFilter', {'Transport': 'auto'}), ('StartDiscovery', None)]
    assert busy.adapter_calls('/org/bluez/hci0') == start + [('StopDiscovery', None)]
    assert busy.adapter_calls('/org/bluez/hci1') == (
        [('Set', 'org.bluez.Adapter1.Powered=True')] + start + [('StopDiscovery', None)])
    assert busy.adapter_calls('/org/bluez/hci10') == start
    assert busy.adapter_calls('/org/bluez/usb0') == [('Set', 'org.bluez.Adapter1.Powered=True')]
    # Nothing else: no introspection or property reads, one snapshot for the
    # listing and one per poll of the two adapters that got to discover.
    assert set(busy.sim.methods()) == {'GetManagedObjects', 'Set', 'SetDiscoveryFilter',
                                       'StartDiscovery', 'StopDiscovery'}
    assert busy.sim.methods().count('GetManagedObjects') == 1 + 10 + 10
    adapters = busy.sim.state()['adapters']
    assert adapters['/org/bluez/hci0']['sessions'] == []
    assert adapters['/org/bluez/hci1']['sessions'] == []


def test_verbose_trace_of_a_whole_scan(scanned):
    busy = scanned['busy']
    poll = gmo_lines()
    assert busy.trace() == (
        poll
        + discovery_lines('hci0') + poll * 10 + stop_lines('hci0')
        + power_lines('/org/bluez/hci1') + discovery_lines('hci1') + poll * 10
        + stop_lines('hci1')
        + discovery_lines('hci10', 'Operation already in progress')
        + power_lines('/org/bluez/usb0', 'Blocked through rfkill'))


def test_scan_as_nobody_leaves_no_files(scanned):
    run = scanned['busy'].run
    assert run.tmp == {} and run.store == {}


def test_every_adapter_failing_is_still_ok(scanned):
    failed = scanned['all-fail']
    assert (failed.run.status, failed.doc['result'], failed.doc['devices']) == (0, 'ok', [])
    assert failed.doc['error'] == 'adapter 0: Not Ready; adapter 1: Resource Not Ready'
    assert [a['id'] for a in failed.doc['adapters']] == [0, 1]
    assert failed.adapter_calls('/org/bluez/hci0') == [('Set', 'org.bluez.Adapter1.Powered=True')]
    assert failed.adapter_calls('/org/bluez/hci1') == [('SetDiscoveryFilter',
                                                       {'Transport': 'auto'})]
    assert failed.run.stderr == ''


@pytest.mark.parametrize('name, error', [
    ('no-address', 'no Bluetooth adapters found'),
    ('empty-daemon', 'no BlueZ objects found'),
    ('no-object-manager', 'Method "GetManagedObjects" with signature "" on interface '
                          '"org.freedesktop.DBus.ObjectManager" doesn\'t exist\n'),
    ('absent', NO_OWNER),
])
def test_without_adapters_the_scan_fails(scanned, name, error):
    run = scanned[name].run
    assert run.status == 1, run
    assert run.json == {'adapters': [], 'devices': [], 'error': error, 'result': 'error'}
    assert run.stderr == ''


def test_object_manager_only_below_org_bluez(scanned):
    below = scanned['manager-below']
    assert below.run.status == 0 and below.doc['error'] == ''
    assert below.devices() == [('55:00:00:00:00:01', -30)]
    trace = below.trace()
    assert trace[0] == gmo_lines()[0]
    assert trace[1].startswith('dbus << GetManagedObjects error: ')
    assert not any('unavailable' in line for line in trace)
    assert len(below.sim.calls(method='GetManagedObjects', path='/org/bluez')) == 11


def test_adapters_found_only_by_probing(scanned):
    probed = scanned['probed']
    assert probed.run.status == 0, probed.run
    assert probed.doc['adapters'] == [{
        'address': probed.sim.props('/org/bluez/hci3')['Address'], 'alias': 'Probed',
        'discovering': False, 'id': 3, 'name': 'probed', 'path': '/org/bluez/hci3',
        'powered': True}]
    # Probing finds adapters, never devices.
    assert (probed.doc['devices'], probed.doc['error']) == ([], '')
    assert 'debug: GetManagedObjects unavailable at /org/bluez' in probed.trace()
    assert probed.adapter_calls('/org/bluez/hci3')[-1] == ('StopDiscovery', None)
    assert probed.sim.calls(path='/org/bluez/hci16') == []


def test_bluez_leaving_mid_scan_keeps_what_was_seen(scanned):
    leaves = scanned['leaves']
    assert leaves.run.status == 0, leaves.run
    assert (leaves.doc['result'], leaves.doc['error']) == ('ok', '')
    assert leaves.devices() == [('77:00:00:00:00:01', -40)]
    assert leaves.trace()[-2:] == stop_lines('hci0', NO_OWNER)
