#include "platform/bluez/BluezMirror.h"

#include <algorithm>

#include "QueltLibrary/Log.h"
#include "platform/bluez/BusLoop.h"

namespace qlt::bluez {

using platform::CentralState;
using platform::Error;

namespace {

constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kBusName = "org.freedesktop.DBus";

}  // namespace

bool ObjectMirror::isChildOf(const std::string& path, const std::string& parent) {
  return path.size() > parent.size() + 1 && path.compare(0, parent.size(), parent) == 0 &&
         path[parent.size()] == '/';
}

bool ObjectMirror::isDirectChildOf(const std::string& path, const std::string& parent) {
  return isChildOf(path, parent) && path.find('/', parent.size() + 1) == std::string::npos;
}

const PropertyMap* ObjectMirror::properties(const std::string& path, const char* interface) const {
  auto it = objects_.find(path);
  if (it == objects_.end()) return nullptr;
  auto in = it->second.find(interface);
  return in == it->second.end() ? nullptr : &in->second;
}

std::vector<std::string> ObjectMirror::objectsWith(const char* interface, const std::string& parent,
                                                   bool direct) const {
  std::vector<std::string> found;
  for (const auto& [path, interfaces] : objects_) {
    if (!parent.empty() && !(direct ? isDirectChildOf(path, parent) : isChildOf(path, parent)))
      continue;
    if (interfaces.count(interface)) found.push_back(path);
  }
  return found;
}

void ObjectMirror::busConnected() {
  QLT_ASSERT_BUS_THREAD(port_);
  matches_.clear();
  auto add = [&](const std::string& rule, void (ObjectMirror::*handler)(sdbus::Message&),
                 const char* what) {
    matches_.push_back(port_.match(rule, [this, handler, what](sdbus::Message& message) {
      BusLoop::guard(what, [&] { (this->*handler)(message); });
    }));
  };
  const std::string sender = std::string("sender='") + kBluezService + "'";
  add("type='signal'," + sender + ",interface='" + kObjectManager +
          "',member='InterfacesAdded',path='/'",
      &ObjectMirror::onInterfacesAdded, "InterfacesAdded");
  add("type='signal'," + sender + ",interface='" + kObjectManager +
          "',member='InterfacesRemoved',path='/'",
      &ObjectMirror::onInterfacesRemoved, "InterfacesRemoved");
  add("type='signal'," + sender + ",interface='" + kProperties +
          "',member='PropertiesChanged',path_namespace='/org/bluez'",
      &ObjectMirror::onPropertiesChanged, "PropertiesChanged");
  add(std::string("type='signal',sender='") + kBusName + "',interface='" + kBusName +
          "',member='NameOwnerChanged',arg0='" + kBluezService + "'",
      &ObjectMirror::onNameOwnerChanged, "NameOwnerChanged");

  const uint64_t generation = treeGeneration_;
  port_.askBus("NameHasOwner", kBluezService,
               [this, generation](sdbus::MethodReply* reply, const Error* error) {
                 if (generation != treeGeneration_) return;
                 bool present = false;
                 if (error) {
                   QLTLog("BlueZ: cannot ask the bus for org.bluez: %s", error->description());
                 } else if (reply) {
                   *reply >> present;
                 }
                 if (present) {
                   bluezAppeared();
                 } else {
                   QLTLog("BlueZ: bluetoothd (org.bluez) is not on the system bus; waiting for it");
                   listener_.bluezAbsent();
                 }
               });
}

void ObjectMirror::busLost(bool stopping) {
  QLT_ASSERT_BUS_THREAD(port_);
  matches_.clear();
  if (stopping) {
    objects_.clear();  // the mirrored variants refer to the connection's messages
    return;
  }
  vanish("the system bus connection was lost", CentralState::Unsupported);
}

void ObjectMirror::onNameOwnerChanged(sdbus::Message& message) {
  std::string name, oldOwner, newOwner;
  message >> name >> oldOwner >> newOwner;
  if (name != kBluezService) return;
  if (!oldOwner.empty() && bluezPresent_)
    vanish("bluetoothd left the bus", CentralState::PoweredOff);
  if (!newOwner.empty()) {
    QLTLog("BlueZ: bluetoothd is on the bus (%s); reading its objects", newOwner);
    bluezAppeared();
  }
}

void ObjectMirror::bluezAppeared() {
  bluezPresent_ = true;
  const uint64_t generation = ++treeGeneration_;
  port_.call("/", kObjectManager, "GetManagedObjects", {}, callTimeout_,
             [this, generation](sdbus::MethodReply* reply, const Error* error) {
               if (generation != treeGeneration_) return;
               std::map<sdbus::ObjectPath, InterfaceMap> tree;
               if (error) {
                 QLTLog("BlueZ: GetManagedObjects failed: %s", error->description());
               } else if (reply) {
                 try {
                   *reply >> tree;
                 } catch (const sdbus::Error& e) {
                   QLTLog("BlueZ: GetManagedObjects returned an unreadable tree: %s",
                          e.getMessage());
                 }
               }
               objects_.clear();
               for (auto& [path, interfaces] : tree) {
                 objects_.emplace(std::string(path), std::move(interfaces));
               }
               listener_.treeReplaced();
             });
}

void ObjectMirror::vanish(const std::string& why, CentralState reportAs) {
  QLTLog("BlueZ: %s; dropping its devices and objects", why);
  bluezPresent_ = false;
  ++treeGeneration_;
  listener_.bluezVanished(why, reportAs);
  objects_.clear();
  port_.releaseAllProxies();
}

void ObjectMirror::onInterfacesAdded(sdbus::Message& message) {
  sdbus::ObjectPath objectPath;
  InterfaceMap interfaces;
  message >> objectPath >> interfaces;
  const std::string path = objectPath;
  auto& mirror = objects_[path];
  std::set<std::string> names;
  for (auto& [name, props] : interfaces) {
    names.insert(name);
    auto& target = mirror[name];
    for (auto& [key, value] : props) target[key] = std::move(value);
  }
  listener_.interfacesAdded(path, names);
}

void ObjectMirror::onInterfacesRemoved(sdbus::Message& message) {
  sdbus::ObjectPath objectPath;
  std::vector<std::string> interfaces;
  message >> objectPath >> interfaces;
  const std::string path = objectPath;
  auto it = objects_.find(path);
  if (it == objects_.end()) return;
  std::set<std::string> names;
  for (const auto& name : interfaces) {
    if (it->second.erase(name)) names.insert(name);
  }
  if (it->second.empty()) objects_.erase(it);
  port_.releaseProxy(path);
  listener_.interfacesRemoved(path, names);
}

void ObjectMirror::onPropertiesChanged(sdbus::Message& message) {
  std::string interface;
  PropertyMap changed;
  std::vector<std::string> invalidated;
  message >> interface >> changed >> invalidated;
  const std::string path = message.getPath();
  auto it = objects_.find(path);
  if (it == objects_.end() || !it->second.count(interface)) {
    if (!bluezPresent_) return;
    if (auto count = unknownObjectLog_.admit()) {
      QLTLog("BlueZ: PropertiesChanged of %s for an unknown object %s; ignored%s", interface, path,
             *count > 1 ? " (and " + std::to_string(*count - 1) + " more since the last such line)"
                        : std::string());
    }
    return;
  }
  auto& props = it->second[interface];
  std::set<std::string> names;
  for (auto& [key, value] : changed) {
    names.insert(key);
    props[key] = std::move(value);
  }
  for (const auto& key : invalidated) {
    names.insert(key);
    props.erase(key);
  }
  listener_.propertiesChanged(path, interface, names);
}

}  // namespace qlt::bluez
