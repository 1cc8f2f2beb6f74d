"""What ships beside the binary: manual page, README examples, bash completion, install layout."""

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from contract import validate_events, validate_result

TOP = Path(__file__).resolve().parents[2]
MAN_PAGE = TOP / "doc" / "kelvane.1"
README = TOP / "README.md"
COMPLETION = TOP / "completion" / "kelvane"
KELVANE_BIN = os.environ.get("KELVANE_BIN")

needs_binary = pytest.mark.skipif(not KELVANE_BIN, reason="KELVANE_BIN is set by CTest")


def render_man_page():
    # ASCII without overstrikes: every escape resolves to the plain
    # characters a reader would copy from the terminal.
    completed = subprocess.run(
        ["groff", "-man", "-Tascii", "-P-c", "-P-b", "-P-o", "-P-u", "-rLL=120n", str(MAN_PAGE)],
        capture_output=True, text=True, check=True,
    )
    return completed.stdout


def man_section(rendered, title):
    match = re.search(rf"^{title}\n(.*?)(?=^[A-Z][A-Z ]+\n|\Z)", rendered, re.M | re.S)
    assert match, f"no {title} section"
    return match.group(1)


def usage_text():
    completed = subprocess.run([KELVANE_BIN, "-h"], capture_output=True, text=True, timeout=30)
    assert completed.returncode == 0
    return completed.stdout


def usage_options():
    """Option texts of the usage's option lines, e.g. '-f MAC'."""
    options = re.findall(r"^  (-\S+(?: [A-Z]+)?)\s{2,}\S", usage_text(), re.M)
    assert len(options) >= 7, options
    return options


def test_man_page_renders_without_warnings():
    completed = subprocess.run(
        ["groff", "-man", "-ww", "-z", str(MAN_PAGE)], capture_output=True, text=True
    )
    assert completed.returncode == 0
    assert completed.stderr == ""


@needs_binary
def test_every_usage_option_is_documented_under_options():
    section = man_section(render_man_page(), "OPTIONS")
    # Option tags sit at the section's first indent; descriptions are deeper.
    tags = [line.strip() for line in section.splitlines() if re.match(r" {7}-", line)]
    missing = [
        option for option in usage_options()
        if not any(re.match(rf"{re.escape(option)}(?:$|[\s,])", tag) for tag in tags)
    ]
    assert missing == [], f"undocumented options {missing}; tags: {tags}"


@needs_binary
def test_synopsis_shows_the_usage_synopsis_options():
    first_line = usage_text().splitlines()[0]
    synopsis_options = re.findall(r"\[(-\w)(?: [A-Z]+)?\]", first_line)
    assert synopsis_options, first_line
    synopsis = man_section(render_man_page(), "SYNOPSIS")
    for option in synopsis_options:
        assert re.search(rf"(^|[\s\[|]){option}($|[\s\]|])", synopsis, re.M), option


def json_examples(text):
    """Example result lines and event files, as they stand in a document."""
    results = [line.strip() for line in text.splitlines() if line.strip().startswith('{"adapters"')]
    events = [line.strip() for line in text.splitlines() if line.strip().startswith('[{"')]
    return results, events


def readme_text():
    if not README.exists():
        pytest.skip("no README.md")
    return README.read_text(encoding="utf-8")


@pytest.mark.parametrize("source", ["man page", "README"])
def test_documented_examples_keep_to_the_contract(source):
    text = render_man_page() if source == "man page" else readme_text()
    results, events = json_examples(text)
    assert len(results) >= 4 and len(events) >= 1, (len(results), len(events))
    for line in results:
        validate_result(line + "\n")
    for line in events:
        validate_events(line + "\n")


@needs_binary
def test_readme_names_every_usage_option():
    text = readme_text()
    missing = [option for option in usage_options() if f"`{option}`" not in text
               and f"kelvane {option}" not in text]
    assert missing == []


# ---------------------------------------------------------------- completion


@pytest.fixture
def store(tmp_path):
    """A store like BlueZ's: adapter dirs holding device dirs, a cache dir and settings."""
    root = tmp_path / "bluetooth"
    layout = {
        "00:1A:7D:DA:71:13": ["00:1B:66:A1:2C:3D", "F4:5E:AB:10:22:9C", "cache"],
        "00:1A:7D:DA:71:14": ["F4:5E:AB:10:22:9C", "5C\\:2B\\:7A\\:11\\:09\\:4E"],
    }
    for adapter, devices in layout.items():
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
        ["bash", "--norc", "--noprofile", "-c", script, "bash", str(COMPLETION), str(cword), *words],
        capture_output=True, text=True, env=env, check=True,
    )
    assert completed.stderr == ""
    return sorted(line for line in completed.stdout.splitlines() if line)


