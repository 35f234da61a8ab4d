#!/usr/bin/python3
# -*- coding: utf-8 -*-
"""Mock bluetoothd for the tests of QueltLibrary's BlueZ backend.

Connects to the bus named by DBUS_SYSTEM_BUS_ADDRESS (it refuses to run
without it, so it never takes over a real system bus), takes the name
org.bluez and serves python-dbusmock's bluez5 template, extended with what
the template lacks: GATT services and characteristics, working discovery with
filters and RSSI updates, a connection life cycle that resolves services,
GATT write rules, simulated devices that speak QueltLibrary's protocols, and a
control interface for tests (org.bluez.Test at /org/bluez/test).

See README.md beside this file for the device set and the control interface.

Usage:
    mock_bluez.py [--default-devices] [--device ADDR,NAME,BEHAVIOUR,RSSI ...]
                  [--unpowered] [--no-adapter]
"""

import argparse
import json
import logging
import os
import random
import re
import socket
import sys
import time

import dbus
import dbus.lowlevel
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

from dbusmock import mockobject
from dbusmock.mockobject import OBJECT_MANAGER_IFACE

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import slide_window  # noqa: E402  (local module beside this file)

log = logging.getLogger('mock_bluez')

BUS_NAME = 'org.bluez'
ADAPTER_NAME = 'hci0'
ADAPTER_PATH = '/org/bluez/' + ADAPTER_NAME
ADAPTER_IFACE = 'org.bluez.Adapter1'
DEVICE_IFACE = 'org.bluez.Device1'
GATT_SERVICE_IFACE = 'org.bluez.GattService1'
GATT_CHRC_IFACE = 'org.bluez.GattCharacteristic1'
GATT_DESC_IFACE = 'org.bluez.GattDescriptor1'
PROPS_IFACE = dbus.PROPERTIES_IFACE

TEST_PATH = '/org/bluez/test'
TEST_IFACE = 'org.bluez.Test'
TEST_ERROR = 'org.bluez.Test.Error'

NUS_SERVICE_UUID = '6e400001-b5a3-f393-e0a9-e50e24dcca9e'
NUS_TX_UUID = '6e400002-b5a3-f393-e0a9-e50e24dcca9e'   # central writes here
NUS_RX_UUID = '6e400003-b5a3-f393-e0a9-e50e24dcca9e'   # central is notified here
GATT_PROFILE_UUID = '00001801-0000-1000-8000-00805f9b34fb'
SERVICE_CHANGED_UUID = '00002a05-0000-1000-8000-00805f9b34fb'
CCCD_UUID = '00002902-0000-1000-8000-00805f9b34fb'
HEART_RATE_UUID = '0000180d-0000-1000-8000-00805f9b34fb'
HR_MEASUREMENT_UUID = '00002a37-0000-1000-8000-00805f9b34fb'
HR_BODY_LOCATION_UUID = '00002a38-0000-1000-8000-00805f9b34fb'
BATTERY_SERVICE_UUID = '0000180f-0000-1000-8000-00805f9b34fb'

NORDIC_COMPANY_ID = 0x0059

BEHAVIOURS = ('sw-echo', 'chunk-echo', 'sink', 'heart-rate')
NUS_BEHAVIOURS = ('sw-echo', 'chunk-echo', 'sink')

DEFAULT_DEVICES = [
    # address, name, behaviour, rssi
    ('C0:FF:EE:00:00:01', 'QLT-Echo', 'sw-echo', -55),
    ('C0:FF:EE:00:00:02', 'QLT-Chunk', 'chunk-echo', -62),
    ('C0:FF:EE:00:00:03', 'HR-Sensor', 'heart-rate', -70),
]

DEFAULT_MTU = 185
CONNECT_DELAY_MS = 40        # Connect() until Connected=true
RESOLVE_DELAY_MS = 60        # Connected=true until the GATT objects and ServicesResolved=true
DISCONNECT_DELAY_MS = 10
NOTIFY_DELAY_MS = 5          # CCC descriptor write of StartNotify/StopNotify
REQUEST_DELAY_MS = 20        # time a write request stays outstanding
FIRST_SCAN_TICK_MS = 20
SCAN_TICK_MS = 100           # advertising report period while discovering
WRITE_LOG_LIMIT = 4096       # values kept for TakeWrites()
NOTIFY_SEND_TIMEOUT_S = 1.0  # a notification waits this long for room in an acquired socket

# Whether NUS devices offer AcquireWrite/AcquireNotify (WriteAcquired/NotifyAcquired), unless
# a device says otherwise (option Acquire, control method SetAcquire).
ACQUIRE_DEFAULT = os.environ.get('QLT_MOCK_BLUEZ_ACQUIRE', '1') != '0'

ADDRESS_RE = re.compile(r'^([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}$')
FILTER_KEYS = {
    'UUIDs': 'as', 'RSSI': 'n', 'Pathloss': 'q', 'Transport': 's',
    'DuplicateData': 'b', 'Discoverable': 'b', 'Pattern': 's',
}

WORLD = None   # the single World instance


# ------------------------------------------------------------------ helpers

def bluez_error(name, message):
    return dbus.exceptions.DBusException(message, name='org.bluez.Error.' + name)


def test_error(name, message):
    log.warning('control: %s', message)
    return dbus.exceptions.DBusException(message, name=TEST_ERROR + '.' + name)


def byte_array(value):
    return dbus.Array(bytes(value), signature='y')


def normalise_uuid(text):
    text = str(text).lower()
    if re.fullmatch(r'[0-9a-f]{4}', text):
        return f'0000{text}-0000-1000-8000-00805f9b34fb'
    if re.fullmatch(r'[0-9a-f]{8}', text):
        return f'{text}-0000-1000-8000-00805f9b34fb'
    return text


def send_signal(path, iface, member, signature, args):
    """Emit a signal without dbusmock's per-signal logging (hot paths)."""
    if WORLD is None or WORLD.bus is None:
        return
    msg = dbus.lowlevel.SignalMessage(path, iface, member)
    msg.append(*args, signature=signature)
    WORLD.bus.send_message(msg)


def props_changed(path, iface, changed, invalidated=()):
    send_signal(path, PROPS_IFACE, 'PropertiesChanged', 'sa{sv}as',
                [iface, dbus.Dictionary(changed, signature='sv'),
                 dbus.Array(invalidated, signature='s')])


def interfaces_added(path, props_by_iface):
    send_signal('/', OBJECT_MANAGER_IFACE, 'InterfacesAdded', 'oa{sa{sv}}',
                [dbus.ObjectPath(path), props_by_iface])


def interfaces_removed(path, ifaces):
    send_signal('/', OBJECT_MANAGER_IFACE, 'InterfacesRemoved', 'oas',
                [dbus.ObjectPath(path), dbus.Array(ifaces, signature='s')])


def set_prop(obj, iface, name, value, emit=True):
    obj.props[iface][name] = value
    if emit:
        props_changed(obj.path, iface, {name: value})


def install_method(obj, iface, name, func):
    """Register a dbus-python method function on one dbusmock object only."""
    func.__name__ = name    # introspection data takes the method name from the function
    obj.methods.setdefault(iface, {})[name] = (
        func._dbus_in_signature, func._dbus_out_signature, '', func)


def guarded(what):
    """Decorator for GLib callbacks and handlers: log exceptions instead of dying."""
    def wrap(func):
        def run(*args, **kwargs):
            try:
                return func(*args, **kwargs)
            except Exception:  # never take the mock down
                log.exception('%s failed', what)
                return False
        run.__name__ = func.__name__
        return run
    return wrap


