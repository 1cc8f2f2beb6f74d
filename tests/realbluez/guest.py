'''Runs inside the VM as root: brings up the system bus, two btvirt
controllers and bluetoothd, then drives kelvane through the real-daemon cases
one after the other and records what every step left behind (result line,
exit status, event file, store, backup, bluetoothd's objects, the agent
traffic on the bus) in /share/results.json. It judges nothing:
test_realbluez.py asserts on the host, which also imports the probe helpers
below to put the same questions to the simulated BlueZ.

Exit status: 0 when every step ran, STARTUP_FAILURE when bluetoothd did not
get both controllers (a known, rare fault of controller creation under
emulation; the host boots once more), 1 on anything else.
'''

import json
import os
import shutil
import signal
import subprocess
import sys
import time
import traceback

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

SHARE = '/share'
KELVANE = SHARE + '/kelvane'
STORE = '/var/lib/bluetooth'
BACKUP = '/tmp/config/files/var_bluetooth'
SAVED_BACKUP = '/tmp/saved-backup'
EVENTS = '/tmp/kelvane-events.json'
BLUETOOTHD = '/usr/libexec/bluetooth/bluetoothd'
STARTUP_FAILURE = 75
ABSENT = '00:11:22:33:44:55'  # no btvirt controller has this address
# Loaded before btvirt starts: btvirt and the kernel would otherwise pull them
# in on demand while the first controller initialises, and under emulation
# that delay can make the controller's HCI_Reset time out.
MODULES = ['hci_vhci', 'af_alg', 'algif_hash', 'algif_skcipher', 'ecb', 'cmac', 'ecdh_generic',
           'drbg', 'jitterentropy_rng', 'ansi_cprng', 'ctr', 'sha512_generic', 'sha3_generic']

OM = 'org.freedesktop.DBus.ObjectManager'
PROPS = 'org.freedesktop.DBus.Properties'
ADAPTER = 'org.bluez.Adapter1'
DEVICE = 'org.bluez.Device1'
AGENT_MANAGER = 'org.bluez.AgentManager1'
AGENT = 'org.bluez.Agent1'
PROBE_AGENT = '/probe/agent'
HOST_PATH = '/org/bluez/hci0'
PEER_PATH = '/org/bluez/hci1'

