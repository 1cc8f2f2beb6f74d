# Runs inside the VM as root: brings up the system bus, two btvirt
# controllers (hci0 the host, hci1 the peer) and bluetoothd, then drives
# kelvane through the cases one after the other and records what every step
# left (result line, exit status, event file, store, backup, bluetoothd's
# objects, for -p the agent traffic on the bus) in /share/results.json. It
# judges nothing; test_realbluez.py does, on the host.
#
# Exit status: 0 when every step ran, STARTUP_FAILURE when bluetoothd did not
# get both controllers (a known, rare fault of controller creation under
# emulation; the host boots once more), 1 on anything else.

import json
import os
import shutil
import subprocess
import sys
import time
import traceback

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

SHARE = '/share'
STORE = '/var/lib/bluetooth'
BACKUP = '/tmp/config/files/var_bluetooth'
STARTUP_FAILURE = 75
ABSENT = '00:11:22:33:44:55'  # no btvirt controller has this address
# Loaded before btvirt starts: pulled in on demand while the first controller
# initialises, they can make its HCI_Reset time out under emulation.
MODULES = ['hci_vhci', 'af_alg', 'algif_hash', 'algif_skcipher', 'ecb', 'cmac', 'ecdh_generic',
           'drbg', 'jitterentropy_rng', 'ansi_cprng', 'ctr', 'sha512_generic', 'sha3_generic']
ADAPTER, DEVICE, AGENT = 'org.bluez.Adapter1', 'org.bluez.Device1', 'org.bluez.Agent1'
PROPS, MANAGER = 'org.freedesktop.DBus.Properties', 'org.bluez.AgentManager1'
HOST_PATH, PEER_PATH, PROBE_AGENT = '/org/bluez/hci0', '/org/bluez/hci1', '/probe/agent'
RESULTS = {'steps': [], 'probes': {}, 'notes': {}}
T0 = time.monotonic()

# Calls whose replies (above all the error names and texts) the simulated
# BlueZ must give alike; test_realbluez.py puts them to it too. Each is (label,
# path, interface, method, signature, arguments), {dev} the peer under hci0;
# they run in order on one connection.
PROBES_PAIRED = [('pair an already paired device', '{dev}', DEVICE, 'Pair', '', []),
                 ('connect a connected device', '{dev}', DEVICE, 'Connect', '', [])]
