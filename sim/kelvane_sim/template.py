'''The simulated BlueZ: a python-dbusmock template.

Start it on a bus with

    python3 -m dbusmock --system -t /path/to/kelvane_sim/template.py

(kelvane_sim.client.Sim does that). It builds on the stock bluez5 template
(the agent manager object at /org/bluez) and replaces the parts a BlueZ
client depends on with behaviour close to bluetoothd 5.66: per-client
discovery sessions, sender-keyed agents, Pair calling back the agent,
bluetoothd's error names, and, once given a directory, bluetoothd's store.
Everything is configured at run time through the org.kelvane.Sim interface
on "/" (see sim/README.md), and every method call the simulator receives is
recorded in a call log.
'''

import json
import sys
import time
import traceback
import types
from pathlib import Path

import dbus
import dbus.lowlevel
import dbus.service
from gi.repository import GLib

from dbusmock import mockobject
from dbusmock.templates import bluez5

# dbusmock runs this file by path, not as part of its package: make the
# package's other modules importable.
if str(Path(__file__).resolve().parents[1]) not in sys.path:
    sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

# pylint: disable=wrong-import-position
from kelvane_sim import store as bluez_store  # noqa: E402
from kelvane_sim.values import plain, plain_props, signature_of, to_json, typed  # noqa: E402

BUS_NAME = 'org.bluez'
MAIN_OBJ = '/'
SYSTEM_BUS = True
IS_OBJECT_MANAGER = True

SIM_IFACE = 'org.kelvane.Sim'
MOCK_IFACE = 'org.freedesktop.DBus.Mock'
OM_IFACE = 'org.freedesktop.DBus.ObjectManager'
PROPS_IFACE = 'org.freedesktop.DBus.Properties'
INTROSPECT_IFACE = 'org.freedesktop.DBus.Introspectable'
ADAPTER_IFACE = 'org.bluez.Adapter1'
DEVICE_IFACE = 'org.bluez.Device1'
AGENT_IFACE = 'org.bluez.Agent1'
AGENT_MANAGER_IFACE = 'org.bluez.AgentManager1'
MANAGER_PATH = '/org/bluez'

# Calls on these interfaces steer the simulator; they are neither logged nor
# subject to fault injection.
CONTROL_IFACES = (SIM_IFACE, MOCK_IFACE)

CAPABILITIES = ('DisplayOnly', 'DisplayYesNo', 'KeyboardOnly', 'NoInputNoOutput',
                'KeyboardDisplay')
# The writable properties and the D-Bus type bluetoothd declares for each.
WRITABLE = {
    ADAPTER_IFACE: {'Alias': 's', 'Powered': 'b', 'Discoverable': 'b', 'Pairable': 'b',
                    'DiscoverableTimeout': 'u', 'PairableTimeout': 'u'},
    DEVICE_IFACE: {'Alias': 's', 'Trusted': 'b', 'Blocked': 'b', 'WakeAllowed': 'b'},
}
FILTER_KEYS = ('UUIDs', 'RSSI', 'Pathloss', 'Transport', 'DuplicateData', 'Discoverable',
               'Pattern')

# Argument signatures of the agent callbacks and how a pairing step fills them.
AGENT_METHODS = {
    'Release': ('', lambda dev, step: []),
    'RequestPinCode': ('o', lambda dev, step: [dev]),
    'DisplayPinCode': ('os', lambda dev, step: [dev, step.get('pin', '0000')]),
    'RequestPasskey': ('o', lambda dev, step: [dev]),
    'DisplayPasskey': ('ouq', lambda dev, step: [dev, step.get('passkey', 0),
                                                 step.get('entered', 0)]),
    'RequestConfirmation': ('ou', lambda dev, step: [dev, step.get('passkey', 0)]),
    'RequestAuthorization': ('o', lambda dev, step: [dev]),
    'AuthorizeService': ('os', lambda dev, step: [
        dev, step.get('uuid', '00001124-0000-1000-8000-00805f9b34fb')]),
    'Cancel': ('', lambda dev, step: []),
}

DEFAULT_PAIRING = {'steps': [{'method': 'RequestConfirmation', 'passkey': 123456}]}
# What a removed device is when it is found again.
UNBONDED = {'Paired': dbus.Boolean(False), 'Bonded': dbus.Boolean(False),
            'Trusted': dbus.Boolean(False), 'Connected': dbus.Boolean(False)}
PAGE_TIMEOUT = ('org.bluez.Error.ConnectionAttemptFailed', 'Page Timeout')

# What libdbus answers for a method an object does not implement.
UNKNOWN_METHOD = ('Method "{}" with signature "{}" on interface "{}" doesn\'t exist\n')

SIM = None
PASS = dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED


def later(seconds, function):
    '''Runs function after seconds of the main loop, at once for none.'''
    if seconds > 0:
        GLib.timeout_add(int(seconds * 1000), lambda: function() and False)
    else:
        function()


def bluez_error(name, message):
    return dbus.exceptions.DBusException(message, name='org.bluez.Error.' + name)


def dbus_error(name, message):
    return dbus.exceptions.DBusException(message, name=name)


class Fault:
    def __init__(self, method, name, message, count, match):
        self.method = method
        self.name = name
        self.message = message
        self.remaining = count  # negative: always
        self.match = match

    def matches(self, member, path, interface, args):
        if member != self.method or self.remaining == 0:
            return False
        if 'path' in self.match and self.match['path'] != path:
            return False
        if 'interface' in self.match and self.match['interface'] != interface:
            return False
        if 'property' in self.match:
            # Properties.Get/Set name the property in their second argument.
            if len(args) < 2 or str(args[1]) != self.match['property']:
                return False
        return True

    def take(self):
        if self.remaining > 0:
            self.remaining -= 1


