# The published contract of kelvane's output: one compact JSON line with the
# members of every object in ascending order, accepted by the JSON Schemas
# under schema/ (integers written as integers). validate_result and
# validate_events take the raw line (or a parsed value) and return it parsed,
# or raise ContractError listing every problem.

import json
import re
from pathlib import Path

import jsonschema

SCHEMA_DIR = Path(__file__).resolve().parents[2] / 'schema'
SCHEMA_ID = 'https://kelvane.invalid/schema/'


class ContractError(AssertionError):
    def __init__(self, what, problems):
        self.problems = list(problems)
        super().__init__(what + ' breaks the contract:\n  ' + '\n  '.join(self.problems))


# The schemas name each other by their $id, as any consumer resolves them.
SCHEMAS = {schema['$id']: schema for schema in (json.loads(path.read_text())
                                                for path in SCHEMA_DIR.glob('*.json'))}
# JSON Schema counts 5.0 as an integer; the tool must write plain 5.
STRICT = jsonschema.validators.extend(
    jsonschema.Draft202012Validator,
    type_checker=jsonschema.Draft202012Validator.TYPE_CHECKER.redefine(
        'integer', lambda _, value: isinstance(value, int) and not isinstance(value, bool)))
VALIDATORS = {what: STRICT(schema, resolver=jsonschema.RefResolver.from_schema(schema,
                                                                              store=SCHEMAS))
              for what, schema in (('result line', SCHEMAS[SCHEMA_ID + 'result.schema.json']),
                                   ('event file', SCHEMAS[SCHEMA_ID + 'events.schema.json']))}


def _validate(raw, what):
    problems = []

    def ordered(pairs):
        keys = [key for key, _ in pairs]
        if keys != sorted(set(keys)):
            problems.append('keys not unique and ascending: %s' % keys)
        return dict(pairs)

    value = raw
    if isinstance(raw, (bytes, str)):
        text = raw.decode() if isinstance(raw, bytes) else raw
        if not text.endswith('\n') or '\n' in text[:-1]:
            problems.append('not one line ending in a newline')
        if re.search(r'\s', re.sub(r'"(?:[^"\\]|\\.)*"', '', text.strip('\n'))):
            problems.append('blanks outside strings (not compact)')
        try:
            value = json.loads(text, object_pairs_hook=ordered)
        except ValueError as error:
            raise ContractError(what, problems + ['not JSON: %s' % error]) from None
    problems += ['%s: %s' % ('/'.join(map(str, e.absolute_path)) or '(root)', e.message)
                 for e in VALIDATORS[what].iter_errors(value)]
    if problems:
        raise ContractError(what, problems)
    return value


def validate_result(raw):
    return _validate(raw, 'result line')


def validate_events(raw):
    return _validate(raw, 'event file')
