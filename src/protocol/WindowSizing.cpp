#include "protocol/WindowSizing.h"

#include <algorithm>
#include <cmath>

#include "swcore/qlt_sw_wide.h"

namespace qlt {

namespace {
// A link's facts when the backend does not know them: the largest a BLE link may need
// (the window is then larger than the link uses, never smaller).
constexpr double kAssumedIntervalMs = 50;  // Linux centrals ask for 30-50 ms
constexpr double kAssumedPhyMbps = 2;
constexpr size_t kAssumedDataLength = 251;
constexpr double kHostDelaySeconds = 10e-3;
// Segments of one connection event arrive a PDU pair apart (about 1.4 ms on 2M): once the
// peer's segments are extended, an acknowledgement waits a few intervals (at most this) to
// cover several events' segments, rather than costing the link one frame per segment (in an
// echo every frame of a pair carries data, and each acknowledgement takes a data frame's place).
constexpr double kAckIntervals = 3;
constexpr double kMaxAckDelaySeconds = 20e-3;
}  // namespace

// One PDU pair of a connection event carries dataLength link-layer bytes one way: the PDU
// (preamble 1 octet on 1M, 2 on 2M, access address 4, header 2, payload, CRC 3), T_IFS
// 150 us, the peer's empty PDU, T_IFS (Bluetooth Core v5.3, Vol 6, Part B, 2.1 and 4.1.1).
// Each value costs 7 bytes of ATT and L2CAP headers and 3 of the segment's (Vol 3, Part A,
// 3.1; Part F, 3.4.7).
static double linkRate(const WindowLink& link, size_t segment) {
  const double mbps = link.phyMbps > 0 ? link.phyMbps : kAssumedPhyMbps;
  const double dataLength = static_cast<double>(
      link.dataLength > 0 ? std::clamp<size_t>(link.dataLength, 27, 251) : kAssumedDataLength);
  const double preamble = mbps >= 2 ? 2 : 1;
  const auto air = [&](double payload) { return (preamble + 9 + payload) * 8 / (mbps * 1e6); };
  const double pair = air(dataLength) + 150e-6 + air(0) + 150e-6;
  const double value = static_cast<double>(segment) + 10;
  return dataLength / pair * (value - 10) / value;
}

double ExtendedWindowSizing::bytesPerSecond(const WindowLink& link) {
  return linkRate(link, of(link).segment);
}

// Two connection intervals (a segment waits for the next event, its acknowledgement for
// the one after) plus the receiver's acknowledgement delay and what the hosts add: a busy
// host wakes its queues milliseconds late, and a window that covers that keeps the link
// full through it.
double ExtendedWindowSizing::roundTripSeconds(const WindowLink& link) {
  const double interval = link.intervalMs > 0 ? link.intervalMs : kAssumedIntervalMs;
  return 2 * interval / 1000 + ackDelaySeconds(link) + kHostDelaySeconds;
}

double ExtendedWindowSizing::ackDelaySeconds(const WindowLink& link) {
  const double interval = link.intervalMs > 0 ? link.intervalMs : kAssumedIntervalMs;
  return std::clamp(kAckIntervals * interval / 1000, 1e-3, kMaxAckDelaySeconds);
}

ExtendedWindowSizing ExtendedWindowSizing::of(const WindowLink& link) {
  ExtendedWindowSizing s;
  const size_t limit = link.valueLimit > 0 ? link.valueLimit : kDefaultValueLimit;
  s.segment = static_cast<uint16_t>(
      std::clamp<size_t>(limit > 3 ? limit - 3 : 0, QLT_SW_WIDE_MIN_SEGMENT, kMaxSegment));
  const double window = std::max(2 * linkRate(link, s.segment) * roundTripSeconds(link),
                                 static_cast<double>(kMinInFlightBytes));
  const size_t most = kMaxWindowBytes / s.segment;
  s.slots = static_cast<uint16_t>(
      std::clamp<size_t>(static_cast<size_t>(std::ceil(window / s.segment)), 8, most));
  return s;
}

}  // namespace qlt
