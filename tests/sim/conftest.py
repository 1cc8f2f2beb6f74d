'''Fixtures of the simulator's own tests: `world` starts the simulator from a
scenario, with its store in a directory of the test, on a bus of its own.'''

import os
import subprocess
import sys
import time
from pathlib import Path

import dbus
import pytest

from kelvane_sim.client import PrivateBus, Sim, describe_failure

LAUNCHER = Path(__file__).resolve().parents[2] / 'sim' / 'kelvane-sim'
DEVICE_IFACE = 'org.bluez.Device1'


class World:
    '''A running simulator, its store directory, and a client connection
    that calls BlueZ the way any program would.'''

    def __init__(self, bus, root, scenario, store):
        self.bus, self.root = bus, root
        for relative, text in (store or {}).items():
            (root / relative).parent.mkdir(parents=True, exist_ok=True)
            (root / relative).write_text(text)
        self.sim = Sim(bus, scenario=scenario, store=root)
        self.conn = bus.connect()

    def call(self, path, interface, method, signature='', *args):
        '''The reply, 'ok' for an empty one, or the D-Bus error's name.'''
        try:
            reply = self.conn.call_blocking('org.bluez', path, interface, method, signature,
                                            args, timeout=15)
        except dbus.exceptions.DBusException as e:
            return e.get_dbus_name()
        return 'ok' if reply is None else reply

    def pair(self, device):
        return self.call(device, DEVICE_IFACE, 'Pair')

    def discover(self, seconds, adapter='/org/bluez/hci0'):
        '''Starts (or goes on with) discovery and lets it run for a while.'''
        self.call(adapter, 'org.bluez.Adapter1', 'StartDiscovery')
        time.sleep(seconds)

    def devices(self):
        '''{path: Device1 properties} of the device objects on the bus.'''
        objects = self.call('/', 'org.freedesktop.DBus.ObjectManager', 'GetManagedObjects')
        return {str(path): {str(k): v for k, v in interfaces[DEVICE_IFACE].items()}
                for path, interfaces in objects.items() if DEVICE_IFACE in interfaces}

    def files(self):
        '''{relative path: text} of every file in the store.'''
        return {str(path.relative_to(self.root)): path.read_text()
                for path in sorted(self.root.rglob('*')) if path.is_file()}

    def cli(self, *argv):
        '''(exit status, stdout, stderr) of kelvane-sim with these words.'''
        done = subprocess.run([sys.executable, str(LAUNCHER)] + [str(a) for a in argv],
                              capture_output=True, text=True, timeout=60, check=False,
                              env=dict(os.environ, PYTHONDONTWRITEBYTECODE='1'))
        return done.returncode, done.stdout, done.stderr


@pytest.fixture
def world(tmp_path):
    '''world(scenario, store={relative path: text}) -> a started World.
    The simulator's output is printed, which pytest shows on failure.'''
    with PrivateBus() as bus:
        started = []
        yield lambda scenario, store=None: started.append(
            World(bus, tmp_path / 'store', scenario, store)) or started[-1]
        for item in started:
            print(describe_failure(item.sim, bus))
            item.conn.close()
            item.sim.stop()
