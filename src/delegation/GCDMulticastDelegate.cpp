#include "QueltLibrary/GCDMulticastDelegate.h"

#include <algorithm>

namespace qlt {

void GCDMulticastDelegate::addDelegate(const std::shared_ptr<Delegate>& delegate) {
  addDelegate(delegate, DispatchQueue::main());
}

void GCDMulticastDelegate::addDelegate(const std::shared_ptr<Delegate>& delegate,
                                       const std::shared_ptr<DispatchQueue>& delegateQueue) {
  if (!delegate || !delegateQueue) return;
  auto node = std::make_shared<GCDMulticastDelegateNode>(delegate, delegateQueue);
  std::lock_guard lock(mutex_);
  delegateNodes_.push_back(std::move(node));
}

void GCDMulticastDelegate::removeDelegate(const Delegate* delegate,
                                          const DispatchQueue* delegateQueue) {
  if (!delegate) return;
  GCDMulticastDelegateNodes removed;
  {
    std::lock_guard lock(mutex_);
    for (size_t i = delegateNodes_.size(); i-- > 0;) {
      const auto& node = delegateNodes_[i];
      if (node->delegate().get() != delegate) continue;
      if (delegateQueue && node->delegateQueue().get() != delegateQueue) continue;
      removed.push_back(node);
      delegateNodes_.erase(delegateNodes_.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
  // Clearing waits for a delivery that is queueing a call to this node right now; after
  // it, no new call can reach the delegate through these nodes.
  for (const auto& node : removed) node->setDelegate(nullptr);
}

void GCDMulticastDelegate::removeAllDelegates() {
  GCDMulticastDelegateNodes removed;
  {
    std::lock_guard lock(mutex_);
    removed.swap(delegateNodes_);
  }
  for (const auto& node : removed) node->setDelegate(nullptr);
}

size_t GCDMulticastDelegate::count() const {
  std::lock_guard lock(mutex_);
  return delegateNodes_.size();
}

GCDMulticastDelegateNodes GCDMulticastDelegate::snapshot() const {
  std::lock_guard lock(mutex_);
  return delegateNodes_;
}

void GCDMulticastDelegate::pruneGoneDelegates() const {
  // Nodes are checked outside the list lock (a node's lock is never taken under it when
  // a delivery could hold it), then removed together.
  GCDMulticastDelegateNodes gone;
  for (const auto& node : snapshot()) {
    if (!node->delegate()) gone.push_back(node);
  }
  if (gone.empty()) return;
  std::lock_guard lock(mutex_);
  std::erase_if(delegateNodes_, [&](const auto& node) {
    return std::find(gone.begin(), gone.end(), node) != gone.end();
  });
}

}  // namespace qlt
