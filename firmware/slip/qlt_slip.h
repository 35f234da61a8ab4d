/* qlt_slip: SLIP framing (RFC 1055) for carrying frames over a byte stream such as a UART.
 *
 * A frame on the wire is END, the frame's bytes with END written as ESC ESC_END and ESC as
 * ESC ESC_ESC, then END. The leading END flushes whatever line noise came before, as RFC 1055
 * suggests; empty frames (two ENDs in a row) are therefore ignored by the decoder.
 *
 * Portable C99: no allocation, no I/O, no floating point. The decoder writes into a buffer
 * that the caller gives it; a frame longer than that buffer, or one with an ESC followed by
 * anything but ESC_END or ESC_ESC, is dropped whole (counted) rather than delivered cut or
 * altered, and decoding starts again at the next END.
 *
 * Thread safety: none; one decoder per byte stream. */
#ifndef QLT_SLIP_H
#define QLT_SLIP_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QLT_SLIP_END 0xC0u
#define QLT_SLIP_ESC 0xDBu
#define QLT_SLIP_ESC_END 0xDCu
#define QLT_SLIP_ESC_ESC 0xDDu

/* The most bytes a frame of `length` bytes takes on the wire: every byte escaped, two ENDs. */
#define QLT_SLIP_ENCODED_MAX(length) (2u * (length) + 2u)

/* Writes the frame `in` (`length` bytes) into `out` (`capacity` bytes) as END, escaped bytes,
 * END. Returns the number of bytes written, or 0 when `out` is too small (nothing useful is
 * written then). */
size_t qlt_slip_encode(const uint8_t* in, size_t length, uint8_t* out, size_t capacity);

typedef struct qlt_slip_decoder {
  uint8_t* buffer;  /* the frame being decoded */
  size_t capacity;  /* the longest frame accepted */
  size_t length;    /* bytes of the current frame so far */
  uint8_t escaped;  /* the previous byte was ESC */
  uint8_t discard;  /* the current frame is bad: skip to the next END */
  uint32_t frames;  /* frames delivered */
  uint32_t dropped; /* frames dropped: too long, or a bad escape */
} qlt_slip_decoder;

void qlt_slip_decoder_init(qlt_slip_decoder* decoder, uint8_t* buffer, size_t capacity);

/* Feeds one byte from the stream. Returns the length of the frame that this byte completed
 * (the frame is in decoder->buffer until the next call), or 0 when no frame is complete. A
 * frame is never empty, so 0 is unambiguous. */
size_t qlt_slip_decode_byte(qlt_slip_decoder* decoder, uint8_t byte);

#ifdef __cplusplus
}
#endif

#endif /* QLT_SLIP_H */
