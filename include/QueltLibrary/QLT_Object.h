// QLT_Object: the base of every object with delegates (a "module").
//
// A module owns a serial queue (its module queue, labelled with its class name unless one
// is given), a tag by which code can tell that it runs on that queue, and a multicast
// delegate through which it calls its delegates. Every change of the delegate list runs
// on the module queue: inline when the caller already runs there, otherwise submitted
// (adding) or waited for (removing).
//
// Modules are made by the static create() of each class and live in std::shared_ptr.
//
// Thread safety: addDelegate/removeDelegate may be called from any thread.
// removeDelegate() returns only when no new callback can reach the removed delegate; do
// not call it synchronously from a thread the module queue is itself waiting for.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "QueltLibrary/Delegate.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/GCDMulticastDelegate.h"

namespace qlt {

class QLT_EXPORT QLT_Object : public std::enable_shared_from_this<QLT_Object> {
 public:
  virtual ~QLT_Object();
  QLT_Object(const QLT_Object&) = delete;
  QLT_Object& operator=(const QLT_Object&) = delete;

  // The name of the most derived class, e.g. "ComTimer".
  const std::string& moduleName() const { return moduleName_; }
  // Made on first use (a module that never needs its queue, such as a ComTimer, costs no
  // queue); the same queue from then on.
  const std::shared_ptr<DispatchQueue>& moduleQueue() const;
  const std::shared_ptr<GCDMulticastDelegate>& multicastDelegate() const {
    return multicastDelegate_;
  }
  // Whether the calling thread runs on the module queue now.
  bool isOnModuleQueue() const;

  // Adds `delegate`, bound to `delegateQueue` (the main queue by default). A delegate
  // already present is removed first, with the log line "Already in the queue".
  void addDelegate(const std::shared_ptr<Delegate>& delegate);
  void addDelegate(const std::shared_ptr<Delegate>& delegate,
                   const std::shared_ptr<DispatchQueue>& delegateQueue);
  // Removes every entry of `delegate` (on `delegateQueue` only, when given).
  void removeDelegate(const std::shared_ptr<Delegate>& delegate,
                      const std::shared_ptr<DispatchQueue>& delegateQueue = nullptr,
                      bool synchronously = true);
  // If `delegate` is present: logs "Already in the queue" and removes it.
  void removeDuplicateDelegate(const std::shared_ptr<Delegate>& delegate);

 protected:
  // `className` names the most derived class; `queue` is shared when given.
  explicit QLT_Object(std::string className, std::shared_ptr<DispatchQueue> queue = nullptr);

  // Hook called on the module queue after each addition (true) and removal (false).
  virtual void deviceObject_delegate_attached(QLT_Object* /*module*/,
                                              const std::shared_ptr<Delegate>& /*delegate*/,
                                              bool /*attached*/) {}

 private:
  void runOnModuleQueue(DispatchQueue::Task task, bool synchronously);

  const std::string moduleName_;
  const char moduleQueueTag_ = 0;  // its address is the tag
  mutable std::once_flag moduleQueueMade_;
  mutable std::shared_ptr<DispatchQueue> moduleQueue_;  // set in the constructor or once, above
  const std::shared_ptr<GCDMulticastDelegate> multicastDelegate_;
};

}  // namespace qlt
