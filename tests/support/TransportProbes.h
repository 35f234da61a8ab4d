// Probes for transport tests: counting bytes, a sender delegate that keeps every frame written, and
// a receiver that keeps every payload delivered (on its own serial queue).
#pragma once

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "QueltLibrary/BLESlideWindow.h"
#include "QueltLibrary/BaseTransport.h"
#include "QueltLibrary/DispatchQueue.h"

namespace qlt::test {

// `n` bytes counting up from `start`.
inline Data bytes(size_t n, uint8_t start = 0) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(start + i);
  return Data(v);
}

class FrameSink : public TransportSenderDelegate, public BLESlideWindowSenderDelegate {
 public:
  void transport_requestWriteData(const std::shared_ptr<BaseTransport>&, const Data& d) override {
    std::lock_guard lock(mutex_);
    frames_.push_back(d);
  }
  void slideWindow_requestWriteData(const std::shared_ptr<BLESlideWindow>&,
                                    const Data& d) override {
    transport_requestWriteData(nullptr, d);
  }
  // Every frame so far; forgets them.
  std::vector<Data> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(frames_, {});
  }
  size_t size() const {
    std::lock_guard lock(mutex_);
    return frames_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Data> frames_;  // guarded by mutex_
};

class PayloadInbox : public TransportDelegate, public BLESlideWindowDelegate {
 public:
  const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }
  void transport_tcpDataReceived(const std::shared_ptr<BaseTransport>&, const Data& d) override {
    add(tcp_, d);
  }
  void transport_udpDataReceived(const std::shared_ptr<BaseTransport>&, const Data& d) override {
    add(udp_, d);
  }
  void slideWindow_tcpDataReceived(const std::shared_ptr<BLESlideWindow>&, const Data& d) override {
    add(tcp_, d);
  }
  void slideWindow_udpDataReceived(const std::shared_ptr<BLESlideWindow>&, const Data& d) override {
    add(udp_, d);
  }
  // What arrived (and how much of it ran anywhere but on queue()), once every delivery
  // queued before the call has run.
  std::vector<Data> tcp() { return flushed(tcp_); }
  std::vector<Data> udp() { return flushed(udp_); }
  size_t offQueue() { return flushed(offQueue_); }

 private:
  void add(std::vector<Data>& to, const Data& d) {
    std::lock_guard lock(mutex_);
    to.push_back(d);
    offQueue_ += !queue_->isCurrent();
  }
  template <class T>
  T flushed(const T& field) {
    queue_->sync([] {});
    std::lock_guard lock(mutex_);
    return field;
  }
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::create("PayloadInbox");
  std::mutex mutex_;
  std::vector<Data> tcp_, udp_;  // guarded by mutex_
  size_t offQueue_ = 0;          // guarded by mutex_
};

}  // namespace qlt::test
