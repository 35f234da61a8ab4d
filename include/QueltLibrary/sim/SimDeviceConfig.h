// SimDeviceConfig: one simulated device: how it advertises, its GATT table and what it
// does with the data written to it.
//
// Thread safety: plain value types.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "QueltLibrary/Data.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/UUID.h"
#include "QueltLibrary/platform/Platform.h"
#include "QueltLibrary/sim/AirFaults.h"
#include "QueltLibrary/sim/LinkParameters.h"

namespace qlt::sim {

// What the device does with the UART service (NUS): the central writes to 6E400002 and
// receives notifications from 6E400003.
enum class SimBehaviour {
  None,       // accepts writes and does nothing
  SwEcho,     // runs the library's sliding-window engine and echoes each TCP payload as
              // TCP and each datagram as a datagram
  ChunkEcho,  // notifies every written value back, as it came
  Sink,       // swallows everything (and counts it), acknowledging nothing
  SwSink,     // runs the sliding-window engine, acknowledges and counts every payload, and
              // sends nothing back: the far end of a one-way stream
  Source,     // while notifications are on, streams a known pattern (byte i is i mod 251)
              // through the sliding window: sourceBytes in all, or without end (0)
  External,   // another process serves the service: `command` runs once per link (or,
              // with keepRunning, across links), each value written reaches its stdin as
              // one SLIP frame, each SLIP frame on its stdout is notified; its end while
              // linked is a lost link
};

// "none", "sw-echo", "chunk-echo", "sink", "sw-sink", "source", "external"; nullopt for any
// other name.
QLT_EXPORT std::optional<SimBehaviour> behaviourFromName(const std::string& name);

struct QLT_EXPORT SimCharacteristicConfig {
  UUID uuid;
  uint32_t properties = 0;    // platform::CharacteristicProperty bits
  std::optional<Data> value;  // what a read returns (empty when absent)
};

struct QLT_EXPORT SimServiceConfig {
  UUID uuid;
  std::vector<SimCharacteristicConfig> characteristics;

  // The UART service (QLT_UUID): tx 6E400002 with `txProperties`, rx 6E400003 with notify.
  static SimServiceConfig nus(uint32_t txProperties = platform::kPropertyWriteWithoutResponse |
                                                      platform::kPropertyWrite);
  // The heart-rate service 180D: measurement 2A37 (notify), body sensor location 2A38 (read).
  static SimServiceConfig heartRate();
};

struct QLT_EXPORT SimDeviceConfig {
  UUID identifier;
  std::optional<std::string> localName;  // advertised and the peripheral's name()
  // The Bluetooth address (canonical text, see platform::canonicalAddress); empty: one
  // derived from the identifier (see bluetoothAddress()).
  std::optional<std::string> address;
  // Advertised: manufacturer data by company identifier, service data by service UUID,
  // TX power (dBm) and whether the device accepts connections (a device that does not
  // fails every connect).
  std::map<uint16_t, Data> manufacturerData;
  std::map<UUID, Data> serviceData;
  std::optional<int> txPowerLevel;
  bool connectable = true;
  int rssi = -60;                    // dBm, the mean
  int rssiVariation = 6;             // each advertisement is rssi ± up to this
  double advertisingInterval = 0.1;  // seconds between advertisements
  // The service UUIDs put in the advertisement; empty optional: those of `services`.
  std::optional<std::vector<UUID>> advertisedServices;
  double connectDelay = 0.002;  // seconds from connect() to the outcome
  // The device's ATT MTU; a link uses the smaller of this and the link's (LinkParameters::mtu),
  // and a write or notification carries up to that - 3 bytes.
  size_t mtu = 185;
  std::vector<SimServiceConfig> services{SimServiceConfig::nus()};
  SimBehaviour behaviour = SimBehaviour::ChunkEcho;
  uint64_t sourceBytes = 0;  // for SimBehaviour::Source: 0 streams without end
  // The sliding-window behaviours (sw-echo, source, sw-sink) answer a central's offer of the
  // extended window; true (JSON "window": "classic"): they speak only the classic format (the
  // offer is ignored).
  bool classicWindow = false;
  std::vector<std::string> command;  // for SimBehaviour::External: program and arguments
  // For SimBehaviour::External: the process starts with the device's first link and runs
  // until the device is removed or the radio ends (it is started again for the next link if
  // it ended), and every frame on its serial line carries a type byte: a value, a link's
  // start, a link's end (docs/simulated-radio.md, "A process that outlives its links").
  // false: one process per link, frames are bare values.
  bool keepRunning = false;
  // Faults for this device's links; empty: the radio's.
  std::optional<AirFaults> faults;
  // Link parameters for this device's links; empty: the radio's.
  std::optional<LinkParameters> link;

  // The services as advertised (advertisedServices, or every service of the table).
  std::vector<UUID> advertisedServiceUUIDs() const;
  // `address`, or a static random address made of the identifier's last six bytes (the
  // two top bits set, as a static random address has them): stable for the device.
  std::string bluetoothAddress() const;
  // What one advertisement of this device carries.
  platform::AdvertisementData advertisement() const;
  std::string description() const;  // "QLT-Echo (6E40...)"
};

}  // namespace qlt::sim
