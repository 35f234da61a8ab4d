#include "QueltLibrary/QLT_UUID.h"

namespace qlt {

UUID QLT_UUID::uartServiceUUID() { return UUID::literal("6e400001-b5a3-f393-e0a9-e50e24dcca9e"); }
UUID QLT_UUID::txCharacteristicUUID() {
  return UUID::literal("6e400002-b5a3-f393-e0a9-e50e24dcca9e");
}
UUID QLT_UUID::rxCharacteristicUUID() {
  return UUID::literal("6e400003-b5a3-f393-e0a9-e50e24dcca9e");
}

}  // namespace qlt
