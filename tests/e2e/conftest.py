# Fixtures of the end-to-end suites: bus (a private dbus-daemon), sim (the
# simulated BlueZ on it, empty at start), binary (the built kelvane) and
# run_kelvane (harness.run_kelvane against that bus).

import contextlib
import functools
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
    with PrivateBus() as private_bus:
        yield private_bus
        print(describe_failure(bus=private_bus))


@pytest.fixture
def sim(bus):
    with Sim(bus) as simulator:
        yield simulator
        print(describe_failure(sim=simulator))


@pytest.fixture(scope='session')
def binary():
    if not os.environ.get('KELVANE_BIN') or os.geteuid() != 0:
        pytest.skip('needs KELVANE_BIN (ctest sets it) and root (for the mount namespaces)')
    return os.environ['KELVANE_BIN']


@pytest.fixture
def run_kelvane(bus, binary):
    # run_kelvane(args, **options) -> harness.Run; see harness.run_kelvane.
    return functools.partial(harness.run_kelvane, binary=binary, bus_address=bus.address)


@pytest.fixture(scope='module')
def at_once(request, binary):
    # at_once({name: (build, args, options)}, timeout) -> {name: (Run, Sim)}:
    # every world on a bus of its own, all runs started together. build(sim)
    # makes the world (build None: no BlueZ at all) and may return a function
    # to run in a thread meanwhile; options go to harness.start, with box a
    # function that makes the box.
    sims, running = {}, contextlib.ExitStack()

    def run(worlds, timeout):
        started = {}
        for name, (build, args, options) in worlds.items():
            bus = running.enter_context(PrivateBus())
            sims[name] = sim = build and running.enter_context(Sim(bus))
            during = build and build(sim)
            options = dict(options, box=options.get('box', harness.Box)())
            started[name] = harness.start(args, binary=binary, bus_address=bus.address, **options)
            if callable(during):  # joined before its simulator stops
                thread = threading.Thread(target=during)
                thread.start()
                running.callback(thread.join)
        runs = harness.finish_all(started.values(), timeout)
        return {name: (done, sims[name]) for name, done in zip(started, runs)}
    with running:
        yield run
        if request.session.testsfailed:
            print('\n'.join(describe_failure(sim=s) for s in sims.values() if s))
