// SimLink: one connection between a central and a simulated device, from the moment the
// connection is made until it ends (requested, lost or powered off).
//
// A link carries packets in two directions, each an AirPipe: central → device onto the
// link's device queue ("qlt.sim.device.<name>", where the device's behaviour runs), and
// device → central onto the central's queue. Each direction keeps its order.
//
// Two layers decide what becomes of a packet. Above the link layer, the host-level faults
// (AirFaults): the data packets (writes without response, notifications) go through one
// seeded LinkModel per direction, which drops some (lostWritesWithoutResponse,
// lostNotifications) and delays them (the faults' connectionInterval, write-rate limit;
// under a write-rate limit at most 32 wait, one more is dropped); GATT requests, their
// answers and writes with response are never dropped and are delayed alike. The link also
// drops itself after a number of packets or a time. Below, the link layer: on the instant
// link (parameters().intervalMs == 0) a packet is handed over at once; otherwise every
// packet (data, requests and answers) travels as one L2CAP SDU through the connection's
// LinkLayer, which decides when it arrives, and the device's notification buffers
// (notifyBuffers) refuse a notification while that many are still on their way.
//
// A link is used once: after close() it carries nothing more, and the device's behaviour
// is told and released on the device queue.
//
// Threads: every member may be called from any thread. The central side's handlers run on
// the central's queue (notified) or on the thread that noticed the loss (lost).
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "AirPipe.h"
#include "LinkLayer.h"
#include "LinkModel.h"
#include "QueltLibrary/Data.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/platform/Platform.h"
#include "SimRadioImpl.h"
#include "SimRandom.h"

namespace qlt::sim {

class DeviceBehaviour;

class SimLink : public std::enable_shared_from_this<SimLink> {
 public:
  struct Handlers {
    // A notification reached the central (on the central's queue).
    std::function<void(const std::shared_ptr<SimLink>& link, const UUID& characteristic,
                       const Data& value)>
        notified;
    // The link was lost (not closed on request); called once, on any thread.
    std::function<void(const std::shared_ptr<SimLink>& link, const platform::Error& error)> lost;
  };

  static std::shared_ptr<SimLink> create(std::shared_ptr<SimRadio::Impl> radio,
                                         const DeviceView& device, uint64_t connectionIndex,
                                         std::shared_ptr<DispatchQueue> centralQueue,
                                         Handlers handlers);
  ~SimLink();

  const SimDeviceConfig& config() const { return config_; }
  const AirFaults& faults() const { return faults_; }
  // What this link is made of: the device's or the radio's parameters, with the ATT MTU
  // both sides agreed on (the smaller of the two).
  const LinkParameters& parameters() const { return parameters_; }
  bool isUp() const { return up_.load(std::memory_order_acquire); }
  // The radio's clock, on which everything of this link happens.
  const std::shared_ptr<Clock>& clock() const { return radio_->clock; }
  // Returns once the device queue has run every task submitted to it so far.
  void flushDevice() const {
    deviceQueue_->sync([] {});
  }

  // The device learns of the connection; the drop timer starts.
  void start();
  // Ends the link; false when it had already ended. Frees the device for a new link.
  bool close();
  // Ends the link as a loss: close(), then the lost handler (once).
  void lose(const std::string& reason);
  // Nothing gets through any more: the instant link is lost at once, a modelled one when
  // its supervision timeout runs out.
  void goOutOfRange();

  // Central → device. Answers run on the central's queue, after the device has seen the
  // request; nothing is answered once the link has ended.
  void writeWithoutResponse(const UUID& characteristic, const Data& value);
  void writeWithResponse(const UUID& characteristic, const Data& value,
                         std::function<void()> answer);
  void setNotify(const UUID& characteristic, bool enabled, std::function<void()> answer);
  void read(const UUID& characteristic, std::function<void(const Data&)> answer);
  // A request the device answers without looking at it (service and characteristic
  // discovery): one round trip.
  void request(std::function<void()> answer);

