'''Running commands and measuring them.

- run(): one whole process, started through bench/spawn: wall time (around
  fork, exec and wait), CPU time (user + system) and peak RSS from the
  rusage wait4() returns, which is what GNU time reads (%M is ru_maxrss).
- paired(): several commands in alternating rounds (the order rotates each
  round), so they see the same machine state; ratios are taken per round
  and their median reported.
- callgrind(): total instructions (Ir) of a whole process, all threads.
- BusMonitor: the method calls each run sends, counted on the bus itself.
'''

import os
import re
import signal
import statistics
import subprocess
import threading
import time
from collections import Counter
from dataclasses import dataclass


class TimeUp(Exception):
    '''The run's time limit was reached.'''


class Deadline:
    def __init__(self, seconds):
        self.end = time.monotonic() + seconds

    def remaining(self):
        return self.end - time.monotonic()

    def check(self):
        if self.remaining() <= 0:
            raise TimeUp()

    def timeout(self, wanted):
        '''A child's timeout: what it may take, but never past the deadline.'''
        self.check()
        return max(1.0, min(wanted, self.remaining()))


@dataclass
class Sample:
    wall: float  # seconds
    cpu: float  # seconds, user + system
    rss: int  # KiB
    status: int
    stdout: bytes = b''
    stderr: bytes = b''


class Command:
    '''argv and environment of one contender; `capture` keeps its output
    in a file of the scratch area (for checks), otherwise it goes to
    /dev/null.'''

    def __init__(self, name, argv, env=None, timeout=600):
        self.name = name
        self.argv = list(argv)
        self.env = env
        self.timeout = timeout

    def __repr__(self):
        return 'Command(%s)' % self.name


LAUNCHER = {'path': None}
RUNNING = set()  # _Started not finished yet
RUNNING_LOCK = threading.Lock()


def kill_running():
    '''Kills every measured process still running (Ctrl-C, errors).'''
    with RUNNING_LOCK:
        running = list(RUNNING)
    for started in running:
        started.kill()


def use_launcher(path):
    '''bench/spawn, built by compare.sh: every measured process is started
    through it (see spawn.c for why).'''
    LAUNCHER['path'] = path


class _Started:
    '''A process started through the launcher, and a thread waiting for it.'''

    def __init__(self, command, deadline, capture_dir=None):
        self.command = command
        self.out_path = self.err_path = None
        if capture_dir:
            self.out_path = os.path.join(capture_dir, 'stdout')
            self.err_path = os.path.join(capture_dir, 'stderr')
        stdout = open(self.out_path, 'wb') if self.out_path else subprocess.DEVNULL
        stderr = open(self.err_path, 'wb') if self.err_path else subprocess.DEVNULL
        timeout = deadline.timeout(command.timeout) if deadline else command.timeout
        self.report, report_end = os.pipe()
        try:
            self.process = subprocess.Popen(
                [LAUNCHER['path'], str(report_end), *command.argv], env=command.env,
                stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr, pass_fds=(report_end,),
                start_new_session=True)
        except BaseException:
            os.close(self.report)
            raise
        finally:
            os.close(report_end)
            for stream in (stdout, stderr):
                if stream is not subprocess.DEVNULL:
                    stream.close()
        with RUNNING_LOCK:
            RUNNING.add(self)
        self.timed_out = False
        self.timer = threading.Timer(timeout, self._kill)
        self.timer.start()
        self.thread = threading.Thread(target=self.process.wait)
        self.thread.start()

    def _kill(self):
        self.timed_out = True
        try:
            # The launcher leads a process group of its own; its child is in it.
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def _done(self):
        self.thread.join()
        self.timer.cancel()
        with RUNNING_LOCK:
            RUNNING.discard(self)

    def finish(self):
        self._done()
        with os.fdopen(self.report) as report:
            fields = report.read().split()
        self.report = None
        if self.timed_out:
            raise TimeUp('%s ran out of time' % self.command.name)
        if len(fields) != 5:
            raise RuntimeError('%s: the launcher reported nothing (status %s)' % (
                self.command.name, self.process.returncode))
        wall_ns, user_us, system_us, rss, status = (int(f) for f in fields)
        out = err = b''
        if self.out_path:
            with open(self.out_path, 'rb') as f:
                out = f.read()
            with open(self.err_path, 'rb') as f:
                err = f.read()
        return Sample(wall_ns / 1e9, (user_us + system_us) / 1e6, rss, status, out, err)

    def kill(self):
        self._kill()
        self._done()
        report, self.report = self.report, None
        if report is not None:
            try:
                os.close(report)
            except OSError:
                pass  # finish() closed it meanwhile


def run(command, deadline=None, capture_dir=None):
    return run_together([command], deadline, capture_dir)[0]


