// SimCentral: a central on the simulated radio. It scans (each device advertises at its
// own interval while the scan runs), connects, and keeps one SimPeripheral per device it
// has seen or retrieved.
//
// The power state starts Unknown; the first centralManagerDidUpdateState, delivered
// shortly after creation, brings the radio's state, as a real stack does.
//
// Threads: every platform call may come from any thread. Every delegate call (this
// central's and its peripherals') runs on `queue`, serially, never with a lock held; the
// advertisement ticks run there too. The delegate is held weakly and skipped when gone.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/platform/Platform.h"
#include "SimRadioImpl.h"
#include "SimRandom.h"

namespace qlt::sim {

class SimPeripheral;

class SimCentral final : public platform::Central, public std::enable_shared_from_this<SimCentral> {
 public:
  static std::shared_ptr<SimCentral> create(
      std::shared_ptr<SimRadio::Impl> radio,
      const std::shared_ptr<platform::CentralDelegate>& delegate,
      std::shared_ptr<DispatchQueue> queue);

  platform::CentralState state() const override;
  void scanForPeripherals(const std::optional<std::vector<UUID>>& serviceUUIDs,
                          const platform::ScanOptions& options) override;
  void stopScan() override;
  bool isScanning() const override;
  void connect(const std::shared_ptr<platform::Peripheral>& peripheral) override;
  void cancelPeripheralConnection(const std::shared_ptr<platform::Peripheral>& peripheral) override;
  std::vector<std::shared_ptr<platform::Peripheral>> retrievePeripheralsWithAddresses(
      const std::vector<std::string>& addresses) override;
  std::vector<std::shared_ptr<platform::Peripheral>> retrievePeripheralsWithIdentifiers(
      const std::vector<UUID>& identifiers) override;

  const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }
  std::shared_ptr<platform::CentralDelegate> delegate() const { return delegate_.lock(); }

  // From the radio.
  void radioPowerChanged(bool on);
  void deviceAdded(const UUID& identifier);

 private:
  SimCentral(std::shared_ptr<SimRadio::Impl> radio,
             const std::shared_ptr<platform::CentralDelegate>& delegate,
             std::shared_ptr<DispatchQueue> queue);
  void deliverPowerState();
  // Starts the advertisement ticks of one device for the scan `scan`.
  void startAdvertising(const UUID& identifier, uint64_t scan);
  void advertise(const UUID& identifier, uint64_t scan);  // on queue_
  std::shared_ptr<SimPeripheral> peripheralFor(const UUID& identifier,
                                               const std::optional<std::string>& name);
  std::shared_ptr<SimPeripheral> own(const std::shared_ptr<platform::Peripheral>& peripheral,
                                     const char* operation) const;

  const std::shared_ptr<SimRadio::Impl> radio_;
  const std::weak_ptr<platform::CentralDelegate> delegate_;
  const std::shared_ptr<DispatchQueue> queue_;

  mutable std::mutex mutex_;
  platform::CentralState state_ = platform::CentralState::Unknown;  // guarded by mutex_
  bool scanning_ = false;                                           // guarded by mutex_
  uint64_t scan_ = 0;                            // the current scan's number; guarded by mutex_
  std::optional<std::vector<UUID>> scanFilter_;  // guarded by mutex_
  bool allowDuplicates_ = false;                 // guarded by mutex_
  std::set<UUID> reported_;                      // devices reported in this scan; guarded by mutex_
  std::map<UUID, std::shared_ptr<SimPeripheral>> peripherals_;  // guarded by mutex_
  SimRandom random_;  // RSSI variation and advertisement timing; guarded by mutex_
};

}  // namespace qlt::sim
