/* qlt_sw_window: the extended window, both ends (docs/wide-window.md, "The extended
 * window"). The negotiation (qlt_sw_ext.c) starts it; the round trip, the poll back-off and
 * the send queue are the classic core's (qlt_sw.c).
 *
 * Sender: segments una..next-1 are in flight, each a record (stream offset, length, stamp,
 * sends, flags) in wide_storage; their bytes stay in the send queue until the cumulative
 * acknowledgement passes them. A segment is sent again only on evidence that it was lost:
 * a later transmission was acknowledged (the link keeps order), or the answer to a POLL
 * does not acknowledge it. A slow answer is not evidence: the sender polls, and waits.
 *
 * Receiver: segments within the window it offered are held in its receive slots until the
 * gap before them fills; then they are accepted in order and wait for
 * qlt_sw_take_delivery. Slots are used in a ring: `rslot` is the slot of `rnext`. */
#include <string.h>

#include "qlt_sw.h"
#include "qlt_sw_priv.h"

#define F_ACKED 1u
#define F_LOST 2u
#define ACK_DUE_NOW 2u
#define ACK_HEADER 0x0Bu
#define ACK_ANSWER 0x10u /* bit 4: the ACK answers a POLL */
#define POLL_HEADER 0x0Du
#define SEGMENT_HEADER 0x09u
#define ACK_LENGTH 6u
#define POLL_LENGTH 4u

static uint16_t get16(const uint8_t* p) { return (uint16_t)(p[0] | (p[1] << 8)); }
static void put16(uint8_t* p, uint16_t v) {
  p[0] = (uint8_t)(v & 0xFFu);
  p[1] = (uint8_t)(v >> 8);
}
/* Serial arithmetic: a is before b. */
static int before(uint16_t a, uint16_t b) { return (uint16_t)(b - a) - 1u < 0x7FFFu; }
static int stamp_before(uint32_t a, uint32_t b) { return b - a - 1u < 0x7FFFFFFFu; }

/* Sender records: three words each (offset, stamp, length | sends << 16 | flags << 24). */
static uint32_t* record(const qlt_sw* sw, uint16_t seq) {
  const uint32_t index =
      ((uint32_t)sw->ext.sslot + (uint16_t)(seq - sw->ext.una)) % sw->cfg.wide_send_slots;
  return sw->cfg.wide_storage + (size_t)index * 3u;
}
static uint16_t rec_len(const uint32_t* r) { return (uint16_t)(r[2] & 0xFFFFu); }
static unsigned rec_sends(const uint32_t* r) { return (r[2] >> 16) & 0xFFu; }
static unsigned rec_flags(const uint32_t* r) { return r[2] >> 24; }
static void rec_set(uint32_t* r, unsigned sends, unsigned flags) {
  r[2] = (r[2] & 0xFFFFu) | ((uint32_t)(sends > 255 ? 255 : sends) << 16) | ((uint32_t)flags << 24);
}

/* Receive slots: a length word each, then the payload bytes. */
static uint32_t* rlen(const qlt_sw* sw, uint32_t slot) {
  return sw->cfg.wide_storage + (size_t)sw->cfg.wide_send_slots * 3u + slot;
}
static uint8_t* rpayload(const qlt_sw* sw, uint32_t slot) {
  uint8_t* base = (uint8_t*)(sw->cfg.wide_storage + (size_t)sw->cfg.wide_send_slots * 3u +
                             sw->cfg.wide_recv_slots);
  return base + (size_t)slot * sw->cfg.wide_segment;
}
static uint32_t rslot_at(const qlt_sw* sw, uint32_t ahead) {
  return (sw->ext.rslot + ahead) % sw->cfg.wide_recv_slots;
}

uint16_t qlt_swi_win_room(const qlt_sw* sw) {
  const uint32_t used = (uint32_t)sw->ext.pending + sw->ext.unread;
  const uint32_t r = sw->cfg.wide_recv_slots;
  return (uint16_t)(used >= r ? 0 : r - used);
}

static void owe_ack(qlt_sw* sw, uint8_t how, uint32_t now) {
  if (!sw->ext.ack_owed) sw->ext.ack_owed_at = now;
  if (how > sw->ext.ack_owed) sw->ext.ack_owed = how;
}

