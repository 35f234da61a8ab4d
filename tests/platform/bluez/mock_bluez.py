#!/usr/bin/python3
"""A mock bluetoothd on a private system bus, for the BlueZ backend's tests (see README.md):
`mock_bluez.py --session` is steered by JSON requests on stdin; `mock_bluez.py [--] CMD` serves
while CMD runs."""
import ctypes, json, math, os, random, shutil, signal, socket, subprocess, sys, tempfile, time
import dbus, dbus.lowlevel, dbus.mainloop.glib, dbus.service
from gi.repository import GLib

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import slide_window  # noqa: E402

B = 'org.bluez.'
ADAPTER, DEVICE, SERVICE, CHRC = B + 'Adapter1', B + 'Device1', B + 'GattService1', B + 'GattCharacteristic1'
OM, PROPS = 'org.freedesktop.DBus.ObjectManager', 'org.freedesktop.DBus.Properties'
HCI = '/org/bluez/hci0'
HCI1 = '/org/bluez/hci1'  # a second adapter, off until asked: no device is ever seen through it
NUS, TX, RX = ('6e40000%d-b5a3-f393-e0a9-e50e24dcca9e' % i for i in (1, 2, 3))
HEART_RATE = '0000180d-0000-1000-8000-00805f9b34fb'
DEVICES = [('C0:FF:EE:00:00:01', 'QLT-Echo', 'sw-echo', -55), ('C0:FF:EE:00:00:02', 'QLT-Chunk', 'chunk-echo', -62),
           ('C0:FF:EE:00:00:03', 'HR-Sensor', 'heart-rate', -70), ('C0:FF:EE:00:00:05', 'QLT-Source', 'source', -66)]
MTU = 185
BUS, WORLD, LOOP, OBJECTS, RESTART = None, None, None, {}, []


def bluez_error(name):
    return dbus.exceptions.DBusException(name, name=B + 'Error.' + name)


class Timers:
    """The mock's timers (GLib.timeout_add's contract) on a clock of its own: real time plus what
    `settle` skipped, so a test sees what a wait would bring without waiting."""

    def __init__(self):
        self.skipped, self.ids, self.live, self.armed = 0.0, 0, {}, None  # live: id -> [due, period, func]

    def now(self):
        return time.monotonic() + self.skipped

    def timeout_add(self, ms, func, *args):
        self.ids += 1
        self.live[self.ids] = [self.now() + ms / 1000, ms / 1000, lambda: func(*args)]
        self.arm()
        return self.ids

    def source_remove(self, timer):
        self.live.pop(timer, None)

    def run_due(self):
        ran = False
        while self.live:
            timer, (due, period, func) = min(self.live.items(), key=lambda t: t[1][0])
            if due > self.now():
                break
            ran = True
            if func() and timer in self.live:  # true: again, a period on
                self.live[timer][0] = due + period
            else:
                self.live.pop(timer, None)
        self.arm()
        return ran

    def arm(self):
        if self.armed is not None:
            GLib.source_remove(self.armed)
        wait = min((t[0] for t in self.live.values()), default=None)
        self.armed = None if wait is None else GLib.timeout_add(max(0, math.ceil((wait - self.now()) * 1000)), self.fire)

    def fire(self):
        self.armed = None
        self.run_due()
        return False

    def settle(self, seconds):
        """Handles what is ready (values written, calls made), lets `seconds` pass at once with every
        timer they hold, and sends every signal that caused."""
        context, self.skipped = GLib.MainContext.default(), self.skipped + seconds
        while context.pending() or self.run_due():
            context.iteration(False)
        BUS.flush()


TIMERS = slide_window.TIMERS = Timers()


def later(ms, func, *args):
    TIMERS.timeout_add(ms, lambda: bool(func(*args)) and False)


def emit(path, iface, member, signature, *args):
    msg = dbus.lowlevel.SignalMessage(path, iface, member)
    msg.append(*args, signature=signature)
    BUS.send_message(msg)


def changed(path, iface, props, invalidated=()):
    emit(path, PROPS, 'PropertiesChanged', 'sa{sv}as', iface, dbus.Dictionary(props, signature='sv'),
         dbus.Array(invalidated, signature='s'))


def ay(data):
    return dbus.Array(bytes(data), signature='y')


