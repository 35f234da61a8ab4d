#!/usr/bin/python3
# -*- coding: utf-8 -*-
"""Self-test of the mock bluetoothd and its bus harness, with dbus-python as the client.

Run: /usr/bin/python3 tests/bluez/test_mock.py   (exit 0 on success)
"""

import os
import sys
import time
import unittest

import dbus
import dbus.mainloop.glib
from gi.repository import GLib

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bus_harness  # noqa: E402
import slide_window  # noqa: E402
from mock_bluez import (ADAPTER_IFACE, ADAPTER_PATH, DEVICE_IFACE, GATT_CHRC_IFACE,  # noqa: E402
                        GATT_SERVICE_IFACE, HEART_RATE_UUID, NUS_RX_UUID, NUS_SERVICE_UUID,
                        NUS_TX_UUID, TEST_IFACE, TEST_PATH)

dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)

OM_IFACE = 'org.freedesktop.DBus.ObjectManager'
ECHO = 'C0:FF:EE:00:00:01'
CHUNK = 'C0:FF:EE:00:00:02'
HR = 'C0:FF:EE:00:00:03'


def dev_path(address):
    return f'{ADAPTER_PATH}/dev_{address.replace(":", "_")}'


def pump(seconds=0.0):
    """Run the GLib main context for a while."""
    ctx = GLib.MainContext.default()
    end = time.monotonic() + seconds
    while True:
        while ctx.pending():
            ctx.iteration(False)
        if time.monotonic() >= end:
            return
        time.sleep(0.002)


def wait_until(predicate, timeout=5.0, what='condition'):
    ctx = GLib.MainContext.default()
    deadline = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > deadline:
            raise AssertionError(f'timed out after {timeout} s waiting for {what}')
        if not ctx.iteration(False):
            time.sleep(0.002)


class BluezClient:
    """A small BlueZ client: records signals and wraps the calls the tests need."""

    def __init__(self, address):
        self.bus = dbus.bus.BusConnection(address)
        self.signals = []   # (member, path, args)
        self.bus.add_signal_receiver(self._on_signal, bus_name='org.bluez', member_keyword='member',
                                     path_keyword='path')
        self.test = dbus.Interface(self.bus.get_object('org.bluez', TEST_PATH), TEST_IFACE)

    def _on_signal(self, *args, member=None, path=None):
        self.signals.append((str(member), str(path), args))

    def close(self):
        self.bus.close()

    def iface(self, path, iface):
        return dbus.Interface(self.bus.get_object('org.bluez', path), iface)

    def adapter(self):
        return self.iface(ADAPTER_PATH, ADAPTER_IFACE)

    def device(self, address):
        return self.iface(dev_path(address), DEVICE_IFACE)

    def prop(self, path, iface, name):
        return self.iface(path, dbus.PROPERTIES_IFACE).Get(iface, name)

    def objects(self):
        return self.iface('/', OM_IFACE).GetManagedObjects()

    def clear_signals(self):
        pump(0.05)      # let signals already on their way be dispatched first
        self.signals.clear()

    def added_paths(self):
        return [s[2][0] for s in self.signals if s[0] == 'InterfacesAdded']

    def removed_paths(self):
        return [s[2][0] for s in self.signals if s[0] == 'InterfacesRemoved']

    def changes(self, path, iface, name):
        return [s[2][1][name] for s in self.signals
                if s[0] == 'PropertiesChanged' and s[1] == path and s[2][0] == iface and name in s[2][1]]

    def invalidations(self, path, iface):
        return [n for s in self.signals if s[0] == 'PropertiesChanged' and s[1] == path
                and s[2][0] == iface for n in s[2][2]]

    def discover(self, addresses):
        self.adapter().StartDiscovery()
        wait_until(lambda: all(dev_path(a) in self.added_paths() or dev_path(a) in self.objects()
                               for a in addresses), 5.0, f'discovery of {addresses}')
        self.adapter().StopDiscovery()

    def connect(self, address):
        self.device(address).Connect(timeout=10)
        wait_until(lambda: bool(self.prop(dev_path(address), DEVICE_IFACE, 'ServicesResolved')),
                   5.0, 'ServicesResolved')

    def gatt(self, address):
        """uuid -> path of the device's GATT services and characteristics."""
        found = {}
        for path, ifaces in self.objects().items():
            if not str(path).startswith(dev_path(address) + '/'):
                continue
            for iface in (GATT_SERVICE_IFACE, GATT_CHRC_IFACE):
                if iface in ifaces:
                    found[str(ifaces[iface]['UUID'])] = str(path)
        return found

    def write(self, path, value, wtype='command'):
        self.iface(path, GATT_CHRC_IFACE).WriteValue(
            dbus.Array(bytes(value), signature='y'), {'type': wtype})

    def notifications(self, path):
        return [bytes(v) for v in self.changes(path, GATT_CHRC_IFACE, 'Value')]