# Calls whose replies (above all the error names and texts) the simulated
# BlueZ must give alike; test_realbluez.py replays them against it. Each is
# (label, object path, interface, method, signature, arguments); {dev} is
# the peer's object path under hci0. They run in order on one connection, so
# the agent entries see each other's registrations.
PROBES_PAIRED = [
    ('pair an already paired device', '{dev}', DEVICE, 'Pair', '', []),
    ('connect a connected device', '{dev}', DEVICE, 'Connect', '', []),
]
PROBES_IDLE = [
    ('stop discovery never started', HOST_PATH, ADAPTER, 'StopDiscovery', '', []),
    ('discovery filter with an unknown transport', HOST_PATH, ADAPTER, 'SetDiscoveryFilter',
     'a{sv}', [{'Transport': 'radio'}]),
    ('discovery filter with an unknown key', HOST_PATH, ADAPTER, 'SetDiscoveryFilter', 'a{sv}',
     [{'Colour': 'blue'}]),
    ('start discovery', HOST_PATH, ADAPTER, 'StartDiscovery', '', []),
    ('start discovery twice', HOST_PATH, ADAPTER, 'StartDiscovery', '', []),
    ('stop discovery', HOST_PATH, ADAPTER, 'StopDiscovery', '', []),
    ('set Powered to a string', HOST_PATH, PROPS, 'Set', 'ssv', [ADAPTER, 'Powered', 'yes']),
    ('set the read-only Address', HOST_PATH, PROPS, 'Set', 'ssv',
     [ADAPTER, 'Address', '00:00:00:00:00:01']),
    ('set an unknown property', HOST_PATH, PROPS, 'Set', 'ssv', [ADAPTER, 'Colour', 'blue']),
    ('get an unknown property', HOST_PATH, PROPS, 'Get', 'ss', [ADAPTER, 'Colour']),
    ('get the absent RSSI', '{dev}', PROPS, 'Get', 'ss', [DEVICE, 'RSSI']),
    ('get from an unknown interface', HOST_PATH, PROPS, 'Get', 'ss',
     ['org.bluez.Colour1', 'Powered']),
    ('set without a variant', HOST_PATH, PROPS, 'Set', 'sss', [ADAPTER, 'Powered', 'true']),
    ('remove an unknown device', HOST_PATH, ADAPTER, 'RemoveDevice', 'o',
     [HOST_PATH + '/dev_00_11_22_33_44_55']),
    ('remove a device of another adapter', PEER_PATH, ADAPTER, 'RemoveDevice', 'o', ['{dev}']),
    ('managed objects below /org/bluez', '/org/bluez', OM, 'GetManagedObjects', '', []),
    ('register an agent with an unknown capability', '/org/bluez', AGENT_MANAGER,
     'RegisterAgent', 'os', [PROBE_AGENT, 'Telepathy']),
    ('register an agent', '/org/bluez', AGENT_MANAGER, 'RegisterAgent', 'os',
     [PROBE_AGENT, 'KeyboardDisplay']),
    ('register an agent twice', '/org/bluez', AGENT_MANAGER, 'RegisterAgent', 'os',
     [PROBE_AGENT, 'KeyboardDisplay']),
    ('default agent of another path', '/org/bluez', AGENT_MANAGER, 'RequestDefaultAgent', 'o',
     ['/probe/other']),
    ('unregister another path', '/org/bluez', AGENT_MANAGER, 'UnregisterAgent', 'o',
     ['/probe/other']),
    ('unregister the agent', '/org/bluez', AGENT_MANAGER, 'UnregisterAgent', 'o', [PROBE_AGENT]),
    ('unregister the agent again', '/org/bluez', AGENT_MANAGER, 'UnregisterAgent', 'o',
     [PROBE_AGENT]),
    ('power hci1 off', PEER_PATH, PROPS, 'Set', 'ssv', [ADAPTER, 'Powered', False]),
    ('discovery filter while powered off', PEER_PATH, ADAPTER, 'SetDiscoveryFilter', 'a{sv}',
     [{'Transport': 'auto'}]),
    ('start discovery while powered off', PEER_PATH, ADAPTER, 'StartDiscovery', '', []),
]

T0 = time.monotonic()
RESULTS = {'steps': [], 'probes': {}, 'notes': {}}


# -- shared with the host: bus helpers that take the connection ---------------

_TYPES = {dbus.Boolean: 'b', dbus.Byte: 'y', dbus.Int16: 'n', dbus.UInt16: 'q', dbus.Int32: 'i',
          dbus.UInt32: 'u', dbus.Int64: 'x', dbus.UInt64: 't', dbus.Double: 'd', dbus.String: 's',
          dbus.ObjectPath: 'o'}


def signature(value):
    '''The D-Bus type of a property value as the daemon sent it.'''
    if type(value) in _TYPES:
        return _TYPES[type(value)]
    if isinstance(value, dbus.Dictionary):
        return 'a{%s}' % value.signature
    if isinstance(value, dbus.Array):
        return 'a' + (value.signature or '')
    return type(value).__name__


