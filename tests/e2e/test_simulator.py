'''The simulated BlueZ itself, driven with dbus-python (no kelvane binary):
what the end-to-end suites rely on must hold here first.'''

import time
from xml.etree import ElementTree

import dbus
import dbus.mainloop.glib
import dbus.service
import pytest
from gi.repository import GLib

dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)

OM = 'org.freedesktop.DBus.ObjectManager'
PROPS = 'org.freedesktop.DBus.Properties'
ADAPTER = 'org.bluez.Adapter1'
DEVICE = 'org.bluez.Device1'
AGENT = 'org.bluez.Agent1'
AGENT_MANAGER = 'org.bluez.AgentManager1'
MAC = 'AA:BB:CC:DD:EE:FF'
HCI0 = '/org/bluez/hci0'
DEV = HCI0 + '/dev_AA_BB_CC_DD_EE_FF'
AGENT_PATH = '/test/agent'
TRUE = dbus.Boolean(True, variant_level=1)  # sent as a variant, as Properties.Set wants
AUTO = dbus.Dictionary({'Transport': 'auto'}, signature='sv')
UNKNOWN_GMO = ('Method "GetManagedObjects" with signature "" on interface '
               '"org.freedesktop.DBus.ObjectManager" doesn\'t exist\n')


@pytest.fixture
def client(bus):
    conn = bus.connect()
    yield conn
    conn.close()


def bluez(conn, path, interface):
    return dbus.Interface(conn.get_object('org.bluez', path, introspect=False), interface)


def managed_objects(conn, path='/'):
    return bluez(conn, path, OM).GetManagedObjects()


def error_of(call, *args, **kwargs):
    '''(name, message) of the D-Bus error a call ends in, None on success.'''
    try:
        call(*args, **kwargs)
    except dbus.exceptions.DBusException as e:
        return e.get_dbus_name(), e.get_dbus_message()
    return None


SILENT = object()


class Agent(dbus.service.Object):
    '''A test agent: records every callback and answers from `answers`
    (method -> return value, DBusException to reject, SILENT never to reply).'''

    def __init__(self, conn, path=AGENT_PATH, answers=None):
        super().__init__(conn, path)
        self.calls = []
        self.answers = answers or {}

    def _answer(self, method, args, ok, fail, has_result=False):
        self.calls.append([method] + [str(a) if isinstance(a, str) else int(a) for a in args])
        answer = self.answers.get(method)
        if answer is SILENT:
            return
        if isinstance(answer, dbus.exceptions.DBusException):
            fail(answer)
        elif has_result:
            ok(answer)
        else:
            ok()

    @dbus.service.method(AGENT, in_signature='', out_signature='', async_callbacks=('ok', 'fail'))
    def Release(self, ok, fail):
        self._answer('Release', [], ok, fail)

    @dbus.service.method(AGENT, in_signature='o', out_signature='s', async_callbacks=('ok', 'fail'))
    def RequestPinCode(self, device, ok, fail):
        self._answer('RequestPinCode', [device], ok, fail, True)

    @dbus.service.method(AGENT, in_signature='os', out_signature='', async_callbacks=('ok', 'fail'))
    def DisplayPinCode(self, device, pin, ok, fail):
        self._answer('DisplayPinCode', [device, pin], ok, fail)

    @dbus.service.method(AGENT, in_signature='o', out_signature='u', async_callbacks=('ok', 'fail'))
    def RequestPasskey(self, device, ok, fail):
        self._answer('RequestPasskey', [device], ok, fail, True)

    @dbus.service.method(AGENT, in_signature='ouq', out_signature='',
                         async_callbacks=('ok', 'fail'))
    def DisplayPasskey(self, device, passkey, entered, ok, fail):
        self._answer('DisplayPasskey', [device, passkey, entered], ok, fail)

    @dbus.service.method(AGENT, in_signature='ou', out_signature='', async_callbacks=('ok', 'fail'))
    def RequestConfirmation(self, device, passkey, ok, fail):
        self._answer('RequestConfirmation', [device, passkey], ok, fail)

    @dbus.service.method(AGENT, in_signature='o', out_signature='', async_callbacks=('ok', 'fail'))
    def RequestAuthorization(self, device, ok, fail):
        self._answer('RequestAuthorization', [device], ok, fail)

    @dbus.service.method(AGENT, in_signature='os', out_signature='', async_callbacks=('ok', 'fail'))
    def AuthorizeService(self, device, uuid, ok, fail):
        self._answer('AuthorizeService', [device, uuid], ok, fail)

    @dbus.service.method(AGENT, in_signature='', out_signature='', async_callbacks=('ok', 'fail'))
    def Cancel(self, ok, fail):
        self._answer('Cancel', [], ok, fail)


