# bluetoothd 5.66 as the real-BlueZ tier (tests/realbluez) saw it in its VM, recorded in
# bluetoothd-5.66.json: its replies to three tables of calls (the refused pairing among them),
# the D-Bus types of its adapter and device properties, and the layout of the files its store
# keeps for a pairing. The VM's guest puts these questions to the real daemon, and
# test_bluetoothd.py to the simulator, through the functions here. In a call, {dev} stands for
# the peer's device path; /probe/agent is an agent of the caller that refuses whatever it is asked.

import configparser
import json
import subprocess
from pathlib import Path

import dbus
import dbus.lowlevel
from gi.repository import GLib

RECORDING = Path(__file__).with_name('bluetoothd-5.66.json')
HCI0, DEVICE, PROPS = '/org/bluez/hci0', 'org.bluez.Device1', 'org.freedesktop.DBus.Properties'


def recording():
    return json.loads(RECORDING.read_text())


def probe(conn, calls, device):
    # Each call of a table, in order, with the reply it got ("ok" or [error name, message]) and
    # the agent's callbacks that came meanwhile. conn needs the GLib main loop.
    asked, answers = [], {}

    def refuse(_conn, message):
        if not isinstance(message, dbus.lowlevel.MethodCallMessage) or \
                message.get_path() != '/probe/agent':
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        asked.append(message.get_member())
        conn.send_message(dbus.lowlevel.ErrorMessage(message, 'org.bluez.Error.Rejected',
                                                     'refused by the probe'))
        return dbus.lowlevel.HANDLER_RESULT_HANDLED

    def fill(value):
        return value.format(dev=device) if isinstance(value, str) else value
    conn.add_message_filter(refuse)
    for label, c in calls.items():
        reply = call(conn, fill(c['path']), c['interface'], c['method'], c['signature'],
                     [fill(a) for a in c['args']])
        answers[label] = dict(c, reply=reply, asked=asked[:])
        del asked[:]
    conn.remove_message_filter(refuse)
    return answers


def call(conn, path, interface, method, signature, args):
    # The reply's value, "ok" for an empty one, or [error name, message]. Waits in the main
    # loop, so that the daemon can call back this connection's agent.
    loop, replies = GLib.MainLoop(), []

    def done(*reply):
        replies.append(reply[0] if reply else 'ok')
        loop.quit()
    conn.call_async('org.bluez', path, interface, method, signature, args, done,
                    lambda e: done([e.get_dbus_name(), e.get_dbus_message()]), timeout=60)
    loop.run()
    return replies[0]


def property_types(address, device):
    # The D-Bus type of each property as the daemon sends it, of hci0 and of the device.
    def types(path, interface):
        out = subprocess.run(['busctl', '--address=' + address, '--json=short', 'call',
                              'org.bluez', path, PROPS, 'GetAll', 's', interface],
                             capture_output=True, text=True, timeout=30, check=True).stdout
        return {name: value['type'] for name, value in json.loads(out)['data'][0].items()}
    return {'adapter': types(HCI0, 'org.bluez.Adapter1'), 'device': types(device, DEVICE)}


def info_layout(text):
    # An info file's sections with their keys in order, [General] with its values (those of
    # the other sections are keys that change with every pairing).
    info = configparser.ConfigParser(interpolation=None)
    info.optionxform = str
    info.read_string(text)
    return {name: ['%s=%s' % item for item in info[name].items()] if name == 'General'
            else list(info[name]) for name in info.sections()}
