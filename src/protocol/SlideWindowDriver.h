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
// The extended window (setExtended, before start): the driver configures the core in the
// central's or the device's role, sized from the link's facts (ExtendedWindowSizing), takes
// every delivery a received frame makes (the segments a filled gap releases follow it), logs
// each kind of fault in what the peer wrote once per link, and reports the format negotiated
// and the counters. Once the peer's segments are extended the ack delay grows to three
// connection intervals (at most 20 ms), and rounds that send data leave owed acknowledgements
// to it: one acknowledgement covers an event's segments instead of each.
//
// The core's send queue holds a fixed number of segments; bytes beyond it wait in the
// driver, in the messages they came in (so each still starts a segment of its own), and
// go into the core as acknowledgements free its slots: sendTCP has no bound.
//
// A dropped link (linkLost, then linkUp for the next one): the core keeps its session, and
// with the extended window the next link resumes the stream where the peer has it. Between
// the two nothing is written or taken; a frame received on an earlier link (receive with its
// link number) never reaches the core once the next one is up: neither format tells a stale
// frame from a fresh one. After the hold time without a link the session is forgotten: the
// bytes sent and never acknowledged are then in doubt (they may or may not have arrived).
// The session output hears whether each new link resumed or began a new session, with the
// bytes in doubt; those bytes leave unacknowledged() without counting as acknowledged.
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
#include "QueltLibrary/SlideWindowFace.h"
#include "protocol/WindowSizing.h"
#include "swcore/qlt_sw.h"
#include "swcore/qlt_sw_wide.h"
#include "worker/RoundPacer.h"

namespace qlt {

// Called for every frame written (outgoing = true) and every value received.
using FrameTrace = std::function<void(bool outgoing, const Data& frame)>;

struct SlideWindowParameters {
  size_t segmentSize;  // payload bytes per segment (1..160); datagrams must be shorter
  double pollTimeout;  // the longest wait without an answer before a status poll, seconds
};

// Which end of the negotiation a driver is: the central offers the extended window, the
// device answers.
enum class WindowRole { Central, Device };

// Whether and how a driver runs the extended window (SlideWindowDriver::setExtended).
struct ExtendedWindowSettings {
  bool enabled = false;
  WindowRole role = WindowRole::Central;
  WindowLink link;  // sizes the segments and the slots (ExtendedWindowSizing)
};

class SlideWindowDriver : public std::enable_shared_from_this<SlideWindowDriver> {
 public:
  struct Outputs {
    std::function<void(const uint8_t* bytes, size_t length)> write;
    std::function<void(const Data& payload)> deliverTCP;
    std::function<void(const Data& payload)> deliverUDP;
    std::function<void(const SessionChange& change)> session;
  };
  // How long a session is held without a link before it is forgotten, seconds.
  static constexpr double kDefaultHoldSeconds = 30;
  // Segments the core's queue holds; the window needs 3, more lets a burst go out in one
  // round without a trip through the driver's backlog.
  static constexpr uint16_t kQueueSegments = 32;
  static constexpr uint32_t kAckDelayMicros = 1000;
  // The longest frame the driver writes: a value of 512 bytes, the most an attribute value
  // may hold (Bluetooth Core v5.3, Vol 3, Part F, 3.2.9).
  static constexpr size_t kFrameCapacity = 512;

  static std::shared_ptr<SlideWindowDriver> create(SlideWindowParameters parameters,
                                                   std::shared_ptr<Clock> clock,
                                                   std::shared_ptr<DispatchQueue> strand,
                                                   Outputs outputs);
  ~SlideWindowDriver();

  // Rounds at the core's deadlines while started; stopped, nothing is written but what a
  // caller drives by hand (transfer, checkControl, doPendingWork) and sendUDP.
  void start();
  void stop();
  // The extended window, before the first start(); later calls log and change nothing.
  void setExtended(const ExtendedWindowSettings& settings);
  ExtendedWindowSettings extended() const;
  WindowFormat format() const;

  void sendTCP(const uint8_t* bytes, uint64_t length);
  // At once, on the caller's thread: false (and a log line) when length >= segment size.
  bool sendUDP(const uint8_t* bytes, uint64_t length);
  void receive(const Data& value);
  // A frame received on link number `link` (linkUp's): ignored unless that link is the
  // current one and up.
  void receive(const Data& value, uint64_t link);

  // The link is gone: nothing more is written or taken until linkUp. The session is held
  // for holdTime() seconds, then forgotten. With a number: only if link `link` is still the
  // current one (a late report of an older link's end changes nothing).
  void linkLost();
  void linkLost(uint64_t link);
  // The next link is up (a new nonce for a session that begins on it); returns its number.
  // With the link's facts, the extended window takes them before the link's negotiation:
  // its value limit (the segments it offers and sends shrink to it; a larger one is held to
  // the buffers configured on the first link, which are never reallocated) and its
  // acknowledgement delay. Without them the last link's facts stay.
  uint64_t linkUp();
  uint64_t linkUp(const WindowLink& link);
  uint64_t link() const;
  // Forgets the session held now, as when the hold time passes (only while the link is down).
  void forgetSession();
  void setHoldTime(double seconds);
  double holdTime() const;

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
  // Of the bytes that left unacknowledged(), those that were never acknowledged: in doubt
  // when a session was lost (lock-free; counted before they leave unacknowledged()).
  uint64_t bytesInDoubt() const { return inDoubt_.load(std::memory_order_acquire); }
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
  void configure(const ExtendedWindowSettings& settings);
  uint64_t linkUpOnStrand(const WindowLink* link);
  static uint16_t valueLimitOf(const WindowLink& link);
  static uint32_t randomNonce();
  static void coreEvent(void* context, qlt_sw_event event, uint32_t a, uint32_t b);
  WindowFormat formatOnStrand() const;
  bool answersWait();
  void onStrand(std::function<void()> task);
  void feed();
  void frames(unsigned kinds);
  void pump();
  void schedule();
  void arm(uint32_t dueMicros);
  struct Snapshot {
    uint64_t queued, inDoubt, resumed, lost;
  };
  Snapshot snapshot() const;
  void settle(const Snapshot& before);
  void receiveOnStrand(const Data& value);
  void loseOnStrand();
  void forgetOnStrand();
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
  std::vector<uint32_t> wideStorage_;  // the extended window's records and receive slots
  bool wideOn_ = false;
  bool ackDelayWidened_ = false;  // the core's acknowledgement delay is the extended one
  uint32_t extendedAckDelayMicros_ = kAckDelayMicros;
  std::deque<Data> backlog_;  // messages (or their tails) waiting for the core's queue
  size_t backlogHead_ = 0;    // bytes of backlog_.front() already in the core
  uint64_t backlogBytes_ = 0;
  std::shared_ptr<RoundPacer> pacer_;  // rounds at the core's deadlines, on the strand
  bool down_ = false;                  // between linkLost and linkUp
  uint64_t link_ = 0;                  // the current link's number
  double lostAt_ = 0;                  // when the link went down (clock_)

  std::atomic<uint64_t> unacknowledged_{0};
  std::atomic<uint64_t> inDoubt_{0};
  mutable std::mutex mutex_;
  bool running_ = false;                                  // guarded by mutex_
  bool started_ = false;                                  // guarded by mutex_: ever started
  double holdSeconds_ = kDefaultHoldSeconds;              // guarded by mutex_
  ExtendedWindowSettings extended_;                       // guarded by mutex_
  std::shared_ptr<const FrameTrace> trace_;               // guarded by mutex_
  std::shared_ptr<const std::function<void()>> drained_;  // guarded by mutex_
};

}  // namespace qlt
