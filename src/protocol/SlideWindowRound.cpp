#include "protocol/SlideWindowRound.h"

#include <algorithm>

namespace qlt {

std::optional<std::chrono::nanoseconds> stepRound(SlideWindowEngine& engine) {
  engine.round();
  if ((engine.pendingWork() & 1) != 0) return std::chrono::nanoseconds::zero();
  if (engine.inFlight() == 0) return std::nullopt;
  const auto& timer = *engine.timer();
  const double left = std::max(timer.Timeout() - timer.elapse(), 0.0) + 0.001;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(left));
}

}  // namespace qlt
