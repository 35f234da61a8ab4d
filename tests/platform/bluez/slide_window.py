# -*- coding: utf-8 -*-
"""Python peer of QueltLibrary's sliding-window protocol, driven by GLib timers.

The mock bluetoothd uses it as the firmware of "sw-echo" devices; the mock's
self-test uses the very same class as a minimal client. The protocol is
symmetric, so one engine serves both roles.

Wire format (one frame per characteristic value, first byte is the header):

    bit 0      1 = control frame, 0 = data frame
    bit 1      data frames: 1 = datagram ("UDP"), 0 = segment ("TCP")
    bits 1-3   control frames: 0 = status poll, 1 = acknowledgement, 2 = rejection
    bits 4-7   sequence number (modulo 4)

    segment          seq<<4, payload of 1..SEGMENT_SIZE bytes
    datagram         0x02, payload of 0..SEGMENT_SIZE-1 bytes
    status poll      0x01, oldest unacknowledged seq, next seq to send
    acknowledgement  0x03 | R<<4   (R = next segment expected)
    rejection        0x05 | R<<4   (resend from R)

Behaviour: window of 3 segments in flight, go-back-N on rejection, cumulative
acknowledgements sent by the periodic worker round, immediate rejection of an
out-of-order segment, immediate answers to status polls, and a status poll of
our own when our oldest segment stays unacknowledged for POLL_TIMEOUT_S.

Frames that a conforming writer never produces (empty frames, short polls,
sequence numbers outside 0-3, over-long payloads) are logged, counted in
``malformed`` and dropped; they never raise.
"""

import logging

from gi.repository import GLib

SEGMENT_SIZE = 120          # payload bytes per "TCP" segment
DATAGRAM_LIMIT = 119        # largest datagram payload (a 120-byte one is refused)
SEQ_MODULUS = 4
WINDOW = 3
POLL_TIMEOUT_S = 0.3
DEFAULT_ROUND_MS = 3        # worker round period

HDR_DATAGRAM = 0x02
CTRL_POLL = 0
CTRL_ACK = 1
CTRL_REJECT = 2

log = logging.getLogger('slide_window')


def ack_frame(seq):
    return bytes([0x03 | (seq << 4)])


def reject_frame(seq):
    return bytes([0x05 | (seq << 4)])


def poll_frame(oldest, next_seq):
    return bytes([0x01, oldest, next_seq])


def segment_frame(seq, payload):
    return bytes([seq << 4]) + bytes(payload)


def datagram_frame(payload):
    return bytes([HDR_DATAGRAM]) + bytes(payload)


def _unwrap(a, b, x):
    """Unwrap window end b and value x relative to window start a (all 0-3)."""
    if b < a:
        b += SEQ_MODULUS
    if x < a:
        x += SEQ_MODULUS
    return b, x


class OneShotTimer:
    """Re-armable GLib timeout: restart() re-arms it, expired tells whether it ran out."""

    def __init__(self, timeout_s, on_expiry):
        self._timeout_ms = max(1, int(round(timeout_s * 1000)))
        self._on_expiry = on_expiry
        self._source = None
        self.expired = False

    def restart(self):
        self.cancel()
        self.expired = False
        self._source = GLib.timeout_add(self._timeout_ms, self._fire)

    def cancel(self):
        if self._source is not None:
            GLib.source_remove(self._source)
            self._source = None

    def _fire(self):
        self._source = None
        self.expired = True
        self._on_expiry()
        return GLib.SOURCE_REMOVE


