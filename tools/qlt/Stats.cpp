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

double windowRoundTripS(const WindowConstants& w, const LinkTiming& link) {
  return 2 * link.oneWayS + w.ackDelayS + link.pacingS;
}

double windowBoundBps(const WindowConstants& w, const LinkTiming& link) {
  const double rtt = windowRoundTripS(w, link);
  if (rtt <= 0) return 0;
  double bound = w.window * w.segmentBytes / rtt;
  if (link.pacingS > 0) bound = std::min(bound, w.segmentBytes / link.pacingS);
  return bound;
}

double chunkerBoundBps(const LinkTiming& link) {
  constexpr double kChunkBytes = 20;
  constexpr double kWorkerRoundS = 0.001;
  return kChunkBytes / std::max(kWorkerRoundS, link.pacingS);
}

}  // namespace qlt::cli