void qlt_swi_win_reset(qlt_sw* sw) {
  qlt_sw_ext* e = &sw->ext;
  uint32_t i;
  e->una = e->next = e->edge = 0;
  e->sslot = 0;
  e->lost = 0;
  e->polled = 0;
  e->timing = 0;
  e->stamps = e->seen = e->poll_stamp = 0;
  /* Held segments go with the link (the sender still has them); accepted ones stay. */
  if (sw->cfg.wide_role && sw->cfg.wide_storage) {
    for (i = 0; i + e->pending < sw->cfg.wide_recv_slots; ++i) *rlen(sw, rslot_at(sw, i)) = 0;
  }
  e->rnext = 0;
  e->held = 0;
  e->adv_edge = 0;
  e->ack_owed = 0;
  e->answer_owed = 0;
}

void qlt_swi_win_start_send(qlt_sw* sw, uint32_t now) {
  qlt_sw_ext* e = &sw->ext;
  e->send_mode = 2;
  e->una = e->next = 0;
  e->edge = e->send_window;
  e->sent_end = e->acked;
  sw->poll_backoff = 0;
  qlt_swi_set_poll_wait(sw);
  sw->timer_at = now;
  qlt_swi_trace(sw, QLT_SW_EV_SEND_EXTENDED, e->send_segment, e->send_window);
}

/* `n` bytes of the send stream from `pos` bytes past the acknowledged offset. */
static void copy_stream(const qlt_sw* sw, uint32_t pos, uint8_t* out, uint32_t n) {
  uint32_t i = 0;
  while (n > 0 && i < sw->queued) {
    const uint8_t* s = qlt_swi_slot(sw, i++);
    if (pos >= s[0]) {
      pos -= s[0];
    } else {
      const uint32_t k = s[0] - pos < n ? s[0] - pos : n;
      memcpy(out, s + 1 + pos, k);
      out += k;
      n -= k;
      pos = 0;
    }
  }
}

static size_t write_segment(qlt_sw* sw, uint16_t seq, uint32_t now, uint8_t* out) {
  qlt_sw_ext* e = &sw->ext;
  uint32_t* r = record(sw, seq);
  const unsigned sends = rec_sends(r);
  out[0] = SEGMENT_HEADER;
  put16(out + 1, seq);
  copy_stream(sw, r[0] - e->acked, out + 3, rec_len(r));
  r[1] = ++e->stamps;
  rec_set(r, sends + 1u, rec_flags(r) & ~F_LOST);
  ++sw->counters.segments_sent;
  if (sends > 0) {
    ++sw->counters.segments_resent;
    if (e->timing && e->timed_seq == seq) e->timing = 0; /* Karn: no sample from a resend */
  } else if (!e->timing) {
    e->timing = 1;
    e->timed_seq = seq;
    sw->timed_at = now;
  }
  return 3u + rec_len(r);
}

static uint32_t unsent_bytes(const qlt_sw* sw) {
  return (uint32_t)(sw->ext.acked + (uint32_t)sw->counters.bytes_queued - sw->ext.sent_end);
}

static int may_send_new(const qlt_sw* sw) {
  const qlt_sw_ext* e = &sw->ext;
  return unsent_bytes(sw) > 0 && before(e->next, e->edge) &&
         (uint16_t)(e->next - e->una) < e->send_window;
}

static size_t next_segment(qlt_sw* sw, uint32_t now, uint8_t* out, size_t cap) {
  qlt_sw_ext* e = &sw->ext;
  uint32_t* r;
  uint32_t n;
  if (e->lost > 0) { /* segments found lost go first, lowest sequence first */
    uint16_t seq;
    for (seq = e->una; seq != e->next; ++seq) {
      r = record(sw, seq);
      if ((rec_flags(r) & F_LOST) && 3u + rec_len(r) <= cap) {
        --e->lost;
        return write_segment(sw, seq, now, out);
      }
    }
  }
  if (!may_send_new(sw)) return 0;
  n = unsent_bytes(sw);
  if (n > e->send_segment) n = e->send_segment;
  if (n > cap - 3u) n = (uint32_t)(cap - 3u);
  if (e->una == e->next) sw->timer_at = now; /* something in flight again: the timer runs */
  r = record(sw, e->next);
  r[0] = e->sent_end;
  r[2] = n;
  e->sent_end += n;
  return write_segment(sw, e->next++, now, out);
}