def register(conn, agent_path=AGENT_PATH, capability='KeyboardDisplay', default=True):
    manager = bluez(conn, '/org/bluez', AGENT_MANAGER)
    manager.RegisterAgent(dbus.ObjectPath(agent_path), capability)
    if default:
        manager.RequestDefaultAgent(dbus.ObjectPath(agent_path))


def pair(conn, device=DEV, timeout=10):
    '''Pair asynchronously while the main loop serves the agent, as the
    tool does; returns None on success, else (error name, message).'''
    loop = GLib.MainLoop()
    outcome = {}

    def done(error=None):
        outcome['error'] = error and (error.get_dbus_name(), error.get_dbus_message())
        loop.quit()

    bluez(conn, device, DEVICE).Pair(reply_handler=done, error_handler=done, timeout=timeout)
    GLib.timeout_add(int(timeout * 1000) + 1000, loop.quit)
    loop.run()
    assert 'error' in outcome, 'Pair never answered'
    return outcome['error']


# -- objects and properties -------------------------------------------------

def test_world_is_built_as_described(sim, client):
    sim.add_adapter('hci10', address='00:AA:00:00:00:10', name='ten')
    sim.add_adapter('hci2', powered=False)
    sim.add_adapter('hci1', omit=['Address'])
    sim.add_adapter('/org/other/adapter')
    sim.add_device('hci10', MAC, name='Phone', rssi=-60, device_class=0x5a020c, appearance=0x40,
                   uuids=['0000110b-0000-1000-8000-00805f9b34fb'], icon='phone')
    sim.add_device('hci10', '11:22:33:44:55:66', omit=['Alias'])
    objects = managed_objects(client)

    assert sorted(objects) == ['/org/bluez', '/org/bluez/hci1', '/org/bluez/hci10',
                               '/org/bluez/hci10/dev_11_22_33_44_55_66',
                               '/org/bluez/hci10/dev_AA_BB_CC_DD_EE_FF', '/org/bluez/hci2',
                               '/org/other/adapter']
    ten = objects['/org/bluez/hci10'][ADAPTER]
    assert (ten['Address'], ten['Name'], ten['Powered']) == ('00:AA:00:00:00:10', 'ten', True)
    assert objects['/org/bluez/hci2'][ADAPTER]['Powered'] is not True
    assert 'Address' not in objects['/org/bluez/hci1'][ADAPTER]
    assert AGENT_MANAGER in objects['/org/bluez']

    phone = objects['/org/bluez/hci10/dev_AA_BB_CC_DD_EE_FF'][DEVICE]
    assert isinstance(phone['RSSI'], dbus.Int16) and phone['RSSI'] == -60
    assert isinstance(phone['Class'], dbus.UInt32) and phone['Class'] == 0x5a020c
    assert isinstance(phone['Appearance'], dbus.UInt16) and phone['Appearance'] == 0x40
    assert phone['UUIDs'].signature == 's' and list(phone['UUIDs']) == [
        '0000110b-0000-1000-8000-00805f9b34fb']
    assert (phone['Name'], phone['Alias'], phone['Icon']) == ('Phone', 'Phone', 'phone')
    bare = objects['/org/bluez/hci10/dev_11_22_33_44_55_66'][DEVICE]
    assert not {'Name', 'Alias', 'Icon', 'RSSI', 'Class', 'Appearance', 'UUIDs'} & set(bare)
    assert bare['Adapter'] == '/org/bluez/hci10' and bare['Paired'] is not True


