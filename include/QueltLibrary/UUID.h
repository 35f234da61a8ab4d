// UUID: a 128-bit Bluetooth identifier (services, characteristics and devices).
//
// Parsing accepts the canonical 36-character form in either case, and the 16- and 32-bit
// short forms of the Bluetooth base UUID ("180D", "0000180D"). Bad text yields an empty
// optional, never an exception. The canonical text is upper-case with hyphens, as device
// identifiers are stored.
//
// Thread safety: a value type; copies may be used from any thread.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "QueltLibrary/Export.h"

namespace qlt {

class QLT_EXPORT UUID {
 public:
  using Bytes = std::array<uint8_t, 16>;

  constexpr UUID() = default;
  constexpr explicit UUID(const Bytes& bytes) : bytes_(bytes) {}

  static std::optional<UUID> fromString(std::string_view text);
  // For identifiers fixed in the source: terminates with a clear message on bad text.
  static UUID literal(std::string_view text);

  // "6E400001-B5A3-F393-E0A9-E50E24DCCA9E"
  std::string UUIDString() const;
  std::string description() const { return UUIDString(); }
  const Bytes& bytes() const { return bytes_; }

  friend constexpr auto operator<=>(const UUID&, const UUID&) = default;

 private:
  Bytes bytes_{};
};

}  // namespace qlt

template <>
struct std::hash<qlt::UUID> {
  size_t operator()(const qlt::UUID& u) const noexcept;
};
