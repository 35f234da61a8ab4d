// Figures that qlt reports: percentiles of measured latencies, and the goodput bound that
// the sliding window allows on a given link.
#pragma once

#include <cstdint>
#include <vector>

namespace qlt::cli {

// The p-th percentile (0 ≤ p ≤ 100) of `samples`, interpolating linearly between the two
// nearest ranks (p50 of {1, 2, 3, 4} is 2.5). Returns 0 for no samples.
double percentile(std::vector<double> samples, double p);

// The sliding window's constants, as the transport uses them.
struct WindowConstants {
  uint32_t window = 3;          // segments in flight before an acknowledgement
  uint32_t segmentBytes = 120;  // payload bytes per segment
  double ackDelayS = 0.001;     // the receiver acknowledges on its worker's next round
};

// What limits one round trip on a link.
struct LinkTiming {
  double oneWayS = 0;  // one-way delay of a frame on the air
  double pacingS = 0;  // time the write path spends per frame (chunk pacing)
};

// The bound on goodput in one direction:
//
//   round trip  = 2 × oneWay + ackDelay + pacing
//   bound_Bps   = window × segmentBytes / round trip
//                 (and never more than segmentBytes / pacing, when writes are paced)
//
// A sender can have `window` segments in flight; the acknowledgement that frees the window
// comes back one round trip after the first of them left: its write is paced, it crosses
// the link, waits for the receiver's next worker round, and the acknowledgement crosses
// back. With 7.5 ms each way and no pacing: 360 B / 16 ms = 22.5 kB/s. Goodput is always
// measured, never derived from this.
double windowRoundTripS(const WindowConstants& w, const LinkTiming& link);
double windowBoundBps(const WindowConstants& w, const LinkTiming& link);

// The plain chunking transport has no window: its worker writes one chunk of 20 bytes per
// round, and a round lasts at least its ~1 ms wait (or the write pacing, if longer):
//
//   bound_Bps = 20 B / max(1 ms, pacing)
//
// The link's delay adds latency but does not limit it: nothing waits for an answer.
double chunkerBoundBps(const LinkTiming& link);

}  // namespace qlt::cli