class Obj(dbus.service.Object):
    """One object of the tree with one interface; InterfacesAdded/Removed as bluetoothd sends them."""

    def __init__(self, path, iface, props, device=None):
        self.path, self.iface, self.props, self.device = path, iface, props, device
        super().__init__(BUS, path)
        OBJECTS[path] = self
        emit('/', OM, 'InterfacesAdded', 'oa{sa{sv}}', dbus.ObjectPath(path), {iface: props})

    def remove(self):
        OBJECTS.pop(self.path, None)
        self.remove_from_connection()
        emit('/', OM, 'InterfacesRemoved', 'oas', dbus.ObjectPath(self.path), dbus.Array([self.iface], 's'))

    def set(self, **props):
        self.props.update(props)
        changed(self.path, self.iface, props)


class Root(dbus.service.Object):
    @dbus.service.method(OM, out_signature='a{oa{sa{sv}}}')
    def GetManagedObjects(self):
        return {dbus.ObjectPath(p): {o.iface: o.props} for p, o in OBJECTS.items()}


class Adapter(Obj):
    @dbus.service.method(ADAPTER, in_signature='a{sv}', sender_keyword='sender')
    def SetDiscoveryFilter(self, flt, sender=None):
        WORLD.filters[sender] = dict(flt)

    @dbus.service.method(ADAPTER, sender_keyword='sender')
    def StartDiscovery(self, sender=None):
        WORLD.scanners.add(sender)
        if len(WORLD.scanners) == 1:
            self.set(Discovering=dbus.Boolean(True))
            later(20, WORLD.scan_tick)

    @dbus.service.method(ADAPTER, sender_keyword='sender')
    def StopDiscovery(self, sender=None):
        WORLD.scanners.discard(sender)
        if not WORLD.scanners:
            WORLD.end_discovery()


class DeviceObj(Obj):
    @dbus.service.method(DEVICE, async_callbacks=('ok', 'err'))
    def Connect(self, ok, err):
        self.device.connect(ok, err)

    @dbus.service.method(DEVICE, async_callbacks=('ok', 'err'))
    def Disconnect(self, ok, err):
        self.device.disconnect(ok, err)


class Characteristic(Obj):
    @dbus.service.method(CHRC, in_signature='aya{sv}', byte_arrays=True)
    def WriteValue(self, value, options):
        kind = str(options.get('type', ''))
        wanted = {'command': 'write-without-response', 'request': 'write'}.get(kind)
        if wanted not in self.props['Flags']:
            raise bluez_error('NotSupported')
        if len(value) > MTU - 3:
            raise bluez_error('InvalidValueLength')
        self.device.stats[kind] += 1
        self.device.written(self, bytes(value))

    @dbus.service.method(CHRC, async_callbacks=('ok', 'err'))
    def StartNotify(self, ok, err):
        if 'notify' not in self.props['Flags']:
            return err(bluez_error('NotSupported'))
        later(5, lambda: (self.device.notifying(self, True), ok()))

    @dbus.service.method(CHRC, async_callbacks=('ok', 'err'))
    def StopNotify(self, ok, err):
        later(5, lambda: (self.device.notifying(self, False), ok()))

    @dbus.service.method(CHRC, in_signature='a{sv}', out_signature='hq')
    def AcquireWrite(self, options):
        return self.device.acquire_socket(self, 'WriteAcquired')

    @dbus.service.method(CHRC, in_signature='a{sv}', out_signature='hq')
    def AcquireNotify(self, options):
        return self.device.acquire_socket(self, 'NotifyAcquired')