def plain(value):
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, int):
        return int(value)
    if isinstance(value, float):
        return float(value)
    if isinstance(value, str):
        return str(value)
    if isinstance(value, dict):
        return {str(k): plain(v) for k, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [plain(v) for v in value]
    return repr(value)


def objects_view(conn):
    '''The daemon's objects as {path: {interface: {property: value}}} with the
    D-Bus type of every property beside them, or the error of asking.'''
    try:
        objects = conn.get_object('org.bluez', '/', introspect=False).GetManagedObjects(
            dbus_interface=OM, timeout=20)
    except dbus.exceptions.DBusException as error:
        return {'error': error.get_dbus_name(), 'message': error.get_dbus_message()}
    return {
        'objects': plain(objects),
        'types': {str(path): {str(i): {str(k): signature(v) for k, v in props.items()}
                              for i, props in ifaces.items()}
                  for path, ifaces in objects.items()},
    }


def to_dbus(sig, args):
    '''The probes' arguments: variants carry a string or a boolean, the a{sv}
    dictionaries strings.'''
    values = []
    for kind, arg in zip(dbus.Signature(sig), args):
        if kind == 'v':
            values.append(dbus.Boolean(arg) if isinstance(arg, bool) else dbus.String(arg))
        elif kind == 'a{sv}':
            values.append(dbus.Dictionary({k: dbus.String(v) for k, v in arg.items()},
                                          signature='sv'))
        elif kind == 'o':
            values.append(dbus.ObjectPath(arg))
        else:
            values.append(dbus.String(arg))
    return values


def probe(conn, entries, device_path):
    '''Sends each call and records its reply: "ok" or [error name, message].'''
    replies = []
    for label, path, interface, method, sig, args in entries:
        path = path.format(dev=device_path)
        args = [arg.format(dev=device_path) if isinstance(arg, str) else arg for arg in args]
        message = dbus.lowlevel.MethodCallMessage('org.bluez', path, interface, method)
        if sig:
            message.append(signature=sig, *to_dbus(sig, args))
        try:
            conn.send_message_with_reply_and_block(message, 20000)
            reply = 'ok'
        except dbus.exceptions.DBusException as error:
            reply = [error.get_dbus_name(), error.get_dbus_message()]
        replies.append({'label': label, 'reply': reply})
    return replies


class RefusingAgent(dbus.service.Object):
    '''Says no to every question, as a user who refuses the passkey would.'''

    def __init__(self, conn):
        super().__init__(conn, PROBE_AGENT)
        self.asked = []

    def refuse(self, method):
        self.asked.append(method)
        raise dbus.exceptions.DBusException('refused by the probe',
                                            name='org.bluez.Error.Rejected')

    @dbus.service.method(AGENT, in_signature='ou', out_signature='')
    def RequestConfirmation(self, _device, _passkey):
        self.refuse('RequestConfirmation')

    @dbus.service.method(AGENT, in_signature='o', out_signature='')
    def RequestAuthorization(self, _device):
        self.refuse('RequestAuthorization')

    @dbus.service.method(AGENT, in_signature='o', out_signature='s')
    def RequestPinCode(self, _device):
        self.refuse('RequestPinCode')

    @dbus.service.method(AGENT, in_signature='o', out_signature='u')
    def RequestPasskey(self, _device):
        self.refuse('RequestPasskey')

    @dbus.service.method(AGENT, in_signature='', out_signature='')
    def Cancel(self):
        self.asked.append('Cancel')


def pair_refused(conn, device_path):
    '''Pairs the device while an agent of this connection refuses: which
    callbacks came, and what Pair answered. conn needs a GLib main loop.'''
    agent = RefusingAgent(conn)
    manager = dbus.Interface(conn.get_object('org.bluez', '/org/bluez', introspect=False),
                             AGENT_MANAGER)
    manager.RegisterAgent(dbus.ObjectPath(PROBE_AGENT), 'KeyboardDisplay')
    manager.RequestDefaultAgent(dbus.ObjectPath(PROBE_AGENT))
    outcome = {}
    loop = GLib.MainLoop()

    def done(reply):
        outcome['reply'] = reply
        loop.quit()

    conn.get_object('org.bluez', device_path, introspect=False).Pair(
        dbus_interface=DEVICE, timeout=60, reply_handler=lambda: done('ok'),
        error_handler=lambda e: done([e.get_dbus_name(), e.get_dbus_message()]))
    timer = GLib.timeout_add_seconds(70, loop.quit)
    loop.run()
    GLib.source_remove(timer)
    manager.UnregisterAgent(dbus.ObjectPath(PROBE_AGENT))
    agent.remove_from_connection()
    outcome['asked'] = agent.asked
    return outcome


def device_path(adapter, address):
    return '%s/dev_%s' % (adapter, address.replace(':', '_'))


# -- inside the VM -------------------------------------------------------------

def log(text):
    print('[guest %6.1fs] %s' % (time.monotonic() - T0, text), flush=True)


def save():
    with open(SHARE + '/results.json.new', 'w', encoding='utf-8') as out:
        json.dump(RESULTS, out, indent=1, sort_keys=True)
    os.replace(SHARE + '/results.json.new', SHARE + '/results.json')


_BUS = []


def bus():
    if not _BUS:
        dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
        _BUS.append(dbus.SystemBus())
    return _BUS[0]


def tree(root):
    '''Every entry below root, hidden ones included: files as text, directories
    as null. None when root does not exist.'''
    if not os.path.isdir(root):
        return None
    entries = {}
    for top, dirs, files in os.walk(root):
        for name in dirs:
            entries[os.path.relpath(os.path.join(top, name), root)] = None
        for name in files:
            entries[os.path.relpath(os.path.join(top, name), root)] = read_text(
                os.path.join(top, name))
    return entries


def read_text(path):
    try:
        with open(path, 'rb') as f:
            return f.read().decode('utf-8', 'replace')
    except FileNotFoundError:
        return None


def sh(argv, timeout=30):
    return subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=timeout, check=False).stdout.decode('utf-8', 'replace')


