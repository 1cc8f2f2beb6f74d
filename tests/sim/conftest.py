# Fixtures of the simulator's own tests: `world` starts the simulator from a
# scenario, with its store in a directory of the test, on a bus of its own.

import time

import dbus.mainloop.glib
import pytest

import bluetoothd
from kelvane_sim.client import PrivateBus, Sim, describe_failure

dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)  # bluetoothd.call waits in the main loop
DEVICE_IFACE = 'org.bluez.Device1'


class World:
    # The simulator of a test, its store directory, and its client, whose
    # connection (sim.conn) calls BlueZ the way any program would.

    def __init__(self, bus, root):
        self.bus, self.root, self.sim = bus, root, None

    def __call__(self, scenario, store=None):
        # Starts the simulator with the scenario, the store holding these
        # {relative path: text} first.
        for relative, text in (store or {}).items():
            (self.root / relative).parent.mkdir(parents=True, exist_ok=True)
            (self.root / relative).write_text(text)
        self.sim = Sim(self.bus, scenario=scenario, store=self.root)
        return self

    def call(self, path, interface, method, signature='', *args):
        return bluetoothd.call(self.sim.conn, path, interface, method, signature, args)

    def pair(self, device):
        return self.call(device, DEVICE_IFACE, 'Pair')

    def discover(self, seconds):
        # Starts (or goes on with) discovery on hci0 and lets it run for a while.
        self.call('/org/bluez/hci0', 'org.bluez.Adapter1', 'StartDiscovery')
        time.sleep(seconds)

    def devices(self):
        # {path: Device1 properties} of the device objects on the bus.
        objects = self.call('/', 'org.freedesktop.DBus.ObjectManager', 'GetManagedObjects')
        return {str(path): {str(k): v for k, v in interfaces[DEVICE_IFACE].items()}
                for path, interfaces in objects.items() if DEVICE_IFACE in interfaces}

    def files(self):
        # {relative path: text} of every file in the store.
        return {str(path.relative_to(self.root)): path.read_text()
                for path in sorted(self.root.rglob('*')) if path.is_file()}


@pytest.fixture
def world(tmp_path):
    # A World to start: world(scenario, store). The simulator's output is
    # printed, which pytest shows on failure.
    with PrivateBus() as bus:
        started = World(bus, tmp_path / 'store')
        yield started
        print(describe_failure(started.sim, bus))
        if started.sim:
            started.sim.stop()
