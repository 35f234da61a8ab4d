// SimPeripheral: the central's object for one simulated device, kept by its SimCentral for
// as long as the central lives, across any number of links.
//
// Connection state machine (state_, gen_ and link_ change together, under mutex_):
//   Disconnected --connect()--> Connecting --(connect delay)--> Connected (link_ set)
//                                          \--> Disconnected (didFailToConnect)
//   Connecting/Connected --cancel, link lost, power off--> Disconnected (didDisconnect)
// Every change bumps the generation gen_. Whatever was scheduled for an earlier
// generation or an earlier link (a connection outcome, a discovery answer, a
// notification) finds it changed when it runs and is dropped, so nothing of an old
// connection ever reaches the delegate as if it belonged to a new one.
//
// Threads: the platform calls may come from any thread; every delegate call is made on
// the central's queue, never with a lock held.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/platform/Platform.h"
#include "SimGatt.h"
#include "SimRadioImpl.h"

namespace qlt::sim {

class SimCentral;
class SimLink;

class SimPeripheral final : public platform::Peripheral,
                            public std::enable_shared_from_this<SimPeripheral> {
 public:
  static std::shared_ptr<SimPeripheral> create(const UUID& identifier,
                                               std::optional<std::string> name,
                                               std::weak_ptr<SimCentral> central,
                                               std::shared_ptr<SimRadio::Impl> radio,
                                               std::shared_ptr<DispatchQueue> queue);

  // A peripheral that goes away (with its central) ends its connection.
  ~SimPeripheral() override;

  UUID identifier() const override { return identifier_; }
  // The configured or derived address; nothing once the device is gone from the radio.
  std::optional<std::string> bluetoothAddress() const override;
  std::optional<std::string> name() const override;
  platform::PeripheralState state() const override;
  std::vector<std::shared_ptr<platform::Service>> services() const override;
  std::shared_ptr<platform::PeripheralDelegate> delegate() const override;
  void setDelegate(const std::shared_ptr<platform::PeripheralDelegate>& delegate) override;
  void discoverServices(const std::optional<std::vector<UUID>>& serviceUUIDs) override;
  void discoverCharacteristics(const std::optional<std::vector<UUID>>& uuids,
                               const std::shared_ptr<platform::Service>& service) override;
  void writeValue(const Data& data, const std::shared_ptr<platform::Characteristic>& characteristic,
                  platform::WriteType type) override;
  void readValue(const std::shared_ptr<platform::Characteristic>& characteristic) override;
  void setNotifyValue(bool enabled,
                      const std::shared_ptr<platform::Characteristic>& characteristic) override;
  size_t maximumWriteValueLength(platform::WriteType type) const override;
  // The current link's MTU and connection interval (its faults' one-way delay); PHY and
  // data length are not modelled. Nothing known while not connected.
  platform::LinkInfo linkInfo() const override;

  // For the central.
  const std::weak_ptr<SimCentral>& central() const { return central_; }
  void setName(const std::optional<std::string>& name);
  void connect();
  void cancelConnection();
  // The radio went off: a pending connection fails, a link is lost.
  void radioPoweredOff();

 private:
  SimPeripheral(const UUID& identifier, std::optional<std::string> name,
                std::weak_ptr<SimCentral> central, std::shared_ptr<SimRadio::Impl> radio,
                std::shared_ptr<DispatchQueue> queue)
      : identifier_(identifier),
        central_(std::move(central)),
        radio_(std::move(radio)),
        queue_(std::move(queue)),
        name_(std::move(name)) {}

  void completeConnect(uint64_t generation);
  // Fails the connection attempt of `generation` (if still current) with `reason`.
  void failConnect(uint64_t generation, const std::string& reason);
  void linkLost(const std::shared_ptr<SimLink>& link, const platform::Error& error);
  void notified(const std::shared_ptr<SimLink>& link, const UUID& characteristic,
                const Data& value);
  // The current link, or null (and a log line naming `operation`) when not connected.
  std::shared_ptr<SimLink> linkFor(const char* operation) const;
  bool isCurrent(const std::shared_ptr<SimLink>& link) const;
  // The characteristic as this peripheral's, on `link`; null (and a log line) otherwise.
  std::shared_ptr<SimCharacteristic> ownCharacteristic(
      const std::shared_ptr<platform::Characteristic>& characteristic,
      const std::shared_ptr<SimLink>& link, const char* operation) const;
  // Calls `f(delegate)` on the central's queue if `link` is still current then.
  template <class F>
  void answer(const std::shared_ptr<SimLink>& link, F f);
  void sendDisconnected(const std::optional<platform::Error>& error);

  const UUID identifier_;
  const std::weak_ptr<SimCentral> central_;
  const std::shared_ptr<SimRadio::Impl> radio_;
  const std::shared_ptr<DispatchQueue> queue_;

  mutable std::mutex mutex_;
  std::optional<std::string> name_;                                            // guarded by mutex_
  std::weak_ptr<platform::PeripheralDelegate> delegate_;                       // guarded by mutex_
  platform::PeripheralState state_ = platform::PeripheralState::Disconnected;  // guarded
  uint64_t gen_ = 0;                                                           // guarded by mutex_
  uint64_t attempts_ = 0;          // connection attempts, seeds their failures; guarded by mutex_
  std::shared_ptr<SimLink> link_;  // guarded by mutex_
  std::vector<std::shared_ptr<SimService>> table_;     // the link's GATT table; guarded
  std::vector<std::shared_ptr<SimService>> services_;  // discovered; guarded by mutex_
};

}  // namespace qlt::sim
