'''The Python client of the simulated BlueZ, and the bus it runs on.

PrivateBus starts a dbus-daemon that allows everything, listening on an
abstract socket of its own, so nothing touches the machine's system bus and
parallel runs never meet. Sim starts the simulator (template.py, a
python-dbusmock template) on such a bus, or attaches to one already running
(Sim.attach), and drives it through its org.kelvane.Sim control interface.
'''

import json
import os
import secrets
import subprocess
import time
from pathlib import Path

import dbus

from kelvane_sim import scenario as scenarios
from kelvane_sim.values import typed_props

HERE = Path(__file__).resolve().parent
TEMPLATE = HERE / 'template.py'
PYTHON = '/usr/bin/python3'

SIM_IFACE = 'org.kelvane.Sim'
ADAPTER_IFACE = 'org.bluez.Adapter1'
DEVICE_IFACE = 'org.bluez.Device1'

BUS_CONFIG = '''<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>{listen}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
'''


def _memfd(name, data=b''):
    fd = os.memfd_create(name, 0)
    os.write(fd, data)
    return fd


def _read_memfd(fd):
    size = os.fstat(fd).st_size
    return os.pread(fd, size, 0).decode('utf-8', 'replace')


def _options(**entries):
    '''An a{sv} of the entries given as (dbus type, value); None values are
    left out, so the simulator keeps its defaults for them.'''
    return dbus.Dictionary({key: kind(value) for key, (kind, value) in entries.items()
                            if value is not None}, signature='sv')


