// SimRadio: the simulated air. It holds the simulated devices, the radio's power switch
// and the faults of the air, and makes the "sim" platform backend whose centrals see them.
//
// The process-wide radio (shared()) starts powered on with the default devices (see
// defaultDevices()); the "sim" backend of the platform registry uses it. Tests and tools
// may make radios of their own with create(), each with its own backend().
//
// A device is a configuration (SimDeviceConfig) plus, while a central is connected to
// it, one link. A device accepts one connection at a time and does not advertise while
// connected. Changing the devices or the faults affects new connections; removing a
// device or powering the radio off ends its links at once.
//
// Threads: every member may be called from any thread. Nothing here calls user code;
// the platform delegates of the centrals are called on their own queues.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/UUID.h"
#include "QueltLibrary/platform/Platform.h"
#include "QueltLibrary/sim/AirFaults.h"
#include "QueltLibrary/sim/LinkParameters.h"
#include "QueltLibrary/sim/SimDeviceConfig.h"

namespace qlt::sim {

// What a device has seen and sent, counted since it was added.
struct QLT_EXPORT SimDeviceStats {
  uint64_t connections = 0;        // links established
  uint64_t writesReceived = 0;     // writes that reached the device
  uint64_t bytesReceived = 0;      // bytes of those writes (NUS tx)
  uint64_t writesLost = 0;         // writes without response lost on the air
  uint64_t notificationsSent = 0;  // notifications put on the air
  uint64_t bytesNotified = 0;
  uint64_t notificationsLost = 0;         // of those, dropped above the link layer (a fault)
  uint64_t notificationsDropped = 0;      // refused: the device's notification buffers were full
  uint64_t segmentWritesLost = 0;         // of the writes lost, sliding-window segments
  uint64_t segmentNotificationsLost = 0;  // of the notifications lost, sliding-window segments
  uint64_t payloadBytesReceived = 0;      // sliding-window payload bytes delivered to the device
  uint64_t payloadBytesSent = 0;          // sliding-window payload bytes the device queued
  // Notifications an external device that outlives its links sent while none was up:
  // dropped, as a stack refuses to notify without a connection.
  uint64_t notificationsUnlinked = 0;
};

class QLT_EXPORT SimRadio : public std::enable_shared_from_this<SimRadio> {
 public:
  // The process-wide radio, made on first use with the default devices.
  static const std::shared_ptr<SimRadio>& shared();
  // A radio of its own: powered on, no faults, no devices (or the default ones). Its time
  // (advertising, connection delays, the air's delays and connection events, the devices'
  // windows) runs on `clock`, the monotonic clock when null: on a ManualClock, whatever
  // waits on this radio waits until the clock is advanced past it. (A device served by
  // another process, the `external` behaviour, keeps that process's own, real, time.)
  static std::shared_ptr<SimRadio> create(bool withDefaultDevices = false,
                                          std::shared_ptr<Clock> clock = nullptr);
  // "QLT-Echo" (sw-echo), "QLT-Chunk" (chunk-echo), "QLT-Sink" (sink), "QLT-Source"
  // (source) and "HR-Sensor" (heart-rate service, no UART service), fixed identifiers.
  static std::vector<SimDeviceConfig> defaultDevices();

  ~SimRadio();
  SimRadio(const SimRadio&) = delete;
  SimRadio& operator=(const SimRadio&) = delete;

  // The platform backend whose centrals live on this radio.
  std::shared_ptr<platform::Backend> backend();
  const std::shared_ptr<Clock>& clock() const;
  // Returns once every simulated device has handled what reached it so far: what its links
  // carried to it, and what came due on the radio's clock. What that makes a device send
  // is on its way (on the central's queue, or in the air) when this returns.
  void flushDevices();

  // Power. Switching off ends every link (didDisconnectPeripheral, with an error) and
  // every scan, then reports PoweredOff to each central; switching on reports PoweredOn.
  void setPowered(bool on);
  bool isPowered() const;

  // Devices. addDevice refuses (false, and a log line) an identifier already present, or
  // link parameters of its own that are out of range.
  bool addDevice(const SimDeviceConfig& device);
  bool removeDevice(const UUID& identifier);
  void removeAllDevices();
  std::vector<SimDeviceConfig> devices() const;
  std::optional<SimDeviceConfig> device(const UUID& identifier) const;
  SimDeviceStats stats(const UUID& identifier) const;
  // The device goes out of range: nothing gets through its current link any more. The
  // instant link is lost at once; a modelled one when its supervision timeout runs out.
  void dropLink(const UUID& identifier);

  // The faults of the air, for devices that have none of their own.
  void setFaults(const AirFaults& faults);
  AirFaults faults() const;

  // The link parameters of devices that have none of their own. Refuses (false, a log
  // line and, when `error` is given, the reason there) parameters out of range, leaving
  // the radio as it was. New links use them.
  bool setLink(const LinkParameters& link, std::string* error = nullptr);
  LinkParameters link() const;

  // Replaces the devices, the faults and the power state with those described in a JSON
  // file or text (format: docs/simulated-radio.md). On any error nothing is changed, the
  // reason is logged and, when `error` is given, stored there; false is returned.
  bool loadConfig(const std::string& path, std::string* error = nullptr);
  bool loadConfigString(const std::string& json, std::string* error = nullptr);

  struct Impl;  // private

 private:
  SimRadio();
  std::shared_ptr<Impl> impl_;
};

}  // namespace qlt::sim
