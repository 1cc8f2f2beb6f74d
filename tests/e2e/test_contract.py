"""The published JSON Schemas and the contract helpers, on hand-written documents."""

import copy
import json

import pytest

from contract import (
    ContractError,
    events_problems,
    parse_line,
    result_problems,
    validate_events,
    validate_result,
)

HEADSET = {
    "address": "00:1B:66:A1:2C:3D",
    "alias": "BT Headset",
    "appearance": None,
    "appearance_description": None,
    "class": "Audio/Video: Wearable headset (Audio, Rendering)",
    "class_of_device": 2360324,
    "connected": False,
    "icon": "audio-headset",
    "icon-name": "device",
    "is_hid": False,
    "label": "BT Headset",
    "name": "BT Headset",
    "paired": False,
    "path": "/org/bluez/hci0/dev_00_1B_66_A1_2C_3D",
    "rssi": -52,
    "trusted": False,
    "uuids": ["0000110b-0000-1000-8000-00805f9b34fb"],
}

MOUSE = dict(
    HEADSET,
    address="F4:5E:AB:10:22:9C",
    alias="BLE Mouse",
    appearance=962,
    appearance_description="Generic Mouse",
    **{"class": None, "class_of_device": None, "icon-name": "mouse"},
    icon="input-mouse",
    is_hid=True,
    label="BLE Mouse",
    name="BLE Mouse",
    path="/org/bluez/hci0/dev_F4_5E_AB_10_22_9C",
    rssi=-67,
    uuids=["00001812-0000-1000-8000-00805f9b34fb"],
)

# Everything optional absent, as -l reports a bare store entry BlueZ lacks.
BARE = {
    "address": "AA:BB:CC:DD:EE:FF",
    "alias": "",
    "appearance": None,
    "appearance_description": None,
    "class": None,
    "class_of_device": None,
    "connected": False,
    "icon": "",
    "icon-name": "device",
    "is_hid": False,
    "label": "[unknown]",
    "name": "",
    "paired": True,
    "path": "",
    "rssi": None,
    "trusted": False,
    "uuids": [],
}

ADAPTER = {
    "address": "00:1A:7D:DA:71:13",
    "alias": "host",
    "discovering": False,
    "id": 0,
    "name": "host",
    "path": "/org/bluez/hci0",
    "powered": True,
}


def document(adapters=(), devices=(), error="", result="ok"):
    return {
        "adapters": [copy.deepcopy(a) for a in adapters],
        "devices": [copy.deepcopy(d) for d in devices],
        "error": error,
        "result": result,
    }


def changed(base, **members):
    value = copy.deepcopy(base)
    for key, member in members.items():
        value[key.replace("__", "-")] = member
    return value


def without(base, key):
    value = copy.deepcopy(base)
    del value[key]
    return value


def line(value):
    return json.dumps(value, separators=(",", ":"), sort_keys=True, ensure_ascii=False) + "\n"


GOOD_RESULTS = {
    "minimal": document(),
    "failure": document(error="device not found", result="error"),
    "scan": document([ADAPTER], [HEADSET, MOUSE, BARE]),
    "partial scan": document(
        [ADAPTER, changed(ADAPTER, id=1, path="/org/bluez/hci1")],
        [HEADSET],
        error="adapter 1: Resource Not Ready",
    ),
    "store-only adapter": document(
        [changed(ADAPTER, path="", name="", alias="", powered=False)], [BARE]
    ),
    "odd adapter path": document([changed(ADAPTER, id=-1, path="/com/example/radio")]),
    "unnamed appearance": document(
        devices=[changed(BARE, appearance=0x03C5, appearance_description="")]
    ),
    "unmasked class": document(
        devices=[changed(HEADSET, class_of_device=4294967295,
                         **{"class": "Uncategorized: Uncategorized device (Audio)"})]
    ),
    "equal rssi any order": document(
        devices=[changed(MOUSE, rssi=-52), HEADSET]
    ),
    "alias as label": document(devices=[changed(BARE, alias="5C-2B-7A", label="5C-2B-7A")]),
    "extreme rssi": document(
        devices=[changed(HEADSET, rssi=32767), changed(MOUSE, rssi=-32768)]
    ),
}


@pytest.mark.parametrize("doc", GOOD_RESULTS.values(), ids=GOOD_RESULTS.keys())
def test_valid_result_documents_pass(doc):
    assert result_problems(doc) == []
    assert validate_result(line(doc)) == doc


