#include "platform/bluez/BluezProperties.h"

#include "QueltLibrary/Log.h"

namespace qlt::bluez {

template <class T>
std::optional<T> PropertyReader::get(const PropertyMap& props, const std::string& path,
                                     const char* name, const char* expected) {
  auto it = props.find(name);
  if (it == props.end()) return std::nullopt;
  try {
    if (!it->second.containsValueOfType<T>()) {
      complain(path, name, it->second.peekValueType(), expected);
      return std::nullopt;
    }
    return it->second.get<T>();
  } catch (const sdbus::Error& e) {
    complain(path, name, "unreadable (" + e.getMessage() + ")", expected);
    return std::nullopt;
  }
}

void PropertyReader::complain(const std::string& path, const char* name, const std::string& found,
                              const char* expected) {
  std::string key = path + "|" + name + "|" + found;
  if (complained_.size() > 4096) complained_.clear();
  if (!complained_.insert(std::move(key)).second) return;
  QLTLog("BlueZ: property %s of %s has D-Bus type '%s', expected '%s'; ignored", name, path, found,
         expected);
}

std::optional<bool> PropertyReader::boolean(const PropertyMap& props, const std::string& path,
                                            const char* name) {
  return get<bool>(props, path, name, "b");
}

std::optional<std::string> PropertyReader::string(const PropertyMap& props, const std::string& path,
                                                  const char* name) {
  return get<std::string>(props, path, name, "s");
}

std::optional<int16_t> PropertyReader::int16(const PropertyMap& props, const std::string& path,
                                             const char* name) {
  return get<int16_t>(props, path, name, "n");
}

std::optional<uint16_t> PropertyReader::uint16(const PropertyMap& props, const std::string& path,
                                               const char* name) {
  return get<uint16_t>(props, path, name, "q");
}

std::optional<std::string> PropertyReader::objectPath(const PropertyMap& props,
                                                      const std::string& path, const char* name) {
  auto value = get<sdbus::ObjectPath>(props, path, name, "o");
  if (!value) return std::nullopt;
  return std::string(*value);
}

std::optional<std::vector<std::string>> PropertyReader::strings(const PropertyMap& props,
                                                                const std::string& path,
                                                                const char* name) {
  return get<std::vector<std::string>>(props, path, name, "as");
}

std::optional<Data> PropertyReader::bytes(const PropertyMap& props, const std::string& path,
                                          const char* name) {
  auto value = get<std::vector<uint8_t>>(props, path, name, "ay");
  if (!value) return std::nullopt;
  return Data(value->data(), value->size());
}

std::optional<UUID> PropertyReader::uuid(const PropertyMap& props, const std::string& path,
                                         const char* name) {
  auto text = string(props, path, name);
  if (!text) return std::nullopt;
  auto parsed = UUID::fromString(*text);
  if (!parsed) complain(path, name, "s holding \"" + *text + "\"", "a UUID");
  return parsed;
}

std::vector<UUID> PropertyReader::uuids(const PropertyMap& props, const std::string& path,
                                        const char* name) {
  std::vector<UUID> out;
  auto list = strings(props, path, name);
  if (!list) return out;
  for (const auto& text : *list) {
    if (auto u = UUID::fromString(text)) {
      out.push_back(*u);
    } else {
      complain(path, name, "an entry \"" + text + "\"", "UUIDs");
    }
  }
  return out;
}

platform::AdvertisementData PropertyReader::advertisement(const PropertyMap& device,
                                                          const std::string& path) {
  platform::AdvertisementData adv;
  adv.localName = string(device, path, "Name");
  adv.serviceUUIDs = uuids(device, path, "UUIDs");
  if (auto tx = int16(device, path, "TxPower")) adv.txPowerLevel = *tx;
  // Device1 does not say whether the advertisement was connectable; bluetoothd lists the
  // device as one it may connect to, so it stays true.

  if (auto md =
          get<std::map<uint16_t, sdbus::Variant>>(device, path, "ManufacturerData", "a{qv}")) {
    for (const auto& [company, value] : *md) {
      if (!value.containsValueOfType<std::vector<uint8_t>>()) {
        complain(path, "ManufacturerData", "an entry of type " + value.peekValueType(), "ay");
        continue;
      }
      const auto bytes = value.get<std::vector<uint8_t>>();
      adv.manufacturerData[company] = Data(bytes.data(), bytes.size());
    }
  }
  if (auto sd = get<std::map<std::string, sdbus::Variant>>(device, path, "ServiceData", "a{sv}")) {
    for (const auto& [key, value] : *sd) {
      auto u = UUID::fromString(key);
      if (!u || !value.containsValueOfType<std::vector<uint8_t>>()) {
        complain(path, "ServiceData", "an entry \"" + key + "\" of type " + value.peekValueType(),
                 "{UUID: ay}");
        continue;
      }
      const auto bytes = value.get<std::vector<uint8_t>>();
      adv.serviceData[*u] = Data(bytes.data(), bytes.size());
    }
  }
  return adv;
}

uint32_t PropertyReader::characteristicProperties(const PropertyMap& props,
                                                  const std::string& path) {
  uint32_t bits = 0;
  auto flags = strings(props, path, "Flags");
  if (!flags) return bits;
  for (const auto& flag : *flags) {
    if (flag == "broadcast")
      bits |= platform::kPropertyBroadcast;
    else if (flag == "read")
      bits |= platform::kPropertyRead;
    else if (flag == "write-without-response")
      bits |= platform::kPropertyWriteWithoutResponse;
    else if (flag == "write")
      bits |= platform::kPropertyWrite;
    else if (flag == "notify")
      bits |= platform::kPropertyNotify;
    else if (flag == "indicate")
      bits |= platform::kPropertyIndicate;
    // Other flags (authenticated-signed-writes, reliable-write, encrypt-*, ...) have no
    // counterpart in the library's properties.
  }
  return bits;
}

platform::Error toError(const sdbus::Error& error) {
  const std::string& name = error.getName();
  const bool late = name == "org.freedesktop.DBus.Error.NoReply" ||
                    name == "org.freedesktop.DBus.Error.Timeout" ||
                    name == "org.freedesktop.DBus.Error.TimedOut";
  const bool gone = name == "org.freedesktop.DBus.Error.UnknownObject" ||
                    name == "org.freedesktop.DBus.Error.ServiceUnknown" ||
                    name == "org.bluez.Error.DoesNotExist";
  return platform::Error{name, error.getMessage(),
                         late   ? platform::ErrorReason::TimedOut
                         : gone ? platform::ErrorReason::DeviceRemoved
                                : platform::ErrorReason::Refused};
}

}  // namespace qlt::bluez