class SlideWindowPeer:
    """One end of a sliding-window link.

    send_frame(bytes)      called for every frame to put on the wire
    on_segment(bytes)      called with every accepted "TCP" payload, in order
    on_datagram(bytes)     called with every received datagram payload
    name                   prefix for log lines
    """

    def __init__(self, send_frame, on_segment=None, on_datagram=None, name='peer',
                 round_ms=DEFAULT_ROUND_MS, poll_timeout_s=POLL_TIMEOUT_S):
        self._send_frame = send_frame
        self._on_segment = on_segment or (lambda payload: None)
        self._on_datagram = on_datagram or (lambda payload: None)
        self.name = name
        self._round_ms = round_ms
        self._round_source = None
        self.timer = OneShotTimer(poll_timeout_s, self._on_timer_expired)

        # Sender state.
        self.tx_queue = []          # unacknowledged payloads, oldest first
        self.read_pos = 0           # segments released since the start
        self.ack_window = 0         # sequence of the next segment put on the wire
        # Receiver state.
        self.remote_ack = 0         # sequence of the next segment expected
        self.ack_owed = False

        # Counters for tests.
        self.stats = {
            'segments-sent': 0, 'segments-resent': 0, 'segments-accepted': 0,
            'datagrams-sent': 0, 'datagrams-received': 0,
            'acks-sent': 0, 'rejects-sent': 0, 'polls-sent': 0,
            'acks-received': 0, 'rejects-received': 0, 'polls-received': 0,
            'malformed': 0,
        }
        self._highest_sent = 0      # absolute index one past the highest segment ever sent

    # ---------------------------------------------------------------- lifecycle

    def start(self):
        if self._round_source is None:
            self._round_source = GLib.timeout_add(self._round_ms, self._round)

    def stop(self):
        if self._round_source is not None:
            GLib.source_remove(self._round_source)
            self._round_source = None
        self.timer.cancel()

    @property
    def running(self):
        return self._round_source is not None

    # ---------------------------------------------------------------- sending

    def send_tcp(self, data):
        """Queue bytes as segments of at most SEGMENT_SIZE; the worker round sends them."""
        data = bytes(data)
        for i in range(0, len(data), SEGMENT_SIZE):
            self.tx_queue.append(data[i:i + SEGMENT_SIZE])

    def send_udp(self, data):
        """Send a datagram at once; returns False (and logs) when it is too long."""
        data = bytes(data)
        if len(data) > DATAGRAM_LIMIT:
            log.warning('%s: datagram of %d bytes exceeds %d, not sent',
                        self.name, len(data), DATAGRAM_LIMIT)
            return False
        self.stats['datagrams-sent'] += 1
        self._send_frame(datagram_frame(data))
        return True

    @property
    def in_flight(self):
        return (self.ack_window - (self.read_pos & 3)) % SEQ_MODULUS

    @property
    def idle(self):
        """Nothing queued, nothing in flight and no acknowledgement owed."""
        return not self.tx_queue and not self.ack_owed

    # ---------------------------------------------------------------- worker round

    def _round(self):
        try:
            self.transfer()
            self.check_control()
            self.do_pending_work()
        except Exception:  # a peer must never take the process down
            log.exception('%s: worker round failed', self.name)
        return GLib.SOURCE_CONTINUE

    def transfer(self):
        in_flight = self.in_flight
        while self.tx_queue and in_flight < WINDOW and in_flight < len(self.tx_queue):
            absolute = self.read_pos + in_flight
            if absolute < self._highest_sent:
                self.stats['segments-resent'] += 1
            else:
                self._highest_sent = absolute + 1
            self.stats['segments-sent'] += 1
            self._send_frame(segment_frame(self.ack_window, self.tx_queue[in_flight]))
            in_flight += 1
            self.ack_window = (self.ack_window + 1) & 3
            self.timer.restart()

    def check_control(self):
        if self.ack_window != (self.read_pos & 3) and self.timer.expired:
            self.stats['polls-sent'] += 1
            self._send_frame(poll_frame(self.read_pos & 3, self.ack_window))
            self.timer.restart()

    def do_pending_work(self):
        if self.ack_owed:
            self.ack_owed = False
            self.stats['acks-sent'] += 1
            self._send_frame(ack_frame(self.remote_ack))

    def _on_timer_expired(self):
        try:
            self.check_control()
        except Exception:
            log.exception('%s: poll timer failed', self.name)

    # ---------------------------------------------------------------- receiving

    def _malformed(self, frame, why):
        self.stats['malformed'] += 1
        log.warning('%s: dropped malformed frame %s: %s', self.name, bytes(frame[:8]).hex(), why)

    def receive(self, frame):
        """Handle one received frame; never raises on bad input."""
        try:
            self._receive(bytes(frame))
        except Exception:
            log.exception('%s: failed to handle frame %s', self.name, bytes(frame[:8]).hex())

    def _receive(self, frame):
        if not frame:
            self._malformed(frame, 'empty frame')
            return
        header = frame[0]
        if header & 0x01:
            self._receive_control(frame, header)
        elif header & 0x02:
            if len(frame) - 1 > DATAGRAM_LIMIT:
                self._malformed(frame, f'datagram payload of {len(frame) - 1} bytes exceeds {DATAGRAM_LIMIT}')
                return
            self.stats['datagrams-received'] += 1
            self._on_datagram(frame[1:])
        else:
            self._receive_segment(frame, header)

    def _receive_control(self, frame, header):
        kind = (header >> 1) & 7
        if kind == CTRL_POLL:
            if len(frame) < 3:
                self._malformed(frame, f'status poll of {len(frame)} bytes, 3 expected')
                return
            a, b = frame[1], frame[2]
            if a > 3 or b > 3:
                self._malformed(frame, 'status poll with a sequence number outside 0-3')
                return
            self.stats['polls-received'] += 1
            b, r = _unwrap(a, b, self.remote_ack)
            if a <= r <= b:
                if r >= b:
                    self.stats['acks-sent'] += 1
                    self._send_frame(ack_frame(self.remote_ack))
                else:
                    self.stats['rejects-sent'] += 1
                    self._send_frame(reject_frame(self.remote_ack))
            return
        if kind in (CTRL_ACK, CTRL_REJECT):
            x = header >> 4
            if x > 3:
                self._malformed(frame, 'control frame with a sequence number outside 0-3')
                return
            a = self.read_pos & 3
            b, x = _unwrap(a, self.ack_window, x)
            if kind == CTRL_ACK:
                self.stats['acks-received'] += 1
                if a <= x <= b:
                    released = x - a
                    del self.tx_queue[:released]
                    self.read_pos += released
                    self.timer.restart()
            else:
                self.stats['rejects-received'] += 1
                if a <= x < b:
                    self.ack_window = x & 3
                    self.timer.restart()
            return
        # Control types 3-7 are reserved and ignored.

    def _receive_segment(self, frame, header):
        if len(frame) < 2:
            self._malformed(frame, 'segment without payload')
            return
        if len(frame) - 1 > SEGMENT_SIZE:
            self._malformed(frame, f'segment payload of {len(frame) - 1} bytes exceeds {SEGMENT_SIZE}')
            return
        if (header >> 4) != self.remote_ack:
            self.stats['rejects-sent'] += 1
            self._send_frame(reject_frame(self.remote_ack))
            self.timer.restart()
            return
        self.remote_ack = (self.remote_ack + 1) & 3
        self.ack_owed = True
        self.stats['segments-accepted'] += 1
        self._on_segment(frame[1:])
