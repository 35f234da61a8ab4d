// SlideWindowFrame: the sliding-window frame format, as pure functions.
//
// Every frame is one characteristic value; its length is the value's length (there is no
// length field, no checksum and no framing marker). The first byte is the header:
//
//   bit 0      1 = control frame, 0 = data frame
//   bit 1      data frames: 1 = "UDP" datagram, 0 = "TCP" segment
//   bits 1-3   control frames: 0 = status poll, 1 = acknowledgement, 2 = rejection
//   bits 4-7   a sequence number (segments, acknowledgements, rejections)
//
//   segment          seq*16, then 1..S payload bytes            0x00 0x10 0x20 0x30
//   datagram         0x02, then 0..S-1 payload bytes
//   status poll      0x01, oldest unacknowledged seq, next send seq (3 bytes)
//   acknowledgement  0x03 | R*16: every segment before R arrived   0x03 .. 0x33
//   rejection        0x05 | R*16: segment R is missing, go back   0x05 .. 0x35
//
// Sequence numbers count modulo 4 and at most 3 segments are in flight. A reader compares
// a whole upper nibble, so 4..15 never matches an expected sequence number.
//
// Everything here works on caller-owned memory: the builders write into a fixed buffer
// (121 or 161 bytes on the caller's stack) and return the frame's length; parseFrame
// reads only inside the span it is given. Thread safety: all functions are pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "QueltLibrary/Export.h"

namespace qlt {

inline constexpr uint8_t kSlideWindowModulus = 4;  // sequence numbers 0..3
inline constexpr uint8_t kSlideWindowSize = 3;     // segments in flight at most
inline constexpr size_t kPollFrameLength = 3;
// The "TCP" window's segment size and poll time-out (0.3 s, kept as the single-precision
// constant 0.3f widened to double): SWTransport and the simulated devices use them.
inline constexpr size_t kTcpSegmentSize = 120;
inline constexpr double kTcpPollTimeout = static_cast<double>(0.3f);

enum class FrameKind : uint8_t {
  Segment,       // "TCP" data, sequence in `sequence`, payload in `payload`
  Datagram,      // "UDP" data, payload in `payload` (may be empty)
  Poll,          // status poll: `pollFirst` .. `pollNext`
  Ack,           // acknowledgement carrying `sequence`
  Reject,        // rejection carrying `sequence`
  OtherControl,  // control types 3..7: ignored by readers
  Malformed,     // empty, or shorter than its kind needs: ignored by readers
};

struct QLT_EXPORT ParsedFrame {
  FrameKind kind = FrameKind::Malformed;
  uint8_t header = 0;
  uint8_t sequence = 0;   // upper nibble of the header (0..15)
  uint8_t pollFirst = 0;  // polls: byte 1 as received
  uint8_t pollNext = 0;   // polls: byte 2 as received
  uint8_t controlType = 0;
  std::span<const uint8_t> payload;  // a view into the parsed span
};

// Classifies `frame`, reading only inside it. Segments need at least one payload byte,
// polls three bytes; any other kind needs only its header.
QLT_EXPORT ParsedFrame parseFrame(std::span<const uint8_t> frame);

// Builders: each writes one frame into `out` and returns its length, or 0 (nothing
// written) when `out` is too small for it. `sequence` is taken modulo 4.
QLT_EXPORT size_t buildSegment(std::span<uint8_t> out, uint8_t sequence,
                               std::span<const uint8_t> payload);
QLT_EXPORT size_t buildDatagram(std::span<uint8_t> out, std::span<const uint8_t> payload);
QLT_EXPORT size_t buildPoll(std::span<uint8_t> out, uint8_t oldestUnacknowledged, uint8_t nextSend);
inline constexpr uint8_t ackHeader(uint8_t receiveSequence) {
  return static_cast<uint8_t>(0x03 | ((receiveSequence & 3) << 4));
}
inline constexpr uint8_t rejectHeader(uint8_t receiveSequence) {
  return static_cast<uint8_t>(0x05 | ((receiveSequence & 3) << 4));
}

// Window comparisons on unwrapped sequence numbers: with `start` and `end` in 0..3, adds 4
// to `end` if it is below `start` and to `x` if it is below `start`, then compares.
// `x` is taken as received: a nibble of 4..7 that lands inside a wrapped window counts as
// its value minus 4 would, exactly as the unwrapping defines it.
inline constexpr bool inWindowInclusive(uint8_t start, uint8_t x, uint8_t end) {
  unsigned b = end, v = x;
  if (b < start) b += 4;
  if (v < start) v += 4;
  return start <= v && v <= b;
}
inline constexpr bool inWindowExclusive(uint8_t start, uint8_t x, uint8_t end) {
  unsigned b = end, v = x;
  if (b < start) b += 4;
  if (v < start) v += 4;
  return start <= v && v < b;
}
// (to - from) mod 4, for sequence numbers 0..3.
inline constexpr uint8_t sequenceDistance(uint8_t from, uint8_t to) {
  return static_cast<uint8_t>((to + 4 - from) & 3);
}

// Whether `frame` carries stream bytes: a classic segment or an extended SEGMENT.
QLT_EXPORT bool isSegmentFrame(std::span<const uint8_t> frame);

// One decoded line for traces, e.g. "→ seg seq=1 120 B", "→ dgram 12 B", "← ack R=2",
// "← rej R=1", "→ poll 0..3", "← ctl type=7 1 B", "← malformed 1 B"; the extended window's
// "→ offer v1 seg=241 win=25", "→ xseg seq=7 241 B", "← xack next=8 win=24 +2 held",
// "→ xpoll 3 next=9". The arrow is → for
// a frame written and ← for a value received.
QLT_EXPORT std::string describeFrame(std::span<const uint8_t> frame, bool outgoing);

}  // namespace qlt
