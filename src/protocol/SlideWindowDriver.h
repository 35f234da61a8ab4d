// SlideWindowDriver: runs one link's sliding-window core (swcore/qlt_sw.h) on one serial
// queue, its strand.
//
// Everything that touches the core happens on the strand, one task at a time, so the core
// needs no lock: sendTCP is posted there (run at once when the caller already is on it),
// a received frame runs there in a sync() (on the receiving thread, once the strand is
// free: no hop through the pool for every notification), and the rounds run there when the core's
// next deadline comes (a RoundPacer on the strand, as the chunker's rounds) or at once when a
// received acknowledgement lets segments go. Received segments owe an answer after the ack
// delay (1 ms), so segments arriving together draw one acknowledgement. Between rounds
// nothing runs: an idle link costs no thread and no wake-up.
//
// The core's send queue holds a fixed number of segments; bytes beyond it wait in the
// driver, in the messages they came in (so each still starts a segment of its own), and
// go into the core as acknowledgements free its slots: sendTCP has no bound.
//
// Outputs run on the strand: frames to write (a datagram on sendUDP's caller's thread, in a
// sync() on the strand), payloads delivered, and the all-acknowledged handler. The driver holds
// no lock while it calls them; they may call back into the driver.
//
// Threads: every public function from any thread. The ones that read or drive the core
// (transfer, counters, ...) run on the strand through sync(): inline when called from it.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/Data.h"
#include "QueltLibrary/DispatchQueue.h"
#include "QueltLibrary/SlideWindowCounters.h"
#include "swcore/qlt_sw.h"
#include "worker/RoundPacer.h"

namespace qlt {

// Called for every frame written (outgoing = true) and every value received.
using FrameTrace = std::function<void(bool outgoing, const Data& frame)>;

struct SlideWindowParameters {
  size_t segmentSize;  // payload bytes per segment (1..160); datagrams must be shorter
  double pollTimeout;  // the longest wait without an answer before a status poll, seconds
};

class SlideWindowDriver : public std::enable_shared_from_this<SlideWindowDriver> {
 public:
  struct Outputs {
    std::function<void(const uint8_t* bytes, size_t length)> write;
    std::function<void(const Data& payload)> deliverTCP;
    std::function<void(const Data& payload)> deliverUDP;
  };
  // Segments the core's queue holds; the window needs 3, more lets a burst go out in one
  // round without a trip through the driver's backlog.
  static constexpr uint16_t kQueueSegments = 32;
  static constexpr uint32_t kAckDelayMicros = 1000;

  static std::shared_ptr<SlideWindowDriver> create(SlideWindowParameters parameters,
                                                   std::shared_ptr<Clock> clock,
                                                   std::shared_ptr<DispatchQueue> strand,
                                                   Outputs outputs);
  ~SlideWindowDriver();

  // Rounds at the core's deadlines while started; stopped, nothing is written but what a
  // caller drives by hand (transfer, checkControl, doPendingWork) and sendUDP.
  void start();
  void stop();

  void sendTCP(const uint8_t* bytes, uint64_t length);
  // At once, on the caller's thread: false (and a log line) when length >= segment size.
  bool sendUDP(const uint8_t* bytes, uint64_t length);
  void receive(const Data& value);

  // One round by hand, or its three steps (what they write goes to the outputs).
  void transfer();
  void checkControl();
  void doPendingWork();
  void round();
  void ackReceived(uint64_t count);
  void initState();
  uint64_t pendingWork() const;
  void setPendingWork(uint64_t bits);

  SlideWindowCounters counters() const;
  uint64_t readPos() const;
  uint8_t ackWindow() const;
  uint8_t remoteAck() const;
  size_t queuedSegments() const;
  uint8_t inFlight() const;
  // Bytes accepted by sendTCP and not yet acknowledged by the peer (lock-free).
  uint64_t unacknowledged() const { return unacknowledged_.load(std::memory_order_acquire); }
  // Called on the strand each time unacknowledged() falls to 0.
  void setAllAcknowledgedHandler(std::function<void()> handler);
  void setFrameTrace(FrameTrace trace);

  const std::shared_ptr<DispatchQueue>& strand() const { return strand_; }
  const SlideWindowParameters& parameters() const { return parameters_; }

 private:
  SlideWindowDriver(SlideWindowParameters parameters, std::shared_ptr<Clock> clock,
                    std::shared_ptr<DispatchQueue> strand, Outputs outputs);
  // Strand only, all of them.
  uint32_t nowMicros() const;
  void onStrand(std::function<void()> task);
  void feed();
  void frames(unsigned kinds);
  void pump();
  void schedule();
  void arm(uint32_t dueMicros);
  void settle(uint64_t queuedBefore);
  void write(const uint8_t* bytes, size_t length);
  void trace(bool outgoing, const uint8_t* bytes, size_t length);
  template <class F>
  auto onStrandSync(F f) const {
    decltype(f()) result{};
    strand_->sync([&] { result = f(); });
    return result;
  }

  const SlideWindowParameters parameters_;
  const std::shared_ptr<Clock> clock_;
  const std::shared_ptr<DispatchQueue> strand_;
  const Outputs outputs_;

  // Strand only.
  qlt_sw core_{};
  std::vector<uint8_t> slots_;
  std::deque<Data> backlog_;  // messages (or their tails) waiting for the core's queue
  size_t backlogHead_ = 0;    // bytes of backlog_.front() already in the core
  uint64_t backlogBytes_ = 0;
  std::shared_ptr<RoundPacer> pacer_;  // rounds at the core's deadlines, on the strand

  std::atomic<uint64_t> unacknowledged_{0};
  mutable std::mutex mutex_;
  bool running_ = false;                                  // guarded by mutex_
  std::shared_ptr<const FrameTrace> trace_;               // guarded by mutex_
  std::shared_ptr<const std::function<void()>> drained_;  // guarded by mutex_
};

}  // namespace qlt
