/* qlt_sw_ext: the wide window's negotiation and session (docs/wide-window.md); the window
 * itself is qlt_sw_window.c. The classic rules (qlt_sw.c) call in through qlt_sw_priv.h.
 *
 * The central offers in its first round and again at W/3 and 2W/3, takes the first
 * acceptable ANSWER (CONFIRM), and goes classic after W or on a refusal (DECLINE when it
 * had an ANSWER to refuse). The device answers an OFFER (again for the same OFFER, and by
 * itself after rto, at most twice, until CONFIRM), and is confirmed by CONFIRM or by any
 * extended frame from the central. Each end's send direction switches once it knows its
 * peer agreed and its classic segments in flight are acknowledged. */
#include <string.h>

#include "qlt_sw.h"
#include "qlt_sw_priv.h"

#define DEFAULT_VALUE_LIMIT 20u /* the default ATT_MTU of 23, less 3 */
#define OFFERS 3u               /* at 0, W/3 and 2W/3 */
#define ANSWERS 3u              /* the first and two repeats */

void qlt_swi_fault(qlt_sw* sw, qlt_sw_fault fault) {
  const uint8_t bit = (uint8_t)(1u << fault);
  ++sw->counters.wide_faults;
  if (sw->ext.faults_seen & bit) return;
  sw->ext.faults_seen |= bit;
  qlt_swi_trace(sw, QLT_SW_EV_WIDE_FAULT, (uint32_t)fault, 0);
}

static void set_state(qlt_sw* sw, qlt_sw_wide_state state) {
  sw->ext.state = (uint8_t)state;
  qlt_swi_trace(sw, QLT_SW_EV_WIDE_STATE, (uint32_t)state, 0);
}

static uint32_t wait_w(const qlt_sw* sw) {
  return sw->cfg.wide_wait_us ? sw->cfg.wide_wait_us : sw->cfg.poll_timeout_us;
}

static int is_central(const qlt_sw* sw) { return sw->cfg.wide_role == QLT_SW_ROLE_CENTRAL; }

/* Bytes of this end's stream sent on the link and not acknowledged. */
static uint32_t unacknowledged(const qlt_sw* sw) {
  uint32_t bytes = 0, i;
  if (sw->ext.send_mode == 2) return sw->ext.sent_end - sw->ext.acked;
  for (i = 0; i < sw->unsent && i < sw->queued; ++i) bytes += qlt_swi_slot(sw, i)[0];
  return bytes;
}

/* The session ends: what was sent and never acknowledged is in doubt, and dropped; bytes
 * never sent carry over into the new stream. */
static void lose_session(qlt_sw* sw) {
  const uint32_t doubt = sw->ext.sent_end - sw->ext.acked;
  qlt_swi_drop_bytes(sw, doubt);
  sw->ext.in_doubt = doubt;
  sw->counters.bytes_in_doubt += doubt;
  ++sw->counters.sessions_lost;
  sw->ext.session = 0;
  sw->ext.acked = sw->ext.sent_end = sw->ext.received = sw->ext.link_received = 0;
  sw->ext.hold_data = 0;
  sw->ext.resume = 0;
  qlt_swi_trace(sw, QLT_SW_EV_SESSION_LOST, doubt, 0);
}

/* A new session begins on this link. Its offsets count from the link's start at both ends:
 * what this end accepted of the peer's stream on it (a device that forgot its session
 * writes before its ANSWER arrives) is already the peer's new stream. */
static void begin_session(qlt_sw* sw) {
  const uint32_t got = sw->ext.received - sw->ext.link_received;
  if (sw->ext.session) lose_session(sw);
  sw->ext.received = got;
  sw->ext.session = 1;
}

/* A session that resumes: the peer has `peer_received` of our stream. Returns 0 when that
 * lies outside what this end sent on the session. */