static size_t next_poll(qlt_sw* sw, uint32_t now, uint8_t* out) {
  qlt_sw_ext* e = &sw->ext;
  const int closed = e->next == e->edge && unsent_bytes(sw) > 0;
  if ((e->una == e->next && !closed) || qlt_swi_left(now, sw->timer_at, sw->poll_wait) > 0)
    return 0;
  e->polled = 1;
  ++e->token;
  e->poll_stamp = e->stamps;
  e->timing = 0; /* an answer to a poll times the poll, not the segment */
  if (sw->poll_backoff < 255) ++sw->poll_backoff;
  qlt_swi_set_poll_wait(sw);
  sw->timer_at = now;
  ++sw->counters.polls_sent;
  out[0] = POLL_HEADER;
  out[1] = e->token;
  put16(out + 2, e->next);
  return POLL_LENGTH;
}

static size_t next_ack(qlt_sw* sw, uint8_t* out, size_t cap) {
  qlt_sw_ext* e = &sw->ext;
  const uint16_t room = qlt_swi_win_room(sw);
  const size_t limit = cap < e->value_limit ? cap : e->value_limit;
  uint32_t extent = room; /* the segments after rnext the sender may have sent */
  size_t bytes = 0, i, most = limit > ACK_LENGTH ? limit - ACK_LENGTH : 0;
  if (!e->ack_owed && !e->answer_owed) return 0;
  if (before(e->rnext, e->adv_edge) && (uint16_t)(e->adv_edge - e->rnext) > extent)
    extent = (uint16_t)(e->adv_edge - e->rnext);
  if (extent <= 1u) {
    most = 0;
  } else if (most * 8u > extent - 1u) {
    most = (extent - 1u + 7u) / 8u;
  }
  memset(out, 0, ACK_LENGTH + most);
  for (i = 0; i < most * 8u && i + 1u < room; ++i) {
    if (*rlen(sw, rslot_at(sw, (uint32_t)i + 1u)) != 0) {
      out[ACK_LENGTH + i / 8u] |= (uint8_t)(1u << (i % 8u));
      bytes = i / 8u + 1u;
    }
  }
  if (e->answer_owed) bytes = most; /* a POLL's answer reaches as far as it can */
  out[0] = (uint8_t)(ACK_HEADER | (e->answer_owed ? ACK_ANSWER : 0u));
  put16(out + 1, e->rnext);
  put16(out + 3, room);
  out[5] = e->answer_owed ? e->answer_token : 0u;
  e->adv_edge = (uint16_t)(e->rnext + room);
  e->ack_owed = 0;
  e->answer_owed = 0;
  ++sw->counters.acks_sent;
  return ACK_LENGTH + bytes;
}

size_t qlt_swi_win_frame(qlt_sw* sw, uint32_t now, unsigned kinds, uint8_t* out, size_t cap) {
  size_t n = 0;
  if (sw->ext.send_mode == 2 && cap > 3u) {
    if (kinds & QLT_SW_SEGMENTS) n = next_segment(sw, now, out, cap);
    if (n == 0 && (kinds & QLT_SW_POLLS) && cap >= POLL_LENGTH) n = next_poll(sw, now, out);
  }
  if (n == 0 && (kinds & QLT_SW_ANSWERS) && cap >= ACK_LENGTH) n = next_ack(sw, out, cap);
  return n;
}

uint32_t qlt_swi_win_due(const qlt_sw* sw, uint32_t now) {
  const qlt_sw_ext* e = &sw->ext;
  uint32_t due = QLT_SW_IDLE, d;
  if (e->answer_owed || e->ack_owed == ACK_DUE_NOW) return 0;
  if (e->ack_owed) due = qlt_swi_left(now, e->ack_owed_at, sw->cfg.ack_delay_us);
  if (e->send_mode != 2) return due;
  if (e->lost > 0 || may_send_new(sw)) return 0;
  if (e->una != e->next || (e->next == e->edge && unsent_bytes(sw) > 0)) {
    d = qlt_swi_left(now, sw->timer_at, sw->poll_wait);
    if (d < due) due = d;
  }
  return due;
}

