// BluezCentral: the platform central over BlueZ, assembled from the backend's layers.
//
// Layers, from the bus up (each its own class, on the bus thread):
//   - BusLoop: the backend's thread, the bus connection, timers, asynchronous calls; the
//     layers reach it through the BusPort (LoopPort) only.
//   - ObjectMirror: bluetoothd's object tree, kept from the bus.
//   - Discovery: scanning and advertisement reports.
//   - Link: the state machine of one device's connection, one per device.
//   - GattClient: the GATT side of every link, over the GattQueue (WriteValue) and the
//     SocketPath (acquired sockets).
//   - Here: the platform operations, the devices bluetoothd lists and their links, the
//     adapter and its power, and the central's own delegate calls.
//
// Threads: the public operations may be called from any thread; they post their work to
// the bus thread and never wait for it. Everything in the "bus thread" section below is
// touched only there. Delegate calls go to the queue given at creation, in event order.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/platform/Platform.h"
#include "platform/bluez/BluezBackend.h"
#include "platform/bluez/BluezDiscovery.h"
#include "platform/bluez/BluezGattClient.h"
#include "platform/bluez/BluezIdentifiers.h"
#include "platform/bluez/BluezLink.h"
#include "platform/bluez/BluezMirror.h"
#include "platform/bluez/BluezPeripheral.h"
#include "platform/bluez/BusLoop.h"
#include "platform/bluez/LoopPort.h"

