# The published contract of kelvane's output, as a consumer checks it: one
# line of JSON that the JSON Schemas under schema/ accept, the schemas
# resolved by their $ids. The bytes themselves (compact, members in ascending
# order, integers as integers) are pinned by the unit tables of result/json.

import json
from pathlib import Path

import jsonschema

SCHEMAS = {schema['$id']: schema for schema in (json.loads(path.read_text()) for path in
           (Path(__file__).resolve().parents[2] / 'schema').glob('*.json'))}


def _validator(name):
    # A check of the bytes or text written that returns them parsed.
    schema = SCHEMAS['https://kelvane.invalid/schema/' + name]
    validator = jsonschema.Draft202012Validator(
        schema, resolver=jsonschema.RefResolver.from_schema(schema, store=SCHEMAS))

    def validate(raw):
        text = raw.decode() if isinstance(raw, bytes) else raw
        assert text.endswith('\n') and text.count('\n') == 1, 'not one line: %r' % text
        value = json.loads(text)
        problems = ['%s: %s' % ('/'.join(map(str, e.absolute_path)) or '(root)', e.message)
                    for e in validator.iter_errors(value)]
        assert not problems, 'breaks the schema:\n  ' + '\n  '.join(problems)
        return value
    return validate


validate_result = _validator('result.schema.json')
validate_events = _validator('events.schema.json')