static int resume_at(qlt_sw* sw, uint32_t peer_received) {
  if (peer_received - sw->ext.acked > sw->ext.sent_end - sw->ext.acked) return 0;
  qlt_swi_drop_bytes(sw, peer_received - sw->ext.acked);
  sw->ext.acked = sw->ext.sent_end = peer_received;
  sw->ext.hold_data = 0;
  ++sw->counters.sessions_resumed;
  qlt_swi_trace(sw, QLT_SW_EV_SESSION_RESUMED, sw->ext.acked, sw->ext.received);
  return 1;
}

/* The negotiation settled the terms: this end's send direction may switch. */
static void agree(qlt_sw* sw, const qlt_sw_wide_terms* peer) {
  sw->ext.peer = *peer;
  if (qlt_sw_wide_fit(peer, sw->ext.own_segment, sw->cfg.wide_send_slots, &sw->ext.send_segment,
                      &sw->ext.send_window) == QLT_SW_WIDE_CLAMPED)
    qlt_swi_fault(sw, QLT_SW_FAULT_CLAMPED);
  sw->ext.send_mode = 1;
  sw->ext.hold_data = 0;
}

static void begin_link(qlt_sw* sw) {
  qlt_sw_ext* e = &sw->ext;
  e->send_mode = e->recv_mode = 0;
  e->repeats = e->echo = 0;
  e->owe_nego = 0;
  e->faults_seen = 0;
  e->nego_at = 0;
  e->started = 0;
  memset(&e->mine, 0, sizeof e->mine);
  memset(&e->peer, 0, sizeof e->peer);
  qlt_swi_win_reset(sw);
  e->hold_data = e->session;
  e->link_received = e->received;
  if (is_central(sw)) {
    e->resume = e->session;
    e->owe_nego = QLT_SW_WIDE_OFFER;
    set_state(sw, QLT_SW_STATE_OFFERING);
  } else {
    set_state(sw, QLT_SW_STATE_WAITING);
  }
}

int qlt_swi_ext_init(qlt_sw* sw) {
  const qlt_sw_config* c = &sw->cfg;
  if (c->wide_role == QLT_SW_ROLE_OFF) return 0;
  if (c->wide_role > QLT_SW_ROLE_DEVICE || c->wide_segment < QLT_SW_WIDE_MIN_SEGMENT ||
      c->wide_send_slots == 0 || c->wide_send_slots > QLT_SW_WIDE_MAX_WINDOW ||
      c->wide_recv_slots == 0 || c->wide_recv_slots > QLT_SW_WIDE_MAX_WINDOW || !c->wide_storage ||
      c->nonce == 0 || (c->value_limit && c->value_limit < 20))
    return -1;
  sw->ext.value_limit = c->value_limit ? c->value_limit : DEFAULT_VALUE_LIMIT;
  memset(c->wide_storage, 0,
         QLT_SW_WIDE_STORAGE(c->wide_segment, c->wide_send_slots, c->wide_recv_slots) * 4u);
  begin_link(sw);
  return 0;
}

int qlt_swi_classic_may_send(const qlt_sw* sw) {
  return sw->ext.send_mode == 0 && !sw->ext.hold_data && sw->ext.state != QLT_SW_STATE_LINK_DOWN;
}

/* The terms this end writes, fixed at the first OFFER or ANSWER of the link. */
static void fix_terms(qlt_sw* sw) {
  qlt_sw_wide_terms* t = &sw->ext.mine;
  const uint16_t own = (uint16_t)(sw->ext.value_limit - 3u);
  sw->ext.own_segment = sw->cfg.wide_segment < own ? sw->cfg.wide_segment : own;
  t->version = QLT_SW_WIDE_VERSION;
  t->segment = sw->ext.own_segment;
  t->window = sw->cfg.wide_recv_slots;
}

static int same_terms(const qlt_sw_wide_terms* a, const qlt_sw_wide_terms* b) {
  return a->version == b->version && a->flags == b->flags && a->segment == b->segment &&
         a->window == b->window && a->central_nonce == b->central_nonce &&
         a->device_nonce == b->device_nonce && a->received == b->received;
}

