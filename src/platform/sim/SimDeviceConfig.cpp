#include "QueltLibrary/sim/SimDeviceConfig.h"

#include <cstdio>

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
    {SimBehaviour::SwSink, "sw-sink"},
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

std::string SimDeviceConfig::bluetoothAddress() const {
  if (address) return *address;
  const auto& bytes = identifier.bytes();
  std::string text;
  for (size_t i = bytes.size() - 6; i < bytes.size(); ++i) {
    const uint8_t b = i == bytes.size() - 6 ? (bytes[i] | 0xC0) : bytes[i];
    char pair[4];
    std::snprintf(pair, sizeof pair, "%02X", b);
    text += (text.empty() ? "" : ":") + std::string(pair);
  }
  return text;
}

platform::AdvertisementData SimDeviceConfig::advertisement() const {
  platform::AdvertisementData ad;
  ad.localName = localName;
  ad.manufacturerData = manufacturerData;
  ad.serviceUUIDs = advertisedServiceUUIDs();
  ad.serviceData = serviceData;
  ad.txPowerLevel = txPowerLevel;
  ad.isConnectable = connectable;
  return ad;
}

std::string SimDeviceConfig::description() const {
  return localName.value_or("(no name)") + " (" + identifier.UUIDString() + ")";
}

}  // namespace qlt::sim