def test_wrong_types_reach_clients_unchanged(sim, client):
    sim.add_adapter('hci0', props={'Powered': dbus.String('yes')})
    sim.add_device('hci0', MAC, props={'RSSI': dbus.String('-60'), 'Address': dbus.UInt32(7),
                                       'UUIDs': dbus.Array([1, 2], signature='i'),
                                       'Class': dbus.Int32(-1)})
    device = managed_objects(client)[DEV][DEVICE]
    assert isinstance(device['RSSI'], dbus.String) and device['RSSI'] == '-60'
    assert isinstance(device['Address'], dbus.UInt32) and device['Address'] == 7
    assert device['UUIDs'].signature == 'i' and list(device['UUIDs']) == [1, 2]
    assert isinstance(device['Class'], dbus.Int32)
    powered = bluez(client, HCI0, PROPS).Get(ADAPTER, 'Powered')
    assert isinstance(powered, dbus.String) and powered == 'yes'


def test_properties_can_change_and_vanish(sim, client):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, rssi=-70, name='Old')
    sim.set_props(DEV, rssi=-40, name='New')
    sim.delete_props(DEV, ['RSSI'])
    device = managed_objects(client)[DEV][DEVICE]
    assert device['Name'] == 'New' and 'RSSI' not in device
    assert sim.props(DEV)['Name'] == 'New'
    sim.drop(HCI0)
    assert sorted(managed_objects(client)) == ['/org/bluez']


@pytest.mark.parametrize('managers', [('/',), ('/org/bluez',), ()], ids=['root', 'org-bluez',
                                                                         'nowhere'])
def test_object_manager_placement(sim, client, managers):
    sim.add_adapter('hci3')
    sim.add_device('hci3', MAC)
    sim.object_managers(*managers)
    for path in ('/', '/org/bluez'):
        outcome = error_of(managed_objects, client, path)
        if path in managers:
            assert outcome is None
        else:
            assert outcome == ('org.freedesktop.DBus.Error.UnknownMethod', UNKNOWN_GMO)
    if '/org/bluez' in managers:
        assert sorted(managed_objects(client, '/org/bluez')) == [
            '/org/bluez/hci3', '/org/bluez/hci3/dev_AA_BB_CC_DD_EE_FF']
    # What a client probing /org/bluez/hciN finds without any object manager.
    xml = ElementTree.fromstring(client.get_object('org.bluez', '/org/bluez/hci3').Introspect(
        dbus_interface='org.freedesktop.DBus.Introspectable'))
    adapter = xml.find("interface[@name='org.bluez.Adapter1']")
    assert adapter is not None
    assert adapter.find("property[@name='Powered']").get('type') == 'b'
    assert bluez(client, '/org/bluez/hci3', PROPS).Get(ADAPTER, 'Powered') is not False
    missing = ElementTree.fromstring(client.get_object('org.bluez', '/org/bluez/hci4').Introspect(
        dbus_interface='org.freedesktop.DBus.Introspectable'))
    assert missing.find("interface[@name='org.bluez.Adapter1']") is None


# -- discovery ---------------------------------------------------------------