def _terminate(process):
    if process.poll() is None:
        process.terminate()
        try:
            process.wait(5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class PrivateBus:
    '''A dbus-daemon of our own on unix:abstract=kelvane-<random>.

    The configuration travels in a memfd, so no file is written anywhere.'''

    def __init__(self):
        self.name = 'kelvane-%d-%s' % (os.getpid(), secrets.token_hex(6))
        config = _memfd('kelvane-bus-config',
                        BUS_CONFIG.format(listen='unix:abstract=' + self.name).encode())
        self._log = _memfd('kelvane-bus-log')
        read_end, write_end = os.pipe()
        try:
            self.process = subprocess.Popen(
                ['dbus-daemon', '--config-file=/proc/self/fd/%d' % config, '--nofork',
                 '--nosyslog', '--print-address=%d' % write_end],
                pass_fds=(config, write_end), stdin=subprocess.DEVNULL,
                stdout=self._log, stderr=self._log)
            os.close(write_end)
            write_end = -1
            address = b''
            while not address.endswith(b'\n'):
                chunk = os.read(read_end, 4096)
                if not chunk:
                    raise RuntimeError('dbus-daemon did not start: ' + self.log())
                address += chunk
        finally:
            os.close(read_end)
            os.close(config)
            if write_end >= 0:
                os.close(write_end)
        self.address = address.decode().strip()

    def log(self):
        return _read_memfd(self._log)

    def connect(self):
        return dbus.bus.BusConnection(self.address)

    def stop(self):
        _terminate(self.process)
        os.close(self._log)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


def passkey_display(passkey, digits=6):
    '''DisplayPasskey as a remote keyboard produces it: shown, then one
    notification per typed digit.'''
    return [{'method': 'DisplayPasskey', 'passkey': passkey, 'entered': n}
            for n in range(digits + 1)]


# Pairing behaviours of a device: the agent callbacks bluetoothd makes while
# Pair runs, in order. A step may carry 'delay' (seconds before it) and
# 'expect' (the reply a request must get, else authentication fails).
PAIRING_MODES = {
    'just-works': [],
    'confirm': [{'method': 'RequestConfirmation', 'passkey': 123456}],
    'display-passkey': passkey_display(123456),
    'display-pin': [{'method': 'DisplayPinCode', 'pin': '0000'}],
    'pin-entry': [{'method': 'RequestPinCode'}],
    'passkey-entry': [{'method': 'RequestPasskey'}],
    'authorize': [{'method': 'RequestAuthorization'}],
    'cancel': [{'method': 'RequestConfirmation', 'passkey': 123456}, {'method': 'Cancel'}],
}

PAGE_TIMEOUT = ('org.bluez.Error.ConnectionAttemptFailed', 'Page Timeout')
# How often Pair fails with PAGE_TIMEOUT before the device answers.
PAGE_TIMEOUT_COUNTS = {'never': 0, 'once': 1, 'always': -1}


def pairing_config(pairing, passkey=None, pin=None, delay=None, error=None, reject_error=None,
                   without_agent=None, page_timeout=None, props_after=None):
    """The simulator's pairing configuration of a device.

    pairing: a PAIRING_MODES name, a list of agent steps
    ({'method': 'RequestConfirmation', 'passkey': 4711}, ...) or a dict with
    'steps'. passkey, pin: replace those of the mode's steps. delay: seconds
    the bonding takes after the last step (a slow device). error: (name,
    message) Pair fails with after the steps. reject_error: (name, message)
    replacing AuthenticationFailed when the agent refuses. without_agent:
    "succeed" (default, bluetoothd's just-works fallback) or "fail".
    page_timeout: "once", "always" or a number of attempts that fail with
    PAGE_TIMEOUT before any agent is asked."""
    if isinstance(pairing, str):
        config = {'steps': [dict(step) for step in PAIRING_MODES[pairing]]}
    elif isinstance(pairing, dict):
        config = dict(pairing)
    else:
        config = {'steps': list(pairing)}
    for key, value in (('passkey', passkey), ('pin', pin)):
        for step in config.get('steps', []) if value is not None else ():
            if key in step:
                step[key] = value
    if error is not None:
        config['error'] = {'name': error[0], 'message': error[1]}
    if reject_error is not None:
        config['reject_error'] = {'name': reject_error[0], 'message': reject_error[1]}
    if page_timeout is not None:
        config['page_timeout'] = PAGE_TIMEOUT_COUNTS.get(page_timeout, page_timeout)
    for key, value in (('delay', delay), ('without_agent', without_agent),
                       ('props_after', props_after)):
        if value is not None:
            config[key] = value
    return config


class Call(dict):
    '''One logged method call: method, path, interface, args, types, sender,
    time (seconds since the simulator started), seq and, for an injected
    failure, fault (the error name).'''

    def __getattr__(self, key):
        try:
            return self[key]
        except KeyError as e:
            raise AttributeError(key) from e


class Bus:
    """A bus someone else runs, known by its address (kelvane-sim run --bus,
    Sim.attach): used as it is and never stopped."""

    process = None

    def __init__(self, address):
        self.address = address

    def connect(self):
        return dbus.bus.BusConnection(self.address)

    @staticmethod
    def log():
        return ''

    def stop(self):
        pass


class Sim:
    """The simulated BlueZ on a bus, and the client to configure it.

    Sim(bus) starts a simulator on a PrivateBus (or a Bus) with an empty
    world, then loads the scenario (a dict as in a scenario file) and keeps
    the store under the directory `store`, when given. Sim.attach(address)
    drives a simulator already running there. Every add_*/set_* call
    configures the running simulator at once, so a test describes its whole
    world before it starts the tool."""

    def __init__(self, bus, start_timeout=10.0, scenario=None, store=None):
        self.bus = bus
        self._log = -1
        self.conn = bus.connect()
        if self.conn.name_has_owner('org.bluez'):
            self.conn.close()
            raise RuntimeError('org.bluez is already owned on %s' % bus.address)
        self._log = _memfd('kelvane-sim-log')
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=bus.address, PYTHONUNBUFFERED='1')
        env.pop('DBUS_SESSION_BUS_ADDRESS', None)
        self.process = subprocess.Popen(
            [PYTHON, '-m', 'dbusmock', '--system', '-t', str(TEMPLATE)],
            env=env, stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log)
        deadline = time.monotonic() + start_timeout
        while not self.conn.name_has_owner('org.bluez'):
            if self.process.poll() is not None or time.monotonic() > deadline:
                output = self.log()
                self.stop()
                raise RuntimeError('simulated BlueZ did not start:\n' + output)
            time.sleep(0.01)
        self._bind()
        try:
            if scenario is not None:
                self.load_scenario(scenario)
            if store is not None:
                self.use_store(store)
        except Exception:
            self.stop()
            raise

    @classmethod
    def attach(cls, address):
        """A client of the simulator that owns org.bluez on the bus at
        address; stop() only closes the connection."""
        sim = cls.__new__(cls)
        sim.bus, sim.process, sim._log, sim.conn = Bus(address), None, -1, None
        try:
            sim.conn = sim.bus.connect()
            sim._bind()
            sim.control.State()
        except dbus.exceptions.DBusException as e:
            if sim.conn is not None:
                sim.conn.close()
            raise RuntimeError('no simulated BlueZ on %s: %s' % (
                address, e.get_dbus_message())) from None
        return sim

    def _bind(self):
        # Addressed by unique name: the simulator stays reachable after it
        # has given up org.bluez.
        self.unique_name = self.conn.get_name_owner('org.bluez')
        self.control = dbus.Interface(
            self.conn.get_object(self.unique_name, '/', introspect=False), SIM_IFACE)

    @property
    def address(self):
        return self.bus.address

    def log(self):
        """What the simulator printed (dbusmock's own method log, tracebacks)."""
        return _read_memfd(self._log) if self._log >= 0 else ''

    def stop(self):
        if self.process is not None:
            _terminate(self.process)
        try:
            self.conn.close()
        except Exception:  # pylint: disable=broad-except
            pass
        if self._log >= 0:
            os.close(self._log)
            self._log = -1

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def load_scenario(self, scenario):
        """Adds what a scenario (a dict as read from a scenario file)
        describes: adapters, devices, faults and settings."""
        scenarios.apply(self, scenario)

    def use_store(self, root):
        """Keeps bluetoothd's store under the directory root from now on
        (created when missing): the adapters take back the devices stored
        for them, paired devices are written, and pairings, trust changes
        and removals are written as they happen."""
        self.control.UseStore(str(root))

    # -- the world ---------------------------------------------------------

    def add_adapter(self, where='hci0', props=None, omit=(), **keywords):
        '''Adds an adapter at /org/bluez/<where> (or at <where> when it is a
        path). Unless omitted, it has an address, names, Powered true,
        Pairable and Discovering false. Keywords: address, name, alias,
        powered, pairable, discoverable; props: any BlueZ properties.'''
        return str(self.control.AddAdapter(where, typed_props(props, **keywords),
                                           dbus.Array(omit, signature='s')))

    def add_device(self, adapter, address, props=None, omit=(), appear_after=None,
                   vanish_after=None, pairing=None, path=None, reappear_after=None,
                   technologies=None, **keywords):
        '''Adds a device under the adapter (its name, e.g. "hci0", or path).
        Unless omitted it has Address, AddressType, Alias, Adapter, Paired,
        Bonded, Trusted, Blocked, LegacyPairing, Connected and
        ServicesResolved; Name, Icon, Class, Appearance, RSSI and UUIDs only
        when given. Keywords: name, alias, icon, device_class, appearance,
        rssi, uuids, paired, trusted, connected, blocked, legacy_pairing.
        appear_after / vanish_after: seconds of discovery on the adapter
        before the device object appears / disappears. reappear_after:
        seconds of discovery after which a device that RemoveDevice removed
        is found again (unpaired), as one still in range would be.
        technologies: what a pairing stores it speaks, e.g. ["BR/EDR", "LE"]
        (by default LE for a random address, else BR/EDR). pairing: a mode
        of PAIRING_MODES, a list of steps or a full configuration
        (set_pairing).'''
        options = _options(appear_after=(dbus.Double, appear_after),
                           vanish_after=(dbus.Double, vanish_after), path=(dbus.String, path),
                           reappear_after=(dbus.Double, reappear_after),
                           technologies=(lambda v: dbus.Array(v, signature='s'), technologies))
        device = str(self.control.AddDevice(
            adapter, address, typed_props(props, **keywords), dbus.Array(omit, signature='s'),
            options))
        if pairing is not None:
            self.set_pairing(device, pairing)
        return device

    def schedule(self, device, at, action='update', props=None, **keywords):
        '''After `at` seconds of discovery on the device's adapter: "appear",
        "vanish" or "update" (set the given properties).'''
        self.control.ScheduleDevice(device, float(at), action, typed_props(props, **keywords))

    def set_props(self, path, interface=None, props=None, **keywords):
        interface = interface or (DEVICE_IFACE if '/dev_' in path else ADAPTER_IFACE)
        self.control.SetProperties(path, interface, typed_props(props, **keywords))

    def delete_props(self, path, names, interface=None):
        interface = interface or (DEVICE_IFACE if '/dev_' in path else ADAPTER_IFACE)
        self.control.DeleteProperties(path, interface, dbus.Array(names, signature='s'))

    def drop(self, path):
        '''Removes an adapter (with its devices) or a device.'''
        self.control.Drop(path)

    def set_pairing(self, device, pairing, **options):
        """How Pair behaves for the device: see pairing_config."""
        config = pairing_config(pairing, **options)
        self.control.SetPairing(device, json.dumps(config))

    # -- failures ----------------------------------------------------------

    def fault(self, method, error='org.bluez.Error.Failed', message='Failed', times=1,
              path=None, interface=None, prop=None):
        '''The next `times` calls (None: all) of `method` matching path,
        interface and (for Properties Get/Set) property fail with the error.'''
        match = _options(path=(dbus.String, path), interface=(dbus.String, interface),
                         property=(dbus.String, prop))
        self.control.InjectFault(method, error, message, -1 if times is None else int(times),
                                 match)

    def fault_set(self, prop, error='org.bluez.Error.Failed', message='Failed', times=1, path=None):
        '''Properties.Set of `prop` fails.'''
        self.fault('Set', error, message, times, path=path, prop=prop)

    def page_timeout(self, times=1, path=None):
        '''Pair fails the way bluetoothd reports an unreachable device.'''
        self.fault('Pair', *PAGE_TIMEOUT, times=times, path=path)

    def clear_faults(self):
        self.control.ClearFaults()

    def object_managers(self, *paths):
        '''Where GetManagedObjects is served: "/" (default), "/org/bluez" or
        nowhere (no argument); elsewhere it fails with UnknownMethod.'''
        self.control.SetObjectManagers(dbus.Array(paths, signature='s'))

    def leave_bus(self, after_managed_objects=None, after_seconds=None):
        '''Give up org.bluez: after serving that many more GetManagedObjects
        calls, after some seconds, or (with neither) right away.'''
        self.control.LeaveBus(_options(after_managed_objects=(dbus.UInt32, after_managed_objects),
                                       after_seconds=(dbus.Double, after_seconds)))

    def configure(self, agent_timeout=None, list_manager=None, silent=None):
        '''agent_timeout: seconds Pair waits for an agent's reply.
        list_manager: whether GetManagedObjects lists /org/bluez itself.
        silent: take every call (it is still logged) and never answer.'''
        self.control.Configure(_options(agent_timeout=(dbus.Double, agent_timeout),
                                        list_manager=(dbus.Boolean, list_manager),
                                        silent=(dbus.Boolean, silent)))

    # -- what happened -----------------------------------------------------

    def calls(self, method=None, path=None, interface=None, include_own=False):
        '''The logged method calls in order, optionally filtered. Calls made
        through this client's own connection are left out unless asked for.'''
        out = []
        own = self.conn.get_unique_name()
        for entry in json.loads(str(self.control.CallLog())):
            if not include_own and entry['sender'] == own:
                continue
            if method is not None and entry['method'] != method:
                continue
            if path is not None and entry['path'] != path:
                continue
            if interface is not None and entry['interface'] != interface:
                continue
            out.append(Call(entry))
        return out

    def methods(self, **filters):
        '''The names of the logged calls, in order.'''
        return [c['method'] for c in self.calls(**filters)]

    def clear_calls(self):
        self.control.ClearCallLog()

    def agent_calls(self):
        '''Agent callbacks the simulator made: method, args, device, owner,
        agent path and the reply or error it got.'''
        return json.loads(str(self.control.AgentLog()))

    def state(self):
        '''objects (path -> interface -> properties), hidden_devices,
        adapters (discovery seconds, sessions, filters), agents,
        object_managers, left_bus, unique_name.'''
        return json.loads(str(self.control.State()))

    def props(self, path, interface=None):
        interface = interface or (DEVICE_IFACE if '/dev_' in path else ADAPTER_IFACE)
        return self.state()['objects'][path][interface]

    def agents(self):
        return self.state()['agents']


def describe_failure(sim=None, bus=None):
    '''Logs worth printing when a test fails.'''
    parts = []
    if sim is not None:
        parts.append('--- simulated BlueZ output ---\n' + sim.log())
    if bus is not None:
        parts.append('--- dbus-daemon output ---\n' + bus.log())
    return '\n'.join(parts)
