/* qlt_sw: the sliding-window rules. See qlt_sw.h for the frame format and the API.
 *
 * Loss recovery, without rejection storms:
 *  - Round trip. The sender times one first-sent segment at a time and takes a sample when
 *    an acknowledgement covers it (never for a segment sent again, nor across a poll:
 *    Karn's rule), and, as a receiver, from a lone rejection to the segment that fills its
 *    gap. SRTT and RTTVAR as TCP keeps them (RFC 6298, section 2, in integer microseconds
 *    scaled by 8 and 4 as BSD does); rto = SRTT + max(G, 4 RTTVAR) with G = 2 ms (a
 *    round of each end), clamped to [G, poll time-out], and the poll time-out itself until
 *    a first sample.
 *  - Polls. When nothing was sent or honoured for rto, the oldest unacknowledged segment
 *    goes again, then a status poll (its answer comes behind the segment's effect, so a
 *    lost tail costs one round trip, not two). An unanswered poll is repeated after rto,
 *    then the wait doubles, never beyond the poll time-out.
 *  - One rejection per gap. An out-of-order segment opens a gap and owes one rejection
 *    carrying the expected sequence; further out-of-order segments owe nothing while the
 *    gap stands, and it closes when the expected segment arrives. If it still stands rto
 *    after the last rejection, the rejection is owed once more: at most
 *    QLT_SW_REJECTIONS_PER_GAP per gap, besides the answers to polls. A copy of the
 *    segment accepted last (sequence R - 1) is no gap: it owes an acknowledgement.
 *  - Honour a rejection once. A rejection inside the window rewinds the send sequence;
 *    rejections at or beyond the segment rewound to are then ignored for about a round
 *    trip (SRTT + 1 ms), until the segment sent again can have been seen.
 *  - Never a stale control frame. What receive owes waits in one slot (`owed`) that the
 *    next qlt_sw_poll_frame writes; the acknowledgement and the rejection both carry the
 *    receive sequence as it is when written, and a rejection whose gap has closed
 *    meanwhile is dropped.
 * A peer that follows the older rules (a rejection for every out-of-order segment, honour
 * every rejection, poll after the fixed time-out) interoperates: the frames and their
 * meaning are the same, and a poll is answered whenever it comes. */
#include <string.h>

#include "qlt_sw.h"
#include "qlt_sw_priv.h"

#define GRANULARITY_US 2000u     /* a round of each end */
#define HOLD_MARGIN_US 1000u     /* past the round trip, a rejection of the same segment waits */
#define SAMPLE_MAX_US (1u << 26) /* about 67 s: keeps srtt8 far from overflow */
#define NOT_TIMED 0xFFFFu
#define NOT_REWOUND 0x7FFFFFFF
#define OWE_ACK 1u
#define OWE_REJECT 2u

/* Wrap-safe time: what is left of a wait of `wait` us begun at `since` (0: over). Judged by
 * the time elapsed since it began, so a wait begun long ago reads as over. */
static uint32_t left(uint32_t now, uint32_t since, uint32_t wait) {
  const uint32_t elapsed = now - since;
  return elapsed >= wait ? 0 : wait - elapsed;
}

static uint8_t distance(uint8_t from, uint8_t to) { return (uint8_t)((to + 4u - from) & 3u); }

/* With start and end in 0..3: unwrap end and x (add 4 when below start) and compare. A
 * nibble of 4..15 is taken as received, as every reader of the format does. */
static int in_window(unsigned start, unsigned x, unsigned end, int inclusive) {
  if (end < start) end += 4;
  if (x < start) x += 4;
  return start <= x && (inclusive ? x <= end : x < end);
}

static void trace(qlt_sw* sw, qlt_sw_event event, uint32_t a, uint32_t b) {
  if (sw->trace) sw->trace(sw->trace_context, event, a, b);
}