def test_discovery_reveals_delayed_devices_by_discovery_time(sim, client):
    sim.add_adapter('hci0')
    sim.add_adapter('hci1')
    soon = sim.add_device('hci0', '11:11:11:11:11:11', appear_after=0.2, rssi=-80)
    late = sim.add_device('hci0', '22:22:22:22:22:22', appear_after=0.5)
    other = sim.add_device('hci1', '33:33:33:33:33:33', appear_after=0.1)
    sim.schedule(soon, 0.45, rssi=-50)
    sim.add_device('hci0', '44:44:44:44:44:44', vanish_after=0.2)
    adapter = bluez(client, HCI0, ADAPTER)
    properties = bluez(client, HCI0, PROPS)

    def present():
        return {p for p in managed_objects(client) if '/dev_' in p}

    time.sleep(0.3)  # time without discovery does not count
    assert present() == {HCI0 + '/dev_44_44_44_44_44_44'}
    adapter.SetDiscoveryFilter(AUTO)
    adapter.StartDiscovery()
    assert properties.Get(ADAPTER, 'Discovering') is not False
    time.sleep(0.3)
    assert present() == {soon}
    assert managed_objects(client)[soon][DEVICE]['RSSI'] == -80
    adapter.StopDiscovery()
    assert properties.Get(ADAPTER, 'Discovering') is not True
    time.sleep(0.3)
    assert present() == {soon}
    adapter.StartDiscovery()
    time.sleep(0.25)
    assert present() == {soon, late}
    assert managed_objects(client)[soon][DEVICE]['RSSI'] == -50
    assert other not in present()
    state = sim.state()
    assert state['adapters'][HCI0]['filters'] == {client.get_unique_name(): {'Transport': 'auto'}}
    assert state['hidden_devices'] == [HCI0 + '/dev_44_44_44_44_44_44', other]


def test_discovery_refusals(sim, client, bus):
    sim.add_adapter('hci0', powered=False)
    adapter = bluez(client, HCI0, ADAPTER)
    assert error_of(adapter.StartDiscovery) == ('org.bluez.Error.NotReady', 'Resource Not Ready')
    bluez(client, HCI0, PROPS).Set(ADAPTER, 'Powered', TRUE)
    assert error_of(adapter.StopDiscovery) == ('org.bluez.Error.Failed', 'No discovery started')
    assert error_of(adapter.SetDiscoveryFilter,
                    dbus.Dictionary({'Transport': 'radio'}, signature='sv')) == (
        'org.bluez.Error.InvalidArguments', 'Invalid arguments in method call')
    adapter.StartDiscovery()
    assert error_of(adapter.StartDiscovery) == ('org.bluez.Error.InProgress',
                                                'Operation already in progress')
    # A second client's session keeps discovery on until both are gone.
    other = bus.connect()
    bluez(other, HCI0, ADAPTER).StartDiscovery()
    adapter.StopDiscovery()
    assert sim.props(HCI0)['Discovering'] is True
    other.close()
    time.sleep(0.1)
    assert sim.props(HCI0)['Discovering'] is False


# -- call log and faults -----------------------------------------------------

def test_call_log_records_every_call_in_order(sim, client):
    sim.add_adapter('hci0', powered=False)
    sim.add_device('hci0', MAC)
    managed_objects(client)
    bluez(client, HCI0, PROPS).Set(ADAPTER, 'Powered', TRUE)
    adapter = bluez(client, HCI0, ADAPTER)
    adapter.SetDiscoveryFilter(AUTO)
    adapter.StartDiscovery()
    adapter.StopDiscovery()
    adapter.RemoveDevice(dbus.ObjectPath(DEV))
    error_of(managed_objects, client, '/org/bluez')
    calls = sim.calls(include_own=True)  # the test drives through the client
    assert [(c.method, c.path, c.interface) for c in calls] == [
        ('GetManagedObjects', '/', OM),
        ('Set', HCI0, PROPS),
        ('SetDiscoveryFilter', HCI0, ADAPTER),
        ('StartDiscovery', HCI0, ADAPTER),
        ('StopDiscovery', HCI0, ADAPTER),
        ('RemoveDevice', HCI0, ADAPTER),
        ('GetManagedObjects', '/org/bluez', OM),
    ]
    assert (calls[1].args, calls[1].types) == (['org.bluez.Adapter1', 'Powered', True],
                                               ['s', 's', 'v(b)'])
    assert calls[2].args == [{'Transport': 'auto'}] and calls[5].args == [DEV]
    assert {c.sender for c in calls} == {client.get_unique_name()}
    assert [c.time for c in calls] == sorted(c.time for c in calls)
    # The test's own control connection is left out by default; another
    # client is not.
    assert sim.calls() == calls
    sim.clear_calls()
    assert sim.calls() == []