/* The central: an ANSWER. */
static void central_answer(qlt_sw* sw, const qlt_sw_wide_terms* a, uint32_t now) {
  qlt_sw_ext* e = &sw->ext;
  uint16_t seg, win;
  if (e->state == QLT_SW_STATE_EXTENDED) {
    if (same_terms(a, &e->peer)) {
      e->owe_nego = QLT_SW_WIDE_CONFIRM; /* the first CONFIRM may have been lost */
    } else {
      qlt_swi_fault(sw, QLT_SW_FAULT_CONTRADICTORY);
    }
    return;
  }
  if (e->state == QLT_SW_STATE_CLASSIC && e->repeats > 0) {
    e->owe_nego = QLT_SW_WIDE_DECLINE;
    return;
  }
  if (e->state != QLT_SW_STATE_OFFERING || e->repeats == 0 ||
      a->central_nonce != e->mine.central_nonce) {
    qlt_swi_fault(sw, e->repeats == 0 ? QLT_SW_FAULT_UNSOLICITED : QLT_SW_FAULT_CONTRADICTORY);
    return;
  }
  if (a->version == 0) { /* the device keeps the classic format */
    if (e->session) lose_session(sw);
    set_state(sw, QLT_SW_STATE_CLASSIC);
    return;
  }
  if (a->version <= e->mine.version && qlt_sw_wide_fit(a, e->own_segment, sw->cfg.wide_send_slots,
                                                       &seg, &win) == QLT_SW_WIDE_ABSURD) {
    qlt_swi_fault(sw, QLT_SW_FAULT_ABSURD);
  } else if (a->version > e->mine.version || a->device_nonce == 0 ||
             ((a->flags & QLT_SW_WIDE_FLAG_RESUME) &&
              (!e->resume || a->device_nonce != e->device_nonce || !resume_at(sw, a->received)))) {
    qlt_swi_fault(sw, QLT_SW_FAULT_CONTRADICTORY);
  } else {
    if (!(a->flags & QLT_SW_WIDE_FLAG_RESUME)) begin_session(sw);
    e->central_nonce = e->mine.central_nonce;
    e->device_nonce = a->device_nonce;
    agree(sw, a);
    e->owe_nego = QLT_SW_WIDE_CONFIRM;
    set_state(sw, QLT_SW_STATE_EXTENDED);
    (void)now;
    return;
  }
  if (e->session) lose_session(sw);
  e->owe_nego = QLT_SW_WIDE_DECLINE;
  set_state(sw, QLT_SW_STATE_CLASSIC);
}

/* The device: an OFFER. */
static void device_offer(qlt_sw* sw, const qlt_sw_wide_terms* o) {
  qlt_sw_ext* e = &sw->ext;
  qlt_sw_wide_terms offer = *o;
  uint16_t seg, win;
  if (offer.version > QLT_SW_WIDE_VERSION) offer.version = QLT_SW_WIDE_VERSION;
  if (e->state != QLT_SW_STATE_WAITING) {
    if (!same_terms(&offer, &e->peer)) {
      qlt_swi_fault(sw, QLT_SW_FAULT_CONTRADICTORY);
    } else if (e->state != QLT_SW_STATE_EXTENDED) {
      e->owe_nego = QLT_SW_WIDE_ANSWER; /* the same ANSWER again */
      e->echo = 1;
    }
    return;
  }
  e->peer = offer;
  fix_terms(sw);
  if (qlt_sw_wide_fit(&offer, e->own_segment, sw->cfg.wide_send_slots, &seg, &win) ==
      QLT_SW_WIDE_ABSURD) {
    qlt_swi_fault(sw, QLT_SW_FAULT_ABSURD);
    memset(&e->mine, 0, sizeof e->mine); /* a declining answer: version 0, zeros */
    e->owe_nego = QLT_SW_WIDE_ANSWER;
    if (e->session) lose_session(sw);
    set_state(sw, QLT_SW_STATE_CLASSIC);
    return;
  }
  e->mine.central_nonce = offer.central_nonce;
  if ((offer.flags & QLT_SW_WIDE_FLAG_RESUME) && e->session &&
      offer.central_nonce == e->central_nonce && offer.device_nonce == e->device_nonce &&
      resume_at(sw, offer.received)) {
    e->mine.flags = QLT_SW_WIDE_FLAG_RESUME;
    e->mine.received = e->received;
    e->hold_data = 1; /* until CONFIRM: the stream goes on extended */
  } else {
    begin_session(sw);
    e->central_nonce = offer.central_nonce;
    e->device_nonce = sw->cfg.nonce;
  }
  e->mine.device_nonce = e->device_nonce;
  e->owe_nego = QLT_SW_WIDE_ANSWER;
  set_state(sw, QLT_SW_STATE_ANSWERED);
}

