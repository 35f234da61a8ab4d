#include "echo_device.h"

#include "qlt_slip.h"

#if QLT_NUS_WIDE
/* The wide window: segments as large as a 247-byte ATT MTU allows, 8 in flight, 4 held. */
#define WIDE_SEGMENT (QLT_NUS_VALUE_MAX - 3u)
#define WIDE_SEND 8u
#define WIDE_RECV 4u
#define SEND_SLOTS QLT_NUS_WIDE_SEND_QUEUE(WIDE_SEGMENT, WIDE_SEND)
/* Received bytes waiting to go back: room for WIDE_RECV segments and the classic window. */
#define ECHO_RING 1536u
static uint32_t wide[QLT_SW_WIDE_STORAGE(WIDE_SEGMENT, WIDE_SEND, WIDE_RECV)];
#else
#define SEND_SLOTS 4u  /* the window's 3 segments and one more being filled */
#define ECHO_RING 512u /* received bytes waiting to go back */
#endif

static echo_device_options options;
static qlt_nus nus;
static uint8_t slots[QLT_NUS_SLOTS_BYTES(SEND_SLOTS)];
static qlt_slip_decoder decoder;
static uint8_t frame_in[QLT_NUS_VALUE_MAX + 1u]; /* a type byte and a value */
static uint8_t frame_out[QLT_SLIP_ENCODED_MAX(QLT_NUS_VALUE_MAX + 1u)];
static uint32_t unknown_frames;

static uint8_t ring[ECHO_RING];
static uint32_t ring_start, ring_used;
static uint32_t received;

#if QLT_NUS_WIDE && ECHO_RING < WIDE_RECV * WIDE_SEGMENT + 3u * QLT_NUS_SEGMENT
#error "the echo ring must hold the receive slots offered"
#endif

static uint8_t credits;
static uint32_t credit_at; /* when the next buffer frees up */

static void refill(uint32_t now_ms) {
  while (credits < options.stack_buffers && (int32_t)(now_ms - credit_at) >= 0) {
    credits++;
    credit_at += options.buffer_free_ms;
  }
  if (credits == options.stack_buffers) credit_at = now_ms + options.buffer_free_ms;
}

static uint32_t clock_ms;

static int notify(void* context, const uint8_t* value, size_t length) {
  size_t n;
  (void)context;
  refill(clock_ms);
  if (credits == 0) return 1;
  credits--;
  if (!options.link_events) {
    n = qlt_slip_encode(value, length, frame_out, sizeof frame_out);
    options.serial_write(frame_out, n);
    return 0;
  }
  /* The value encoded one byte on, then its leading END becomes END and the type byte (which
   * needs no escape): the frame [type, value...] without copying the value. */
  n = qlt_slip_encode(value, length, frame_out + 1, sizeof frame_out - 1u);
  frame_out[0] = QLT_SLIP_END;
  frame_out[1] = ECHO_FRAME_VALUE;
  options.serial_write(frame_out, n + 1u);
  return 0;
}

/* Hands the ring's bytes to the layer, as far as its queue takes them. */
static void pump(void) {
  while (ring_used > 0) {
    uint32_t run = ECHO_RING - ring_start;
    size_t taken;
    if (run > ring_used) run = ring_used;
    if (run > QLT_NUS_SEGMENT) run = QLT_NUS_SEGMENT;
    taken = qlt_nus_write(&nus, ring + ring_start, run, clock_ms);
    if (taken == 0) return;
    ring_start = (ring_start + (uint32_t)taken) % ECHO_RING;
    ring_used -= (uint32_t)taken;
  }
}

static void on_bytes(void* context, const uint8_t* bytes, size_t length) {
  size_t i;
  (void)context;
  for (i = 0; i < length; ++i) ring[(ring_start + ring_used + i) % ECHO_RING] = bytes[i];
  ring_used += (uint32_t)length;
  received += (uint32_t)length;
  pump();
}

static void on_datagram(void* context, const uint8_t* bytes, size_t length) {
  (void)context;
  (void)qlt_nus_send_datagram(&nus, bytes, length, clock_ms); /* best effort, as datagrams are */
}

static size_t room(void* context) {
  (void)context;
  return ECHO_RING - ring_used;
}

void echo_device_init(const echo_device_options* opts, uint32_t now_ms) {
  qlt_nus_config cfg;
  options = *opts;
  if (options.stack_buffers == 0) options.stack_buffers = 1;
  credits = options.stack_buffers;
  credit_at = now_ms;
  clock_ms = now_ms;
  ring_start = ring_used = received = unknown_frames = 0;
  cfg.notify = notify;
  cfg.on_bytes = on_bytes;
  cfg.on_datagram = on_datagram;
  cfg.room = room;
  cfg.context = 0;
  cfg.slots = slots;
  cfg.slot_count = SEND_SLOTS;
  cfg.wide_storage = 0;
#if QLT_NUS_WIDE
  cfg.wide_storage = wide;
  cfg.wide_segment = WIDE_SEGMENT;
  cfg.wide_send_slots = WIDE_SEND;
  cfg.wide_recv_slots = WIDE_RECV;
  cfg.value_limit = QLT_NUS_VALUE_MAX;
  cfg.nonce = options.nonce != 0 ? options.nonce : 1u;
#endif
  (void)qlt_nus_init(&nus, &cfg);
  /* With link events, nothing is connected until the first link is up. */
  if (options.link_events) qlt_nus_disconnected(&nus);
  qlt_slip_decoder_init(&decoder, frame_in,
                        options.link_events ? sizeof frame_in : QLT_NUS_VALUE_MAX);
}

/* A frame from a line with link events: a value, or a connection's start or end. */
static void typed_frame(size_t n, uint32_t now_ms) {
  switch (frame_in[0]) {
    case ECHO_FRAME_VALUE:
      qlt_nus_written(&nus, frame_in + 1, n - 1u, now_ms);
      break;
    case ECHO_FRAME_LINK_UP:
      qlt_nus_connected(&nus);
      break;
    case ECHO_FRAME_LINK_DOWN:
      qlt_nus_disconnected(&nus);
      break;
    default:
      unknown_frames++;
      break;
  }
}

void echo_device_serial_byte(uint8_t byte, uint32_t now_ms) {
  const size_t n = qlt_slip_decode_byte(&decoder, byte);
  clock_ms = now_ms;
  if (n == 0) return;
  if (options.link_events) {
    typed_frame(n, now_ms);
  } else {
    qlt_nus_written(&nus, frame_in, n, now_ms);
  }
  pump(); /* an acknowledgement may have made room in the send queue */
}

uint32_t echo_device_tick(uint32_t now_ms) {
  clock_ms = now_ms;
  pump();
  return qlt_nus_tick(&nus, now_ms);
}

int echo_device_restart_due(void) {
  return options.restart_after != 0 && received >= options.restart_after;
}

const qlt_nus* echo_device_layer(void) { return &nus; }

uint32_t echo_device_bad_frames(void) { return decoder.dropped + unknown_frames; }
