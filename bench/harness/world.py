'''Simulated BlueZ worlds and BlueZ stores of N devices that match.

A World is the project's simulator on a private bus of its own, holding one
adapter and N devices, and (by default) bench/replay in front of it on a
second bus: clients talk to the second bus, where GetManagedObjects is
answered from a kept copy of the simulator's reply and every other call is
passed on. make_store writes the store BlueZ would keep for the same
devices, so that `kelvane -l` joins N stored devices with N live ones.
'''

import os
import select
import subprocess
import time

from .simulator import PrivateBus, Sim

ADAPTER = '00:1A:7D:DA:71:13'
UUIDS = ['0000110b-0000-1000-8000-00805f9b34fb', '0000110e-0000-1000-8000-00805f9b34fb']
DEVICE_CLASS = 0x240404  # audio/video wearable headset


def device_address(index):
    return 'AA:%02X:%02X:%02X:%02X:%02X' % (
        (index >> 32) & 0xFF, (index >> 24) & 0xFF, (index >> 16) & 0xFF, (index >> 8) & 0xFF,
        index & 0xFF)


def device_name(index):
    return 'Device %05d' % index


class World:
    '''One adapter (hci0, ADAPTER) and `devices` devices on the simulator;
    with replay=True also the replay server, and `address` is its bus.'''

    def __init__(self, devices, replay_binary=None, start_timeout=120):
        self.devices = devices
        self.sim_bus = self.client_bus = self.sim = self.replay = None
        try:
            self.sim_bus = PrivateBus()
            self.sim = Sim(self.sim_bus)
            self.sim.add_adapter('hci0', address=ADAPTER, name='bench', alias='bench')
            started = time.monotonic()
            for index in range(devices):
                self.add_device(index)
            self.populate_seconds = time.monotonic() - started
            if replay_binary:
                self.client_bus = PrivateBus()
                self.replay = subprocess.Popen(
                    [replay_binary, self.sim_bus.address, self.client_bus.address],
                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
                ready, _, _ = select.select([self.replay.stdout], [], [], start_timeout)
                if not ready or self.replay.stdout.readline().strip() != b'ready':
                    raise RuntimeError('replay did not start')
        except BaseException:
            self.stop()
            raise

    def add_device(self, index, **overrides):
        options = dict(name=device_name(index), rssi=-40 - index % 50,
                       device_class=DEVICE_CLASS, icon='audio-headset', uuids=UUIDS,
                       paired=True, trusted=True, connected=index % 7 == 0)
        options.update(overrides)
        return self.sim.add_device('hci0', device_address(index), **options)

    @property
    def address(self):
        '''The bus clients should use.'''
        return (self.client_bus or self.sim_bus).address

    @property
    def pids(self):
        return [p.pid for p in (self.sim_bus and self.sim_bus.process, self.sim and self.sim.process,
                                self.client_bus and self.client_bus.process, self.replay) if p]

    def stop(self):
        if self.replay is not None and self.replay.poll() is None:
            self.replay.terminate()
            try:
                self.replay.wait(5)
            except subprocess.TimeoutExpired:
                self.replay.kill()
                self.replay.wait()
        for part in (self.client_bus, self.sim, self.sim_bus):
            if part is not None:
                part.stop()
        self.client_bus = self.sim = self.sim_bus = self.replay = None


def info_text(index):
    '''A device's info file as bluetoothd writes it for a paired headset.'''
    key = '%032X' % (index * 2654435761 % (1 << 128))
    return ('[General]\nName=%s\nClass=0x%06x\nSupportedTechnologies=BR/EDR;\n'
            'AddressType=public\nTrusted=true\nBlocked=false\nServices=%s;\n\n'
            '[LinkKey]\nKey=%s\nType=4\nPINLength=0\n\n'
            '[DeviceID]\nSource=1\nVendor=76\nProduct=8206\nVersion=2352\n'
            % (device_name(index), DEVICE_CLASS, ';'.join(UUIDS), key))


ATTRIBUTES = ('[0001]\nUUID=00002800-0000-1000-8000-00805f9b34fb\nValue=1800\n\n'
              '[0002]\nUUID=00002803-0000-1000-8000-00805f9b34fb\nValue=020300002a\n\n'
              '[0010]\nUUID=00002800-0000-1000-8000-00805f9b34fb\nValue=180f\n')


def _write(path, text, mode=0o600):
    with open(path, 'w') as out:
        out.write(text)
    os.chmod(path, mode)


def make_store(root, devices):
    '''root/<ADAPTER>/settings and root/<ADAPTER>/<device>/{info,attributes}
    for device indexes 0..devices-1, with bluetoothd's modes.'''
    adapter = os.path.join(root, ADAPTER)
    os.makedirs(adapter, mode=0o700)
    _write(os.path.join(adapter, 'settings'), '[General]\nDiscoverable=false\nAlias=bench\n')
    for index in range(devices):
        device = os.path.join(adapter, device_address(index))
        os.mkdir(device, 0o700)
        _write(os.path.join(device, 'info'), info_text(index))
        _write(os.path.join(device, 'attributes'), ATTRIBUTES)
    os.chmod(adapter, 0o700)
    os.chmod(root, 0o700)


def device_dir(root, index):
    return os.path.join(root, ADAPTER, device_address(index))
