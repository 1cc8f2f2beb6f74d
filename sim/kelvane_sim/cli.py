'''kelvane-sim: run the simulated BlueZ, drive a running one, check scenarios.

    kelvane-sim run [--scenario FILE | --demo | --empty] [--store [DIR]]
                    [--bus ADDRESS] [--calls] [--isolate] [-- COMMAND [ARG...]]
    kelvane-sim call ADDRESS METHOD [JSON-ARGUMENTS]
    kelvane-sim check FILE...

See kelvane-sim(1).
'''

import argparse
import json
import os
import shutil
import signal
import subprocess
import sys

import dbus

from kelvane_sim import scenario as scenarios
from kelvane_sim.client import Bus, PrivateBus, Sim
from kelvane_sim.sandbox import Sandbox

PROG = 'kelvane-sim'
DEFAULT_STORE = '/var/lib/bluetooth'
# The methods of Sim that `call` offers: those that shape the world or
# report on it. Starting and stopping belong to `run`.
CALLS = ('add_adapter', 'add_device', 'schedule', 'set_props', 'delete_props', 'drop',
         'set_pairing', 'fault', 'fault_set', 'page_timeout', 'clear_faults',
         'object_managers', 'leave_bus', 'configure', 'load_scenario', 'use_store', 'state',
         'props', 'agents', 'calls', 'methods', 'agent_calls', 'clear_calls')


class UsageError(Exception):
    '''Wrong arguments: exit status 2, like argparse's own.'''


def parse_args(argv):
    parser = argparse.ArgumentParser(prog=PROG, description='A simulated BlueZ on D-Bus.')
    commands = parser.add_subparsers(dest='command', required=True, metavar='COMMAND')
    run = commands.add_parser('run', help='start the simulator (on a private bus)',
                              usage='%(prog)s [--scenario FILE | --demo | --empty] '
                                    '[--store [DIR]] [--bus ADDRESS] [--calls] [--isolate] '
                                    '[-- COMMAND [ARG...]]')
    world = run.add_mutually_exclusive_group()
    world.add_argument('--scenario', metavar='FILE', help='the world of a scenario file')
    world.add_argument('--demo', action='store_true', help='the demo world (the default)')
    world.add_argument('--empty', action='store_true', help='no adapters, no devices')
    run.add_argument('--store', nargs='?', const=DEFAULT_STORE, metavar='DIR',
                     help='keep a BlueZ store under DIR (default %s)' % DEFAULT_STORE)
    run.add_argument('--bus', metavar='ADDRESS', help='join this bus instead of a private one')
    run.add_argument('--calls', action='store_true',
                     help='print the method calls received, on stderr, when stopping')
    run.add_argument('--isolate', action='store_true',
                     help='run COMMAND with /tmp, /run and /var/lib of its own and the store '
                          'as /var/lib/bluetooth (as root)')
    run.add_argument('program', nargs=argparse.REMAINDER, help=argparse.SUPPRESS)
    call = commands.add_parser('call', help='drive a running simulator')
    call.add_argument('address', help='the bus address kelvane-sim run printed')
    call.add_argument('method', choices=CALLS, metavar='METHOD')
    call.add_argument('arguments', nargs='?', metavar='JSON-ARGUMENTS',
                      help='a JSON array (positional) or object (keyword arguments)')
    check = commands.add_parser('check', help='check scenario files')
    check.add_argument('files', nargs='+', metavar='FILE')
    args = parser.parse_args(argv)
    if args.command == 'run' and args.program[:1] == ['--']:
        args.program = args.program[1:]
    return args


def world_of(args):
    '''The scenario run starts with; the demo unless told otherwise.'''
    if args.empty:
        return None
    return scenarios.read(args.scenario or scenarios.DEMO_PATH)