namespace qlt::bluez {

class BluezCentral final : public platform::Central,
                           public std::enable_shared_from_this<BluezCentral>,
                           private MirrorListener,
                           private LinkListener {
 public:
  static std::shared_ptr<BluezCentral> create(
      const std::shared_ptr<platform::CentralDelegate>& delegate,
      const std::shared_ptr<DispatchQueue>& queue, const BluezOptions& options);
  ~BluezCentral() override;

  platform::CentralState state() const override { return state_.load(); }
  void scanForPeripherals(const std::optional<std::vector<UUID>>& serviceUUIDs,
                          const platform::ScanOptions& options) override;
  void stopScan() override;
  bool isScanning() const override { return scanning_.load(); }
  void connect(const std::shared_ptr<platform::Peripheral>& peripheral) override;
  void cancelPeripheralConnection(const std::shared_ptr<platform::Peripheral>& peripheral) override;
  std::vector<std::shared_ptr<platform::Peripheral>> retrievePeripheralsWithIdentifiers(
      const std::vector<UUID>& identifiers) override;
  // The identifiers stand for the addresses (identifierForAddress).
  std::vector<std::shared_ptr<platform::Peripheral>> retrievePeripheralsWithAddresses(
      const std::vector<std::string>& addresses) override;
  // bluetoothd's adapters as last seen (empty until its tree has been read).
  std::vector<platform::AdapterInfo> adapters() const override;
  // The adapter by name or address; "" (and, at creation, QLT_ADAPTER unset): the first
  // powered one, kept while it stays powered. An adapter bluetoothd does not list is an
  // error once its tree has been read; the choice stands, and the central stays without an
  // adapter (unsupported) until one by that name appears.
  std::optional<platform::Error> useAdapter(const std::string& nameOrAddress) override;

  // Calls `then` on the central's queue after `rounds` round trips to bluetoothd, one after
  // the other (D-Bus Peer.Ping), started on the bus thread now: by then the bus thread has
  // handled every signal bluetoothd sent before it answered the last one, and whatever its
  // acquired sockets held by the round before, and the central's queue has run what that
  // handed to it. With no answer (bluetoothd gone) `then` runs all the same.
  void afterRoundTrips(int rounds, std::function<void()> then);

  // ---- from BluezPeripheral (any thread)
  void discoverServices(std::shared_ptr<BluezPeripheral> peripheral,
                        std::optional<std::vector<UUID>> uuids);
  void discoverCharacteristics(std::shared_ptr<BluezPeripheral> peripheral,
                               std::shared_ptr<BluezService> service,
                               std::optional<std::vector<UUID>> uuids);
  void writeValue(std::shared_ptr<BluezPeripheral> peripheral,
                  std::shared_ptr<BluezCharacteristic> characteristic, Data data,
                  platform::WriteType type);
  void readValue(std::shared_ptr<BluezPeripheral> peripheral,
                 std::shared_ptr<BluezCharacteristic> characteristic);
  void setNotifyValue(std::shared_ptr<BluezPeripheral> peripheral,
                      std::shared_ptr<BluezCharacteristic> characteristic, bool enabled);

 private:
  BluezCentral(const std::shared_ptr<platform::CentralDelegate>& delegate,
               const std::shared_ptr<DispatchQueue>& queue, const BluezOptions& options);
  void start();

  // ---- bus thread: what the layers report
  void treeReplaced() override;
  void interfacesAdded(const std::string& path, const std::set<std::string>& names) override;
  void interfacesRemoved(const std::string& path, const std::set<std::string>& names) override;
  void propertiesChanged(const std::string& path, const std::string& interface,
                         const std::set<std::string>& names) override;
  void bluezVanished(const std::string& why, platform::CentralState reportAs) override;
  void bluezAbsent() override;
  bool servicesResolved(const Address& address) override;
  void linkUp(const Address& address) override;
  void linkEnded(const Address& address, LinkPhase was,
                 const std::optional<platform::Error>& error) override;

  // ---- bus thread
  Link& link(const Address& address);
  void deviceChanged(const std::string& path, const std::set<std::string>& changed);
  void characteristicChanged(const std::string& path, const std::set<std::string>& changed);
  void reconcileAdapter();
  // The adapter object to use among `adapters` (paths, with what they are), or "".
  std::string chooseAdapter(const std::vector<std::string>& paths,
                            const std::vector<platform::AdapterInfo>& adapters,
                            const std::string& wanted);
  // Ends every link (with `reason` and `why`) and forgets every device object: the adapter
  // or bluetoothd is gone.
  void dropAllDevices(platform::ErrorReason reason, const std::string& why);
  void bindDevice(const std::string& path);
  void unbindDevice(const std::string& path);
  std::optional<Address> addressOf(const std::string& devicePath);
  std::shared_ptr<BluezPeripheral> peripheralFor(const Address& address);

  // ---- delivery on the central's queue
  void deliver(std::function<void(BluezCentral& self, platform::CentralDelegate* delegate)> task);
  void reportState(platform::CentralState state);

  const std::weak_ptr<platform::CentralDelegate> delegate_;
  const std::shared_ptr<DispatchQueue> queue_;
  const BluezOptions options_;
  std::weak_ptr<BluezCentral> weakSelf_;
  std::atomic<platform::CentralState> state_{platform::CentralState::Unknown};
  std::atomic<bool> scanning_{false};

  // Peripherals by address; read by retrievePeripheralsWithIdentifiers on any thread.
  mutable std::mutex registryMutex_;
  std::map<Address, std::weak_ptr<BluezPeripheral>> registry_;  // guarded
  std::map<Address, std::shared_ptr<BluezPeripheral>> listed_;  // guarded: in the tree

  // The adapters as the bus thread last saw them, and the one asked for (any thread).
  mutable std::mutex adaptersMutex_;
  std::vector<platform::AdapterInfo> adapters_;  // guarded by adaptersMutex_
  bool adaptersKnown_ = false;                   // guarded: bluetoothd's tree has been read
  std::string wantedAdapter_;                    // guarded: name or address; "" the default

  // First, so that it is destroyed last: the layers below hand their handles back to it.
  // The destructor stops it (joining its thread) before anything is destroyed.
  BusLoop loop_;
  LoopPort port_;

  // ---- bus thread only
  ObjectMirror mirror_;
  GattClient gattClient_;
  Discovery discovery_;
  std::map<Address, Link> links_;
  std::map<std::string, Address> deviceByPath_;
  std::string adapterPath_;
  uint64_t nextLinkGeneration_ = 1;
  std::optional<platform::CentralState> reportedState_;
};

}  // namespace qlt::bluez
