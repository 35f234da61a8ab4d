// LinkHarness: two sliding-window endpoints back to back over a simulated radio link, in
// simulated time (a ManualClock). Each endpoint's rounds run every `roundPeriod` seconds,
// B's offset by `phaseB`, as two unsynchronised workers would. Every frame written goes
// through the LinkModel of its direction (loss, in-order duplication, delay, jitter, rate
// limit) to the other endpoint's receive() at its delivery time. Everything is seeded: the
// same options replay the same run.
//
// Endpoints: the sliding-window driver and its core (as SWTransport and BLESlideWindow run
// them, without their delegates) or the independent literal peer (LiteralPeer.cpp).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <queue>
#include <span>
#include <vector>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/Data.h"
#include "QueltLibrary/SlideWindowCounters.h"
#include "platform/sim/LinkModel.h"
#include "protocol/SlideWindowDriver.h"

namespace qlt::test {

// One side of the link, whatever it is made of.
class LinkEndpoint {
 public:
  virtual ~LinkEndpoint() = default;
  virtual void sendTCP(std::span<const uint8_t> bytes) = 0;
  virtual void receive(const Data& value) = 0;
  virtual void round() = 0;
  virtual SlideWindowCounters counters() const = 0;
  virtual uint8_t inFlight() const = 0;
  virtual size_t queuedSegments() const = 0;
  // The "TCP" payloads delivered so far, in order.
  std::vector<Data> delivered() const { return delivered_; }
  // Set by the harness: called with every frame the endpoint writes.
  std::function<void(const Data&)> output;
  // Optional: called with every "TCP" payload as it is delivered.
  std::function<void(const Data&)> onTCP;

 protected:
  void deliver(const Data& payload) {
    delivered_.push_back(payload);
    if (onTCP) onTCP(payload);
  }
  std::vector<Data> delivered_;
};

std::unique_ptr<LinkEndpoint> makeEngineEndpoint(SlideWindowParameters parameters,
                                                 std::shared_ptr<Clock> clock);
// The protocol's literal rules: every out-of-order segment rejected, every rejection
// honoured, a poll after `pollTimeout`.
std::unique_ptr<LinkEndpoint> makeLiteralPeer(size_t segmentSize, double pollTimeout,
                                              std::shared_ptr<Clock> clock);

// SWTransport's constants, for engine endpoints.
SlideWindowParameters transportParameters();

struct HarnessOptions {
  sim::LinkConfig aToB;
  sim::LinkConfig bToA;
  uint64_t seed = 1;
  double roundPeriod = 0.001;
  double phaseB = 0.0005;
};

struct HarnessStats {
  uint8_t maxInFlight = 0;  // largest window seen on either side
};

class LinkHarness {
 public:
  enum Side { A = 0, B = 1 };

  // Two engine endpoints with SWTransport's constants.
  explicit LinkHarness(HarnessOptions options);
  // Endpoints made by `make` (called once per side with the harness clock).
  LinkHarness(
      HarnessOptions options,
      const std::function<std::unique_ptr<LinkEndpoint>(Side, std::shared_ptr<Clock>)>& make);

  LinkEndpoint& endpoint(Side side) { return *endpoints_[side]; }
  LinkEndpoint& a() { return *endpoints_[A]; }
  LinkEndpoint& b() { return *endpoints_[B]; }
  double now() const { return clock_->now(); }
  const HarnessStats& stats() const { return stats_; }

  // Processes every event up to `seconds` from now, in time order.
  void runFor(double seconds);
  // Runs until both send queues are empty and the links are quiet of segments, or until
  // `limit` seconds have passed; true when drained.
  bool runUntilDrained(double limit);

 private:
  struct Event {
    double at;
    uint64_t order;
    int to;
    Data frame;
    bool operator>(const Event& o) const { return at != o.at ? at > o.at : order > o.order; }
  };

  void carry(int from, const Data& frame);
  void step();
  double nextTime() const;

  HarnessOptions options_;
  std::shared_ptr<ManualClock> clock_;
  std::unique_ptr<LinkEndpoint> endpoints_[2];
  sim::LinkModel links_[2];  // links_[from]
  std::priority_queue<Event, std::vector<Event>, std::greater<Event>> events_;
  uint64_t order_ = 0;
  double nextRound_[2];
  HarnessStats stats_;
};

// The bytes of `payloads`, joined.
std::vector<uint8_t> joined(const std::vector<Data>& payloads);

// A seeded exchange: each side sends `messagesPerSide` messages of 1 byte to
// `maxMessage` bytes (sizes log-uniform, contents random), spread over the first
// fractions of a second, then the harness runs until both queues drain or `limit`.
struct ExchangePlan {
  int messagesPerSide = 3;
  size_t maxMessage = 10 * 1024;
  double limit = 600.0;  // simulated seconds
  std::function<std::unique_ptr<LinkEndpoint>(LinkHarness::Side, std::shared_ptr<Clock>)> make;
};

struct ExchangeResult {
  bool drained = false;
  bool exact[2] = {false, false};  // [from A, from B]: delivered == sent
  double simSeconds = 0;
  HarnessStats stats;
  SlideWindowCounters counters[2];
};

ExchangeResult runExchange(const HarnessOptions& options, const ExchangePlan& exchange);

// Sends 100 messages of 100 bytes one at a time from A, each echoed by B as it arrives,
// with short pauses between them, and appends to `echoes` the time each took to come
// back (a message stops waiting after `limit` seconds).
void measureEchoes(const HarnessOptions& options, double limit, std::vector<double>& echoes);

}  // namespace qlt::test
