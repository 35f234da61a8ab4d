"""The device's end of the sliding window, written from the wire format alone (not from the
library's engine), so that a misreading of the protocol shared by both of the library's ends shows.

One frame per characteristic value; the first byte is the header:
    bit 0 = 1: control frame, bits 1-3 kind (0 status poll, 1 acknowledgement, 2 rejection),
               bits 4-7 sequence number; a poll carries two more bytes: oldest unacknowledged, next
    bit 0 = 0: data frame; bit 1 = 1: datagram (0x02 + at most 119 bytes),
               bit 1 = 0: segment (seq << 4 + 1..120 bytes)
Sequence numbers count modulo 4, at most 3 segments in flight, go-back-N on a rejection.
Acknowledgements are cumulative and sent by the worker round (every 3 ms); an out-of-order
segment is rejected at once, a poll answered at once, and a poll of our own goes out 0.3 s after
our last transmission while segments stay unacknowledged. Frames a conforming writer never
produces are counted in `malformed` and dropped. `counters` says what the peer did: segments
sent (`sent`, of which `resent` were sent before), accepted in order (`accepted`), and its
polls (`polls`). As a source (`streaming`, while notifications
are on) it keeps its queue topped up with the counting pattern: byte i of the link is i mod 251.
"""
from gi.repository import GLib

# Where the peer's timers run: GLib's main loop, or a clock of the mock's own (timeout_add, source_remove).
TIMERS = GLib

SEGMENT, DATAGRAM = 120, 119


class SlideWindowPeer:
    def __init__(self, send_frame, on_segment, on_datagram):
        self.send, self.on_segment, self.on_datagram = send_frame, on_segment, on_datagram
        self.tx_queue = []  # unacknowledged payloads, oldest first
        self.read_pos = self.ack_window = self.remote_ack = 0  # released count, next seq to send, next expected
        self.ack_owed, self.hold, self.malformed = False, False, 0
        self.streaming, self.produced = False, 0  # the source: on, and pattern bytes queued so far
        self.round = self.timer = None
        self.fresh = 0  # segments sent at least once, counted from the start
        self.counters = dict.fromkeys(['sent', 'resent', 'accepted', 'polls'], 0)

    KEPT = ('read_pos', 'ack_window', 'remote_ack', 'fresh', 'produced')

    def saved(self):
        return dict({k: getattr(self, k) for k in self.KEPT}, tx_queue=[p.hex() for p in self.tx_queue])

    def restore(self, state):
        for k in self.KEPT:
            setattr(self, k, state[k])
        self.tx_queue = [bytes.fromhex(p) for p in state['tx_queue']]

    @property
    def running(self):
        return self.round is not None

    def start(self):
        self.round = TIMERS.timeout_add(3, self.work)

    def stop(self):
        for source in (self.round, self.timer):
            if source is not None:
                TIMERS.source_remove(source)
        self.round = self.timer = None

    def restart_timer(self):
        if self.timer is not None:
            TIMERS.source_remove(self.timer)
        self.timer = TIMERS.timeout_add(300, self.poll)

    def poll(self):
        self.timer = None
        if self.ack_window != self.read_pos & 3:
            self.counters['polls'] += 1
            self.send(bytes([0x01, self.read_pos & 3, self.ack_window]))
            self.restart_timer()
        return False

    def send_tcp(self, data):
        self.tx_queue += [data[i:i + SEGMENT] for i in range(0, len(data), SEGMENT)]

    def send_udp(self, data):
        self.send(b'\x02' + data)

    def work(self):
        while self.streaming and len(self.tx_queue) < 6:
            self.tx_queue.append(bytes((self.produced + i) % 251 for i in range(SEGMENT)))
            self.produced += SEGMENT
        in_flight = (self.ack_window - self.read_pos) % 4
        while not self.hold and in_flight < min(3, len(self.tx_queue)):
            index = self.read_pos + in_flight
            self.counters['sent'] += 1
            self.counters['resent'] += index < self.fresh
            self.fresh = max(self.fresh, index + 1)
            self.send(bytes([self.ack_window << 4]) + self.tx_queue[in_flight])
            in_flight, self.ack_window = in_flight + 1, (self.ack_window + 1) & 3
            self.restart_timer()
        if self.ack_owed:
            self.ack_owed = False
            self.send(bytes([0x03 | self.remote_ack << 4]))
        return True

    def bad(self, frame, why):  # counted, not logged: the tests read `malformed`
        self.malformed += 1

    def receive(self, frame):
        if not frame:
            return self.bad(frame, 'empty')
        header, seq = frame[0], frame[0] >> 4
        if header & 1:
            kind = header >> 1 & 7
            if kind == 0:
                if len(frame) < 3 or frame[1] > 3 or frame[2] > 3:
                    return self.bad(frame, 'poll')
                a, b, r = frame[1], frame[2] + (4 if frame[2] < frame[1] else 0), self.remote_ack
                r += 4 if r < a else 0
                if a <= r <= b:  # all received: acknowledge; some missing: reject from R
                    self.send(bytes([(0x03 if r >= b else 0x05) | self.remote_ack << 4]))
            elif kind in (1, 2):
                if seq > 3:
                    return self.bad(frame, 'sequence number')
                a = self.read_pos & 3
                b, x = self.ack_window + (4 if self.ack_window < a else 0), seq + (4 if seq < a else 0)
                if kind == 1 and a <= x <= b:
                    del self.tx_queue[:x - a]
                    self.read_pos += x - a
                    self.restart_timer()
                elif kind == 2 and a <= x < b:
                    self.ack_window = x & 3
                    self.restart_timer()
        elif header & 2:
            if len(frame) - 1 > DATAGRAM:
                return self.bad(frame, 'datagram too long')
            self.on_datagram(frame[1:])
        elif not 1 < len(frame) <= SEGMENT + 1:
            return self.bad(frame, 'segment length')
        elif seq != self.remote_ack:
            self.send(bytes([0x05 | self.remote_ack << 4]))
        else:
            self.remote_ack, self.ack_owed = (self.remote_ack + 1) & 3, True
            self.counters['accepted'] += 1
            self.on_segment(frame[1:])
        return None