class AdapterState:
    def __init__(self, path):
        self.path = path
        self.props = {ADAPTER_IFACE: {}}
        self.sessions = []  # unique names of clients with discovery running
        self.filters = {}  # unique name -> filter
        self.discovered = 0.0  # seconds of discovery before `since`
        self.since = None  # monotonic start of the running discovery

    def clock(self):
        running = time.monotonic() - self.since if self.since is not None else 0.0
        return self.discovered + running


class DeviceState:
    def __init__(self, path, adapter):
        self.path = path
        self.adapter = adapter
        self.props = {DEVICE_IFACE: {}}
        self.pairing = dict(DEFAULT_PAIRING)
        self.events = []  # (discovery seconds, action, props), sorted
        self.exported = False
        self.signal = None  # RSSI and TxPower as last heard, while no discovery runs
        self.pairing_active = False
        # Seconds of discovery after which a removed device is found again,
        # as a device still in range would be; None: removal is for good.
        self.reappear_after = None
        self.initial_props = {}
        self.technologies = None  # what the store records; None: by the address type


class Simulator:
    def __init__(self, mock):
        self.mock = mock
        self.conn = mock.connection
        self.started = time.monotonic()
        self.calls = []
        self.agent_calls = []
        self.faults = []
        self.object_managers = ['/']
        self.managed_objects_served = 0
        self.leave_after_managed_objects = 0
        self.left_bus = False
        self.agent_timeout = 5.0
        # bluetoothd lists its manager object; a daemon that has exported
        # nothing yet answers with an empty map.
        self.list_manager = True
        # A daemon that hangs: it takes every call and never answers.
        self.silent = False
        self.agents = {}  # owner -> {'path', 'capability'}
        self.default_agents = []  # owners, the first is the default
        self.watches = {}
        self.adapters = {}
        self.devices = {}
        self.store = None  # store.Store once UseStore named a directory

    # -- bookkeeping -------------------------------------------------------

    def now(self):
        return round(time.monotonic() - self.started, 3)

    def filter(self, _conn, message):
        '''Sees every incoming message before dispatch: logs method calls,
        brings delayed devices into existence and injects faults. Returning
        None would swallow the message: dbus-python takes it as handled.'''
        try:
            if message.get_type() != dbus.lowlevel.MESSAGE_TYPE_METHOD_CALL:
                return PASS
            self.tick()
            interface = message.get_interface()
            if interface in CONTROL_IFACES:
                return PASS
            member = message.get_member()
            path = message.get_path()
            args = message.get_args_list()
            types = list(dbus.Signature(message.get_signature() or ''))
            for i, arg in enumerate(args):
                if i < len(types) and types[i] == 'v':
                    types[i] = 'v(%s)' % signature_of(arg)
            entry = {
                'seq': len(self.calls), 'time': self.now(), 'sender': message.get_sender(),
                'path': path, 'interface': interface, 'method': member,
                'args': to_json(args), 'types': types,
            }
            self.calls.append(entry)
            if self.silent:
                return dbus.lowlevel.HANDLER_RESULT_HANDLED
            expected = self.in_signature(path, interface, member)
            if expected is not None and expected != (message.get_signature() or ''):
                # bluetoothd matches methods by signature; a call with other
                # argument types finds no method at all.
                self.reply_error(message, 'org.freedesktop.DBus.Error.UnknownMethod',
                                 UNKNOWN_METHOD.format(member, message.get_signature() or '',
                                                       interface))
                return dbus.lowlevel.HANDLER_RESULT_HANDLED
            for fault in self.faults:
                if fault.matches(member, path, interface, args):
                    fault.take()
                    entry['fault'] = fault.name
                    self.reply_error(message, fault.name, fault.message)
                    return dbus.lowlevel.HANDLER_RESULT_HANDLED
        except Exception:  # pylint: disable=broad-except
            traceback.print_exc()
        return PASS

    def reply_error(self, message, name, text):
        if not message.get_no_reply():
            self.conn.send_message(dbus.lowlevel.ErrorMessage(message, name, text))

    @staticmethod
    def in_signature(path, interface, member):
        '''The argument signature of a simulated method, None when the
        method is not one of ours (dbusmock's, libdbus's own).'''
        obj = mockobject.objects.get(path)
        if obj is None or path == '/':
            return None
        method = obj.methods.get(interface, {}).get(member)
        if method is None or not isinstance(method[2], types.FunctionType):
            return None
        return method[0]

    def watch(self, owner):
        if owner and owner not in self.watches:
            self.watches[owner] = self.conn.watch_name_owner(
                owner, lambda new_owner: new_owner or self.owner_gone(owner))

    def owner_gone(self, owner):
        '''A client left the bus: like bluetoothd, forget its agent and stop
        the discovery it started.'''
        watch = self.watches.pop(owner, None)
        if watch is not None:
            watch.cancel()
        self.agents.pop(owner, None)
        if owner in self.default_agents:
            self.default_agents.remove(owner)
        for adapter in self.adapters.values():
            adapter.filters.pop(owner, None)
            if owner in adapter.sessions:
                adapter.sessions.remove(owner)
                self.update_discovering(adapter)

    # -- objects -----------------------------------------------------------

    def export(self, path, interface, props, methods):
        self.mock.AddObject(path, interface, {}, [])
        obj = mockobject.objects[path]
        obj.props = props
        for iface, fn in methods + property_methods():
            obj.methods.setdefault(iface, {})[fn.__name__] = (
                fn._dbus_in_signature, fn._dbus_out_signature, fn, fn)
        self.emit(OM_IFACE, 'InterfacesAdded', 'oa{sa{sv}}',
                  [dbus.ObjectPath(path), props])
        return obj

    def unexport(self, path, interfaces):
        if path in mockobject.objects:
            self.mock.RemoveObject(path)
            self.emit(OM_IFACE, 'InterfacesRemoved', 'oas', [dbus.ObjectPath(path), interfaces])

    def emit(self, interface, name, signature, args, obj=None):
        # Nobody in the tests listens, but other clients of a standalone
        # simulator (bluetoothctl and the like) live on these signals.
        try:
            (obj or self.mock).EmitSignal(interface, name, signature, args)
        except Exception:  # pylint: disable=broad-except
            traceback.print_exc()

    def object_props(self, path):
        if path in self.adapters:
            return self.adapters[path].props
        if path in self.devices:
            return self.devices[path].props
        if path in mockobject.objects:
            return mockobject.objects[path].props
        raise dbus_error('org.freedesktop.DBus.Error.UnknownObject', 'no such object ' + path)

    def update_props(self, path, interface, changes, removed=()):
        props = self.object_props(path).setdefault(interface, {})
        props.update(changes)
        for name in removed:
            props.pop(name, None)
        obj = mockobject.objects.get(path)
        if obj is not None and (changes or removed):
            self.emit(PROPS_IFACE, 'PropertiesChanged', 'sa{sv}as',
                      [interface, dbus.Dictionary(changes, signature='sv'),
                       dbus.Array(list(removed), signature='s')], obj)

    def add_adapter(self, where, props, omit):
        path = where if where.startswith('/') else MANAGER_PATH + '/' + where
        if path in mockobject.objects or path in self.devices:
            raise dbus_error('org.freedesktop.DBus.Mock.NameError', 'object exists: ' + path)
        number = len(self.adapters)
        tail = path.rsplit('/', 1)[-1]
        if tail.startswith('hci') and tail[3:].isdigit():
            number = int(tail[3:])
        name = 'sim-' + tail
        defaults = {
            'Address': dbus.String('00:1A:7D:DA:%02X:%02X' % (number >> 8 & 0xFF, number & 0xFF)),
            'AddressType': dbus.String('public'),
            'Name': dbus.String(name),
            'Alias': dbus.String(props.get('Name', name)),
            'Class': dbus.UInt32(0x6c010c),
            'Powered': dbus.Boolean(True),
            'Discoverable': dbus.Boolean(False),
            'DiscoverableTimeout': dbus.UInt32(180),
            'Pairable': dbus.Boolean(False),
            'PairableTimeout': dbus.UInt32(0),
            'Discovering': dbus.Boolean(False),
            'UUIDs': dbus.Array([], signature='s'),
            'Modalias': dbus.String('usb:v1D6Bp0246d0540'),
            'Roles': dbus.Array(['central', 'peripheral'], signature='s'),
        }
        adapter = AdapterState(path)
        adapter.props[ADAPTER_IFACE] = {k: v for k, v in defaults.items() if k not in omit}
        adapter.props[ADAPTER_IFACE].update(props)
        self.adapters[path] = adapter
        self.export(path, ADAPTER_IFACE, adapter.props, adapter_methods())
        if self.store is not None:
            self.load_stored(adapter)
        return path

    def add_device(self, adapter_path, address, props, omit, options):
        if not adapter_path.startswith('/'):
            adapter_path = MANAGER_PATH + '/' + adapter_path
        if adapter_path not in self.adapters:
            raise dbus_error('org.freedesktop.DBus.Error.UnknownObject',
                             'no such adapter ' + adapter_path)
        path = str(options.get('path', '')) or (
            adapter_path + '/dev_' + address.upper().replace(':', '_').replace('-', '_'))
        if path in mockobject.objects or path in self.devices:
            raise dbus_error('org.freedesktop.DBus.Mock.NameError', 'object exists: ' + path)
        defaults = {
            'Address': dbus.String(address),
            'AddressType': dbus.String('public'),
            'Alias': dbus.String(props.get('Name', address.replace(':', '-'))),
            'Paired': dbus.Boolean(False),
            'Bonded': dbus.Boolean(False),
            'Trusted': dbus.Boolean(False),
            'Blocked': dbus.Boolean(False),
            'LegacyPairing': dbus.Boolean(False),
            'Connected': dbus.Boolean(False),
            'ServicesResolved': dbus.Boolean(False),
            'Adapter': dbus.ObjectPath(adapter_path),
        }
        device = DeviceState(path, adapter_path)
        device.props[DEVICE_IFACE] = {k: v for k, v in defaults.items() if k not in omit}
        device.props[DEVICE_IFACE].update(props)
        device.initial_props = dict(device.props[DEVICE_IFACE])
        if 'reappear_after' in options:
            device.reappear_after = float(options['reappear_after'])
        if 'technologies' in options:
            device.technologies = [str(name) for name in options['technologies']]
        self.devices[path] = device
        if 'appear_after' in options:
            self.schedule(path, float(options['appear_after']), 'appear', {})
        else:
            self.show_device(device)
        if 'vanish_after' in options:
            self.schedule(path, float(options['vanish_after']), 'vanish', {})
        return path

    def device(self, path):
        '''The device at path, for the control interface.'''
        if path not in self.devices:
            raise dbus_error('org.freedesktop.DBus.Error.UnknownObject', 'no such device ' + path)
        return self.devices[path]

    def show_device(self, device):
        if not device.exported:
            device.exported = True
            self.export(device.path, DEVICE_IFACE, device.props, device_methods())

    def hide_device(self, device):
        if device.exported:
            device.exported = False
            self.unexport(device.path, list(device.props))

    def schedule(self, path, at, action, props):
        if action not in ('appear', 'vanish', 'update'):
            raise dbus_error('org.freedesktop.DBus.Error.InvalidArgs', 'unknown action ' + action)
        device = self.device(path)
        device.events.append((at, len(device.events), action, props))
        device.events.sort(key=lambda event: event[:2])

    def tick(self):
        '''Applies the device events whose time of discovery has come.'''
        for device in list(self.devices.values()):
            adapter = self.adapters.get(device.adapter)
            clock = adapter.clock() if adapter else 0.0
            while device.events and device.events[0][0] <= clock:
                _at, _n, action, props = device.events.pop(0)
                if action == 'appear':
                    self.show_device(device)
                elif action == 'vanish':
                    self.hide_device(device)
                else:
                    self.update_props(device.path, DEVICE_IFACE, props)

    def drop(self, path):
        if path in self.devices:
            self.hide_device(self.devices.pop(path))
        elif path in self.adapters:
            for device_path in [p for p in self.devices if p.startswith(path + '/')]:
                self.drop(device_path)
            self.unexport(path, [ADAPTER_IFACE])
            del self.adapters[path]
        else:
            self.unexport(path, list(self.object_props(path)))

    def managed_objects(self, path, ok, fail):
        try:
            reply = self.build_managed_objects(path)
        except dbus.exceptions.DBusException as e:
            fail(e)
            return
        self.managed_objects_served += 1
        if self.managed_objects_served == self.leave_after_managed_objects:
            # Release the name before replying: once the caller has this
            # reply, the bus has already processed the release, so its next
            # call finds no org.bluez. The reply still reaches it.
            self.leave_bus()
        ok(reply)

    def build_managed_objects(self, path):
        if path not in self.object_managers:
            raise dbus_error('org.freedesktop.DBus.Error.UnknownMethod',
                             UNKNOWN_METHOD.format('GetManagedObjects', '', OM_IFACE))
        reply = dbus.Dictionary(signature='oa{sa{sv}}')
        for obj_path, obj in sorted(mockobject.objects.items()):
            if obj_path == '/' or not (path == '/' or obj_path.startswith(path + '/')):
                continue
            if obj_path == MANAGER_PATH and not self.list_manager:
                continue
            interfaces = dbus.Dictionary(signature='sa{sv}')
            for iface, props in obj.props.items():
                interfaces[iface] = dbus.Dictionary(props, signature='sv')
            for iface in obj.methods:
                if iface not in CONTROL_IFACES and iface != OM_IFACE:
                    interfaces.setdefault(iface, dbus.Dictionary(signature='sv'))
            if obj_path in self.object_managers:
                interfaces[OM_IFACE] = dbus.Dictionary(signature='sv')
            interfaces[INTROSPECT_IFACE] = dbus.Dictionary(signature='sv')
            interfaces[PROPS_IFACE] = dbus.Dictionary(signature='sv')
            reply[dbus.ObjectPath(obj_path)] = interfaces
        return reply

    def leave_bus(self):
        if not self.left_bus:
            self.left_bus = True
            self.conn.release_name(BUS_NAME)
        return False

    # -- properties --------------------------------------------------------

    def get_all(self, path, interface):
        props = self.object_props(path)
        if interface not in props:
            raise dbus_error('org.freedesktop.DBus.Error.InvalidArgs',
                             "No such interface '%s'" % interface)
        return dbus.Dictionary(props[interface], signature='sv')

    def get(self, path, interface, name):
        props = self.get_all(path, interface)
        if name not in props:
            raise dbus_error('org.freedesktop.DBus.Error.InvalidArgs',
                             "No such property '%s'" % name)
        return props[name]

    def set(self, path, interface, name, value):
        # bluetoothd's property layer checks in this order: known, writable,
        # then the value's type against the declared one.
        if name not in self.get_all(path, interface):
            raise dbus_error('org.freedesktop.DBus.Error.UnknownProperty',
                             "No such property '%s'" % name)
        declared = WRITABLE.get(interface, {}).get(name)
        if declared is None:
            raise dbus_error('org.freedesktop.DBus.Error.PropertyReadOnly',
                             "Property '%s' is not writable" % name)
        value = plain(value)
        if signature_of(value) != declared:
            raise dbus_error('org.freedesktop.DBus.Error.InvalidSignature',
                             "Invalid signature for '%s'" % name)
        self.update_props(path, interface, {name: value})
        if self.store is not None:
            self.store_property(path, name, value)
        adapter = self.adapters.get(path)
        if adapter is not None and name == 'Powered' and not value:
            adapter.sessions.clear()
            self.update_discovering(adapter)

    # -- discovery ---------------------------------------------------------

    def adapter_powered(self, adapter):
        return bool(adapter.props[ADAPTER_IFACE].get('Powered', False))

    def update_discovering(self, adapter):
        running = bool(adapter.sessions)
        if running and adapter.since is None:
            adapter.since = time.monotonic()
            self.recall_signal_strengths(adapter)
        elif not running and adapter.since is not None:
            adapter.discovered = adapter.clock()
            adapter.since = None
            self.forget_signal_strengths(adapter)
        if bool(adapter.props[ADAPTER_IFACE].get('Discovering', False)) != running:
            self.update_props(adapter.path, ADAPTER_IFACE, {'Discovering': dbus.Boolean(running)})

    def forget_signal_strengths(self, adapter):
        '''bluetoothd drops RSSI and TxPower of the adapter's devices when
        its discovery ends: they describe a discovery, not the device. A
        device not found yet keeps what it will be heard at.'''
        for device in self.devices.values():
            stale = [name for name in ('RSSI', 'TxPower') if name in device.props[DEVICE_IFACE]]
            if device.adapter == adapter.path and device.exported and stale:
                device.signal = {name: device.props[DEVICE_IFACE][name] for name in stale}
                self.update_props(device.path, DEVICE_IFACE, {}, stale)

    def recall_signal_strengths(self, adapter):
        '''A device still in range is heard again as soon as a new discovery
        starts, with the strength it was last heard at.'''
        for device in self.devices.values():
            if device.adapter == adapter.path and device.exported and device.signal:
                self.update_props(device.path, DEVICE_IFACE, device.signal)
                device.signal = None

    def set_discovery_filter(self, path, sender, discovery_filter):
        adapter = self.adapters[path]
        if not self.adapter_powered(adapter):
            raise bluez_error('NotReady', 'Resource Not Ready')
        for key, value in discovery_filter.items():
            bad_transport = key == 'Transport' and value not in ('auto', 'bredr', 'le')
            if key not in FILTER_KEYS or bad_transport:
                raise bluez_error('InvalidArguments', 'Invalid arguments in method call')
        adapter.filters[sender] = to_json(discovery_filter)
        self.watch(sender)

    def start_discovery(self, path, sender):
        adapter = self.adapters[path]
        if not self.adapter_powered(adapter):
            raise bluez_error('NotReady', 'Resource Not Ready')
        if sender in adapter.sessions:
            raise bluez_error('InProgress', 'Operation already in progress')
        adapter.sessions.append(sender)
        self.watch(sender)
        self.update_discovering(adapter)

    def stop_discovery(self, path, sender):
        adapter = self.adapters[path]
        if sender not in adapter.sessions:
            raise bluez_error('Failed', 'No discovery started')
        adapter.sessions.remove(sender)
        self.update_discovering(adapter)

    def remove_device(self, adapter_path, device_path):
        device = self.devices.get(device_path)
        if device is None or not device.exported or device.adapter != adapter_path:
            raise bluez_error('DoesNotExist', 'Does Not Exist')
        adapter = self.adapters[adapter_path]
        address = str(device.props[DEVICE_IFACE].get('Address', '')).upper()
        if device.reappear_after is None:
            self.drop(device_path)
        else:
            # Still in range: the next discovery finds it again, unpaired.
            self.hide_device(device)
            device.props[DEVICE_IFACE] = dict(device.initial_props, **UNBONDED)
            self.schedule(device_path, adapter.clock() + device.reappear_after, 'appear', {})
        if self.store is not None and self.stored_address(adapter):
            self.store.remove(self.stored_address(adapter), address)

    # -- the store -----------------------------------------------------------

    @staticmethod
    def stored_address(adapter):
        '''The name of the adapter's directory in the store.'''
        return str(adapter.props[ADAPTER_IFACE].get('Address', '')).upper()

    def use_store(self, root):
        '''Keep bluetoothd's store under root from now on: the adapters
        take back their stored devices and settings, and devices already
        paired are written, so that the store holds every bonded device.'''
        try:
            self.store = bluez_store.Store(root)
        except OSError as e:
            raise dbus_error('org.freedesktop.DBus.Error.AccessDenied', str(e)) from e
        for adapter in self.adapters.values():
            self.load_stored(adapter)
        for device in self.devices.values():
            props = device.props[DEVICE_IFACE]
            adapter = self.adapters.get(device.adapter)
            address = str(props.get('Address', '')).upper()
            if adapter and props.get('Paired') and self.stored_address(adapter) \
                    and not self.store.holds(self.stored_address(adapter), address):
                self.store.paired(self.stored_address(adapter), to_json(props),
                                  device.technologies)

    def load_stored(self, adapter):
        '''What bluetoothd does for a controller at start: its settings and
        stored devices come back; a stored device is known at once, bonded
        when its file holds a key, and not connected.'''
        name = self.stored_address(adapter)
        if not name:
            return
        settings = bluez_store.adapter_props(self.store.settings(name))
        self.update_props(adapter.path, ADAPTER_IFACE,
                          {key: typed(key, value) for key, value in settings.items()})
        for address, sections in self.store.devices(name).items():
            props = {key: typed(key, value)
                     for key, value in bluez_store.device_props(sections).items()}
            path = adapter.path + '/dev_' + address.replace(':', '_')
            if path not in self.devices:
                self.add_device(adapter.path, address, {}, [], {})
            device = self.devices[path]
            device.events = [event for event in device.events if event[2] != 'appear']
            self.update_props(path, DEVICE_IFACE, props)
            self.show_device(device)

    def store_property(self, path, name, value):
        '''bluetoothd writes a stored device's trust and blocking, and an
        adapter's discoverability and alias, as soon as they change.'''
        if path in self.devices and name in ('Trusted', 'Blocked'):
            device = self.devices[path]
            adapter = self.adapters.get(device.adapter)
            if adapter and self.stored_address(adapter):
                address = str(device.props[DEVICE_IFACE].get('Address', '')).upper()
                self.store.update_device(self.stored_address(adapter), address,
                                         {name: bluez_store.stored_bool(value)})
        elif path in self.adapters and name in ('Discoverable', 'DiscoverableTimeout', 'Alias'):
            text = bluez_store.stored_bool(value) if isinstance(value, dbus.Boolean) else str(value)
            if self.stored_address(self.adapters[path]):
                self.store.update_settings(self.stored_address(self.adapters[path]), {name: text})

    # -- agents ------------------------------------------------------------

    def register_agent(self, sender, path, capability):
        if sender in self.agents:
            raise bluez_error('AlreadyExists', 'Already Exists')
        if capability not in CAPABILITIES and capability != '':
            raise bluez_error('InvalidArguments', 'Invalid arguments in method call')
        self.agents[sender] = {'path': str(path),
                               'capability': str(capability) or 'KeyboardDisplay'}
        self.watch(sender)

    def own_agent(self, sender, path):
        agent = self.agents.get(sender)
        if agent is None or agent['path'] != path:
            raise bluez_error('DoesNotExist', 'Does Not Exist')
        return agent

    def unregister_agent(self, sender, path):
        self.own_agent(sender, path)
        del self.agents[sender]
        if sender in self.default_agents:
            self.default_agents.remove(sender)

    def request_default_agent(self, sender, path):
        self.own_agent(sender, path)
        if sender in self.default_agents:
            self.default_agents.remove(sender)
        self.default_agents.insert(0, sender)

    def agent_for(self, sender):
        '''bluetoothd asks the caller's own agent, else the default one.'''
        if sender in self.agents:
            return sender, self.agents[sender]['path']
        if self.default_agents:
            owner = self.default_agents[0]
            return owner, self.agents[owner]['path']
        return None

    # -- pairing -----------------------------------------------------------

    def pair(self, path, sender, ok, fail):
        device = self.devices[path]
        props = device.props[DEVICE_IFACE]
        if device.pairing_active:
            fail(bluez_error('InProgress', 'In Progress'))
            return
        if props.get('Paired', False):
            fail(bluez_error('AlreadyExists', 'Already Exists'))
            return
        config = device.pairing
        if config.get('page_timeout', 0):
            # Out of reach: the controller gives up paging the device, and
            # bluetoothd reports it before any agent is asked. Negative: always.
            if config['page_timeout'] > 0:
                config['page_timeout'] -= 1
            fail(dbus_error(*PAGE_TIMEOUT))
            return
        steps = list(config.get('steps', []))
        agent = self.agent_for(sender)
        if agent is None:
            if steps and config.get('without_agent', 'succeed') != 'succeed':
                fail(bluez_error('AuthenticationFailed', 'Authentication Failed'))
                return
            steps = []  # no agent: bluetoothd falls back to "just works"
        device.pairing_active = True

        def finish(error=None):
            device.pairing_active = False
            if error is None and config.get('error'):
                error = dbus_error(config['error']['name'], config['error']['message'])
            if error is not None:
                fail(error)
                return
            changes = {'Paired': dbus.Boolean(True)}
            if 'Bonded' in props:
                changes['Bonded'] = dbus.Boolean(True)
            changes.update(plain_props(config.get('props_after', {})))
            self.update_props(path, DEVICE_IFACE, changes)
            adapter = self.adapters.get(device.adapter)
            if self.store is not None and adapter and self.stored_address(adapter):
                self.store.paired(self.stored_address(adapter), to_json(props),
                                  device.technologies)
            ok()

        def agent_failed(exc):
            name = exc.get_dbus_name() or ''
            if 'reject_error' in config:
                return dbus_error(config['reject_error']['name'], config['reject_error']['message'])
            if name in ('org.freedesktop.DBus.Error.NoReply', 'org.freedesktop.DBus.Error.Timeout'):
                return bluez_error('AuthenticationTimeout', 'Authentication Timeout')
            # bluetoothd turns any refusal into a negative reply to the
            # controller; the agent's own error never reaches the Pair caller.
            return bluez_error('AuthenticationFailed', 'Authentication Failed')

        def run(index):
            if index == len(steps):
                # A slow device: the bonding itself takes this long.
                later(float(config.get('delay', 0)), finish)
                return
            step = steps[index]
            later(float(step.get('delay', 0)), lambda: call(index, step))

        def call(index, step):
            method = step['method']
            signature, make_args = AGENT_METHODS[method]
            args = make_args(dbus.ObjectPath(path), step)
            owner, agent_path = agent
            record = {'time': self.now(), 'owner': owner, 'agent': agent_path,
                      'device': path, 'method': method, 'args': to_json(args)}
            self.agent_calls.append(record)

            def on_reply(*reply):
                record['reply'] = to_json(list(reply))
                if 'expect' in step and (not reply or to_json(reply[0]) != step['expect']):
                    finish(bluez_error('AuthenticationFailed', 'Authentication Failed'))
                elif method == 'Cancel':
                    finish(bluez_error('AuthenticationCanceled', 'Authentication Canceled'))
                else:
                    run(index + 1)

            def on_error(exc):
                record['error'] = {'name': exc.get_dbus_name(), 'message': exc.get_dbus_message()}
                finish(agent_failed(exc))

            self.conn.call_async(owner, agent_path, AGENT_IFACE, method, signature, args,
                                 on_reply, on_error, timeout=self.agent_timeout)

        run(0)

    def connect(self, path):
        props = self.devices[path].props[DEVICE_IFACE]
        if props.get('Connected', False):
            # bluetoothd 5.66 has no "already connected" answer: with every
            # profile up there is nothing left to connect.
            raise bluez_error('NotAvailable', 'br-connection-profile-unavailable')
        self.update_props(path, DEVICE_IFACE, {'Connected': dbus.Boolean(True)})

    def disconnect(self, path):
        props = self.devices[path].props[DEVICE_IFACE]
        if not props.get('Connected', False):
            raise bluez_error('NotConnected', 'Not Connected')
        self.update_props(path, DEVICE_IFACE, {'Connected': dbus.Boolean(False)})

    # -- introspection for tests ------------------------------------------

    def state(self):
        return {
            'objects': {path: to_json(obj.props) for path, obj in sorted(mockobject.objects.items())
                        if path != '/'},
            'hidden_devices': sorted(p for p, d in self.devices.items() if not d.exported),
            'adapters': {path: {'discovery_seconds': round(a.clock(), 3),
                                'sessions': list(a.sessions), 'filters': a.filters}
                         for path, a in self.adapters.items()},
            'agents': [dict(agent, owner=owner, default=bool(self.default_agents)
                            and self.default_agents[0] == owner)
                       for owner, agent in self.agents.items()],
            'object_managers': list(self.object_managers),
            'left_bus': self.left_bus,
            'store': str(self.store.root) if self.store is not None else None,
            'unique_name': self.conn.get_unique_name(),
        }


