"""What ships beside the binary: manual page, README, bash completion, install layout,
checked against the real tool's usage text."""

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
MAN_PAGE = TOP / "doc" / "kelvane.1"
README = TOP / "README.md"
COMPLETION = TOP / "completion" / "kelvane"
SIM = TOP / "sim"
KELVANE_BIN = os.environ.get("KELVANE_BIN")

needs_binary = pytest.mark.skipif(not KELVANE_BIN, reason="KELVANE_BIN is set by CTest")


def render_man_page():
    # ASCII without overstrikes: every escape resolves to the plain
    # characters a reader would copy from the terminal. No warnings allowed.
    completed = subprocess.run(
        ["groff", "-man", "-ww", "-Tascii", "-P-c", "-P-b", "-P-o", "-P-u", "-rLL=120n",
         str(MAN_PAGE)], capture_output=True, text=True, check=True)
    assert completed.stderr == ""
    return completed.stdout


def man_section(rendered, title):
    match = re.search(rf"^{title}\n(.*?)(?=^[A-Z][A-Z ]+\n|\Z)", rendered, re.M | re.S)
    assert match, f"no {title} section"
    return match.group(1)


def usage_text():
    return subprocess.run([KELVANE_BIN, "-h"], capture_output=True, text=True, timeout=30,
                          check=True).stdout


def usage_options():
    """Option texts of the usage's option lines, e.g. '-f MAC'."""
    options = re.findall(r"^  (-\S+(?: [A-Z]+)?)\s{2,}\S", usage_text(), re.M)
    assert len(options) >= 7, options
    return options


@needs_binary
def test_man_page_and_readme_document_every_usage_option():
    rendered = render_man_page()
    # Option tags sit at the section's first indent; descriptions are deeper.
    tags = [line.strip() for line in man_section(rendered, "OPTIONS").splitlines()
            if re.match(r" {7}-", line)]
    options = usage_options()
    missing = [option for option in options
               if not any(re.match(rf"{re.escape(option)}(?:$|[\s,])", tag) for tag in tags)]
    assert missing == [], f"undocumented options {missing}; tags: {tags}"

    synopsis = man_section(rendered, "SYNOPSIS")
    in_usage = re.findall(r"\[(-\w)(?: [A-Z]+)?\]", usage_text().splitlines()[0])
    assert in_usage and [option for option in in_usage if not re.search(
        rf"(^|[\s\[|]){option}($|[\s\]|])", synopsis, re.M)] == [], (in_usage, synopsis)

    text = README.read_text(encoding="utf-8")
    assert [o for o in options if f"`{o}`" not in text and f"kelvane {o}" not in text] == []


# ---------------------------------------------------------------- examples
#
# Every example of README.md and the manual page is a block of prompts ("$ "
# or "# ") with the output under each, preceded by a comment naming its world:
# "<!-- example world: NAME -->" or '.\\" example world: NAME'. The blocks
# of one document run in order, each as one shell session in a fresh
# namespace, against the world's simulated BlueZ and store, which carry over
# from block to block. KELVANE_UPDATE_EXAMPLES=1 writes the outputs back.

SCAN_WORLDS = {
    "two adapters, one failing": {
        "adapters": [{"id": "hci0", "address": "00:1A:7D:DA:71:13", "name": "workstation"},
                     {"id": "hci1", "address": "00:1A:7D:DA:71:14", "name": "dongle",
                      "powered": False}],
        "faults": [{"method": "Set", "property": "Powered", "path": "/org/bluez/hci1",
                    "error": "org.bluez.Error.NotReady", "message": "Resource Not Ready",
                    "times": "always"}]},
    "no adapters": {},
}
MARK = re.compile(r'^(?:<!-- example world: (.+) -->|\.\\" example world: (.+))$')
PROMPT = re.compile(r"^[$#] ")
TIMESTAMP = re.compile(r'"timestamp":\d+')
ROFF = [("\\-", "-"), ("\\(aq", "'"), ("\\e", "\\")]


def roff_text(line, back=False):
    for escaped, plain in (reversed(ROFF) if back else ROFF):
        line = line.replace(plain, escaped) if back else line.replace(escaped, plain)
    return line