class Device:
    """A device on the air; its object exists once a scan has seen it (or while it is connected)."""

    def __init__(self, address, name, behaviour, rssi):
        self.address, self.name, self.behaviour, self.rssi = address, name, behaviour, rssi
        self.path = HCI + '/dev_' + address.replace(':', '_')
        self.uuids = [HEART_RATE if behaviour == 'heart-rate' else NUS]
        self.obj, self.gatt, self.peer, self.pending, self.fail_next = None, [], None, None, None
        self.connected, self.hold = False, False
        self.acquire = True  # offer AcquireWrite/AcquireNotify
        self.sockets = {}  # characteristic path -> (our end, GLib watch)
        self.stats = dict.fromkeys(['command', 'request', 'acquired-writes', 'acquired-notifications',
                                    'connects', 'disconnects', 'lost-writes', 'lost-notifications'], 0)
        self.peer_counts = {}  # what the sliding-window peers of ended links did, summed
        self.set_loss(loss_from_environment())

    def set_loss(self, loss):
        """Air loss of the UART frames: `write` and `notify` fractions, drawn from a generator
        seeded with `seed` (and the address), so that a run can be repeated."""
        self.loss = {'write': float(loss.get('write', 0)), 'notify': float(loss.get('notify', 0))}
        self.rng = random.Random('%s/%s' % (loss.get('seed', 0), self.address))

    def lost(self, way):
        if self.loss[way] and self.rng.random() < self.loss[way]:
            self.stats['lost-writes' if way == 'write' else 'lost-notifications'] += 1
            return True
        return False

    def counts(self):
        totals = dict(self.peer_counts)
        for k, v in (self.peer.counters.items() if self.peer else ()):
            totals[k] = totals.get(k, 0) + v
        return dict(self.stats, malformed=self.peer.malformed if self.peer else 0, **totals)

    def publish(self, connected=False):
        if self.obj is None:
            self.obj = DeviceObj(self.path, DEVICE, {
                'Address': self.address, 'Name': self.name, 'Alias': self.name, 'Adapter': dbus.ObjectPath(HCI),
                'Connected': dbus.Boolean(connected), 'ServicesResolved': dbus.Boolean(connected),
                'UUIDs': dbus.Array(self.uuids, 's'), 'RSSI': dbus.Int16(self.rssi), **self.advertising()}, self)
            self.connected = connected
            if connected:
                self.add_gatt()
        else:
            self.rssi += 1 if self.rssi < -60 else -3
            self.obj.set(RSSI=dbus.Int16(self.rssi))

    def advertising(self):
        """As the simulated radio's default devices advertise."""
        if self.behaviour == 'heart-rate':
            return {'ServiceData': dbus.Dictionary({HEART_RATE: ay(b'H')}, 'sv'), 'TxPower': dbus.Int16(-8)}
        companies = {dbus.UInt16(0xFFFF): ay(b'QLT'), **({dbus.UInt16(0x59): ay(b'\x01\x02')} if self.name == 'QLT-Echo' else {})}
        return {'ManufacturerData': dbus.Dictionary(companies, 'qv'), 'TxPower': dbus.Int16(4)}

    def connect(self, ok, err):
        if not WORLD.adapter.props['Powered']:
            return err(bluez_error('NotReady'))
        if self.connected:
            return err(bluez_error('AlreadyConnected'))
        if self.pending:
            return err(bluez_error('InProgress'))
        if self.fail_next:
            name, self.fail_next = self.fail_next, None
            return later(40, err, dbus.exceptions.DBusException('failed as asked', name=name))
        self.pending = (ok, err)
        later(40, self.link_up, self.pending)

    def link_up(self, attempt):
        if self.pending is not attempt:
            return
        self.connected = True
        self.stats['connects'] += 1
        self.obj.set(Connected=dbus.Boolean(True))
        if self.behaviour in ('sw-echo', 'source'):
            self.peer = self.new_peer()
            self.peer.start()
        later(60, self.resolved, attempt)

    def resolved(self, attempt):
        if self.pending is attempt:
            self.add_gatt()
            self.obj.set(ServicesResolved=dbus.Boolean(True))
            self.pending = None
            attempt[0]()

    def disconnect(self, ok, err):
        self.stats['disconnects'] += 1
        later(10, lambda: (self.link_down(), ok()))

    def link_down(self):
        was, self.connected = self.connected, False
        if self.peer:
            self.peer.stop()
            for k, v in self.peer.counters.items():
                self.peer_counts[k] = self.peer_counts.get(k, 0) + v
        self.peer = None
        if self.pending:
            self.pending, (_, err) = None, self.pending
            err(bluez_error('Failed'))
        if self.obj is not None and was:
            self.obj.set(ServicesResolved=dbus.Boolean(False))
            self.remove_gatt()
            self.obj.set(Connected=dbus.Boolean(False))

    def add_gatt(self):
        def chrc(svc, n, uuid, flags):
            props = {'UUID': uuid, 'Service': dbus.ObjectPath(svc), 'Flags': dbus.Array(flags, 's'),
                     'Value': ay(b''), 'MTU': dbus.UInt16(MTU)}
            if 'notify' in flags:
                props['Notifying'] = dbus.Boolean(False)
            if self.acquire and 'notify' in flags:
                props['NotifyAcquired'] = dbus.Boolean(False)
            if self.acquire and 'write-without-response' in flags:
                props['WriteAcquired'] = dbus.Boolean(False)
            return Characteristic('%s/char%04x' % (svc, n), CHRC, props, self)

        if self.behaviour == 'heart-rate':
            services = [(HEART_RATE, [('00002a37-0000-1000-8000-00805f9b34fb', ['notify'])])]
        else:
            services = [(NUS, [(TX, ['write-without-response', 'write']), (RX, ['notify'])])]
        for i, (uuid, chrcs) in enumerate(services):
            svc = '%s/service%04x' % (self.path, 16 * i + 10)
            self.gatt.append(Obj(svc, SERVICE, {'UUID': uuid, 'Device': dbus.ObjectPath(self.path),
                                                'Primary': dbus.Boolean(True)}))
            self.gatt += [chrc(svc, 16 * i + 11 + 2 * n, u, f) for n, (u, f) in enumerate(chrcs)]

    def remove_gatt(self):
        for path in list(self.sockets):
            self.release(path)
        for obj in reversed(self.gatt):
            obj.remove()
        self.gatt = []

    def chrc(self, uuid):
        return next((c for c in self.gatt if c.props.get('UUID') == uuid and c.iface == CHRC), None)

    def notifying(self, chrc, on):
        if chrc.props['Notifying'] != on:
            chrc.set(Notifying=dbus.Boolean(on))
        if self.peer and self.behaviour == 'source':
            self.peer.streaming = on
        if on and self.peer and not self.peer.running:
            self.peer.start()  # a link kept across a restart resumes once notified again

    def written(self, chrc, value):
        if chrc is not self.chrc(TX) or self.lost('write'):
            return
        if self.peer:
            self.peer.receive(value)
        elif self.behaviour == 'chunk-echo':
            self.notify(value)

    def new_peer(self):  # the device's end of the sliding window: echoes segments and datagrams, or streams
        if self.behaviour == 'source':
            return slide_window.SlideWindowPeer(self.notify, lambda p: None, lambda p: None)
        return slide_window.SlideWindowPeer(self.notify, lambda p: self.peer.send_tcp(p), lambda p: self.peer.send_udp(p))

    def notify(self, value):
        rx = self.chrc(RX)
        if rx is None or not self.connected or not rx.props.get('Notifying'):
            return False
        if self.lost('notify'):
            return True  # sent, and lost on the air
        if rx.path in self.sockets:
            sock = self.sockets[rx.path][0]
            sock.settimeout(1.0)  # as the air would, wait for room a while
            try:
                sock.send(value)
                self.stats['acquired-notifications'] += 1
            except OSError:
                return False
            finally:
                sock.setblocking(False)
            return True
        rx.props['Value'] = ay(value)
        changed(rx.path, CHRC, {'Value': ay(value)})
        return True

    def acquire_socket(self, chrc, prop):
        if prop not in chrc.props:
            raise bluez_error('NotSupported')
        if chrc.path in self.sockets:
            raise bluez_error('NotPermitted')
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        ours.setblocking(False)
        watch = GLib.io_add_watch(ours.fileno(), GLib.PRIORITY_DEFAULT, GLib.IO_IN | GLib.IO_HUP | GLib.IO_ERR,
                                  self.on_socket, chrc)
        self.sockets[chrc.path] = (ours, watch)
        chrc.set(**{prop: dbus.Boolean(True)})
        if prop == 'NotifyAcquired':
            self.notifying(chrc, True)
        fd = dbus.types.UnixFd(theirs)
        theirs.close()
        return fd, dbus.UInt16(MTU)

    def on_socket(self, fd, condition, chrc):
        while condition & GLib.IO_IN:
            try:
                value = self.sockets[chrc.path][0].recv(4096)
            except BlockingIOError:
                return True
            except OSError:
                value = b''
            if not value:
                break
            self.stats['command'] += 1
            self.stats['acquired-writes'] += 1
            self.written(chrc, value)
        self.release(chrc.path, watch=False)
        return False

    def release(self, path, watch=True):
        sock, source = self.sockets.pop(path)
        if watch:
            GLib.source_remove(source)
        sock.close()
        chrc = OBJECTS.get(path)
        if chrc:
            chrc.set(**{p: dbus.Boolean(False) for p in ('WriteAcquired', 'NotifyAcquired') if p in chrc.props})
            if 'NotifyAcquired' in chrc.props:
                self.notifying(chrc, False)