def test_minimal_document_as_written_by_the_tool():
    raw = b'{"adapters":[],"devices":[],"error":"","result":"ok"}\n'
    assert validate_result(raw) == document()


BAD_RESULTS = {
    "missing result": (without(document(), "result"), "'result' is a required property"),
    "unknown result": (document(result="partial"), "is not one of"),
    "extra member": (dict(document(), status=0), "Additional properties"),
    "error with devices": (document(devices=[HEADSET], result="error"), "devices"),
    "device missing key": (document(devices=[without(HEADSET, "rssi")]), "'rssi' is a required"),
    "device extra key": (document(devices=[changed(HEADSET, icon_name="x")]), "Additional"),
    "string rssi": (document(devices=[changed(HEADSET, rssi="-52")]), "rssi"),
    "float rssi": (document(devices=[changed(HEADSET, rssi=-52.0)]), "rssi"),
    "rssi out of range": (document(devices=[changed(HEADSET, rssi=40000)]), "rssi"),
    "bool as integer": (document(devices=[changed(HEADSET, class_of_device=True)]), "class_of_device"),
    "class without number": (document(devices=[changed(HEADSET, class_of_device=None)]), "class"),
    "number without class": (document(devices=[changed(BARE, class_of_device=4)]), "class"),
    "negative class": (
        document(devices=[changed(HEADSET, class_of_device=-1)]), "class_of_device"),
    "class too large": (
        document(devices=[changed(HEADSET, class_of_device=4294967296)]), "class_of_device"),
    "description without appearance": (
        document(devices=[changed(BARE, appearance_description="")]), "appearance_description"),
    "appearance without description": (
        document(devices=[changed(BARE, appearance=960)]), "appearance_description"),
    "appearance too large": (
        document(devices=[changed(MOUSE, appearance=65536)]), "appearance"),
    "icon without appearance": (
        document(devices=[changed(BARE, icon__name="mouse")]), "icon-name"),
    "unknown icon name": (document(devices=[changed(MOUSE, icon__name="rodent")]), "icon-name"),
    "empty label": (document(devices=[changed(BARE, label="")]), "label"),
    "label ignores name": (document(devices=[changed(HEADSET, label="other")]), "label"),
    "bad device path": (document(devices=[changed(HEADSET, path="hci0/dev")]), "path"),
    "uuid not a string": (document(devices=[changed(HEADSET, uuids=[4370])]), "uuids"),
    "adapter id below -1": (document([changed(ADAPTER, id=-2)]), "id"),
    "adapter id as string": (document([changed(ADAPTER, id="0")]), "id"),
    "adapter missing key": (document([without(ADAPTER, "discovering")]), "discovering"),
    "adapter without address": (document([changed(ADAPTER, address="")]), "address"),
    "weaker before stronger": (document(devices=[MOUSE, HEADSET]), "should not come before"),
    "no rssi before rssi": (document(devices=[BARE, HEADSET]), "should not come before"),
    "addresses descending": (
        document(devices=[changed(BARE, address="BB"), changed(BARE, address="AA")]),
        "should not come before",
    ),
    "address twice": (document(devices=[BARE, BARE]), "listed twice"),
}


@pytest.mark.parametrize(
    "doc,expected", BAD_RESULTS.values(), ids=BAD_RESULTS.keys()
)
def test_invalid_result_documents_fail(doc, expected):
    problems = result_problems(doc)
    assert any(expected in problem for problem in problems), problems
    with pytest.raises(ContractError):
        validate_result(doc)


BAD_LINES = {
    "no newline": (b'{"adapters":[],"devices":[],"error":"","result":"ok"}', "newline"),
    "two lines": (b'{"adapters":[],"devices":[],"error":"","result":"ok"}\n\n', "more than one"),
    "indented": (b'{"adapters": [],"devices":[],"error":"","result":"ok"}\n', "compact"),
    "keys unsorted": (b'{"devices":[],"adapters":[],"error":"","result":"ok"}\n', "ascending"),
    "duplicate key": (
        b'{"adapters":[],"devices":[],"error":"","result":"ok","result":"ok"}\n', "duplicate"),
    "not utf-8": (b'{"adapters":[],"devices":[],"error":"\xff","result":"ok"}\n', "UTF-8"),
    "NaN": (b'{"adapters":[],"devices":[],"error":NaN,"result":"ok"}\n', "constant"),
    "truncated": (b'{"adapters":[],"devices":[]\n', "not JSON"),
}


