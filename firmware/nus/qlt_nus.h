/* qlt_nus: the device's end of the sliding window over the Nordic UART Service.
 *
 * Put a qlt_nus between a BLE stack's UART service and the application. The firmware gives
 * it three things:
 *   - qlt_nus_written(): a value the central wrote to the RX characteristic (6E400002);
 *   - a notify function (in the config): "send this value as a notification on the TX
 *     characteristic (6E400003)", which may answer "not now" when the stack's buffers are
 *     full: the layer keeps that frame and offers it again, before anything else, on the
 *     next qlt_nus_tick(), so no segment is lost that the central has not acknowledged;
 *   - the time in milliseconds, with every call, and a call to qlt_nus_tick() when the delay
 *     it returned has passed (or sooner: when the stack reports a notification sent).
 * The application gets a byte stream: qlt_nus_write() (accepted up to the space left, count
 * returned), its bytes in order through the on_bytes callback, datagrams both ways, counters.
 *
 * The extended ("wide") window (docs/wide-window.md): with wide_storage set in the config,
 * the device answers a central that offers it, and then sends and receives segments as large
 * as the link's values (up to wide_segment) with a window of wide_send_slots /
 * wide_recv_slots segments and selective acknowledgement; a central that does not offer it
 * gets the classic window, as before. The kit's examples turn it on unless built with
 * QLT_NUS_WIDE=0. With a room callback the layer offers the central only as many receive
 * slots as the application has room for (room() >= slots offered * wide_segment), so the
 * application is never handed more than it can take; give it room for wide_recv_slots *
 * wide_segment bytes and the classic window's 3 * 120 (what it may hold when the window
 * switches).
 *
 * Portable C99: all memory is the caller's (a static qlt_nus and its slots, sized at compile
 * time); no allocation, no printf, no floating point. Not thread-safe: call everything from
 * one context (the main loop, or one work queue), never from two interrupt levels at once.
 * Callbacks run inside qlt_nus_written() and may call qlt_nus_write() and
 * qlt_nus_send_datagram(). */
#ifndef QLT_NUS_H
#define QLT_NUS_H

#include <stddef.h>
#include <stdint.h>

#include "qlt_sw.h"

