// SlideWindowEngine: the sliding-window protocol, written once for its two faces.
//
// A go-back-N window over the frame format of SlideWindowFrame.h: "TCP" payloads are cut
// into segments and queued; each round of the owner's worker puts as many queued segments
// on the wire as the window of 3 allows (transfer), sends a status poll when the oldest
// segment's acknowledgement is late (checkControl) and sends the acknowledgement owed for
// segments received (doPendingWork). receive() answers polls and out-of-order segments at
// once, and honours acknowledgements and rejections that fall inside the window.
//
// The engine knows nothing of threads or delegates: its owner (SWTransport,
// BLESlideWindow) gives it a segment size, a poll time-out, a clock, and a Face that
// writes frames and delivers payloads. A test can drive the rounds itself, without any
// worker thread, on a ManualClock.
//
// Threads and locks. sendTCP/sendUDP run on callers' threads, receive on the thread that
// delivers notifications (one at a time), the rounds on the owner's worker. txMutex_
// guards the send queue and the send sequence: sendTCP, ackReceived, transfer and the
// window checks of receive take it, so a rejection's rewind of ackWindow cannot interleave
// with a round of transfer. readPos_ and ackWindow_ are also atomics, so an idle round
// tests them without the lock. remoteAck_ (receive sequence) and pendingWork_ are atomics.
// No frame is written and no payload delivered while txMutex_ is held: transfer takes a
// snapshot of the segments to send under the lock and writes them after releasing it
// (only the worker runs transfer, so segments still leave in order). An idle round takes
// the lock once, sends nothing and allocates nothing.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/ComTimer.h"
#include "QueltLibrary/Data.h"
#include "QueltLibrary/SlideWindowCounters.h"

namespace qlt {

// The largest segment any face uses; the frame buffer on the stack is one byte more.
inline constexpr size_t kMaxSlideWindowSegment = 160;

// Called for every frame written (outgoing = true) and every value received.
using FrameTrace = std::function<void(bool outgoing, const Data& frame)>;

struct SlideWindowParameters {
  size_t segmentSize;  // payload bytes per segment (1..160); datagrams must be shorter
  double pollTimeout;  // seconds without an acknowledgement before a status poll
};

class SlideWindowEngine {
 public:
  // The engine's three outputs.
  class Face {
   public:
    virtual ~Face() = default;
    // One finished frame, to be written to the peer (synchronously handed over).
    virtual void writeFrame(const uint8_t* bytes, size_t length) = 0;
    virtual void deliverTCP(const Data& payload) = 0;
    virtual void deliverUDP(const Data& payload) = 0;
  };

  // `face` must outlive the engine.
  SlideWindowEngine(Face& face, SlideWindowParameters parameters, std::shared_ptr<Clock> clock);

  // Empties the queue and resets the send sequence; the receive sequence is kept.
  void initState();
  // Queues `length` bytes as segments of at most segmentSize bytes; sends nothing.
  void sendTCP(const uint8_t* bytes, uint64_t length);
  // Writes a datagram at once if `length` < segmentSize; otherwise logs and drops it.
  void sendUDP(const uint8_t* bytes, uint64_t length);
  // Feeds one received value in.
  void receive(const Data& value);
  // Releases `count` segments from the head of the queue.
  void ackReceived(uint64_t count);
  // One round's three steps, and the whole round.
  void transfer();
  void checkControl();
  void doPendingWork();
  void round() {
    transfer();
    checkControl();
    doPendingWork();
  }

  uint64_t pendingWork() const { return pendingWork_.load(std::memory_order_acquire); }
  void setPendingWork(uint64_t bits) { pendingWork_.store(bits, std::memory_order_release); }

  SlideWindowCounters counters() const;
  void setFrameTrace(FrameTrace trace);

  // The protocol state, for tests and tools.
  uint64_t readPos() const { return readPos_.load(std::memory_order_acquire); }
  uint8_t ackWindow() const { return ackWindow_.load(std::memory_order_acquire); }
  uint8_t remoteAck() const { return remoteAck_.load(std::memory_order_acquire); }
  size_t queuedSegments() const;
  uint8_t inFlight() const;
  const SlideWindowParameters& parameters() const { return parameters_; }
  const std::shared_ptr<ComTimer>& timer() const { return timer_; }

 private:
  struct Counters {
    std::atomic<uint64_t> framesSent{0}, framesReceived{0}, segmentsSent{0}, segmentsResent{0},
        pollsSent{0}, acksSent{0}, rejectionsSent{0}, rejectionsReceived{0}, rejectionsHonoured{0},
        acksReceived{0}, malformedIgnored{0}, tcpDelivered{0}, udpDelivered{0}, bytesQueued{0};
  };
  static void bump(std::atomic<uint64_t>& c) { c.fetch_add(1, std::memory_order_relaxed); }

  void write(const uint8_t* bytes, size_t length);
  void writeControl(uint8_t header);
  void trace(bool outgoing, const uint8_t* bytes, size_t length);
  void releaseLocked(uint64_t count);  // txMutex_ held

  Face& face_;
  const SlideWindowParameters parameters_;
  const std::shared_ptr<ComTimer> timer_;

  mutable std::mutex txMutex_;
  std::deque<Data> txBuffer_;             // guarded by txMutex_
  uint64_t bytesQueued_ = 0;              // guarded by txMutex_ (mirrored in counters_)
  uint64_t neverSentFrom_ = 0;            // guarded by txMutex_: first index never sent
  std::atomic<uint64_t> readPos_{0};      // written under txMutex_
  std::atomic<uint8_t> ackWindow_{0};     // written under txMutex_
  std::atomic<uint8_t> remoteAck_{0};     // written by receive() only
  std::atomic<uint64_t> pendingWork_{0};  // bit 0: an acknowledgement is owed

  std::mutex traceMutex_;
  std::shared_ptr<const FrameTrace> trace_;  // guarded by traceMutex_
  std::atomic<bool> tracing_{false};

  Counters counters_;
};

}  // namespace qlt
