// Reading BlueZ's D-Bus properties defensively.
//
// Properties arrive as variants. A property may be missing (older daemons, a device that
// stopped advertising) or, from a broken or foreign daemon, carry another D-Bus type than
// the documented one. PropertyReader hands out a value only when the type is the expected
// one; otherwise it logs one line per object, property and type (so a noisy device cannot
// flood the log) and treats the property as missing. Nothing here throws.
//
// Thread safety: a PropertyReader is used on the bus thread only.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "QueltLibrary/Data.h"
#include "QueltLibrary/UUID.h"
#include "QueltLibrary/platform/Platform.h"

namespace qlt::bluez {

using PropertyMap = std::map<std::string, sdbus::Variant>;
using InterfaceMap = std::map<std::string, PropertyMap>;

inline constexpr const char* kBluezService = "org.bluez";
inline constexpr const char* kAdapterInterface = "org.bluez.Adapter1";
inline constexpr const char* kDeviceInterface = "org.bluez.Device1";
inline constexpr const char* kServiceInterface = "org.bluez.GattService1";
inline constexpr const char* kCharacteristicInterface = "org.bluez.GattCharacteristic1";

class PropertyReader {
 public:
  std::optional<bool> boolean(const PropertyMap& props, const std::string& path, const char* name);
  std::optional<std::string> string(const PropertyMap& props, const std::string& path,
                                    const char* name);
  std::optional<int16_t> int16(const PropertyMap& props, const std::string& path, const char* name);
  std::optional<uint16_t> uint16(const PropertyMap& props, const std::string& path,
                                 const char* name);
  std::optional<std::string> objectPath(const PropertyMap& props, const std::string& path,
                                        const char* name);
  std::optional<std::vector<std::string>> strings(const PropertyMap& props, const std::string& path,
                                                  const char* name);
  std::optional<Data> bytes(const PropertyMap& props, const std::string& path, const char* name);
  std::optional<UUID> uuid(const PropertyMap& props, const std::string& path, const char* name);
  // The UUIDs of a list property; entries that are not UUIDs are logged and left out.
  std::vector<UUID> uuids(const PropertyMap& props, const std::string& path, const char* name);

  // What one Device1 object says about the device's advertising: name, manufacturer data
  // (a{qv}, by company identifier), service data (a{sv}, by service UUID), service UUIDs,
  // TX power. Entries of another type are logged and left out.
  platform::AdvertisementData advertisement(const PropertyMap& device, const std::string& path);
  // "write-without-response", "notify", ... → CharacteristicProperty bits.
  uint32_t characteristicProperties(const PropertyMap& props, const std::string& path);

 private:
  template <class T>
  std::optional<T> get(const PropertyMap& props, const std::string& path, const char* name,
                       const char* expected);
  void complain(const std::string& path, const char* name, const std::string& found,
                const char* expected);

  std::set<std::string> complained_;
};

// The D-Bus error as the library's error value.
platform::Error toError(const sdbus::Error& error);

}  // namespace qlt::bluez
