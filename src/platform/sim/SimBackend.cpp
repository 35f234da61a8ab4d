#include "SimBackend.h"

#include "SimCentral.h"

namespace qlt::sim {

std::shared_ptr<platform::Central> SimBackend::createCentral(
    const std::shared_ptr<platform::CentralDelegate>& delegate,
    const std::shared_ptr<DispatchQueue>& queue, const platform::CentralOptions& options) {
  // showPowerAlert has nothing to show on a simulated radio.
  return SimCentral::create(radio_, delegate, queue);
}

}  // namespace qlt::sim
