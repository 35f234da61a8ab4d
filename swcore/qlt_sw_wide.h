/* qlt_sw_wide: the negotiation frames of the wide window (docs/wide-window.md).
 *
 * The central's OFFER and the device's ANSWER carry each end's terms: the version, the
 * largest segment and the receive slots it can take, and the session it names. This file
 * writes and reads them and decides what one end may use of its peer's terms (taken,
 * clamped to what this end can hold, or refused as absurd). The negotiation that uses them
 * is qlt_sw_ext.c, run by qlt_sw when its configuration's wide_role is set.
 *
 * Same constraints as qlt_sw.h: C99, no I/O, no allocation, no float, no lock.
 */
#ifndef QLT_SW_WIDE_H
#define QLT_SW_WIDE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QLT_SW_WIDE_VERSION 1u
#define QLT_SW_WIDE_TERMS_LENGTH 19u  /* OFFER and ANSWER */
#define QLT_SW_WIDE_MIN_SEGMENT 16u   /* smaller is absurd */
#define QLT_SW_WIDE_MAX_WINDOW 32767u /* half the 16-bit sequence space */
#define QLT_SW_WIDE_FLAG_RESUME 0x01u /* OFFER: resume; ANSWER: resumed */

/* Control type 3, kind in the upper nibble. */
typedef enum {
  QLT_SW_WIDE_OFFER = 0x07,
  QLT_SW_WIDE_ANSWER = 0x17,
  QLT_SW_WIDE_CONFIRM = 0x27,
  QLT_SW_WIDE_DECLINE = 0x37
} qlt_sw_wide_header;

typedef struct {
  uint8_t version; /* OFFER: highest spoken; ANSWER: taken, 0 = declined */
  uint8_t flags;
  uint16_t segment; /* largest segment payload this end accepts */
  uint16_t window;  /* receive slots of this end, segments */
  uint32_t central_nonce;
  uint32_t device_nonce;
  uint32_t received; /* bytes of the peer's stream accepted in the session */
} qlt_sw_wide_terms;

typedef enum {
  QLT_SW_WIDE_NOT_OURS = 0, /* not a negotiation frame (classic, extended data, reserved) */
  QLT_SW_WIDE_READ_OFFER,
  QLT_SW_WIDE_READ_ANSWER,
  QLT_SW_WIDE_READ_CONFIRM,
  QLT_SW_WIDE_READ_DECLINE,
  QLT_SW_WIDE_MALFORMED /* an OFFER/ANSWER too short, or an OFFER of version 0 */
} qlt_sw_wide_read_result;

/* Writes an OFFER or ANSWER (header QLT_SW_WIDE_OFFER or QLT_SW_WIDE_ANSWER) of `terms`
 * into `out`; returns its length, or 0 if `capacity` is too small or the header is not one
 * of the two. Reserved flag bits are written as 0. */
size_t qlt_sw_wide_write_terms(uint8_t header, const qlt_sw_wide_terms* terms, uint8_t* out,
                               size_t capacity);

/* Reads one received value. `terms` (may be null) receives an OFFER's or ANSWER's terms.
 * Bytes after the known fields are ignored (later versions append). */
qlt_sw_wide_read_result qlt_sw_wide_read(const uint8_t* value, size_t length,
                                         qlt_sw_wide_terms* terms);

typedef enum {
  QLT_SW_WIDE_TAKEN = 0, /* the peer's sizes fit this end as they are */
  QLT_SW_WIDE_CLAMPED,   /* larger than this end can use: reduced */
  QLT_SW_WIDE_ABSURD     /* a segment under 16 bytes or no slots: refuse the extension */
} qlt_sw_wide_fit_result;

/* What this end may send under the peer's terms: segments of at most *segment bytes
 * (the peer's, clamped to `own_segment`, the most this end's buffers and link can carry)
 * and at most *window segments in flight (the peer's, clamped to `own_slots` and to half
 * the sequence space). Never more than this end was configured with. */
qlt_sw_wide_fit_result qlt_sw_wide_fit(const qlt_sw_wide_terms* peer, uint16_t own_segment,
                                       uint16_t own_slots, uint16_t* segment, uint16_t* window);

#ifdef __cplusplus
}
#endif

#endif /* QLT_SW_WIDE_H */
