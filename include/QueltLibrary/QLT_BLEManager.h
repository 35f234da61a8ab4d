// QLT_BLEManager: the process-wide entry point to the Bluetooth LE central role.
//
// It owns the platform central (from the backend chosen in qlt::platform), follows its
// power state as a four-value manager state, scans with an optional application filter,
// wraps every discovered or retrieved platform peripheral in a QLT_Peripheral, and
// connects and disconnects those wrappers.
//
// Manager states (the integers are part of the interface):
//   0 ready (transient: powered on, followed at once by idle), 1 idle (powered on, not
//   scanning; the only state from which discovery starts), 2 scanning, 3 unavailable
//   (not powered on; the initial state). Every power-on reaches the delegates as two
//   manager_didChangedState calls, 0 then 1.
//
// Ownership: sharedInstance() is made on first use and lives for the rest of the process.
// The manager keeps no list of peripherals: the platform peripheral's delegate slot leads
// back to its QLT_Peripheral, which lives as long as the application holds it; once it is
// gone, the next event for that device makes a fresh one.
//
// Threads and queues: every platform callback arrives on the serial queue labelled
// "QLT_BLEManager" (the central queue), and so do the discovery filter and all of
// discovery. The public operations may be called from any thread: the ones that change
// the manager's or a peripheral's state run their work on the central queue (waiting for
// it, or inline when already there), so platform events and application requests are
// applied in one order. Application callbacks leave through the multicast delegate and
// run on the queue each delegate registered with; the manager never waits for them. The
// filter is application code called on the central queue; it must not block on it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "QueltLibrary/Export.h"
#include "QueltLibrary/QLT_Object.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "QueltLibrary/platform/Platform.h"

namespace qlt {

class QLT_BLEManager;

enum QLT_BLEManagerState : int32_t {
  QLT_BLEManagerStateReady = 0,
  QLT_BLEManagerStateIdle = 1,
  QLT_BLEManagerStateScanning = 2,
  QLT_BLEManagerStateUnavailable = 3,
};

// Application callbacks of the manager; a delegate inherits those it wants.
class QLT_EXPORT QLT_BLEManagerDidChangedState : public virtual Delegate {
 public:
  virtual void manager_didChangedState(const std::shared_ptr<QLT_BLEManager>& manager,
                                       int32_t state) = 0;
};
class QLT_EXPORT QLT_BLEManagerDidDiscoveredPeripheral : public virtual Delegate {
 public:
  // Sent for every accepted advertisement, repeatedly for the same peripheral (the same
  // wrapper while the application holds it), with its name, RSSI and advertisement
  // data refreshed.
  virtual void manager_didDiscoveredPeripheral(
      const std::shared_ptr<QLT_BLEManager>& manager,
      const std::shared_ptr<QLT_Peripheral>& peripheral) = 0;
};

class QLT_EXPORT QLT_BLEManager : public QLT_Object, public platform::CentralDelegate {
 public:
  // Keeps (true) or drops (false) one advertisement; called on the central queue. The
  // advertisement data carries what the platform reports: name, manufacturer data by
  // company id, service UUIDs, service data, TX power, connectable; the peripheral's
  // bluetoothAddress() where the platform knows it. A kept one is also the wrapper's
  // advertisementData().
  using DiscoveryFilter =
      std::function<bool(const std::shared_ptr<platform::Peripheral>& peripheral,
                         const std::optional<std::string>& localName,
                         const platform::AdvertisementData& advertisementData, int rssi)>;

  // The process-wide manager, made on the first call (once, also under concurrent calls).
  static std::shared_ptr<QLT_BLEManager> sharedInstance();
  // A manager of its own over `backend` (the current backend when null). Applications use
  // sharedInstance(); this exists for tests and tools that need an isolated central.
  static std::shared_ptr<QLT_BLEManager> create(
      std::shared_ptr<platform::Backend> backend = nullptr);

