'''Scenario files: a simulated world described in JSON.

A scenario names the adapters, the devices around them (their properties,
when discovery finds them, how their pairing goes), faults to inject and
settings of the simulator; scenario.schema.json is its contract. read()
checks a file against the schema and against what a schema cannot say
(devices name adapters of the same file, nothing is declared twice);
apply() builds the world through a Sim, the same calls a Python program
would make.
'''

import json
from pathlib import Path

HERE = Path(__file__).resolve().parent
SCHEMA_PATH = HERE / 'scenario.schema.json'
DEMO_PATH = HERE / 'demo.json'

# Keys of an adapter or device entry that are properties, and the keyword
# of Sim.add_adapter / Sim.add_device each one is given as.
VALUE_KEYS = {
    'address': 'address', 'name': 'name', 'alias': 'alias', 'powered': 'powered',
    'pairable': 'pairable', 'discoverable': 'discoverable', 'icon': 'icon',
    'class': 'device_class', 'appearance': 'appearance', 'rssi': 'rssi', 'uuids': 'uuids',
    'address_type': 'address_type', 'paired': 'paired', 'bonded': 'bonded',
    'trusted': 'trusted', 'blocked': 'blocked', 'connected': 'connected',
    'legacy_pairing': 'legacy_pairing', 'modalias': 'modalias',
}
PAIRING_OPTIONS = ('passkey', 'pin', 'delay', 'without_agent', 'page_timeout')


class ScenarioError(ValueError):
    '''A scenario that cannot be loaded; the message lists every problem.'''


def read(path):
    '''The scenario in the file at path, checked.'''
    try:
        data = json.loads(Path(path).read_text(encoding='utf-8'))
    except (OSError, UnicodeDecodeError) as e:
        raise ScenarioError('%s: %s' % (path, e)) from None
    except json.JSONDecodeError as e:
        raise ScenarioError('%s: not JSON: %s' % (path, e)) from None
    found = problems(data)
    if found:
        raise ScenarioError('\n'.join('%s: %s' % (path, problem) for problem in found))
    return data


def problems(data, whole=True):
    '''What is wrong with a scenario, as "where: what" texts; empty when
    nothing is. A whole world (a file) must also declare every adapter its
    devices name; a part added to a running simulator may use its adapters.'''
    import jsonschema  # pylint: disable=import-outside-toplevel

    validator = jsonschema.Draft202012Validator(json.loads(SCHEMA_PATH.read_text()))
    errors = sorted(validator.iter_errors(data), key=lambda e: list(e.path))
    found = ['%s: %s' % (_where(error.absolute_path), error.message)
             for error in errors if not _echo(error, errors)]
    return found or (_cross_references(data) if whole else [])


def _echo(error, errors):
    '''A device whose shared properties failed to validate also reports all
    of them as unknown ("unevaluated"); that echo of the real error is left
    out.'''
    path = tuple(error.absolute_path)
    return error.validator == 'unevaluatedProperties' and any(
        other.validator != 'unevaluatedProperties'
        and tuple(other.absolute_path)[:len(path)] == path for other in errors)


def _where(path):
    return ''.join('[%d]' % part if isinstance(part, int) else '.' + part
                   for part in path).lstrip('.') or '(top)'


def _cross_references(data):
    found = []
    adapters = [adapter['id'] for adapter in data.get('adapters', [])]
    found += ['adapters: %s is declared twice' % name
              for name in sorted({a for a in adapters if adapters.count(a) > 1})]
    seen = set()
    for index, device in enumerate(data.get('devices', [])):
        where = 'devices[%d]' % index
        if device['adapter'] not in adapters:
            found.append('%s.adapter: no adapter %s in this scenario' % (where, device['adapter']))
        key = (device['adapter'], device['address'].upper())
        if key in seen:
            found.append('%s: %s is declared twice on %s' % (where, key[1], key[0]))
        seen.add(key)
    return found


def _number(value):
    return int(value, 16) if isinstance(value, str) else value


def _values(entry):
    '''The Sim keyword arguments of an entry's property keys.'''
    return {VALUE_KEYS[key]: _number(value) if key in ('class', 'appearance') else value
            for key, value in entry.items() if key in VALUE_KEYS}


def pairing_arguments(pairing):
    '''(pairing, options) for Sim.set_pairing from a scenario's pairing.'''
    if isinstance(pairing, str):
        return pairing, {}
    options = {key: pairing[key] for key in PAIRING_OPTIONS if key in pairing}
    for key in ('error', 'reject_error'):
        if key in pairing:
            options[key] = (pairing[key]['name'], pairing[key]['message'])
    return pairing.get('steps', pairing.get('mode', 'confirm')), options


def apply(sim, data):
    '''Builds the scenario's world in a running simulator (a Sim).'''
    found = problems(data, whole=False)
    if found:
        raise ScenarioError('\n'.join(found))
    for adapter in data.get('adapters', []):
        sim.add_adapter(adapter['id'], adapter.get('properties'), adapter.get('omit', ()),
                        **_values(adapter))
    for device in data.get('devices', []):
        _add_device(sim, device)
    for fault in data.get('faults', []):
        times = fault.get('times', 1)
        sim.fault(fault['method'], fault['error'], fault.get('message', 'Failed'),
                  times=None if times == 'always' else times, path=fault.get('path'),
                  interface=fault.get('interface'), prop=fault.get('property'))
    settings = data.get('settings', {})
    if 'object_managers' in settings:
        sim.object_managers(*settings['object_managers'])
    if settings.keys() - {'object_managers'}:
        sim.configure(agent_timeout=settings.get('agent_timeout'),
                      list_manager=settings.get('list_manager'))


def _add_device(sim, device):
    values = _values(device)
    path = sim.add_device(device['adapter'], values.pop('address'), device.get('properties'),
                          device.get('omit', ()), appear_after=device.get('appear_after'),
                          vanish_after=device.get('vanish_after'),
                          reappear_after=device.get('reappear_after'),
                          technologies=device.get('technologies'), **values)
    for change in device.get('changes', []):
        sim.schedule(path, change['after'], 'update', change.get('properties'),
                     **_values(change))
    if 'pairing' in device:
        pairing, options = pairing_arguments(device['pairing'])
        sim.set_pairing(path, pairing, **options)
    return path