# -- methods of the simulated objects ---------------------------------------
# Built in functions so that AddTemplate does not mistake them for methods of
# the root object (it picks up every D-Bus method at module level).

def property_methods():
    @dbus.service.method(PROPS_IFACE, in_signature='ss', out_signature='v')
    def Get(obj, interface, name):
        return SIM.get(obj.path, interface, name)

    @dbus.service.method(PROPS_IFACE, in_signature='s', out_signature='a{sv}')
    def GetAll(obj, interface):
        return SIM.get_all(obj.path, interface)

    @dbus.service.method(PROPS_IFACE, in_signature='ssv', out_signature='')
    def Set(obj, interface, name, value):
        SIM.set(obj.path, interface, name, value)

    return [(PROPS_IFACE, Get), (PROPS_IFACE, GetAll), (PROPS_IFACE, Set)]


def adapter_methods():
    @dbus.service.method(ADAPTER_IFACE, in_signature='a{sv}', out_signature='',
                         sender_keyword='sender')
    def SetDiscoveryFilter(adapter, properties, sender=None):
        SIM.set_discovery_filter(adapter.path, sender, properties)

    @dbus.service.method(ADAPTER_IFACE, in_signature='', out_signature='',
                         sender_keyword='sender')
    def StartDiscovery(adapter, sender=None):
        SIM.start_discovery(adapter.path, sender)

    @dbus.service.method(ADAPTER_IFACE, in_signature='', out_signature='',
                         sender_keyword='sender')
    def StopDiscovery(adapter, sender=None):
        SIM.stop_discovery(adapter.path, sender)

    @dbus.service.method(ADAPTER_IFACE, in_signature='o', out_signature='')
    def RemoveDevice(adapter, device):
        SIM.remove_device(adapter.path, str(device))

    return [(ADAPTER_IFACE, SetDiscoveryFilter), (ADAPTER_IFACE, StartDiscovery),
            (ADAPTER_IFACE, StopDiscovery), (ADAPTER_IFACE, RemoveDevice)]


