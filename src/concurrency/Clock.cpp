#include "QueltLibrary/Clock.h"

namespace qlt {

namespace {

class MonotonicClock final : public Clock {
 public:
  double now() const override {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
  }
};

}  // namespace

const std::shared_ptr<Clock>& Clock::monotonic() {
  static const auto* clock = new std::shared_ptr<Clock>(std::make_shared<MonotonicClock>());
  return *clock;
}

}  // namespace qlt
