# Runs inside the VM as root: brings up the system bus, two btvirt
# controllers (hci0 the host, hci1 the peer) and bluetoothd, then drives
# kelvane through the cases one after the other and records what every step
# left (result line, exit status, standard error with the -v trace of -p,
# event file, store, backup, bluetoothd's objects) in /share/results.json,
# and bluetoothd's answers to the questions of the recording (bluetoothd.py,
# copied beside this file by vm.sh) in the recording's shape. It judges
# nothing; test_realbluez.py does, on the host.
#
# Exit status: 0 when every step ran, STARTUP_FAILURE when bluetoothd did not
# get both controllers (a known, rare fault of controller creation under
# emulation; the host boots once more), 1 on anything else (an exception
# leaves no status in the results' notes).

import json
import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

import dbus
import dbus.mainloop.glib

import bluetoothd

SHARE, STORE, BACKUP = '/share', '/var/lib/bluetooth', '/tmp/config/files/var_bluetooth'
STARTUP_FAILURE = 75
ABSENT = '00:11:22:33:44:55'  # no btvirt controller has this address
# Loaded before btvirt starts: pulled in on demand while the first controller
# initialises, they can make its HCI_Reset time out under emulation.
MODULES = ['hci_vhci', 'af_alg', 'algif_hash', 'algif_skcipher', 'ecb', 'cmac', 'ecdh_generic',
           'drbg', 'jitterentropy_rng', 'ansi_cprng', 'ctr', 'sha512_generic', 'sha3_generic']
ADAPTER, PEER_PATH = 'org.bluez.Adapter1', '/org/bluez/hci1'
RESULTS = {'steps': {}, 'notes': {}, 'bluetoothd': {}}
T0 = time.monotonic()
dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)  # bluetoothd.call waits in the main loop


def log(text):
    print('[guest %6.1fs] %s' % (time.monotonic() - T0, text), flush=True)


def save():
    Path(SHARE, 'results.new').write_text(json.dumps(RESULTS, indent=1))
    os.replace(SHARE + '/results.new', SHARE + '/results.json')


def objects():  # bluetoothd's objects with their properties' values, or the error of asking
    found = bluetoothd.call(dbus.SystemBus(), '/', 'org.freedesktop.DBus.ObjectManager',
                            'GetManagedObjects', '', [])
    return {'error': found} if isinstance(found, list) else {'objects': found}


def wait_for(condition, seconds):
    deadline = time.monotonic() + seconds
    while not condition() and time.monotonic() < deadline:
        time.sleep(0.5)
    return condition()


def tree(root):  # below root, {path: text} of files and None for directories; None without root
    root = Path(root)
    return {str(p.relative_to(root)): p.read_text(errors='replace') if p.is_file() else None
            for p in root.rglob('*')} if root.is_dir() else None


def start_bluetoothd(number):
    # In the foreground with debug output, one log per start; and whether it got both controllers.
    with open('%s/bluetoothd-%d.log' % (SHARE, number), 'w') as out:
        daemon = subprocess.Popen(['/usr/libexec/bluetooth/bluetoothd', '-n', '-d'], stdout=out,
                                  stderr=subprocess.STDOUT)
    return daemon, wait_for(lambda: {bluetoothd.HCI0, PEER_PATH} <= set(
        objects().get('objects', {})), 20)


def kelvane(name, *args):  # runs the tool once and records its outcome and the state it left
    started = time.monotonic()
    run = subprocess.run([SHARE + '/kelvane', *args], capture_output=True, text=True,
                         timeout=120, check=False)
    events = Path('/tmp/kelvane-events.json')
    step = {'args': list(args), 'status': run.returncode, 'stdout': run.stdout,
            'seconds': time.monotonic() - started, 'stderr': run.stderr, 'store': tree(STORE),
            'backup': tree(BACKUP), 'events': events.exists() and events.read_text(),
            'bluez': objects()}
    RESULTS['steps'][name] = step
    save()
    log('%s: %s -> %s in %.1fs' % (name, ' '.join(args), run.returncode, step['seconds']))
    return step


def main():
    log('guest up, kernel ' + os.uname().release)
    # What these print goes to the guest's log, as the guest's own output does.
    subprocess.run(['modprobe', '-d', '/kernel', '-a', *MODULES], timeout=30, check=False)
    os.makedirs('/run/dbus', exist_ok=True)
    subprocess.run(['dbus-daemon', '--system', '--fork'], timeout=30, check=False)
    # One process for both controllers: only then do they hear each other.
    subprocess.Popen(['btvirt', '-l2'], stdout=open(SHARE + '/btvirt.log', 'w'),
                     stderr=subprocess.STDOUT)
    if not wait_for(lambda: os.path.exists('/sys/class/bluetooth/hci1'), 20):
        return 1
    daemon, both = start_bluetoothd(1)
    if not both:
        log('bluetoothd has fewer than two controllers')
        subprocess.run(['dmesg'], timeout=30, check=False)
        return STARTUP_FAILURE
    live = objects()['objects']
    host, peer = (live[path][ADAPTER]['Address'] for path in (bluetoothd.HCI0, PEER_PATH))
    dev = '%s/dev_%s' % (bluetoothd.HCI0, peer.replace(':', '_'))
    RESULTS['notes'].update(host=host, peer=peer, path=dev)
    conn, answers = dbus.SystemBus(), RESULTS['bluetoothd']

    def ask(table):  # one table of the recording's calls
        answers[table] = bluetoothd.probe(conn, bluetoothd.recording()[table], dev)
    kelvane('scan-peer-hidden', '-e')
    # The peer visible for good, and pairable.
    for name, value in ('DiscoverableTimeout', dbus.UInt32(0)), ('Discoverable', True), \
            ('Pairable', True):
        assert bluetoothd.call(conn, PEER_PATH, bluetoothd.PROPS, 'Set', 'ssv',
                               [ADAPTER, name, value]) == 'ok'
    kelvane('scan', '-e')
    answers['types'] = bluetoothd.property_types('unix:path=/run/dbus/system_bus_socket', dev)
    paired = kelvane('pair', '-v', '-p', peer.lower().replace(':', '-'))['store']
    answers['store'] = {'info': bluetoothd.info_layout(paired['%s/%s/info' % (host, peer)]),
                        'settings': paired[host + '/settings']}
    shutil.copytree(BACKUP, '/tmp/saved-backup')  # with the pairing, for the restore
    ask('calls while connected')
    # The peer's record of the host gets its Services a moment after the
    # pairing, from its own service discovery: list the store once settled.
    wait_for(lambda: all('Services=' in text for path, text in tree(STORE).items()
                         if path.count('/') == 2 and path.endswith('/info')), 15)
    kelvane('list', '-l')
    forgotten = kelvane('forget', '-f', peer)['store']
    answers['store']['cache after removal'] = forgotten['%s/cache/%s' % (host, peer)]
    kelvane('forget-again', '-f', peer)
    kelvane('pair-absent', '-v', '-p', ABSENT)
    ask('calls to a peer found again')  # by that discovery, unpaired
    daemon.terminate()
    daemon.wait(15)
    kelvane('list-daemon-stopped', '-l')
    shutil.rmtree(BACKUP)
    shutil.copytree('/tmp/saved-backup', BACKUP)
    kelvane('restore', '-r')
    start_bluetoothd(2)
    kelvane('list-restored', '-l')
    ask('calls after a restart')
    return 0


if __name__ == '__main__':
    try:  # on an exception, Python prints its traceback and exits with 1
        RESULTS['notes']['status'] = main()
    finally:
        save()
    sys.exit(RESULTS['notes']['status'])
