// The platform seam: the Bluetooth stack the library drives, as interfaces of its own.
//
// These classes are shaped by what the library's device model calls and nothing more: a
// central that scans, connects and retrieves peripherals; peripherals with services and
// characteristics; advertisement data. A backend implements them: the simulated radio
// (the default, "sim") or BlueZ over D-Bus ("bluez"); the mobile platforms' stacks map
// onto them one to one.
//
// Threads: a backend delivers every CentralDelegate and PeripheralDelegate call on the
// queue given to createCentral(), serially, in the order the events happened. Calls into
// the platform (scan, connect, write, ...) may come from any thread and never block for
// long; their outcome arrives later as a delegate call.
//
// Lifetime: the central holds its peripherals for as long as it knows them; a peripheral
// holds its services, a service its characteristics. Delegates are held weakly. Back
// references (characteristic → service → peripheral) are weak.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QueltLibrary/Data.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/UUID.h"

namespace qlt::platform {

class Central;
class Peripheral;
class Service;
class Characteristic;

// Why an operation failed, in a word the layers above can act on and tell a user; the
// domain and message carry the details (for a refusal, the daemon's error name and text).
enum class ErrorReason {
  Other,
  NotConnected,   // the operation needs a link that is not (or no longer) up
  TimedOut,       // no answer in time
  DeviceRemoved,  // the stack forgot the device (or never knew it)
  Refused,        // the stack or the device refused
  LinkLost,       // the link dropped
  PoweredOff,     // the adapter or the stack went away
};

inline const char* toString(ErrorReason reason) {
  switch (reason) {
    case ErrorReason::Other:
      return "other";
    case ErrorReason::NotConnected:
      return "not connected";
    case ErrorReason::TimedOut:
      return "timed out";
    case ErrorReason::DeviceRemoved:
      return "device removed";
    case ErrorReason::Refused:
      return "refused";
    case ErrorReason::LinkLost:
      return "link lost";
    case ErrorReason::PoweredOff:
      return "powered off";
  }
  return "?";
}

// An error handed to a delegate call; the device model logs it and otherwise ignores it.
struct QLT_EXPORT Error {
  std::string domain;  // e.g. "org.bluez.Error.Failed" or "sim"
  std::string message;
  ErrorReason reason = ErrorReason::Other;
  std::string description() const { return domain + ": " + message; }
};

// The power state of the central, numbered as the platforms number it.
enum class CentralState : int64_t {
  Unknown = 0,
  Resetting = 1,
  Unsupported = 2,
  Unauthorized = 3,
  PoweredOff = 4,
  PoweredOn = 5,
};

// The link state of a peripheral, numbered as the platforms number it.
enum class PeripheralState : int64_t {
  Disconnected = 0,
  Connecting = 1,
  Connected = 2,
  Disconnecting = 3,
};

// The names of the states, for logs: "poweredOn", "connecting", ... A value outside the
// enumeration gives "invalid" (every enumerator is named: the switches have no default,
// so the compiler warns about a new one left out).
constexpr const char* toString(CentralState state) {
  switch (state) {
    case CentralState::Unknown:
      return "unknown";
    case CentralState::Resetting:
      return "resetting";
    case CentralState::Unsupported:
      return "unsupported";
    case CentralState::Unauthorized:
      return "unauthorized";
    case CentralState::PoweredOff:
      return "poweredOff";
    case CentralState::PoweredOn:
      return "poweredOn";
  }
  return "invalid";
}
constexpr const char* toString(PeripheralState state) {
  switch (state) {
    case PeripheralState::Disconnected:
      return "disconnected";
    case PeripheralState::Connecting:
      return "connecting";
    case PeripheralState::Connected:
      return "connected";
    case PeripheralState::Disconnecting:
      return "disconnecting";
  }
  return "invalid";
}

// Characteristic property bits.
enum CharacteristicProperty : uint32_t {
  kPropertyBroadcast = 0x01,
  kPropertyRead = 0x02,
  kPropertyWriteWithoutResponse = 0x04,
  kPropertyWrite = 0x08,
  kPropertyNotify = 0x10,
  kPropertyIndicate = 0x20,
};

// Every write and notification spends 3 bytes of the link's ATT MTU on the ATT header, so
// one value carries at most MTU - 3 bytes: 20 on the smallest LE link (MTU 23). This is
// the one place that rule is written.
inline constexpr size_t kAttHeaderLength = 3;
constexpr size_t attPayloadLength(size_t mtu) {
  return mtu > kAttHeaderLength ? mtu - kAttHeaderLength : 0;
}
// The same for an MTU held as an int; 0 or less (not known yet) carries nothing.
constexpr size_t attPayloadLength(int mtu) {
  return mtu > 0 ? attPayloadLength(static_cast<size_t>(mtu)) : 0;
}

enum class WriteType : int64_t {
  WithResponse = 0,
  WithoutResponse = 1,
};

// A Bluetooth device address as text: six pairs of hexadecimal digits joined by ':'
// ("C0:FF:EE:00:00:01"). Either case is accepted; the result is upper-case. Anything else
// (other separators, missing or extra digits, surrounding spaces) gives nothing.
inline std::optional<std::string> canonicalAddress(std::string_view text) {
  if (text.size() != 17) return std::nullopt;
  std::string out(text);
  for (size_t i = 0; i < out.size(); ++i) {
    char& c = out[i];
    if (i % 3 == 2) {
      if (c != ':') return std::nullopt;
      continue;
    }
    if (c >= 'a' && c <= 'f') c = static_cast<char>(c - 'a' + 'A');
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return std::nullopt;
  }
  return out;
}

// What one advertisement (with its scan response) carried, as far as the stack reports it.
struct QLT_EXPORT AdvertisementData {
  std::optional<std::string> localName;
  // Manufacturer-specific data by company identifier; the bytes follow the identifier.
  std::map<uint16_t, Data> manufacturerData;
  std::vector<UUID> serviceUUIDs;
  std::map<UUID, Data> serviceData;
  std::optional<int> txPowerLevel;  // dBm
  // Whether the device accepts connections. A stack that does not say reports true.
  bool isConnectable = true;