#ifdef __cplusplus
extern "C" {
#endif

#define QLT_NUS_SEGMENT 120u         /* payload bytes per segment, as the library sends them */
#define QLT_NUS_POLL_TIMEOUT_MS 300u /* the longest wait for an answer before a status poll */
#define QLT_NUS_ACK_DELAY_MS 1u      /* answers owed may wait this long to gather more */
#define QLT_NUS_RETRY_MS 1u          /* a refused notification is offered again this soon */
#define QLT_NUS_IDLE 0xFFFFFFFFu     /* qlt_nus_tick: nothing to do until something arrives */
/* Bytes of slot storage for a send queue of `count` segments (3 fill the window). */
#define QLT_NUS_SLOTS_BYTES(count) QLT_SW_STORAGE(QLT_NUS_SEGMENT, count)
/* The longest value the layer writes or holds: ATT_MTU 247 less 3 (one 251-byte PDU). */
#define QLT_NUS_VALUE_MAX 244u
/* The layer and the kit's examples run the wide window unless built with -DQLT_NUS_WIDE=0
 * (or a core built with QLT_SW_WIDE=0): then the layer leaves its code out, holds frames of
 * the classic size and refuses a config with wide_storage. */
#ifndef QLT_NUS_WIDE
#define QLT_NUS_WIDE QLT_SW_WIDE
#endif
#if QLT_NUS_WIDE && !QLT_SW_WIDE
#error "QLT_NUS_WIDE needs a core built with the wide window (QLT_SW_WIDE)"
#endif
/* The longest frame the layer holds for a refusing stack. */
#if QLT_NUS_WIDE
#define QLT_NUS_HELD_MAX QLT_NUS_VALUE_MAX
#else
#define QLT_NUS_HELD_MAX QLT_SW_FRAME_MAX
#endif
/* Send-queue slots that hold a wide send window of `send_slots` segments of `segment` bytes
 * (the queue is the send stream then: QLT_NUS_SLOTS_BYTES of this count). */
#define QLT_NUS_WIDE_SEND_QUEUE(segment, send_slots) \
  (((size_t)(segment) * (size_t)(send_slots) + QLT_NUS_SEGMENT - 1u) / QLT_NUS_SEGMENT)

/* Sends `value` as one notification. Returns 0 when the stack took it, anything else when
 * it cannot now (its buffers are full: the layer offers the same value again later). */
typedef int (*qlt_nus_notify_fn)(void* context, const uint8_t* value, size_t length);
/* Payload bytes that arrived: "TCP" bytes in order, or one datagram. */
typedef void (*qlt_nus_bytes_fn)(void* context, const uint8_t* bytes, size_t length);
/* Bytes the application can take now; a segment that would not fit is left unread (the
 * central sends it again later), so the application is never handed more than it has room
 * for. */
typedef size_t (*qlt_nus_room_fn)(void* context);

typedef struct qlt_nus_config {
  qlt_nus_notify_fn notify;     /* required */
  qlt_nus_bytes_fn on_bytes;    /* required */
  qlt_nus_bytes_fn on_datagram; /* optional: datagrams are dropped without it */
  qlt_nus_room_fn room;         /* optional: without it there is always room */
  void* context;                /* passed to each callback */
  uint8_t* slots;               /* QLT_NUS_SLOTS_BYTES(slot_count) bytes */
  uint16_t slot_count;          /* segments the send queue holds, >= 1 */
  /* The wide window; wide_storage 0: the classic window only. */
  uint32_t* wide_storage;   /* QLT_SW_WIDE_STORAGE(wide_segment, send, recv) words */
  uint16_t wide_segment;    /* the largest extended payload, 16..QLT_NUS_VALUE_MAX - 3 */
  uint16_t wide_send_slots; /* slot_count must hold them: QLT_NUS_WIDE_SEND_QUEUE */
  uint16_t wide_recv_slots;
  uint16_t value_limit; /* the link's ATT_MTU - 3 (0: QLT_NUS_VALUE_MAX; at most that) */
  uint32_t nonce;       /* random, nonzero: this device's half of a session's identity */
} qlt_nus_config;

typedef struct qlt_nus_counters {
  uint32_t values_written;     /* values the central wrote (qlt_nus_written calls) */
  uint32_t values_left_unread; /* segments left for the central to resend: no room */
  uint32_t notifications;      /* values the stack took */
  uint32_t notify_refused;     /* times the stack said its buffers were full */
  uint32_t bytes_received;     /* "TCP" payload bytes handed to on_bytes */
  uint32_t bytes_accepted;     /* bytes qlt_nus_write accepted */
  uint32_t datagrams_received; /* handed to on_datagram */
  uint32_t datagrams_sent;     /* accepted by qlt_nus_send_datagram */
} qlt_nus_counters;

typedef struct qlt_nus {
  qlt_sw sw;
  qlt_nus_config cfg;
  qlt_nus_counters counters;
  uint8_t held[QLT_NUS_HELD_MAX]; /* a frame the stack refused, offered again first */
  uint16_t held_length;           /* 0: none */
  uint16_t unconsumed;            /* wide deliveries handed over, their slots not offered yet */
} qlt_nus;

/* Sets the layer up; returns 0, or -1 for an unusable configuration. */
int qlt_nus_init(qlt_nus* nus, const qlt_nus_config* cfg);
/* A new connection (or notifications switched on again). With the wide window the layer
 * keeps a session across connections: a central that held it resumes the stream where each
 * end had it (nothing lost, nothing twice); a central that does not begins a new session,
 * in which the bytes sent on the last connection and never acknowledged are dropped (in
 * doubt: counted in qlt_nus_protocol_counters' bytes_in_doubt and sessions_lost) and the
 * bytes queued and never sent go out first. With the classic window alone the protocol
 * starts afresh, as the central's does, and whatever was queued is dropped. */
void qlt_nus_connected(qlt_nus* nus);
/* The connection ended (call it from the stack's disconnect event): the session is held,
 * nothing is sent until qlt_nus_connected (which does the same for a firmware that does
 * not call this). */
void qlt_nus_disconnected(qlt_nus* nus);
/* Forgets the session held while disconnected, so the next connection begins a new one;
 * the bytes sent and never acknowledged are then in doubt and dropped, as above. How long
 * to hold a session is the firmware's choice: call this once that long has passed after
 * qlt_nus_disconnected (the library's hosts hold theirs 30 s), or when the bytes queued
 * for the last central must not go to another. No effect while connected. */
void qlt_nus_forget_session(qlt_nus* nus);

/* The central wrote `value` to the RX characteristic. */
void qlt_nus_written(qlt_nus* nus, const uint8_t* value, size_t length, uint32_t now_ms);
/* Writes what is due (a held frame first, then segments, polls and answers). Returns the
 * milliseconds until it must be called again, QLT_NUS_IDLE when only a write or a received
 * value can make work. */
uint32_t qlt_nus_tick(qlt_nus* nus, uint32_t now_ms);

/* Queues bytes for the central; returns how many it took (whole segments as far as the
 * queue has room). What is queued is delivered once, in order, unless the link ends. */
size_t qlt_nus_write(qlt_nus* nus, const uint8_t* bytes, size_t length, uint32_t now_ms);
size_t qlt_nus_write_space(const qlt_nus* nus);
/* Sends one datagram (at most QLT_NUS_SEGMENT - 1 bytes; unacknowledged). Returns 0, or -1
 * when it is too long or a refused frame is still waiting for the stack. */
int qlt_nus_send_datagram(qlt_nus* nus, const uint8_t* bytes, size_t length, uint32_t now_ms);

const qlt_nus_counters* qlt_nus_get_counters(const qlt_nus* nus);
const qlt_sw_counters* qlt_nus_protocol_counters(const qlt_nus* nus);

#ifdef __cplusplus
}
#endif

#endif /* QLT_NUS_H */
