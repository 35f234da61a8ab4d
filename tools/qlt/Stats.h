// Figures that qlt reports: percentiles of measured latencies, and the goodput bound that
// the sliding window allows on a given link.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
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

// Which way the data goes.
enum class Traffic {
  OneWay,  // one side sends, the other acknowledges on its next worker round (ackDelayS)
  Echo,    // the receiver sends each payload back: its acknowledgement leaves at once with
           // the answer (the round that writes the echo writes the acknowledgement owed),
           // and the last byte crosses the link twice
};

// The bound on goodput through the window:
//
//   round trip  = 2 × oneWay + ackDelay + pacing            (Echo: no ackDelay)
//   bound_Bps   = window × segmentBytes / round trip
//                 (and never more than segmentBytes / pacing, when writes are paced)
//
// A sender can have `window` segments in flight; the acknowledgement that frees the window
// comes back one round trip after the first of them left: its write is paced, it crosses
// the link, waits for the receiver's next worker round, and the acknowledgement crosses
// back. With 7.5 ms each way and no pacing: 360 B / 16 ms = 22.5 kB/s.
//
// For a transfer of `bytes` (0: a stream without end, the figure above), the bound is
// bytes / the shortest time they can take: W = ⌈bytes / (window × segmentBytes)⌉ windows,
// the last leaving W - 1 round trips after the first and arriving one way later (Echo:
// coming back, two ways later):
//
//   shortest time = (W - 1) × round trip + oneWay (Echo: 2 × oneWay) + pacing
//
// so a short transfer may come out above the stream's bound, never above its own. Returns 0
// when the link sets no bound (no delay, no pacing, an echo). Goodput is always measured,
// never derived from this.
double windowRoundTripS(const WindowConstants& w, const LinkTiming& link,
                        Traffic traffic = Traffic::OneWay);
double windowBoundBps(const WindowConstants& w, const LinkTiming& link,
                      Traffic traffic = Traffic::OneWay, uint64_t bytes = 0);

// The plain chunking transport has no window: its worker writes one chunk of 20 bytes per
// round, and a round lasts at least its ~1 ms wait (or the write pacing, if longer):
//
//   bound_Bps = 20 B / max(1 ms, pacing)
//
// The link's delay adds latency but does not limit it: nothing waits for an answer.
double chunkerBoundBps(const LinkTiming& link);

// The counting pattern that the source devices send and bench streams: byte i of a stream
// is i mod 251 (a prime, so a segment of 120 bytes skipped or repeated shows at once).
void fillCountingPattern(uint64_t offset, uint8_t* out, size_t length);

// Checks a stream of the counting pattern as its pieces arrive: every byte exactly once,
// in order. After the first wrong byte it counts on but stays failed.
class PatternCheck {
 public:
  // Returns ok().
  bool consume(const uint8_t* bytes, size_t length);
  bool ok() const { return !error_; }
  uint64_t bytes() const { return bytes_; }  // consumed so far
  // "byte 1234 is 17 where 42 was due (a byte skipped, repeated or corrupted)"; "" when ok.
  std::string problem() const;

 private:
  uint64_t bytes_ = 0;
  bool error_ = false;
  uint64_t errorAt_ = 0;
  uint8_t seen_ = 0, due_ = 0;
};

}  // namespace qlt::cli
