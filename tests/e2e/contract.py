"""Checks kelvane's machine-readable output against its published contract.

The JSON Schemas under schema/ are the contract that embedding programs code
against. These helpers apply them, plus the properties a schema cannot
express (one compact line, ascending key order, no duplicate keys, device
order, event sequence), to whatever the end-to-end tests capture:

    from contract import validate_result, validate_events
    doc = validate_result(completed.stdout)      # bytes, str or parsed dict
    events = validate_events(Path(event_file).read_bytes())

Both return the parsed value and raise ContractError listing every problem.
Integers must be real integers: 5.0 where an integer belongs is rejected.
"""

import json
import re
from pathlib import Path

import jsonschema

SCHEMA_DIR = Path(__file__).resolve().parents[2] / "schema"
RESULT_SCHEMA_PATH = SCHEMA_DIR / "result.schema.json"
EVENTS_SCHEMA_PATH = SCHEMA_DIR / "events.schema.json"


class ContractError(AssertionError):
    """Output that breaks the contract; the message lists every violation."""

    def __init__(self, what, problems):
        self.problems = list(problems)
        super().__init__(what + " breaks the contract:\n  " + "\n  ".join(self.problems))


def _strict_integer(checker, instance):
    # JSON Schema counts 5.0 as an integer; the tool must write plain 5.
    return isinstance(instance, int) and not isinstance(instance, bool)


_StrictValidator = jsonschema.validators.extend(
    jsonschema.Draft202012Validator,
    type_checker=jsonschema.Draft202012Validator.TYPE_CHECKER.redefine(
        "integer", _strict_integer
    ),
)


def _load_schema(path):
    schema = json.loads(path.read_text(encoding="utf-8"))
    # The files carry no $id so that they resolve relative to wherever they
    # are installed; give each its file URI so the cross-file $ref resolves.
    schema.setdefault("$id", path.as_uri())
    return schema


def _make_validators():
    result_schema = _load_schema(RESULT_SCHEMA_PATH)
    events_schema = _load_schema(EVENTS_SCHEMA_PATH)
    for schema in (result_schema, events_schema):
        jsonschema.Draft202012Validator.check_schema(schema)
    store = {result_schema["$id"]: result_schema, events_schema["$id"]: events_schema}
    try:
        from referencing import Registry, Resource  # jsonschema >= 4.18

        registry = Registry().with_resources(
            (uri, Resource.from_contents(schema)) for uri, schema in store.items()
        )
        kwargs = lambda schema: {"registry": registry}  # noqa: E731
    except ImportError:
        kwargs = lambda schema: {  # noqa: E731
            "resolver": jsonschema.RefResolver.from_schema(schema, store=store)
        }
    return (
        _StrictValidator(result_schema, **kwargs(result_schema)),
        _StrictValidator(events_schema, **kwargs(events_schema)),
    )


RESULT_VALIDATOR, EVENTS_VALIDATOR = _make_validators()


# ---------------------------------------------------------------- raw text


def _compactness_problems(text):
    """Whitespace outside strings means the writer was not in compact mode."""
    in_string = escaped = False
    for index, char in enumerate(text):
        if in_string:
            if escaped:
                escaped = False
            elif char == "\\":
                escaped = True
            elif char == '"':
                in_string = False
        elif char == '"':
            in_string = True
        elif char in " \t\r\n":
            return [f"whitespace outside a string at offset {index} (not compact)"]
    return []


def _ordered_object(problems):
    def hook(pairs):
        keys = [key for key, _ in pairs]
        if len(set(keys)) != len(keys):
            problems.append(f"duplicate key in object with keys {keys}")
        if keys != sorted(keys):
            problems.append(f"keys not in ascending order: {keys}")
        return dict(pairs)

    return hook


def _reject_constant(name):
    raise ValueError(f"non-standard JSON constant {name}")


