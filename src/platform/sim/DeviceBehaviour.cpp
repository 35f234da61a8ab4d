#include "DeviceBehaviour.h"

#include <vector>

#include "QueltLibrary/SWTransport.h"
#include "SimLink.h"

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
// the central go to its receive(); the frames it writes go out as notifications.
// Echoes every payload back (sw-echo), or sends a pattern once notifications are on
// (source). The engine's payload callbacks arrive on the device queue.
class SlidingWindow final : public DeviceBehaviour,
                            public TransportSenderDelegate,
                            public TransportDelegate,
                            public std::enable_shared_from_this<SlidingWindow> {
 public:
  SlidingWindow(bool echo, uint64_t sourceBytes, std::weak_ptr<SimLink> link,
                std::shared_ptr<DispatchQueue> deviceQueue)
      : echo_(echo),
        sourceBytes_(sourceBytes),
        link_(std::move(link)),
        deviceQueue_(std::move(deviceQueue)) {}

  void connected() override {
    transport_ = SWTransport::create();
    transport_->setSenderDelegate(shared_from_this());
    transport_->addDelegate(shared_from_this(), deviceQueue_);
    transport_->start();
  }
  void notificationsChanged(bool enabled) override {
    if (echo_ || !enabled || sent_ || !transport_) return;
    sent_ = true;
    std::vector<uint8_t> pattern(sourceBytes_);
    for (uint64_t i = 0; i < sourceBytes_; ++i) pattern[i] = static_cast<uint8_t>(i % 251);
    if (auto link = link_.lock()) link->counters().payloadBytesSent.fetch_add(sourceBytes_);
    transport_->sendTCP(pattern.data(), pattern.size());
  }
  void written(const Data& value) override {
    if (transport_) transport_->receive(value);
  }
  void disconnected() override {
    if (auto transport = std::move(transport_)) transport->stop();
  }

  // TransportSenderDelegate: from the engine's worker thread or the device queue.
  void transport_requestWriteData(const std::shared_ptr<BaseTransport>&,
                                  const Data& data) override {
    if (auto link = link_.lock()) link->notify(data);
  }
  // TransportDelegate: on the device queue.
  void transport_tcpDataReceived(const std::shared_ptr<BaseTransport>&, const Data& data) override {
    auto link = link_.lock();
    if (link) link->counters().payloadBytesReceived.fetch_add(data.length());
    if (!echo_ || !transport_) return;
    if (link) link->counters().payloadBytesSent.fetch_add(data.length());
    transport_->sendTCP(data.bytes(), data.length());
  }
  void transport_udpDataReceived(const std::shared_ptr<BaseTransport>&, const Data& data) override {
    if (echo_ && transport_) transport_->sendUDP(data.bytes(), data.length());
  }

 private:
  const bool echo_;
  const uint64_t sourceBytes_;
  const std::weak_ptr<SimLink> link_;
  const std::shared_ptr<DispatchQueue> deviceQueue_;
  std::shared_ptr<SWTransport> transport_;  // device queue only
  bool sent_ = false;                       // device queue only
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
    case SimBehaviour::Sink:
    case SimBehaviour::None:
      break;
  }
  return std::make_shared<Idle>();
}

}  // namespace qlt::sim
