#include "QueltLibrary/sim/SimDeviceConfig.h"

#include "QueltLibrary/QLT_UUID.h"

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

std::optional<SimBehaviour> behaviourFromName(const std::string& name) {
  for (const auto& entry : kBehaviourNames) {
    if (name == entry.name) return entry.behaviour;
  }
  return std::nullopt;
}

SimServiceConfig SimServiceConfig::nus(uint32_t txProperties) {
  return {QLT_UUID::uartServiceUUID(),
          {{QLT_UUID::txCharacteristicUUID(), txProperties, std::nullopt},
           {QLT_UUID::rxCharacteristicUUID(), platform::kPropertyNotify, std::nullopt}}};
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