  friend bool operator==(const AdvertisementData&, const AdvertisementData&) = default;
  // The first (lowest) company's entry as one advertisement field carries it: the company
  // identifier, little-endian, then its bytes; nothing without manufacturer data.
  std::optional<Data> manufacturerField() const {
    if (manufacturerData.empty()) return std::nullopt;
    const auto& [company, bytes] = *manufacturerData.begin();
    std::vector<uint8_t> field{static_cast<uint8_t>(company & 0xff),
                               static_cast<uint8_t>(company >> 8)};
    field.insert(field.end(), bytes.span().begin(), bytes.span().end());
    return Data(field.data(), field.size());
  }
};

// The facts of one link, as far as the backend knows them. What it does not know says so:
// 0 for the two sizes, empty for the rest. The simulated radio knows all it models; BlueZ
// reports the ATT MTU (GattCharacteristic1.MTU, or the MTU AcquireWrite returned) and
// keeps the controller's interval, PHY and data length to itself.
struct QLT_EXPORT LinkInfo {
  int attMtu = 0;             // the ATT MTU of the link; 0: not known (yet)
  size_t maxWriteLength = 0;  // the largest value one write without response carries
  std::optional<double> connectionIntervalMs;
  std::optional<std::string> phy;  // "1M", "2M", "Coded"
  std::optional<int> dataLength;   // link-layer payload octets per packet (27..251)
};

// One Bluetooth adapter of the machine, as a backend that has several lists it.
struct QLT_EXPORT AdapterInfo {
  std::string name;     // "hci0"
  std::string address;  // canonical text, "" when not known
  bool powered = false;
  bool inUse = false;  // the one the central scans and connects with
};

class QLT_EXPORT CentralDelegate {
 public:
  virtual ~CentralDelegate() = default;
  virtual void centralManagerDidUpdateState(Central& central) = 0;
  virtual void centralManager_didDiscoverPeripheral_advertisementData_RSSI(
      Central& central, const std::shared_ptr<Peripheral>& peripheral,
      const AdvertisementData& advertisementData, int rssi) = 0;
  virtual void centralManager_didConnectPeripheral(
      Central& central, const std::shared_ptr<Peripheral>& peripheral) = 0;
  virtual void centralManager_didFailToConnectPeripheral_error(
      Central& central, const std::shared_ptr<Peripheral>& peripheral,
      const std::optional<Error>& error) = 0;
  virtual void centralManager_didDisconnectPeripheral_error(
      Central& central, const std::shared_ptr<Peripheral>& peripheral,
      const std::optional<Error>& error) = 0;
};

class QLT_EXPORT PeripheralDelegate {
 public:
  virtual ~PeripheralDelegate() = default;
  virtual void peripheral_didDiscoverServices(const std::shared_ptr<Peripheral>& /*peripheral*/,
                                              const std::optional<Error>& /*error*/) {}
  virtual void peripheral_didDiscoverCharacteristicsForService_error(
      const std::shared_ptr<Peripheral>& /*peripheral*/,
      const std::shared_ptr<Service>& /*service*/, const std::optional<Error>& /*error*/) {}
  virtual void peripheral_didUpdateNotificationStateForCharacteristic_error(
      const std::shared_ptr<Peripheral>& /*peripheral*/,
      const std::shared_ptr<Characteristic>& /*characteristic*/,
      const std::optional<Error>& /*error*/) {}
  virtual void peripheral_didUpdateValueForCharacteristic_error(
      const std::shared_ptr<Peripheral>& /*peripheral*/,
      const std::shared_ptr<Characteristic>& /*characteristic*/,
      const std::optional<Error>& /*error*/) {}
  // A notification brought `value` for `characteristic` (whose value() now reads it too).
  // The backends call this one for every notification, so a receiver needs no second
  // look-up; the default passes it on to peripheral_didUpdateValueForCharacteristic_error
  // for delegates that read value() instead.
  virtual void peripheral_didReceiveValue(const std::shared_ptr<Peripheral>& peripheral,
                                          const std::shared_ptr<Characteristic>& characteristic,
                                          const Data& /*value*/) {
    peripheral_didUpdateValueForCharacteristic_error(peripheral, characteristic, std::nullopt);
  }
  virtual void peripheral_didWriteValueForCharacteristic_error(
      const std::shared_ptr<Peripheral>& /*peripheral*/,
      const std::shared_ptr<Characteristic>& /*characteristic*/,
      const std::optional<Error>& /*error*/) {}
  virtual void peripheralIsReadyToSendWriteWithoutResponse(
      const std::shared_ptr<Peripheral>& /*peripheral*/) {}
  virtual void peripheral_didUpdateValueForDescriptor_error(
      const std::shared_ptr<Peripheral>& /*peripheral*/, const std::optional<Error>& /*error*/) {}
  virtual void peripheral_didWriteValueForDescriptor_error(
      const std::shared_ptr<Peripheral>& /*peripheral*/, const std::optional<Error>& /*error*/) {}
};

class QLT_EXPORT Characteristic {
 public:
  virtual ~Characteristic() = default;
  virtual UUID uuid() const = 0;
  virtual uint32_t properties() const = 0;
  // The value last received (notification or read); empty before any.
  virtual std::optional<Data> value() const = 0;
  virtual bool isNotifying() const = 0;
  virtual std::shared_ptr<Service> service() const = 0;
};

class QLT_EXPORT Service {
 public:
  virtual ~Service() = default;
  virtual UUID uuid() const = 0;
  virtual bool isPrimary() const { return true; }
  virtual std::vector<std::shared_ptr<Characteristic>> characteristics() const = 0;
  virtual std::shared_ptr<Peripheral> peripheral() const = 0;
};

class QLT_EXPORT Peripheral {
 public:
  virtual ~Peripheral() = default;
  virtual UUID identifier() const = 0;
  virtual std::optional<std::string> name() const = 0;
  virtual PeripheralState state() const = 0;
  // The device's Bluetooth address in canonical text (canonicalAddress), when the platform
  // knows it; the mobile platforms hide it, so nothing is a normal answer.
  virtual std::optional<std::string> bluetoothAddress() const { return std::nullopt; }
  // The services found by the last discovery (empty before).
  virtual std::vector<std::shared_ptr<Service>> services() const = 0;