static uint8_t* slot(const qlt_sw* sw, uint32_t offset) {
  const uint32_t index = (sw->head + offset) % sw->cfg.slot_count;
  return sw->cfg.slots + (size_t)index * ((size_t)sw->cfg.segment_size + 1u);
}

static uint8_t in_flight(const qlt_sw* sw) {
  return distance((uint8_t)(sw->read_pos & 3u), sw->ack_window);
}

/* The first poll that goes unanswered is repeated after rto; from then on the wait doubles. */
static void set_poll_wait(qlt_sw* sw) {
  const unsigned backoff =
      sw->poll_backoff < 1 ? 1 : (sw->poll_backoff > 17 ? 17 : sw->poll_backoff);
  const unsigned shift = backoff - 1;
  const uint32_t limit = sw->cfg.poll_timeout_us;
  sw->poll_wait = sw->rto > (limit >> shift) ? limit : sw->rto << shift;
}

static void sample(qlt_sw* sw, uint32_t us) {
  uint32_t rto;
  if (us > SAMPLE_MAX_US) us = SAMPLE_MAX_US;
  if (!sw->have_sample) {
    sw->srtt8 = us * 8u;
    sw->rttvar4 = us * 2u; /* rttvar = sample / 2 */
    sw->have_sample = 1;
  } else {
    const uint32_t s8 = us * 8u;
    const uint32_t d8 = sw->srtt8 > s8 ? sw->srtt8 - s8 : s8 - sw->srtt8;
    sw->rttvar4 = sw->rttvar4 - sw->rttvar4 / 4u + d8 / 8u; /* 3/4 rttvar + 1/4 |srtt - s| */
    sw->srtt8 = sw->srtt8 - sw->srtt8 / 8u + us;            /* 7/8 srtt + 1/8 s */
  }
  rto = sw->srtt8 / 8u + (sw->rttvar4 > GRANULARITY_US ? sw->rttvar4 : GRANULARITY_US);
  if (rto > sw->cfg.poll_timeout_us) rto = sw->cfg.poll_timeout_us;
  if (rto < GRANULARITY_US) rto = GRANULARITY_US;
  sw->rto = rto;
  set_poll_wait(sw);
  trace(sw, QLT_SW_EV_RTT_SAMPLE, us, rto);
}

static void release(qlt_sw* sw, uint32_t count, uint32_t now) {
  uint32_t i;
  if (count > sw->queued) count = sw->queued;
  for (i = 0; i < count; ++i) {
    sw->counters.bytes_queued -= slot(sw, 0)[0];
    sw->ext.acked += slot(sw, 0)[0]; /* the session's offset, acknowledged */
    sw->head = (uint16_t)((sw->head + 1u) % sw->cfg.slot_count);
  }
  sw->queued = (uint16_t)(sw->queued - count);
  sw->read_pos += count;
  sw->unsent = (uint16_t)(sw->unsent > count ? sw->unsent - count : 0);
  if (sw->rewound != NOT_REWOUND) /* a released one stays below every offset: -1 */
    sw->rewound = sw->rewound >= (int32_t)count ? sw->rewound - (int32_t)count : -1;
  if (sw->timed != NOT_TIMED) {
    if (sw->timed < count) {
      sw->timed = NOT_TIMED;
      sample(sw, now - sw->timed_at);
    } else {
      sw->timed = (uint16_t)(sw->timed - count);
    }
  }
}

static void owe(qlt_sw* sw, uint8_t bits, uint32_t now) {
  if (sw->owed == 0) sw->owed_at = now;
  if (bits & OWE_REJECT) sw->owed = (uint8_t)(sw->owed & ~0x30u);
  sw->owed |= bits;
}

static void owe_rejection(qlt_sw* sw, uint8_t sequence, uint32_t now) {
  owe(sw, (uint8_t)(OWE_REJECT | ((sequence & 3u) << 4)), now);
}

