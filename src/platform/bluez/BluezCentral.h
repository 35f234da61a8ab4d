// BluezCentral: the platform central over BlueZ.
//
// Layers, from the bus up:
//   - BusLoop: the backend's thread, the bus connection, timers, asynchronous calls.
//   - The mirror of bluetoothd's object tree (objects_), kept from GetManagedObjects,
//     InterfacesAdded/Removed and PropertiesChanged; read through PropertyReader, so a
//     missing property or one of an unexpected type is logged and treated as absent.
//   - Per device (devices_): the link state machine and the GATT bookkeeping of the
//     current connection. Every connection attempt gets a new generation number; replies,
//     timers and objects of an older generation are recognised and ignored, so the tail
//     of one connection never tears down the next.
//   - The socket data path (BluezSockets.cpp): writes without response and notifications
//     over the sockets of AcquireWrite/AcquireNotify when bluetoothd offers them, owned per
//     link and closed when it ends; the method calls otherwise.
//   - The library-side objects (BluezPeripheral & co.), updated and announced on the
//     central's queue.
//
// State machine of a link (bus thread):
//   Idle --connect--> Connecting --Connect ok + ServicesResolved--> Connected
//   Connecting --Connect error / time-out / link lost / cancel--> Idle (didFail, or
//     didDisconnect for a cancel)
//   Connected --cancel--> Disconnecting --Connected false / Disconnect reply--> Idle
//   Connected --Connected false / device removed / power off / bluetoothd gone--> Idle
//     (didDisconnect with an error)
//
// Threads: the public operations may be called from any thread; they post their work to
// the bus thread and never wait for it. Everything in the "bus thread" section below is
// touched only there. Delegate calls go to the queue given at creation, in event order.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
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
#include "platform/bluez/BluezIdentifiers.h"
#include "platform/bluez/BluezPeripheral.h"
#include "platform/bluez/BluezProperties.h"
#include "platform/bluez/BusLoop.h"

