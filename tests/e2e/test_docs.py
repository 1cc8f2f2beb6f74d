# What ships beside the binary, held against the real tool: every example of
# README and manual page, the options they document, the bash completion and
# the install layout.

import contextlib
import json
import os
import re
import subprocess
from pathlib import Path

import pytest

import harness
from contract import validate_events, validate_result
from kelvane_sim.client import PrivateBus, Sim

TOP = Path(__file__).resolve().parents[2]
MAN_PAGE, README = TOP / 'doc' / 'kelvane.1', TOP / 'README.md'
COMPLETION = TOP / 'completion' / 'kelvane'


# Every example is a block of prompts ("$ " or "# "), each with its output,
# after a comment naming its world ("<!-- example world: NAME -->" or
# '.\" example world: NAME'): the demo, the demo with BlueZ stopped, or the
# scenario doc/worlds/NAME.json (words joined by "-"). A document's blocks run
# in order, each as one shell session in a fresh namespace; the demo world's
# simulator and store carry over from block to block, so pairing, listing,
# forgetting and restoring go through the store the simulator keeps.
WORLDS = TOP / 'doc' / 'worlds'
BLOCK = re.compile(r'^(?:<!-- |\.\\" )example world: (.+?)(?: -->)?\n.*?^(?:```|\.EX)\n'
                   r'(.*?)^(?:```|\.EE)$', re.M | re.S)
TIMESTAMP = re.compile(r'"timestamp":\d+')


# [(world, [command, output, command, output, ...])] in the document's order.
def example_blocks(path):
    text = path.read_text(encoding='utf-8')
    if path.suffix == '.1':
        for escaped, plain in (('\\-', '-'), ('\\(aq', "'"), ('\\e', '\\')):
            text = text.replace(escaped, plain)
    return [(world, re.split(r'^[$#] (.*)\n', body, flags=re.M)[1:])
            for world, body in BLOCK.findall(text)]


# The outputs of a block's commands, run as one shell session.
def play(session, binary, bus_address, store):
    script = 'export PATH=%s:$PATH\ncd /tmp\n' % Path(binary).resolve().parent + ''.join(
        '%s\necho @@@\n' % command for command in session[::2])
    run = harness.run_kelvane(['-c', script], binary='/bin/sh', argv0='sh',
                              bus_address=bus_address, box=harness.Box(store_from=store),
                              expect_json=False, timeout=120)
    return run.stdout.split('@@@\n')[:-1]


@pytest.mark.parametrize('document', [README, MAN_PAGE], ids=['README', 'man page'])
def test_examples_are_what_the_tool_prints(document, tmp_path, binary):
    store = tmp_path / 'store'
    store.mkdir(mode=0o700)
    with contextlib.ExitStack() as running:
        def bus(scenario=None, store=None):
            private_bus = running.enter_context(PrivateBus())
            if scenario is not None:
                running.enter_context(Sim(private_bus, scenario=scenario, store=store))
            return private_bus.address

        demo = json.loads((TOP / 'sim' / 'kelvane_sim' / 'demo.json').read_text())
        worlds = {'demo': (bus(demo, store), store), 'demo, BlueZ stopped': (bus(), store)}
        blocks = example_blocks(document)
        for name in {world for world, _ in blocks} - set(worlds):
            scenario = WORLDS / (re.sub(r'\W+', '-', name) + '.json')
            worlds[name] = (bus(json.loads(scenario.read_text())), None)
        played = [(world, session[::2], play(session, binary, *worlds[world]))
                  for world, session in blocks]
    assert len(blocks) >= 5
    for line in ''.join(''.join(outputs) for _, _, outputs in played).splitlines():
        if line.startswith('{"adapters"'):
            validate_result(line + '\n')
        elif line.startswith('[{'):
            validate_events(line + '\n')
    mismatches = [(world, commands, outputs) for (world, commands, outputs), (_, session)
                  in zip(played, blocks) if TIMESTAMP.sub('', '\0'.join(outputs))
                  != TIMESTAMP.sub('', '\0'.join(session[1::2]))]
    assert mismatches == [], mismatches


# A store like BlueZ's: adapter dirs holding device dirs, a cache dir and settings.
@pytest.fixture
def store(tmp_path):
    root = tmp_path / 'bluetooth'
    for adapter, devices in {
        '00:1A:7D:DA:71:13': ['00:1B:66:A1:2C:3D', 'F4:5E:AB:10:22:9C', 'cache'],
        '00:1A:7D:DA:71:14': ['F4:5E:AB:10:22:9C', '5C\\:2B\\:7A\\:11\\:09\\:4E'],
    }.items():
        for device in devices:
            (root / adapter / device).mkdir(parents=True)
        (root / adapter / 'settings').write_text('[General]\n')
    (root / '00:1A:7D:DA:71:13' / '00:00:00:00:00:01').write_text('a file, not a device\n')
    return root


