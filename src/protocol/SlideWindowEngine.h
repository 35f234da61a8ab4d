// SlideWindowEngine: the sliding-window protocol, written once for its two faces.
//
// A go-back-N window over the frame format of SlideWindowFrame.h: "TCP" payloads are cut
// into segments and queued; each round of the owner's worker puts as many queued segments
// on the wire as the window of 3 allows (transfer), sends the oldest segment again and a
// status poll when its acknowledgement is late (checkControl) and writes the control
// frames owed to the peer (doPendingWork). receive() delivers segments, honours
// acknowledgements and rejections that fall inside the window, and records what it owes
// the peer.
//
// Loss recovery, without rejection storms:
//  - Round trip. The engine times one first-sent segment at a time and takes a sample when
//    an acknowledgement covers it (never for a segment sent again, nor across a poll:
//    Karn's rule), and, as a receiver, from a lone rejection to the segment that fills its
//    gap. SRTT/RTTVAR as TCP keeps them (RFC 6298); rto = SRTT + max(2 ms, 4 RTTVAR),
//    clamped to [2 ms, poll time-out], and the poll time-out itself until a first sample.
//  - Polls. When nothing was sent or honoured for rto, the oldest unacknowledged segment
//    goes again, then a status poll (its answer comes behind the segment's effect, so a
//    lost tail costs one round trip, not two). An unanswered poll is repeated after rto,
//    then the wait doubles, never beyond the poll time-out of the parameters.
//  - One rejection per gap. An out-of-order segment opens a gap and owes one rejection
//    carrying the expected sequence; further out-of-order segments owe nothing while the
//    gap stands, and it closes when the expected segment arrives. If it still stands rto
//    after the last rejection, the rejection is owed once more: at most
//    kRejectionsPerGap rejections per gap, besides the answers to polls. A copy of the
//    segment accepted last (sequence R - 1) is no gap: it owes an acknowledgement.
//  - Honour a rejection once. A rejection inside the window rewinds the send sequence;
//    rejections at or beyond the segment rewound to are then ignored for about a round
//    trip (SRTT + 1 ms), until the segment sent again can have been seen.
//  - Never a stale control frame. What receive() owes (an acknowledgement, a rejection,
//    a poll's answer) waits in one slot that the next round writes; the acknowledgement
//    and the rejection both carry the receive sequence as it is when written, and a
//    rejection whose gap has closed meanwhile is dropped.
// A peer that follows the older rules (a rejection for every out-of-order segment, honour
// every rejection, poll after the fixed time-out) interoperates: the frames and their
// meaning are the same, and a poll is answered whenever it comes.
//
// The engine knows nothing of threads or delegates: its owner (SWTransport,
// BLESlideWindow) gives it a segment size, a poll time-out, a clock, and a Face that
// writes frames and delivers payloads. A test can drive the rounds itself, without any
// worker thread, on a ManualClock.
//
// Threads and locks. sendTCP/sendUDP run on callers' threads, receive on the thread that
// delivers notifications (one at a time), the rounds on the owner's worker. txMutex_
// guards the send queue, the send sequence and the round-trip estimate: sendTCP,
// ackReceived, transfer and the window checks of receive take it, so a rejection's rewind
// of ackWindow cannot interleave with a round of transfer. readPos_ and ackWindow_ are
// also atomics, so an idle round tests them without the lock. remoteAck_ (receive
// sequence) and pendingWork_ are atomics; gapMutex_ guards the receiver's gap. No frame
// is written and no payload delivered while a lock is held: transfer takes a snapshot of
// the segments to send under the lock and writes them after releasing it. Only the worker
// writes segments and control frames (sendUDP writes on its caller's thread), so they
// leave in order. An idle round takes the lock once, sends nothing and allocates nothing.
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
  double pollTimeout;  // the longest wait without an answer before a status poll, seconds
};

// Unsolicited rejections a receiver sends for one gap, at most (poll answers aside).
inline constexpr int kRejectionsPerGap = 2;

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
  // Feeds one received value in; control frames owed are written by the next round.
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
  // Event-driven pacing, for owners that run rounds only when there is work. `wake` is
  // called (from the calling thread, no lock held) when a round has something to do:
  // with 0 when segments can go, with kOwedDelay when a control frame is owed, so that
  // segments arriving together still draw one acknowledgement. Set it before first use.
  static constexpr double kOwedDelay = 0.001;
  void setWakeup(std::function<void(double delaySeconds)> wake) { wake_ = std::move(wake); }
  // Seconds until a round is due when nothing else happens (a poll, a rejection repeated);
  // infinity when nothing is. Call it after a round, from the thread that runs them.
  double untilNextRound() const;

  // Bit 0: an acknowledgement is owed; bit 1: a rejection, for the sequence in bits 4-5.
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
  // The retransmission time-out now (seconds); the poll time-out until a first sample.
  double rto() const { return rto_.load(std::memory_order_acquire); }
  // The smoothed round trip (seconds); 0 until a first sample.
  double srtt() const;

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
  void sampleLocked(double seconds);   // txMutex_ held: one round-trip sample
  void setPollWaitLocked();            // txMutex_ held: the timer's time-out from rto
  void sample(double seconds);
  void oweRejection(uint8_t sequence);
  void wake(double delay) const {
    if (wake_) wake_(delay);
  }

  static constexpr uint64_t kNone = ~uint64_t{0};

  Face& face_;
  const SlideWindowParameters parameters_;
  const std::shared_ptr<Clock> clock_;
  const std::shared_ptr<ComTimer> timer_;

  mutable std::mutex txMutex_;
  std::deque<Data> txBuffer_;             // guarded by txMutex_
  uint64_t bytesQueued_ = 0;              // guarded by txMutex_ (mirrored in counters_)
  uint64_t neverSentFrom_ = 0;            // guarded by txMutex_: first index never sent
  std::atomic<uint64_t> readPos_{0};      // written under txMutex_
  std::atomic<uint8_t> ackWindow_{0};     // written under txMutex_
  std::atomic<uint8_t> remoteAck_{0};     // written by receive() only
  std::atomic<uint64_t> pendingWork_{0};  // see pendingWork()

  // Round trip and polls (guarded by txMutex_; rto_ mirrors the time-out for lock-free reads).
  bool haveSample_ = false;
  double srtt_ = 0, rttvar_ = 0;
  uint64_t timedIndex_ = kNone;  // the segment being timed, by queue index since creation
  double timedAt_ = 0;
  unsigned pollBackoff_ = 0;       // unanswered polls in a row
  uint64_t rewoundIndex_ = kNone;  // the segment last rewound to
  double holdUntil_ = 0;           // rejections at or beyond it are ignored until then
  std::atomic<double> rto_;

  // The receiver's gap (guarded by gapMutex_; gapOpen_ is read without it by idle rounds).
  mutable std::mutex gapMutex_;
  std::atomic<bool> gapOpen_{false};
  uint8_t gapSequence_ = 0;  // the sequence expected when the gap opened
  int gapRejections_ = 0;    // unsolicited rejections owed for it
  double rejectedAt_ = 0;    // when the last of them was written (or owed)
  bool gapTimed_ = false;    // only the first rejection owed: its round trip is a sample
  bool gapWritten_ = false;  // a rejection for it has been written

  std::mutex traceMutex_;
  std::shared_ptr<const FrameTrace> trace_;  // guarded by traceMutex_
  std::atomic<bool> tracing_{false};

  Counters counters_;
  std::function<void(double)> wake_;  // set before use, then only read
};

}  // namespace qlt