def later(ms, func, *args):
    """Run func(*args) once after ms milliseconds, with exceptions logged."""
    def fire():
        try:
            func(*args)
        except Exception:
            log.exception('deferred %s failed', getattr(func, '__name__', func))
        return GLib.SOURCE_REMOVE
    return GLib.timeout_add(ms, fire)


# ------------------------------------------------------------------ simulated devices

class SimDevice:
    """One device on the air, and its D-Bus object once the adapter has seen it."""

    def __init__(self, world, address, name, behaviour, rssi, options=None):
        options = options or {}
        self.world = world
        self.address = address.upper()
        self.name = name
        self.behaviour = behaviour
        self.base_rssi = int(rssi)
        self.rssi = int(rssi)
        self.mtu = int(options.get('Mtu', DEFAULT_MTU))
        self.address_type = str(options.get('AddressType', 'random'))
        self.acquire = bool(options.get('Acquire', ACQUIRE_DEFAULT))
        self.acquired = {}              # role ('tx', 'rx') -> (our socket end, GLib watch id)
        self.acquire_fault = ''         # '', 'pipe', 'mtu0' or 'types': what a broken daemon hands out
        self.request_delay_ms = REQUEST_DELAY_MS
        primary = NUS_SERVICE_UUID if behaviour in NUS_BEHAVIOURS else HEART_RATE_UUID
        self.uuids = [normalise_uuid(u) for u in options.get('UUIDs', [primary])]
        if 'ManufacturerData' in options:
            self.manufacturer_data = {int(k): bytes(v) for k, v in options['ManufacturerData'].items()}
        elif behaviour == 'heart-rate':
            self.manufacturer_data = {0x00D2: b'\x01\x02'}
        else:
            self.manufacturer_data = {NORDIC_COMPANY_ID: b'QLT' + bytes([BEHAVIOURS.index(behaviour)])}
        if 'ServiceData' in options:
            self.service_data = {normalise_uuid(k): bytes(v) for k, v in options['ServiceData'].items()}
        elif behaviour == 'heart-rate':
            self.service_data = {BATTERY_SERVICE_UUID: b'\x64'}
        else:
            self.service_data = None    # not advertised: the property is absent
        self.rssi_rng = random.Random(int(self.address.replace(':', ''), 16))

        self.obj = None                 # dbusmock object while visible on the bus
        self.connected = False
        self.pending_connect = None     # (ok, err) of a Connect() in progress
        self.fail_next_connect = None   # D-Bus error name for the next Connect()
        self.link_gen = 0               # bumped on every link loss; stale timers check it
        self.gatt_paths = []            # GATT object paths, in creation order
        self.gatt_objs = {}             # role -> dbusmock object ('tx', 'rx', ...)
        self.notify_senders = {}        # chrc path -> set of bus names with a notify session
        self.request_busy = False
        self.peer = None                # SlideWindowPeer of a connected sw-echo device
        self.write_loss = (0.0, random.Random(0))
        self.notify_loss = (0.0, random.Random(0))
        self.writes = []                # values written to the NUS write characteristic
        self.reset_stats()

    # -------------------------------------------------------------- bookkeeping

    @property
    def path(self):
        return f'{ADAPTER_PATH}/dev_{self.address.replace(":", "_")}'

    @property
    def is_nus(self):
        return self.behaviour in NUS_BEHAVIOURS

    def reset_stats(self):
        self.stats = {
            'command': 0, 'request': 0, 'untyped': 0, 'failed': 0, 'in-progress': 0,
            'bytes': 0, 'lost-writes': 0, 'notifications': 0, 'lost-notifications': 0,
            'last-type': '', 'last-options': {}, 'acquired-writes': 0, 'acquired-notifications': 0,
        }
        self.writes = []

    def to_json(self):
        return {'address': self.address, 'name': self.name, 'behaviour': self.behaviour,
                'rssi': self.base_rssi, 'mtu': self.mtu, 'acquire': self.acquire}

    # -------------------------------------------------------------- D-Bus object

    def device_props(self):
        props = {
            'Address': dbus.String(self.address),
            'AddressType': dbus.String(self.address_type),
            'Name': dbus.String(self.name),
            'Alias': dbus.String(self.name),
            'Paired': dbus.Boolean(False),
            'Bonded': dbus.Boolean(False),
            'Trusted': dbus.Boolean(False),
            'Blocked': dbus.Boolean(False),
            'LegacyPairing': dbus.Boolean(False),
            'Connected': dbus.Boolean(self.connected),
            'ServicesResolved': dbus.Boolean(False),
            'UUIDs': dbus.Array(self.uuids, signature='s'),
            'Adapter': dbus.ObjectPath(ADAPTER_PATH),
            'RSSI': dbus.Int16(self.rssi),
            'ManufacturerData': self.manufacturer_data_value(),
            'AdvertisingFlags': byte_array(b'\x06'),
        }
        if self.service_data is not None:
            props['ServiceData'] = self.service_data_value()
        return props

    def manufacturer_data_value(self):
        return dbus.Dictionary({dbus.UInt16(k): byte_array(v) for k, v in self.manufacturer_data.items()},
                               signature='qv')

    def service_data_value(self):
        return dbus.Dictionary({dbus.String(k): byte_array(v) for k, v in self.service_data.items()},
                               signature='sv')

    def publish(self):
        """Create the Device1 object (the adapter has just seen an advertisement)."""
        if self.obj is not None:
            return
        props = self.device_props()
        self.world.root.AddObject(self.path, DEVICE_IFACE, props, [])
        self.obj = mockobject.objects[self.path]
        self.obj.sim_device = self
        for name, func in DEVICE_METHODS.items():
            install_method(self.obj, DEVICE_IFACE, name, func)
        interfaces_added(self.path, {DEVICE_IFACE: props})
        log.info('device %s (%s) appeared at %s', self.name, self.address, self.path)

    def unpublish(self):
        """Remove the Device1 object (and its link and GATT objects) from the bus."""
        if self.obj is None:
            return
        if self.connected or self.pending_connect:
            self.link_down('device removed', emit=True)
        self.world.root.RemoveObject(self.path)
        self.obj = None
        interfaces_removed(self.path, [DEVICE_IFACE])
        log.info('device %s (%s) removed from the bus', self.name, self.address)

    def advertise(self):
        """One advertising report received during discovery."""
        if self.obj is None:
            self.publish()
            return
        step = self.rssi_rng.choice((-3, -2, -1, 1, 2, 3))
        new = max(self.base_rssi - 6, min(self.base_rssi + 6, self.rssi + step))
        if new == self.rssi:
            new = self.rssi - step
        self.rssi = new
        set_prop(self.obj, DEVICE_IFACE, 'RSSI', dbus.Int16(self.rssi))

    def invalidate_rssi(self):
        if self.obj is not None and 'RSSI' in self.obj.props[DEVICE_IFACE]:
            del self.obj.props[DEVICE_IFACE]['RSSI']
            props_changed(self.path, DEVICE_IFACE, {}, ['RSSI'])

    # -------------------------------------------------------------- link life cycle

    def connect(self, ok, err):
        if not self.world.powered:
            err(bluez_error('NotReady', 'Resource Not Ready'))
            return
        if self.connected:
            err(bluez_error('AlreadyConnected', 'Already Connected'))
            return
        if self.pending_connect:
            err(bluez_error('InProgress', 'In Progress'))
            return
        gen = self.link_gen
        if self.fail_next_connect:
            name, self.fail_next_connect = self.fail_next_connect, None
            log.info('%s: failing Connect() with %s as requested', self.name, name)
            later(CONNECT_DELAY_MS, err, dbus.exceptions.DBusException(
                'Simulated connection failure', name=name))
            return
        self.pending_connect = (ok, err)
        later(CONNECT_DELAY_MS, self._link_up, gen)

    def _link_up(self, gen):
        if gen != self.link_gen or not self.pending_connect or self.obj is None:
            return
        self.connected = True
        set_prop(self.obj, DEVICE_IFACE, 'Connected', dbus.Boolean(True))
        log.info('%s: connected', self.name)
        if self.behaviour == 'sw-echo':
            self.peer = slide_window.SlideWindowPeer(
                self.notify, on_segment=self._echo_segment, on_datagram=self._echo_datagram,
                name=f'{self.name} sw-echo')
            self.peer.start()
        later(RESOLVE_DELAY_MS, self._resolve_services, gen)

    def _resolve_services(self, gen):
        if gen != self.link_gen or not self.connected:
            return
        self.add_gatt_objects()
        set_prop(self.obj, DEVICE_IFACE, 'ServicesResolved', dbus.Boolean(True))
        log.info('%s: services resolved', self.name)
        if self.pending_connect:
            ok, _ = self.pending_connect
            self.pending_connect = None
            ok()

    def disconnect(self, ok, err):
        if not self.connected and not self.pending_connect:
            err(bluez_error('NotConnected', 'Not Connected'))
            return
        gen = self.link_gen

        def done():
            if gen == self.link_gen:
                self.link_down('disconnected by the client', emit=True)
            ok()
        later(DISCONNECT_DELAY_MS, done)

    def link_down(self, why, emit=True):
        """Tear the link down the way bluetoothd reports it."""
        was_connected = self.connected
        self.link_gen += 1
        self.connected = False
        self.request_busy = False
        if self.peer is not None:
            self.peer.stop()
            self.peer = None
        self.release_all_acquired()
        if self.pending_connect:
            _, err = self.pending_connect
            self.pending_connect = None
            err(bluez_error('Failed', 'le-connection-abort-by-local'))
        if self.obj is not None and emit:
            if self.obj.props[DEVICE_IFACE]['ServicesResolved']:
                set_prop(self.obj, DEVICE_IFACE, 'ServicesResolved', dbus.Boolean(False))
            self.remove_gatt_objects()
            if was_connected:
                set_prop(self.obj, DEVICE_IFACE, 'Connected', dbus.Boolean(False))
        else:
            self.remove_gatt_objects(emit=False)
        if was_connected:
            log.info('%s: link down (%s)', self.name, why)

    # -------------------------------------------------------------- GATT database

    def gatt_layout(self):
        """(relative path, interface, props, role) for every GATT object, parents first."""
        dev = dbus.ObjectPath(self.path)
        mtu = dbus.UInt16(self.mtu)

        def service(handle, uuid, primary=True):
            rel = f'service{handle:04x}'
            return (rel, GATT_SERVICE_IFACE, {
                'UUID': dbus.String(uuid), 'Device': dev, 'Primary': dbus.Boolean(primary),
                'Includes': dbus.Array([], signature='o'), 'Handle': dbus.UInt16(handle)}, None)

        def chrc(svc_rel, handle, uuid, flags, role, value=b''):
            rel = f'{svc_rel}/char{handle:04x}'
            props = {
                'UUID': dbus.String(uuid), 'Service': dbus.ObjectPath(f'{self.path}/{svc_rel}'),
                'Value': byte_array(value), 'Flags': dbus.Array(flags, signature='s'),
                'MTU': mtu, 'Handle': dbus.UInt16(handle)}
            if 'notify' in flags or 'indicate' in flags:
                props['Notifying'] = dbus.Boolean(False)
            if self.acquire and role == 'tx':
                props['WriteAcquired'] = dbus.Boolean(False)
            if self.acquire and role == 'rx':
                props['NotifyAcquired'] = dbus.Boolean(False)
            return (rel, GATT_CHRC_IFACE, props, role)

        def desc(chrc_rel, handle, uuid):
            rel = f'{chrc_rel}/desc{handle:04x}'
            return (rel, GATT_DESC_IFACE, {
                'UUID': dbus.String(uuid), 'Characteristic': dbus.ObjectPath(f'{self.path}/{chrc_rel}'),
                'Value': byte_array(b''), 'Handle': dbus.UInt16(handle)}, None)

        layout = [service(0x0001, GATT_PROFILE_UUID)]
        layout.append(chrc('service0001', 0x0002, SERVICE_CHANGED_UUID, ['indicate'], 'service-changed'))
        layout.append(desc('service0001/char0002', 0x0004, CCCD_UUID))
        if self.is_nus:
            layout.append(service(0x000a, NUS_SERVICE_UUID))
            layout.append(chrc('service000a', 0x000b, NUS_TX_UUID, ['write-without-response', 'write'], 'tx'))
            layout.append(chrc('service000a', 0x000d, NUS_RX_UUID, ['notify'], 'rx'))
            layout.append(desc('service000a/char000d', 0x000f, CCCD_UUID))
        else:
            layout.append(service(0x000a, HEART_RATE_UUID))
            layout.append(chrc('service000a', 0x000b, HR_MEASUREMENT_UUID, ['notify'], 'hr-measurement'))
            layout.append(desc('service000a/char000b', 0x000d, CCCD_UUID))
            layout.append(chrc('service000a', 0x000e, HR_BODY_LOCATION_UUID, ['read'], 'hr-location', b'\x01'))
        return layout

    def add_gatt_objects(self):
        for rel, iface, props, role in self.gatt_layout():
            path = f'{self.path}/{rel}'
            self.world.root.AddObject(path, iface, props, [])
            obj = mockobject.objects[path]
            obj.sim_device = self
            if iface == GATT_CHRC_IFACE:
                for name, func in CHRC_METHODS.items():
                    install_method(obj, iface, name, func)
                if self.acquire_fault == 'types':
                    install_method(obj, iface, 'AcquireWrite', chrc_acquire_write_wrong_types)
                    install_method(obj, iface, 'AcquireNotify', chrc_acquire_notify_wrong_types)
                self.notify_senders[path] = set()
            elif iface == GATT_DESC_IFACE:
                install_method(obj, iface, 'ReadValue', desc_read_value)
            if role:
                self.gatt_objs[role] = obj
            self.gatt_paths.append(path)
            interfaces_added(path, {iface: props})

    def remove_gatt_objects(self, emit=True):
        self.release_all_acquired()
        # Children first, as bluetoothd does.
        for path in reversed(self.gatt_paths):
            obj = mockobject.objects.get(path)
            if obj is None:
                continue
            ifaces = list(obj.props.keys())
            self.world.root.RemoveObject(path)
            if emit:
                interfaces_removed(path, ifaces)
        self.gatt_paths = []
        self.gatt_objs = {}
        self.notify_senders = {}

    # -------------------------------------------------------------- data path

    def handle_write(self, chrc_obj, value, options, ok, err):
        value = bytes(value)
        flags = [str(f) for f in chrc_obj.props[GATT_CHRC_IFACE]['Flags']]
        wtype = str(options.get('type', ''))
        self.stats['last-type'] = wtype
        self.stats['last-options'] = dict(options)

        def fail(name, message):
            self.stats['failed'] += 1
            log.warning('%s: WriteValue(%d bytes, type=%r) on %s refused: %s %s',
                        self.name, len(value), wtype, chrc_obj.path, name, message)
            err(bluez_error(name, message))

        if int(options.get('offset', 0)) != 0:
            return fail('NotSupported', 'Offset writes are not supported by this device')
        if wtype == '':
            effective = 'request' if 'write' in flags else (
                'command' if 'write-without-response' in flags else None)
        elif wtype in ('command', 'request'):
            needed = 'write-without-response' if wtype == 'command' else 'write'
            effective = wtype if needed in flags else None
        elif wtype == 'reliable':
            effective = None
        else:
            return fail('InvalidArguments', f'Invalid write type "{wtype}"')
        if effective is None:
            return fail('NotSupported', 'Operation is not supported')
        limit = self.mtu - 3
        if len(value) > limit:
            return fail('InvalidValueLength', f'Invalid value length {len(value)}, at most {limit} (MTU {self.mtu} - 3)')
        if effective == 'request' and self.request_busy:
            self.stats['in-progress'] += 1
            return fail('InProgress', 'In Progress')

        self.stats['untyped' if wtype == '' else effective] += 1
        self.stats['bytes'] += len(value)
        if effective == 'command':
            probability, rng = self.write_loss
            if probability > 0 and rng.random() < probability:
                self.stats['lost-writes'] += 1
                ok()
                return
            ok()
            self.on_air_write(chrc_obj, value)
            return
        self.request_busy = True
        gen = self.link_gen
        self.on_air_write(chrc_obj, value)

        def respond():
            if gen != self.link_gen:
                err(bluez_error('Failed', 'Not connected'))
                return
            self.request_busy = False
            ok()
        later(self.request_delay_ms, respond)

    def on_air_write(self, chrc_obj, value):
        """The device firmware receives a value written by the central."""
        if self.gatt_objs.get('tx') is not chrc_obj:
            return
        if len(self.writes) < WRITE_LOG_LIMIT:
            self.writes.append(value)
        if self.behaviour == 'sw-echo' and self.peer is not None:
            self.peer.receive(value)
        elif self.behaviour == 'chunk-echo':
            self.notify(value)

    def _echo_segment(self, payload):
        self.peer.send_tcp(payload)

    def _echo_datagram(self, payload):
        self.peer.send_udp(payload)

    def notify(self, value, role='rx'):
        """The device firmware sends a notification; returns True when it reached the bus."""
        chrc_obj = self.gatt_objs.get(role)
        if chrc_obj is None or not self.connected:
            return False
        props = chrc_obj.props[GATT_CHRC_IFACE]
        if not props.get('Notifying'):
            return False
        probability, rng = self.notify_loss
        if probability > 0 and rng.random() < probability:
            self.stats['lost-notifications'] += 1
            return False
        if role in self.acquired:
            return self._notify_on_socket(role, bytes(value))
        data = dbus.ByteArray(bytes(value))
        props['Value'] = byte_array(value)
        self.stats['notifications'] += 1
        props_changed(chrc_obj.path, GATT_CHRC_IFACE, {'Value': data})
        return True

    # -------------------------------------------------------------- acquired sockets

    def acquire_socket(self, chrc_obj, method):
        """AcquireWrite / AcquireNotify: a SOCK_SEQPACKET pair, one end for the client."""
        role = next((r for r, o in self.gatt_objs.items() if o is chrc_obj), None)
        prop = 'WriteAcquired' if method == 'AcquireWrite' else 'NotifyAcquired'
        props = chrc_obj.props[GATT_CHRC_IFACE]
        if prop not in props or role is None:
            log.warning('%s: %s on %s which does not offer it', self.name, method, chrc_obj.path)
            raise bluez_error('NotSupported', 'Operation is not supported')
        if role in self.acquired or (method == 'AcquireNotify' and props.get('Notifying')):
            raise bluez_error('NotPermitted', 'Notify already acquired' if role == 'rx' else 'Write already acquired')
        if self.acquire_fault:
            return self._faulty_acquire(method)
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        ours.setblocking(False)
        conditions = GLib.IO_HUP | GLib.IO_ERR
        if role == 'tx':
            conditions |= GLib.IO_IN
        watch = GLib.io_add_watch(ours.fileno(), GLib.PRIORITY_DEFAULT, conditions,
                                  self._on_acquired_socket, role)
        self.acquired[role] = (ours, watch)
        set_prop(chrc_obj, GATT_CHRC_IFACE, prop, dbus.Boolean(True))
        if role == 'rx' and not props.get('Notifying'):
            set_prop(chrc_obj, GATT_CHRC_IFACE, 'Notifying', dbus.Boolean(True))
        log.info('%s: %s on %s (MTU %d)', self.name, method, chrc_obj.path, self.mtu)
        fd = dbus.types.UnixFd(theirs)   # a duplicate, sent with the reply
        theirs.close()
        return (fd, dbus.UInt16(self.mtu))

    def _faulty_acquire(self, method):
        log.info('%s: %s answered with the fault %r as requested', self.name, method, self.acquire_fault)
        if self.acquire_fault == 'pipe':
            r, w = os.pipe()
            fd = dbus.types.UnixFd(r)
            os.close(r)
            os.close(w)
            return (fd, dbus.UInt16(self.mtu))
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        fd = dbus.types.UnixFd(theirs)
        theirs.close()
        ours.close()
        return (fd, dbus.UInt16(0))

    def _on_acquired_socket(self, fd, condition, role):
        entry = self.acquired.get(role)
        if entry is None:
            return False
        sock = entry[0]
        if condition & GLib.IO_IN:
            chrc_obj = self.gatt_objs.get(role)
            while True:
                try:
                    value = sock.recv(4096)
                except BlockingIOError:
                    break
                except OSError:
                    value = b''
                if not value:
                    condition |= GLib.IO_HUP
                    break
                self.stats['acquired-writes'] += 1
                self.handle_write(chrc_obj, value, {'type': dbus.String('command')},
                                  lambda: None, lambda e: None)
        if condition & (GLib.IO_HUP | GLib.IO_ERR):
            log.info('%s: the client closed its %s socket', self.name, role)
            self.release_acquired(role, remove_watch=False)
            return False
        return True

    def _notify_on_socket(self, role, value):
        sock = self.acquired[role][0]
        try:
            sock.settimeout(NOTIFY_SEND_TIMEOUT_S)   # as the air would, wait for room a while
            sock.send(value)
        except (BlockingIOError, socket.timeout):
            self.stats['lost-notifications'] += 1
            return False
        except OSError as e:
            log.info('%s: notification socket failed: %s', self.name, e)
            self.release_acquired(role)
            return False
        finally:
            if role in self.acquired:
                sock.setblocking(False)
        self.stats['notifications'] += 1
        self.stats['acquired-notifications'] += 1
        return True

    def release_acquired(self, role, remove_watch=True):
        """Closes our end of an acquired socket (the client sees its end hang up)."""
        entry = self.acquired.pop(role, None)
        if entry is None:
            return
        sock, watch = entry
        if remove_watch:
            GLib.source_remove(watch)
        sock.close()
        chrc_obj = self.gatt_objs.get(role)
        if chrc_obj is None or mockobject.objects.get(chrc_obj.path) is not chrc_obj:
            return
        props = chrc_obj.props[GATT_CHRC_IFACE]
        prop = 'WriteAcquired' if role == 'tx' else 'NotifyAcquired'
        if prop in props:
            set_prop(chrc_obj, GATT_CHRC_IFACE, prop, dbus.Boolean(False))
        if role == 'rx' and props.get('Notifying') and not self.notify_senders.get(chrc_obj.path):
            set_prop(chrc_obj, GATT_CHRC_IFACE, 'Notifying', dbus.Boolean(False))

    def release_all_acquired(self):
        for role in list(self.acquired):
            self.release_acquired(role)

    def start_notify(self, chrc_obj, sender, ok, err):
        flags = [str(f) for f in chrc_obj.props[GATT_CHRC_IFACE]['Flags']]
        if 'notify' not in flags and 'indicate' not in flags:
            log.warning('%s: StartNotify on %s which cannot notify', self.name, chrc_obj.path)
            err(bluez_error('NotSupported', 'Operation is not supported'))
            return
        sessions = self.notify_senders.setdefault(chrc_obj.path, set())
        if sender in sessions:
            ok()
            return
        gen = self.link_gen

        def enabled():
            if gen != self.link_gen or chrc_obj.path not in self.notify_senders:
                err(bluez_error('Failed', 'Not connected'))
                return
            sessions.add(sender)
            if not chrc_obj.props[GATT_CHRC_IFACE]['Notifying']:
                set_prop(chrc_obj, GATT_CHRC_IFACE, 'Notifying', dbus.Boolean(True))
            ok()
        later(NOTIFY_DELAY_MS, enabled)

    def stop_notify(self, chrc_obj, sender, ok, err):
        sessions = self.notify_senders.get(chrc_obj.path, set())
        if sender not in sessions:
            err(bluez_error('Failed', 'No notify session started'))
            return
        self.drop_notify_session(chrc_obj.path, sender)
        later(NOTIFY_DELAY_MS, ok)

    def drop_notify_session(self, path, sender):
        sessions = self.notify_senders.get(path)
        if sessions is None or sender not in sessions:
            return
        sessions.discard(sender)
        obj = mockobject.objects.get(path)
        if not sessions and obj is not None and obj.props[GATT_CHRC_IFACE].get('Notifying'):
            set_prop(obj, GATT_CHRC_IFACE, 'Notifying', dbus.Boolean(False))


