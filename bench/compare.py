#!/usr/bin/python3
'''kelvane measured against the least a Qt client can do and against the
tools people use instead, in one run, printed as one table.

Started by bench/compare.sh (which builds the floors and bench/replay, makes
the scratch area and enters a private mount namespace); see bench/README.md
for what each row means. Run it through compare.sh, not on its own.
'''

import argparse
import concurrent.futures
import datetime
import hashlib
import json
import os
import platform
import shutil
import signal
import statistics
import subprocess
import sys
import time
import traceback
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

# pylint: disable=wrong-import-position
from harness import sandbox, world
from harness.measure import (BusMonitor, Command, Deadline, TimeUp, callgrind, paired,
                             kill_running, paired_ratio, run, use_launcher)
from harness.simulator import PrivateBus
from harness.table import Row, Table, format_number, instructions, mebibytes, millis, \
    per_device, seconds
import dbus  # pylint: disable=wrong-import-order

STORE = '/var/lib/bluetooth'
BACKUP = '/tmp/config/files/var_bluetooth'
BACKUP_DEVICES = 2000
# Forgotten through the simulator in the "unchanged store" save: BlueZ knows
# it, the store does not (bluetoothd would have deleted its directory).
GONE = 1_000_000
# Forgotten from the store when BlueZ is absent, and the device -r brings back.
VICTIM = 0

FULL = {'start': 20, 'list': {10: 10, 1000: 10, 5000: 5}, 'scan': 3, 'backup': 5}
QUICK = {'start': 5, 'list': {10: 3, 1000: 3, 5000: 2}, 'scan': 1, 'backup': 2}
PHASES = ('start', 'list', 'scan', 'calls', 'backup', 'instructions')


def parse_args():
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('--kelvane', required=True, help='the binary to measure (a copy)')
    parser.add_argument('--bin', required=True, help='where the floors and replay were built')
    parser.add_argument('--scratch', required=True)
    parser.add_argument('--source', default='', help='where the binary was copied from')
    parser.add_argument('--outer-namespace', default='',
                        help='readlink /proc/self/ns/mnt outside the private namespace')
    parser.add_argument('--quick', action='store_true', help='fewer rounds (see README)')
    parser.add_argument('--sizes', default='10,1000,5000',
                        help='device counts N (default 10,1000,5000; the growth and '
                             'linearity rows need 1000 and 5000)')
    parser.add_argument('--only', default=','.join(PHASES),
                        help='phases to run, of: ' + ', '.join(PHASES))
    parser.add_argument('--time-limit', type=float, default=None,
                        help='seconds; what is left unmeasured then is marked so '
                             '(default 3600, quick 1200)')
    parser.add_argument('--json', help='also write every figure to this file')
    options = parser.parse_args()
    options.sizes = sorted({int(n) for n in options.sizes.split(',')})
    options.only = [p for p in options.only.split(',') if p]
    unknown = set(options.only) - set(PHASES)
    if unknown:
        parser.error('unknown phase: ' + ', '.join(sorted(unknown)))
    if options.time_limit is None:
        options.time_limit = 1200 if options.quick else 3600
    options.rounds = QUICK if options.quick else FULL
    return options


def machine_description(scratch):
    def first(path, prefix):
        try:
            with open(path) as f:
                for line in f:
                    if line.startswith(prefix):
                        return line.split(':', 1)[1].strip()
        except OSError:
            pass
        return '?'

    def version(package):
        done = subprocess.run(['dpkg-query', '-W', '-f=${Version}', package],
                              capture_output=True, text=True, check=False)
        return done.stdout.strip() or '?'

    debian = '?'
    try:
        debian = Path('/etc/debian_version').read_text().strip()
    except OSError:
        pass
    memory = int(first('/proc/meminfo', 'MemTotal').split()[0]) / 1024 / 1024
    return {
        'load': load_average(),
        'date': datetime.datetime.now().astimezone().isoformat(timespec='minutes'),
        'cpu': first('/proc/cpuinfo', 'model name'),
        'cores': os.cpu_count(),
        'memory': '%.0f GiB' % memory,
        'kernel': platform.release(),
        'debian': debian,
        'scratch': '%s (%s)' % (scratch, sandbox.filesystem_type(scratch)),
        'versions': ', '.join('%s %s' % (p, version(p)) for p in (
            'libqt5core5a', 'libdbus-1-3', 'dbus-daemon', 'bluez', 'systemd', 'valgrind',
            'rsync', 'coreutils', 'python3-dbusmock')),
    }


