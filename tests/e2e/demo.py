'''A small world for demonstrations (scripts/run.sh, scripts/bluez-sim):
two adapters and a handful of devices, some of which only show up once
discovery has been running for a while, the way real ones do.'''

A2DP_SINK = '0000110b-0000-1000-8000-00805f9b34fb'
AVRCP = '0000110e-0000-1000-8000-00805f9b34fb'
HID = '00001124-0000-1000-8000-00805f9b34fb'
HEART_RATE = '0000180d-0000-1000-8000-00805f9b34fb'


def load_demo(sim):
    '''Populates a running simulator (simbus.Sim).'''
    sim.add_adapter('hci0', address='00:1A:7D:DA:71:13', name='kelvane-demo')
    sim.add_adapter('hci1', address='5C:F3:70:8B:12:04', name='kelvane-demo-usb', powered=False)

    # Known to BlueZ before any scan: a paired speaker that is switched off.
    sim.add_device('hci0', '00:1B:DC:F2:3A:9E', name='Office Speaker', icon='audio-card',
                   device_class=0x240414, uuids=[A2DP_SINK, AVRCP], paired=True, bonded=True,
                   trusted=True)
    sim.add_device('hci0', 'C8:7B:23:9A:11:F0', name='Desk Keyboard', icon='input-keyboard',
                   device_class=0x002540, appearance=0x03c1, rssi=-67, uuids=[HID],
                   pairing='display-passkey')
    phone = sim.add_device('hci0', 'F4:7D:EF:21:55:0A', name='Pocket Phone', icon='phone',
                           device_class=0x5a020c, rssi=-71, appear_after=1.5)
    sim.schedule(phone, 4, rssi=-52)
    sim.add_device('hci0', '38:18:4C:0D:4E:2B', name='Travel Headphones', icon='audio-headset',
                   device_class=0x240404, rssi=-74, uuids=[A2DP_SINK, AVRCP], appear_after=3)
    sim.add_device('hci0', 'E3:12:9A:44:07:C2', name='Fitness Band', appearance=0x00c2,
                   rssi=-88, uuids=[HEART_RATE], address_type='random', appear_after=5,
                   pairing='just-works')
    sim.add_device('hci1', '7C:2F:80:5A:B1:03', name='Kitchen Tablet', icon='computer',
                   device_class=0x5a011c, rssi=-63, appear_after=2)
