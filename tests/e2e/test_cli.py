# What only the real binary shows about its front end (the grammar is a unit
# table, the usage text the README's example of -h): the root check as
# another user, words taken as given, readers that went away, a daemon that
# never answers.

import pytest

import harness
from harness import BACKUP, Dir, File

MAC = 'AA:BB:CC:DD:EE:FF'
DEVICE_DIR = '00:1A:7D:DA:71:13/' + MAC
STORE = {'00:1A:7D:DA:71:13': Dir(0o700), DEVICE_DIR: Dir(0o700),
         DEVICE_DIR + '/info': File('[General]\nName=Keyboard\n', 0o600), '.hidden': 'x'}
TMP = {BACKUP + '/00:1A:7D:DA:71:13/settings': '[General]\n', 'kelvane-events.json': '[]\n'}
USAGE = 'Usage: kel vane [-v] [-e] [-l] [-r] [-f MAC] [-p MAC]\n\nOptions:\n'
NO_ADAPTER = '{"adapters":[],"devices":[],"error":"no Bluetooth adapters found","result":"error"}\n'

# args, the stream whose reader has gone -> start of stdout, stderr (start, when broken is
# stdout). Every run is nobody's, against a BlueZ without adapters, and fails.
ROWS = [
    # Which operations are root's is a unit table; root comes before the MAC's form.
    (['-v', '-p', '-v', 'not-a-mac'], (), '', 'error: -p requires root privileges\n'),
    # The MAC is looked for before root; Qt's option words are nobody's business.
    (['-f'], (), USAGE, 'error: -f requires a Bluetooth MAC address\n'),
    (['-qmljsdebugger=port:1', '-e'], (), USAGE, 'error: unknown option: -qmljsdebugger=port:1\n'),
    # What is written to a pipe nobody reads is lost; the run goes on.
    (['-v', '-e'], ('stderr',), NO_ADAPTER, ''),
    (['-v', '-e'], ('stdout',), '',
     'dbus >> org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects\n'),
]


@pytest.mark.parametrize('args,broken,stdout,stderr', ROWS,
                         ids=[' '.join(args + list(broken)) for args, broken, *_ in ROWS])
def test_front_end_as_another_user(run_kelvane, sim, args, broken, stdout, stderr):
    run = run_kelvane(args, root=False, argv0='kel vane', store=STORE, tmp=TMP, broken=broken,
                      expect_json=False)
    assert run.status == 1, run
    assert run.stdout.startswith(stdout) and (stdout or run.stdout == ''), run
    assert run.stderr.startswith(stderr) if 'stdout' in broken else run.stderr == stderr
    # Nothing was asked of BlueZ and nothing changed when the run stopped that early.
    if not broken:
        assert sim.calls() == []
        assert (run.store, run.tmp) == (harness.expected(STORE), harness.expected(TMP))


NO_REPLY = ('Did not receive a reply. Possible causes include: the remote application did not '
            'send a reply, the message bus security policy blocked the reply, the reply timeout '
            'expired, or the network connection was broken.')


def test_a_daemon_that_never_answers_costs_one_timeout(sim, bus, binary):
    # Each command waits for BlueZ once, then gives the texts it gives when
    # BlueZ fails; nothing else is asked of the silent daemon.
    sim.configure(silent=True)
    started = [harness.start(args, binary=binary, bus_address=bus.address,
                             box=harness.Box(store=STORE))
               for args in (['-e'], ['-l'], ['-f', MAC], ['-p', MAC])]
    scan, listing, forget, pairing = runs = harness.finish_all(started)
    assert all(20 < run.seconds < 35 for run in runs), runs
    assert scan.json['error'] == pairing.json['error'] == NO_REPLY
    assert listing.json['error'] == 'could not query live device state: ' + NO_REPLY
    assert [d['name'] for d in listing.json['devices']] == ['Keyboard']
    assert (forget.json['result'], DEVICE_DIR in forget.store) == ('ok', False)
    assert [r.status for r in runs] == [1, 0, 0, 1]
    # One call per run reached the daemon: the first one, which timed out.
    assert sorted(c.method for c in sim.calls()) == ['GetManagedObjects'] * 3 + ['UnregisterAgent']