# ------------------------------------------------------------------ BlueZ API methods

def _device(obj):
    return obj.sim_device


@dbus.service.method(DEVICE_IFACE, in_signature='', out_signature='', async_callbacks=('ok', 'err'))
def device_connect(self, ok, err):
    _device(self).connect(ok, err)


@dbus.service.method(DEVICE_IFACE, in_signature='', out_signature='', async_callbacks=('ok', 'err'))
def device_disconnect(self, ok, err):
    _device(self).disconnect(ok, err)


@dbus.service.method(DEVICE_IFACE, in_signature='', out_signature='')
def device_pair(self):
    if self.props[DEVICE_IFACE]['Paired']:
        raise bluez_error('AlreadyExists', 'Already Exists')
    set_prop(self, DEVICE_IFACE, 'Paired', dbus.Boolean(True))


@dbus.service.method(DEVICE_IFACE, in_signature='', out_signature='')
def device_cancel_pairing(self):
    raise bluez_error('DoesNotExist', 'Does Not Exist')


@dbus.service.method(DEVICE_IFACE, in_signature='s', out_signature='')
def device_connect_profile(self, uuid):
    raise bluez_error('NotSupported', 'Operation is not supported')


@dbus.service.method(DEVICE_IFACE, in_signature='s', out_signature='')
def device_disconnect_profile(self, uuid):
    raise bluez_error('NotSupported', 'Operation is not supported')