def wait_for(condition, seconds):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(0.5)
    return condition()


def adapters():
    objects = objects_view(bus()).get('objects', {})
    return sorted(path for path, ifaces in objects.items() if ADAPTER in ifaces)


class Daemon:
    '''bluetoothd in the foreground with debug output, one log per start.'''

    def __init__(self):
        self.process = None
        self.starts = 0

    def start(self):
        self.starts += 1
        with open('%s/bluetoothd-%d.log' % (SHARE, self.starts), 'w', encoding='utf-8') as out:
            self.process = subprocess.Popen([BLUETOOTHD, '-n', '-d'], stdout=out,
                                            stderr=subprocess.STDOUT)
        return wait_for(lambda: len(adapters()) >= 2, 20)

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(15)


def bring_up(daemon):
    log(sh(['modprobe', '-d', '/kernel', '-a', *MODULES]) or 'modules loaded')
    os.makedirs('/run/dbus', exist_ok=True)
    log(sh(['dbus-daemon', '--system', '--fork']) or 'system bus up')
    with open(SHARE + '/btvirt.log', 'w', encoding='utf-8') as out:
        # One process for both controllers: only then do they hear each other.
        subprocess.Popen(['btvirt', '-l2'], stdout=out, stderr=subprocess.STDOUT)
    if not wait_for(lambda: os.path.exists('/sys/class/bluetooth/hci1'), 20):
        log('btvirt made no two controllers')
        return 1
    if not daemon.start():
        log('bluetoothd has fewer than two controllers: ' + ' '.join(adapters()))
        log(sh(['dmesg']))
        return STARTUP_FAILURE
    log('bluetoothd manages ' + ' '.join(adapters()))
    return 0


def set_prop(path, name, value):
    bus().get_object('org.bluez', path, introspect=False).Set(
        ADAPTER, name, value, dbus_interface=PROPS, signature='ssv', timeout=20)


class Monitor:
    '''dbus-monitor on the system bus around one run: the agent manager and
    agent calls, and every reply (to tell an answer from an error).'''

    RULES = ["type='method_call',interface='%s'" % AGENT_MANAGER,
             "type='method_call',interface='%s'" % AGENT, "type='method_return'", "type='error'"]

    def __init__(self):
        self.path = SHARE + '/monitor.txt'
        with open(self.path, 'w', encoding='utf-8') as out:
            self.process = subprocess.Popen(['dbus-monitor', '--system', *self.RULES],
                                            stdout=out, stderr=subprocess.STDOUT)
        # It listens once the bus has made it a monitor (it then loses its name).
        wait_for(lambda: 'NameLost' in (read_text(self.path) or ''), 10)

    def stop(self):
        time.sleep(0.5)  # let the last replies through
        self.process.terminate()
        self.process.wait(5)
        return read_text(self.path)


