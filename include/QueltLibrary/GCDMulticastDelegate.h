// GCDMulticastDelegate: fans one callback out to many delegates, each on its own queue.
//
// The owner sends a callback once:
//
//   multicastDelegate()->invoke(&TransportDelegate::transport_tcpDataReceived, self, data);
//
// and every live delegate in the list that implements the callback's interface gets its
// own copy of the call (the arguments are copied into a task that also holds the delegate
// strongly), submitted asynchronously to that delegate's queue, in list order. Delegates
// that do not implement it are passed over in silence; nodes whose delegate has gone are
// pruned after the walk. The sender never waits and never learns who was called.
//
// Thread safety: any thread may invoke, add, remove, count or enumerate at any time. The
// node list is guarded by a short lock (a walk works on a snapshot); each node's delegate
// by the node's own lock, which a delivery holds from reading the delegate until its task
// is queued. So once removeDelegate() has returned, no new call can reach that delegate;
// calls queued before still arrive. No user code ever runs under either lock.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "QueltLibrary/Delegate.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/Export.h"

namespace qlt {

// One delegate and its queue.
class QLT_EXPORT GCDMulticastDelegateNode {
 public:
  GCDMulticastDelegateNode(const std::shared_ptr<Delegate>& delegate,
                           std::shared_ptr<DispatchQueue> delegateQueue)
      : delegate_(delegate), delegateQueue_(std::move(delegateQueue)) {}

  // The delegate, or null once it has been destroyed or cleared.
  std::shared_ptr<Delegate> delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
  }
  void setDelegate(const std::shared_ptr<Delegate>& delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = delegate;
  }
  const std::shared_ptr<DispatchQueue>& delegateQueue() const { return delegateQueue_; }

  // Queues `makeTask(delegate)` on the delegate's queue if the delegate is alive and
  // `accepts` it. Returns false when the delegate is gone.
  template <class Accepts, class MakeTask>
  bool deliver(Accepts&& accepts, MakeTask&& makeTask) const {
    std::lock_guard lock(mutex_);
    std::shared_ptr<Delegate> d = delegate_.lock();
    if (!d) return false;
    if (accepts(d.get())) delegateQueue_->async(makeTask(std::move(d)));
    return true;
  }

 private:
  mutable std::mutex mutex_;
  std::weak_ptr<Delegate> delegate_;  // guarded by mutex_
  const std::shared_ptr<DispatchQueue> delegateQueue_;
};

using GCDMulticastDelegateNodes = std::vector<std::shared_ptr<GCDMulticastDelegateNode>>;

// A walk over a snapshot of the node list. Made for one walk, by one thread.
class QLT_EXPORT GCDMulticastDelegateEnumerator {
 public:
  explicit GCDMulticastDelegateEnumerator(GCDMulticastDelegateNodes nodes)
      : delegateNodes_(std::move(nodes)), numNodes_(delegateNodes_.size()) {}

  size_t count() const { return numNodes_; }
  template <class T>
  size_t countOfClass() const {
    return countIf([](Delegate* d) { return dynamic_cast<T*>(d) != nullptr; });
  }
  template <class Callback>
  size_t countForSelector() const {
    return countOfClass<Callback>();
  }

  // The next live delegate of the snapshot and its queue; false at the end. Either out
  // argument may be null.
  bool getNextDelegate(std::shared_ptr<Delegate>* delegate,
                       std::shared_ptr<DispatchQueue>* delegateQueue) {
    return next([](Delegate*) { return true; }, delegate, delegateQueue);
  }
  template <class T>
  bool getNextDelegateOfClass(std::shared_ptr<Delegate>* delegate,
                              std::shared_ptr<DispatchQueue>* delegateQueue) {
    return next([](Delegate* d) { return dynamic_cast<T*>(d) != nullptr; }, delegate,
                delegateQueue);
  }
  template <class Callback>
  bool getNextDelegateForSelector(std::shared_ptr<Delegate>* delegate,
                                  std::shared_ptr<DispatchQueue>* delegateQueue) {
    return getNextDelegateOfClass<Callback>(delegate, delegateQueue);
  }