DEVICE_METHODS = {
    'Connect': device_connect,
    'Disconnect': device_disconnect,
    'Pair': device_pair,
    'CancelPairing': device_cancel_pairing,
    'ConnectProfile': device_connect_profile,
    'DisconnectProfile': device_disconnect_profile,
}


@dbus.service.method(GATT_CHRC_IFACE, in_signature='aya{sv}', out_signature='',
                     async_callbacks=('ok', 'err'), byte_arrays=True)
def chrc_write_value(self, value, options, ok, err):
    try:
        _device(self).handle_write(self, value, options, ok, err)
    except Exception as e:
        log.exception('WriteValue on %s failed', self.path)
        err(bluez_error('Failed', f'mock error: {e}'))


@dbus.service.method(GATT_CHRC_IFACE, in_signature='a{sv}', out_signature='ay')
def chrc_read_value(self, options):
    if 'read' not in [str(f) for f in self.props[GATT_CHRC_IFACE]['Flags']]:
        log.warning('ReadValue on %s which is not readable', self.path)
        raise bluez_error('NotPermitted', 'Read not permitted')
    return self.props[GATT_CHRC_IFACE]['Value']


@dbus.service.method(GATT_CHRC_IFACE, in_signature='', out_signature='',
                     sender_keyword='sender', async_callbacks=('ok', 'err'))
