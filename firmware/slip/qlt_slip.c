#include "qlt_slip.h"

size_t qlt_slip_encode(const uint8_t* in, size_t length, uint8_t* out, size_t capacity) {
  size_t n = 0;
  size_t i;
  if (capacity < 2) return 0;
  out[n++] = QLT_SLIP_END;
  for (i = 0; i < length; ++i) {
    const uint8_t b = in[i];
    if (b == QLT_SLIP_END || b == QLT_SLIP_ESC) {
      if (capacity - n < 3) return 0; /* two bytes, and room for the closing END */
      out[n++] = QLT_SLIP_ESC;
      out[n++] = b == QLT_SLIP_END ? QLT_SLIP_ESC_END : QLT_SLIP_ESC_ESC;
    } else {
      if (capacity - n < 2) return 0;
      out[n++] = b;
    }
  }
  out[n++] = QLT_SLIP_END;
  return n;
}

void qlt_slip_decoder_init(qlt_slip_decoder* decoder, uint8_t* buffer, size_t capacity) {
  decoder->buffer = buffer;
  decoder->capacity = capacity;
  decoder->length = 0;
  decoder->escaped = 0;
  decoder->discard = 0;
  decoder->frames = 0;
  decoder->dropped = 0;
}

static void drop(qlt_slip_decoder* decoder) {
  if (!decoder->discard) decoder->dropped++;
  decoder->discard = 1;
  decoder->length = 0;
}

size_t qlt_slip_decode_byte(qlt_slip_decoder* decoder, uint8_t byte) {
  if (byte == QLT_SLIP_END) {
    const size_t length = decoder->discard ? 0 : decoder->length;
    /* An END right after ESC ends a frame with a bad escape in it. */
    if (decoder->escaped && !decoder->discard) {
      decoder->dropped++;
      decoder->length = 0;
      decoder->escaped = 0;
      return 0;
    }
    decoder->length = 0;
    decoder->escaped = 0;
    decoder->discard = 0;
    if (length > 0) decoder->frames++;
    return length;
  }
  if (decoder->discard) return 0;
  if (decoder->escaped) {
    decoder->escaped = 0;
    if (byte == QLT_SLIP_ESC_END) {
      byte = QLT_SLIP_END;
    } else if (byte == QLT_SLIP_ESC_ESC) {
      byte = QLT_SLIP_ESC;
    } else {
      drop(decoder);
      return 0;
    }
  } else if (byte == QLT_SLIP_ESC) {
    decoder->escaped = 1;
    return 0;
  }
  if (decoder->length >= decoder->capacity) {
    drop(decoder);
    return 0;
  }
  decoder->buffer[decoder->length++] = byte;
  return 0;
}