@pytest.mark.parametrize('times,failures', [(1, 1), (2, 2), (None, 4)],
                         ids=['once', 'twice', 'always'])
def test_fault_injection_counts(sim, client, times, failures):
    sim.add_adapter('hci0')
    sim.fault('StartDiscovery', 'org.bluez.Error.Busy', 'Resource busy', times=times)
    adapter = bluez(client, HCI0, ADAPTER)
    outcomes = []
    for _ in range(4):
        outcomes.append(error_of(adapter.StartDiscovery))
        if outcomes[-1] is None:
            adapter.StopDiscovery()
    assert outcomes == [('org.bluez.Error.Busy', 'Resource busy')] * failures + [None] * (
        4 - failures)
    faulted = [c.get('fault') for c in sim.calls(method='StartDiscovery', include_own=True)]
    assert faulted == ['org.bluez.Error.Busy'] * failures + [None] * (4 - failures)


def test_faults_match_property_and_path(sim, client):
    sim.add_adapter('hci0', powered=False)
    sim.add_adapter('hci1', powered=False)
    sim.fault_set('Powered', 'org.bluez.Error.Blocked', 'Operation blocked', times=None,
                  path='/org/bluez/hci1')
    sim.fault('RegisterAgent', 'org.bluez.Error.Failed', 'no agents today')
    props0, props1 = bluez(client, HCI0, PROPS), bluez(client, '/org/bluez/hci1', PROPS)
    assert error_of(props1.Set, ADAPTER, 'Powered', TRUE) == (
        'org.bluez.Error.Blocked', 'Operation blocked')
    assert error_of(props1.Set, ADAPTER, 'Pairable', TRUE) is None
    assert error_of(props0.Set, ADAPTER, 'Powered', TRUE) is None
    assert sim.props('/org/bluez/hci1')['Powered'] is False
    assert error_of(register, client) == ('org.bluez.Error.Failed', 'no agents today')
    assert sim.agents() == []


def test_property_writes_follow_bluez_rules(sim, client):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC)
    props = bluez(client, DEV, PROPS)
    props.Set(DEVICE, 'Trusted', TRUE)
    assert sim.props(DEV)['Trusted'] is True
    assert error_of(props.Set, DEVICE, 'Trusted', dbus.String('yes', variant_level=1)) == (
        'org.bluez.Error.InvalidArguments', 'Invalid arguments in method call')
    # Not a variant at all: no method has that signature.
    assert error_of(props.Set, DEVICE, 'Trusted', dbus.Boolean(True)) == (
        'org.freedesktop.DBus.Error.UnknownMethod', 'Method "Set" with signature "ssb" on '
        'interface "org.freedesktop.DBus.Properties" doesn\'t exist\n')
    assert error_of(props.Set, DEVICE, 'Paired', TRUE) == (
        'org.freedesktop.DBus.Error.PropertyReadOnly', "Property 'Paired' is not writable")
    assert error_of(props.Get, DEVICE, 'RSSI') == (
        'org.freedesktop.DBus.Error.InvalidArgs', "No such property 'RSSI'")


def test_connect_and_remove(sim, client):
    sim.add_adapter('hci0')
    sim.add_adapter('hci1')
    sim.add_device('hci0', MAC)
    other = sim.add_device('hci1', '11:22:33:44:55:66')
    device = bluez(client, DEV, DEVICE)
    device.Connect()
    assert sim.props(DEV)['Connected'] is True
    assert error_of(device.Connect) == ('org.bluez.Error.AlreadyConnected', 'Already Connected')
    adapter = bluez(client, HCI0, ADAPTER)
    assert error_of(adapter.RemoveDevice, dbus.ObjectPath(other)) == (
        'org.bluez.Error.DoesNotExist', 'Does Not Exist')
    adapter.RemoveDevice(dbus.ObjectPath(DEV))
    assert DEV not in managed_objects(client) and other in managed_objects(client)
    assert error_of(adapter.RemoveDevice, dbus.ObjectPath(DEV)) == (
        'org.bluez.Error.DoesNotExist', 'Does Not Exist')


