// Reading a simulated radio's configuration from JSON (the format is described in
// docs/simulated-radio.md). Strict: an unknown key, a value of the wrong type or out of
// range, a malformed identifier or a duplicate device is an error naming its place
// ("devices[1].identifier: not a UUID: \"xyz\""), never a crash.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "QueltLibrary/sim/AirFaults.h"
#include "QueltLibrary/sim/LinkParameters.h"
#include "QueltLibrary/sim/SimDeviceConfig.h"

namespace qlt::sim {

struct RadioConfig {
  bool powered = true;
  AirFaults faults;
  LinkParameters link;  // the radio's; a device's own starts from it
  std::vector<SimDeviceConfig> devices;
};

// Fills `config` from `json`; false with `error` set when the text is not a valid
// configuration (then `config` is left as it was).
bool parseRadioConfig(std::string_view json, RadioConfig& config, std::string& error);

}  // namespace qlt::sim
