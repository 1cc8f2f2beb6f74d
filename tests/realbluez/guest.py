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

SHARE = '/share'
STORE = '/var/lib/bluetooth'
BACKUP = '/tmp/config/files/var_bluetooth'
STARTUP_FAILURE = 75
ABSENT = '00:11:22:33:44:55'  # no btvirt controller has this address
# Loaded before btvirt starts: pulled in on demand while the first controller
# initialises, they can make its HCI_Reset time out under emulation.
MODULES = ['hci_vhci', 'af_alg', 'algif_hash', 'algif_skcipher', 'ecb', 'cmac', 'ecdh_generic',
           'drbg', 'jitterentropy_rng', 'ansi_cprng', 'ctr', 'sha512_generic', 'sha3_generic']
ADAPTER, DEVICE = 'org.bluez.Adapter1', 'org.bluez.Device1'
PROPS = 'org.freedesktop.DBus.Properties'
HOST_PATH, PEER_PATH = '/org/bluez/hci0', '/org/bluez/hci1'
RESULTS = {'steps': [], 'notes': {}}
T0 = time.monotonic()

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


def plain(value):
    if isinstance(value, dict):
        return {str(k): plain(v) for k, v in value.items()}
    if isinstance(value, list):
        return [plain(v) for v in value]
    return bool(value) if isinstance(value, dbus.Boolean) else \
        int(value) if isinstance(value, int) else str(value)


def objects_view(conn):
    # The daemon's objects, or the error of asking for them.
    try:
        return {'objects': plain(conn.call_blocking(
            'org.bluez', '/', 'org.freedesktop.DBus.ObjectManager', 'GetManagedObjects', '', [],
            timeout=20))}
    except dbus.exceptions.DBusException as error:
        return {'error': error.get_dbus_name()}


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
    kelvane('scan-peer-hidden', '-e')
    set_peer('DiscoverableTimeout', dbus.UInt32(0))  # visible for good, and pairable
    set_peer('Discoverable', dbus.Boolean(True))
    set_peer('Pairable', dbus.Boolean(True))
    kelvane('scan', '-e')
    kelvane('pair', '-p', peer.lower().replace(':', '-'))
    shutil.copytree(BACKUP, '/tmp/saved-backup')  # with the pairing, for the restore
    kelvane('list', '-l')
    kelvane('forget', '-f', peer)
    kelvane('forget-again', '-f', peer)
    kelvane('pair-absent', '-p', ABSENT)
    daemon.stop()
    kelvane('list-daemon-stopped', '-l')
    shutil.rmtree(BACKUP)
    shutil.copytree('/tmp/saved-backup', BACKUP)
    kelvane('restore', '-r')
    RESULTS['notes']['restarted'] = daemon.start()
    kelvane('list-restored', '-l')
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