def chrc_start_notify(self, sender=None, ok=None, err=None):
    _device(self).start_notify(self, sender, ok, err)


@dbus.service.method(GATT_CHRC_IFACE, in_signature='', out_signature='',
                     sender_keyword='sender', async_callbacks=('ok', 'err'))
def chrc_stop_notify(self, sender=None, ok=None, err=None):
    _device(self).stop_notify(self, sender, ok, err)


@dbus.service.method(GATT_CHRC_IFACE, in_signature='a{sv}', out_signature='hq')
def chrc_acquire_write(self, options):
    return _device(self).acquire_socket(self, 'AcquireWrite')


@dbus.service.method(GATT_CHRC_IFACE, in_signature='a{sv}', out_signature='hq')
def chrc_acquire_notify(self, options):
    return _device(self).acquire_socket(self, 'AcquireNotify')


# A broken daemon's AcquireWrite/AcquireNotify (fault 'types'): a reply of other types.
@dbus.service.method(GATT_CHRC_IFACE, in_signature='a{sv}', out_signature='sq')
def chrc_acquire_write_wrong_types(self, options):
    return (dbus.String('not a descriptor'), dbus.UInt16(_device(self).mtu))


@dbus.service.method(GATT_CHRC_IFACE, in_signature='a{sv}', out_signature='sq')
def chrc_acquire_notify_wrong_types(self, options):
    return (dbus.String('not a descriptor'), dbus.UInt16(_device(self).mtu))


@dbus.service.method(GATT_DESC_IFACE, in_signature='a{sv}', out_signature='ay')
def desc_read_value(self, options):
    return self.props[GATT_DESC_IFACE]['Value']


CHRC_METHODS = {
    'WriteValue': chrc_write_value,
    'ReadValue': chrc_read_value,
    'StartNotify': chrc_start_notify,
    'StopNotify': chrc_stop_notify,
    'AcquireWrite': chrc_acquire_write,
    'AcquireNotify': chrc_acquire_notify,
}


@dbus.service.method(ADAPTER_IFACE, in_signature='', out_signature='', sender_keyword='sender')
def adapter_start_discovery(self, sender=None):
    WORLD.start_discovery(sender)


@dbus.service.method(ADAPTER_IFACE, in_signature='', out_signature='', sender_keyword='sender')
def adapter_stop_discovery(self, sender=None):
    WORLD.stop_discovery(sender)


