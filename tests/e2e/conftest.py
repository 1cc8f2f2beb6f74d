# Fixtures of the end-to-end suites: bus (a private dbus-daemon), sim (the
# simulated BlueZ on it, empty at start), binary (the built kelvane) and
# run_kelvane (harness.run_kelvane against that bus).

import os
import threading

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


@pytest.fixture(scope='module')
def at_once(request, binary):
    # at_once({name: (build, args, options)}, timeout) -> {name: (Run, Sim)}:
    # every world on a bus of its own, all runs started together. build(sim)
    # makes the world (build None: no BlueZ at all) and may return a function
    # to run in a thread meanwhile; options go to harness.start, with box a
    # function that makes the box.
    buses, sims, threads = [], {}, []

    def run(worlds, timeout):
        started = {}
        for name, (build, args, options) in worlds.items():
            buses.append(PrivateBus())
            sims[name] = sim = build and Sim(buses[-1])
            during = build and build(sim)
            options = dict(options, box=options.get('box', harness.Box)())
            started[name] = harness.start(args, binary=binary, bus_address=buses[-1].address,
                                          **options)
            if callable(during):
                threads.append(threading.Thread(target=during))
                threads[-1].start()
        runs = harness.finish_all(started.values(), timeout)
        return {name: (done, sims[name]) for name, done in zip(started, runs)}
    yield run
    for thread in threads:
        thread.join()
    if request.session.testsfailed:
        print('\n'.join(describe_failure(sim=s) for s in sims.values() if s))
    for stop in [s.stop for s in sims.values() if s] + [b.stop for b in buses]:
        stop()