class NusLink:
    """The client role of the sliding-window protocol over a connected NUS device."""

    def __init__(self, client, address):
        self.client = client
        gatt = client.gatt(address)
        self.tx = client.iface(gatt[NUS_TX_UUID], GATT_CHRC_IFACE)
        self.rx_path = gatt[NUS_RX_UUID]
        self.segments = []
        self.datagrams = []
        self.write_errors = []
        self.peer = slide_window.SlideWindowPeer(self._send, self.segments.append, self.datagrams.append,
                                                 name='test client')
        self.match = client.bus.add_signal_receiver(
            self._on_changed, signal_name='PropertiesChanged', dbus_interface=dbus.PROPERTIES_IFACE,
            path=self.rx_path, byte_arrays=True)
        client.iface(self.rx_path, GATT_CHRC_IFACE).StartNotify()
        self.peer.start()

    def _send(self, frame):
        self.tx.WriteValue(dbus.Array(frame, signature='y'), {'type': 'command'},
                           reply_handler=lambda: None, error_handler=self.write_errors.append)

    def _on_changed(self, iface, changed, invalidated):
        if iface == GATT_CHRC_IFACE and 'Value' in changed:
            self.peer.receive(bytes(changed['Value']))

    def received(self):
        return b''.join(bytes(s) for s in self.segments)

    def close(self):
        self.peer.stop()
        self.match.remove()


