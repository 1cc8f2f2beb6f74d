# The published contract of kelvane's output, as a consumer checks it: one
# line of JSON that the JSON Schemas under schema/ accept, the schemas
# resolved by their $ids. The bytes themselves (compact, members in ascending
# order, integers as integers) are pinned by the unit tables of result/json.

import json
from pathlib import Path

import jsonschema

SCHEMAS = {schema['$id']: schema for schema in (
    json.loads(path.read_text()) for path in (Path(__file__).resolve().parents[2] / 'schema').glob('*.json'))}


def _validator(name):
    schema = SCHEMAS['https://kelvane.invalid/schema/' + name]
    return jsonschema.Draft202012Validator(
        schema, resolver=jsonschema.RefResolver.from_schema(schema, store=SCHEMAS))


RESULT, EVENTS = _validator('result.schema.json'), _validator('events.schema.json')


def _validate(raw, validator):
    # raw: the bytes or text written; returns it parsed.
    text = raw.decode() if isinstance(raw, bytes) else raw
    assert text.endswith('\n') and text.count('\n') == 1, 'not one line: %r' % text
    value = json.loads(text)
    problems = ['%s: %s' % ('/'.join(map(str, e.absolute_path)) or '(root)', e.message)
                for e in validator.iter_errors(value)]
    assert not problems, 'breaks the schema:\n  ' + '\n  '.join(problems)
    return value


def validate_result(raw):
    return _validate(raw, RESULT)


def validate_events(raw):
    return _validate(raw, EVENTS)
