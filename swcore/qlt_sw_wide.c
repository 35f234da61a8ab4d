#include "qlt_sw_wide.h"

static void put16(uint8_t* p, uint16_t v) {
  p[0] = (uint8_t)(v & 0xffu);
  p[1] = (uint8_t)(v >> 8);
}

static void put32(uint8_t* p, uint32_t v) {
  put16(p, (uint16_t)(v & 0xffffu));
  put16(p + 2, (uint16_t)(v >> 16));
}

static uint16_t get16(const uint8_t* p) { return (uint16_t)(p[0] | (p[1] << 8)); }

static uint32_t get32(const uint8_t* p) {
  return (uint32_t)get16(p) | ((uint32_t)get16(p + 2) << 16);
}

size_t qlt_sw_wide_write_terms(uint8_t header, const qlt_sw_wide_terms* terms, uint8_t* out,
                               size_t capacity) {
  if (header != QLT_SW_WIDE_OFFER && header != QLT_SW_WIDE_ANSWER) return 0;
  if (terms == NULL || out == NULL || capacity < QLT_SW_WIDE_TERMS_LENGTH) return 0;
  out[0] = header;
  out[1] = terms->version;
  out[2] = (uint8_t)(terms->flags & QLT_SW_WIDE_FLAG_RESUME);
  put16(out + 3, terms->segment);
  put16(out + 5, terms->window);
  put32(out + 7, terms->central_nonce);
  put32(out + 11, terms->device_nonce);
  put32(out + 15, terms->received);
  return QLT_SW_WIDE_TERMS_LENGTH;
}

qlt_sw_wide_read_result qlt_sw_wide_read(const uint8_t* value, size_t length,
                                         qlt_sw_wide_terms* terms) {
  qlt_sw_wide_read_result kind;
  if (value == NULL || length == 0) return QLT_SW_WIDE_NOT_OURS;
  switch (value[0]) {
    case QLT_SW_WIDE_OFFER:
      kind = QLT_SW_WIDE_READ_OFFER;
      break;
    case QLT_SW_WIDE_ANSWER:
      kind = QLT_SW_WIDE_READ_ANSWER;
      break;
    case QLT_SW_WIDE_CONFIRM:
      return QLT_SW_WIDE_READ_CONFIRM;
    case QLT_SW_WIDE_DECLINE:
      return QLT_SW_WIDE_READ_DECLINE;
    default:
      return QLT_SW_WIDE_NOT_OURS;
  }
  if (length < QLT_SW_WIDE_TERMS_LENGTH) return QLT_SW_WIDE_MALFORMED;
  if (kind == QLT_SW_WIDE_READ_OFFER && value[1] == 0) return QLT_SW_WIDE_MALFORMED;
  if (terms != NULL) {
    terms->version = value[1];
    terms->flags = (uint8_t)(value[2] & QLT_SW_WIDE_FLAG_RESUME);
    terms->segment = get16(value + 3);
    terms->window = get16(value + 5);
    terms->central_nonce = get32(value + 7);
    terms->device_nonce = get32(value + 11);
    terms->received = get32(value + 15);
  }
  return kind;
}

qlt_sw_wide_fit_result qlt_sw_wide_fit(const qlt_sw_wide_terms* peer, uint16_t own_segment,
                                       uint16_t own_slots, uint16_t* segment, uint16_t* window) {
  qlt_sw_wide_fit_result result = QLT_SW_WIDE_TAKEN;
  uint16_t seg, win, limit;
  *segment = 0;
  *window = 0;
  if (peer->segment < QLT_SW_WIDE_MIN_SEGMENT || peer->window == 0) return QLT_SW_WIDE_ABSURD;
  if (own_segment < QLT_SW_WIDE_MIN_SEGMENT || own_slots == 0) return QLT_SW_WIDE_ABSURD;
  seg = peer->segment;
  if (seg > own_segment) {
    seg = own_segment;
    result = QLT_SW_WIDE_CLAMPED;
  }
  limit = own_slots < QLT_SW_WIDE_MAX_WINDOW ? own_slots : (uint16_t)QLT_SW_WIDE_MAX_WINDOW;
  win = peer->window;
  if (win > limit) {
    win = limit;
    result = QLT_SW_WIDE_CLAMPED;
  }
  *segment = seg;
  *window = win;
  return result;
}
