// The "everything acknowledged" event of BaseTransport: a flag set when bytes are accepted
// and cleared, with one call of the handler, when unacknowledged() is found at 0 after.
#include "QueltLibrary/BaseTransport.h"

namespace qlt {

void BaseTransport::setAllAcknowledgedHandler(std::function<void()> handler) {
  std::lock_guard lock(ackMutex_);
  allAcknowledged_ =
      handler ? std::make_shared<const std::function<void()>>(std::move(handler)) : nullptr;
}

void BaseTransport::noteAccepted() {
  {
    std::lock_guard lock(ackMutex_);
    outstanding_ = true;
  }
  noteReleased();  // an answer may have released everything before the flag was set
}

void BaseTransport::noteReleased() {
  std::shared_ptr<const std::function<void()>> handler;
  {
    std::lock_guard lock(ackMutex_);
    if (!outstanding_ || unacknowledged() != 0) return;
    outstanding_ = false;
    handler = allAcknowledged_;
  }
  if (handler) (*handler)();
}

}  // namespace qlt