@dbus.service.method(ADAPTER_IFACE, in_signature='a{sv}', out_signature='', sender_keyword='sender')
def adapter_set_discovery_filter(self, discovery_filter, sender=None):
    WORLD.set_discovery_filter(sender, discovery_filter)


@dbus.service.method(ADAPTER_IFACE, in_signature='', out_signature='as')
def adapter_get_discovery_filters(self):
    return dbus.Array(sorted(FILTER_KEYS), signature='s')


@dbus.service.method(ADAPTER_IFACE, in_signature='o', out_signature='')
def adapter_remove_device(self, path):
    dev = WORLD.device_by_path(str(path))
    if dev is None:
        raise bluez_error('DoesNotExist', f'Does Not Exist: {path}')
    dev.unpublish()


@dbus.service.method(PROPS_IFACE, in_signature='ssv', out_signature='')
def adapter_set_property(self, interface_name, property_name, value):
    if interface_name == ADAPTER_IFACE and property_name == 'Powered':
        WORLD.set_powered(bool(value))
        return
    mockobject.DBusMockObject.Set(self, interface_name, property_name, value)


ADAPTER_METHODS = {
    (ADAPTER_IFACE, 'StartDiscovery'): adapter_start_discovery,
    (ADAPTER_IFACE, 'StopDiscovery'): adapter_stop_discovery,
    (ADAPTER_IFACE, 'SetDiscoveryFilter'): adapter_set_discovery_filter,
    (ADAPTER_IFACE, 'GetDiscoveryFilters'): adapter_get_discovery_filters,
    (ADAPTER_IFACE, 'RemoveDevice'): adapter_remove_device,
    (PROPS_IFACE, 'Set'): adapter_set_property,
}


# ------------------------------------------------------------------ the world

class World:
    """The adapter, the devices on the air and the discovery sessions."""

    def __init__(self, bus, root, template, initial_devices=(), powered=True):
        self.bus = bus
        self.initial_devices = list(initial_devices)
        self.initial_powered = powered
        self.root = root
        self.template = template
        self.devices = {}               # address -> SimDevice, in insertion order
        self.adapter = None
        self.discovery_clients = set()
        self.filters = {}               # sender -> filter dict
        self.last_filter = None
        self.scan_source = None

    # -------------------------------------------------------------- adapter

    @property
    def powered(self):
        return self.adapter is not None and bool(self.adapter.props[ADAPTER_IFACE]['Powered'])

    def add_adapter(self, powered=True):
        if self.adapter is not None:
            raise test_error('AlreadyExists', f'adapter {ADAPTER_NAME} already exists')
        self.template.AddAdapter(self.root, ADAPTER_NAME, 'qlt-mock')
        self.adapter = mockobject.objects[ADAPTER_PATH]
        for (iface, name), func in ADAPTER_METHODS.items():
            install_method(self.adapter, iface, name, func)
        if not powered:
            set_prop(self.adapter, ADAPTER_IFACE, 'Powered', dbus.Boolean(False))
        log.info('adapter %s added (powered %s)', ADAPTER_PATH, powered)

    def remove_adapter(self):
        if self.adapter is None:
            raise test_error('DoesNotExist', f'adapter {ADAPTER_NAME} does not exist')
        self._end_discovery(emit=False)
        for dev in self.devices.values():
            if dev.obj is not None:
                dev.link_down('adapter removed', emit=False)
                self.root.RemoveObject(dev.path)
                dev.obj = None
                interfaces_removed(dev.path, [DEVICE_IFACE])
        self.root.RemoveObject(ADAPTER_PATH)
        self.adapter = None
        interfaces_removed(ADAPTER_PATH, [ADAPTER_IFACE])
        log.info('adapter %s removed', ADAPTER_PATH)

    def set_powered(self, powered):
        if self.adapter is None:
            raise test_error('DoesNotExist', f'adapter {ADAPTER_NAME} does not exist')
        if powered == self.powered:
            return
        if not powered:
            self._end_discovery(emit=True)
            for dev in self.devices.values():
                if dev.connected or dev.pending_connect:
                    dev.link_down('adapter powered off')
        set_prop(self.adapter, ADAPTER_IFACE, 'Powered', dbus.Boolean(powered))
        log.info('adapter powered %s', 'on' if powered else 'off')

    # -------------------------------------------------------------- discovery

    def set_discovery_filter(self, sender, discovery_filter):
        for key, value in discovery_filter.items():
            if key not in FILTER_KEYS:
                log.warning('SetDiscoveryFilter: unknown key "%s" refused', key)
                raise bluez_error('InvalidArguments', f'Invalid arguments in method call: unknown key {key}')
        if 'RSSI' in discovery_filter and 'Pathloss' in discovery_filter:
            raise bluez_error('InvalidArguments', 'Invalid arguments in method call: RSSI and Pathloss together')
        transport = discovery_filter.get('Transport')
        if transport is not None and str(transport) not in ('auto', 'bredr', 'le'):
            raise bluez_error('InvalidArguments', f'Invalid arguments in method call: Transport {transport}')
        self.last_filter = dict(discovery_filter)
        if discovery_filter:
            self.filters[sender] = dict(discovery_filter)
        else:
            self.filters.pop(sender, None)
        log.info('discovery filter from %s: %s', sender,
                 {k: (list(map(str, v)) if isinstance(v, dbus.Array) else v) for k, v in discovery_filter.items()})

    def start_discovery(self, sender):
        if not self.powered:
            raise bluez_error('NotReady', 'Resource Not Ready')
        if sender in self.discovery_clients:
            raise bluez_error('InProgress', 'Operation already in progress')
        self.discovery_clients.add(sender)
        if len(self.discovery_clients) == 1:
            set_prop(self.adapter, ADAPTER_IFACE, 'Discovering', dbus.Boolean(True))
            self.scan_source = later(FIRST_SCAN_TICK_MS, self._first_tick)
            log.info('discovery started by %s', sender)

    def stop_discovery(self, sender):
        if not self.powered:
            raise bluez_error('NotReady', 'Resource Not Ready')
        if sender not in self.discovery_clients:
            raise bluez_error('Failed', 'No discovery started')
        self.discovery_clients.discard(sender)
        if not self.discovery_clients:
            self._end_discovery(emit=True)
            log.info('discovery stopped by %s', sender)

    def _end_discovery(self, emit):
        was = bool(self.discovery_clients) or self.scan_source is not None
        self.discovery_clients.clear()
        if self.scan_source is not None:
            GLib.source_remove(self.scan_source)
            self.scan_source = None
        if was and emit and self.adapter is not None:
            set_prop(self.adapter, ADAPTER_IFACE, 'Discovering', dbus.Boolean(False))
            for dev in self.devices.values():
                dev.invalidate_rssi()

    def _first_tick(self):
        self._scan_tick()
        self.scan_source = GLib.timeout_add(SCAN_TICK_MS, self._periodic_tick)

    @guarded('scan tick')
    def _scan_tick(self):
        for dev in list(self.devices.values()):
            if self.matches_filters(dev):
                dev.advertise()

    def _periodic_tick(self):
        self._scan_tick()
        return GLib.SOURCE_CONTINUE

    def matches_filters(self, dev):
        filters = [self.filters.get(s) for s in self.discovery_clients]
        if any(f is None for f in filters) or not filters:
            return True
        return any(self._matches(dev, f) for f in filters)

    @staticmethod
    def _matches(dev, flt):
        if str(flt.get('Transport', 'auto')) == 'bredr':
            return False
        uuids = [normalise_uuid(u) for u in flt.get('UUIDs', [])]
        if uuids and not set(uuids) & set(dev.uuids):
            return False
        if 'RSSI' in flt and dev.rssi < int(flt['RSSI']):
            return False
        pattern = str(flt.get('Pattern', ''))
        if pattern and not (dev.address.startswith(pattern.upper()) or dev.name.startswith(pattern)):
            return False
        return True

    # -------------------------------------------------------------- devices

    def add_device(self, address, name, behaviour, rssi, options=None):
        if not ADDRESS_RE.match(str(address)):
            raise test_error('InvalidArguments', f'invalid Bluetooth address "{address}"')
        if behaviour not in BEHAVIOURS:
            raise test_error('InvalidArguments',
                             f'unknown behaviour "{behaviour}", expected one of {", ".join(BEHAVIOURS)}')
        if str(address).upper() in self.devices:
            raise test_error('AlreadyExists', f'device {address} already exists')
        if not -127 <= int(rssi) <= 20:
            raise test_error('InvalidArguments', f'RSSI {rssi} outside -127..20')
        dev = SimDevice(self, str(address), str(name), str(behaviour), int(rssi), options)
        self.devices[dev.address] = dev
        log.info('device %s (%s, %s, RSSI %d) is on the air', dev.name, dev.address, dev.behaviour, dev.rssi)
        return dev

    def device(self, address):
        dev = self.devices.get(str(address).upper())
        if dev is None:
            raise test_error('UnknownDevice', f'no device with address "{address}"')
        return dev

    def device_by_path(self, path):
        for dev in self.devices.values():
            if dev.obj is not None and dev.path == path:
                return dev
        return None

    def remove_device(self, address):
        dev = self.device(address)
        dev.unpublish()
        del self.devices[dev.address]
        log.info('device %s (%s) left the air', dev.name, dev.address)

    def reset(self):
        """Back to the start-up state: adapter re-plugged, start-up devices, no filters, no stats."""
        if self.adapter is not None:
            self.remove_adapter()
        self.devices.clear()
        self.filters.clear()
        self.last_filter = None
        self.add_adapter(powered=self.initial_powered)
        for dev in self.initial_devices:
            self.add_device(*dev)
        log.info('reset to the start-up state')

    # -------------------------------------------------------------- bus clients

    def client_vanished(self, name):
        self.filters.pop(name, None)
        if name in self.discovery_clients:
            self.discovery_clients.discard(name)
            if not self.discovery_clients:
                self._end_discovery(emit=True)
        for dev in self.devices.values():
            for path in list(dev.notify_senders):
                dev.drop_notify_session(path, name)


