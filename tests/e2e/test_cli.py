'''Command-line grammar of the real binary: usage, unknown options, missing
MAC, the root check, and that a scan needs no root; what every run survives:
a reader that closed its pipe, a BlueZ that never answers.'''

import concurrent.futures
import json

import pytest

from harness import Dir, File

MAC = 'AA:BB:CC:DD:EE:FF'


def usage(argv0):
    return (
        'Usage: ' + argv0 + ' [-v] [-e] [-l] [-r] [-f MAC] [-p MAC]\n\n'
        'Options:\n'
        '  -v              Print D-Bus debug messages to stderr\n'
        '  -e              Scan for nearby Bluetooth devices on powered adapters\n'
        '  -l              List known devices from /var/lib/bluetooth (root)\n'
        '  -r              Restore /var/lib/bluetooth from backup (root)\n'
        '  -f MAC          Forget a known or connected device at MAC (root)\n'
        '  -p MAC          Pair, trust, and connect to the device at MAC (root)\n'
        '  -h              Show this help message\n\n'
        'All operations write one JSON result object to stdout.\n'
        'Pairing progress events are written to /tmp/kelvane-events.json.\n'
        'Use -v for debug output on stderr.\n\n'
        'List (-l), restore (-r), forget (-f), and pair (-p) must be run as root.\n')


# A store and a backup that a refused run must leave exactly as they were.
STORE = {
    '00:1A:7D:DA:71:13': Dir(0o700),
    '00:1A:7D:DA:71:13/settings': '[General]\nDiscoverable=false\n',
    '00:1A:7D:DA:71:13/' + MAC: Dir(0o700),
    '00:1A:7D:DA:71:13/' + MAC + '/info': File('[General]\nName=Keyboard\n', 0o600),
    '.hidden': 'x',
    'link': '00:1A:7D:DA:71:13',
}
TMP = {
    'config/files/var_bluetooth/00:1A:7D:DA:71:13/settings': '[General]\n',
    'kelvane-events.json': '[]',
}

# args, the invocation word, run as root; usage goes to stdout, status 0.
USAGE = [
    ([], 'kelvane', True), (['-v', '-v'], 'kelvane', False), (['-h'], './build/src/kelvane', True),
    (['--help', '-p'], '/usr/local/bin/kelvane', False), (['-h', '-e'], 'kel vane', False),
    (['-v', '-h'], 'kelvané', True), (['-h', '-x'], 'kelvane', False),
]


@pytest.mark.parametrize('args,argv0,root', USAGE,
                         ids=[' '.join(a) or 'no-args' for a, _, _ in USAGE])
def test_usage_exits_0_without_json(run_kelvane, args, argv0, root):
    run = run_kelvane(args, root=root, argv0=argv0, expect_json=False)
    assert (run.status, run.stdout, run.stderr) == (0, usage(argv0), '')


def first_word(args):
    return next(word for word in args if word != '-v')


# The first word other than -v decides: an unknown one is reported (bytes as
# typed), and -f or -p without a MAC before the root check. The usage
# follows on stdout, status 1. Each case runs as root or as nobody, by turns.
UNKNOWN = [['-vv'], ['--verbose'], ['-E'], [''], ['-x', '-e'], ['-v', '-x'], ['--'], ['-ef'],
           [' -e'], ['-f' + MAC], ['-help'], ['-e '], ['ä'],
           # Words that Qt would take for options of its own.
           ['--qmljsdebugger=port:1', '-e'], ['-qmljsdebugger', '-e']]
MISSING_MAC = [['-f'], ['-p'], ['-f', '-v'], ['-v', '-p', '-v']]
BAD_WORDS = ([(args, 'unknown option: ' + first_word(args)) for args in UNKNOWN]
             + [(args, first_word(args) + ' requires a Bluetooth MAC address')
                for args in MISSING_MAC])


@pytest.mark.parametrize('args,error,root',
                         [(a, e, i % 2 == 0) for i, (a, e) in enumerate(BAD_WORDS)],
                         ids=[repr(' '.join(a)) for a, _ in BAD_WORDS])
def test_bad_words_print_error_and_usage(run_kelvane, sim, args, error, root):
    run = run_kelvane(args, root=root, argv0='kelvane', store=STORE, tmp=TMP, expect_json=False)
    assert (run.status, run.stdout) == (1, usage('kelvane'))
    assert run.stderr == 'error: ' + error + '\n'
    assert sim.calls() == []


