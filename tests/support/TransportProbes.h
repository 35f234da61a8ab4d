// Probes for transport tests: a sender delegate that keeps every frame written (with its
// time), and a receiver that keeps every payload delivered (on its own serial queue).
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "QueltLibrary/BLESlideWindow.h"
#include "QueltLibrary/BaseTransport.h"
#include "QueltLibrary/DispatchQueue.h"

namespace qlt::test {

class FrameSink : public TransportSenderDelegate, public BLESlideWindowSenderDelegate {
 public:
  struct Frame {
    Data data;
    std::chrono::steady_clock::time_point at;
  };
  void transport_requestWriteData(const std::shared_ptr<BaseTransport>&, const Data& d) override {
    add(d);
  }
  void slideWindow_requestWriteData(const std::shared_ptr<BLESlideWindow>&, const Data& d) override {
    add(d);
  }
  // Every frame so far; forgets them.
  std::vector<Data> take() {
    std::lock_guard lock(mutex_);
    std::vector<Data> out;
    for (auto& f : frames_) out.push_back(f.data);
    frames_.clear();
    return out;
  }
  std::vector<Frame> timed() const {
    std::lock_guard lock(mutex_);
    return frames_;
  }
  size_t size() const { return timed().size(); }

 private:
  void add(const Data& d) {
    std::lock_guard lock(mutex_);
    frames_.push_back({d, std::chrono::steady_clock::now()});
  }
  mutable std::mutex mutex_;
  std::vector<Frame> frames_;
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
  // The payloads so far, once every delivery queued before this call has run.
  std::vector<Data> tcp() { return get(tcp_); }
  std::vector<Data> udp() { return get(udp_); }
  // Deliveries that ran anywhere but on queue().
  size_t offQueue() {
    queue_->sync([] {});
    std::lock_guard lock(mutex_);
    return offQueue_;
  }

 private:
  void add(std::vector<Data>& to, const Data& d) {
    std::lock_guard lock(mutex_);
    to.push_back(d);
    if (!queue_->isCurrent()) ++offQueue_;
  }
  std::vector<Data> get(const std::vector<Data>& from) {
    queue_->sync([] {});
    std::lock_guard lock(mutex_);
    return from;
  }
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::create("PayloadInbox");
  std::mutex mutex_;
  std::vector<Data> tcp_, udp_;
  size_t offQueue_ = 0;
};

}  // namespace qlt::test