  // The delegate is held weakly; the device model compares its exact type.
  virtual std::shared_ptr<PeripheralDelegate> delegate() const = 0;
  virtual void setDelegate(const std::shared_ptr<PeripheralDelegate>& delegate) = 0;

  // Empty optional: all services / characteristics.
  virtual void discoverServices(const std::optional<std::vector<UUID>>& serviceUUIDs) = 0;
  virtual void discoverCharacteristics(const std::optional<std::vector<UUID>>& uuids,
                                       const std::shared_ptr<Service>& service) = 0;
  virtual void writeValue(const Data& data, const std::shared_ptr<Characteristic>& characteristic,
                          WriteType type) = 0;
  virtual void readValue(const std::shared_ptr<Characteristic>& characteristic) = 0;
  virtual void setNotifyValue(bool enabled,
                              const std::shared_ptr<Characteristic>& characteristic) = 0;
  // The largest value one write of this type carries on the current link.
  virtual size_t maximumWriteValueLength(WriteType type) const = 0;
  // The facts of the current link (see LinkInfo); a backend that knows only the largest
  // write reports that.
  virtual LinkInfo linkInfo() const {
    LinkInfo info;
    info.maxWriteLength = maximumWriteValueLength(WriteType::WithoutResponse);
    return info;
  }

