// ObjectMirror: the backend's copy of bluetoothd's object tree, kept from the bus.
//
// On every bus connection it subscribes to InterfacesAdded/Removed and PropertiesChanged
// of org.bluez and to NameOwnerChanged of that name, asks whether bluetoothd is there, and
// reads the whole tree with GetManagedObjects; each reply replaces the mirror (it is newer
// than every signal received before it). Its listener hears what changed, after the mirror
// has taken it in; when bluetoothd leaves (or the bus goes) the listener hears it first,
// while the mirror still holds the objects, and then the mirror empties.
//
// Values are read through reader(), so a missing property or one of an unexpected type is
// logged and treated as absent. Signals for objects the mirror does not know are logged
// rate-limited, with the count of those left out.
//
// The mirrored variants hold messages of the bus connection, so the mirror empties before
// the connection closes (busLost).
//
// Thread safety: bus thread only.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "QueltLibrary/platform/Platform.h"
#include "core/LogRateLimiter.h"
#include "platform/bluez/BluezProperties.h"
#include "platform/bluez/BusPort.h"

namespace qlt::bluez {

class MirrorListener {
 public:
  virtual ~MirrorListener() = default;
  // A GetManagedObjects reply replaced the mirror.
  virtual void treeReplaced() = 0;
  virtual void interfacesAdded(const std::string& path, const std::set<std::string>& names) = 0;
  virtual void interfacesRemoved(const std::string& path, const std::set<std::string>& names) = 0;
  virtual void propertiesChanged(const std::string& path, const std::string& interface,
                                 const std::set<std::string>& names) = 0;
  // bluetoothd (or the bus) is gone; the mirror still holds its objects during this call.
  virtual void bluezVanished(const std::string& why, platform::CentralState reportAs) = 0;
  // bluetoothd is not on the bus when we connect.
  virtual void bluezAbsent() = 0;
};

class ObjectMirror {
 public:
  ObjectMirror(BusPort& port, MirrorListener& listener, std::chrono::milliseconds callTimeout)
      : port_(port), listener_(listener), callTimeout_(callTimeout) {}

  // ---- from the bus loop's hooks
  void busConnected();
  void busLost(bool stopping);

  bool bluezPresent() const { return bluezPresent_; }
  const PropertyMap* properties(const std::string& path, const char* interface) const;
  // The objects with `interface` below `parent` (direct children only if `direct`), in path
  // order; every object with it for an empty parent.
  std::vector<std::string> objectsWith(const char* interface, const std::string& parent = {},
                                       bool direct = false) const;
  PropertyReader& reader() { return reader_; }

  // Tree helpers: `path` lies below `parent` (directly).
  static bool isChildOf(const std::string& path, const std::string& parent);
  static bool isDirectChildOf(const std::string& path, const std::string& parent);

 private:
  void bluezAppeared();
  void vanish(const std::string& why, platform::CentralState reportAs);
  void onInterfacesAdded(sdbus::Message& message);
  void onInterfacesRemoved(sdbus::Message& message);
  void onPropertiesChanged(sdbus::Message& message);
  void onNameOwnerChanged(sdbus::Message& message);

  BusPort& port_;
  MirrorListener& listener_;
  const std::chrono::milliseconds callTimeout_;
  PropertyReader reader_;
  std::map<std::string, InterfaceMap> objects_;
  std::vector<ScopedHandle> matches_;
  bool bluezPresent_ = false;
  uint64_t treeGeneration_ = 0;  // of the GetManagedObjects reply still wanted
  LogRateLimiter unknownObjectLog_;
};

}  // namespace qlt::bluez
