#include "qlt_nus.h"

#include <string.h>

static uint32_t micros(uint32_t now_ms) { return now_ms * 1000u; /* wraps with the core */ }

/* The core from the config: a new stream. */
static void start(qlt_nus* nus) {
  qlt_sw_config sw;
  memset(&sw, 0, sizeof sw); /* fields not set here keep the core's defaults */
  sw.segment_size = QLT_NUS_SEGMENT;
  sw.poll_timeout_us = QLT_NUS_POLL_TIMEOUT_MS * 1000u;
  sw.ack_delay_us = QLT_NUS_ACK_DELAY_MS * 1000u;
  sw.slots = nus->cfg.slots;
  sw.slot_count = nus->cfg.slot_count;
#if QLT_NUS_WIDE
  if (nus->cfg.wide_storage) {
    sw.wide_role = QLT_SW_ROLE_DEVICE;
    sw.wide_manual_consume = nus->cfg.room ? 1u : 0u;
    sw.wide_segment = nus->cfg.wide_segment;
    sw.wide_send_slots = nus->cfg.wide_send_slots;
    sw.wide_recv_slots = nus->cfg.wide_recv_slots;
    sw.wide_storage = nus->cfg.wide_storage;
    sw.value_limit = nus->cfg.value_limit != 0 ? nus->cfg.value_limit : QLT_NUS_VALUE_MAX;
    sw.nonce = nus->cfg.nonce;
  }
#endif
  (void)qlt_sw_init(&nus->sw, &sw); /* checked by qlt_nus_init */
  nus->held_length = 0;
  nus->unconsumed = 0;
}

int qlt_nus_init(qlt_nus* nus, const qlt_nus_config* cfg) {
  if (!cfg->notify || !cfg->on_bytes || !cfg->slots || cfg->slot_count == 0) return -1;
  if (cfg->wide_storage &&
      (!QLT_NUS_WIDE || cfg->value_limit > QLT_NUS_VALUE_MAX || cfg->wide_segment + 3u > QLT_NUS_VALUE_MAX ||
       cfg->wide_segment < 16u || cfg->wide_send_slots == 0 || cfg->wide_recv_slots == 0 ||
       cfg->nonce == 0 ||
       (size_t)cfg->slot_count * QLT_NUS_SEGMENT <
           (size_t)cfg->wide_segment * cfg->wide_send_slots))
    return -1;
  memset(nus, 0, sizeof *nus);
  nus->cfg = *cfg;
  start(nus);
  return 0;
}

void qlt_nus_connected(qlt_nus* nus) {
#if QLT_NUS_WIDE
  if (nus->cfg.wide_storage) {
    /* The session goes on if the central resumes it; otherwise a new one begins. */
    qlt_sw_link_up(&nus->sw, 0);
    nus->held_length = 0; /* deliveries not yet consumed stay with the application */
    return;
  }
#endif
  start(nus);
}

void qlt_nus_disconnected(qlt_nus* nus) {
#if QLT_NUS_WIDE
  if (nus->cfg.wide_storage) qlt_sw_link_lost(&nus->sw);
#endif
  nus->held_length = 0; /* the core sends it again on the next link if it is still owed */
}

void qlt_nus_forget_session(qlt_nus* nus) {
#if QLT_NUS_WIDE
  if (nus->cfg.wide_storage) qlt_sw_forget_session(&nus->sw);
#else
  (void)nus;
#endif
}

/* Gives the central back the receive slots of deliveries the application has room behind:
 * the room must cover every slot offered, each a whole segment. */
static void consume(qlt_nus* nus, uint32_t now_us) {
#if QLT_NUS_WIDE
  if (nus->unconsumed == 0 || !nus->cfg.room) return;
  while (nus->unconsumed > 0 &&
         nus->cfg.room(nus->cfg.context) >=
             ((size_t)nus->cfg.wide_recv_slots - nus->unconsumed + 1u) * nus->cfg.wide_segment) {
    qlt_sw_consume(&nus->sw, 1, now_us);
    nus->unconsumed--;
  }
#else
  (void)nus;
  (void)now_us;
#endif
}