int qlt_sw_init(qlt_sw* sw, const qlt_sw_config* cfg) {
  if (!sw || !cfg || cfg->segment_size == 0 || cfg->segment_size > QLT_SW_MAX_SEGMENT ||
      !cfg->slots || cfg->slot_count == 0 || cfg->poll_timeout_us == 0)
    return -1;
  memset(sw, 0, sizeof *sw);
  sw->cfg = *cfg;
  sw->rto = cfg->poll_timeout_us;
  qlt_sw_reset_send(sw);
#if QLT_SW_WIDE
  return qlt_swi_ext_init(sw);
#else
  return cfg->wide_role ? -1 : 0; /* built without the wide window */
#endif
}

void qlt_sw_reset_send(qlt_sw* sw) {
  if (sw->ext.send_mode == 2) { /* the peer waits for what is on the wire: the rest goes */
    uint32_t bytes = (uint32_t)sw->counters.bytes_queued - (sw->ext.sent_end - sw->ext.acked);
    while (bytes > 0 && sw->queued > 0) {
      uint8_t* s = slot(sw, sw->queued - 1u);
      const uint32_t n = s[0] < bytes ? s[0] : bytes;
      s[0] = (uint8_t)(s[0] - n);
      sw->counters.bytes_queued -= n;
      bytes -= n;
      if (s[0] == 0) --sw->queued;
    }
    return;
  }
  sw->head = sw->queued = sw->unsent = 0;
  sw->read_pos = 0;
  sw->ack_window = 0;
  sw->counters.bytes_queued = 0;
  sw->timed = NOT_TIMED;
  sw->rewound = NOT_REWOUND;
  sw->poll_backoff = 0;
  sw->poll_next = 0;
  sw->owed = 0;
  set_poll_wait(sw);
}

/* Once the send direction is extended, segments are cut when sent: a write fills the
 * last slot first, unless a classic segment was made of it. */
static size_t tail_room(const qlt_sw* sw) {
  if (!sw->ext.send_mode || sw->queued <= sw->unsent) return 0;
  return (size_t)sw->cfg.segment_size - slot(sw, sw->queued - 1u)[0];
}

size_t qlt_sw_send(qlt_sw* sw, const uint8_t* bytes, size_t len) {
  size_t accepted = 0;
  if (!bytes) return 0;
  if (len > 0 && tail_room(sw) > 0) {
    uint8_t* s = slot(sw, sw->queued - 1u);
    const size_t n = len < tail_room(sw) ? len : tail_room(sw);
    memcpy(s + 1 + s[0], bytes, n);
    s[0] = (uint8_t)(s[0] + n);
    sw->counters.bytes_queued += n;
    bytes += n;
    len -= n;
    accepted += n;
  }
  while (len > 0 && sw->queued < sw->cfg.slot_count) {
    const size_t n = len < sw->cfg.segment_size ? len : sw->cfg.segment_size;
    uint8_t* s = slot(sw, sw->queued);
    s[0] = (uint8_t)n;
    memcpy(s + 1, bytes, n);
    ++sw->queued;
    sw->counters.bytes_queued += n;
    bytes += n;
    len -= n;
    accepted += n;
  }
  return accepted;
}

size_t qlt_sw_send_space(const qlt_sw* sw) {
  return (size_t)(sw->cfg.slot_count - sw->queued) * sw->cfg.segment_size + tail_room(sw);
}

void qlt_swi_drop_bytes(qlt_sw* sw, uint32_t bytes) {
  while (bytes > 0 && sw->queued > 0) {
    uint8_t* s = slot(sw, 0);
    if (s[0] > bytes) {
      memmove(s + 1, s + 1 + bytes, s[0] - bytes);
      s[0] = (uint8_t)(s[0] - bytes);
      sw->counters.bytes_queued -= bytes;
      return;
    }
    bytes -= s[0];
    sw->counters.bytes_queued -= s[0];
    sw->head = (uint16_t)((sw->head + 1u) % sw->cfg.slot_count);
    --sw->queued;
    sw->unsent = (uint16_t)(sw->unsent > 0 ? sw->unsent - 1u : 0);
  }
}