PROBES_IDLE = [(label, path or HOST_PATH, interface, method, signature, args)
               for label, path, interface, method, signature, args in [
    ('stop discovery never started', None, ADAPTER, 'StopDiscovery', '', []),
    ('discovery filter with an unknown transport', None, ADAPTER, 'SetDiscoveryFilter', 'a{sv}',
     [{'Transport': 'radio'}]),
    ('discovery filter with an unknown key', None, ADAPTER, 'SetDiscoveryFilter', 'a{sv}',
     [{'Colour': 'blue'}]),
    ('start discovery', None, ADAPTER, 'StartDiscovery', '', []),
    ('start discovery twice', None, ADAPTER, 'StartDiscovery', '', []),
    ('stop discovery', None, ADAPTER, 'StopDiscovery', '', []),
    ('set Powered to a string', None, PROPS, 'Set', 'ssv', [ADAPTER, 'Powered', 'yes']),
    ('set the read-only Address', None, PROPS, 'Set', 'ssv', [ADAPTER, 'Address', '00:00:00:00:00:01']),
    ('set an unknown property', None, PROPS, 'Set', 'ssv', [ADAPTER, 'Colour', 'blue']),
    ('get an unknown property', None, PROPS, 'Get', 'ss', [ADAPTER, 'Colour']),
    ('get the absent RSSI', '{dev}', PROPS, 'Get', 'ss', [DEVICE, 'RSSI']),
    ('get from an unknown interface', None, PROPS, 'Get', 'ss', ['org.bluez.Colour1', 'Powered']),
    ('set without a variant', None, PROPS, 'Set', 'sss', [ADAPTER, 'Powered', 'true']),
    ('remove an unknown device', None, ADAPTER, 'RemoveDevice', 'o',
     [HOST_PATH + '/dev_00_11_22_33_44_55']),
    ('remove a device of another adapter', PEER_PATH, ADAPTER, 'RemoveDevice', 'o', ['{dev}']),
    ('managed objects below /org/bluez', '/org/bluez', 'org.freedesktop.DBus.ObjectManager',
     'GetManagedObjects', '', []),
    ('register an agent with an unknown capability', '/org/bluez', MANAGER, 'RegisterAgent', 'os',
     [PROBE_AGENT, 'Telepathy']),
    ('register an agent', '/org/bluez', MANAGER, 'RegisterAgent', 'os',
     [PROBE_AGENT, 'KeyboardDisplay']),
    ('register an agent twice', '/org/bluez', MANAGER, 'RegisterAgent', 'os',
     [PROBE_AGENT, 'KeyboardDisplay']),
    ('default agent of another path', '/org/bluez', MANAGER, 'RequestDefaultAgent', 'o',
     ['/probe/other']),
    ('unregister another path', '/org/bluez', MANAGER, 'UnregisterAgent', 'o', ['/probe/other']),
    ('unregister the agent', '/org/bluez', MANAGER, 'UnregisterAgent', 'o', [PROBE_AGENT]),
    ('unregister the agent again', '/org/bluez', MANAGER, 'UnregisterAgent', 'o', [PROBE_AGENT]),
    ('power hci1 off', PEER_PATH, PROPS, 'Set', 'ssv', [ADAPTER, 'Powered', False]),
    ('discovery filter while powered off', PEER_PATH, ADAPTER, 'SetDiscoveryFilter', 'a{sv}',
     [{'Transport': 'auto'}]),
    ('start discovery while powered off', PEER_PATH, ADAPTER, 'StartDiscovery', '', [])]]


def log(text):
    print('[guest %6.1fs] %s' % (time.monotonic() - T0, text), flush=True)


def save():
    with open(SHARE + '/results.json.new', 'w', encoding='utf-8') as out:
        json.dump(RESULTS, out, indent=1)
    os.replace(SHARE + '/results.json.new', SHARE + '/results.json')


def sh(*argv):
    return subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=30,
                          check=False).stdout.decode('utf-8', 'replace')


def wait_for(condition, seconds):
    deadline = time.monotonic() + seconds
    while not condition() and time.monotonic() < deadline:
        time.sleep(0.5)
    return condition()


def read(path):
    with open(path, 'rb') as f:
        return f.read().decode('utf-8', 'replace')


def tree(root):
    # Files below root as {path: text}, directories as None; None without root.
    if not os.path.isdir(root):
        return None
    found = {}
    for top, dirs, files in os.walk(root):
        found.update({os.path.relpath(os.path.join(top, d), root): None for d in dirs})
        found.update({os.path.relpath(os.path.join(top, f), root): read(os.path.join(top, f))
                      for f in files})
    return found


# -- shared with the host, which puts the same questions to the simulator ----

_TYPES = {dbus.Boolean: 'b', dbus.Byte: 'y', dbus.Int16: 'n', dbus.UInt16: 'q', dbus.Int32: 'i',
          dbus.UInt32: 'u', dbus.Int64: 'x', dbus.UInt64: 't', dbus.Double: 'd', dbus.String: 's',
          dbus.ObjectPath: 'o'}


def signature(value):  # the D-Bus type of a property as the daemon sent it
    return _TYPES.get(type(value)) or ('a{%s}' % value.signature if isinstance(
        value, dbus.Dictionary) else 'a' + (value.signature or '') if isinstance(
        value, dbus.Array) else type(value).__name__)


def plain(value):
    if isinstance(value, dict):
        return {str(k): plain(v) for k, v in value.items()}
    if isinstance(value, list):
        return [plain(v) for v in value]
    return bool(value) if isinstance(value, dbus.Boolean) else \
        int(value) if isinstance(value, int) else str(value)