def example_blocks(path):
    """[(world, first line index, last line index, [(prompt, [output lines])])]."""
    lines, roff = path.read_text(encoding="utf-8").splitlines(), path.suffix == ".1"
    blocks, index = [], 0
    while index < len(lines):
        mark = MARK.match(lines[index])
        index += 1
        if not mark:
            continue
        start = next(i for i in range(index, len(lines)) if lines[i] in ("```", ".EX")) + 1
        end = next(i for i in range(start, len(lines)) if lines[i] in ("```", ".EE"))
        session = []
        for line in lines[start:end]:
            line = roff_text(line) if roff else line
            if PROMPT.match(line):
                session.append((line[2:], []))
            else:
                session[-1][1].append(line)
        blocks.append((mark.group(1) or mark.group(2), start, end, session))
        index = end
    return blocks


def play(session, world, worlds, kelvane_bin):
    """The outputs of a block's prompts, run as one shell session."""
    script = "export PATH=%s:$PATH\ncd /tmp\n" % Path(kelvane_bin).resolve().parent + "".join(
        "%s\necho @@@\n" % command for command, _ in session)
    bus, store = worlds.enter(world)
    run = harness.run_kelvane(["-c", script], binary="/bin/sh", argv0="sh", bus_address=bus,
                              box=harness.Box(store_from=store), expect_json=False, timeout=120)
    return [chunk.splitlines() for chunk in run.stdout.split("@@@\n")[:-1]]


class Worlds:
    """The demo world keeps its simulator and store for the whole document."""

    def __init__(self, tmp_path):
        self.store = tmp_path / "store"
        self.store.mkdir(mode=0o700)
        self.running = []
        self.demo = self.start(json.loads((SIM / "kelvane_sim" / "demo.json").read_text()),
                               self.store)

    def start(self, scenario, store=None):
        bus = PrivateBus()
        sim = Sim(bus, scenario=scenario, store=store)
        self.running += [sim, bus]
        return bus.address

    def enter(self, world):
        if world == "demo":
            return self.demo, self.store
        if world == "demo, BlueZ stopped":
            bus = PrivateBus()
            self.running.append(bus)
            return bus.address, self.store
        return self.start(SCAN_WORLDS[world]), None

    def stop(self):
        for thing in self.running:
            thing.stop()


@needs_binary
@pytest.mark.parametrize("document", [README, MAN_PAGE], ids=["README", "man page"])
def test_examples_are_what_the_tool_prints(document, tmp_path):
    blocks, worlds = example_blocks(document), Worlds(tmp_path)
    try:
        played = [play(session, world, worlds, KELVANE_BIN)
                  for world, _, _, session in blocks]
    finally:
        worlds.stop()
    assert len(blocks) >= 5
    mismatches = []
    for (world, _, _, session), outputs in zip(blocks, played):
        for (command, expected), actual in zip(session, outputs):
            for line in actual:
                if line.startswith('{"adapters"'):
                    validate_result(line + "\n")
                elif line.startswith("[{"):
                    validate_events(line + "\n")
            if [TIMESTAMP.sub("", x) for x in actual] != [TIMESTAMP.sub("", x) for x in expected]:
                mismatches.append((world, command, actual))
    if os.environ.get("KELVANE_UPDATE_EXAMPLES"):
        lines = document.read_text(encoding="utf-8").splitlines()
        for (_, start, end, session), outputs in reversed(list(zip(blocks, played))):
            prompts = [line for line in lines[start:end] if PROMPT.match(
                roff_text(line) if document == MAN_PAGE else line)]
            block = []
            for prompt, output in zip(prompts, outputs):
                block.append(prompt)
                block += [roff_text(x, back=True) for x in output] if document == MAN_PAGE \
                    else output
            lines[start:end] = block
        document.write_text("\n".join(lines) + "\n", encoding="utf-8")
    assert mismatches == [], mismatches


# ---------------------------------------------------------------- completion


@pytest.fixture
def store(tmp_path):
    """A store like BlueZ's: adapter dirs holding device dirs, a cache dir and settings."""
    root = tmp_path / "bluetooth"
    for adapter, devices in {
        "00:1A:7D:DA:71:13": ["00:1B:66:A1:2C:3D", "F4:5E:AB:10:22:9C", "cache"],
        "00:1A:7D:DA:71:14": ["F4:5E:AB:10:22:9C", "5C\\:2B\\:7A\\:11\\:09\\:4E"],
    }.items():
        for device in devices:
            (root / adapter / device).mkdir(parents=True)
        (root / adapter / "settings").write_text("[General]\n")
    (root / "00:1A:7D:DA:71:13" / "00:00:00:00:00:01").write_text("a file, not a device\n")
    return root


