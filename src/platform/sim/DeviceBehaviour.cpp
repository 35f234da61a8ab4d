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

class SlidingWindow;

// A device's window: its driver on its strand, the behaviour of the link it is on, and how
// far the source has got. With the extended window it is kept across the device's links (the
// radio holds it until the device is removed), so the session survives a dropped link; the
// classic window gets one per link, on the link's device queue.
struct WindowState {
  explicit WindowState(std::shared_ptr<DispatchQueue> q) : strand(std::move(q)) {}
  const std::shared_ptr<DispatchQueue> strand;
  std::shared_ptr<SlideWindowDriver> driver;  // strand only
  std::weak_ptr<SlidingWindow> current;       // strand only: the link that is up
  uint64_t produced = 0;                      // strand only: source bytes queued so far
};

// Runs the sliding-window core in the device's role, through the same driver as the
// library's transports: frames written by the central go to its receive() (with the number
// of the link they came on); the frames it writes go out as notifications on the link that is
// up. Echoes every payload back (sw-echo), streams a pattern while notifications are on
// (source), or only acknowledges (sw-sink). The rounds run at the core's deadlines, so a
// simulated link costs no thread and an idle one no wake-up. Payloads are handled in tasks of
// their own on the window's strand, after the receive that delivered them.
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
    auto owner = link_.lock();
    if (!owner) return;
    if (extended_) {
      state_ = std::static_pointer_cast<WindowState>(owner->deviceState([&] {
        return std::make_shared<WindowState>(DispatchQueue::create(
            "qlt.sim.window." + owner->config().localName.value_or("unnamed")));
      }));
    } else {
      state_ = std::make_shared<WindowState>(deviceQueue_);
    }
    state_->strand->sync([&] {
      state_->current = weak_from_this();
      if (state_->driver) {
        // The session goes on, or a new one begins, sized by this link.
        linkNumber_ = state_->driver->linkUp(factsOf(*owner));
        return;
      }
      state_->driver = makeDriver(*owner);
      state_->driver->start();
    });
  }
  // The source streams while notifications are on: byte i of the device's stream is i mod
  // 251, sourceBytes in all (0: without end). It keeps kSourceQueued bytes queued in its
  // driver, topped up as the central's acknowledgements (written frames) release them.
  void notificationsChanged(bool enabled) override {
    if (!state_) return;
    state_->strand->async([self = shared_from_this(), enabled] {
      self->streaming_ = enabled;
      self->refill();
    });
  }
  void written(const Data& value) override {
    if (!state_) return;
    state_->driver->receive(value, linkNumber_);
    state_->strand->async([self = shared_from_this()] { self->refill(); });
  }
  void disconnected() override {
    if (!state_) return;
    state_->strand->sync([&] {
      if (state_->current.lock().get() == this) state_->current.reset();
      if (extended_) {
        state_->driver->linkLost();  // held for the next link
      } else {
        state_->driver->stop();
        state_->driver.reset();
      }
    });
  }

 private:
  std::shared_ptr<SlideWindowDriver> makeDriver(SimLink& owner) {
    std::weak_ptr<WindowState> weak = state_;
    auto driver = SlideWindowDriver::create(
        {kTcpSegmentSize, kTcpPollTimeout}, owner.clock(), state_->strand,
        {.write =
             [weak](const uint8_t* bytes, size_t length) {
               if (auto up = current(weak))
                 if (auto l = up->link_.lock()) l->notify(Data(bytes, length));
             },
         .deliverTCP = [weak](const Data& payload) { post(current(weak), payload, true); },
         .deliverUDP = [weak](const Data& payload) { post(current(weak), payload, false); },
         .session = nullptr});
    if (extended_) {
      // The device's end: it answers the central's offer, sized by the same link.
      driver->setExtended({.enabled = true, .role = WindowRole::Device, .link = factsOf(owner)});
    }
    return driver;
  }
  // What the window needs to know of a link: its value limit, interval, PHY, data length.
  static WindowLink factsOf(SimLink& owner) {
    const LinkParameters& air = owner.parameters();
    WindowLink facts;
    facts.valueLimit = owner.maxValueLength();
    facts.intervalMs = air.intervalMs;
    facts.phyMbps = air.phy == Phy::LE2M ? 2 : 1;
    facts.dataLength = air.dataLength;
    return facts;
  }
  // On the strand: the behaviour of the link that is up.
  static std::shared_ptr<SlidingWindow> current(const std::weak_ptr<WindowState>& weak) {
    auto state = weak.lock();
    return state ? state->current.lock() : nullptr;
  }
  // On the strand.
  void refill() {
    static constexpr uint64_t kSourceQueued = uint64_t{16} * 1024;
    auto& driver = state_->driver;
    if (echo_ || sink_ || !streaming_ || !driver) return;
    uint64_t& produced = state_->produced;
    while (driver->unacknowledged() < kSourceQueued &&
           (sourceBytes_ == 0 || produced < sourceBytes_)) {
      const uint64_t n =
          sourceBytes_ == 0 ? kSourceQueued : std::min(kSourceQueued, sourceBytes_ - produced);
      std::vector<uint8_t> pattern(n);
      for (uint64_t i = 0; i < n; ++i) pattern[i] = static_cast<uint8_t>((produced + i) % 251);
      if (auto link = link_.lock()) link->counters().payloadBytesSent.fetch_add(n);
      driver->sendTCP(pattern.data(), pattern.size());
      produced += n;
    }
  }
  static void post(const std::shared_ptr<SlidingWindow>& self, const Data& payload, bool tcp) {
    if (!self) return;
    self->state_->strand->async([self, payload, tcp] {
      auto link = self->link_.lock();
      if (tcp && link) link->counters().payloadBytesReceived.fetch_add(payload.length());
      auto& driver = self->state_->driver;
      if (!self->echo_ || !driver) return;
      if (!tcp) {
        driver->sendUDP(payload.bytes(), payload.length());
        return;
      }
      if (link) link->counters().payloadBytesSent.fetch_add(payload.length());
      driver->sendTCP(payload.bytes(), payload.length());
    });
  }

  const bool echo_;
  const bool sink_;      // neither echoes nor streams
  const bool extended_;  // answers an offer of the extended window, keeps its session
  const uint64_t sourceBytes_;
  const std::weak_ptr<SimLink> link_;
  const std::shared_ptr<DispatchQueue> deviceQueue_;
  std::shared_ptr<WindowState> state_;  // set by connected(), on the device queue
  uint64_t linkNumber_ = 0;             // the driver's number for this link
  bool streaming_ = false;              // strand only: notifications are on
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
