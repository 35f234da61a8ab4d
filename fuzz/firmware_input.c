/* What a firmware's device side reads from outside, fed with arbitrary bytes: a UART's byte
 * stream through the SLIP decoder, in reads of any length, and every frame it yields into the
 * device layer as a value written by the central, while the stack refuses notifications now
 * and then and the application writes back what it gets. Used by the libFuzzer target and by
 * the test that replays the corpus.
 *
 * Input: byte 0 chooses how the stream is cut into reads and which notifications are refused;
 * the rest is the stream. Abort on a broken promise: a frame longer than the decoder's buffer,
 * a refused frame not offered again first, more bytes delivered than written. */
#include <stdlib.h>
#include <string.h>

#include "qlt_nus.h"
#include "qlt_slip.h"

int qlt_fuzz_firmware_input(const uint8_t* data, size_t size);

static qlt_nus nus;
static uint8_t slots[QLT_NUS_SLOTS_BYTES(4)];
static uint8_t frame[QLT_SW_FRAME_MAX];
static uint8_t held[QLT_SW_FRAME_MAX];
static size_t held_length;
static uint32_t choices, now_ms, delivered, written_bytes;

static int notify(void* context, const uint8_t* value, size_t length) {
  (void)context;
  if (length == 0 || length > QLT_SW_FRAME_MAX) abort();
  if (held_length && (length != held_length || memcmp(value, held, length) != 0)) abort();
  held_length = 0;
  choices = choices * 1103515245u + 12345u;
  if ((choices >> 16) % 3 == 0) {
    memcpy(held, value, length);
    held_length = length;
    return 1;
  }
  return 0;
}

static void on_bytes(void* context, const uint8_t* bytes, size_t length) {
  (void)context;
  delivered += (uint32_t)length;
  (void)qlt_nus_write(&nus, bytes, length, now_ms);
}

static void on_datagram(void* context, const uint8_t* bytes, size_t length) {
  (void)context;
  if (length >= QLT_SW_FRAME_MAX) abort(); /* a frame less its header byte */
  (void)qlt_nus_send_datagram(&nus, bytes, length, now_ms);
}

int qlt_fuzz_firmware_input(const uint8_t* data, size_t size) {
  qlt_nus_config cfg;
  qlt_slip_decoder decoder;
  size_t i = 1;
  if (size == 0) return 0;
  memset(&cfg, 0, sizeof cfg);
  cfg.notify = notify;
  cfg.on_bytes = on_bytes;
  cfg.on_datagram = on_datagram;
  cfg.slots = slots;
  cfg.slot_count = 4;
  choices = data[0];
  now_ms = 1000;
  delivered = written_bytes = 0;
  held_length = 0;
  if (qlt_nus_init(&nus, &cfg) != 0) abort();
  qlt_slip_decoder_init(&decoder, frame, sizeof frame);
  while (i < size) {
    /* One read of 1 to 16 bytes, then the time moves on by 0 to 3 ms. */
    const size_t read = 1 + ((data[0] + i) & 15u);
    size_t k;
    for (k = 0; k < read && i < size; ++k, ++i) {
      const size_t n = qlt_slip_decode_byte(&decoder, data[i]);
      if (n > sizeof frame) abort();
      if (n > 0) {
        written_bytes += (uint32_t)n;
        qlt_nus_written(&nus, frame, n, now_ms);
      }
    }
    now_ms += (uint32_t)(i & 3u);
    (void)qlt_nus_tick(&nus, now_ms);
  }
  /* A segment's payload is its frame less the header byte. */
  if (delivered > written_bytes) abort();
  return 0;
}