def objects_view(conn):
    # The daemon's objects with the D-Bus type of every property, or the error of asking.
    try:
        objects = conn.call_blocking('org.bluez', '/', 'org.freedesktop.DBus.ObjectManager',
                                     'GetManagedObjects', '', [], timeout=20)
    except dbus.exceptions.DBusException as error:
        return {'error': error.get_dbus_name()}
    return {'objects': plain(objects), 'types': {str(path): {str(i): {
        str(k): signature(v) for k, v in props.items()} for i, props in ifaces.items()}
        for path, ifaces in objects.items()}}


def probe(conn, entries, device):
    # Each call's reply: "ok" or [error name, message].
    replies = []
    for label, path, interface, method, sig, args in entries:
        args = [a.format(dev=device) if isinstance(a, str) else a for a in args]
        try:
            conn.call_blocking('org.bluez', path.format(dev=device), interface, method, sig, args,
                               timeout=20)
            replies.append({'label': label, 'reply': 'ok'})
        except dbus.exceptions.DBusException as error:
            replies.append({'label': label, 'reply': [error.get_dbus_name(),
                                                      error.get_dbus_message()]})
    return replies


class RefusingAgent(dbus.service.Object):  # a user who says no to everything
    asked = []

    def refuse(self, method):
        self.asked.append(method)
        raise dbus.exceptions.DBusException('refused by the probe', name='org.bluez.Error.Rejected')

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


def pair_refused(conn, device):
    # Pairs the device while an agent of this connection refuses: which
    # callbacks came, and what Pair answered. conn needs a GLib main loop.
    agent, outcome, loop = RefusingAgent(conn, PROBE_AGENT), {}, GLib.MainLoop()
    agent.asked = []
    for method in ('RegisterAgent', 'RequestDefaultAgent'):
        conn.call_blocking('org.bluez', '/org/bluez', MANAGER, method, 'o' + 's' * (
            method == 'RegisterAgent'), [PROBE_AGENT] + ['KeyboardDisplay'] * (
            method == 'RegisterAgent'))

    def done(reply):
        outcome['reply'] = reply
        loop.quit()
    conn.get_object('org.bluez', device, introspect=False).Pair(
        dbus_interface=DEVICE, timeout=60, reply_handler=lambda: done('ok'),
        error_handler=lambda e: done([e.get_dbus_name(), e.get_dbus_message()]))
    GLib.timeout_add_seconds(70, loop.quit)
    loop.run()
    conn.call_blocking('org.bluez', '/org/bluez', MANAGER, 'UnregisterAgent', 'o', [PROBE_AGENT])
    agent.remove_from_connection()
    return dict(outcome, asked=agent.asked)


def device_path(adapter, address):
    return '%s/dev_%s' % (adapter, address.replace(':', '_'))


# -- inside the VM --------------------------------------------------------------

def bus():
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    return dbus.SystemBus()


def adapters():
    return sorted(p for p, i in objects_view(bus()).get('objects', {}).items() if ADAPTER in i)


class Daemon:
    # bluetoothd in the foreground with debug output, one log per start.

    def __init__(self):
        self.process, self.starts = None, 0

    def start(self):
        self.starts += 1
        with open('%s/bluetoothd-%d.log' % (SHARE, self.starts), 'w') as out:
            self.process = subprocess.Popen(['/usr/libexec/bluetooth/bluetoothd', '-n', '-d'],
                                            stdout=out, stderr=subprocess.STDOUT)
        return wait_for(lambda: len(adapters()) >= 2, 20)

    def stop(self):
        self.process.terminate()
        self.process.wait(15)