def complete(words, cword, store_root, wordbreaks=None):
    """Runs the completion function as bash would and returns COMPREPLY."""
    script = (
        'source "$1"; shift\n'
        + (f"COMP_WORDBREAKS={wordbreaks!r}\n" if wordbreaks is not None else "")
        + 'COMP_CWORD=$1; shift; COMP_WORDS=("$@")\n'
        '_kelvane\n'
        'printf "%s\\n" "${COMPREPLY[@]}"\n'
    )
    env = dict(os.environ, KELVANE_COMPLETION_STORE=str(store_root))
    completed = subprocess.run(
        ["bash", "--norc", "--noprofile", "-c", script, "bash", str(COMPLETION), str(cword),
         *words], capture_output=True, text=True, env=env, check=True)
    assert completed.stderr == ""
    return sorted(line for line in completed.stdout.splitlines() if line)


STORED = sorted(["00:1B:66:A1:2C:3D", "F4:5E:AB:10:22:9C", "5C:2B:7A:11:09:4E"])


@needs_binary
def test_completion_follows_the_usage_options(store):
    options = usage_options()
    everything = sorted([option.split()[0] for option in options] + ["--help"])
    assert complete(["kelvane", ""], 1, store) == everything
    # An option that takes a MAC is followed by the stored addresses; -v
    # leaves the operation open; after any other operation only -v fits.
    for option in options:
        flag = option.split()[0]
        expected = STORED if option.endswith(" MAC") else everything if flag == "-v" else ["-v"]
        assert complete(["kelvane", flag, ""], 2, store) == expected, option


@pytest.mark.parametrize(
    "words,cword,expected",
    [
        (["kelvane", "--"], 1, ["--help"]),
        (["kelvane", "-v", "-p", "-v", ""], 4, STORED),
        # Addresses match as the tool takes them: either case, '-' for ':'.
        (["kelvane", "-f", "f4-5e"], 2, ["F4:5E:AB:10:22:9C"]),
        (["kelvane", "-p", "-"], 2, ["-v"]),
        (["kelvane", "-f", "00:1B:66:A1:2C:3D", ""], 3, ["-v"]),
        # "kelvane -p 00:1B:" as readline hands it over: the colons are words.
        (["kelvane", "-p", "00", ":", "1B", ":"], 5, ["66:A1:2C:3D"]),
    ],
)
def test_completion_candidates(store, words, cword, expected):
    assert complete(words, cword, store) == expected


def test_completion_edge_cases(store, tmp_path):
    # Without ':' among the word breaks a typed address arrives whole and stays whole.
    assert complete(["kelvane", "-p", "00:1B:"], 2, store, wordbreaks=" \t\n") == [
        "00:1B:66:A1:2C:3D"]
    # No usable store: nothing to offer.
    assert complete(["kelvane", "-f", ""], 2, tmp_path / "missing") == []
    registered = subprocess.run(
        ["bash", "--norc", "--noprofile", "-c", 'source "$1" && complete -p kelvane', "bash",
         str(COMPLETION)], capture_output=True, text=True, check=True)
    assert registered.stdout.strip() == "complete -F _kelvane kelvane"


# ---------------------------------------------------------------- install


@needs_binary
def test_install_puts_everything_under_the_prefix(tmp_path):
    build = next((p for p in Path(KELVANE_BIN).resolve().parents
                  if (p / "CMakeCache.txt").exists()), None)
    if build is None:
        pytest.skip("KELVANE_BIN is not inside a CMake build tree")
    prefix = tmp_path / "prefix"
    subprocess.run(["cmake", "--install", str(build), "--prefix", str(prefix)],
                   capture_output=True, text=True, check=True)
    installed = {str(p.relative_to(prefix)) for p in prefix.rglob("*") if p.is_file()}
    # A destination outside the prefix (an absolute path) would be missing here.
    assert {"bin/kelvane", "share/bash-completion/completions/kelvane",
            "share/kelvane/schema/events.schema.json", "share/kelvane/schema/result.schema.json",
            "share/man/man1/kelvane.1"} <= installed, sorted(installed)
    assert (prefix / "share/man/man1/kelvane.1").read_bytes() == MAN_PAGE.read_bytes()
    assert os.access(prefix / "bin/kelvane", os.X_OK)
