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


class ContractError(AssertionError):
    def __init__(self, what, problems):
        self.problems = list(problems)
        super().__init__(what + ' breaks the contract:\n  ' + '\n  '.join(self.problems))


def _validator(name):
    # Each is stored under its file's address, so that references between
    # them resolve to these files, wherever the tree is.
    schemas = {path.as_uri(): dict(json.loads(path.read_text()), **{'$id': path.as_uri()})
               for path in SCHEMA_DIR.glob('*.json')}
    # JSON Schema counts 5.0 as an integer; the tool must write plain 5.
    checker = jsonschema.Draft202012Validator.TYPE_CHECKER.redefine(
        'integer', lambda _, value: isinstance(value, int) and not isinstance(value, bool))
    strict = jsonschema.validators.extend(jsonschema.Draft202012Validator, type_checker=checker)
    schema = schemas[(SCHEMA_DIR / name).as_uri()]
    return strict(schema, resolver=jsonschema.RefResolver.from_schema(schema, store=schemas))


VALIDATORS = {'result line': _validator('result.schema.json'),
              'event file': _validator('events.schema.json')}


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
