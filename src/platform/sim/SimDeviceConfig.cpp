#include "QueltLibrary/sim/SimDeviceConfig.h"

#include <algorithm>

namespace qlt::sim {

namespace {
struct BehaviourName {
  SimBehaviour behaviour;
  const char* name;
};
constexpr BehaviourName kBehaviourNames[] = {
    {SimBehaviour::None, "none"},
    {SimBehaviour::SwEcho, "sw-echo"},
    {SimBehaviour::ChunkEcho, "chunk-echo"},
    {SimBehaviour::Sink, "sink"},
    {SimBehaviour::Source, "source"},
};
}  // namespace

std::string behaviourName(SimBehaviour behaviour) {
  for (const auto& entry : kBehaviourNames) {
    if (entry.behaviour == behaviour) return entry.name;
  }
  return "none";
}

std::optional<SimBehaviour> behaviourFromName(const std::string& name) {
  for (const auto& entry : kBehaviourNames) {
    if (name == entry.name) return entry.behaviour;
  }
  return std::nullopt;
}

UUID nusServiceUUID() {
  static const UUID uuid = UUID::literal("6e400001-b5a3-f393-e0a9-e50e24dcca9e");
  return uuid;
}
UUID nusTxCharacteristicUUID() {
  static const UUID uuid = UUID::literal("6e400002-b5a3-f393-e0a9-e50e24dcca9e");
  return uuid;
}
UUID nusRxCharacteristicUUID() {
  static const UUID uuid = UUID::literal("6e400003-b5a3-f393-e0a9-e50e24dcca9e");
  return uuid;
}

SimServiceConfig SimServiceConfig::nus(uint32_t txProperties) {
  return {nusServiceUUID(),
          {{nusTxCharacteristicUUID(), txProperties, std::nullopt},
           {nusRxCharacteristicUUID(), platform::kPropertyNotify, std::nullopt}}};
}

SimServiceConfig SimServiceConfig::heartRate() {
  const uint8_t chest = 1;
  return {UUID::literal("180D"),
          {{UUID::literal("2A37"), platform::kPropertyNotify, std::nullopt},
           {UUID::literal("2A38"), platform::kPropertyRead, Data(&chest, 1)}}};
}

std::vector<UUID> SimDeviceConfig::advertisedServiceUUIDs() const {
  if (advertisedServices) return *advertisedServices;
  std::vector<UUID> uuids;
  for (const auto& service : services) uuids.push_back(service.uuid);
  return uuids;
}

std::string SimDeviceConfig::description() const {
  return localName.value_or("(no name)") + " (" + identifier.UUIDString() + ")";
}

}  // namespace qlt::sim