/* Offers the held frame, then every frame due, to the stack until it refuses one. */
static void flush(qlt_nus* nus, uint32_t now_us) {
  for (;;) {
    if (nus->held_length == 0) {
      const size_t n = qlt_sw_poll_frame(&nus->sw, now_us, nus->held, sizeof nus->held);
      if (n == 0) return;
      nus->held_length = (uint16_t)n;
    }
    if (nus->cfg.notify(nus->cfg.context, nus->held, nus->held_length) != 0) {
      nus->counters.notify_refused++;
      return;
    }
    nus->counters.notifications++;
    nus->held_length = 0;
  }
}

static void deliver(qlt_nus* nus, const qlt_sw_delivery* d) {
#if QLT_NUS_WIDE
  qlt_sw_wide_info info;
  qlt_sw_get_wide_info(&nus->sw, &info);
  if (info.receive_extended && nus->cfg.room) nus->unconsumed++;
#endif
  nus->counters.bytes_received += (uint32_t)d->len;
  nus->cfg.on_bytes(nus->cfg.context, d->payload, d->len);
}

void qlt_nus_written(qlt_nus* nus, const uint8_t* value, size_t length, uint32_t now_ms) {
  qlt_sw_delivery d;
  const uint32_t now = micros(now_ms);
  nus->counters.values_written++;
  /* A segment (header bits 0 and 1 clear) the application has no room for stays unread. */
  if (length > 1 && (value[0] & 3u) == 0 && nus->cfg.room &&
      nus->cfg.room(nus->cfg.context) < length - 1) {
    nus->counters.values_left_unread++;
    return;
  }
  switch (qlt_sw_receive(&nus->sw, value, length, now, &d)) {
    case QLT_SW_TCP:
      deliver(nus, &d);
      break;
    case QLT_SW_UDP:
      if (nus->cfg.on_datagram) {
        nus->counters.datagrams_received++;
        nus->cfg.on_datagram(nus->cfg.context, d.payload, d.len);
      }
      break;
    case QLT_SW_NONE:
    case QLT_SW_IGNORED:
      break;
  }
#if QLT_NUS_WIDE
  while (qlt_sw_take_delivery(&nus->sw, &d)) deliver(nus, &d); /* behind a filled gap */
#endif
  consume(nus, now);
  flush(nus, now);
}

uint32_t qlt_nus_tick(qlt_nus* nus, uint32_t now_ms) {
  const uint32_t now = micros(now_ms);
  uint32_t due;
  consume(nus, now);
  flush(nus, now);
  if (nus->held_length != 0) return QLT_NUS_RETRY_MS;
  due = qlt_sw_next_due(&nus->sw, now);
  if (due == QLT_SW_IDLE) return QLT_NUS_IDLE;
  return (due + 999u) / 1000u;
}

size_t qlt_nus_write(qlt_nus* nus, const uint8_t* bytes, size_t length, uint32_t now_ms) {
  const size_t accepted = qlt_sw_send(&nus->sw, bytes, length);
  nus->counters.bytes_accepted += (uint32_t)accepted;
  if (accepted > 0) flush(nus, micros(now_ms));
  return accepted;
}

size_t qlt_nus_write_space(const qlt_nus* nus) { return qlt_sw_send_space(&nus->sw); }

int qlt_nus_send_datagram(qlt_nus* nus, const uint8_t* bytes, size_t length, uint32_t now_ms) {
  const uint32_t now = micros(now_ms);
  flush(nus, now);
  if (nus->held_length != 0) return -1;
  nus->held_length =
      (uint16_t)qlt_sw_datagram(&nus->sw, bytes, length, nus->held, sizeof nus->held);
  if (nus->held_length == 0) return -1;
  nus->counters.datagrams_sent++;
  flush(nus, now);
  return 0;
}

const qlt_nus_counters* qlt_nus_get_counters(const qlt_nus* nus) { return &nus->counters; }

const qlt_sw_counters* qlt_nus_protocol_counters(const qlt_nus* nus) {
  return qlt_sw_get_counters(&nus->sw);
}