ALL_OPTIONS = sorted(["-v", "-e", "-l", "-r", "-f", "-p", "-h", "--help"])
STORED = sorted(["00:1B:66:A1:2C:3D", "F4:5E:AB:10:22:9C", "5C:2B:7A:11:09:4E"])


@pytest.mark.parametrize(
    "words,cword,expected",
    [
        (["kelvane", ""], 1, ALL_OPTIONS),
        (["kelvane", "-"], 1, ALL_OPTIONS),
        (["kelvane", "--"], 1, ["--help"]),
        (["kelvane", "-v", ""], 2, ALL_OPTIONS),
        (["kelvane", "-f", ""], 2, STORED),
        (["kelvane", "-p", ""], 2, STORED),
        (["kelvane", "-v", "-p", "-v", ""], 4, STORED),
        (["kelvane", "-p", "F4"], 2, ["F4:5E:AB:10:22:9C"]),
        (["kelvane", "-p", "f4-5e"], 2, ["F4:5E:AB:10:22:9C"]),
        (["kelvane", "-p", "-"], 2, ["-v"]),
        (["kelvane", "-e", ""], 2, ["-v"]),
        (["kelvane", "-l", "-"], 2, ["-v"]),
        (["kelvane", "-f", "00:1B:66:A1:2C:3D", ""], 3, ["-v"]),
        (["kelvane", "-e", "-f", ""], 3, ["-v"]),
        (["kelvane", "-x", "-"], 2, ["-v"]),
    ],
)
def test_completion_candidates(store, words, cword, expected):
    assert complete(words, cword, store) == expected


def test_completion_reassembles_addresses_split_at_colons(store):
    # "kelvane -p 00:1B:" as readline hands it over: the colons are words.
    words = ["kelvane", "-p", "00", ":", "1B", ":"]
    assert complete(words, 5, store) == ["66:A1:2C:3D"]
    # Without ':' among the word breaks the word arrives whole and stays whole.
    assert complete(["kelvane", "-p", "00:1B:"], 2, store, wordbreaks=" \t\n") == [
        "00:1B:66:A1:2C:3D"
    ]


@pytest.mark.parametrize("case", ["missing", "empty", "file"])
def test_completion_without_a_usable_store_offers_nothing(tmp_path, case):
    root = tmp_path / "bluetooth"
    if case == "empty":
        root.mkdir()
    elif case == "file":
        root.write_text("")
    assert complete(["kelvane", "-f", ""], 2, root) == []


@pytest.mark.skipif(os.geteuid() == 0, reason="root reads any directory")
def test_completion_with_an_unreadable_store_offers_nothing(store):
    store.chmod(0)
    try:
        assert complete(["kelvane", "-f", ""], 2, store) == []
    finally:
        store.chmod(0o755)


def test_completion_is_registered_for_kelvane():
    completed = subprocess.run(
        ["bash", "--norc", "--noprofile", "-c", 'source "$1" && complete -p kelvane', "bash",
         str(COMPLETION)],
        capture_output=True, text=True, check=True,
    )
    assert completed.stdout.strip() == "complete -F _kelvane kelvane"


# ---------------------------------------------------------------- install


def build_dir():
    for parent in Path(KELVANE_BIN).resolve().parents:
        if (parent / "CMakeCache.txt").exists():
            return parent
    pytest.skip("KELVANE_BIN is not inside a CMake build tree")


@needs_binary
def test_install_puts_everything_under_the_prefix(tmp_path):
    prefix = tmp_path / "prefix"
    subprocess.run(
        ["cmake", "--install", str(build_dir()), "--prefix", str(prefix)],
        capture_output=True, text=True, check=True,
    )
    installed = sorted(str(p.relative_to(prefix)) for p in prefix.rglob("*") if p.is_file())
    # A destination outside the prefix (an absolute path) would be missing here.
    expected = {
        "bin/kelvane",
        "share/bash-completion/completions/kelvane",
        "share/kelvane/schema/events.schema.json",
        "share/kelvane/schema/result.schema.json",
        "share/man/man1/kelvane.1",
    }
    assert expected <= set(installed), installed
    assert (prefix / "share/man/man1/kelvane.1").read_bytes() == MAN_PAGE.read_bytes()
    assert os.access(prefix / "bin/kelvane", os.X_OK)