NEEDS_ROOT = [['-l'], ['-r'], ['-f', MAC], ['-p', MAC], ['-f', '-e'], ['-f', 'not-a-mac'],
              ['-p', '-v', 'aa-bb-cc-dd-ee-ff'], ['-r', '-h'], ['-v', '-l', '-v'],
              ['-f', '-qmljsdebugger=1']]


@pytest.mark.parametrize('args', NEEDS_ROOT, ids=' '.join)
def test_root_check_refuses_before_any_work(run_kelvane, sim, args):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, name='Keyboard', paired=True)
    run = run_kelvane(args, root=False, store=STORE, tmp=TMP, expect_json=False)
    assert (run.status, run.stdout) == (1, '')
    assert run.stderr == 'error: ' + first_word(args) + ' requires root privileges\n'
    # Nothing was asked of BlueZ and neither the store nor /tmp changed.
    assert sim.calls() == []
    assert run.store == {p: File(v) if isinstance(v, str) else v for p, v in STORE.items()}
    assert run.store.mode == 0o700
    assert run.tmp.files() == {p: v.encode() for p, v in TMP.items()}


@pytest.mark.parametrize('args', [['-v', '-e'], ['-e', '-x'], ['-e', '-f'], ['-e', '-l']],
                         ids=' '.join)
def test_scan_needs_no_root(run_kelvane, sim, args):
    # No adapter, so a scan ends at once; what it reports lands with the
    # scan's own suite. Here it only has to get past the root check.
    del sim
    run = run_kelvane(args, root=False)
    assert run.json['error'] == 'no Bluetooth adapters found'
    assert 'requires root' not in run.stderr


NO_ADAPTER = {'adapters': [], 'devices': [], 'error': 'no Bluetooth adapters found',
              'result': 'error'}

# args, the stream whose reader has gone, status, what the other stream shows.
BROKEN_PIPES = [
    (['-v', '-e'], 'stderr', 1, json.dumps(NO_ADAPTER, separators=(',', ':')) + '\n'),
    (['-v', '-e'], 'stdout', 1, 'dbus >> org.bluez / org.freedesktop.DBus.ObjectManager.'
                                'GetManagedObjects\n'),
    (['-x'], 'stderr', 1, usage('kelvane')),
]


@pytest.mark.parametrize('args,broken,status,other', BROKEN_PIPES,
                         ids=['%s, %s gone' % (' '.join(a), b) for a, b, _, _ in BROKEN_PIPES])
def test_a_reader_that_went_away_does_not_kill_the_run(run_kelvane, sim, args, broken, status,
                                                        other):
    del sim
    run = run_kelvane(args, root=False, argv0='kelvane', broken=[broken], expect_json=False)
    shown = run.stdout if broken == 'stderr' else run.stderr
    assert run.status == status, run
    assert shown.startswith(other)


NO_REPLY = ('Did not receive a reply. Possible causes include: the remote application did not '
            'send a reply, the message bus security policy blocked the reply, the reply timeout '
            'expired, or the network connection was broken.')
DEVICE_DIR = '00:1A:7D:DA:71:13/' + MAC


def test_a_daemon_that_never_answers_costs_one_timeout(run_kelvane, sim):
    '''Each command waits for BlueZ once, then gives the texts it gives when
    BlueZ fails; nothing else is asked of the silent daemon.'''
    sim.configure(silent=True)
    store = {DEVICE_DIR + '/info': File('[General]\nName=Keyboard\n', 0o600)}
    commands = {'-e': ['-e'], '-l': ['-l'], '-f': ['-f', MAC], '-p': ['-p', MAC]}
    with concurrent.futures.ThreadPoolExecutor(len(commands)) as pool:
        futures = {word: pool.submit(run_kelvane, args, store=store)
                   for word, args in commands.items()}
        runs = {word: future.result() for word, future in futures.items()}
    for run in runs.values():
        assert 20 < run.seconds < 35, run
    assert runs['-e'].json['error'] == NO_REPLY
    assert runs['-l'].json['error'] == 'could not query live device state: ' + NO_REPLY
    assert [d['name'] for d in runs['-l'].json['devices']] == ['Keyboard']
    assert (runs['-f'].json['result'], DEVICE_DIR in runs['-f'].store) == ('ok', False)
    assert runs['-p'].json['error'] == NO_REPLY
    assert [r.status for r in runs.values()] == [1, 0, 0, 1]
    # One call per run reached the daemon: the first one, which timed out.
    calls = sorted(call.method for call in sim.calls())
    assert calls == ['GetManagedObjects'] * 3 + ['UnregisterAgent']