def load_average():
    with open('/proc/loadavg') as f:
        return ' '.join(f.read().split()[:3])


def sha256(path):
    digest = hashlib.sha256()
    with open(path, 'rb') as f:
        for block in iter(lambda: f.read(1 << 20), b''):
            digest.update(block)
    return digest.hexdigest()[:12]


class Bench:
    def __init__(self, options):
        self.options = options
        self.scratch = options.scratch
        self.bin = options.bin
        self.kelvane = options.kelvane
        self.deadline = Deadline(options.time_limit)
        self.table = Table()
        self.details = []
        self.figures = {}
        self.worlds = {}
        self.empty_bus = None
        self.forget_world = None
        self.stores = {}
        self.current_store = None
        self.varlib = None
        self.skipped = []
        self.failed = []

    # -- setting up ----------------------------------------------------------

    def env(self, address):
        env = {key: value for key, value in os.environ.items()
               if not key.startswith('DBUS_') and key not in ('LANGUAGE', 'LANG')}
        env.update(DBUS_SYSTEM_BUS_ADDRESS=address, LC_ALL='C.UTF-8')
        return env

    def tool(self, name, *args, address, timeout=600):
        return Command(name, [self.kelvane, *args], self.env(address), timeout)

    def floor(self, name, address, timeout=600):
        return Command(name, [os.path.join(self.bin, name)], self.env(address), timeout)

    def setup(self):
        _, self.varlib = sandbox.enter(self.scratch, self.options.outer_namespace)
        started = time.monotonic()
        for n in self.options.sizes:
            path = os.path.join(self.varlib, 'store-%d' % n)
            world.make_store(path, n)
            self.stores[n] = path
        say('stores of %s devices written (%.1f s)' % (
            '/'.join(str(n) for n in self.options.sizes), time.monotonic() - started))
        self.empty_bus = PrivateBus()
        for n in self.options.sizes:
            started = time.monotonic()
            self.worlds[n] = world.World(n, os.path.join(self.bin, 'replay'))
            say('simulated BlueZ with %d devices up (%.1f s)' % (n, time.monotonic() - started))

    def use_store(self, key):
        '''Puts the store of `key` at /var/lib/bluetooth (by renaming inside
        the scratch area; nothing is copied).'''
        if self.current_store == key:
            return
        live = os.path.join(self.varlib, 'bluetooth')
        if self.current_store is not None:
            os.rename(live, self.stores[self.current_store])
        os.rename(self.stores[key], live)
        self.current_store = key

    def stop(self):
        for part in [*self.worlds.values(), self.forget_world, self.empty_bus]:
            if part is not None:
                try:
                    part.stop()
                except Exception as e:  # pylint: disable=broad-except
                    say('stopping %r: %s' % (part, e))
        self.worlds = {}
        self.forget_world = self.empty_bus = None

    # -- checks: the worlds are what the figures claim -------------------------

    def check_listing(self, n):
        self.use_store(n)
        address = self.worlds[n].address
        sample = run(self.tool('kelvane -l', '-l', address=address), self.deadline,
                     capture_dir=os.path.join(self.scratch, 'out', 'check-l-%d' % n))
        document = json.loads(sample.stdout)
        devices = document['devices']
        joined = sum(1 for d in devices if d.get('path'))
        floor = run(self.floor('floor_json', address), self.deadline,
                    capture_dir=os.path.join(self.scratch, 'out', 'check-json-%d' % n))
        floor_devices = len(json.loads(floor.stdout)['devices'])
        say('N=%d: kelvane -l lists %d devices, %d joined with a live object (%s); '
            'floor_json writes %d devices' % (n, len(devices), joined, document['result'],
                                               floor_devices))
        if len(devices) != n or joined != n or floor_devices != n:
            raise RuntimeError('N=%d: the store and the simulated BlueZ do not match' % n)

    # -- phases ------------------------------------------------------------------

    def phase_start(self):
        rounds = self.options.rounds['start']
        address = self.empty_bus.address
        commands = [self.tool('kelvane -h', '-h', address=address),
                    self.floor('floor_start', address)]
        series = paired(commands, rounds, self.deadline, warmup=2)
        self.figures['start'] = summarize(series)
        k, f = series['kelvane -h'], series['floor_start']
        self.table.add(Row('-h, CPU (paired, rounds: %d)' % rounds, '-', millis(k.median('cpu')),
                           'bare QCoreApplication: ' + millis(f.median('cpu')),
                           paired_ratio(series, 'kelvane -h', 'floor_start', 'cpu')))
        self.table.add(Row('-h, wall', '-', millis(k.median('wall')),
                           'bare QCoreApplication: ' + millis(f.median('wall')),
                           paired_ratio(series, 'kelvane -h', 'floor_start', 'wall')))
        self.table.add(Row('-h, peak RSS', '-', mebibytes(k.median('rss')),
                           'bare QCoreApplication: ' + mebibytes(f.median('rss')),
                           k.median('rss') / f.median('rss')))

    def phase_list(self):
        for n in self.options.sizes:
            self.deadline.check()
            self.use_store(n)
            rounds = self.options.rounds['list'].get(n, self.options.rounds['list'][1000])
            address = self.worlds[n].address
            commands = [
                self.tool('kelvane -l', '-l', address=address),
                self.floor('floor_json', address),
                self.floor('floor_gmo', address),
                Command('busctl', ['busctl', '--system', 'call', 'org.bluez', '/',
                                   'org.freedesktop.DBus.ObjectManager', 'GetManagedObjects'],
                        self.env(address)),
                Command('bluetoothctl devices', ['bluetoothctl', 'devices'], self.env(address)),
            ]
            series = paired(commands, rounds, self.deadline)
            self.figures['list-%d' % n] = summarize(series)
            check_statuses(series)
            k = series['kelvane -l']
            big = n >= 1000
            for field, label, limit in (('cpu', 'CPU', 1.5 if big else None),
                                        ('wall', 'wall', None)):
                f = series['floor_json']
                self.table.add(Row(
                    '-l, %s (paired, rounds: %d)' % (label, rounds), fmt_n(n),
                    millis(k.median(field)), 'Qt GetManagedObjects+JSON: ' +
                    millis(f.median(field)),
                    paired_ratio(series, 'kelvane -l', 'floor_json', field), limit))
            self.table.add(Row(
                '-l vs bluetoothctl devices, wall', fmt_n(n), millis(k.median('wall')),
                'bluetoothctl devices: ' + millis(series['bluetoothctl devices'].median('wall')),
                paired_ratio(series, 'kelvane -l', 'bluetoothctl devices', 'wall'),
                0.125 if n >= 5000 else None,
                target_text='<= 0.125x (8x faster)' if n >= 5000 else ''))
            self.table.add(Row(
                '-l vs busctl call GetManagedObjects, wall', fmt_n(n), millis(k.median('wall')),
                'busctl: ' + millis(series['busctl'].median('wall')),
                paired_ratio(series, 'kelvane -l', 'busctl', 'wall')))
            self.table.add(Row(
                '-l, peak RSS', fmt_n(n), mebibytes(k.median('rss')),
                'Qt GetManagedObjects+JSON: ' + mebibytes(series['floor_json'].median('rss')),
                k.median('rss') / series['floor_json'].median('rss'), 1.3))
            last = series
        self.gnu_time_cross_check(max(self.options.sizes), last)

    def gnu_time_cross_check(self, n, series):
        '''The launcher's peak RSS beside GNU time's %M for the same commands.'''
        self.use_store(n)
        address = self.worlds[n].address
        report = os.path.join(self.scratch, 'out', 'gnu-time')
        os.makedirs(os.path.dirname(report), exist_ok=True)
        readings = {}
        for _ in range(3):
            for command in (self.tool('kelvane -l', '-l', address=address),
                            self.floor('floor_json', address)):
                run(Command(command.name, ['/usr/bin/time', '-f', '%M', '-o', report,
                                           *command.argv], command.env), self.deadline)
                with open(report) as f:
                    readings.setdefault(command.name, []).append(int(f.read().split()[-1]))
        self.details.append('Peak RSS at N=%s, GNU time %%M (median of 3) / this harness '
                            '(median of the rounds): %s' % (fmt_n(n), '; '.join(
                                '%s %s / %s' % (name, mebibytes(statistics.median(values)),
                                                mebibytes(series[name].median('rss')))
                                for name, values in readings.items())))

    def phase_scan(self):
        rounds = self.options.rounds['scan']
        for n in self.options.sizes:
            self.deadline.check()
            address = self.worlds[n].address
            commands = [self.tool('kelvane -e', '-e', address=address, timeout=120),
                        self.floor('floor_scan', address, timeout=120)]
            # Ten seconds each, nearly all of it asleep: both run at once.
            series = paired(commands, rounds, self.deadline, warmup=0, together=True)
            self.figures['scan-%d' % n] = summarize(series)
            check_statuses(series)
            k, f = series['kelvane -e'], series['floor_scan']
            self.table.add(Row('scan (-e), CPU (run together, rounds: %d)' % rounds, fmt_n(n),
                               millis(k.median('cpu')), '10-poll Qt scan: ' +
                               millis(f.median('cpu')),
                               paired_ratio(series, 'kelvane -e', 'floor_scan', 'cpu')))
            self.table.add(Row('scan (-e), peak RSS', fmt_n(n), mebibytes(k.median('rss')),
                               '10-poll Qt scan: ' + mebibytes(f.median('rss')),
                               k.median('rss') / f.median('rss'), 1.3))

    def phase_calls(self):
        n = min(self.options.sizes)
        scan_world = self.worlds[n]
        connect = dbus.bus.BusConnection
        counts = {}
        monitor = BusMonitor(scan_world.address, connect)
        try:
            outputs = {}

            def capture(name, command):
                def go():
                    sample = run(command, self.deadline, capture_dir=os.path.join(
                        self.scratch, 'out', 'calls-' + name))
                    outputs[name] = sample
                return go

            plan = [
                ('kelvane -e', self.tool('kelvane -e', '-e', address=scan_world.address,
                                         timeout=120)),
                ('floor_scan', self.floor('floor_scan', scan_world.address, timeout=120)),
                ('kelvane -l', self.tool('kelvane -l', '-l', address=scan_world.address)),
                ('floor_json', self.floor('floor_json', scan_world.address)),
            ]
            self.use_store(n)
            for name, command in plan:
                counts[name] = monitor.count(capture(name, command))
        finally:
            monitor.stop()
        monitor = BusMonitor(self.empty_bus.address, connect)
        try:
            counts['kelvane -e, BlueZ absent'] = monitor.count(capture(
                'kelvane -e, BlueZ absent',
                self.tool('kelvane -e', '-e', address=self.empty_bus.address, timeout=120)))
            # The least a client can learn that BlueZ is absent with: one call.
            counts['floor_gmo, BlueZ absent'] = monitor.count(capture(
                'floor_gmo, BlueZ absent', self.floor('floor_gmo', self.empty_bus.address)))
        finally:
            monitor.stop()
        scanned = len(json.loads(outputs['kelvane -e'].stdout)['devices'])
        floor_scanned = len(json.loads(outputs['floor_scan'].stdout)['devices'])
        say('calls: kelvane -e found %d devices, floor_scan %d (N=%d)' % (
            scanned, floor_scanned, n))
        if scanned != n or floor_scanned != n:
            raise RuntimeError('the scans did not see the %d devices of the world' % n)

        def needed(counter):
            return sum(c for (dest, _), c in counter.items() if dest == 'org.bluez')

        def overhead(counter):
            return {k: c for k, c in counter.items()
                    if k != ('org.freedesktop.DBus', 'org.freedesktop.DBus.Hello')}

        k_scan = overhead(counts['kelvane -e'])
        floor_scan = needed(counts['floor_scan'])
        floor_bluez = {k: c for k, c in counts['floor_scan'].items() if k[0] == 'org.bluez'}
        k_bluez = {k: c for k, c in k_scan.items() if k[0] == 'org.bluez'}
        self.table.add(Row(
            'scan (-e), method calls on the bus, one adapter', fmt_n(n),
            '%d (%d to org.bluez)' % (sum(k_scan.values()), needed(k_scan)),
            'needed (the floor\'s calls to org.bluez): %d' % floor_scan,
            sum(k_scan.values()) / floor_scan,
            target_text='the needed calls only', verdict=k_scan == floor_bluez and
            k_bluez == floor_bluez))
        absent = overhead(counts['kelvane -e, BlueZ absent'])
        floor_absent = sum(overhead(counts['floor_gmo, BlueZ absent']).values())
        self.table.add(Row(
            'scan (-e), method calls, BlueZ absent', '-', str(sum(absent.values())),
            'one GetManagedObjects (Qt client): %d' % floor_absent,
            sum(absent.values()) / max(1, floor_absent),
            target_text='= 1', verdict=sum(absent.values()) == 1))
        k_list = overhead(counts['kelvane -l'])
        f_list = overhead(counts['floor_json'])
        self.table.add(Row('-l, method calls on the bus', fmt_n(n), str(sum(k_list.values())),
                           'Qt GetManagedObjects+JSON: %d' % sum(f_list.values()),
                           sum(k_list.values()) / max(1, sum(f_list.values()))))
        self.figures['calls'] = {name: {'%s %s' % key: c for key, c in counter.items()}
                                 for name, counter in counts.items()}
        lines = ['Method calls sent, counted by dbus-monitor (Hello, which every '
                 'connection sends, is listed but left out of the counts above):']
        for name, counter in counts.items():
            lines.append('  %s:' % name)
            for (dest, method), count in sorted(counter.items(), key=lambda i: (-i[1], i[0])):
                lines.append('    %3d  %s  %s' % (count, dest, method))
        absent_line = outputs['kelvane -e, BlueZ absent'].stdout.decode(errors='replace').strip()
        lines.append('  kelvane -e with BlueZ absent printed: ' + absent_line)
        self.details.append('\n'.join(lines))

    def phase_backup(self):
        rounds = self.options.rounds['backup']
        pristine = os.path.join(self.scratch, 'pristine')
        if not os.path.isdir(pristine):
            world.make_store(pristine, BACKUP_DEVICES)
        # The backup store is built by copying pristine into a store slot of its own.
        self.stores['backup'] = os.path.join(self.varlib, 'store-backup')
        os.makedirs(self.stores['backup'], exist_ok=True)
        self.use_store('backup')
        os.makedirs(os.path.dirname(BACKUP), mode=0o755, exist_ok=True)
        os.chmod('/tmp/config', 0o755)
        os.chmod('/tmp/config/files', 0o755)
        self.forget_world = world.World(0)
        gone_address = world.device_address(GONE)

        def mirror(source, target):
            subprocess.run(['rsync', '-a', '--delete', source + '/', target + '/'], check=True)

        def reset(remove_victim=False, edit_info=False):
            '''Store and backup as pristine, then the store changed as asked;
            synced, so that no earlier writing is flushed during a timed run.'''
            mirror(pristine, STORE)
            mirror(pristine, BACKUP)
            if remove_victim:
                shutil.rmtree(world.device_dir(STORE, VICTIM))
            if edit_info:
                info = os.path.join(world.device_dir(STORE, VICTIM + 1), 'info')
                with open(info, 'a') as f:
                    f.write('\n[ConnectionParameters]\nMinInterval=6\n')
            os.sync()

        def regain_gone():
            try:
                self.forget_world.add_device(GONE)
            except dbus.exceptions.DBusException:
                pass  # still there

        empty = self.empty_bus.address
        sim = self.forget_world.address

        def rsync(source, target):
            return Command('rsync -a --delete', ['rsync', '-a', '--delete', source + '/',
                                                 target + '/'])

        def rsync_synced(source, target):
            # The floors above leave their writing to the kernel; the tool
            # syncs the file system once (syncfs) before it swaps the tree in.
            # This one pays the same, so the cost of that one sync shows.
            return Command('rsync + syncfs', ['sh', '-c', 'rsync -a --delete "$1/" "$2/" && '
                                              'sync -f "$2"', 'sh', source, target])

        # Per case: the tool's run, its floors (the first one carries the
        # target; the others are context), how each run is prepared.
        cases = [
            ('save after -f, store unchanged (BlueZ removes the device)',
             self.tool('kelvane -f', '-f', gone_address, address=sim),
             [(rsync(STORE, BACKUP), 'rsync -a --delete (up to date)', 1.5)],
             lambda c: (reset(), regain_gone())),
            ('save after -f, store changed (BlueZ absent, store fallback)',
             self.tool('kelvane -f', '-f', world.device_address(VICTIM), address=empty),
             [(Command('cp -a', ['cp', '-a', STORE + '/.', BACKUP + '/']),
               'cp -a into the existing backup', 1.2),
              (rsync(STORE, BACKUP), 'rsync -a --delete', None),
              (rsync_synced(STORE, BACKUP), 'rsync -a --delete, then syncfs', None)],
             # kelvane removes the device itself; the floors get the store it leaves.
             lambda c: reset(remove_victim=not c.name.startswith('kelvane'))),
            ('-r, store differs from the backup',
             self.tool('kelvane -r', '-r', address=empty),
             [(Command('rm -rf + cp -a', ['sh', '-c', 'rm -rf "$1" && cp -a "$2" "$1"', 'sh',
                                          STORE, BACKUP]), 'rm -rf + cp -a', 1.2),
              (rsync(BACKUP, STORE), 'rsync -a --delete', None),
              (rsync_synced(BACKUP, STORE), 'rsync -a --delete, then syncfs', None)],
             lambda c: reset(remove_victim=True, edit_info=True)),
        ]
        for number, (what, tool, floors, prepare) in enumerate(cases):
            self.deadline.check()
            # One untimed run first, to see that it does what the row claims.
            prepare(tool)
            sample = run(tool, self.deadline)
            self.verify_backup_case(number, sample, pristine)
            series = paired([tool] + [floor for floor, _, _ in floors], rounds, self.deadline,
                            prepare=prepare)
            self.figures['backup: ' + what] = summarize(series)
            check_statuses(series)
            k = series[tool.name]
            for index, (floor, text, limit) in enumerate(floors):
                f = series[floor.name]
                self.table.add(Row('%s, wall (paired, rounds: %d)' % (what, rounds),
                                   fmt_n(BACKUP_DEVICES), seconds(k.median('wall')),
                                   '%s: %s' % (text, seconds(f.median('wall'))),
                                   paired_ratio(series, tool.name, floor.name, 'wall'), limit))
                if index == 0:
                    self.table.add(Row('%s, CPU' % what, fmt_n(BACKUP_DEVICES),
                                       seconds(k.median('cpu')),
                                       '%s: %s' % (text, seconds(f.median('cpu'))),
                                       paired_ratio(series, tool.name, floor.name, 'cpu')))
        reset()

    def verify_backup_case(self, number, sample, pristine):
        '''After kelvane's run of case `number`: the store and the backup hold
        what they should (file contents compared with diff -r).'''
        def same(a, b):
            return subprocess.run(['diff', '-r', '--no-dereference', '-q', a, b],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  check=False).returncode == 0

        victim_gone = not os.path.exists(world.device_dir(STORE, VICTIM))
        checks = {
            0: [('store unchanged', same(STORE, pristine)), ('backup = store', same(BACKUP, STORE))],
            1: [('device removed from the store', victim_gone),
                ('backup = store', same(BACKUP, STORE))],
            2: [('store = backup', same(STORE, BACKUP)), ('backup unchanged', same(BACKUP, pristine))],
        }[number]
        failed = [text for text, ok in checks if not ok]
        if sample.status != 0 or failed:
            raise RuntimeError('backup case %d: status %d, not true: %s' % (
                number, sample.status, ', '.join(failed) or '-'))

    def phase_instructions(self):
        out = os.path.join(self.scratch, 'callgrind')
        os.makedirs(out, exist_ok=True)
        empty = self.empty_bus.address
        groups = [(None, [self.tool('kelvane -h', '-h', address=empty),
                          self.floor('floor_start', empty)])]
        for n in sorted(self.options.sizes, reverse=True):
            address = self.worlds[n].address
            # Longest first, so the two workers finish close together.
            groups.append((n, [self.tool('kelvane -l', '-l', address=address, timeout=3600),
                               self.tool('kelvane -e', '-e', address=address, timeout=3600),
                               self.floor('floor_scan', address, timeout=3600),
                               self.floor('floor_json', address, timeout=3600),
                               self.floor('floor_gmo', address, timeout=3600)]))
        counts = {}
        pool = concurrent.futures.ThreadPoolExecutor(max_workers=2)
        try:
            for n, commands in groups:
                self.deadline.check()
                if n is not None:
                    self.use_store(n)
                jobs = {pool.submit(callgrind, c, os.path.join(
                    out, '%s-%s.out' % (c.name.replace(' ', ''), n)), self.deadline): c
                        for c in commands}
                for job in concurrent.futures.as_completed(jobs):
                    ir, sample = job.result()
                    if sample.status != 0:
                        raise RuntimeError('%s exited with %d under callgrind' % (
                            jobs[job].name, sample.status))
                    counts[(jobs[job].name, n)] = ir
                say('instructions counted for %s' % ('N=%d' % n if n is not None else '-h'))
        except BaseException:
            # Running valgrinds would keep the pool waiting: stop them first.
            kill_running()
            raise
        finally:
            pool.shutdown(wait=True, cancel_futures=True)
        self.figures['instructions'] = {'%s @ %s' % key: ir for key, ir in counts.items()}
        self.instruction_rows(counts)
        lines = ['Instructions per device, Ir(N)/N:']
        for name in ('kelvane -l', 'floor_json', 'floor_gmo', 'kelvane -e', 'floor_scan'):
            lines.append('  %-11s %s' % (name, ', '.join(
                'N=%s: %s' % (fmt_n(n), per_device(counts[(name, n)] / n))
                for n in self.options.sizes)))
        self.details.append('\n'.join(lines))

    def instruction_rows(self, counts):
        sizes = self.options.sizes
        k, f = counts[('kelvane -h', None)], counts[('floor_start', None)]
        self.table.add(Row('-h, instructions', '-', instructions(k),
                           'bare QCoreApplication: ' + instructions(f), k / f, 1.2))
        for n in sizes:
            k, f = counts[('kelvane -l', n)], counts[('floor_json', n)]
            self.table.add(Row('-l, instructions', fmt_n(n), instructions(k),
                               'Qt GetManagedObjects+JSON: ' + instructions(f), k / f,
                               1.5 if n >= 1000 else None))
        for n in sizes:
            k, f = counts[('kelvane -l', n)], counts[('floor_gmo', n)]
            self.table.add(Row('-l, instructions vs the call alone', fmt_n(n), instructions(k),
                               'Qt GetManagedObjects, demarshalled: ' + instructions(f), k / f))
        if 1000 in sizes and 5000 in sizes:
            for name, floor, label in (('kelvane -l', 'floor_json', '-l'),
                                       ('kelvane -e', 'floor_scan', 'scan (-e)')):
                k1, k5 = counts[(name, 1000)], counts[(name, 5000)]
                f1, f5 = counts[(floor, 1000)], counts[(floor, 5000)]
                self.table.add(Row(
                    '%s, instructions per device, Ir(N)/N' % label, '1,000 -> 5,000',
                    '%s -> %s' % (per_device(k1 / 1000), per_device(k5 / 5000)),
                    'floor: %s -> %s (%s)' % (per_device(f1 / 1000), per_device(f5 / 5000),
                                              ratio_text((f5 / 5000) / (f1 / 1000))),
                    (k5 / 5000) / (k1 / 1000), 1.1 if label == '-l' else None,
                    note='kelvane\'s own per-device ratio'))
                self.table.add(Row(
                    '%s, instructions per added device' % label, '1,000 -> 5,000',
                    per_device((k5 - k1) / 4000), 'floor: ' + per_device((f5 - f1) / 4000),
                    ((k5 - k1) / 4000) / ((f5 - f1) / 4000)))
        for n in sizes:
            k, f = counts[('kelvane -e', n)], counts[('floor_scan', n)]
            self.table.add(Row('scan (-e), instructions', fmt_n(n), instructions(k),
                               '10-poll Qt scan: ' + instructions(f), k / f, 1.1))

    # -- the whole run -----------------------------------------------------------

    def run(self):
        self.setup()
        for n in self.options.sizes:
            self.check_listing(n)
        for phase in PHASES:
            if phase not in self.options.only:
                continue
            started = time.monotonic()
            try:
                getattr(self, 'phase_' + phase)()
            except TimeUp:
                kill_running()
                self.skipped.append(phase)
                self.table.add(Row(phase, '-', '-', '-', missing=True,
                                   note='time limit reached'))
                say('time limit reached in phase %s' % phase)
                continue
            except Exception as e:  # pylint: disable=broad-except
                # One phase failing (a changed tool, say) leaves the others'
                # figures worth printing.
                kill_running()
                traceback.print_exc()
                self.failed.append('%s: %s' % (phase, e))
                self.table.add(Row(phase, '-', '-', '-', missing=True, note='failed: %s' % e))
                continue
            say('phase %s done (%.0f s)' % (phase, time.monotonic() - started))


