# Fixtures of the end-to-end suites: bus (a private dbus-daemon), sim (the
# simulated BlueZ on it, empty at start), binary (the built kelvane) and
# run_kelvane (harness.run_kelvane against that bus).

import os

import pytest

import harness
from kelvane_sim.client import PrivateBus, Sim, describe_failure

if os.geteuid() == 0:
    harness.enter_private_namespace()


# What the fixtures print when they end is shown only with a failed test.
@pytest.fixture
def bus():
    private_bus = PrivateBus()
    yield private_bus
    print(describe_failure(bus=private_bus))
    private_bus.stop()


@pytest.fixture
def sim(bus):
    simulator = Sim(bus)
    yield simulator
    print(describe_failure(sim=simulator))
    simulator.stop()


@pytest.fixture(scope='session')
def binary():
    if not os.environ.get('KELVANE_BIN'):
        pytest.skip('KELVANE_BIN is not set (ctest sets it to the built binary)')
    if os.geteuid() != 0:
        pytest.skip('the end-to-end harness needs root for its mount namespaces')
    return os.environ['KELVANE_BIN']


@pytest.fixture
def run_kelvane(bus, binary):
    # run_kelvane(args, **options) -> harness.Run; see harness.run_kelvane.
    def run(args, **options):
        options.setdefault('bus_address', bus.address)
        return harness.run_kelvane(args, binary=binary, **options)
    return run
