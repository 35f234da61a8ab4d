#!/usr/bin/python3
# -*- coding: utf-8 -*-
"""A private bus with the mock bluetoothd, steered over stdin/stdout by a C++ test.

Starts tests/platform/bluez/bus_harness.MockBus (dbus-daemon + mock_bluez.py), prints
"READY <bus address>" (or "FAILED <reason>") and then answers one JSON request per
line with one JSON line: {"ok": <result>} or {"error": <D-Bus error name>, "message": ...}.

Requests:
  {"op": "call", "path": P, "iface": I, "method": M, "signature": S, "args": [...]}
      a method call on org.bluez (the control interface org.bluez.Test, or dbusmock's
      org.freedesktop.DBus.Mock on any object)
  {"op": "props_changed", "path": P, "iface": I, "changed": {NAME: [SIG, VALUE]}}
      the mock emits PropertiesChanged with values of exactly these D-Bus types
  {"op": "restart", "downtime": SECONDS}    kill the mock outright and start it again
  {"op": "stop_mock"} / {"op": "start_mock"}  take bluetoothd off the bus / put it back
  {"op": "log"}                             the tail of the mock's log

End of input stops everything. Usage: mock_session.py [--no-default-devices] [--device A,N,B,R]...
"""

import json
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
MOCK_DIR = HERE
sys.path.insert(0, MOCK_DIR)

try:
    import dbus
    import bus_harness
except ImportError as e:  # reported to the test, which fails with this text
    print(f'FAILED cannot import the mock harness from {MOCK_DIR}: {e}', flush=True)
    sys.exit(1)


def typed(signature, value):
    simple = {'s': dbus.String, 'b': dbus.Boolean, 'n': dbus.Int16, 'q': dbus.UInt16,
              'i': dbus.Int32, 'u': dbus.UInt32, 'x': dbus.Int64, 't': dbus.UInt64,
              'd': dbus.Double, 'o': dbus.ObjectPath, 'y': dbus.Byte}
    if signature in simple:
        return simple[signature](value)
    if signature == 'ay':
        return dbus.Array(bytes(value), signature='y')
    if signature == 'as':
        return dbus.Array([dbus.String(v) for v in value], signature='s')
    if signature == 'a{qv}':
        return dbus.Dictionary({dbus.UInt16(int(k)): dbus.Array(bytes(v), signature='y')
                                for k, v in value.items()}, signature='qv')
    raise ValueError(f'unsupported signature {signature}')


def plain(value):
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (dbus.Byte, int)):
        return int(value)
    if isinstance(value, float):
        return float(value)
    if isinstance(value, (str, dbus.ObjectPath, dbus.Signature)):
        return str(value)
    if isinstance(value, (bytes, bytearray, dbus.ByteArray)):
        return list(bytes(value))
    if isinstance(value, dict):
        return {str(k): plain(v) for k, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [plain(v) for v in value]
    return str(value)


def main():
    default_devices = '--no-default-devices' not in sys.argv
    devices = []
    args = sys.argv[1:]
    for i, a in enumerate(args):
        if a == '--device' and i + 1 < len(args):
            devices.append(args[i + 1].split(','))
    mb = bus_harness.MockBus(default_devices=default_devices, devices=devices)
    try:
        mb.start()
    except Exception as e:  # noqa: BLE001 - reported to the test
        print(f'FAILED {e}', flush=True)
        return 1
    conn = None
    try:
        print(f'READY {mb.address}', flush=True)
        for line in sys.stdin:
            line = line.strip()
            if not line:
                continue
            try:
                req = json.loads(line)
                op = req.get('op')
                if conn is None:
                    conn = dbus.bus.BusConnection(mb.address)
                if op == 'call':
                    result = conn.call_blocking('org.bluez', req['path'], req['iface'], req['method'],
                                                req.get('signature', ''), req.get('args', []),
                                                timeout=10.0)
                    reply = {'ok': plain(result)}
                elif op == 'props_changed':
                    changed = dbus.Dictionary({k: typed(sig, v) for k, (sig, v) in req['changed'].items()},
                                              signature='sv')
                    conn.call_blocking('org.bluez', req['path'], 'org.freedesktop.DBus.Mock', 'EmitSignal',
                                       'sssav', [dbus.PROPERTIES_IFACE, 'PropertiesChanged', 'sa{sv}as',
                                                 [dbus.String(req['iface']), changed,
                                                  dbus.Array([], signature='s')]], timeout=10.0)
                    reply = {'ok': None}
                elif op == 'restart':
                    mb.restart_mock(float(req.get('downtime', 0.2)))
                    reply = {'ok': None}
                elif op == 'stop_mock':
                    mb.stop_mock()
                    reply = {'ok': None}
                elif op == 'start_mock':
                    mb.start_mock()
                    reply = {'ok': None}
                elif op == 'log':
                    reply = {'ok': mb.log_tail(int(req.get('lines', 60)))}
                else:
                    reply = {'error': 'session.UnknownOp', 'message': f'unknown op {op!r}'}
            except dbus.exceptions.DBusException as e:
                reply = {'error': e.get_dbus_name() or 'dbus', 'message': e.get_dbus_message() or str(e)}
            except Exception as e:  # noqa: BLE001 - reported to the test
                reply = {'error': 'session.Failed', 'message': repr(e)}
            print(json.dumps(reply), flush=True)
    finally:
        if conn is not None:
            conn.close()
        mb.stop()
    return 0


if __name__ == '__main__':
    sys.exit(main())