static void device_confirmed(qlt_sw* sw) {
  agree(sw, &sw->ext.peer);
  set_state(sw, QLT_SW_STATE_EXTENDED);
}

int qlt_swi_ext_receive(qlt_sw* sw, const uint8_t* frame, size_t len, uint32_t now,
                        qlt_sw_delivery* d) {
  qlt_sw_ext* e = &sw->ext;
  qlt_sw_wide_terms t;
  qlt_sw_wide_read_result r;
  if (len == 0 || e->state == QLT_SW_STATE_LINK_DOWN) return 0;
  r = qlt_sw_wide_read(frame, len, &t);
  if (!is_central(sw) && e->state == QLT_SW_STATE_WAITING && e->hold_data &&
      r != QLT_SW_WIDE_READ_OFFER) {
    lose_session(sw); /* a central that is not resuming: a new stream begins */
  }
  switch (r) {
    case QLT_SW_WIDE_NOT_OURS:
      break;
    case QLT_SW_WIDE_MALFORMED:
      qlt_swi_fault(sw, QLT_SW_FAULT_MALFORMED);
      d->kind = QLT_SW_IGNORED;
      return 1;
    case QLT_SW_WIDE_READ_OFFER:
      if (is_central(sw)) {
        qlt_swi_fault(sw, QLT_SW_FAULT_UNSOLICITED);
      } else {
        device_offer(sw, &t);
      }
      d->kind = QLT_SW_NONE;
      return 1;
    case QLT_SW_WIDE_READ_ANSWER:
      if (is_central(sw)) {
        central_answer(sw, &t, now);
      } else {
        qlt_swi_fault(sw, QLT_SW_FAULT_UNSOLICITED);
      }
      d->kind = QLT_SW_NONE;
      return 1;
    case QLT_SW_WIDE_READ_CONFIRM:
    case QLT_SW_WIDE_READ_DECLINE:
      if (is_central(sw) || e->state != QLT_SW_STATE_ANSWERED) {
        qlt_swi_fault(sw, QLT_SW_FAULT_UNSOLICITED);
      } else if (r == QLT_SW_WIDE_READ_CONFIRM) {
        device_confirmed(sw);
      } else {
        e->hold_data = 0;
        if (e->mine.flags & QLT_SW_WIDE_FLAG_RESUME) lose_session(sw);
        set_state(sw, QLT_SW_STATE_CLASSIC);
      }
      d->kind = QLT_SW_NONE;
      return 1;
  }
  /* SEGMENT, ACK, POLL: type 4-6 with bit 0 set. */
  if ((frame[0] & 1u) && frame[0] != 0x0F && ((frame[0] >> 1) & 7u) >= 4) {
    const int agreed = e->state == QLT_SW_STATE_EXTENDED || e->state == QLT_SW_STATE_ANSWERED;
    if (!agreed) {
      qlt_swi_fault(sw, QLT_SW_FAULT_UNEXPECTED);
      d->kind = QLT_SW_IGNORED;
      return 1;
    }
    if (e->state == QLT_SW_STATE_ANSWERED) device_confirmed(sw); /* the central's proof */
    d->kind = QLT_SW_NONE;
    return qlt_swi_win_receive(sw, frame, len, now, d);
  }
  return 0;
}

