// What UartLink's values read as.
#include <iterator>

#include "QueltLibrary/UartLink.h"

namespace qlt {

const char* toString(UartLink::State state) {
  static constexpr const char* kNames[] = {"disconnected", "connecting", "connected",
                                           "reconnecting", "lost"};
  const auto i = static_cast<size_t>(state);
  return i < std::size(kNames) ? kNames[i] : "invalid";
}

}  // namespace qlt
