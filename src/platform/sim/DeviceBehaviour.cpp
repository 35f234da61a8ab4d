#include "DeviceBehaviour.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <vector>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/SlideWindowFrame.h"
#include "SimLink.h"
#include "protocol/SlideWindowEngine.h"
#include "worker/RoundPacer.h"

namespace qlt::sim {

namespace {

// Accepts writes and does nothing (the link has counted them already).
class Idle final : public DeviceBehaviour {};

// Notifies every written value back, as it came.
class ChunkEcho final : public DeviceBehaviour {
 public:
  explicit ChunkEcho(std::weak_ptr<SimLink> link) : link_(std::move(link)) {}
  void written(const Data& value) override {
    if (auto link = link_.lock()) link->notify(value);
  }

 private:
  std::weak_ptr<SimLink> link_;
};

// Runs the library's own sliding-window engine in the device's role: frames written by
// the central go to its receive(); the frames it writes go out as notifications. Echoes
// every payload back (sw-echo), streams a pattern while notifications are on (source), or
// only acknowledges (sw-sink).
// Everything runs on the device queue: the engine's rounds are paced as a transport's
// (RoundPacer: a round only when there is work or a deadline), so a simulated link costs
// no thread and an idle one no wake-up. Payloads are handled in tasks of their own, after the
// receive that delivered them.
class SlidingWindow final : public DeviceBehaviour,
                            public SlideWindowEngine::Face,
                            public std::enable_shared_from_this<SlidingWindow> {
 public:
  SlidingWindow(bool echo, uint64_t sourceBytes, std::weak_ptr<SimLink> link,
                std::shared_ptr<DispatchQueue> deviceQueue, bool sink = false)
      : echo_(echo),
        sink_(sink),
        sourceBytes_(sourceBytes),
        link_(std::move(link)),
        deviceQueue_(std::move(deviceQueue)) {}

  void connected() override {
    engine_ = std::make_unique<SlideWindowEngine>(
        *this, SlideWindowParameters{kTcpSegmentSize, kTcpPollTimeout}, Clock::monotonic());
    if (pacer_) pacer_->stop();
    pacer_ = RoundPacer::create(deviceQueue_, [weak = weak_from_this()] {
      auto self = weak.lock();
      if (!self || !self->engine_) return std::numeric_limits<double>::infinity();
      self->engine_->round();
      return self->engine_->untilNextRound();
    });
    engine_->setWakeup([pacer = std::weak_ptr<RoundPacer>(pacer_)](double delay) {
      if (auto p = pacer.lock()) p->wake(delay);
    });
  }
  // The source streams while notifications are on: byte i of the link's stream is i mod 251,
  // sourceBytes in all (0: without end). It keeps kSourceQueued bytes queued in its engine,
  // topped up as the central's acknowledgements (written frames) release them.
  void notificationsChanged(bool enabled) override {
    streaming_ = enabled;
    refill();
  }
  void written(const Data& value) override {
    if (!engine_) return;
    engine_->receive(value);
    refill();
  }
  void refill() {
    static constexpr uint64_t kSourceQueued = uint64_t{16} * 1024;
    if (echo_ || sink_ || !streaming_ || !engine_) return;
    while (engine_->counters().bytesQueued < kSourceQueued &&
           (sourceBytes_ == 0 || produced_ < sourceBytes_)) {
      const uint64_t n =
          sourceBytes_ == 0 ? kSourceQueued : std::min(kSourceQueued, sourceBytes_ - produced_);
      std::vector<uint8_t> pattern(n);
      for (uint64_t i = 0; i < n; ++i) pattern[i] = static_cast<uint8_t>((produced_ + i) % 251);
      if (auto link = link_.lock()) link->counters().payloadBytesSent.fetch_add(n);
      engine_->sendTCP(pattern.data(), pattern.size());
      produced_ += n;
    }
  }
  void disconnected() override {
    engine_.reset();
    if (pacer_) pacer_->stop();
    pacer_.reset();
  }

  // SlideWindowEngine::Face, on the device queue.
  void writeFrame(const uint8_t* bytes, size_t length) override {
    if (auto link = link_.lock()) link->notify(Data(bytes, length));
  }
  void deliverTCP(const Data& payload) override {
    deviceQueue_->async([self = shared_from_this(), payload] {
      auto link = self->link_.lock();
      if (link) link->counters().payloadBytesReceived.fetch_add(payload.length());
      if (!self->echo_ || !self->engine_) return;
      if (link) link->counters().payloadBytesSent.fetch_add(payload.length());
      self->engine_->sendTCP(payload.bytes(), payload.length());
    });
  }
  void deliverUDP(const Data& payload) override {
    deviceQueue_->async([self = shared_from_this(), payload] {
      if (self->echo_ && self->engine_) self->engine_->sendUDP(payload.bytes(), payload.length());
    });
  }

 private:
  const bool echo_;
  const bool sink_;  // neither echoes nor streams
  const uint64_t sourceBytes_;
  const std::weak_ptr<SimLink> link_;
  const std::shared_ptr<DispatchQueue> deviceQueue_;
  std::unique_ptr<SlideWindowEngine> engine_;  // device queue only; null once disconnected
  std::shared_ptr<RoundPacer> pacer_;          // device queue only: the engine's rounds
  bool streaming_ = false;                     // device queue only: notifications are on
  uint64_t produced_ = 0;                      // device queue only: source bytes queued so far
};

}  // namespace

std::shared_ptr<DeviceBehaviour> DeviceBehaviour::make(
    const SimDeviceConfig& config, const std::shared_ptr<SimLink>& link,
    const std::shared_ptr<DispatchQueue>& deviceQueue) {
  switch (config.behaviour) {
    case SimBehaviour::ChunkEcho:
      return std::make_shared<ChunkEcho>(link);
    case SimBehaviour::SwEcho:
      return std::make_shared<SlidingWindow>(true, 0, link, deviceQueue);
    case SimBehaviour::Source:
      return std::make_shared<SlidingWindow>(false, config.sourceBytes, link, deviceQueue);
    case SimBehaviour::SwSink:
      return std::make_shared<SlidingWindow>(false, 0, link, deviceQueue, true);
    case SimBehaviour::Sink:
    case SimBehaviour::None:
      break;
  }
  return std::make_shared<Idle>();
}

}  // namespace qlt::sim
