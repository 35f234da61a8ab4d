#include "QueltLibrary/UUID.h"

#include <cstdio>
#include <cstdlib>

#include "core/Hex.h"

namespace qlt {

namespace {

// Reads 2*n hex digits from text into out; false on any non-hex character.
bool readHex(std::string_view text, uint8_t* out, size_t n) {
  if (text.size() != 2 * n) return false;
  for (size_t i = 0; i < n; ++i) {
    const int hi = hexDigitValue(text[2 * i]);
    const int lo = hexDigitValue(text[2 * i + 1]);
    if (hi < 0 || lo < 0) return false;
    out[i] = static_cast<uint8_t>(hi << 4 | lo);
  }
  return true;
}

// 0000xxxx-0000-1000-8000-00805F9B34FB, the Bluetooth base UUID.
constexpr UUID::Bytes kBase = {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00,
                               0x80, 0x00, 0x00, 0x80, 0x5f, 0x9b, 0x34, 0xfb};

}  // namespace

std::optional<UUID> UUID::fromString(std::string_view text) {
  Bytes b = kBase;
  if (text.size() == 4) {
    if (!readHex(text, &b[2], 2)) return std::nullopt;
    return UUID(b);
  }
  if (text.size() == 8) {
    if (!readHex(text, &b[0], 4)) return std::nullopt;
    return UUID(b);
  }
  if (text.size() != 36 || text[8] != '-' || text[13] != '-' || text[18] != '-' ||
      text[23] != '-') {
    return std::nullopt;
  }
  if (!readHex(text.substr(0, 8), &b[0], 4) || !readHex(text.substr(9, 4), &b[4], 2) ||
      !readHex(text.substr(14, 4), &b[6], 2) || !readHex(text.substr(19, 4), &b[8], 2) ||
      !readHex(text.substr(24, 12), &b[10], 6)) {
    return std::nullopt;
  }
  return UUID(b);
}

UUID UUID::literal(std::string_view text) {
  auto u = fromString(text);
  if (!u) {
    std::fprintf(stderr, "QueltLibrary: malformed UUID literal '%.*s'\n",
                 static_cast<int>(text.size()), text.data());
    std::abort();
  }
  return *u;
}

std::string UUID::UUIDString() const {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
    out.push_back(kHex[bytes_[i] >> 4]);
    out.push_back(kHex[bytes_[i] & 0x0f]);
  }
  return out;
}

}  // namespace qlt

size_t std::hash<qlt::UUID>::operator()(const qlt::UUID& u) const noexcept {
  // FNV-1a over the 16 bytes.
  uint64_t h = 1469598103934665603ull;
  for (uint8_t b : u.bytes()) {
    h ^= b;
    h *= 1099511628211ull;
  }
  return static_cast<size_t>(h);
}
