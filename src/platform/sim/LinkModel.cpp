#include "platform/sim/LinkModel.h"

#include <algorithm>

namespace qlt::sim {

LinkModel::LinkModel(LinkConfig config, uint64_t seed) : config_(config), rng_(seed) {}

bool LinkModel::chance(double probability) {
  const double draw = unit_(rng_);  // always drawn: see transmit()
  return draw < probability;
}

LinkFate LinkModel::transmit(double sentAt, size_t length) {
  // Air time: the frame waits for the previous one, then occupies the link.
  double airTime = 0.0;
  if (config_.framesPerSecond > 0.0) airTime = std::max(airTime, 1.0 / config_.framesPerSecond);
  if (config_.bytesPerSecond > 0.0) {
    airTime = std::max(airTime, static_cast<double>(length) / config_.bytesPerSecond);
  }
  while (!waiting_.empty() && waiting_.front() <= sentAt) waiting_.pop_front();
  const bool dropped = config_.queueLimit > 0 && waiting_.size() >= config_.queueLimit;
  double leaves = sentAt;
  if (!dropped) {
    leaves = std::max(sentAt, busyUntil_) + airTime;
    busyUntil_ = leaves;
    if (airTime > 0.0) waiting_.push_back(leaves);
  }

  // Draw every random number for every frame, so that a change of one probability does
  // not shift the stream of the others.
  const bool lost = chance(config_.lossProbability);
  const bool duplicated = chance(config_.duplicationProbability);
  const double jitter = unit_(rng_) * std::max(config_.jitterSeconds, 0.0);

  LinkFate fate;
  if (dropped) {
    ++framesDropped_;
    return fate;
  }
  if (lost) {
    ++framesLost_;
    return fate;
  }
  const double arrives = std::max(leaves + config_.delaySeconds + jitter, lastDelivery_);
  lastDelivery_ = arrives;
  fate.copies = 1;
  fate.at[0] = arrives;
  if (duplicated) {
    fate.copies = 2;
    fate.at[1] = arrives;  // right behind the original, same instant, after it
  }
  return fate;
}

}  // namespace qlt::sim