class World:
    def __init__(self, saved):
        self.devices = {a: Device(a, n, b, r) for a, n, b, r in DEVICES}
        self.scanners, self.filters = set(), {}
        self.adapter = Adapter(HCI, ADAPTER, {'Address': '00:01:02:03:04:05', 'Name': 'qlt-mock',
                                              'Powered': dbus.Boolean(True), 'Discovering': dbus.Boolean(False)})
        self.second = Adapter(HCI1, ADAPTER, {'Address': '00:01:02:03:04:06', 'Name': 'qlt-mock-2',
                                              'Powered': dbus.Boolean(False), 'Discovering': dbus.Boolean(False)})
        for state in saved:  # what was on the air (and connected) before a restart
            dev = self.devices[state['address']]
            dev.acquire = state['acquire']
            if state['connected']:
                dev.publish(connected=True)
                if state['peer']:
                    dev.peer = dev.new_peer()
                    dev.peer.restore(state['peer'])

    def save(self, keep_links):
        return [{'address': d.address, 'acquire': d.acquire,
                 'connected': keep_links and d.connected, 'peer': d.peer.saved() if d.peer else None}
                for d in self.devices.values()]

    def scan_tick(self):
        if not self.scanners:
            return False
        for dev in self.devices.values():
            flts = [self.filters.get(s, {}) for s in self.scanners]
            if any(not {u.lower() for u in f.get('UUIDs', [])} or set(dev.uuids) & {u.lower() for u in f['UUIDs']}
                   for f in flts):
                dev.publish()
        later(100, self.scan_tick)

    def end_discovery(self):
        self.scanners.clear()
        self.adapter.set(Discovering=dbus.Boolean(False))
        for dev in self.devices.values():
            if dev.obj is not None and 'RSSI' in dev.obj.props:
                del dev.obj.props['RSSI']
                changed(dev.path, DEVICE, {}, ['RSSI'])

    def set_powered(self, on):
        if not on:
            if self.scanners:
                self.end_discovery()
            for dev in self.devices.values():
                dev.link_down()
        self.adapter.set(Powered=dbus.Boolean(on))