@pytest.mark.parametrize('served', [1, 3])
def test_leaving_the_bus_after_managed_objects(sim, client, served):
    sim.add_adapter('hci0')
    sim.leave_bus(after_managed_objects=served)
    for _ in range(served):
        assert HCI0 in managed_objects(client)
    name, _ = error_of(managed_objects, client)
    assert name == 'org.freedesktop.DBus.Error.ServiceUnknown'
    assert not client.name_has_owner('org.bluez')
    assert sim.state()['left_bus'] is True
    assert len(sim.calls(method='GetManagedObjects')) == served


def test_leaving_the_bus_after_seconds(sim, client):
    sim.add_adapter('hci0')
    sim.leave_bus(after_seconds=0.2)
    assert HCI0 in managed_objects(client)
    time.sleep(0.4)
    assert not client.name_has_owner('org.bluez')


# -- agents and pairing ------------------------------------------------------

def test_agent_registration_rules(sim, client, bus):
    manager = bluez(client, '/org/bluez', AGENT_MANAGER)
    assert error_of(manager.RequestDefaultAgent, dbus.ObjectPath(AGENT_PATH)) == (
        'org.bluez.Error.DoesNotExist', 'Does Not Exist')
    assert error_of(manager.RegisterAgent, dbus.ObjectPath(AGENT_PATH), 'Telepathy') == (
        'org.bluez.Error.InvalidArguments', 'Invalid arguments in method call')
    register(client)
    assert error_of(manager.RegisterAgent, dbus.ObjectPath('/other'), 'DisplayOnly') == (
        'org.bluez.Error.AlreadyExists', 'Already Exists')
    assert sim.agents() == [{'owner': client.get_unique_name(), 'path': AGENT_PATH,
                             'capability': 'KeyboardDisplay', 'default': True}]
    assert error_of(manager.UnregisterAgent, dbus.ObjectPath('/other')) == (
        'org.bluez.Error.DoesNotExist', 'Does Not Exist')
    manager.UnregisterAgent(dbus.ObjectPath(AGENT_PATH))
    assert sim.agents() == []
    other = bus.connect()
    register(other, capability='NoInputNoOutput')
    assert [a['owner'] for a in sim.agents()] == [other.get_unique_name()]
    other.close()
    time.sleep(0.1)
    assert sim.agents() == []
    calls = sim.calls(interface=AGENT_MANAGER, include_own=True)
    assert [c.method for c in calls][:3] == ['RequestDefaultAgent', 'RegisterAgent',
                                             'RegisterAgent']
    assert calls[1].args == [AGENT_PATH, 'Telepathy']


@pytest.mark.parametrize('mode,expected', [
    ('confirm', [['RequestConfirmation', DEV, 123456]]),
    ('display-passkey', [['DisplayPasskey', DEV, 123456, n] for n in range(7)]),
    ('display-pin', [['DisplayPinCode', DEV, '0000']]),
    ('authorize', [['RequestAuthorization', DEV]]),
    ([{'method': 'RequestConfirmation', 'passkey': 4711},
      {'method': 'AuthorizeService', 'uuid': '00001124-0000-1000-8000-00805f9b34fb'}],
     [['RequestConfirmation', DEV, 4711],
      ['AuthorizeService', DEV, '00001124-0000-1000-8000-00805f9b34fb']]),
], ids=['confirm', 'display-passkey', 'display-pin', 'authorize', 'steps'])
def test_pair_calls_back_the_agent(sim, client, mode, expected):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, pairing=mode)
    agent = Agent(client)
    register(client)
    assert pair(client) is None
    assert agent.calls == expected
    assert sim.props(DEV)['Paired'] is True
    log = sim.agent_calls()
    assert [[e['method']] + e['args'] for e in log] == expected
    assert all(e['owner'] == client.get_unique_name() and e['agent'] == AGENT_PATH
               and 'reply' in e for e in log)
    assert error_of(bluez(client, DEV, DEVICE).Pair) == ('org.bluez.Error.AlreadyExists',
                                                         'Already Paired')