size_t qlt_sw_datagram(qlt_sw* sw, const uint8_t* payload, size_t len, uint8_t* out, size_t cap) {
  if (len >= sw->cfg.segment_size || !out || cap < len + 1u || (len > 0 && !payload)) return 0;
  out[0] = 0x02;
  if (len > 0) memcpy(out + 1, payload, len);
  ++sw->counters.frames_sent;
  return len + 1u;
}

/* Control frames: the one place where their types are told apart. */
static qlt_sw_kind receive_control(qlt_sw* sw, const uint8_t* frame, size_t len, uint32_t now) {
  const unsigned type = (frame[0] >> 1) & 7u, x = frame[0] >> 4;
  const unsigned a = sw->read_pos & 3u, b = sw->ack_window;
  switch (type) {
    case 0: { /* status poll: answer when our receive sequence lies in its window [a, b] */
      unsigned first, next, r = sw->remote_ack;
      if (len < QLT_SW_POLL_LENGTH) return QLT_SW_IGNORED;
      first = frame[1];
      next = frame[2];
      if (next < first) next += 4;
      if (r < first) r += 4;
      if (first > r || r > next) return QLT_SW_NONE;
      if (r >= next) {
        owe(sw, OWE_ACK, now);
        return QLT_SW_NONE;
      }
      /* A poll is answered whenever it comes; the answer opens the gap if none stands. */
      if (!sw->gap_open || sw->gap_seq != sw->remote_ack) {
        sw->gap_open = 1;
        sw->gap_seq = sw->remote_ack;
        sw->gap_rejections = 0;
        sw->gap_written = 0;
      }
      sw->rejected_at = now;
      sw->gap_timed = 0;
      owe_rejection(sw, sw->remote_ack, now);
      return QLT_SW_NONE;
    }
    case 1: /* acknowledgement: every segment before x arrived */
      ++sw->counters.acks_received;
      /* Once extended, the classic window is empty: the timer is the extended sender's. */
      if (sw->ext.send_mode == 2 || !in_window(a, x, b, 1)) return QLT_SW_NONE;
      release(sw, (x < a ? x + 4 : x) - a, now);
      sw->poll_backoff = 0;
      set_poll_wait(sw);
      sw->timer_at = now;
      return QLT_SW_NONE;
    case 2: { /* rejection: segment x is missing, go back to it */
      int32_t offset;
      ++sw->counters.rejections_received;
      if (!in_window(a, x, b, 0)) return QLT_SW_NONE;
      offset = distance((uint8_t)a, (uint8_t)(x & 3u));
      /* Honour a rejection once: the segments from the one rewound to are on their way
       * again, and what the peer said before it saw them is stale. */
      if (offset >= sw->rewound && left(now, sw->hold_at, sw->hold_for) > 0) {
        trace(sw, QLT_SW_EV_REJECT_HELD, x & 3u, 0);
        return QLT_SW_NONE;
      }
      sw->ack_window = (uint8_t)(x & 3u);
      sw->rewound = offset;
      sw->hold_at = now;
      sw->hold_for = sw->have_sample ? sw->srtt8 / 8u + HOLD_MARGIN_US : sw->rto;
      sw->poll_backoff = 0;
      set_poll_wait(sw);
      ++sw->counters.rejections_honoured;
      sw->timer_at = now;
      return QLT_SW_NONE;
    }
    default: /* 3-7: not used yet; a later version may offer capabilities with type 3 */
      return QLT_SW_IGNORED;
  }
}