def device_methods():
    @dbus.service.method(DEVICE_IFACE, in_signature='', out_signature='',
                         sender_keyword='sender', async_callbacks=('ok', 'fail'))
    def Pair(device, sender=None, ok=None, fail=None):
        SIM.pair(device.path, sender, ok, fail)

    @dbus.service.method(DEVICE_IFACE, in_signature='', out_signature='')
    def CancelPairing(_device):
        pass

    @dbus.service.method(DEVICE_IFACE, in_signature='', out_signature='')
    def Connect(device):
        SIM.connect(device.path)

    @dbus.service.method(DEVICE_IFACE, in_signature='', out_signature='')
    def Disconnect(device):
        SIM.disconnect(device.path)

    return [(DEVICE_IFACE, Pair), (DEVICE_IFACE, CancelPairing), (DEVICE_IFACE, Connect),
            (DEVICE_IFACE, Disconnect)]


def agent_manager_methods():
    @dbus.service.method(AGENT_MANAGER_IFACE, in_signature='os', out_signature='',
                         sender_keyword='sender')
    def RegisterAgent(_manager, agent, capability, sender=None):
        SIM.register_agent(sender, str(agent), str(capability))

    @dbus.service.method(AGENT_MANAGER_IFACE, in_signature='o', out_signature='',
                         sender_keyword='sender')
    def RequestDefaultAgent(_manager, agent, sender=None):
        SIM.request_default_agent(sender, str(agent))

    @dbus.service.method(AGENT_MANAGER_IFACE, in_signature='o', out_signature='',
                         sender_keyword='sender')
    def UnregisterAgent(_manager, agent, sender=None):
        SIM.unregister_agent(sender, str(agent))

    return [(AGENT_MANAGER_IFACE, RegisterAgent), (AGENT_MANAGER_IFACE, RequestDefaultAgent),
            (AGENT_MANAGER_IFACE, UnregisterAgent)]