# The table is printed by operation, and within one by kind of figure:
# instructions first (the main, repeatable figure), then times, memory and
# bus calls; rows of one kind by N. The backup rows keep their own order.
SECTIONS = (('-h', 0), ('-l', 1), ('scan', 2), ('save', 3), ('-r', 3))
KINDS = (('instructions per', 1), ('instructions vs', 2), ('instructions', 0), ('CPU', 3),
         ('wall', 4), ('peak RSS', 6), ('method calls', 7))


def row_order(indexed):
    index, row = indexed
    section = next((rank for prefix, rank in SECTIONS if row.what.startswith(prefix)), 9)
    kind = next((rank for word, rank in KINDS if word in row.what), 8)
    if ' vs ' in row.what and kind == 4:
        kind = 5  # against a peer rather than the floor
    if section == 3:
        kind = 0
    n = int(row.n.split()[0].replace(',', '')) if row.n[:1].isdigit() else 0
    return section, kind, n, index


def fmt_n(n):
    return '{:,}'.format(n)


def ratio_text(value):
    return '%.2fx' % value


def summarize(series):
    return {name: {'rounds': len(s.samples),
                   'wall_s': [round(x.wall, 6) for x in s.samples],
                   'cpu_s': [round(x.cpu, 6) for x in s.samples],
                   'rss_kib': [x.rss for x in s.samples],
                   'status': [x.status for x in s.samples]}
            for name, s in series.items()}


