// DeviceBehaviour: what a simulated device does with its UART service during one link.
//
// The link makes one behaviour per connection (make()) and calls it on the link's device
// queue only: connected, then any number of notificationsChanged and written (each value
// the central wrote to 6E400002), then disconnected, after which it is dropped. A
// behaviour answers through the link's notify(), from any thread; the link is held
// weakly, so a behaviour that outlives it sends nothing.
#pragma once

#include <memory>

#include "QueltLibrary/Data.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/sim/SimDeviceConfig.h"

namespace qlt::sim {

class SimLink;

class DeviceBehaviour {
 public:
  static std::shared_ptr<DeviceBehaviour> make(const SimDeviceConfig& config,
                                               const std::shared_ptr<SimLink>& link,
                                               const std::shared_ptr<DispatchQueue>& deviceQueue);
  virtual ~DeviceBehaviour() = default;

  virtual void connected() {}
  virtual void notificationsChanged(bool enabled) {}
  virtual void written(const Data& value) {}
  virtual void disconnected() {}
};

}  // namespace qlt::sim