static qlt_sw_kind receive_segment(qlt_sw* sw, uint8_t sequence, uint32_t now) {
  if (sw->ext.recv_mode) return QLT_SW_NONE; /* the peer's stream went on extended */
  if (sequence != sw->remote_ack) {
    if (sequence == ((sw->remote_ack + 3u) & 3u)) { /* a copy of the one accepted last */
      owe(sw, OWE_ACK, now);
      return QLT_SW_NONE;
    }
    if (sw->gap_open && sw->gap_seq == sw->remote_ack) return QLT_SW_NONE;
    sw->gap_open = 1;
    sw->gap_seq = sw->remote_ack;
    sw->gap_rejections = 1;
    sw->rejected_at = now;
    sw->gap_timed = 1;
    sw->gap_written = 0;
    owe_rejection(sw, sw->remote_ack, now);
    if (sw->ext.send_mode != 2) sw->timer_at = now; /* restarts, as it always has here */
    trace(sw, QLT_SW_EV_GAP_OPENED, sw->remote_ack, 0);
    return QLT_SW_NONE;
  }
  sw->remote_ack = (uint8_t)((sw->remote_ack + 1u) & 3u);
  if (sw->gap_open) {
    const int timed = sw->gap_timed && sw->gap_written;
    sw->gap_open = 0;
    sw->gap_rejections = 0;
    sw->gap_timed = 0;
    trace(sw, QLT_SW_EV_GAP_CLOSED, sequence, 0);
    if (timed) sample(sw, now - sw->rejected_at);
  }
  owe(sw, OWE_ACK, now);
  ++sw->counters.tcp_delivered;
  return QLT_SW_TCP;
}

qlt_sw_kind qlt_sw_receive(qlt_sw* sw, const uint8_t* frame, size_t len, uint32_t now,
                           qlt_sw_delivery* delivery) {
  qlt_sw_delivery d;
  d.kind = QLT_SW_IGNORED; /* empty, or a segment without payload */
  d.payload = NULL;
  d.len = 0;
  ++sw->counters.frames_received;
  if (!frame) len = 0;
  if (WIDE_ON(sw) && qlt_swi_ext_receive(sw, frame, len, now, &d)) {
    /* the wide window took it */
  } else if (len > 0 && (frame[0] & 1u)) {
    d.kind = receive_control(sw, frame, len, now);
  } else if (len > 0 && (frame[0] & 2u)) {
    ++sw->counters.udp_delivered;
    d.kind = QLT_SW_UDP;
  } else if (len >= 2) {
    d.kind = receive_segment(sw, (uint8_t)(frame[0] >> 4), now);
  }
  if (d.kind == QLT_SW_IGNORED) ++sw->counters.malformed_ignored;
  if ((d.kind == QLT_SW_TCP || d.kind == QLT_SW_UDP) && !d.payload) {
    d.payload = frame + 1;
    d.len = len - 1u;
    if (d.kind == QLT_SW_TCP) sw->ext.received += (uint32_t)d.len;
  }
  if (delivery) *delivery = d;
  return d.kind;
}

static size_t build_segment(qlt_sw* sw, uint32_t offset, uint8_t sequence, uint8_t* out) {
  const uint8_t* s = slot(sw, offset);
  out[0] = (uint8_t)((sequence & 3u) << 4);
  memcpy(out + 1, s + 1, s[0]);
  ++sw->counters.segments_sent;
  return 1u + s[0];
}

/* A segment the classic window may write now: a new one only while the send direction is
 * classic and free to send, one sent before (after a rejection) until the switch. */
static int classic_due(const qlt_sw* sw, uint8_t flight) {
  if (flight >= QLT_SW_WINDOW || flight >= sw->queued) return 0;
  return flight < sw->unsent || !QLT_SW_WIDE || qlt_swi_classic_may_send(sw);
}

