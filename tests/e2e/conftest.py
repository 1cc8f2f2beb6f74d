# Fixtures of the end-to-end suites: bus (a private dbus-daemon), sim (the
# simulated BlueZ on it, empty at start), binary (the built kelvane) and
# run_kelvane (harness.run_kelvane against that bus). When a test fails, the
# simulator's and the bus daemon's output are printed with its report.

import os

import pytest

import harness
from simbus import PrivateBus, Sim, describe_failure

if os.geteuid() == 0:
    harness.enter_private_namespace()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    del call
    report = (yield).get_result()
    if report.when == 'call':
        item.failed = report.failed


@pytest.fixture
def bus(request):
    private_bus = PrivateBus()
    yield private_bus
    if getattr(request.node, 'failed', False):
        print(describe_failure(bus=private_bus))
    private_bus.stop()


@pytest.fixture
def sim(bus, request):
    simulator = Sim(bus)
    yield simulator
    if getattr(request.node, 'failed', False):
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