namespace qlt::bluez {

class BluezCentral final : public platform::Central,
                           public std::enable_shared_from_this<BluezCentral> {
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

  enum class Phase { Idle, Connecting, Connected, Disconnecting };

  struct PendingRequest {
    std::shared_ptr<BluezCharacteristic> characteristic;
    Data data;
  };

  // A socket handed out by AcquireWrite or AcquireNotify, watched on the bus thread.
  struct AcquiredSocket {
    OwnedFd fd;
    uint16_t mtu = 0;  // the ATT MTU bluetoothd returned with it
    BusLoop::WatchId watch = 0;
  };

  // How writes without response reach one characteristic: on an acquired socket when
  // bluetoothd offers one (WriteAcquired), else (or once the socket failed) by WriteValue.
  enum class WritePath { Untried, Acquiring, Socket, Method };
  struct WriteChannel {
    WritePath path = WritePath::Untried;
    AcquiredSocket socket;
    std::deque<PendingRequest> held;  // writes waiting for the AcquireWrite reply
  };

  // Bus-thread bookkeeping of one device.
  struct Device {
    std::string path;  // the Device1 object; empty while bluetoothd does not list it
    Phase phase = Phase::Idle;
    uint64_t generation = 0;  // of the current or last connection attempt
    bool connectReplied = false;
    BusLoop::TimerId timer = 0;
    std::optional<sdbus::PendingAsyncCall> connectCall;
    bool reportedThisScan = false;
    std::optional<std::optional<std::vector<UUID>>> pendingServiceDiscovery;
    std::map<std::string, std::shared_ptr<BluezService>> services;                // by path
    std::map<std::string, std::shared_ptr<BluezCharacteristic>> characteristics;  // by path
    std::set<std::string> notifying;      // characteristic paths we asked to notify
    std::deque<PendingRequest> requests;  // writes with response, one in flight
    bool requestInFlight = false;
    std::deque<PendingRequest> commands;                  // writes without response not yet sent
    std::map<std::string, WriteChannel> writeChannels;    // by characteristic path
    std::map<std::string, AcquiredSocket> notifySockets;  // by characteristic path
    std::set<std::string> notifyAcquiring;  // AcquireNotify sent, its reply still wanted
  };

  using Reply = std::function<void(sdbus::MethodReply* reply, const platform::Error* error)>;

  // ---- bus thread
  void onBusConnected(sdbus::IConnection& connection);
  void onBusLost(bool stopping);
  void bluezAppeared();
  void bluezVanished(const std::string& why, platform::CentralState reportAs);
  void applyManagedObjects(std::map<sdbus::ObjectPath, InterfaceMap> tree);
  void onInterfacesAdded(sdbus::Message& message);
  void onInterfacesRemoved(sdbus::Message& message);
  void onPropertiesChanged(sdbus::Message& message);
  void onNameOwnerChanged(sdbus::Message& message);
  void deviceChanged(const std::string& path, const std::set<std::string>& changed);
  void characteristicChanged(const std::string& path, const std::set<std::string>& changed);

  void reconcileAdapter();
  void bindDevice(const std::string& path);
  void unbindDevice(const std::string& path);
  std::optional<Address> addressOf(const std::string& devicePath);
  std::shared_ptr<BluezPeripheral> peripheralFor(const Address& address);
  const PropertyMap* properties(const std::string& path, const char* interface) const;

  void applyDiscovery();
  void reportAdvertisement(const Address& address, const std::string& path);
  bool matchesScan(const PropertyMap& device, const std::string& path);

  void busConnect(const std::shared_ptr<BluezPeripheral>& peripheral);
  void busCancel(const std::shared_ptr<BluezPeripheral>& peripheral);
  void checkReady(const Address& address);
  // Ends the link of `address`: didFail while connecting, didDisconnect otherwise.
  void endLink(const Address& address, std::optional<platform::Error> error);
  void sendDisconnect(const std::string& path, const char* why);
  bool linkUsable(const Device& device, uint64_t generation) const;
  void fulfilServiceDiscovery(const Address& address, std::optional<std::vector<UUID>> uuids);
  void pumpRequests(const Address& address);
  void pumpCommands();
  void sendCommand(const Address& address, PendingRequest write);
  void acquireWrite(const Address& address, const std::string& path);
  // Sends one write on the channel's socket; false when the socket failed (it is closed
  // then, and the channel falls back to WriteValue).
  bool sendOnSocket(const Address& address, WriteChannel& channel, const PendingRequest& write);
  void fallBackToMethod(const Address& address, const std::string& path, const char* why);
  void noteDroppedWrite(const std::string& path);
  // The socket and MTU of an Acquire* reply, checked; nullopt (logged) when unusable.
  std::optional<AcquiredSocket> adoptSocket(sdbus::MethodReply& reply, const std::string& path,
                                            const char* method);
  void setNotifyByMethod(const std::shared_ptr<BluezPeripheral>& peripheral,
                         const std::shared_ptr<BluezCharacteristic>& characteristic, bool enabled);
  void acquireNotify(const std::shared_ptr<BluezPeripheral>& peripheral,
                     const std::shared_ptr<BluezCharacteristic>& characteristic);
  void readNotifySocket(const Address& address, const std::string& path, short revents);
  void closeNotifySocket(const Address& address, const std::string& path, const char* why);
  void closeSockets(Device& device);
  void deliverNotification(const std::shared_ptr<BluezPeripheral>& peripheral,
                           const std::shared_ptr<BluezCharacteristic>& characteristic, Data data);
  // The notification-state callback; the characteristic says `enabled` unless it failed.
  void reportNotifying(const std::shared_ptr<BluezPeripheral>& peripheral,
                       const std::shared_ptr<BluezCharacteristic>& characteristic, bool enabled,
                       std::optional<platform::Error> failure = std::nullopt);
  void updateMtu(const Address& address, const std::string& characteristicPath);

  bool call(const std::string& path, const char* interface, const char* method,
            const std::function<void(sdbus::MethodCall&)>& arguments,
            std::chrono::milliseconds timeout, Reply done,
            sdbus::PendingAsyncCall* handle = nullptr);

  // ---- delivery on the central's queue
  void deliver(std::function<void(BluezCentral& self, platform::CentralDelegate* delegate)> task);
  void deliverToPeripheral(const std::shared_ptr<BluezPeripheral>& peripheral,
                           std::function<void(platform::PeripheralDelegate& delegate)> task,
                           std::function<void()> before = {});
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

  // ---- bus thread only
  PropertyReader reader_;
  std::vector<sdbus::Slot> matches_;
  // The mirror. Its variants hold messages of the bus connection, so it is emptied before
  // the connection closes (bluezVanished, onBusLost).
  std::map<std::string, InterfaceMap> objects_;
  std::map<Address, Device> devices_;
  std::map<std::string, Address> deviceByPath_;
  std::string adapterPath_;
  bool bluezPresent_ = false;
  uint64_t treeGeneration_ = 0;
  uint64_t nextLinkGeneration_ = 1;
  std::optional<platform::CentralState> reportedState_;
  bool scanWanted_ = false;
  bool discoveryActive_ = false;
  uint64_t scanGeneration_ = 0;
  std::vector<UUID> scanUUIDs_;
  bool scanAllowsDuplicates_ = true;
  // Writes without response are pipelined, but the bus limits the replies one connection
  // may wait for (128 on a default dbus-daemon): at most this many are in flight, the rest
  // wait in order on their device. Shared with the reply tickets (see pumpCommands).
  static constexpr size_t kMaxCommandsInFlight = 48;
  std::shared_ptr<size_t> commandsInFlight_ = std::make_shared<size_t>(0);
  std::set<Address> devicesWithCommands_;
  // Writes dropped because an acquired socket was full, counted between two log lines.
  uint64_t droppedWrites_ = 0;
  std::chrono::steady_clock::time_point lastDropLog_{};

  // Last, so that it stops (and joins its thread) before anything above is destroyed.
  BusLoop loop_;
};

}  // namespace qlt::bluez