def kelvane(name, *args, monitor=False):
    '''Runs the tool once and records its outcome and the state it left.'''
    watcher = Monitor() if monitor else None
    started = time.monotonic()
    try:
        run = subprocess.run([KELVANE, *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             timeout=120, check=False)
        status, stdout, stderr = run.returncode, run.stdout, run.stderr
    except subprocess.TimeoutExpired as expired:
        status, stdout, stderr = 'timeout', expired.stdout or b'', expired.stderr or b''
    step = {
        'name': name, 'args': list(args), 'status': status,
        'seconds': round(time.monotonic() - started, 1),
        'stdout': stdout.decode('utf-8', 'replace'),
        'stderr': stderr.decode('utf-8', 'replace')[-4000:],
        'events': read_text(EVENTS), 'store': tree(STORE), 'backup': tree(BACKUP),
        'bluez': objects_view(bus()),
    }
    if watcher is not None:
        step['monitor'] = watcher.stop()
    RESULTS['steps'].append(step)
    save()
    log('%s: kelvane %s -> %s in %ss: %s' % (name, ' '.join(args), status, step['seconds'],
                                             step['stdout'][:200].strip()))


def run_cases(daemon):
    objects = objects_view(bus())['objects']
    host = objects[HOST_PATH][ADAPTER]['Address']
    peer = objects[PEER_PATH][ADAPTER]['Address']
    RESULTS['notes'].update(host=host, peer=peer, absent=ABSENT)
    dev = device_path(HOST_PATH, peer)

    kelvane('scan-peer-hidden', '-e')
    # The peer becomes visible for good (no discoverable timeout) and pairable.
    set_prop(PEER_PATH, 'DiscoverableTimeout', dbus.UInt32(0))
    set_prop(PEER_PATH, 'Discoverable', dbus.Boolean(True))
    set_prop(PEER_PATH, 'Pairable', dbus.Boolean(True))
    kelvane('scan', '-e')
    kelvane('pair', '-p', peer.lower().replace(':', '-'), monitor=True)
    # The backup now holds the pairing; kept aside for the restore below.
    shutil.copytree(BACKUP, SAVED_BACKUP)
    RESULTS['probes']['paired'] = probe(bus(), PROBES_PAIRED, dev)
    # The peer's record of the host gets its Services a moment after the
    # pairing, from its own service discovery: list the store once settled.
    wait_for(lambda: all('Services=' in text for path, text in tree(STORE).items()
                         if path.count('/') == 2 and path.endswith('/info')), 15)
    kelvane('list', '-l')
    kelvane('forget', '-f', peer)
    kelvane('forget-again', '-f', peer)
    kelvane('pair-absent', '-p', ABSENT, monitor=True)
    # That discovery found the peer again, unpaired: let an agent refuse it.
    if dev in objects_view(bus()).get('objects', {}):
        RESULTS['notes']['pair_refused'] = pair_refused(bus(), dev)
    daemon.stop()
    kelvane('list-daemon-stopped', '-l')
    shutil.rmtree(BACKUP)
    shutil.copytree(SAVED_BACKUP, BACKUP)
    kelvane('restore', '-r')
    RESULTS['notes']['restarted'] = daemon.start()
    kelvane('list-restored', '-l')
    RESULTS['probes']['idle'] = probe(bus(), PROBES_IDLE, dev)
    save()


def main():
    log('guest up, kernel ' + os.uname().release)
    daemon = Daemon()
    status = bring_up(daemon)
    RESULTS['notes']['startup'] = status
    save()
    if status:
        return status
    try:
        run_cases(daemon)
    except Exception as error:  # pylint: disable=broad-except
        traceback.print_exc()
        RESULTS['notes']['broken'] = repr(error)
        save()
        return 1
    log('all steps ran')
    return 0


if __name__ == '__main__':
    sys.exit(main())
