// Probes for transport tests: a sender delegate that keeps every frame written, and a
// receiver that keeps every payload delivered (on its own serial queue).
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "QueltLibrary/BLESlideWindow.h"
#include "QueltLibrary/BaseTransport.h"
#include "QueltLibrary/DispatchQueue.h"

namespace qlt::test {

// Keeps every frame written through it, with the steady-clock time of the write.
class FrameSink : public TransportSenderDelegate, public BLESlideWindowSenderDelegate {
 public:
  struct Frame {
    Data data;
    std::chrono::steady_clock::time_point at;
  };
  void transport_requestWriteData(const std::shared_ptr<BaseTransport>&,
                                  const Data& data) override {
    add(data);
  }
  void slideWindow_requestWriteData(const std::shared_ptr<BLESlideWindow>&,
                                    const Data& data) override {
    add(data);
  }
  // Every frame so far, and forgets them.
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
  size_t size() const {
    std::lock_guard lock(mutex_);
    return frames_.size();
  }

 private:
  void add(const Data& data) {
    std::lock_guard lock(mutex_);
    frames_.push_back({data, std::chrono::steady_clock::now()});
  }
  mutable std::mutex mutex_;
  std::vector<Frame> frames_;
};

// Keeps every payload delivered to it, as a transport's or a slide window's delegate.
class PayloadInbox : public TransportDelegate, public BLESlideWindowDelegate {
 public:
  PayloadInbox() : queue_(DispatchQueue::create("PayloadInbox")) {}
  const std::shared_ptr<DispatchQueue>& queue() const { return queue_; }

  void transport_tcpDataReceived(const std::shared_ptr<BaseTransport>&, const Data& d) override {
    addTcp(d);
  }
  void transport_udpDataReceived(const std::shared_ptr<BaseTransport>&, const Data& d) override {
    addUdp(d);
  }
  void slideWindow_tcpDataReceived(const std::shared_ptr<BLESlideWindow>&, const Data& d) override {
    addTcp(d);
  }
  void slideWindow_udpDataReceived(const std::shared_ptr<BLESlideWindow>&, const Data& d) override {
    addUdp(d);
  }

  // The payloads so far, after every delivery queued before this call has run.
  std::vector<Data> tcp() {
    queue_->sync([] {});
    std::lock_guard lock(mutex_);
    return tcp_;
  }
  std::vector<Data> udp() {
    queue_->sync([] {});
    std::lock_guard lock(mutex_);
    return udp_;
  }

 private:
  void addTcp(const Data& d) {
    std::lock_guard lock(mutex_);
    tcp_.push_back(d);
  }
  void addUdp(const Data& d) {
    std::lock_guard lock(mutex_);
    udp_.push_back(d);
  }
  std::shared_ptr<DispatchQueue> queue_;
  std::mutex mutex_;
  std::vector<Data> tcp_, udp_;
};

}  // namespace qlt::test
