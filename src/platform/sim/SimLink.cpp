#include "SimLink.h"

#include <algorithm>

#include "DeviceBehaviour.h"
#include "QueltLibrary/Log.h"
#include "QueltLibrary/QLT_UUID.h"
#include "QueltLibrary/SlideWindowFrame.h"

namespace qlt::sim {

namespace {
constexpr uint64_t kStreamWrites = 1;
constexpr uint64_t kStreamNotifications = 2;
constexpr uint64_t kStreamAir = 3;

// Frames a rate-limited direction holds waiting for air time, like a stack's buffer: a
// burst of a few windows waits its turn, a frame beyond that is dropped, so a slow link
// is absorbed by the sliding window rather than by a queue that grows without bound.
constexpr size_t kWriteQueueLimit = 32;

LinkConfig modelConfig(double loss, double interval, std::optional<double> framesPerSecond) {
  LinkConfig config;
  config.lossProbability = loss;
  config.delaySeconds = interval;
  config.framesPerSecond = framesPerSecond.value_or(0.0);
  config.queueLimit = kWriteQueueLimit;
  return config;
}
}  // namespace

std::shared_ptr<SimLink> SimLink::create(std::shared_ptr<SimRadio::Impl> radio,
                                         const DeviceView& device, uint64_t connectionIndex,
                                         std::shared_ptr<DispatchQueue> centralQueue,
                                         Handlers handlers) {
  return std::shared_ptr<SimLink>(new SimLink(std::move(radio), device, connectionIndex,
                                              std::move(centralQueue), std::move(handlers)));
}

SimLink::SimLink(std::shared_ptr<SimRadio::Impl> radio, const DeviceView& device,
                 uint64_t connectionIndex, std::shared_ptr<DispatchQueue> centralQueue,
                 Handlers handlers)
    : radio_(std::move(radio)),
      config_(device.config),
      faults_(device.faults),
      parameters_(device.link),
      counters_(device.counters),
      deviceQueue_(
          DispatchQueue::create("qlt.sim.device." + device.config.localName.value_or("unnamed"))),
      toDevice_(AirPipe::create(deviceQueue_, radio_->clock)),
      toCentral_(AirPipe::create(std::move(centralQueue), radio_->clock)),
      handlers_(std::move(handlers)),
      epoch_(radio_->clock->now()),
      writes_(modelConfig(faults_.lostWritesWithoutResponse, faults_.connectionInterval,
                          faults_.writeRateLimit),
              SimRandom::seedFrom({faults_.seed, SimRandom::hashOf(config_.identifier),
                                   connectionIndex, kStreamWrites})),
      notifications_(
          modelConfig(faults_.lostNotifications, faults_.connectionInterval, std::nullopt),
          SimRandom::seedFrom({faults_.seed, SimRandom::hashOf(config_.identifier), connectionIndex,
                               kStreamNotifications})) {
  if (!parameters_.instant()) {
    air_.emplace(parameters_,
                 SimRandom::seedFrom({faults_.seed, SimRandom::hashOf(config_.identifier),
                                      connectionIndex, kStreamAir}));
  }
}

SimLink::~SimLink() {
  // Nothing else refers to the link now, so nothing runs on its device queue: a device
  // whose link ended without close() (its central went away) is told here.
  if (behaviour_) behaviour_->disconnected();
}

size_t SimLink::maxValueLength() const {
  return platform::attPayloadLength(static_cast<size_t>(parameters_.mtu));
}

double SimLink::now() const { return radio_->clock->now() - epoch_; }

void SimLink::goOutOfRange() {
  if (!air_) return lose("the device went out of range");
  {
    std::lock_guard lock(mutex_);
    const double at = now();
    air_->silence(at);
    scheduleWake(at);
  }
  QLTLog("Simulated radio: %s went out of range", config_.description());
}

void SimLink::carry(LinkLayer::Side from, size_t valueLength, double hostDelay,
                    std::function<void()> packet) {
  std::lock_guard lock(mutex_);
  carryLocked(from, valueLength, hostDelay, std::move(packet));
}

void SimLink::carryLocked(LinkLayer::Side from, size_t valueLength, double hostDelay,
                          std::function<void()> packet) {
  const auto& pipe = from == LinkLayer::Central ? toDevice_ : toCentral_;
  if (!air_) return pipe->push(hostDelay, std::move(packet));
  const double at = now();
  air_->send(from, valueLength, at);
  inFlight_[from].emplace_back(hostDelay, std::move(packet));
  settleLocked(at);
}

void SimLink::settleLocked(double at) {
  if (deliverLocked(at)) {
    // The supervision timeout ran out meanwhile: the link is lost outside this lock.
    deviceQueue_->async([weak = weak_from_this()] {
      if (auto link = weak.lock()) link->pump();
    });
  } else {
    scheduleWake(at);
  }
}

bool SimLink::deliverLocked(double at) {
  for (const auto& delivery : air_->advance(at)) {
    auto& queue = inFlight_[delivery.from];
    if (queue.empty()) continue;  // cannot happen: one entry per value sent
    auto [delay, packet] = std::move(queue.front());
    queue.pop_front();
    // Pushed under the lock, so that two threads cannot swap what the air kept in order.
    (delivery.from == LinkLayer::Central ? toDevice_ : toCentral_)->push(delay, std::move(packet));
  }
  return air_->lostAt().has_value();
}

void SimLink::scheduleWake(double at) {
  const auto next = air_->nextEvent();
  if (!next || (wakeAt_ && *wakeAt_ <= *next)) return;
  wakeAt_ = *next;
  std::weak_ptr<SimLink> weak = weak_from_this();
  radio_->after(*deviceQueue_, *next - at, [weak, wake = *next] {
    if (auto link = weak.lock()) link->pump(wake);
  });
}

void SimLink::pump(std::optional<double> wake) {
  if (!isUp() || !air_) return;
  bool lost = false;
  {
    std::lock_guard lock(mutex_);
    const double at = now();
    if (wake && wakeAt_ == wake) wakeAt_.reset();
    lost = deliverLocked(at);
    if (!lost) scheduleWake(at);
  }
  if (lost) {
    lose(formatString("supervision timeout: no packet got through for %s ms",
                      shortNumber(parameters_.supervisionTimeoutMs)));
  }
}

void SimLink::start() {
  auto self = shared_from_this();
  deviceQueue_->async([self] {
    if (!self->isUp()) return;
    self->behaviour_ = DeviceBehaviour::make(self->config_, self, self->deviceQueue_);
    self->behaviour_->connected();
  });
  if (faults_.dropAfterSeconds) {
    std::weak_ptr<SimLink> weak = self;
    const double seconds = *faults_.dropAfterSeconds;
    radio_->after(*deviceQueue_, seconds, [weak, seconds] {
      if (auto link = weak.lock()) link->lose(formatString("link lost after %f s", seconds));
    });
  }
}

bool SimLink::close() {
  if (!up_.exchange(false, std::memory_order_acq_rel)) return false;
  radio_->release(config_.identifier, this);
  // Values still on the air end with the link (pump() no longer runs); their tasks hold the
  // link, so they go now rather than keep it alive. Destroyed outside the lock.
  std::deque<std::pair<double, std::function<void()>>> gone[2];
  {
    std::lock_guard lock(mutex_);
    gone[0].swap(inFlight_[0]);
    gone[1].swap(inFlight_[1]);
  }
  auto self = shared_from_this();
  deviceQueue_->async([self] {
    if (auto behaviour = std::move(self->behaviour_)) behaviour->disconnected();
    self->rxNotifying_.store(false);
  });
  return true;
}

void SimLink::lose(const std::string& reason) {
  if (!close()) return;
  QLTLog("Simulated radio: %s: %s", config_.description(), reason);
  if (handlers_.lost) handlers_.lost(shared_from_this(), platform::Error{"sim", reason});
}

SimLink::Count SimLink::countPacket() {
  if (!faults_.dropAfterPackets) return Count::Carry;
  ++packets_;
  if (packets_ < *faults_.dropAfterPackets) return Count::Carry;
  return packets_ == *faults_.dropAfterPackets ? Count::CarryThenDrop : Count::Refuse;
}

std::optional<double> SimLink::fate(LinkModel& model, size_t length) {
  const double at = now();
  const LinkFate fate = model.transmit(at, length);
  if (fate.lost()) return std::nullopt;
  return fate.at[0] - at;
}

std::string SimLink::droppedAfterPackets() const {
  return formatString("link lost after %llu packets",
                      static_cast<unsigned long long>(faults_.dropAfterPackets.value_or(0)));
}

void SimLink::dropBehind(const std::shared_ptr<AirPipe>& pipe) {
  auto self = shared_from_this();
  pipe->push(0, [self] { self->lose(self->droppedAfterPackets()); });
}

void SimLink::writeWithoutResponse(const UUID& characteristic, const Data& value) {
  if (!isUp()) return;
  auto self = shared_from_this();
  Count count = Count::Carry;
  {
    std::lock_guard lock(mutex_);
    count = countPacket();
    if (count == Count::Refuse) return;
    if (const auto delay = fate(writes_, value.length())) {
      const bool drop = count == Count::CarryThenDrop;
      carryLocked(LinkLayer::Central, value.length(), *delay, [self, characteristic, value, drop] {
        self->deviceWritten(characteristic, value);
        if (drop) self->lose(self->droppedAfterPackets());
      });
      return;
    }
  }
  counters_->writesLost.fetch_add(1, std::memory_order_relaxed);
  if (isSegmentFrame(value.span())) counters_->segmentWritesLost.fetch_add(1);
  if (count == Count::CarryThenDrop) dropBehind(toDevice_);
}

void SimLink::writeWithResponse(const UUID& characteristic, const Data& value,
                                std::function<void()> answer) {
  if (!isUp()) return;
  Count count = Count::Carry;
  {
    std::lock_guard lock(mutex_);
    count = countPacket();
  }
  if (count == Count::Refuse) return;
  auto self = shared_from_this();
  const bool drop = count == Count::CarryThenDrop;
  carry(LinkLayer::Central, value.length(), faults_.connectionInterval,
        [self, characteristic, value, drop, answer = std::move(answer)] {
          if (!self->isUp()) return;
          self->deviceWritten(characteristic, value);
          self->carry(LinkLayer::Peripheral, 0, self->faults_.connectionInterval, answer);
          if (drop) self->lose(self->droppedAfterPackets());
        });
}

void SimLink::deviceWritten(const UUID& characteristic, const Data& value) {
  if (!isUp()) return;
  counters_->writesReceived.fetch_add(1, std::memory_order_relaxed);
  counters_->bytesReceived.fetch_add(value.length(), std::memory_order_relaxed);
  if (characteristic == QLT_UUID::txCharacteristicUUID() && behaviour_) behaviour_->written(value);
}

void SimLink::setNotify(const UUID& characteristic, bool enabled, std::function<void()> answer) {
  if (!isUp()) return;
  auto self = shared_from_this();
  constexpr size_t kCccdValueLength = 2;
  carry(LinkLayer::Central, kCccdValueLength, faults_.connectionInterval,
        [self, characteristic, enabled, answer = std::move(answer)] {
          if (!self->isUp()) return;
          // The answer is on the air before anything the device sends because of it.
          self->carry(LinkLayer::Peripheral, 0, self->faults_.connectionInterval, answer);
          if (characteristic == QLT_UUID::rxCharacteristicUUID() &&
              self->rxNotifying_.exchange(enabled) != enabled && self->behaviour_) {
            self->behaviour_->notificationsChanged(enabled);
          }
        });
}

void SimLink::read(const UUID& characteristic, std::function<void(const Data&)> answer) {
  if (!isUp()) return;
  Data value;
  for (const auto& service : config_.services) {
    for (const auto& c : service.characteristics) {
      if (c.uuid == characteristic && c.value) value = *c.value;
    }
  }
  request([answer = std::move(answer), value] { answer(value); });
}

void SimLink::request(std::function<void()> answer) {
  if (!isUp()) return;
  auto self = shared_from_this();
  carry(LinkLayer::Central, 0, faults_.connectionInterval, [self, answer = std::move(answer)] {
    if (!self->isUp()) return;
    self->carry(LinkLayer::Peripheral, 0, self->faults_.connectionInterval, answer);
  });
}

bool SimLink::notify(const Data& value) {
  if (!isUp() || !rxNotifying_.load(std::memory_order_acquire)) return false;
  auto self = shared_from_this();
  const UUID rx = QLT_UUID::rxCharacteristicUUID();
  Count count = Count::Carry;
  {
    std::lock_guard lock(mutex_);
    if (air_ && parameters_.notifyBuffers > 0 &&
        !air_->hasRoom(LinkLayer::Peripheral, parameters_.notifyBuffers, now())) {
      counters_->notificationsDropped.fetch_add(1, std::memory_order_relaxed);
      return false;
    }
    count = countPacket();
    if (count == Count::Refuse) return false;
    counters_->notificationsSent.fetch_add(1, std::memory_order_relaxed);
    counters_->bytesNotified.fetch_add(value.length(), std::memory_order_relaxed);
    if (const auto delay = fate(notifications_, value.length())) {
      const bool drop = count == Count::CarryThenDrop;
      carryLocked(LinkLayer::Peripheral, value.length(), *delay, [self, rx, value, drop] {
        if (self->handlers_.notified) self->handlers_.notified(self, rx, value);
        if (drop) self->lose(self->droppedAfterPackets());
      });
      return true;
    }
  }
  counters_->notificationsLost.fetch_add(1, std::memory_order_relaxed);
  if (isSegmentFrame(value.span())) counters_->segmentNotificationsLost.fetch_add(1);
  if (count == Count::CarryThenDrop) dropBehind(toCentral_);
  return true;
}

}  // namespace qlt::sim