def run_together(commands, deadline=None, capture_dir=None):
    '''Starts the commands at once and waits for all of them.'''
    started = []
    try:
        for index, command in enumerate(commands):
            where = None
            if capture_dir:
                where = os.path.join(capture_dir, str(index))
                os.makedirs(where, exist_ok=True)
            started.append(_Started(command, deadline, where))
        return [s.finish() for s in started]
    except BaseException:
        for s in started:
            if s.thread.is_alive():
                s.kill()
        raise


class Series:
    '''The samples of one command across rounds, in round order.'''

    def __init__(self):
        self.samples = []

    def median(self, field):
        return statistics.median(getattr(s, field) for s in self.samples)

    def failures(self):
        return [s for s in self.samples if s.status != 0]


def paired(commands, rounds, deadline, warmup=1, prepare=None, together=False):
    '''Runs the commands in alternating rounds; {name: Series}.

    prepare(command), when given, runs before each command (untimed).
    together=True starts all commands of a round at the same moment instead
    (for long, mostly idle runs such as ten-second scans).'''
    series = {c.name: Series() for c in commands}
    for number in range(warmup + rounds):
        deadline.check()
        shift = number % len(commands)
        order = commands[shift:] + commands[:shift]
        if together:
            for command in order:
                if prepare:
                    prepare(command)
            samples = run_together(order, deadline)
        else:
            samples = []
            for command in order:
                if prepare:
                    prepare(command)
                samples.append(run(command, deadline))
        if number >= warmup:
            for command, sample in zip(order, samples):
                series[command.name].samples.append(sample)
    return series


def paired_ratio(series, numerator, denominator, field):
    '''Median over rounds of numerator/denominator for one field.'''
    pairs = zip(series[numerator].samples, series[denominator].samples)
    ratios = [getattr(a, field) / getattr(b, field) for a, b in pairs if getattr(b, field) > 0]
    return statistics.median(ratios) if ratios else None


COLLECTED = re.compile(rb'^(?:summary|totals):\s*(\d+)', re.M)


def callgrind(command, out_file, deadline):
    '''Total instructions (Ir) of the whole process under callgrind.'''
    argv = ['valgrind', '--tool=callgrind', '--vgdb=no', '--callgrind-out-file=' + out_file,
            *command.argv]
    sample = run(Command(command.name, argv, command.env, command.timeout), deadline,
                 capture_dir=out_file + '.run')
    with open(out_file, 'rb') as f:
        match = COLLECTED.search(f.read())
    if match is None:
        raise RuntimeError('%s: no callgrind total (status %d): %s' % (
            command.name, sample.status, sample.stderr[-2000:].decode(errors='replace')))
    return int(match.group(1)), sample


class BusMonitor:
    '''dbus-monitor on a bus, to count the method calls a run sends.

    Runs are separated by marker calls from a connection of our own (a
    Peer.Ping to the bus driver): every method call seen between two
    markers, from any other sender, belongs to the run made between them.
    The monitor needs no eavesdropping policy: as root it may become a
    monitor of a bus run by root.'''

    LINE = re.compile(r'^mc\s+\S+\s+\d+\s+(\S+)\s+(\S+)\s+(\S+)\s+(\S+)\s+(\S+)')

    def __init__(self, address, connect):
        self.lines = []
        self.lock = threading.Condition()
        self.conn = connect(address)
        self.me = self.conn.get_unique_name()
        self.marks = 0
        self.process = subprocess.Popen(['dbus-monitor', '--address', address, '--profile'],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, text=True)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        self.mark()

    def _read(self):
        for line in self.process.stdout:
            with self.lock:
                self.lines.append(line.rstrip('\n'))
                self.lock.notify_all()

    def _calls(self):
        for line in self.lines:
            match = self.LINE.match(line)
            if match:
                yield match.groups()  # sender, destination, path, interface, member

    def mark(self, timeout=10):
        '''Sends marker calls until the monitor has seen one more of them.'''
        self.marks += 1
        deadline = time.monotonic() + timeout
        while True:
            self.conn.call_blocking('org.freedesktop.DBus', '/org/freedesktop/DBus',
                                    'org.freedesktop.DBus.Peer', 'Ping', '', [])
            with self.lock:
                self.lock.wait_for(lambda: self._seen_marks() >= self.marks, 0.5)
                if self._seen_marks() >= self.marks:
                    # Extra pings sent while waiting count as one mark.
                    self.marks = self._seen_marks()
                    return
            if time.monotonic() > deadline:
                raise RuntimeError('dbus-monitor shows no marker calls')

    def _seen_marks(self):
        return sum(1 for sender, *_ in self._calls() if sender == self.me)

    def count(self, run):
        '''Runs run() between two marks; Counter of (destination,
        interface.member) of the method calls others sent meanwhile.'''
        with self.lock:
            first = len(self.lines)
        run()
        self.mark()
        with self.lock:
            lines = self.lines[first:]
        counter = Counter()
        for line in lines:
            match = self.LINE.match(line)
            if match and match.group(1) != self.me:
                _, destination, _, interface, member = match.groups()
                counter[(destination, interface + '.' + member)] += 1
        return counter

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.reader.join(5)
        self.conn.close()
