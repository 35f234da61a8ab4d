#include "QueltLibrary/Data.h"

#include <algorithm>
#include <cstring>

namespace qlt {

Data::Data(const uint8_t* bytes, size_t length) : length_(length) {
  if (length == 0) return;
  storage_ = std::make_shared_for_overwrite<uint8_t[]>(length);
  std::memcpy(storage_.get(), bytes, length);
}

Data Data::fromString(std::string_view text) {
  return Data(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

Data Data::subdata(size_t offset, size_t count) const {
  if (offset >= length_) return {};
  count = std::min(count, length_ - offset);
  return Data(bytes() + offset, count);
}

std::string Data::description() const {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 + length_ * 2 + length_ / 4);
  out.push_back('<');
  for (size_t i = 0; i < length_; ++i) {
    if (i > 0 && i % 4 == 0) out.push_back(' ');
    out.push_back(kHex[storage_[i] >> 4]);
    out.push_back(kHex[storage_[i] & 0x0f]);
  }
  out.push_back('>');
  return out;
}

bool operator==(const Data& a, const Data& b) {
  if (a.length_ != b.length_) return false;
  return a.length_ == 0 || std::memcmp(a.bytes(), b.bytes(), a.length_) == 0;
}

}  // namespace qlt