def object_manager_method():
    @dbus.service.method(OM_IFACE, in_signature='', out_signature='a{oa{sa{sv}}}',
                         async_callbacks=('ok', 'fail'))
    def GetManagedObjects(obj, ok=None, fail=None):
        SIM.managed_objects(obj.path, ok, fail)

    return GetManagedObjects


def load(mock, parameters):
    global SIM  # pylint: disable=global-statement
    bluez5.load(mock, parameters)
    SIM = Simulator(mock)
    mock.connection.add_message_filter(SIM.filter)
    manager = mockobject.objects[MANAGER_PATH]
    for iface, fn in agent_manager_methods():
        manager.methods[iface][fn.__name__] = (fn._dbus_in_signature, fn._dbus_out_signature,
                                               fn, fn)
    get_managed_objects = object_manager_method()
    for obj in (mock, manager):
        obj.methods.setdefault(OM_IFACE, {})['GetManagedObjects'] = (
            '', 'a{oa{sa{sv}}}', get_managed_objects, get_managed_objects)
    sys.stdout.flush()


# -- org.kelvane.Sim: the control interface on "/" -------------------------
# Names must not clash with DBusMockObject's own attributes (AddObject, Reset,
# GetCalls, ...): AddTemplate sets these functions on that class.

@dbus.service.method(SIM_IFACE, in_signature='sa{sv}as', out_signature='o')
def AddAdapter(_self, where, props, omit):
    return dbus.ObjectPath(SIM.add_adapter(str(where), plain_props(props), [str(o) for o in omit]))