class MockBluezTest(unittest.TestCase):
    """One private bus for the class; each test leaves the devices disconnected."""

    @classmethod
    def setUpClass(cls):
        cls.mock_bus = bus_harness.MockBus().start()

    @classmethod
    def tearDownClass(cls):
        cls.mock_bus.stop()

    def setUp(self):
        self.client = BluezClient(self.mock_bus.address)

    def _failed(self):
        result = getattr(self._outcome, 'result', None)
        return result is not None and any(test is self for test, _ in result.errors + result.failures)

    def tearDown(self):
        if self._failed():
            sys.stderr.write(f'\n--- mock_bluez log after {self.id()} ---\n{self.mock_bus.log_tail(60)}---\n')
        try:
            for address in (ECHO, CHUNK, HR):
                if dev_path(address) in self.client.objects() and \
                        self.client.prop(dev_path(address), DEVICE_IFACE, 'Connected'):
                    self.client.device(address).Disconnect()
        finally:
            self.client.close()

    def control(self):
        return self.client.test

    # ------------------------------------------------------------------ discovery

    def test_a_discovery_without_then_with_filter(self):
        # Named to run first: the adapter has never seen a SetDiscoveryFilter yet.
        c = self.client
        adapter = c.adapter()
        self.assertEqual(dict(c.test.GetLastDiscoveryFilter()), {})
        adapter.StartDiscovery()
        wait_until(lambda: all(dev_path(a) in c.added_paths() for a in (ECHO, CHUNK, HR)),
                   5.0, 'all three devices')
        self.assertTrue(c.prop(ADAPTER_PATH, ADAPTER_IFACE, 'Discovering'))
        adapter.StopDiscovery()
        pump(0.05)
        self.assertIn('RSSI', c.invalidations(dev_path(ECHO), DEVICE_IFACE))
        self.assertNotIn('RSSI', c.objects()[dev_path(ECHO)][DEVICE_IFACE])

        # Filtered: only NUS advertisers report, RSSI keeps changing, the filter is recorded with its types.
        adapter.SetDiscoveryFilter({'Transport': 'le', 'DuplicateData': dbus.Boolean(False),
                                    'UUIDs': dbus.Array([NUS_SERVICE_UUID], signature='s')})
        recorded = c.test.GetLastDiscoveryFilter()
        self.assertEqual(recorded['Transport'], 'le')
        self.assertIsInstance(recorded['DuplicateData'], dbus.Boolean)
        self.assertFalse(recorded['DuplicateData'])
        c.clear_signals()
        adapter.StartDiscovery()
        wait_until(lambda: len(c.changes(dev_path(ECHO), DEVICE_IFACE, 'RSSI')) >= 3, 3.0, 'RSSI updates')
        rssi = [int(v) for v in c.changes(dev_path(ECHO), DEVICE_IFACE, 'RSSI')]
        self.assertTrue(all(a != b for a, b in zip(rssi, rssi[1:])), rssi)
        self.assertTrue(all(-80 <= v <= -30 for v in rssi), rssi)
        self.assertEqual(c.changes(dev_path(HR), DEVICE_IFACE, 'RSSI'), [])
        with self.assertRaises(dbus.exceptions.DBusException) as ctx:
            adapter.StartDiscovery()
        self.assertEqual(ctx.exception.get_dbus_name(), 'org.bluez.Error.InProgress')
        adapter.StopDiscovery()
        with self.assertRaises(dbus.exceptions.DBusException) as ctx:
            adapter.SetDiscoveryFilter({'Bogus': 1})
        self.assertEqual(ctx.exception.get_dbus_name(), 'org.bluez.Error.InvalidArguments')
        adapter.SetDiscoveryFilter(dbus.Dictionary({}, signature='sv'))

    def test_advertisement_types(self):
        self.client.discover([ECHO, HR])
        objects = self.client.objects()
        # Checked on the wire, not through dbus-python's guesses: a{qv} and a{sv}.
        bus = self.client.bus
        msg = dbus.lowlevel.MethodCallMessage('org.bluez', dev_path(HR), dbus.PROPERTIES_IFACE, 'GetAll')
        msg.append(DEVICE_IFACE, signature='s')
        reply = bus.send_message_with_reply_and_block(msg, 5000)
        props = reply.get_args_list()[0]
        self.assertEqual(props['ManufacturerData'].signature, 'qv')
        self.assertEqual(props['ServiceData'].signature, 'sv')
        key, value = next(iter(props['ManufacturerData'].items()))
        self.assertIsInstance(key, dbus.UInt16)
        self.assertEqual(value.signature, 'y')
        self.assertEqual(objects[dev_path(ECHO)][DEVICE_IFACE]['UUIDs'], [NUS_SERVICE_UUID])
        self.assertNotIn('ServiceData', objects[dev_path(ECHO)][DEVICE_IFACE])

    # ------------------------------------------------------------------ connection life cycle

    def test_connect_resolves_services_and_disconnect_removes_them(self):
        c = self.client
        c.discover([ECHO, HR])
        c.clear_signals()
        c.device(ECHO).Connect(timeout=10)
        # Connect() returns once services are resolved, as bluetoothd does for LE.
        self.assertTrue(c.prop(dev_path(ECHO), DEVICE_IFACE, 'Connected'))
        self.assertTrue(c.prop(dev_path(ECHO), DEVICE_IFACE, 'ServicesResolved'))
        pump(0.05)
        order = [s[0] if s[0] != 'PropertiesChanged' else list(s[2][1])[0] for s in c.signals
                 if s[1] == dev_path(ECHO) or s[0] == 'InterfacesAdded']
        self.assertEqual(order[0], 'Connected')
        self.assertEqual(order[-1], 'ServicesResolved')
        gatt = c.gatt(ECHO)
        self.assertEqual(set(gatt) & {NUS_SERVICE_UUID, NUS_TX_UUID, NUS_RX_UUID},
                         {NUS_SERVICE_UUID, NUS_TX_UUID, NUS_RX_UUID})
        objects = c.objects()
        tx, rx = objects[gatt[NUS_TX_UUID]][GATT_CHRC_IFACE], objects[gatt[NUS_RX_UUID]][GATT_CHRC_IFACE]
        self.assertEqual(list(tx['Flags']), ['write-without-response', 'write'])
        self.assertEqual(list(rx['Flags']), ['notify'])
        self.assertEqual(int(tx['MTU']), 185)
        self.assertEqual(tx['Service'], gatt[NUS_SERVICE_UUID])
        self.assertTrue(objects[gatt[NUS_SERVICE_UUID]][GATT_SERVICE_IFACE]['Primary'])
        with self.assertRaises(dbus.exceptions.DBusException) as ctx:
            c.device(ECHO).Connect()
        self.assertEqual(ctx.exception.get_dbus_name(), 'org.bluez.Error.AlreadyConnected')

        # A device without NUS resolves only its own services.
        c.connect(HR)
        self.assertIn(HEART_RATE_UUID, c.gatt(HR))
        self.assertNotIn(NUS_SERVICE_UUID, c.gatt(HR))

        c.clear_signals()
        c.device(ECHO).Disconnect()
        self.assertFalse(c.prop(dev_path(ECHO), DEVICE_IFACE, 'Connected'))
        pump(0.05)
        self.assertEqual(c.gatt(ECHO), {})
        removed = c.removed_paths()
        self.assertTrue(set(gatt.values()) <= set(removed))
        self.assertTrue(all(str(p).startswith(dev_path(ECHO) + '/') for p in removed), removed)
        self.assertEqual([bool(v) for v in c.changes(dev_path(ECHO), DEVICE_IFACE, 'ServicesResolved')], [False])

    def test_drop_link_and_fail_next_connect(self):
        c = self.client
        c.discover([CHUNK])
        c.connect(CHUNK)
        c.clear_signals()
        c.test.DropLink(CHUNK)
        pump(0.05)
        self.assertEqual([bool(v) for v in c.changes(dev_path(CHUNK), DEVICE_IFACE, 'Connected')], [False])
        self.assertEqual(c.gatt(CHUNK), {})
        self.assertTrue(c.removed_paths())
        with self.assertRaises(dbus.exceptions.DBusException) as ctx:
            c.test.DropLink(CHUNK)
        self.assertEqual(ctx.exception.get_dbus_name(), 'org.bluez.Test.Error.NotConnected')

        c.test.FailNextConnect(CHUNK, 'org.bluez.Error.Failed')
        with self.assertRaises(dbus.exceptions.DBusException) as ctx:
            c.device(CHUNK).Connect()
        self.assertEqual(ctx.exception.get_dbus_name(), 'org.bluez.Error.Failed')
        self.assertFalse(c.prop(dev_path(CHUNK), DEVICE_IFACE, 'Connected'))
        c.connect(CHUNK)   # only the next attempt fails
        with self.assertRaises(dbus.exceptions.DBusException) as ctx:
            c.test.DropLink('nonsense')
        self.assertEqual(ctx.exception.get_dbus_name(), 'org.bluez.Test.Error.UnknownDevice')

    # ------------------------------------------------------------------ data path

    def test_write_rules_and_chunk_echo(self):
        c = self.client
        c.discover([CHUNK])
        c.connect(CHUNK)
        gatt = c.gatt(CHUNK)
        tx, rx = gatt[NUS_TX_UUID], gatt[NUS_RX_UUID]
        c.test.ResetStats(CHUNK)

        c.write(tx, b'before-notify')   # nobody listens yet: no notification
        c.iface(rx, GATT_CHRC_IFACE).StartNotify()
        self.assertTrue(c.prop(rx, GATT_CHRC_IFACE, 'Notifying'))
        chunk = bytes(range(161))
        c.write(tx, chunk, 'command')
        c.write(tx, b'\x00second', 'request')
        wait_until(lambda: len(c.notifications(rx)) >= 2, 3.0, 'echoes')
        self.assertEqual(c.notifications(rx), [chunk, b'\x00second'])

        with self.assertRaises(dbus.exceptions.DBusException) as ctx:
            c.write(tx, bytes(183))
        self.assertEqual(ctx.exception.get_dbus_name(), 'org.bluez.Error.InvalidValueLength')
        c.write(tx, bytes(182))   # MTU 185 - 3

        # A second write request while one is outstanding is refused.
        results = []
        chrc = c.iface(tx, GATT_CHRC_IFACE)
        for _ in range(2):
            chrc.WriteValue(dbus.Array(b'req', signature='y'), {'type': 'request'},
                            reply_handler=lambda: results.append('ok'),
                            error_handler=lambda e: results.append(e.get_dbus_name()))
        wait_until(lambda: len(results) == 2, 3.0, 'both write replies')
        self.assertEqual(sorted(results), ['ok', 'org.bluez.Error.InProgress'])

        stats = c.test.GetWriteStats(CHUNK)
        self.assertEqual(int(stats['command']), 3)
        self.assertEqual(int(stats['request']), 2)
        self.assertEqual(str(stats['last-type']), 'request')
        self.assertEqual(int(stats['failed']), 2)
        writes = [bytes(v) for v in c.test.TakeWrites(CHUNK)]
        self.assertEqual(writes[:3], [b'before-notify', chunk, b'\x00second'])

        with self.assertRaises(dbus.exceptions.DBusException) as ctx:
            c.write(rx, b'x')
        self.assertEqual(ctx.exception.get_dbus_name(), 'org.bluez.Error.NotSupported')
        c.iface(rx, GATT_CHRC_IFACE).StopNotify()
        self.assertFalse(c.prop(rx, GATT_CHRC_IFACE, 'Notifying'))

    def test_sink_device_with_options(self):
        c = self.client
        sink = 'C0:FF:EE:00:00:0B'
        path = c.test.AddDeviceWithOptions(sink, 'QLT-Sink', 'sink', dbus.Int16(-45), {
            'Mtu': dbus.UInt16(23),
            'ManufacturerData': dbus.Dictionary({dbus.UInt16(0x1234): dbus.Array(b'\x09', signature='y')},
                                                signature='qv')})
        try:
            self.assertEqual(path, dev_path(sink))
            c.discover([sink])
            mdata = c.objects()[path][DEVICE_IFACE]['ManufacturerData']
            self.assertEqual({int(k): bytes(v) for k, v in mdata.items()}, {0x1234: b'\x09'})
            c.connect(sink)
            gatt = c.gatt(sink)
            tx, rx = gatt[NUS_TX_UUID], gatt[NUS_RX_UUID]
            with self.assertRaises(dbus.exceptions.DBusException) as ctx:
                c.write(tx, bytes(21))          # MTU 23 leaves 20 bytes
            self.assertEqual(ctx.exception.get_dbus_name(), 'org.bluez.Error.InvalidValueLength')
            c.write(tx, b'a' * 20)
            c.write(tx, b'b')
            self.assertEqual([bytes(v) for v in c.test.TakeWrites(sink)], [b'a' * 20, b'b'])
            self.assertEqual(list(c.test.TakeWrites(sink)), [])
            self.assertFalse(c.test.InjectNotification(sink, dbus.Array(b'\x01', signature='y')))
            c.iface(rx, GATT_CHRC_IFACE).StartNotify()
            self.assertTrue(c.test.InjectNotification(sink, dbus.Array(b'\x01\x00', signature='y')))
            wait_until(lambda: c.notifications(rx) == [b'\x01\x00'], 2.0, 'the injected notification')
            with self.assertRaises(dbus.exceptions.DBusException) as ctx:
                c.test.AddDeviceWithOptions('C0:FF:EE:00:00:0C', 'X', 'sink', dbus.Int16(-45),
                                            {'Mtu': dbus.String('big')})
            self.assertEqual(ctx.exception.get_dbus_name(), 'org.bluez.Test.Error.InvalidArguments')
        finally:
            c.test.RemoveDevice(sink)
        self.assertNotIn(path, c.objects())

    def _sw_round_trip(self, message, datagram=None, timeout=10.0):
        c = self.client
        c.discover([ECHO])
        c.connect(ECHO)
        link = NusLink(c, ECHO)
        try:
            if datagram is not None:
                link.peer.send_udp(datagram)
            link.peer.send_tcp(message)
            wait_until(lambda: len(link.received()) >= len(message) and link.peer.idle
                       and (datagram is None or link.datagrams), timeout, 'the echo')
            self.assertEqual(link.write_errors, [])
            return link
        finally:
            link.close()

    def test_sw_echo_round_trip(self):
        message = bytes((i * 7 + 3) & 0xFF for i in range(500))
        link = self._sw_round_trip(message, datagram=b'\x02hello')
        self.assertEqual(link.received(), message)
        self.assertEqual([len(s) for s in link.segments], [120, 120, 120, 120, 20])
        self.assertEqual([bytes(d) for d in link.datagrams], [b'\x02hello'])
        peer = self.client.test.GetPeerStats(ECHO)
        self.assertEqual(int(peer['segments-accepted']), 5)
        self.assertEqual(int(peer['malformed']), 0)

    def test_sw_echo_recovers_from_seeded_loss(self):
        c = self.client
        c.test.SetWriteLoss(ECHO, 0.2, 7)
        c.test.SetNotifyLoss(ECHO, 0.2, 11)
        try:
            message = bytes(range(256)) * 2
            link = self._sw_round_trip(message, timeout=20.0)
            self.assertEqual(link.received(), message)
            stats = c.test.GetWriteStats(ECHO)
            self.assertGreater(int(stats['lost-writes']) + int(stats['lost-notifications']), 0)
        finally:
            c.test.SetWriteLoss(ECHO, 0.0, 0)
            c.test.SetNotifyLoss(ECHO, 0.0, 0)

    def test_sw_echo_answers_frame_by_frame(self):
        # Drive the device side with raw frames and watch its raw answers.
        c = self.client
        c.discover([ECHO])
        c.connect(ECHO)
        gatt = c.gatt(ECHO)
        tx, rx = gatt[NUS_TX_UUID], gatt[NUS_RX_UUID]
        arrivals = []
        c.bus.add_signal_receiver(
            lambda iface, changed, inv: arrivals.append((time.monotonic(), bytes(changed['Value'])))
            if 'Value' in changed else None,
            signal_name='PropertiesChanged', path=rx, byte_arrays=True)
        c.iface(rx, GATT_CHRC_IFACE).StartNotify()

        def frames():
            return [f for _, f in arrivals]

        c.write(tx, b'\x20abc')                      # out of order: rejected at once with R=0
        wait_until(lambda: frames() == [b'\x05'], 2.0, 'rejection 0x05')
        c.write(tx, b'\x02dgram')                    # datagram: echoed, never acknowledged
        c.write(tx, b'\x00abc')                      # in order: acknowledged R=1, echoed as segment 0
        wait_until(lambda: b'\x13' in frames() and b'\x00abc' in frames(), 2.0, 'ack 0x13 and the echo')
        self.assertIn(b'\x02dgram', frames())
        self.assertLess(frames().index(b'\x02dgram'), frames().index(b'\x00abc'))
        echo_time = next(t for t, f in arrivals if f == b'\x00abc')
        # We leave the echo unacknowledged: the device polls for it (oldest 0, next 1) after 0.3 s.
        wait_until(lambda: b'\x01\x00\x01' in frames(), 3.0, 'the device\'s status poll')
        poll_time = next(t for t, f in arrivals if f == b'\x01\x00\x01')
        self.assertGreaterEqual(poll_time - echo_time, 0.25)
        c.write(tx, b'\x01\x00\x01')                  # our poll: R=1 equals "next", so acknowledged
        c.write(tx, b'\x01\x00\x02')                  # R=1 lies inside 0..2: rejection with R=1
        c.write(tx, b'\x01\x02\x03')                  # R=1 outside 2..3: ignored
        c.write(tx, b'\x13')                          # acknowledge the echo: the polls stop
        pump(0.1)
        tail = frames()[frames().index(b'\x01\x00\x01') + 1:]
        self.assertEqual(tail[:2], [b'\x13', b'\x15'])
        count = len(frames())
        pump(0.5)
        self.assertEqual(len(frames()), count, frames()[count:])
        self.assertEqual(int(c.test.GetPeerStats(ECHO)['queued']), 0)

    def test_malformed_frames_are_logged_not_fatal(self):
        c = self.client
        c.discover([ECHO])
        c.connect(ECHO)
        tx = c.gatt(ECHO)[NUS_TX_UUID]
        for frame in (b'\x01\x00', b'\x00', b'\x43', bytes([0x02]) + bytes(150)):
            c.write(tx, frame)
        pump(0.05)
        self.assertEqual(int(c.test.GetPeerStats(ECHO)['malformed']), 4)
        self.assertTrue(c.prop(dev_path(ECHO), DEVICE_IFACE, 'Connected'))

    # ------------------------------------------------------------------ adapter and daemon

    def test_adapter_power_and_removal(self):
        c = self.client
        c.discover([CHUNK])
        c.connect(CHUNK)
        c.clear_signals()
        c.test.SetPowered(False)
        pump(0.05)
        self.assertFalse(c.prop(ADAPTER_PATH, ADAPTER_IFACE, 'Powered'))
        self.assertFalse(c.prop(dev_path(CHUNK), DEVICE_IFACE, 'Connected'))
        with self.assertRaises(dbus.exceptions.DBusException) as ctx:
            c.adapter().StartDiscovery()
        self.assertEqual(ctx.exception.get_dbus_name(), 'org.bluez.Error.NotReady')
        # Powering on through the property, as a client would.
        c.iface(ADAPTER_PATH, dbus.PROPERTIES_IFACE).Set(ADAPTER_IFACE, 'Powered', dbus.Boolean(True))
        self.assertTrue(c.prop(ADAPTER_PATH, ADAPTER_IFACE, 'Powered'))

        c.test.RemoveAdapter()
        pump(0.05)
        self.assertIn(ADAPTER_PATH, c.removed_paths())
        self.assertFalse([p for p in c.objects() if str(p).startswith(ADAPTER_PATH)])
        c.test.AddAdapter()
        pump(0.05)
        self.assertIn(ADAPTER_PATH, c.added_paths())
        c.discover([CHUNK])

        # Reset: back to the start-up devices; added devices and recorded filters are gone.
        c.test.AddDevice('C0:FF:EE:00:00:09', 'Extra', 'sink', dbus.Int16(-40))
        with self.assertRaises(dbus.exceptions.DBusException) as ctx:
            c.test.AddDevice('C0:FF:EE:00:00:0A', 'Bad', 'teleport', dbus.Int16(-40))
        self.assertEqual(ctx.exception.get_dbus_name(), 'org.bluez.Test.Error.InvalidArguments')
        c.test.Reset()
        with self.assertRaises(dbus.exceptions.DBusException):
            c.test.ResetStats('C0:FF:EE:00:00:09')
        self.assertNotIn(dev_path(CHUNK), c.objects())
        self.assertTrue(c.prop(ADAPTER_PATH, ADAPTER_IFACE, 'Powered'))

    def test_z_restart(self):
        # Named to run last: the daemon comes back with no device objects.
        c = self.client
        owners = []
        c.bus.add_signal_receiver(lambda name, old, new: owners.append(str(new)),
                                  signal_name='NameOwnerChanged', arg0='org.bluez')
        c.test.Restart(dbus.UInt32(200))
        wait_until(lambda: len(owners) >= 2, 10.0, 'org.bluez to vanish and come back')
        self.assertEqual(owners[0], '')
        self.assertNotEqual(owners[1], '')
        self.assertNotIn(dev_path(ECHO), c.objects())
        c.discover([ECHO])   # the devices on the air survive a daemon restart

        start = time.monotonic()
        self.mock_bus.restart_mock(downtime=0.1)
        self.assertGreaterEqual(time.monotonic() - start, 0.1)
        self.assertTrue(self.mock_bus.name_has_owner('org.bluez'))
        self.assertIn(ADAPTER_PATH, c.objects())


class HarnessCliTest(unittest.TestCase):
    def test_exit_code_and_cleanup(self):
        import subprocess
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'run_with_mock_bus.sh')
        probe = ('import os,sys,dbus; b=dbus.bus.BusConnection(os.environ["DBUS_SYSTEM_BUS_ADDRESS"]); '
                 'print(os.environ["QLT_MOCK_BLUEZ_DIR"]); sys.exit(3 if b.name_has_owner("org.bluez") else 1)')
        out = subprocess.run([script, '/usr/bin/python3', '-c', probe], capture_output=True, text=True,
                             timeout=60, check=False)
        self.assertEqual(out.returncode, 3, out.stderr)
        self.assertFalse(os.path.exists(out.stdout.strip()))


if __name__ == '__main__':
    unittest.main(verbosity=2)
