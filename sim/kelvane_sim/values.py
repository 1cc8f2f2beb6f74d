'''D-Bus values as BlueZ types them, shared by the simulator and its client.

Scenario files, the command line and the Python API give plain values
("rssi": -60); BlueZ sends them with fixed D-Bus types (int16). The table
here is the one place that knows those types, so the simulator, the client
and the store agree on them. Values that already are dbus-python types are
kept as they are: that is how a test gives a property a wrong type on
purpose.
'''

import dbus
import dbus.lowlevel


def _string_list(value):
    return dbus.Array([dbus.String(v) for v in value], signature='s')


PROPERTY_TYPES = {
    'Address': dbus.String, 'AddressType': dbus.String, 'Name': dbus.String,
    'Alias': dbus.String, 'Icon': dbus.String, 'Modalias': dbus.String, 'Class': dbus.UInt32,
    'Appearance': dbus.UInt16, 'RSSI': dbus.Int16, 'TxPower': dbus.Int16, 'UUIDs': _string_list,
    'Adapter': dbus.ObjectPath, 'Powered': dbus.Boolean, 'Discoverable': dbus.Boolean,
    'Pairable': dbus.Boolean, 'Discovering': dbus.Boolean, 'Paired': dbus.Boolean,
    'Bonded': dbus.Boolean, 'Trusted': dbus.Boolean, 'Blocked': dbus.Boolean,
    'Connected': dbus.Boolean, 'LegacyPairing': dbus.Boolean, 'ServicesResolved': dbus.Boolean,
    'WakeAllowed': dbus.Boolean, 'DiscoverableTimeout': dbus.UInt32,
    'PairableTimeout': dbus.UInt32,
}

# Keyword arguments of add_adapter/add_device (and keys of a scenario file)
# and the property each one sets.
KEYWORDS = {
    'address': 'Address', 'name': 'Name', 'alias': 'Alias', 'icon': 'Icon',
    'device_class': 'Class', 'appearance': 'Appearance', 'rssi': 'RSSI', 'uuids': 'UUIDs',
    'powered': 'Powered', 'pairable': 'Pairable', 'discoverable': 'Discoverable',
    'paired': 'Paired', 'bonded': 'Bonded', 'trusted': 'Trusted', 'blocked': 'Blocked',
    'connected': 'Connected', 'legacy_pairing': 'LegacyPairing', 'address_type': 'AddressType',
    'modalias': 'Modalias',
}


def typed(name, value):
    '''The value with the D-Bus type BlueZ gives property `name`.'''
    if hasattr(value, 'variant_level'):
        return value
    convert = PROPERTY_TYPES.get(name)
    if convert is not None:
        return convert(value)
    if isinstance(value, bool):
        return dbus.Boolean(value)
    if isinstance(value, int):
        return dbus.Int32(value)
    if isinstance(value, float):
        return dbus.Double(value)
    if isinstance(value, (list, tuple)) and all(isinstance(v, str) for v in value):
        return _string_list(value)
    return value


def typed_props(props=None, **keywords):
    '''An a{sv} of BlueZ properties from keywords (name=, rssi=, ...) and a
    dict of property names; keywords left at None are left out.'''
    out = {}
    for key, value in keywords.items():
        if value is not None:
            out[KEYWORDS[key]] = typed(KEYWORDS[key], value)
    for key, value in (props or {}).items():
        out[key] = typed(key, value)
    return dbus.Dictionary(out, signature='sv')


_SIGNATURES = {
    dbus.Boolean: 'b', dbus.Byte: 'y', dbus.Int16: 'n', dbus.UInt16: 'q', dbus.Int32: 'i',
    dbus.UInt32: 'u', dbus.Int64: 'x', dbus.UInt64: 't', dbus.Double: 'd', dbus.String: 's',
    dbus.ObjectPath: 'o', dbus.Signature: 'g', dbus.types.UnixFd: 'h',
}


def signature_of(value):
    '''The D-Bus type of a dbus-python value, ignoring any variant wrapping.'''
    kind = type(value)
    if kind in _SIGNATURES:
        return _SIGNATURES[kind]
    if isinstance(value, dbus.ByteArray):
        return 'ay'
    if isinstance(value, dbus.Dictionary):
        return 'a{%s}' % (value.signature or 'sv')
    if isinstance(value, dbus.Array):
        return 'a' + (value.signature or 'v')
    if isinstance(value, dbus.Struct):
        return '(%s)' % (value.signature or ''.join(signature_of(v) for v in value))
    return dbus.lowlevel.Message.guess_signature(value)


def to_json(value):
    '''A JSON-friendly copy of a dbus-python value (types are dropped).'''
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, dbus.Double):
        return float(value)
    if isinstance(value, int):
        return int(value)
    if isinstance(value, str):
        return str(value)
    if isinstance(value, bytes):
        return list(value)
    if isinstance(value, dict):
        return {str(k): to_json(v) for k, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [to_json(v) for v in value]
    return repr(value)


def plain(value):
    '''Strip the variant wrapping dbus-python keeps on values that came in as
    "v": stored properties must carry their own type, or introspection and
    replies would announce them as variants.'''
    if isinstance(value, dbus.Dictionary):
        return dbus.Dictionary({k: plain(v) for k, v in value.items()}, signature=value.signature)
    if isinstance(value, dbus.Struct):
        return dbus.Struct([plain(v) for v in value], signature=value.signature)
    if isinstance(value, dbus.ByteArray):
        return dbus.ByteArray(value)
    if isinstance(value, dbus.Array):
        return dbus.Array([plain(v) for v in value], signature=value.signature)
    kind = type(value)
    if kind in _SIGNATURES:
        return kind(value)
    return value


def plain_props(props):
    return {str(k): plain(v) for k, v in props.items()}