# ------------------------------------------------------------------ control interface

class TestControl(dbus.service.Object):
    """org.bluez.Test at /org/bluez/test: lets tests steer the simulated world.

    Not part of the ObjectManager tree, so BlueZ clients never see it in
    GetManagedObjects. Errors are org.bluez.Test.Error.* with a clear message.
    """

    def __init__(self, bus, world):
        # dbusmock's method lookup expects a 'methods' table on every exported object.
        self.methods = {}
        self.world = world
        super().__init__(bus, TEST_PATH)

    @dbus.service.method(TEST_IFACE, in_signature='sssn', out_signature='o')
    def AddDevice(self, address, name, behaviour, rssi):
        return dbus.ObjectPath(self.world.add_device(address, name, behaviour, rssi).path)

    @dbus.service.method(TEST_IFACE, in_signature='sssna{sv}', out_signature='o')
    def AddDeviceWithOptions(self, address, name, behaviour, rssi, options):
        known = {'ManufacturerData', 'ServiceData', 'UUIDs', 'Mtu', 'AddressType', 'Acquire'}
        unknown = sorted(str(k) for k in set(options) - known)
        if unknown:
            raise test_error('InvalidArguments', f'unknown device options {unknown}; known: {sorted(known)}')
        try:
            checked = SimDevice(self.world, '00:00:00:00:00:00', 'check', 'sink', 0, options)
            if not 23 <= checked.mtu <= 517:
                raise ValueError(f'Mtu {checked.mtu} outside 23..517')
        except (TypeError, ValueError, AttributeError) as e:
            raise test_error('InvalidArguments', f'bad device options: {e}') from None
        return dbus.ObjectPath(self.world.add_device(address, name, behaviour, rssi, options).path)

    @dbus.service.method(TEST_IFACE, in_signature='s', out_signature='')
    def RemoveDevice(self, address):
        self.world.remove_device(address)

    @dbus.service.method(TEST_IFACE, in_signature='s', out_signature='')
    def DropLink(self, address):
        dev = self.world.device(address)
        if not dev.connected and not dev.pending_connect:
            raise test_error('NotConnected', f'device {address} is not connected')
        dev.link_down('link dropped by the test')

    @dbus.service.method(TEST_IFACE, in_signature='ss', out_signature='')
    def FailNextConnect(self, address, error_name):
        dev = self.world.device(address)
        if not re.fullmatch(r'[A-Za-z_][\w]*(\.[A-Za-z_][\w]*)+', str(error_name)):
            raise test_error('InvalidArguments', f'"{error_name}" is not a D-Bus error name')
        dev.fail_next_connect = str(error_name)

    @dbus.service.method(TEST_IFACE, in_signature='b', out_signature='')
    def SetPowered(self, powered):
        self.world.set_powered(bool(powered))

    @dbus.service.method(TEST_IFACE, in_signature='', out_signature='')
    def RemoveAdapter(self):
        self.world.remove_adapter()

    @dbus.service.method(TEST_IFACE, in_signature='', out_signature='')
    def AddAdapter(self):
        self.world.add_adapter()

    def _loss(self, address, probability, seed):
        dev = self.world.device(address)
        if not 0.0 <= float(probability) <= 1.0:
            raise test_error('InvalidArguments', f'probability {probability} outside 0..1')
        return dev, (float(probability), random.Random(int(seed)))

    @dbus.service.method(TEST_IFACE, in_signature='sdu', out_signature='')
    def SetWriteLoss(self, address, probability, seed):
        dev, dev.write_loss = self._loss(address, probability, seed)

    @dbus.service.method(TEST_IFACE, in_signature='sdu', out_signature='')
    def SetNotifyLoss(self, address, probability, seed):
        dev, dev.notify_loss = self._loss(address, probability, seed)

    @dbus.service.method(TEST_IFACE, in_signature='sq', out_signature='')
    def SetMtu(self, address, mtu):
        if not 23 <= int(mtu) <= 517:
            raise test_error('InvalidArguments', f'MTU {mtu} outside 23..517')
        dev = self.world.device(address)
        dev.mtu = int(mtu)
        for path in dev.gatt_paths:
            obj = mockobject.objects.get(path)
            if obj is not None and GATT_CHRC_IFACE in obj.props:
                set_prop(obj, GATT_CHRC_IFACE, 'MTU', dbus.UInt16(dev.mtu))

    @dbus.service.method(TEST_IFACE, in_signature='sb', out_signature='')
    def SetAcquire(self, address, offered):
        """Whether the device offers AcquireWrite/AcquireNotify from its next connection on."""
        self.world.device(address).acquire = bool(offered)

    @dbus.service.method(TEST_IFACE, in_signature='ss', out_signature='')
    def SetAcquireFault(self, address, fault):
        """AcquireWrite/AcquireNotify hand out a pipe ('pipe'), MTU 0 ('mtu0') or a reply of
        other types ('types', from the next connection on); '' for none."""
        if fault not in ('', 'pipe', 'mtu0', 'types'):
            raise test_error('InvalidArguments', f'unknown fault "{fault}", expected "", "pipe", "mtu0" or "types"')
        self.world.device(address).acquire_fault = str(fault)

    @dbus.service.method(TEST_IFACE, in_signature='s', out_signature='')
    def CloseAcquired(self, address):
        """bluetoothd closes its ends of the device's acquired sockets; the link stays."""
        self.world.device(address).release_all_acquired()

    @dbus.service.method(TEST_IFACE, in_signature='su', out_signature='')
    def SetWriteResponseDelay(self, address, milliseconds):
        self.world.device(address).request_delay_ms = int(milliseconds)

    @dbus.service.method(TEST_IFACE, in_signature='', out_signature='a{sv}')
    def GetLastDiscoveryFilter(self):
        return dbus.Dictionary(self.world.last_filter or {}, signature='sv')

    @dbus.service.method(TEST_IFACE, in_signature='s', out_signature='a{sv}')
    def GetWriteStats(self, address):
        stats = self.world.device(address).stats
        out = {k: dbus.UInt32(v) for k, v in stats.items() if isinstance(v, int)}
        out['bytes'] = dbus.UInt64(stats['bytes'])
        out['last-type'] = dbus.String(stats['last-type'])
        out['last-options'] = dbus.Dictionary(stats['last-options'], signature='sv')
        return dbus.Dictionary(out, signature='sv')

    @dbus.service.method(TEST_IFACE, in_signature='s', out_signature='a{sv}')
    def GetPeerStats(self, address):
        dev = self.world.device(address)
        if dev.behaviour != 'sw-echo':
            raise test_error('InvalidArguments', f'device {address} is not an sw-echo device')
        if dev.peer is None:
            return dbus.Dictionary({}, signature='sv')
        out = {k: dbus.UInt32(v) for k, v in dev.peer.stats.items()}
        out['queued'] = dbus.UInt32(len(dev.peer.tx_queue))
        return dbus.Dictionary(out, signature='sv')

    @dbus.service.method(TEST_IFACE, in_signature='s', out_signature='')
    def ResetStats(self, address):
        self.world.device(address).reset_stats()

    @dbus.service.method(TEST_IFACE, in_signature='s', out_signature='aay')
    def TakeWrites(self, address):
        dev = self.world.device(address)
        values, dev.writes = dev.writes, []
        return dbus.Array([dbus.ByteArray(v) for v in values], signature='ay')

    @dbus.service.method(TEST_IFACE, in_signature='say', out_signature='b', byte_arrays=True)
    def InjectNotification(self, address, value):
        dev = self.world.device(address)
        if not dev.is_nus:
            raise test_error('InvalidArguments', f'device {address} has no NUS service')
        return dbus.Boolean(dev.notify(bytes(value)))

    @dbus.service.method(TEST_IFACE, in_signature='', out_signature='')
    def Reset(self):
        self.world.reset()

    @dbus.service.method(TEST_IFACE, in_signature='u', out_signature='')
    def Restart(self, downtime_ms):
        """Crash-like restart: drop off the bus, wait, come back with the same devices on the air."""
        world = json.dumps([d.to_json() for d in self.world.devices.values()])
        later(20, restart_process, int(downtime_ms), world)