size_t qlt_swi_ext_first(qlt_sw* sw, uint32_t now, uint8_t* out, size_t cap) {
  qlt_sw_ext* e = &sw->ext;
  const uint32_t w = wait_w(sw);
  size_t n = 0;
  if (e->state == QLT_SW_STATE_LINK_DOWN) return 0;
  if (!e->started) { /* the link's first round: its waits begin */
    e->started = 1;
    e->nego_at = now;
  }
  if (e->state == QLT_SW_STATE_OFFERING) {
    const uint32_t since = now - e->nego_at;
    if (e->repeats > 0 && since >= w) {
      if (e->session) lose_session(sw); /* no answer: a classic device, or none */
      set_state(sw, QLT_SW_STATE_CLASSIC);
    } else if (e->repeats > 0 && e->repeats < OFFERS && since >= w / OFFERS * e->repeats) {
      e->owe_nego = QLT_SW_WIDE_OFFER;
    }
  } else if (e->state == QLT_SW_STATE_ANSWERED && (e->repeats < ANSWERS || e->hold_data) &&
             qlt_swi_left(now, e->nego_at, sw->rto) == 0) {
    /* A resumed device holds its data until the answer: it asks until one comes. */
    e->owe_nego = QLT_SW_WIDE_ANSWER;
  } else if (e->state == QLT_SW_STATE_WAITING && e->hold_data &&
             qlt_swi_left(now, e->nego_at, w) == 0) {
    lose_session(sw); /* no central spoke for W: a new stream */
  }
  if (e->owe_nego == QLT_SW_WIDE_OFFER || e->owe_nego == QLT_SW_WIDE_ANSWER) {
    if (e->repeats == 0) {
      if (e->owe_nego == QLT_SW_WIDE_OFFER) {
        fix_terms(sw);
        e->mine.flags = e->resume ? QLT_SW_WIDE_FLAG_RESUME : 0;
        e->mine.central_nonce = e->session ? e->central_nonce : sw->cfg.nonce;
        e->mine.device_nonce = e->resume ? e->device_nonce : 0;
        e->mine.received = e->resume ? e->received : 0;
      }
    }
    n = qlt_sw_wide_write_terms(e->owe_nego, &e->mine, out, cap);
    if (n == 0) return 0;
    if (e->repeats == 0 || e->owe_nego == QLT_SW_WIDE_ANSWER) e->nego_at = now;
    if (!e->echo && e->repeats < 255) ++e->repeats; /* an echo is no repeat of its own */
    e->echo = 0;
  } else if (e->owe_nego) {
    out[0] = e->owe_nego;
    n = 1;
  }
  if (n > 0) {
    e->owe_nego = 0;
    ++sw->counters.negotiation_frames_sent;
  }
  return n;
}

size_t qlt_swi_ext_last(qlt_sw* sw, uint32_t now, unsigned kinds, uint8_t* out, size_t cap) {
  if (sw->ext.state == QLT_SW_STATE_LINK_DOWN) return 0;
  if (sw->ext.send_mode == 1 && qlt_sw_in_flight(sw) == 0 && sw->unsent == 0)
    qlt_swi_win_start_send(sw, now); /* every classic segment is acknowledged */
  return qlt_swi_win_frame(sw, now, kinds, out, cap);
}