def parse_line(raw, what="output"):
    """Parses one compact JSON line as the tool writes it (text + one newline)."""
    if isinstance(raw, (bytes, bytearray)):
        try:
            raw = bytes(raw).decode("utf-8")
        except UnicodeDecodeError as error:
            raise ContractError(what, [f"not UTF-8: {error}"]) from None
    problems = []
    if not raw.endswith("\n"):
        problems.append("does not end with a newline")
    body = raw[:-1] if raw.endswith("\n") else raw
    if "\n" in body:
        problems.append("more than one line")
    problems += _compactness_problems(body)
    try:
        value = json.loads(
            body, object_pairs_hook=_ordered_object(problems), parse_constant=_reject_constant
        )
    except ValueError as error:
        raise ContractError(what, problems + [f"not JSON: {error}"]) from None
    if problems:
        raise ContractError(what, problems)
    return value


# ---------------------------------------------------------------- semantics


def _label_for(device):
    return device["name"] or device["alias"] or "[unknown]"


def _sort_key(device):
    # Devices with an RSSI first, strongest first; then by address. Python
    # compares str by code point, which is the UTF-8 byte order the tool uses.
    rssi = device["rssi"]
    return (0, -rssi, "") if rssi is not None else (1, 0, device["address"])


def _device_problems(device, where):
    problems = []
    if device["label"] != _label_for(device):
        problems.append(
            f"{where}: label {device['label']!r} should be {_label_for(device)!r}"
        )
    return problems


def _result_semantic_problems(doc):
    devices = doc["devices"]
    problems = []
    for index, device in enumerate(devices):
        problems += _device_problems(device, f"devices[{index}]")
    addresses = [device["address"] for device in devices]
    duplicates = sorted({a for a in addresses if addresses.count(a) > 1})
    if duplicates:
        problems.append(f"device addresses listed twice: {duplicates}")
    keys = [_sort_key(device) for device in devices]
    for index in range(1, len(keys)):
        before, after = keys[index - 1], keys[index]
        # Equal RSSI values have no defined order among themselves.
        if before[:2] > after[:2] or (before[0] == 1 and before > after):
            problems.append(
                f"devices[{index - 1}] ({addresses[index - 1]}) should not come "
                f"before devices[{index}] ({addresses[index]})"
            )
    return problems


_EVENT_SEQUENCE = re.compile(r"(passkey,)*(trusted,(connected,)?)?")


def _events_semantic_problems(events):
    problems = []
    names = "".join(event["event"] + "," for event in events)
    if not _EVENT_SEQUENCE.fullmatch(names):
        problems.append(
            "event order must be passkey events, then trusted, then connected: "
            + names.rstrip(",")
        )
    passkeys = [event["passkey"] for event in events if event["event"] == "passkey"]
    for index in range(1, len(passkeys)):
        if passkeys[index] == passkeys[index - 1]:
            problems.append(f"passkey {passkeys[index]} logged twice in a row")
    seen_device = False
    for index, event in enumerate(events):
        if "device" in event:
            seen_device = True
            problems += _device_problems(event["device"], f"[{index}].device")
        elif seen_device:
            problems.append(f"[{index}] lost the device that earlier events carried")
    return problems


# ---------------------------------------------------------------- entry points


def _schema_problems(validator, value):
    return [
        f"{'/'.join(str(p) for p in error.absolute_path) or '(root)'}: {error.message}"
        for error in sorted(validator.iter_errors(value), key=lambda e: list(e.absolute_path))
    ]


def result_problems(doc):
    """Every contract violation of a parsed result document (empty when valid)."""
    problems = _schema_problems(RESULT_VALIDATOR, doc)
    return problems or _result_semantic_problems(doc)


def events_problems(events):
    """Every contract violation of a parsed event array (empty when valid)."""
    problems = _schema_problems(EVENTS_VALIDATOR, events)
    return problems or _events_semantic_problems(events)


def validate_result(doc):
    """Checks one result document: the raw stdout line (bytes/str) or a parsed dict."""
    if isinstance(doc, (bytes, bytearray, str)):
        doc = parse_line(doc, "result line")
    problems = result_problems(doc)
    if problems:
        raise ContractError("result document", problems)
    return doc


def validate_events(events):
    """Checks the pairing event file: its raw content (bytes/str) or a parsed list."""
    if isinstance(events, (bytes, bytearray, str)):
        events = parse_line(events, "event file")
    problems = events_problems(events)
    if problems:
        raise ContractError("event file", problems)
    return events
