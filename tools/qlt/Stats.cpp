#include "Stats.h"

#include <algorithm>
#include <cmath>

namespace qlt::cli {

double percentile(std::vector<double> samples, double p) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  p = std::clamp(p, 0.0, 100.0);
  const double rank = p / 100.0 * static_cast<double>(samples.size() - 1);
  const auto lo = static_cast<size_t>(std::floor(rank));
  const auto hi = static_cast<size_t>(std::ceil(rank));
  const double frac = rank - static_cast<double>(lo);
  return samples[lo] + (samples[hi] - samples[lo]) * frac;
}

double windowRoundTripS(const WindowConstants& w, const LinkTiming& link, Traffic traffic) {
  return 2 * link.oneWayS + (traffic == Traffic::Echo ? 0 : w.ackDelayS) + link.pacingS;
}

double windowBoundBps(const WindowConstants& w, const LinkTiming& link, Traffic traffic,
                      uint64_t bytes) {
  const double rtt = windowRoundTripS(w, link, traffic);
  const double perWindow = double(w.window) * w.segmentBytes;
  double bound = perWindow / rtt;
  if (bytes > 0) {
    const double windows = std::ceil(double(bytes) / perWindow);
    const double legs = traffic == Traffic::Echo ? 2 : 1;
    bound = double(bytes) / ((windows - 1) * rtt + legs * link.oneWayS + link.pacingS);
  }
  if (link.pacingS > 0) bound = std::min(bound, w.segmentBytes / link.pacingS);
  return std::isfinite(bound) ? bound : 0;
}

double chunkerBoundBps(const LinkTiming& link) {
  constexpr double kChunkBytes = 20;
  constexpr double kWorkerRoundS = 0.001;
  return kChunkBytes / std::max(kWorkerRoundS, link.pacingS);
}

void fillCountingPattern(uint64_t offset, uint8_t* out, size_t length) {
  auto b = static_cast<uint8_t>(offset % 251);
  for (size_t i = 0; i < length; ++i) {
    out[i] = b;
    b = b == 250 ? 0 : b + 1;
  }
}

bool PatternCheck::consume(const uint8_t* bytes, size_t length) {
  if (!error_) {
    auto due = static_cast<uint8_t>(bytes_ % 251);
    for (size_t i = 0; i < length; ++i, due = due == 250 ? 0 : due + 1) {
      if (bytes[i] == due) continue;
      error_ = true;
      errorAt_ = bytes_ + i;
      seen_ = bytes[i];
      due_ = due;
      break;
    }
  }
  bytes_ += length;
  return ok();
}

std::string PatternCheck::problem() const {
  if (!error_) return "";
  return "byte " + std::to_string(errorAt_) + " is " + std::to_string(seen_) + " where " +
         std::to_string(due_) + " was due (a byte skipped, repeated or corrupted)";
}

}  // namespace qlt::cli