@dbus.service.method(SIM_IFACE, in_signature='ssa{sv}asa{sv}', out_signature='o')
def AddDevice(_self, adapter, address, props, omit, options):
    return dbus.ObjectPath(SIM.add_device(str(adapter), str(address), plain_props(props),
                                          [str(o) for o in omit], to_json(options)))


@dbus.service.method(SIM_IFACE, in_signature='odsa{sv}', out_signature='')
def ScheduleDevice(_self, path, at, action, props):
    SIM.schedule(str(path), float(at), str(action), plain_props(props))


@dbus.service.method(SIM_IFACE, in_signature='osa{sv}', out_signature='')
def SetProperties(_self, path, interface, props):
    SIM.update_props(str(path), str(interface), plain_props(props))


@dbus.service.method(SIM_IFACE, in_signature='osas', out_signature='')
def DeleteProperties(_self, path, interface, names):
    SIM.update_props(str(path), str(interface), {}, [str(n) for n in names])


@dbus.service.method(SIM_IFACE, in_signature='o', out_signature='')
def Drop(_self, path):
    SIM.drop(str(path))


@dbus.service.method(SIM_IFACE, in_signature='os', out_signature='')
def SetPairing(_self, path, config):
    config = json.loads(config)
    for step in config.get('steps', []):
        if step.get('method') not in AGENT_METHODS:
            raise dbus_error('org.freedesktop.DBus.Error.InvalidArgs',
                             'unknown agent method %r' % step.get('method'))
    if not isinstance(config.get('page_timeout', 0), int):
        raise dbus_error('org.freedesktop.DBus.Error.InvalidArgs',
                         'page_timeout is a number of attempts (negative: every one)')
    SIM.device(str(path)).pairing = config