uint32_t qlt_swi_ext_due(const qlt_sw* sw, uint32_t now) {
  const qlt_sw_ext* e = &sw->ext;
  const uint32_t w = wait_w(sw);
  uint32_t due = qlt_swi_win_due(sw, now), d = QLT_SW_IDLE;
  if (e->state == QLT_SW_STATE_LINK_DOWN) return QLT_SW_IDLE;
  if (e->owe_nego || !e->started) return 0;
  if (e->send_mode == 1 && qlt_sw_in_flight(sw) == 0 && sw->unsent == 0) return 0;
  if (e->state == QLT_SW_STATE_OFFERING) {
    const unsigned k = e->repeats < OFFERS ? e->repeats : OFFERS;
    d = qlt_swi_left(now, e->nego_at, k < OFFERS ? w / OFFERS * k : w);
  } else if (e->state == QLT_SW_STATE_ANSWERED && (e->repeats < ANSWERS || e->hold_data)) {
    d = qlt_swi_left(now, e->nego_at, sw->rto);
  } else if (e->state == QLT_SW_STATE_WAITING && e->hold_data) {
    d = qlt_swi_left(now, e->nego_at, w);
  }
  return d < due ? d : due;
}

void qlt_sw_get_wide_info(const qlt_sw* sw, qlt_sw_wide_info* info) {
  const qlt_sw_ext* e = &sw->ext;
  memset(info, 0, sizeof *info);
  info->state = (qlt_sw_wide_state)e->state;
  info->send_extended = e->send_mode;
  info->receive_extended = e->recv_mode;
  info->send_segment = e->send_mode ? e->send_segment : 0;
  info->send_window = e->send_mode ? e->send_window : 0;
  info->in_flight = (uint16_t)(e->next - e->una);
  info->room = sw->cfg.wide_role ? qlt_swi_win_room(sw) : 0;
  info->session = e->session;
  info->central_nonce = e->central_nonce;
  info->device_nonce = e->device_nonce;
  info->stream_acked = e->acked;
  info->stream_received = e->received;
  info->in_doubt = e->in_doubt;
}

int qlt_sw_set_value_limit(qlt_sw* sw, uint16_t limit) {
  if (limit < DEFAULT_VALUE_LIMIT || sw->ext.repeats > 0 || sw->ext.send_mode) return -1;
  sw->ext.value_limit = limit;
  return 0;
}

size_t qlt_sw_frame_max(const qlt_sw* sw) {
  const size_t classic = (size_t)sw->cfg.segment_size + 1u;
  if (!sw->cfg.wide_role) return classic;
  return sw->ext.value_limit > classic ? sw->ext.value_limit : classic;
}

void qlt_sw_link_lost(qlt_sw* sw) {
  qlt_sw_ext* e = &sw->ext;
  uint32_t end;
  if (e->state == QLT_SW_STATE_LINK_DOWN) return;
  end = e->acked + unacknowledged(sw);
  /* What an earlier link sent stays sent (in doubt) if this one dropped before resuming. */
  if (end - e->sent_end < 0x80000000u) e->sent_end = end;
  e->send_mode = e->recv_mode = 0;
  qlt_swi_classic_restart(sw);
  qlt_swi_win_reset(sw);
  set_state(sw, QLT_SW_STATE_LINK_DOWN);
}

void qlt_sw_link_up(qlt_sw* sw, uint32_t nonce) {
  if (sw->ext.state != QLT_SW_STATE_LINK_DOWN) qlt_sw_link_lost(sw);
  if (nonce) sw->cfg.nonce = nonce;
  /* Nothing to resume: what was sent on the old link is in doubt. */
  if (!sw->ext.session && sw->ext.sent_end != sw->ext.acked) lose_session(sw);
  /* A session that begins on the new link counts its offsets from its start. */
  if (!sw->ext.session) sw->ext.acked = sw->ext.sent_end = sw->ext.received = 0;
  if (!sw->cfg.wide_role) {
    sw->ext.state = QLT_SW_STATE_OFF;
    return;
  }
  begin_link(sw);
}

void qlt_sw_forget_session(qlt_sw* sw) {
  if (sw->ext.state != QLT_SW_STATE_LINK_DOWN) return; /* a live link settles its session */
  if (sw->ext.session) lose_session(sw);
  sw->ext.resume = 0;
  sw->ext.hold_data = 0;
}