def kelvane(name, *args):
    # Runs the tool once and records its outcome and the state it left; for
    # -p also dbus-monitor's view of the agent manager and agent calls.
    monitor = None
    if args[0] == '-p':
        monitor = subprocess.Popen(
            ['dbus-monitor', '--system', "interface='org.bluez.AgentManager1'",
             "interface='org.bluez.Agent1'", "type='method_return'", "type='error'"],
            stdout=open(SHARE + '/monitor.txt', 'w'), stderr=subprocess.STDOUT)
        wait_for(lambda: 'NameLost' in read(SHARE + '/monitor.txt'), 10)  # it listens now
    started = time.monotonic()
    run = subprocess.run([SHARE + '/kelvane', *args], capture_output=True, timeout=120,
                         check=False)
    step = {'name': name, 'args': list(args), 'status': run.returncode,
            'seconds': time.monotonic() - started, 'stdout': run.stdout.decode(),
            'stderr': run.stderr.decode()[-4000:], 'store': tree(STORE), 'backup': tree(BACKUP),
            'events': os.path.exists('/tmp/kelvane-events.json') and read(
                '/tmp/kelvane-events.json'), 'bluez': objects_view(bus())}
    if monitor:
        time.sleep(0.5)  # the last replies
        monitor.terminate()
        monitor.wait(5)
        step['monitor'] = read(SHARE + '/monitor.txt')
    RESULTS['steps'].append(step)
    save()
    log('%s: %s -> %s in %.1fs' % (name, ' '.join(args), run.returncode, step['seconds']))


def set_peer(name, value):
    bus().call_blocking('org.bluez', PEER_PATH, PROPS, 'Set', 'ssv', [ADAPTER, name, value])


def main():
    log('guest up, kernel ' + os.uname().release)
    log(sh('modprobe', '-d', '/kernel', '-a', *MODULES) or 'modules loaded')
    os.makedirs('/run/dbus', exist_ok=True)
    log(sh('dbus-daemon', '--system', '--fork') or 'system bus up')
    # One process for both controllers: only then do they hear each other.
    subprocess.Popen(['btvirt', '-l2'], stdout=open(SHARE + '/btvirt.log', 'w'),
                     stderr=subprocess.STDOUT)
    daemon = Daemon()
    if not wait_for(lambda: os.path.exists('/sys/class/bluetooth/hci1'), 20):
        return 1
    if not daemon.start():
        log('bluetoothd has fewer than two controllers\n' + sh('dmesg'))
        return STARTUP_FAILURE
    live = objects_view(bus())['objects']
    host, peer = (live[path][ADAPTER]['Address'] for path in (HOST_PATH, PEER_PATH))
    RESULTS['notes'].update(host=host, peer=peer)
    dev = device_path(HOST_PATH, peer)
    kelvane('scan-peer-hidden', '-e')
    set_peer('DiscoverableTimeout', dbus.UInt32(0))  # visible for good, and pairable
    set_peer('Discoverable', dbus.Boolean(True))
    set_peer('Pairable', dbus.Boolean(True))
    kelvane('scan', '-e')
    kelvane('pair', '-p', peer.lower().replace(':', '-'))
    shutil.copytree(BACKUP, '/tmp/saved-backup')  # with the pairing, for the restore
    RESULTS['probes']['paired'] = probe(bus(), PROBES_PAIRED, dev)
    # The peer's record of the host gets its Services a moment after the
    # pairing, from its own service discovery: list the store once settled.
    wait_for(lambda: all('Services=' in text for path, text in tree(STORE).items()
                         if path.count('/') == 2 and path.endswith('/info')), 15)
    kelvane('list', '-l')
    kelvane('forget', '-f', peer)
    kelvane('forget-again', '-f', peer)
    kelvane('pair-absent', '-p', ABSENT)
    # That discovery found the peer again, unpaired: let an agent refuse it.
    if dev in objects_view(bus()).get('objects', {}):
        RESULTS['notes']['pair_refused'] = pair_refused(bus(), dev)
    daemon.stop()
    kelvane('list-daemon-stopped', '-l')
    shutil.rmtree(BACKUP)
    shutil.copytree('/tmp/saved-backup', BACKUP)
    kelvane('restore', '-r')
    RESULTS['notes']['restarted'] = daemon.start()
    kelvane('list-restored', '-l')
    RESULTS['probes']['idle'] = probe(bus(), PROBES_IDLE, dev)
    return 0


if __name__ == '__main__':
    try:
        status = main()
    except Exception:  # pylint: disable=broad-except
        traceback.print_exc()
        status = 1
    RESULTS['notes']['status'] = status
    save()
    sys.exit(status)
