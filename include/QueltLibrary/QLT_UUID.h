// QLT_UUID: the identifiers of the Nordic UART Service (NUS).
//
// `tx` and `rx` are named from the library's (the central's) side: the library writes to
// tx (6E400002-...) and receives notifications from rx (6E400003-...). Each call builds a
// new value; nothing is cached.
//
// Thread safety: stateless; call from any thread.
#pragma once

#include "QueltLibrary/Export.h"
#include "QueltLibrary/UUID.h"

namespace qlt {

class QLT_EXPORT QLT_UUID {
 public:
  QLT_UUID() = delete;
  // 6E400001-B5A3-F393-E0A9-E50E24DCCA9E: the service, the only one asked for in discovery.
  static UUID uartServiceUUID();
  // 6E400002-B5A3-F393-E0A9-E50E24DCCA9E: the characteristic the library writes to.
  static UUID txCharacteristicUUID();
  // 6E400003-B5A3-F393-E0A9-E50E24DCCA9E: the characteristic whose notifications it receives.
  static UUID rxCharacteristicUUID();
};

}  // namespace qlt