static size_t next_segment(qlt_sw* sw, uint32_t now, uint8_t* out) {
  const uint8_t flight = in_flight(sw);
  size_t n;
  if (!classic_due(sw, flight)) return 0;
  if (flight < sw->unsent) {
    ++sw->counters.segments_resent;
    if (flight == sw->timed) sw->timed = NOT_TIMED; /* Karn: no sample from a resend */
  } else {
    sw->unsent = (uint16_t)(flight + 1u);
    if (sw->timed == NOT_TIMED) {
      sw->timed = flight;
      sw->timed_at = now;
    }
  }
  n = build_segment(sw, flight, sw->ack_window, out);
  sw->ack_window = (uint8_t)((sw->ack_window + 1u) & 3u);
  sw->timer_at = now;
  return n;
}

static size_t next_poll(qlt_sw* sw, uint32_t now, uint8_t* out) {
  if (sw->poll_next) { /* the probe went out: its poll follows */
    sw->poll_next = 0;
    if (in_flight(sw) == 0) return 0;
    out[0] = 0x01;
    out[1] = (uint8_t)(sw->read_pos & 3u);
    out[2] = sw->ack_window;
    ++sw->counters.polls_sent;
    sw->timer_at = now;
    return QLT_SW_POLL_LENGTH;
  }
  if (in_flight(sw) == 0 || left(now, sw->timer_at, sw->poll_wait) > 0) return 0;
  sw->timed = NOT_TIMED; /* an answer to a poll times the poll, not the segment */
  if (sw->poll_backoff < 255) ++sw->poll_backoff;
  set_poll_wait(sw);
  sw->poll_next = 1;
  ++sw->counters.segments_resent; /* the oldest segment again, ahead of the poll */
  return build_segment(sw, 0, (uint8_t)(sw->read_pos & 3u), out);
}

static size_t next_answer(qlt_sw* sw, uint32_t now, uint8_t* out) {
  /* A gap that still stands rto after its last rejection owes one more, up to the bound. */
  if (sw->gap_open && sw->gap_rejections < QLT_SW_REJECTIONS_PER_GAP &&
      left(now, sw->rejected_at, sw->rto) == 0) {
    ++sw->gap_rejections;
    sw->rejected_at = now;
    sw->gap_timed = 0;
    owe_rejection(sw, sw->gap_seq, now);
  }
  if (sw->owed & OWE_ACK) {
    sw->owed = (uint8_t)(sw->owed & ~OWE_ACK);
    ++sw->counters.acks_sent;
    out[0] = (uint8_t)(0x03u | (sw->remote_ack << 4));
    return 1;
  }
  if (sw->owed & OWE_REJECT) {
    const uint8_t sequence = (uint8_t)((sw->owed >> 4) & 3u);
    sw->owed = 0;
    /* A rejection whose gap closed meanwhile is stale: the acknowledgement says it all. */
    if (sequence != sw->remote_ack || !sw->gap_open || sw->gap_seq != sequence) return 0;
    sw->rejected_at = now;
    sw->gap_written = 1;
    ++sw->counters.rejections_sent;
    out[0] = (uint8_t)(0x05u | (sequence << 4));
    return 1;
  }
  return 0;
}

size_t qlt_sw_poll_frame_of(qlt_sw* sw, uint32_t now, unsigned kinds, uint8_t* out, size_t cap) {
  size_t n = 0;
  if (!out || cap < (size_t)sw->cfg.segment_size + 1u) return 0;
  if (WIDE_ON(sw) && (kinds & (QLT_SW_SEGMENTS | QLT_SW_ANSWERS)))
    n = qlt_swi_ext_first(sw, now, out, cap);
  if (n == 0 && (kinds & QLT_SW_SEGMENTS)) n = next_segment(sw, now, out);
  if (n == 0 && (kinds & QLT_SW_POLLS)) n = next_poll(sw, now, out);
  if (n == 0 && (kinds & QLT_SW_ANSWERS)) n = next_answer(sw, now, out);
  if (n == 0 && WIDE_ON(sw)) n = qlt_swi_ext_last(sw, now, kinds, out, cap);
  if (n > 0) ++sw->counters.frames_sent;
  return n;
}