  // A fresh QLT_Peripheral for a peripheral the system knows by this identifier (UUID
  // text), without scanning; null when it knows none. Malformed text is logged and gives
  // null. Uses the shared manager.
  static std::shared_ptr<QLT_Peripheral> retrievePeripheralWithUUID(const std::string& uuidText);
  // The same by Bluetooth address ("C0:FF:EE:00:00:01", any case): null when the system
  // knows no device there or does not know addresses; malformed text is logged.
  static std::shared_ptr<QLT_Peripheral> retrievePeripheralWithAddress(
      const std::string& addressText);
  // The display string of a manager state. A value outside 0..3 is a programming error:
  // it is reported on standard error and the process aborts.
  static std::string convertStateToNSString(int32_t state);

  ~QLT_BLEManager() override;

  std::shared_ptr<platform::Central> centralManager() const;
  void setCentralManager(std::shared_ptr<platform::Central> central);
  int32_t state() const { return state_.load(std::memory_order_acquire); }
  // True whenever the state is not unavailable (3).
  bool powerState() const { return state() != QLT_BLEManagerStateUnavailable; }
  // The serial queue on which platform callbacks arrive ("QLT_BLEManager").
  const std::shared_ptr<DispatchQueue>& centralQueue() const { return centralQueue_; }

  // Only from idle: stores the filter (empty accepts everything), moves to scanning and
  // scans for every advertisement, duplicates included. Otherwise does nothing.
  void startDiscover(DiscoveryFilter filter = nullptr);
  // Only from scanning: stops the scan and moves to idle.
  void stopDiscover();
  // Connecting (1) and a connection request; a connected peripheral is re-announced as
  // ready (8, when its platform peripheral lists services) or connected (2) instead.
  void connect(const std::shared_ptr<QLT_Peripheral>& peripheral);
  // Disconnecting (3) and a cancel request; disconnected stays (and is re-announced)
  // disconnected; disconnecting does nothing; null does nothing. Ends the sliding window's
  // session held across links (QLT_Peripheral::endSession) in every case.
  void disconnect(const std::shared_ptr<QLT_Peripheral>& peripheral);

  // Stores, logs and announces a state (repeats included); ready continues to idle.
  void updateState(int32_t state);
  // The QLT_Peripheral that is the platform peripheral's delegate (exactly that class),
  // or a new one.
  std::shared_ptr<QLT_Peripheral> findPeripheralObject(
      const std::shared_ptr<platform::Peripheral>& peripheral);

  std::string description() const { return "<QLT_BLEManager>"; }

  // platform::CentralDelegate (on the central queue)
  void centralManagerDidUpdateState(platform::Central& central) override;
  void centralManager_didDiscoverPeripheral_advertisementData_RSSI(
      platform::Central& central, const std::shared_ptr<platform::Peripheral>& peripheral,
      const platform::AdvertisementData& advertisementData, int rssi) override;
  void centralManager_didConnectPeripheral(
      platform::Central& central, const std::shared_ptr<platform::Peripheral>& peripheral) override;
  void centralManager_didFailToConnectPeripheral_error(
      platform::Central& central, const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::optional<platform::Error>& error) override;
  void centralManager_didDisconnectPeripheral_error(
      platform::Central& central, const std::shared_ptr<platform::Peripheral>& peripheral,
      const std::optional<platform::Error>& error) override;

 private:
  QLT_BLEManager();
  void setUp(const std::shared_ptr<platform::Backend>& backend);
  std::shared_ptr<QLT_BLEManager> self() {
    return std::static_pointer_cast<QLT_BLEManager>(shared_from_this());
  }
  // Runs `work` on the central queue and waits for it (inline when already there).
  void onCentralQueue(const std::function<void()>& work);

  const std::shared_ptr<DispatchQueue> centralQueue_;
  std::atomic<int32_t> state_{QLT_BLEManagerStateUnavailable};
  mutable std::mutex mutex_;
  DiscoveryFilter scanFilter_;                         // guarded by mutex_
  std::shared_ptr<platform::Central> centralManager_;  // guarded by mutex_
};

}  // namespace qlt
