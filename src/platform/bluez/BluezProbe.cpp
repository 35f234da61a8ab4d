#include "platform/bluez/BluezProbe.h"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdlib>
#include <map>

namespace qlt::bluez {

bool bluetoothdWithAdapterAnswers(std::chrono::milliseconds timeout, std::string* why) {
  using Properties = std::map<std::string, sdbus::Variant>;
  using Objects = std::map<sdbus::ObjectPath, std::map<std::string, Properties>>;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the library reads the environment, never changes it
  const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  const std::string bus = address ? address : "the standard system bus";
  try {
    // The proxy owns the connection and serves it from a thread of its own while it lives,
    // so the call's reply is read without a loop of ours.
    auto proxy = sdbus::createProxy(sdbus::createSystemBusConnection(), "org.bluez", "/");
    Objects objects;
    proxy->callMethod("GetManagedObjects")
        .onInterface("org.freedesktop.DBus.ObjectManager")
        .withTimeout(timeout)
        .storeResultsTo(objects);
    for (const auto& [path, interfaces] : objects) {
      if (interfaces.count("org.bluez.Adapter1")) {
        *why = "bluetoothd answers on " + bus + " with the adapter " + std::string(path);
        return true;
      }
    }
    *why = "bluetoothd on " + bus + " has no adapter";
  } catch (const sdbus::Error& e) {
    *why = "no bluetoothd answers on " + bus + " (" + e.getName() + ": " + e.getMessage() + ")";
  }
  return false;
}

}  // namespace qlt::bluez
