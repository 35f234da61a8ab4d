// The BlueZ backend: the platform layer over BlueZ's D-Bus API (org.bluez on the system
// bus), for Linux machines with real Bluetooth hardware. See docs/bluez.md.
//
// The bus is the system bus, found as every D-Bus client finds it: DBUS_SYSTEM_BUS_ADDRESS
// when set, else the standard socket. Tests point that variable at a private bus served by
// a mock bluetoothd.
#pragma once

#include <chrono>
#include <memory>

#include "QueltLibrary/platform/Platform.h"

namespace qlt::bluez {

struct BluezOptions {
  // Device1.Connect has no time-out of its own: a connection attempt that has not reached
  // "connected with services resolved" by then is cancelled with Disconnect and reported
  // as a failed connection.
  std::chrono::milliseconds connectTimeout{std::chrono::seconds(20)};
  // Time-out of every other method call (writes, notifications, discovery, disconnect).
  std::chrono::milliseconds callTimeout{std::chrono::seconds(10)};
  // How often to try again when the system bus itself cannot be reached.
  std::chrono::milliseconds reconnectInterval{std::chrono::seconds(2)};
};

// The backend registered under the name "bluez".
std::shared_ptr<platform::Backend> makeBackend();
std::shared_ptr<platform::Backend> makeBackend(const BluezOptions& options);

}  // namespace qlt::bluez
