"""The published JSON Schemas and the contract helpers, on hand-written documents:
one valid document of each kind, and one invalid example per rule."""

import copy
import json

import pytest

from contract import ContractError, validate_events, validate_result

HEADSET = {
    "address": "00:1B:66:A1:2C:3D", "alias": "BT Headset", "appearance": None,
    "appearance_description": None, "class": "Audio/Video: Wearable headset (Audio, Rendering)",
    "class_of_device": 2360324, "connected": False, "icon": "audio-headset", "icon-name": "device",
    "is_hid": False, "label": "BT Headset", "name": "BT Headset", "paired": False,
    "path": "/org/bluez/hci0/dev_00_1B_66_A1_2C_3D", "rssi": -52, "trusted": False,
    "uuids": ["0000110b-0000-1000-8000-00805f9b34fb"],
}


def changed(base, **members):
    value = copy.deepcopy(base)
    value.update({key.replace("__", "-"): member for key, member in members.items()})
    return value


def without(base, key):
    return {k: v for k, v in copy.deepcopy(base).items() if k != key}


MOUSE = changed(
    HEADSET, address="F4:5E:AB:10:22:9C", alias="BLE Mouse", appearance=962,
    appearance_description="Generic Mouse", class_of_device=None, icon="input-mouse",
    icon__name="mouse", is_hid=True, label="BLE Mouse", name="BLE Mouse", rssi=-67,
    path="/org/bluez/hci0/dev_F4_5E_AB_10_22_9C", uuids=["00001812-0000-1000-8000-00805f9b34fb"],
    **{"class": None},
)
# Everything optional absent, as -l reports a bare store entry BlueZ lacks.
BARE = changed(
    HEADSET, address="AA:BB:CC:DD:EE:FF", alias="", class_of_device=None, icon="",
    label="[unknown]", name="", paired=True, path="", rssi=None, uuids=[], **{"class": None},
)
ADAPTER = {"address": "00:1A:7D:DA:71:13", "alias": "host", "discovering": False, "id": 0,
           "name": "host", "path": "/org/bluez/hci0", "powered": True}
PAIRED = changed(HEADSET, paired=True, trusted=True)
OK_LINE = b'{"adapters":[],"devices":[],"error":"","result":"ok"}'


def document(adapters=(), devices=(), error="", result="ok"):
    return {"adapters": copy.deepcopy(list(adapters)), "devices": copy.deepcopy(list(devices)),
            "error": error, "result": result}


def devices(*listed):
    return document(devices=listed)


def event(name, timestamp=1718000000, device=None, **extra):
    value = dict(extra, event=name, timestamp=timestamp)
    if device is not None:
        value["device"] = copy.deepcopy(device)
    return value


VALID = {
    "scan with a partial failure": (validate_result, document(
        [ADAPTER, changed(ADAPTER, id=1, path="/org/bluez/hci1")], [HEADSET, MOUSE, BARE],
        error="adapter 1: Resource Not Ready")),
    "failure": (validate_result, document(error="device not found", result="error")),
    "pairing events": (validate_events, [
        event("passkey", device=HEADSET, passkey="004711"),
        event("trusted", 1718000003, PAIRED),
        event("connected", 1718000004, changed(PAIRED, connected=True))]),
}


@pytest.mark.parametrize("validate,value", VALID.values(), ids=VALID.keys())
def test_valid_documents_pass(validate, value):
    raw = json.dumps(value, separators=(",", ":"), sort_keys=True, ensure_ascii=False) + "\n"
    assert validate(raw.encode()) == value


BAD_RESULTS = {
    "missing key": (devices(without(HEADSET, "rssi")), "'rssi' is a required"),
    "extra member": (dict(document(), status=0), "Additional properties"),
    "wrong type": (devices(changed(HEADSET, rssi="-52")), "rssi"),
    "float for integer": (devices(changed(HEADSET, rssi=-52.0)), "rssi"),
    "unknown enum value": (document(result="partial"), "is not one of"),
    "error with devices": (document(devices=[HEADSET], result="error"), "devices"),
    "class without number": (devices(changed(HEADSET, class_of_device=None)), "class"),
    "label ignores name": (devices(changed(HEADSET, label="other")), "label"),
    "weaker before stronger": (devices(MOUSE, HEADSET), "should not come before"),
    "address twice": (devices(BARE, BARE), "listed twice"),
    "no newline": (OK_LINE, "newline"),
    "not compact": (OK_LINE.replace(b":", b": ", 1) + b"\n", "compact"),
    "keys unsorted": (b'{"devices":[],"adapters":[],"error":"","result":"ok"}\n', "ascending"),
    "duplicate key": (OK_LINE[:-1] + b',"result":"ok"}\n', "duplicate"),
    "not JSON": (OK_LINE[:28] + b"\n", "not JSON"),
}
BAD_EVENTS = {
    "passkey missing": ([event("passkey", device=HEADSET)], "'passkey' is a required"),
    "passkey on trusted": ([event("trusted", passkey="004711")], "should not be valid"),
    "short passkey": ([event("passkey", passkey="4711")], "does not match"),
    "device broken": ([event("trusted", device=without(HEADSET, "uuids"))], "'uuids'"),
    "connected before trusted": ([event("connected"), event("trusted")], "event order"),
    "repeated passkey": ([event("passkey", passkey="004711")] * 2, "twice"),
    "device dropped": ([event("passkey", device=HEADSET, passkey="004711"), event("trusted")],
                       "lost the device"),
}
INVALID = {**{name: (validate_result, *case) for name, case in BAD_RESULTS.items()},
           **{name: (validate_events, *case) for name, case in BAD_EVENTS.items()}}


@pytest.mark.parametrize("validate,value,expected", INVALID.values(), ids=INVALID.keys())
def test_invalid_documents_fail(validate, value, expected):
    with pytest.raises(ContractError) as caught:
        validate(value)
    assert any(expected in problem for problem in caught.value.problems), caught.value.problems
