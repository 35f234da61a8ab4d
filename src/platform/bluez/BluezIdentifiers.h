// Device identifiers of the BlueZ backend.
//
// The library names devices by UUID; BlueZ names them by Bluetooth address. The mapping
// is fixed and reversible: the UUID's first ten bytes are a constant namespace prefix and
// its last six bytes are the address, most significant byte first. So the device
// C0:FF:EE:00:00:01 is
//
//     514C5442-5A00-8000-8000-C0FFEE000001
//
// and an identifier kept in the known-device store leads back to the same address in
// every later run, on any machine. The address type (public or random) is not encoded:
// BlueZ itself names its device objects by address alone. Prefix bytes: "QLTB" "Z", then
// the version (8, vendor-defined) and variant (RFC 4122) nibbles of a custom UUID.
//
// Thread safety: pure functions.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "QueltLibrary/UUID.h"

namespace qlt::bluez {

using Address = std::array<uint8_t, 6>;

inline constexpr std::array<uint8_t, 10> kIdentifierPrefix = {0x51, 0x4C, 0x54, 0x42, 0x5A,
                                                              0x00, 0x80, 0x00, 0x80, 0x00};

// "C0:FF:EE:00:00:01" (either case) → bytes; empty for anything else.
std::optional<Address> parseAddress(std::string_view text);
// Bytes → "C0:FF:EE:00:00:01".
std::string addressString(const Address& address);

UUID identifierForAddress(const Address& address);
// The address inside an identifier made by identifierForAddress; empty for other UUIDs.
std::optional<Address> addressForIdentifier(const UUID& identifier);

}  // namespace qlt::bluez
