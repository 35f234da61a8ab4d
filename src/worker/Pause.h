// How long a HANDLE wait pauses between its passes, from the seconds its caller gave.
// Internal.
#pragma once

#include <chrono>
#include <optional>

namespace qlt::detail {

// Pauses longer than this sleep for good: converting them to the clock's integer count
// would overflow, which is undefined.
constexpr double kLongestPauseS = 1e9;  // about 31 years

// The pause for `seconds`: zero for NaN and anything not above 0, nullopt (for good) from
// kLongestPauseS on, infinity included; never an integer count that overflowed.
inline std::optional<std::chrono::nanoseconds> pauseFor(double seconds) {
  if (!(seconds > 0)) return std::chrono::nanoseconds(0);
  if (seconds >= kLongestPauseS) return std::nullopt;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(seconds));
}

}  // namespace qlt::detail
