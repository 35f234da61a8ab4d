// The extended window's sizes for one link, from the link's facts (WindowLink): the
// segment, the slots each way, and the acknowledgement delay, with the link rate and round
// trip they are estimated from. SlideWindowDriver configures the core with them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "QueltLibrary/SlideWindowFace.h"

namespace qlt {

// The extended window of one link, as the driver sizes it from the link's facts: segments
// as large as one value carries (value limit - 3 header bytes), and slots (each way) for
// twice the bandwidth-delay product, so that the sender still has room while a lost
// segment's repair is in flight; at least 2.4 kB, at most kMaxWindowBytes.
struct ExtendedWindowSizing {
  uint16_t segment = 0;
  uint16_t slots = 0;
  static constexpr size_t kMinInFlightBytes = 2400;
  static constexpr size_t kMaxWindowBytes = size_t{96} * 1024;
  static constexpr size_t kMaxSegment = 509;  // a 512-byte value: the ATT value's limit
  // The value limit until the MTU is exchanged: ATT_MTU 23 (Vol 3, Part F, 3.2.8).
  static constexpr size_t kDefaultValueLimit = 20;
  static ExtendedWindowSizing of(const WindowLink& link);
  // What the link carries at most (one way, bytes a second) and its round trip (seconds), as
  // the sizing estimates them.
  static double bytesPerSecond(const WindowLink& link);
  static double roundTripSeconds(const WindowLink& link);
  // How long an acknowledgement of extended segments may wait: three connection intervals,
  // at most 20 ms (the round trip above includes it).
  static double ackDelaySeconds(const WindowLink& link);
};

}  // namespace qlt
