// LinkModel: one direction of a simulated radio link, seeded and reproducible.
//
// For every frame handed to the link at a time t the model answers: lost, or delivered at
// one time (or, when duplicated, at two times) no earlier than every earlier delivery, so
// the link always keeps FIFO order, like a BLE connection does. What it models:
//
//  - a write-rate limit (frames per second and/or bytes per second): frames leave the
//    sender one after the other, each taking 1/framesPerSecond or length/bytesPerSecond
//    seconds of air time, queued behind the previous one; with a queue limit, a frame
//    that finds that many frames still waiting is dropped (tail drop, like a full stack
//    buffer), otherwise the queue is unbounded;
//  - a one-way delay, plus an optional jitter drawn uniformly in [0, jitter) that is
//    clamped so that a frame never overtakes an earlier one;
//  - loss with a fixed probability per frame (a lost frame still used its air time);
//  - in-order duplication with a fixed probability: the copy arrives right behind the
//    original.
//
// The same seed and the same calls give the same answers (std::mt19937_64). Used by the
// simulated radio and by the transports' link harness. Not thread-safe: one owner drives it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <random>

namespace qlt::sim {

struct LinkConfig {
  double lossProbability = 0.0;         // 0..1, per frame
  double duplicationProbability = 0.0;  // 0..1, per delivered frame
  double delaySeconds = 0.0;            // one-way propagation delay
  double jitterSeconds = 0.0;           // extra delay in [0, jitter), FIFO kept
  double framesPerSecond = 0.0;         // write-rate limit; 0 = none
  double bytesPerSecond = 0.0;          // write-rate limit; 0 = none
  size_t queueLimit = 0;                // frames waiting for air time at most; 0 = no limit
};

// What became of one frame.
struct LinkFate {
  int copies = 0;         // 0 = lost, 1 = delivered, 2 = delivered twice
  double at[2] = {0, 0};  // delivery times of the copies, in order
  bool lost() const { return copies == 0; }
};

class LinkModel {
 public:
  LinkModel(LinkConfig config, uint64_t seed);

  // The fate of a frame of `length` bytes handed to the link at `sentAt` seconds. Calls
  // must come with non-decreasing `sentAt`.
  LinkFate transmit(double sentAt, size_t length);

  const LinkConfig& config() const { return config_; }
  uint64_t framesLost() const { return framesLost_; }
  uint64_t framesDropped() const { return framesDropped_; }  // by the queue limit

 private:
  bool chance(double probability);

  LinkConfig config_;
  std::mt19937_64 rng_;
  std::uniform_real_distribution<double> unit_{0.0, 1.0};
  double busyUntil_ = 0.0;     // end of the last frame's air time
  double lastDelivery_ = 0.0;  // latest delivery time given out (FIFO floor)
  uint64_t framesLost_ = 0;
  uint64_t framesDropped_ = 0;
  std::deque<double> waiting_;  // times at which queued frames finish their air time
};

}  // namespace qlt::sim
