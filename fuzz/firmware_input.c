/* A firmware's UART input, fuzzed: bytes 1.. through the SLIP decoder in reads of 1-16 bytes,
 * each frame into the device layer, a third of notifications refused (byte 0 seeds which).
 * Aborts when a promise breaks. The libFuzzer target and the corpus replay test use it. */
#include <stdlib.h>
#include <string.h>

#include "qlt_nus.h"
#include "qlt_slip.h"

int qlt_fuzz_firmware_input(const uint8_t* data, size_t size);

static qlt_nus nus;
static uint8_t slots[QLT_NUS_SLOTS_BYTES(4)], frame[QLT_SW_FRAME_MAX], held[QLT_SW_FRAME_MAX];
static size_t held_length;
static uint32_t choices, now_ms, delivered;

static int notify(void* context, const uint8_t* value, size_t length) {
  if (length == 0 || length > QLT_SW_FRAME_MAX) abort();
  if (held_length && (length != held_length || memcmp(value, held, length) != 0)) abort();
  choices = choices * 1103515245u + 12345u;
  held_length = (choices >> 16) % 3 == 0 ? length : 0;
  memcpy(held, value, held_length);
  return held_length != 0;
}

static void on_bytes(void* context, const uint8_t* bytes, size_t length) {
  delivered += (uint32_t)length;
  (void)qlt_nus_write(&nus, bytes, length, now_ms);
}

static void on_datagram(void* context, const uint8_t* bytes, size_t length) {
  if (length >= QLT_SW_FRAME_MAX) abort(); /* a frame less its header byte */
  (void)qlt_nus_send_datagram(&nus, bytes, length, now_ms);
}

int qlt_fuzz_firmware_input(const uint8_t* data, size_t size) {
  qlt_nus_config cfg = {notify, on_bytes, on_datagram, NULL, NULL, slots, 4, NULL, 0, 0, 0, 0, 0};
  qlt_slip_decoder decoder;
  uint32_t framed = 0;
  size_t i = 1, k, n;
  if (size == 0) return 0;
  choices = data[0];
  now_ms = 1000;
  delivered = 0;
  held_length = 0;
  if (qlt_nus_init(&nus, &cfg) != 0) abort();
  qlt_slip_decoder_init(&decoder, frame, sizeof frame);
  while (i < size) {
    for (k = 1 + ((data[0] + i) & 15u); k > 0 && i < size; --k, ++i) {
      if ((n = qlt_slip_decode_byte(&decoder, data[i])) > sizeof frame) abort();
      framed += (uint32_t)n;
      if (n > 0) qlt_nus_written(&nus, frame, n, now_ms);
    }
    now_ms += (uint32_t)(i & 3u);
    (void)qlt_nus_tick(&nus, now_ms);
  }
  if (delivered > framed) abort();
  return 0;
}