def check_statuses(series):
    for name, s in series.items():
        failed = s.failures()
        if failed:
            raise RuntimeError('%s failed in %d of %d rounds (status %d)' % (
                name, len(failed), len(s.samples), failed[0].status))


def say(text):
    print('compare: ' + text, file=sys.stderr, flush=True)


def interrupted(signum, _frame):
    raise KeyboardInterrupt('signal %d' % signum)


def main():
    options = parse_args()
    started = time.monotonic()
    # SIGTERM and SIGHUP end the run like Ctrl-C: through the cleanup below.
    for signum in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(signum, interrupted)
    use_launcher(os.path.join(options.bin, 'spawn'))
    bench = Bench(options)
    description = machine_description(options.scratch)
    try:
        bench.run()
    except KeyboardInterrupt:
        say('interrupted; stopping what was started')
        sys.exit(130)
    finally:
        kill_running()
        bench.stop()
    elapsed = time.monotonic() - started
    header = [
        'kelvane compared with its floors and peers, %s' % description['date'],
        'binary: %s (sha256 %s)' % (options.source or options.kelvane, sha256(options.kelvane)),
        'machine: %s, %d cores, %s, Linux %s, Debian %s' % (
            description['cpu'], description['cores'], description['memory'],
            description['kernel'], description['debian']),
        'scratch: %s' % description['scratch'],
        'versions: %s' % description['versions'],
        'mode: %s, driver ran %.0f s; load average at start %s, at end %s (other '
        'work on the machine shows here)' % ('quick' if options.quick else 'full', elapsed,
                                             description['load'], load_average()),
    ]
    print('\n'.join(header))
    print()
    bench.table.rows = [row for _, row in sorted(enumerate(bench.table.rows), key=row_order)]
    print(bench.table.render())
    for detail in bench.details:
        print()
        print(detail)
    if bench.skipped:
        print('\nNot measured (time limit): ' + ', '.join(bench.skipped))
    if bench.failed:
        print('\nFailed phases: ' + '; '.join(bench.failed))
    if options.json:
        with open(options.json, 'w') as f:
            json.dump({'header': description, 'binary': options.source, 'elapsed_s': elapsed,
                       'rows': [row.__dict__ | {'met': row.met, 'target': row.target}
                                for row in bench.table.rows],
                       'figures': bench.figures}, f, indent=1, default=str)
    return 1 if bench.failed else 0


if __name__ == '__main__':
    sys.exit(main())
