#include "DeviceBehaviour.h"

#include <algorithm>
#include <vector>

#include "ExternalDevice.h"
#include "QueltLibrary/Clock.h"
#include "QueltLibrary/SlideWindowFrame.h"
#include "SimLink.h"
#include "protocol/SlideWindowDriver.h"

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

// Runs the sliding-window core in the device's role, through the same driver as the
// library's transports, with the device queue as its strand: frames written by the central
// go to its receive(); the frames it writes go out as notifications. Echoes every payload
// back (sw-echo), streams a pattern while notifications are on (source), or only
// acknowledges (sw-sink). The rounds run at the core's deadlines, so a simulated link costs
// no thread and an idle one no wake-up. Payloads are handled in tasks of their own, after the
// receive that delivered them.
class SlidingWindow final : public DeviceBehaviour,
                            public std::enable_shared_from_this<SlidingWindow> {
 public:
  SlidingWindow(bool echo, uint64_t sourceBytes, std::weak_ptr<SimLink> link,
                std::shared_ptr<DispatchQueue> deviceQueue, bool extended, bool sink = false)
      : echo_(echo),
        sink_(sink),
        extended_(extended),
        sourceBytes_(sourceBytes),
        link_(std::move(link)),
        deviceQueue_(std::move(deviceQueue)) {}

  void connected() override {
    if (driver_) driver_->stop();
    std::weak_ptr<SlidingWindow> weak = weak_from_this();
    auto owner = link_.lock();
    if (!owner) return;
    driver_ = SlideWindowDriver::create(
        {kTcpSegmentSize, kTcpPollTimeout}, owner->clock(), deviceQueue_,
        {.write =
             [link = link_](const uint8_t* bytes, size_t length) {
               if (auto l = link.lock()) l->notify(Data(bytes, length));
             },
         .deliverTCP = [weak](const Data& payload) { post(weak, payload, true); },
         .deliverUDP = [weak](const Data& payload) { post(weak, payload, false); }});
    if (auto link = link_.lock(); link && extended_) {
      // The device's end: it answers the central's offer, sized by the same link.
      const LinkParameters& air = link->parameters();
      WindowLink facts;
      facts.valueLimit = link->maxValueLength();
      facts.intervalMs = air.intervalMs;
      facts.phyMbps = air.phy == Phy::LE2M ? 2 : 1;
      facts.dataLength = air.dataLength;
      driver_->setExtended({.enabled = true, .role = WindowRole::Device, .link = facts});
    }
    driver_->start();
  }
  // The source streams while notifications are on: byte i of the link's stream is i mod 251,
  // sourceBytes in all (0: without end). It keeps kSourceQueued bytes queued in its driver,
  // topped up as the central's acknowledgements (written frames) release them.
  void notificationsChanged(bool enabled) override {
    streaming_ = enabled;
    refill();
  }
  void written(const Data& value) override {
    if (!driver_) return;
    driver_->receive(value);  // on the device queue, the driver's strand: at once
    refill();
  }
  void refill() {
    static constexpr uint64_t kSourceQueued = uint64_t{16} * 1024;
    if (echo_ || sink_ || !streaming_ || !driver_) return;
    while (driver_->unacknowledged() < kSourceQueued &&
           (sourceBytes_ == 0 || produced_ < sourceBytes_)) {
      const uint64_t n =
          sourceBytes_ == 0 ? kSourceQueued : std::min(kSourceQueued, sourceBytes_ - produced_);
      std::vector<uint8_t> pattern(n);
      for (uint64_t i = 0; i < n; ++i) pattern[i] = static_cast<uint8_t>((produced_ + i) % 251);
      if (auto link = link_.lock()) link->counters().payloadBytesSent.fetch_add(n);
      driver_->sendTCP(pattern.data(), pattern.size());
      produced_ += n;
    }
  }
  void disconnected() override {
    if (driver_) driver_->stop();
    driver_.reset();
  }

 private:
  static void post(const std::weak_ptr<SlidingWindow>& weak, const Data& payload, bool tcp) {
    auto self = weak.lock();
    if (!self) return;
    self->deviceQueue_->async([self, payload, tcp] {
      auto link = self->link_.lock();
      if (tcp && link) link->counters().payloadBytesReceived.fetch_add(payload.length());
      if (!self->echo_ || !self->driver_) return;
      if (!tcp) {
        self->driver_->sendUDP(payload.bytes(), payload.length());
        return;
      }
      if (link) link->counters().payloadBytesSent.fetch_add(payload.length());
      self->driver_->sendTCP(payload.bytes(), payload.length());
    });
  }

  const bool echo_;
  const bool sink_;      // neither echoes nor streams
  const bool extended_;  // answers an offer of the extended window
  const uint64_t sourceBytes_;
  const std::weak_ptr<SimLink> link_;
  const std::shared_ptr<DispatchQueue> deviceQueue_;
  std::shared_ptr<SlideWindowDriver> driver_;  // device queue only; null once disconnected
  bool streaming_ = false;                     // device queue only: notifications are on
  uint64_t produced_ = 0;                      // device queue only: source bytes queued so far
};

}  // namespace

std::shared_ptr<DeviceBehaviour> DeviceBehaviour::make(
    const SimDeviceConfig& config, const std::shared_ptr<SimLink>& link,
    const std::shared_ptr<DispatchQueue>& deviceQueue) {
  const bool extended = !config.classicWindow;
  switch (config.behaviour) {
    case SimBehaviour::ChunkEcho:
      return std::make_shared<ChunkEcho>(link);
    case SimBehaviour::SwEcho:
      return std::make_shared<SlidingWindow>(true, 0, link, deviceQueue, extended);
    case SimBehaviour::Source:
      return std::make_shared<SlidingWindow>(false, config.sourceBytes, link, deviceQueue,
                                             extended);
    case SimBehaviour::External:
      return makeExternalDevice(config, link);
    case SimBehaviour::SwSink:
      return std::make_shared<SlidingWindow>(false, 0, link, deviceQueue, extended, true);
    case SimBehaviour::Sink:
    case SimBehaviour::None:
      break;
  }
  return std::make_shared<Idle>();
}

}  // namespace qlt::sim
