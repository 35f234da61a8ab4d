// SimLink: one connection between a central and a simulated device, from the moment the
// connection is made until it ends (requested, lost or powered off).
//
// A link carries packets in two directions, each an AirPipe: central → device onto the
// link's device queue ("qlt.sim.device.<name>", where the device's behaviour runs), and
// device → central onto the central's queue. Each direction keeps its order. The data
// packets (writes without response, notifications) go through one seeded LinkModel per
// direction, which decides their loss and their arrival time (connection interval,
// write-rate limit); GATT requests, their answers and writes with response are never lost
// and arrive one connection interval later, behind what was sent before them. Under a
// write-rate limit at most 32 data packets wait for air time; one more is dropped (counted
// as lost), as a stack's full buffer would. The link also drops itself after a number of
// packets or a time.
//
// A link is used once: after close() it carries nothing more, and the device's behaviour
// is told and released on the device queue.
//
// Threads: every member may be called from any thread. The central side's handlers run on
// the central's queue (notified) or on the thread that noticed the loss (lost).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "AirPipe.h"
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
  bool isUp() const { return up_.load(std::memory_order_acquire); }

  // The device learns of the connection; the drop timer starts.
  void start();
  // Ends the link; false when it had already ended. Frees the device for a new link.
  bool close();
  // Ends the link as a loss: close(), then the lost handler (once).
  void lose(const std::string& reason);

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
  // central has notifications on. Returns false when it could not be put on the air.
  bool notify(const Data& value);
  // The largest value one write or notification carries (ATT MTU - 3).
  size_t maxValueLength() const;
  DeviceCounters& counters() { return *counters_; }

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
  // Device-side handling, on the device queue.
  void deviceWritten(const UUID& characteristic, const Data& value);

  const std::shared_ptr<SimRadio::Impl> radio_;
  const SimDeviceConfig config_;
  const AirFaults faults_;
  const std::shared_ptr<DeviceCounters> counters_;
  const std::shared_ptr<DispatchQueue> deviceQueue_;
  const std::shared_ptr<AirPipe> toDevice_;
  const std::shared_ptr<AirPipe> toCentral_;
  const Handlers handlers_;

  std::atomic<bool> up_{true};
  std::atomic<bool> rxNotifying_{false};  // the device's view of the rx CCCD

  std::mutex mutex_;
  const std::chrono::steady_clock::time_point epoch_;  // the models' time 0
  LinkModel writes_;         // central → device data packets; guarded by mutex_
  LinkModel notifications_;  // device → central data packets; guarded by mutex_
  uint64_t packets_ = 0;     // guarded by mutex_

  // Device side, touched only on deviceQueue_.
  std::shared_ptr<DeviceBehaviour> behaviour_;
};

}  // namespace qlt::sim