@pytest.mark.parametrize('method', ['RequestPinCode', 'RequestPasskey', 'RequestConfirmation'])
def test_agent_rejection_fails_pair_with_its_error(sim, client, method):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, pairing=[{'method': method}, {'method': 'RequestAuthorization'}])
    rejection = dbus.exceptions.DBusException('Legacy pairing is not supported',
                                              name='org.bluez.Error.Rejected')
    agent = Agent(client, answers={method: rejection})
    register(client)
    assert pair(client) == ('org.bluez.Error.Rejected', 'Legacy pairing is not supported')
    assert [c[0] for c in agent.calls] == [method]
    assert sim.props(DEV)['Paired'] is False
    assert sim.agent_calls()[0]['error'] == {'name': 'org.bluez.Error.Rejected',
                                             'message': 'Legacy pairing is not supported'}


def test_requested_secrets_are_checked_and_logged(sim, client):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, pairing=[{'method': 'RequestPinCode', 'expect': '1234'}])
    sim.add_device('hci0', '11:22:33:44:55:66',
                   pairing=[{'method': 'RequestPasskey', 'expect': 4711}])
    Agent(client, answers={'RequestPinCode': '1234', 'RequestPasskey': 1})
    register(client)
    assert pair(client) is None
    assert pair(client, HCI0 + '/dev_11_22_33_44_55_66') == (
        'org.bluez.Error.AuthenticationFailed', 'Authentication Failed')
    assert [e['reply'] for e in sim.agent_calls()] == [['1234'], [1]]


def test_cancel_and_silent_agent(sim, client):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, pairing='cancel')
    sim.add_device('hci0', '11:22:33:44:55:66', pairing='authorize')
    sim.configure(agent_timeout=0.3)
    agent = Agent(client, answers={'RequestAuthorization': SILENT})
    register(client)
    assert pair(client) == ('org.bluez.Error.AuthenticationCanceled', 'Authentication Canceled')
    assert [c[0] for c in agent.calls] == ['RequestConfirmation', 'Cancel']
    assert pair(client, HCI0 + '/dev_11_22_33_44_55_66') == (
        'org.bluez.Error.AuthenticationTimeout', 'Authentication Timeout')


def test_pairing_without_agent(sim, client):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, pairing='confirm')
    sim.add_device('hci0', '11:22:33:44:55:66', pairing='confirm')
    sim.set_pairing(HCI0 + '/dev_11_22_33_44_55_66', 'confirm', without_agent='fail')
    assert pair(client) is None
    assert pair(client, HCI0 + '/dev_11_22_33_44_55_66') == (
        'org.bluez.Error.AuthenticationFailed', 'Authentication Failed')
    assert sim.agent_calls() == []


def test_default_agent_of_another_client_serves_pairing(sim, client, bus):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC)
    other = bus.connect()
    agent = Agent(other, '/other/agent')
    register(other, '/other/agent')
    assert pair(client) is None
    assert agent.calls == [['RequestConfirmation', DEV, 123456]]
    other.close()


def test_page_timeout_then_success(sim, client):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, pairing='just-works')
    sim.page_timeout(times=1)
    assert pair(client) == ('org.bluez.Error.ConnectionAttemptFailed', 'Page Timeout')
    assert sim.props(DEV)['Paired'] is False
    assert pair(client) is None
    assert [c.get('fault') for c in sim.calls(method='Pair', include_own=True)] == [
        'org.bluez.Error.ConnectionAttemptFailed', None]


def test_pairing_error_and_delay(sim, client):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC)
    sim.set_pairing(DEV, [{'method': 'RequestConfirmation', 'passkey': 1, 'delay': 0.2}],
                    error=('org.bluez.Error.AuthenticationRejected', 'Authentication Rejected'))
    Agent(client)
    register(client)
    started = time.monotonic()
    assert pair(client) == ('org.bluez.Error.AuthenticationRejected', 'Authentication Rejected')
    assert time.monotonic() - started >= 0.2
