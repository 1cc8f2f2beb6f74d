'''Command-line grammar of the real binary: usage, unknown options, missing
MAC, the root check, and that a scan needs no root.'''

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


USAGE_ARGS = [
    [], ['-v'], ['-v', '-v'], ['-h'], ['--help'], ['-h', '-e'], ['-v', '-h'], ['--help', '-p'],
    ['-h', '-f'], ['-h', '-x'],
]


@pytest.mark.parametrize('root', [True, False], ids=['root', 'nobody'])
@pytest.mark.parametrize('args', USAGE_ARGS, ids=lambda a: ' '.join(a) or 'no-args')
def test_usage_exits_0_without_json(run_kelvane, args, root):
    run = run_kelvane(args, root=root, argv0='kelvane', expect_json=False)
    assert (run.status, run.stdout, run.stderr) == (0, usage('kelvane'), '')


@pytest.mark.parametrize('argv0', ['./build/src/kelvane', '/usr/local/bin/kelvane', 'kel vane',
                                   'kelvané'])
def test_usage_names_argv0_as_invoked(run_kelvane, argv0):
    run = run_kelvane(['-h'], argv0=argv0, expect_json=False)
    assert run.stdout == usage(argv0)


UNKNOWN = [
    (['-vv'], '-vv'), (['--verbose'], '--verbose'), (['-E'], '-E'), ([''], ''),
    (['-x', '-e'], '-x'), (['-v', '-x'], '-x'), (['-vv', '-e'], '-vv'), (['-'], '-'),
    (['--'], '--'), (['e'], 'e'), (['-L'], '-L'), (['-help'], '-help'), (['-ef'], '-ef'),
    ([' -e'], ' -e'), (['-e '], '-e '), (['-f' + MAC], '-f' + MAC), (['ä'], 'ä'),
]


@pytest.mark.parametrize('root', [True, False], ids=['root', 'nobody'])
@pytest.mark.parametrize('args,word', UNKNOWN, ids=[repr(w) for _, w in UNKNOWN])
def test_unknown_option_prints_error_and_usage(run_kelvane, args, word, root):
    run = run_kelvane(args, root=root, argv0='kelvane', expect_json=False)
    assert run.status == 1
    assert run.stderr == 'error: unknown option: ' + word + '\n'
    assert run.stdout == usage('kelvane')


MISSING_MAC = [
    (['-f'], '-f'), (['-p'], '-p'), (['-f', '-v'], '-f'), (['-v', '-p', '-v'], '-p'),
]


@pytest.mark.parametrize('root', [True, False], ids=['root', 'nobody'])
@pytest.mark.parametrize('args,option', MISSING_MAC, ids=[' '.join(a) for a, _ in MISSING_MAC])
def test_missing_mac_comes_before_root_check(run_kelvane, sim, args, option, root):
    run = run_kelvane(args, root=root, argv0='kelvane', store=STORE, tmp=TMP,
                      expect_json=False)
    assert run.status == 1
    assert run.stderr == 'error: ' + option + ' requires a Bluetooth MAC address\n'
    assert run.stdout == usage('kelvane')
    assert sim.calls() == []


NEEDS_ROOT = [
    (['-l'], '-l'), (['-r'], '-r'), (['-f', MAC], '-f'), (['-p', MAC], '-p'),
    (['-f', '-e'], '-f'), (['-p', '-v', 'aa-bb-cc-dd-ee-ff'], '-p'), (['-f', 'not-a-mac'], '-f'),
    (['-l', '-e'], '-l'), (['-r', '-h'], '-r'), (['-v', '-l', '-v'], '-l'),
]


@pytest.mark.parametrize('args,option', NEEDS_ROOT, ids=[' '.join(a) for a, _ in NEEDS_ROOT])
def test_root_check_refuses_before_any_work(run_kelvane, sim, args, option):
    sim.add_adapter('hci0')
    sim.add_device('hci0', MAC, name='Keyboard', paired=True)
    run = run_kelvane(args, root=False, store=STORE, tmp=TMP, expect_json=False)
    assert (run.status, run.stdout) == (1, '')
    assert run.stderr == 'error: ' + option + ' requires root privileges\n'
    # Nothing was asked of BlueZ and neither the store nor /tmp changed.
    assert sim.calls() == []
    assert run.store == {p: File(v) if isinstance(v, str) else v for p, v in STORE.items()}
    assert run.store.mode == 0o700
    assert run.tmp.files() == {p: v.encode() for p, v in TMP.items()}


SCAN_ARGS = [['-e'], ['-v', '-e'], ['-e', '-v'], ['-e', '-x'], ['-e', '-h'], ['-e', '-l'],
             ['-e', '-f']]


@pytest.mark.parametrize('args', SCAN_ARGS, ids=' '.join)
def test_scan_needs_no_root(run_kelvane, sim, args):
    # No adapter, so a scan ends at once; what it reports lands with the
    # scan's own suite. Here it only has to get past the root check.
    del sim
    run = run_kelvane(args, root=False)
    assert isinstance(run.json, dict)
    assert 'requires root' not in run.stderr
    assert 'usage' not in run.stdout.lower()