# COMPREPLY of the registered completion for `kelvane WORDS`, the last word being typed.
def complete(words, store_root, wordbreaks=None):
    script = ('source "$1"; shift; complete -p kelvane >&2\n'
              + ('COMP_WORDBREAKS=%r\n' % wordbreaks if wordbreaks else '')
              + 'COMP_CWORD=$(($# - 1)); COMP_WORDS=("$@")\n'
              '_kelvane\nprintf "%s\\n" "${COMPREPLY[@]}"\n')
    completed = subprocess.run(
        ['bash', '--norc', '--noprofile', '-c', script, 'bash', str(COMPLETION), 'kelvane',
         *words], capture_output=True, text=True, check=True,
        env=dict(os.environ, KELVANE_COMPLETION_STORE=str(store_root)))
    assert completed.stderr == 'complete -F _kelvane kelvane\n'
    return sorted(line for line in completed.stdout.splitlines() if line)


STORED = sorted(['00:1B:66:A1:2C:3D', 'F4:5E:AB:10:22:9C', '5C:2B:7A:11:09:4E'])
COMPLETIONS = [  # words, the store, COMP_WORDBREAKS -> candidates
    (['--'], 'bluetooth', None, ['--help']),
    (['-v', '-p', '-v', ''], 'bluetooth', None, STORED),
    # Addresses match as the tool takes them: either case, '-' for ':'.
    (['-f', 'f4-5e'], 'bluetooth', None, ['F4:5E:AB:10:22:9C']),
    (['-p', '-'], 'bluetooth', None, ['-v']),
    (['-f', '00:1B:66:A1:2C:3D', ''], 'bluetooth', None, ['-v']),
    # "kelvane -p 00:1B:" as readline hands it over: the colons are words;
    # without ':' among the word breaks it arrives whole and stays whole.
    (['-p', '00', ':', '1B', ':'], 'bluetooth', None, ['66:A1:2C:3D']),
    (['-p', '00:1B:'], 'bluetooth', ' \t\n', ['00:1B:66:A1:2C:3D']),
    (['-f', ''], 'missing', None, []),
]


@pytest.mark.parametrize('words,where,wordbreaks,expected', COMPLETIONS)
def test_completion_candidates(store, words, where, wordbreaks, expected):
    assert complete(words, store.parent / where, wordbreaks) == expected


def test_every_usage_option_is_documented_and_completed(store, binary):
    # Each option of the usage is a tag of the manual page (rendered without a
    # warning), named in the README and completed: after an option that takes
    # a MAC come the stored addresses, -v leaves the operation open, after any
    # other operation only -v fits.
    usage = subprocess.run([binary, '-h'], capture_output=True, text=True, timeout=30,
                           check=True).stdout
    options = re.findall(r'^  (-\S+(?: [A-Z]+)?)\s{2,}\S', usage, re.M)
    rendered = subprocess.run(['groff', '-man', '-ww', '-Tascii', '-P-cbou', '-rLL=120n',
                               str(MAN_PAGE)], capture_output=True, text=True, check=True)
    readme, everything = README.read_text(encoding='utf-8'), sorted(
        [option.split()[0] for option in options] + ['--help'])
    assert len(options) >= 7 and rendered.stderr == '' and complete([''], store) == everything
    for option in options:
        flag = option.split()[0]
        assert re.search(r'^ {7}%s(?:$|[\s,])' % re.escape(option), rendered.stdout, re.M), option
        assert '`%s`' % option in readme or 'kelvane ' + option in readme, option
        assert complete([flag, ''], store) == (STORED if option.endswith(' MAC') else everything
                                               if flag == '-v' else ['-v']), option


def test_install_puts_everything_under_the_prefix(tmp_path, binary):
    build = next((p for p in Path(binary).resolve().parents
                  if (p / 'CMakeCache.txt').exists()), None) or pytest.skip('not a CMake build')
    prefix = tmp_path / 'prefix'
    subprocess.run(['cmake', '--install', str(build), '--prefix', str(prefix)],
                   capture_output=True, check=True)
    # A destination outside the prefix (an absolute path) would be missing here.
    assert os.access(prefix / 'bin/kelvane', os.X_OK)
    assert (prefix / 'share/man/man1/kelvane.1').read_bytes() == MAN_PAGE.read_bytes()
    for installed in ('bash-completion/completions/kelvane', 'kelvane/schema/events.schema.json',
                      'kelvane/schema/result.schema.json'):
        assert (prefix / 'share' / installed).is_file(), installed