  std::string description() const { return identifier().UUIDString(); }
};

struct QLT_EXPORT CentralOptions {
  bool showPowerAlert = false;
};

struct QLT_EXPORT ScanOptions {
  bool allowDuplicates = false;
};

class QLT_EXPORT Central {
 public:
  virtual ~Central() = default;
  virtual CentralState state() const = 0;
  virtual void scanForPeripherals(const std::optional<std::vector<UUID>>& serviceUUIDs,
                                  const ScanOptions& options) = 0;
  virtual void stopScan() = 0;
  virtual bool isScanning() const = 0;
  virtual void connect(const std::shared_ptr<Peripheral>& peripheral) = 0;
  virtual void cancelPeripheralConnection(const std::shared_ptr<Peripheral>& peripheral) = 0;
  // The peripherals known by these identifiers (unknown ones are left out).
  virtual std::vector<std::shared_ptr<Peripheral>> retrievePeripheralsWithIdentifiers(
      const std::vector<UUID>& identifiers) = 0;
  // The peripherals known by these addresses (canonical text; unknown ones are left out).
  // A platform that does not know addresses finds none.
  virtual std::vector<std::shared_ptr<Peripheral>> retrievePeripheralsWithAddresses(
      const std::vector<std::string>& /*addresses*/) {
    return {};
  }
  // The machine's adapters (empty: the backend has no choice of adapter).
  virtual std::vector<AdapterInfo> adapters() const { return {}; }
  // Chooses the adapter to use by name ("hci1") or address, any case; "" restores the
  // default (the first powered one). An adapter the backend does not have is an error
  // that names those it has; a backend without adapters accepts only "".
  virtual std::optional<Error> useAdapter(const std::string& nameOrAddress) {
    if (nameOrAddress.empty()) return std::nullopt;
    return Error{"adapter",
                 "this platform has no adapters to choose from (asked for '" + nameOrAddress + "')",
                 ErrorReason::DeviceRemoved};
  }
};

// A backend makes centrals.
class QLT_EXPORT Backend {
 public:
  virtual ~Backend() = default;
  virtual std::string name() const = 0;
  // `delegate` is held weakly; its calls arrive on `queue`.
  virtual std::shared_ptr<Central> createCentral(const std::shared_ptr<CentralDelegate>& delegate,
                                                 const std::shared_ptr<DispatchQueue>& queue,
                                                 const CentralOptions& options) = 0;
};

// Choosing the backend. The library asks for it once, when QLT_BLEManager is first made.
// Order: a backend installed with setBackend(); else the name in the environment variable
// QLT_PLATFORM ("sim" or "bluez"); else BlueZ when a bluetoothd with an adapter answers on
// the system bus (asked once, within about a second), else the simulated radio. The choice
// and its reason are logged.
QLT_EXPORT void setBackend(std::shared_ptr<Backend> backend);
// Selects a built-in backend by name; false (with a log line) for an unknown name.
QLT_EXPORT bool setBackendByName(const std::string& name);
QLT_EXPORT std::shared_ptr<Backend> currentBackend();
// The names of the built-in backends of this build.
QLT_EXPORT std::vector<std::string> availableBackends();

}  // namespace qlt::platform