def run(args):
    try:
        world = world_of(args)
    except scenarios.ScenarioError as e:
        raise UsageError(str(e)) from None
    if args.isolate and not args.program:
        raise UsageError('--isolate needs a COMMAND')
    if args.isolate and os.geteuid() != 0:
        raise RuntimeError('--isolate needs root (it makes a mount namespace)')
    bus, sandbox = Bus(args.bus) if args.bus else PrivateBus(), None
    try:
        # Isolated without a store of its own, the simulator keeps it in the sandbox.
        sandbox = Sandbox(store=args.store) if args.isolate else None
        store = args.store or (sandbox and str(sandbox.store))
        with Sim(bus, scenario=world, store=store) as sim:
            if args.program:
                status = run_program(args.program, bus.address, sandbox)
            else:
                status = serve(sim, store)
            if args.calls:
                print_calls(sim)
    finally:
        bus.stop()
        if sandbox:
            shutil.rmtree(sandbox.base)
    return status


def run_program(program, address, sandbox=None):
    '''Runs the program against the simulator, in the sandbox if one is
    given; its exit status.'''
    env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=address)
    try:
        with (sandbox.popen if sandbox else subprocess.Popen)(program, env=env) as process:
            return process.wait()
    except (OSError, subprocess.SubprocessError) as e:
        print('%s: %s: %s' % (PROG, program[0], getattr(e, 'strerror', None) or e),
              file=sys.stderr)
        return 127


def serve(sim, store):
    '''Stays up until a signal; 1 when the simulator itself stopped.'''
    print('DBUS_SYSTEM_BUS_ADDRESS=' + sim.address, flush=True)
    print('%s: simulated BlueZ is up%s; in another shell:\n'
          '  export DBUS_SYSTEM_BUS_ADDRESS=%s\nCtrl-C stops it.'
          % (PROG, ' with its store in ' + store if store else '', sim.address),
          file=sys.stderr, flush=True)
    stop = []
    for signum in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(signum, lambda *_: stop.append(True))
    while not stop and sim.process.poll() is None:
        try:
            sim.process.wait(0.5)
        except subprocess.TimeoutExpired:
            pass
    if sim.process.poll() is None:
        return 0
    print('%s: the simulator stopped:\n%s' % (PROG, sim.log()), file=sys.stderr)
    return 1


def print_calls(sim):
    for call in sim.calls():
        args = ' '.join(repr(a) for a in call.args)
        fault = ' -> ' + call['fault'] if 'fault' in call else ''
        print('%8.3f %s %s.%s %s%s' % (call.time, call.path, call.interface, call.method,
                                       args, fault), file=sys.stderr)


def call(args):
    '''One method of Sim on the simulator at the address; its result as JSON.'''
    try:
        arguments = json.loads(args.arguments) if args.arguments else []
    except json.JSONDecodeError as e:
        raise UsageError('JSON-ARGUMENTS: %s' % e) from None
    positional, keywords = (arguments, {}) if isinstance(arguments, list) else ([], arguments)
    if not isinstance(keywords, dict):
        raise UsageError('JSON-ARGUMENTS: an array or an object')
    sim = Sim.attach(args.address)
    try:
        result = getattr(sim, args.method)(*positional, **keywords)
    except TypeError as e:
        raise UsageError('%s: %s' % (args.method, e)) from None
    finally:
        sim.stop()
    if result is not None:
        print(json.dumps(result))
    return 0


def check(args):
    status = 0
    for path in args.files:
        try:
            scenarios.read(path)
            print('%s: ok' % path)
        except scenarios.ScenarioError as e:
            print(e, file=sys.stderr)
            status = 1
    return status


def main(argv=None):
    # Output piped into head and the like may stop being read.
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    args = parse_args(sys.argv[1:] if argv is None else argv)
    try:
        return {'run': run, 'call': call, 'check': check}[args.command](args)
    except UsageError as e:
        print('%s: %s' % (PROG, e), file=sys.stderr)
        return 2
    except dbus.exceptions.DBusException as e:
        print('%s: %s: %s' % (PROG, e.get_dbus_name(), e.get_dbus_message()), file=sys.stderr)
        return 1
    except (RuntimeError, scenarios.ScenarioError) as e:
        print('%s: %s' % (PROG, e), file=sys.stderr)
        return 1