 private:
  template <class Pred>
  size_t countIf(Pred pred) const {
    size_t n = 0;
    for (const auto& node : delegateNodes_) {
      auto d = node->delegate();
      if (d && pred(d.get())) ++n;
    }
    return n;
  }
  template <class Pred>
  bool next(Pred pred, std::shared_ptr<Delegate>* delegate,
            std::shared_ptr<DispatchQueue>* delegateQueue) {
    while (currentNodeIndex_ < numNodes_) {
      const auto& node = delegateNodes_[currentNodeIndex_++];
      auto d = node->delegate();
      if (!d || !pred(d.get())) continue;
      if (delegate) *delegate = std::move(d);
      if (delegateQueue) *delegateQueue = node->delegateQueue();
      return true;
    }
    return false;
  }

  const GCDMulticastDelegateNodes delegateNodes_;
  const size_t numNodes_;
  size_t currentNodeIndex_ = 0;
};

class QLT_EXPORT GCDMulticastDelegate {
 public:
  GCDMulticastDelegate() = default;
  ~GCDMulticastDelegate() { removeAllDelegates(); }
  GCDMulticastDelegate(const GCDMulticastDelegate&) = delete;
  GCDMulticastDelegate& operator=(const GCDMulticastDelegate&) = delete;

  // Appends a node; no duplicate check (QLT_Object does that). Null arguments are ignored.
  void addDelegate(const std::shared_ptr<Delegate>& delegate);  // on the main queue
  void addDelegate(const std::shared_ptr<Delegate>& delegate,
                   const std::shared_ptr<DispatchQueue>& delegateQueue);
  // Removes every node of this very delegate object (on `delegateQueue` only, when given),
  // clearing each node's delegate first.
  void removeDelegate(const Delegate* delegate, const DispatchQueue* delegateQueue = nullptr);
  void removeAllDelegates();

  size_t count() const;  // includes nodes whose delegate has gone
  template <class T>
  size_t countOfClass() const {
    return delegateEnumerator().countOfClass<T>();
  }
  template <class Callback>
  size_t countForSelector() const {
    return delegateEnumerator().countForSelector<Callback>();
  }
  template <class Callback>
  bool hasDelegateThatRespondsToSelector() const {
    auto e = delegateEnumerator();
    return e.getNextDelegateForSelector<Callback>(nullptr, nullptr);
  }
  GCDMulticastDelegateEnumerator delegateEnumerator() const {
    return GCDMulticastDelegateEnumerator(snapshot());
  }

  // Sends `method` with `args` to every delegate that implements `Callback`. Arguments
  // are copied once per delegate; the callbacks return nothing.
  template <class Callback, class... Params, class... Args>
  void invoke(void (Callback::*method)(Params...), const Args&... args) const {
    bool sawGone = false;
    for (const auto& node : snapshot()) {
      const bool alive =
          node->deliver([](Delegate* d) { return dynamic_cast<Callback*>(d) != nullptr; },
                        [&](std::shared_ptr<Delegate> d) {
                          return [d = std::move(d), method,
                                  call = std::tuple<std::decay_t<Params>...>(args...)]() mutable {
                            auto* target = dynamic_cast<Callback*>(d.get());
                            std::apply([&](auto&... a) { (target->*method)(a...); }, call);
                          };
                        });
      if (!alive) sawGone = true;
    }
    if (sawGone) pruneGoneDelegates();
  }

 private:
  GCDMulticastDelegateNodes snapshot() const;
  void pruneGoneDelegates() const;

  mutable std::mutex mutex_;
  mutable GCDMulticastDelegateNodes delegateNodes_;  // guarded by mutex_
};

}  // namespace qlt
