'''A simulated BlueZ for developing and testing BlueZ clients without Bluetooth.

    from kelvane_sim import PrivateBus, Sim

    with PrivateBus() as bus, Sim(bus, scenario=scenario.read('world.json')) as sim:
        ...                      # run a client with DBUS_SYSTEM_BUS_ADDRESS=bus.address
    sim = Sim.attach(address)    # drive a simulator that kelvane-sim run started

See kelvane-sim(1) and sim/README.md.
'''

from kelvane_sim.client import (PAGE_TIMEOUT, PAIRING_MODES, Bus, PrivateBus, Sim,
                                describe_failure, pairing_config, passkey_display)

__all__ = ['PAGE_TIMEOUT', 'PAIRING_MODES', 'Bus', 'PrivateBus', 'Sim', 'describe_failure',
           'pairing_config', 'passkey_display']