def restart_process(downtime_ms, world_json):
    log.info('restarting: off the bus for %d ms', downtime_ms)
    WORLD.bus.flush()
    WORLD.bus.close()
    time.sleep(downtime_ms / 1000.0)
    env = dict(os.environ, QLT_MOCK_BLUEZ_WORLD=world_json)
    os.execve(sys.executable, [sys.executable] + sys.argv, env)


# ------------------------------------------------------------------ main

def parse_device(text):
    parts = text.split(',')
    if len(parts) != 4:
        raise argparse.ArgumentTypeError(f'expected ADDRESS,NAME,BEHAVIOUR,RSSI, got "{text}"')
    try:
        return parts[0], parts[1], parts[2], int(parts[3])
    except ValueError:
        raise argparse.ArgumentTypeError(f'RSSI must be an integer in "{text}"') from None


def main(argv=None):
    parser = argparse.ArgumentParser(description='Mock bluetoothd for QueltLibrary tests.')
    parser.add_argument('--default-devices', action='store_true',
                        help='put QLT-Echo, QLT-Chunk and HR-Sensor on the air')
    parser.add_argument('--device', action='append', type=parse_device, default=[],
                        metavar='ADDR,NAME,BEHAVIOUR,RSSI', help='put a device on the air (repeatable)')
    parser.add_argument('--unpowered', action='store_true', help='start with the adapter powered off')
    parser.add_argument('--no-adapter', action='store_true', help='start without an adapter')
    args = parser.parse_args(argv)

    logging.basicConfig(level=logging.INFO, stream=sys.stderr,
                        format='%(asctime)s.%(msecs)03d %(name)s: %(message)s', datefmt='%H:%M:%S')

    address = os.environ.get('DBUS_SYSTEM_BUS_ADDRESS')
    if not address:
        log.error('DBUS_SYSTEM_BUS_ADDRESS is not set; refusing to touch the real system bus')
        return 2

    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    try:
        bus = dbus.bus.BusConnection(address)
    except dbus.exceptions.DBusException as e:
        log.error('cannot connect to %s: %s', address, e)
        return 1

    root = mockobject.DBusMockObject(bus, '/', OBJECT_MANAGER_IFACE, {}, None, True)
    mockobject.objects['/'] = root
    root.AddTemplate('bluez5', {})
    template = mockobject.load_module('bluez5')

    global WORLD  # pylint: disable=global-statement
    devices = list(DEFAULT_DEVICES) if args.default_devices else []
    devices += args.device
    WORLD = World(bus, root, template, devices, powered=not args.unpowered)
    control = TestControl(bus, WORLD)  # noqa: F841  (kept alive by the connection)

    saved = os.environ.pop('QLT_MOCK_BLUEZ_WORLD', None)
    if saved:   # after Restart(): the same devices are still on the air
        devices = [(d['address'], d['name'], d['behaviour'], d['rssi'],
                    {'Mtu': d['mtu'], 'Acquire': d.get('acquire', ACQUIRE_DEFAULT)})
                   for d in json.loads(saved)]
    if not args.no_adapter:
        WORLD.add_adapter(powered=not args.unpowered)
    for dev in devices:
        try:
            WORLD.add_device(*dev)
        except dbus.exceptions.DBusException as e:
            log.error('bad device %s: %s', dev, e.get_dbus_message())
            return 2

    bus.add_signal_receiver(
        lambda name, old, new: WORLD.client_vanished(str(name)) if not new and name.startswith(':') else None,
        signal_name='NameOwnerChanged', dbus_interface='org.freedesktop.DBus',
        bus_name='org.freedesktop.DBus', path='/org/freedesktop/DBus')

    loop = GLib.MainLoop()
    bus.add_signal_receiver(loop.quit, signal_name='Disconnected',
                            path='/org/freedesktop/DBus/Local', dbus_interface='org.freedesktop.DBus.Local')
    # Take the name last, so that whoever sees org.bluez sees the complete tree.
    bus_name = dbus.service.BusName(BUS_NAME, bus, do_not_queue=True)  # noqa: F841
    log.info('serving %s on %s', BUS_NAME, address)
    try:
        loop.run()
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == '__main__':
    sys.exit(main())