  // Device → central: a notification on the UART rx characteristic, sent only while the
  // central has notifications on. Returns false when it could not be put on the air (no
  // subscription, the link is down, or the device's notification buffers are full: the
  // value is then dropped and counted).
  bool notify(const Data& value);
  // The largest value one write or notification carries (ATT MTU - 3).
  size_t maxValueLength() const;
  DeviceCounters& counters() { return *counters_; }
  // The device's counters, which outlive the link.
  const std::shared_ptr<DeviceCounters>& deviceCounters() const { return counters_; }
  // What the device's behaviour keeps across its links (SimRadio::Impl::deviceState).
  std::shared_ptr<void> deviceState(const std::function<std::shared_ptr<void>()>& make) const {
    return radio_->deviceState(config_.identifier, make);
  }

 private:
  SimLink(std::shared_ptr<SimRadio::Impl> radio, const DeviceView& device, uint64_t connectionIndex,
          std::shared_ptr<DispatchQueue> centralQueue, Handlers handlers);
  // What becomes of a data packet under the drop-after-packets fault.
  enum class Count { Carry, CarryThenDrop, Refuse };
  Count countPacket();  // with mutex_ held
  // The delay after which a data packet of `length` bytes arrives, or empty when it is
  // lost; with mutex_ held.
  std::optional<double> fate(LinkModel& model, size_t length);
  // Ends the link once everything before it in `pipe` has been carried.
  void dropBehind(const std::shared_ptr<AirPipe>& pipe);
  // A packet of `valueLength` bytes from `from`: through the link layer (or at once), then
  // `hostDelay` seconds later run on the other side's queue.
  void carry(LinkLayer::Side from, size_t valueLength, double hostDelay,
             std::function<void()> packet);
  void carryLocked(LinkLayer::Side from, size_t valueLength, double hostDelay,
                   std::function<void()> packet);  // with mutex_ held
  // With mutex_ held: hands what the link layer delivered by `at` to the pipes; true when
  // the supervision timeout has ended the link.
  bool deliverLocked(double at);
  // With mutex_ held: deliverLocked, then a wake-up for what comes next (or, when the link
  // is lost, a pump that reports it).
  void settleLocked(double at);
  double now() const;  // seconds since epoch_, on the radio's clock
  // What the link layer delivered by now: hands it to the pipes; loses the link when the
  // supervision timeout ran out. Takes mutex_. `wake` is the time of the wake-up that runs
  // it, if one does.
  void pump(std::optional<double> wake = std::nullopt);
  // With mutex_ held: makes sure a wake-up is scheduled for the link layer's next event.
  void scheduleWake(double at);
  // "link lost after N packets" (the dropAfterPackets fault).
  std::string droppedAfterPackets() const;
  // Device-side handling, on the device queue.
  void deviceWritten(const UUID& characteristic, const Data& value);

  const std::shared_ptr<SimRadio::Impl> radio_;
  const SimDeviceConfig config_;
  const AirFaults faults_;
  const LinkParameters parameters_;
  const std::shared_ptr<DeviceCounters> counters_;
  const std::shared_ptr<DispatchQueue> deviceQueue_;
  const std::shared_ptr<AirPipe> toDevice_;
  const std::shared_ptr<AirPipe> toCentral_;
  const Handlers handlers_;

  std::atomic<bool> up_{true};
  std::atomic<bool> rxNotifying_{false};  // the device's view of the rx CCCD

  std::mutex mutex_;
  const double epoch_;       // the models' time 0, on the radio's clock
  LinkModel writes_;         // central → device data packets; guarded by mutex_
  LinkModel notifications_;  // device → central data packets; guarded by mutex_
  uint64_t packets_ = 0;     // guarded by mutex_
  // The link layer, unless the link is instant; guarded by mutex_.
  std::optional<LinkLayer> air_;
  // What each side's packets do on arrival, in the order sent; guarded by mutex_.
  std::deque<std::pair<double, std::function<void()>>> inFlight_[2];
  std::optional<double> wakeAt_;  // when the scheduled wake-up runs; guarded by mutex_

  // Device side, touched only on deviceQueue_.
  std::shared_ptr<DeviceBehaviour> behaviour_;
};

}  // namespace qlt::sim