size_t qlt_sw_poll_frame(qlt_sw* sw, uint32_t now, uint8_t* out, size_t cap) {
  return qlt_sw_poll_frame_of(sw, now, QLT_SW_ALL, out, cap);
}

uint32_t qlt_sw_next_due(const qlt_sw* sw, uint32_t now) {
  const uint8_t flight = in_flight(sw);
  uint32_t due = WIDE_ON(sw) ? qlt_swi_ext_due(sw, now) : QLT_SW_IDLE, d;
  if (sw->poll_next || classic_due(sw, flight)) return 0;
  if (sw->owed) {
    d = left(now, sw->owed_at, sw->cfg.ack_delay_us);
    if (d < due) due = d;
  }
  if (flight > 0) {
    d = left(now, sw->timer_at, sw->poll_wait);
    if (d < due) due = d;
  }
  if (sw->gap_open && sw->gap_rejections < QLT_SW_REJECTIONS_PER_GAP) {
    d = left(now, sw->rejected_at, sw->rto);
    if (d < due) due = d;
  }
  return due;
}

void qlt_sw_release(qlt_sw* sw, uint32_t count, uint32_t now) {
  if (sw->ext.send_mode != 2) release(sw, count, now); /* extended: only an ACK releases */
}

const qlt_sw_counters* qlt_sw_get_counters(const qlt_sw* sw) { return &sw->counters; }
uint8_t qlt_sw_in_flight(const qlt_sw* sw) { return in_flight(sw); }
uint16_t qlt_sw_queued(const qlt_sw* sw) { return sw->queued; }
uint32_t qlt_sw_rto(const qlt_sw* sw) { return sw->rto; }
uint32_t qlt_sw_srtt(const qlt_sw* sw) { return sw->have_sample ? sw->srtt8 / 8u : 0; }
uint32_t qlt_sw_read_pos(const qlt_sw* sw) { return sw->read_pos; }
uint8_t qlt_sw_send_seq(const qlt_sw* sw) { return sw->ack_window; }
uint8_t qlt_sw_receive_seq(const qlt_sw* sw) { return sw->remote_ack; }
uint8_t qlt_sw_owed(const qlt_sw* sw) { return sw->owed; }

void qlt_sw_set_owed(qlt_sw* sw, uint8_t bits, uint32_t now) {
  sw->owed = (uint8_t)(bits & 0x33u);
  sw->owed_at = now;
}

void qlt_sw_set_ack_delay(qlt_sw* sw, uint32_t delay_us) { sw->cfg.ack_delay_us = delay_us; }

void qlt_sw_set_trace(qlt_sw* sw, qlt_sw_trace_fn fn, void* context) {
  sw->trace = fn;
  sw->trace_context = context;
}

void qlt_swi_classic_restart(qlt_sw* sw) {
  const uint16_t head = sw->head, queued = sw->queued;
  const uint64_t bytes = sw->counters.bytes_queued;
  qlt_sw_reset_send(sw); /* sequences from 0, nothing owed; the queue is kept */
  sw->head = head;
  sw->queued = queued;
  sw->counters.bytes_queued = bytes;
  sw->remote_ack = 0;
  sw->gap_open = 0;
}

uint32_t qlt_swi_left(uint32_t now, uint32_t since, uint32_t wait) {
  return left(now, since, wait);
}
void qlt_swi_sample(qlt_sw* sw, uint32_t us) { sample(sw, us); }
void qlt_swi_set_poll_wait(qlt_sw* sw) { set_poll_wait(sw); }
void qlt_swi_trace(qlt_sw* sw, qlt_sw_event event, uint32_t a, uint32_t b) {
  trace(sw, event, a, b);
}
uint8_t* qlt_swi_slot(const qlt_sw* sw, uint32_t offset) { return slot(sw, offset); }