/* One segment acknowledged (by `next` or the map): the round trip and `seen` learn. */
static void acknowledged(qlt_sw* sw, uint16_t seq, uint32_t* r, uint32_t now) {
  qlt_sw_ext* e = &sw->ext;
  if (rec_sends(r) == 1u) {
    if (stamp_before(e->seen, r[1])) e->seen = r[1];
    if (e->timing && e->timed_seq == seq) {
      e->timing = 0;
      qlt_swi_sample(sw, now - sw->timed_at);
    }
  }
  if (rec_flags(r) & F_LOST) --e->lost;
  rec_set(r, rec_sends(r), F_ACKED);
}

static void receive_ack(qlt_sw* sw, const uint8_t* f, size_t len, uint32_t now) {
  qlt_sw_ext* e = &sw->ext;
  const uint16_t n = get16(f + 1), flight = (uint16_t)(e->next - e->una);
  const size_t map = len - ACK_LENGTH;
  const int answer = (f[0] & ACK_ANSWER) && e->polled && f[5] == e->token;
  uint32_t w = get16(f + 3), released = 0, i;
  uint16_t seq, edge;
  int progress = 0;
  ++sw->counters.acks_received;
  if (e->send_mode != 2 || (uint16_t)(n - e->una) > flight) {
    qlt_swi_fault(sw, QLT_SW_FAULT_BAD_ACK);
    return;
  }
  for (i = 0; i < map * 8u; ++i) { /* a mark at or beyond next: contradictory */
    if (((f[ACK_LENGTH + i / 8u] >> (i % 8u)) & 1u) && (uint32_t)(n - e->una) + 1u + i >= flight) {
      qlt_swi_fault(sw, QLT_SW_FAULT_BAD_ACK);
      return;
    }
  }
  for (seq = e->una; seq != n; ++seq) {
    uint32_t* r = record(sw, seq);
    if (!(rec_flags(r) & F_ACKED)) acknowledged(sw, seq, r, now);
    released += rec_len(r);
  }
  for (i = 0; i < map * 8u; ++i) {
    if ((f[ACK_LENGTH + i / 8u] >> (i % 8u)) & 1u) {
      uint32_t* r = record(sw, (uint16_t)(n + 1u + i));
      if (!(rec_flags(r) & F_ACKED)) {
        acknowledged(sw, (uint16_t)(n + 1u + i), r, now);
        progress = 1;
      }
    }
  }
  if (released > 0) {
    qlt_swi_drop_bytes(sw, released);
    e->acked += released;
    e->sslot = (uint16_t)((e->sslot + (uint16_t)(n - e->una)) % sw->cfg.wide_send_slots);
    e->una = n;
    progress = 1;
  }
  if (w > QLT_SW_WIDE_MAX_WINDOW) w = QLT_SW_WIDE_MAX_WINDOW;
  edge = (uint16_t)(n + w);
  if (before(e->edge, edge)) {
    e->edge = edge;
    progress = 1;
  }
  /* Loss: a later transmission arrived, or the POLL's answer leaves it out. */
  if (answer) e->polled = 0;
  for (seq = e->una; seq != e->next; ++seq) {
    uint32_t* r = record(sw, seq);
    const unsigned flags = rec_flags(r);
    if (flags & (F_ACKED | F_LOST)) continue;
    if (stamp_before(r[1], e->seen) || (answer && (uint32_t)(uint16_t)(seq - n) < 1u + 8u * map &&
                                        !stamp_before(e->poll_stamp, r[1]))) {
      rec_set(r, rec_sends(r), F_LOST);
      ++e->lost;
      ++sw->counters.segments_lost;
    }
  }
  if (progress) {
    sw->poll_backoff = 0;
    qlt_swi_set_poll_wait(sw);
    sw->timer_at = now;
  }
}

/* Accepted segments behind `rnext` become deliveries, in order. */
static void accept_held(qlt_sw* sw) {
  qlt_sw_ext* e = &sw->ext;
  uint32_t length;
  while (e->held > 0 && (length = *rlen(sw, rslot_at(sw, 0))) != 0) {
    --e->held;
    ++e->pending;
    ++e->rnext;
    e->received += length;
    e->rslot = (uint16_t)rslot_at(sw, 1);
  }
}

