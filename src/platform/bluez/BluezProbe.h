// Whether BlueZ is there to be used: a bluetoothd on the system bus with at least one
// adapter. Asked once when the library picks its platform with no choice made for it.
#pragma once

#include <chrono>
#include <string>

namespace qlt::bluez {

// Asks org.bluez on the system bus for its objects (GetManagedObjects) and looks for an
// org.bluez.Adapter1. True when one is there; otherwise false and `why` says what was
// missing (no bus, no bluetoothd, no adapter). Blocks the caller for at most about
// `timeout` (a missing bus answers at once). Any thread; opens and closes a bus connection
// of its own.
bool bluetoothdWithAdapterAnswers(std::chrono::milliseconds timeout, std::string* why);

}  // namespace qlt::bluez
