#include "platform/bluez/BluezIdentifiers.h"

#include <algorithm>
#include <cstdio>

#include "core/Hex.h"

namespace qlt::bluez {

std::optional<Address> parseAddress(std::string_view text) {
  if (text.size() != 17) return std::nullopt;
  Address out{};
  for (size_t i = 0; i < out.size(); ++i) {
    const size_t at = i * 3;
    if (i > 0 && text[at - 1] != ':') return std::nullopt;
    const int hi = hexDigitValue(text[at]);
    const int lo = hexDigitValue(text[at + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out[i] = static_cast<uint8_t>(hi << 4 | lo);
  }
  return out;
}

std::string addressString(const Address& address) {
  char text[18];
  std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", address[0], address[1],
                address[2], address[3], address[4], address[5]);
  return text;
}

UUID identifierForAddress(const Address& address) {
  UUID::Bytes bytes{};
  std::copy(kIdentifierPrefix.begin(), kIdentifierPrefix.end(), bytes.begin());
  std::copy(address.begin(), address.end(), bytes.begin() + kIdentifierPrefix.size());
  return UUID(bytes);
}

std::optional<Address> addressForIdentifier(const UUID& identifier) {
  const auto& bytes = identifier.bytes();
  if (!std::equal(kIdentifierPrefix.begin(), kIdentifierPrefix.end(), bytes.begin())) {
    return std::nullopt;
  }
  Address out{};
  std::copy(bytes.begin() + kIdentifierPrefix.size(), bytes.end(), out.begin());
  return out;
}

}  // namespace qlt::bluez