def loss_from_environment():
    """QLT_MOCK_LOSS, e.g. "write=0.05,notify=0.05,seed=3": the loss every device starts with."""
    items = (i.split('=', 1) for i in os.environ.get('QLT_MOCK_LOSS', '').split(',') if i)
    return {k.strip(): v for k, v in items}


def request(req):
    """One request of the session; returns the reply's value."""
    op, dev = req['op'], WORLD.devices.get(req.get('address', ''))
    if op == 'power':
        WORLD.set_powered(req['on'])
    elif op == 'drop':
        dev.link_down()
    elif op == 'forget':  # the link drops and bluetoothd removes the device object (InterfacesRemoved)
        dev.link_down()
        if dev.obj is not None:
            dev.obj.remove()
            dev.obj = None
    elif op == 'power-second-adapter':
        WORLD.second.set(Powered=dbus.Boolean(req['on']))
    elif op == 'fail-next-connect':
        dev.fail_next = req['error']
    elif op == 'set':  # acquire (offer the sockets), hold (the device's echoes wait)
        setattr(dev, req['name'], req['value'])
        if dev.peer:
            dev.peer.hold = dev.hold
    elif op == 'close-sockets':
        for path in list(dev.sockets):
            dev.release(path)
    elif op == 'stats':
        return dev.counts()
    elif op == 'notify':
        return dev.notify(bytes(req['size'] * [0x5A]))
    elif op == 'wrong-types':  # properties of D-Bus types bluetoothd never sends
        changed(dev.path, DEVICE, {'RSSI': dbus.String('loud'), 'ManufacturerData': dbus.Array(['x'], 's')})
    elif op == 'flood':  # PropertiesChanged of objects that were never announced
        for i in range(req['count']):
            changed('%s/dev_FF_FF_FF_FF_%02X_%02X' % (HCI, i // 256 % 256, i % 256), DEVICE, {'RSSI': dbus.Int16(-1)})
    elif op == 'settle':  # what `seconds` would bring, at once; answered once it is on the bus
        TIMERS.settle(req.get('seconds', 0))
    elif op == 'restart':  # off the bus (as a crash: no InterfacesRemoved), back after `downtime` seconds
        os.environ['QLT_MOCK_WORLD'] = json.dumps(WORLD.save(req.get('keep_links', False)))
        RESTART.append(req.get('downtime', 0.2))  # once the reply is out
    else:
        raise ValueError('unknown request %r' % op)
    return None


def restart(downtime):
    BUS.flush()
    BUS.close()
    time.sleep(downtime)
    os.execv(sys.executable, [sys.executable] + sys.argv)


def on_stdin(fd, condition, buffer=[b'']):
    data = os.read(fd, 65536) if condition & GLib.IO_IN else b''
    if not data:
        LOOP.quit()
        return False
    buffer[0] += data
    while b'\n' in buffer[0]:
        line, buffer[0] = buffer[0].split(b'\n', 1)
        try:
            reply = {'ok': request(json.loads(line))}
        except Exception as e:  # noqa: BLE001 - the test reads the reason
            reply = {'error': repr(e)}
        sys.stdout.write(json.dumps(reply) + '\n')
        sys.stdout.flush()
        if RESTART:
            restart(RESTART[0])
    return True


def start_bus():
    """A dbus-daemon of our own, unless a restart inherited it; its address."""
    if 'QLT_MOCK_BLUEZ_DIR' not in os.environ:
        tmp = os.environ['QLT_MOCK_BLUEZ_DIR'] = tempfile.mkdtemp(prefix='qlt-bluez-')
        with open(tmp + '/bus.conf', 'w', encoding='utf-8') as f:
            f.write('<busconfig><type>system</type><listen>unix:path=%s/bus</listen><auth>EXTERNAL</auth>'
                    '<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/>'
                    '<allow receive_sender="*"/></policy></busconfig>' % tmp)
        libc = ctypes.CDLL(None)
        daemon = subprocess.Popen(['dbus-daemon', '--nofork', '--nopidfile', '--config-file=' + tmp + '/bus.conf'],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  preexec_fn=lambda: libc.prctl(1, signal.SIGKILL))  # dies with us
        os.environ.update(QLT_MOCK_DAEMON=str(daemon.pid), DBUS_SYSTEM_BUS_ADDRESS='unix:path=%s/bus' % tmp)
        for _ in range(500):
            if os.path.exists(tmp + '/bus'):
                break
            time.sleep(0.01)
    return os.environ['DBUS_SYSTEM_BUS_ADDRESS']


def stop_bus():
    os.kill(int(os.environ['QLT_MOCK_DAEMON']), signal.SIGTERM)
    shutil.rmtree(os.environ['QLT_MOCK_BLUEZ_DIR'], ignore_errors=True)


def main():
    global BUS, WORLD, LOOP
    address = start_bus()
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    for _ in range(200):
        try:
            BUS = dbus.bus.BusConnection(address)
            break
        except dbus.exceptions.DBusException:
            time.sleep(0.02)
    Root(BUS, '/')
    WORLD = World(json.loads(os.environ.pop('QLT_MOCK_WORLD', '[]')))
    name = dbus.service.BusName('org.bluez', BUS, do_not_queue=True)  # last: whoever sees it sees the tree
    LOOP = GLib.MainLoop()
    session = sys.argv[1:] == ['--session']
    code = [0]
    if session:
        GLib.io_add_watch(0, GLib.IO_IN | GLib.IO_HUP, on_stdin)
        print('READY ' + address, flush=True)
    else:
        cmd = sys.argv[2:] if sys.argv[1:2] == ['--'] else sys.argv[1:]
        child = subprocess.Popen(cmd).pid
        GLib.child_watch_add(child, lambda pid, status: (code.__setitem__(0, os.waitstatus_to_exitcode(status)),
                                                          LOOP.quit()))
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, lambda: (code.__setitem__(0, 130), LOOP.quit()))
    LOOP.run()
    if os.environ.get('QLT_MOCK_REPORT'):  # what each device saw and did, for benchmarks
        with open(os.environ['QLT_MOCK_REPORT'], 'w', encoding='utf-8') as f:
            json.dump({d.name: d.counts() for d in WORLD.devices.values()}, f)
    del name
    stop_bus()
    return code[0] if code[0] >= 0 else 128 - code[0]


if __name__ == '__main__':
    sys.exit(main())
