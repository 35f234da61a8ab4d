// Data: the library's immutable byte buffer.
//
// Every payload and frame that crosses an interface travels as a Data. Copies are cheap:
// the bytes live in one shared, immutable allocation, so a payload fanned out to eight
// delegates is stored once. A default-constructed Data is empty.
//
// Thread safety: a Data may be copied and read from any number of threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "QueltLibrary/Export.h"

namespace qlt {

class QLT_EXPORT Data {
 public:
  Data() = default;
  // Copies `length` bytes from `bytes` (which may be null only when `length` is 0).
  Data(const uint8_t* bytes, size_t length);
  explicit Data(std::span<const uint8_t> bytes) : Data(bytes.data(), bytes.size()) {}
  // The bytes of a text, without a terminating NUL.
  static Data fromString(std::string_view text);

  const uint8_t* bytes() const { return storage_ ? storage_.get() : nullptr; }
  size_t length() const { return length_; }
  size_t size() const { return length_; }
  bool empty() const { return length_ == 0; }
  std::span<const uint8_t> span() const { return {bytes(), length_}; }
  uint8_t operator[](size_t i) const { return bytes()[i]; }
  // A new Data with bytes [offset, offset + count) of this one (clamped to its length).
  Data subdata(size_t offset, size_t count) const;

  // "<01020304 05>": hexadecimal, grouped by four bytes, as the log lines print data.
  std::string description() const;
  // The bytes as text (no validation).
  std::string toString() const {
    return std::string(reinterpret_cast<const char*>(bytes()), length_);
  }

  friend bool operator==(const Data& a, const Data& b);

 private:
  std::shared_ptr<uint8_t[]> storage_;
  size_t length_ = 0;
};

}  // namespace qlt
