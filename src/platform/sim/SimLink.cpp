#include "SimLink.h"

#include <algorithm>

#include "DeviceBehaviour.h"
#include "QueltLibrary/Log.h"
#include "QueltLibrary/QLT_UUID.h"

namespace qlt::sim {

namespace {
constexpr uint64_t kStreamWrites = 1;
constexpr uint64_t kStreamNotifications = 2;

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
      counters_(device.counters),
      deviceQueue_(
          DispatchQueue::create("qlt.sim.device." + device.config.localName.value_or("unnamed"))),
      toDevice_(AirPipe::create(deviceQueue_)),
      toCentral_(AirPipe::create(std::move(centralQueue))),
      handlers_(std::move(handlers)),
      epoch_(std::chrono::steady_clock::now()),
      writes_(modelConfig(faults_.lostWritesWithoutResponse, faults_.connectionInterval,
                          faults_.writeRateLimit),
              SimRandom::seedFrom({faults_.seed, SimRandom::hashOf(config_.identifier),
                                   connectionIndex, kStreamWrites})),
      notifications_(
          modelConfig(faults_.lostNotifications, faults_.connectionInterval, std::nullopt),
          SimRandom::seedFrom({faults_.seed, SimRandom::hashOf(config_.identifier), connectionIndex,
                               kStreamNotifications})) {}

SimLink::~SimLink() {
  // Nothing else refers to the link now, so nothing runs on its device queue: a device
  // whose link ended without close() (its central went away) is told here.
  if (behaviour_) behaviour_->disconnected();
}

size_t SimLink::maxValueLength() const { return platform::attPayloadLength(config_.mtu); }

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
    deviceQueue_->asyncAfter(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                 std::chrono::duration<double>(seconds)),
                             [weak, seconds] {
                               if (auto link = weak.lock())
                                 link->lose(formatString("link lost after %f s", seconds));
                             });
  }
}

bool SimLink::close() {
  if (!up_.exchange(false, std::memory_order_acq_rel)) return false;
  radio_->release(config_.identifier, this);
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
  const double now =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - epoch_).count();
  const LinkFate fate = model.transmit(now, length);
  if (fate.lost()) return std::nullopt;
  return fate.at[0] - now;
}

void SimLink::dropBehind(const std::shared_ptr<AirPipe>& pipe) {
  auto self = shared_from_this();
  pipe->push(0, [self] {
    self->lose(
        formatString("link lost after %llu packets",
                     static_cast<unsigned long long>(self->faults_.dropAfterPackets.value_or(0))));
  });
}

void SimLink::writeWithoutResponse(const UUID& characteristic, const Data& value) {
  if (!isUp()) return;
  std::optional<double> delay;
  Count count = Count::Carry;
  {
    std::lock_guard lock(mutex_);
    count = countPacket();
    if (count == Count::Refuse) return;
    delay = fate(writes_, value.length());
  }
  if (!delay) {
    counters_->writesLost.fetch_add(1, std::memory_order_relaxed);
  } else {
    auto self = shared_from_this();
    toDevice_->push(*delay,
                    [self, characteristic, value] { self->deviceWritten(characteristic, value); });
  }
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
  toDevice_->push(faults_.connectionInterval,
                  [self, characteristic, value, answer = std::move(answer)] {
                    if (!self->isUp()) return;
                    self->deviceWritten(characteristic, value);
                    self->toCentral_->push(self->faults_.connectionInterval, answer);
                  });
  if (count == Count::CarryThenDrop) dropBehind(toDevice_);
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
  toDevice_->push(faults_.connectionInterval,
                  [self, characteristic, enabled, answer = std::move(answer)] {
                    if (!self->isUp()) return;
                    // The answer is on the air before anything the device sends because of it.
                    self->toCentral_->push(self->faults_.connectionInterval, answer);
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
  toDevice_->push(faults_.connectionInterval, [self, answer = std::move(answer)] {
    if (!self->isUp()) return;
    self->toCentral_->push(self->faults_.connectionInterval, answer);
  });
}

bool SimLink::notify(const Data& value) {
  if (!isUp() || !rxNotifying_.load(std::memory_order_acquire)) return false;
  std::optional<double> delay;
  Count count = Count::Carry;
  {
    std::lock_guard lock(mutex_);
    count = countPacket();
    if (count == Count::Refuse) return false;
    delay = fate(notifications_, value.length());
  }
  counters_->notificationsSent.fetch_add(1, std::memory_order_relaxed);
  counters_->bytesNotified.fetch_add(value.length(), std::memory_order_relaxed);
  if (!delay) {
    counters_->notificationsLost.fetch_add(1, std::memory_order_relaxed);
  } else if (handlers_.notified) {
    auto self = shared_from_this();
    const UUID rx = QLT_UUID::rxCharacteristicUUID();
    toCentral_->push(*delay, [self, rx, value] { self->handlers_.notified(self, rx, value); });
  }
  if (count == Count::CarryThenDrop) dropBehind(toCentral_);
  return true;
}

}  // namespace qlt::sim