@dbus.service.method(SIM_IFACE, in_signature='s', out_signature='')
def UseStore(_self, root):
    '''Keep bluetoothd's store under this directory (see Simulator.use_store).'''
    SIM.use_store(str(root))


@dbus.service.method(SIM_IFACE, in_signature='sssia{sv}', out_signature='')
def InjectFault(_self, method, name, message, count, match):
    SIM.faults.append(Fault(str(method), str(name), str(message), int(count), to_json(match)))


@dbus.service.method(SIM_IFACE, in_signature='', out_signature='')
def ClearFaults(_self):
    SIM.faults = []


@dbus.service.method(SIM_IFACE, in_signature='as', out_signature='')
def SetObjectManagers(_self, paths):
    SIM.object_managers = [str(p) for p in paths]


@dbus.service.method(SIM_IFACE, in_signature='a{sv}', out_signature='')
def LeaveBus(_self, when):
    '''Release org.bluez after the Nth served GetManagedObjects and/or after
    some seconds; with neither, at once.'''
    when = to_json(when)
    if 'after_managed_objects' in when:
        SIM.leave_after_managed_objects = SIM.managed_objects_served + int(
            when['after_managed_objects'])
    if 'after_seconds' in when:
        GLib.timeout_add(int(float(when['after_seconds']) * 1000), SIM.leave_bus)
    if not when:
        SIM.leave_bus()


@dbus.service.method(SIM_IFACE, in_signature='a{sv}', out_signature='')
def Configure(_self, options):
    options = to_json(options)
    if 'agent_timeout' in options:
        SIM.agent_timeout = float(options['agent_timeout'])
    if 'list_manager' in options:
        SIM.list_manager = bool(options['list_manager'])
    if 'silent' in options:
        SIM.silent = bool(options['silent'])


@dbus.service.method(SIM_IFACE, in_signature='', out_signature='s')
def CallLog(_self):
    return json.dumps(SIM.calls)


@dbus.service.method(SIM_IFACE, in_signature='', out_signature='')
def ClearCallLog(_self):
    SIM.calls = []
    SIM.agent_calls = []


@dbus.service.method(SIM_IFACE, in_signature='', out_signature='s')
def AgentLog(_self):
    return json.dumps(SIM.agent_calls)


@dbus.service.method(SIM_IFACE, in_signature='', out_signature='s')
def State(_self):
    return json.dumps(SIM.state())