@pytest.mark.parametrize("raw,expected", BAD_LINES.values(), ids=BAD_LINES.keys())
def test_malformed_lines_fail(raw, expected):
    with pytest.raises(ContractError) as caught:
        parse_line(raw)
    assert any(expected in problem for problem in caught.value.problems), caught.value.problems


def test_blanks_inside_strings_are_not_layout():
    raw = line(document(error="adapter 0: Operation already in progress"))
    assert validate_result(raw)["error"] == "adapter 0: Operation already in progress"


def event(name, timestamp=1718000000, device=None, **extra):
    value = dict(extra, event=name, timestamp=timestamp)
    if device is not None:
        value["device"] = copy.deepcopy(device)
    return value


PAIRED = changed(HEADSET, paired=True, trusted=True)

GOOD_EVENTS = {
    "right after reset": [],
    "numeric comparison": [
        event("passkey", device=HEADSET, passkey="004711"),
        event("trusted", 1718000003, PAIRED),
        event("connected", 1718000004, changed(PAIRED, connected=True)),
    ],
    "already paired": [event("trusted", device=PAIRED), event("connected", device=PAIRED)],
    "new passkey on retry": [
        event("passkey", device=HEADSET, passkey="123456"),
        event("passkey", device=HEADSET, passkey="000000"),
    ],
    "seven digit passkey": [event("passkey", passkey="4294967295")],
    "before the device is known": [event("passkey", passkey="004711")],
    "connect failed": [event("trusted", device=PAIRED)],
}


@pytest.mark.parametrize("events", GOOD_EVENTS.values(), ids=GOOD_EVENTS.keys())
def test_valid_event_files_pass(events):
    assert events_problems(events) == []
    assert validate_events(line(events)) == events


def test_reset_file_as_written_by_the_tool():
    assert validate_events(b"[]\n") == []


BAD_EVENTS = {
    "not an array": ({"event": "trusted", "timestamp": 1}, "is not of type 'array'"),
    "passkey missing": ([event("passkey", device=HEADSET)], "'passkey' is a required"),
    "passkey on trusted": ([event("trusted", passkey="004711")], "should not be valid"),
    "short passkey": ([event("passkey", passkey="4711")], "does not match"),
    "numeric passkey": ([event("passkey", passkey=4711)], "is not of type 'string'"),
    "unknown event": ([event("paired")], "is not one of"),
    "float timestamp": ([event("trusted", 1718000000.5)], "is not of type 'integer'"),
    "missing timestamp": ([without(event("trusted"), "timestamp")], "'timestamp' is a required"),
    "extra member": ([event("trusted", note="x")], "Additional properties"),
    "device missing key": ([event("trusted", device=without(HEADSET, "uuids"))], "'uuids'"),
    "device string rssi": ([event("trusted", device=changed(HEADSET, rssi="x"))], "rssi"),
    "connected before trusted": (
        [event("connected"), event("trusted")], "event order"),
    "passkey after trusted": (
        [event("trusted"), event("passkey", passkey="004711")], "event order"),
    "trusted twice": ([event("trusted"), event("trusted")], "event order"),
    "repeated passkey": (
        [event("passkey", passkey="004711"), event("passkey", passkey="004711")], "twice"),
    "device dropped": ([event("passkey", device=HEADSET, passkey="004711"),
                        event("trusted")], "lost the device"),
    "device label wrong": ([event("trusted", device=changed(HEADSET, label="x"))], "label"),
}


@pytest.mark.parametrize("events,expected", BAD_EVENTS.values(), ids=BAD_EVENTS.keys())
def test_invalid_event_files_fail(events, expected):
    problems = events_problems(events)
    assert any(expected in problem for problem in problems), problems
    with pytest.raises(ContractError):
        validate_events(events)


def test_event_device_is_the_result_device_definition():
    # One definition serves both files: a device that passes in a result
    # document passes in an event, and one that fails there fails here too.
    for device in (HEADSET, MOUSE, BARE, changed(HEADSET, rssi=None)):
        assert result_problems(document(devices=[device])) == []
        assert events_problems([event("trusted", device=device)]) == []
    broken = changed(MOUSE, appearance=None)
    assert result_problems(document(devices=[broken]))
    assert events_problems([event("trusted", device=broken)])