static void receive_segment(qlt_sw* sw, const uint8_t* f, size_t len, uint32_t now,
                            qlt_sw_delivery* d) {
  qlt_sw_ext* e = &sw->ext;
  const uint16_t seq = get16(f + 1), ahead = (uint16_t)(seq - e->rnext);
  const size_t payload = len - 3u;
  uint32_t slot;
  e->recv_mode = 1;
  if (payload == 0 || payload > e->own_segment ||
      (ahead < 0x8000u && ahead >= qlt_swi_win_room(sw))) {
    qlt_swi_fault(sw, QLT_SW_FAULT_BAD_SEGMENT);
    ++sw->counters.segments_dropped;
    owe_ack(sw, 1, now);
    return;
  }
  slot = rslot_at(sw, ahead);
  if (ahead >= 0x8000u || *rlen(sw, slot) != 0) { /* a copy */
    ++sw->counters.segments_dropped;
    owe_ack(sw, 1, now);
    return;
  }
  if (ahead == 0 && e->pending == 0) { /* in order, nothing waiting: straight from the frame */
    d->kind = QLT_SW_TCP;
    d->payload = f + 3;
    d->len = payload;
    ++sw->counters.tcp_delivered;
    ++e->rnext;
    e->received += (uint32_t)payload;
    e->rslot = (uint16_t)rslot_at(sw, 1);
    if (sw->cfg.wide_manual_consume) ++e->unread;
    accept_held(sw);
    owe_ack(sw, 1, now);
    return;
  }
  memcpy(rpayload(sw, slot), f + 3, payload);
  *rlen(sw, slot) = (uint32_t)payload;
  ++e->held;
  if (ahead > 0) {
    ++sw->counters.segments_held;
    owe_ack(sw, ACK_DUE_NOW, now); /* a gap: the sender learns at once */
  } else {
    accept_held(sw);
    owe_ack(sw, 1, now);
  }
}

int qlt_swi_win_receive(qlt_sw* sw, const uint8_t* f, size_t len, uint32_t now,
                        qlt_sw_delivery* d) {
  const unsigned type = (f[0] >> 1) & 7u;
  const size_t need = type == 4 ? 4u : (type == 5 ? ACK_LENGTH : POLL_LENGTH);
  sw->ext.last_now = now;
  if (len < need) {
    qlt_swi_fault(sw, QLT_SW_FAULT_MALFORMED);
    d->kind = QLT_SW_IGNORED;
    return 1;
  }
  if (type == 4) {
    receive_segment(sw, f, len, now, d);
  } else if (type == 5) {
    receive_ack(sw, f, len, now);
  } else {
    sw->ext.answer_owed = 1;
    sw->ext.answer_token = f[1];
  }
  return 1;
}

/* The room offered grew by `before` .. now: an ACK is owed when it opens a closed window or
 * moves the edge by half the slots. */
static void room_grew(qlt_sw* sw) {
  qlt_sw_ext* e = &sw->ext;
  const uint16_t edge = (uint16_t)(e->rnext + qlt_swi_win_room(sw));
  const uint16_t moved = (uint16_t)(edge - e->adv_edge);
  const int was_closed = e->adv_edge == e->rnext;
  if (!before(e->adv_edge, edge)) return;
  if ((was_closed && moved > 0) || moved >= (sw->cfg.wide_recv_slots + 1u) / 2u)
    owe_ack(sw, 1, e->last_now);
}

int qlt_sw_take_delivery(qlt_sw* sw, qlt_sw_delivery* delivery) {
  qlt_sw_ext* e = &sw->ext;
  uint32_t slot;
  if (!sw->cfg.wide_role || e->pending == 0) return 0;
  slot = ((uint32_t)e->rslot + sw->cfg.wide_recv_slots - e->pending) % sw->cfg.wide_recv_slots;
  if (delivery) {
    delivery->kind = QLT_SW_TCP;
    delivery->payload = rpayload(sw, slot);
    delivery->len = *rlen(sw, slot);
  }
  *rlen(sw, slot) = 0;
  --e->pending;
  ++sw->counters.tcp_delivered;
  if (sw->cfg.wide_manual_consume) {
    ++e->unread;
  } else {
    room_grew(sw);
  }
  return 1;
}

void qlt_sw_consume(qlt_sw* sw, uint32_t count, uint32_t now) {
  qlt_sw_ext* e = &sw->ext;
  if (!sw->cfg.wide_role) return;
  e->last_now = now;
  e->unread = count < e->unread ? e->unread - count : 0;
  room_grew(sw);
}
