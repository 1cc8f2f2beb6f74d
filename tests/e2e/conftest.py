'''Fixtures of the end-to-end suites.

bus          a private dbus-daemon for this test alone
sim          the simulated BlueZ on that bus (kelvane_sim.Sim), empty at start
run_kelvane  runs the binary from $KELVANE_BIN against that bus (harness.run_kelvane)

When a test fails, the simulator's and the bus daemon's output are printed
with its report.
'''

import os

import pytest

import harness
from kelvane_sim.client import PrivateBus, Sim, describe_failure


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    setattr(item, 'report_' + report.when, report)
    del call


def _failed(request):
    report = getattr(request.node, 'report_call', None)
    return report is not None and report.failed


@pytest.fixture
def bus(request):
    private_bus = PrivateBus()
    yield private_bus
    if _failed(request):
        print(describe_failure(bus=private_bus))
    private_bus.stop()


@pytest.fixture
def sim(bus, request):
    simulator = Sim(bus)
    yield simulator
    if _failed(request):
        print(describe_failure(sim=simulator))
    simulator.stop()


@pytest.fixture
def kelvane_bin():
    binary = os.environ.get('KELVANE_BIN')
    if not binary:
        pytest.skip('KELVANE_BIN is not set (ctest sets it to the built binary)')
    return binary


@pytest.fixture
def run_kelvane(bus, kelvane_bin):
    '''run_kelvane(args, root=True, store={}, tmp={}, env=None, argv0=None,
    timeout=60, expect_json=True, readonly=()) -> harness.Run'''

    def run(args, **options):
        options.setdefault('bus_address', bus.address)
        return harness.run_kelvane(args, binary=kelvane_bin, **options)

    return run


@pytest.fixture
def run_scenario(bus, kelvane_bin):
    '''run_scenario(name, store=None, tmp=None, timeout=120, store_mount=False,
    bind=(), **params) -> (report, namespace report); see nsscenarios.py'''

    def run(name, **options):
        options.setdefault('bus_address', bus.address)
        return harness.run_scenario(name, binary=kelvane_bin, **options)

    return run
