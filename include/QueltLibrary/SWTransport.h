// SWTransport: the reliable transport, a go-back-N sliding window over the UART service.
//
// "TCP" messages are cut into segments of 120 bytes and queued; the worker thread puts at
// most 3 unacknowledged segments on the wire (sequence numbers modulo 4), sends the oldest
// segment again and a status poll when no answer came for about a round trip as it
// estimates it (never later than 0.3 s), and acknowledges what it received. A gap in the
// received segments draws one rejection (once more if it persists), which makes the sender
// go back; the sender honours a rejection of the same segment once per round trip. "UDP"
// datagrams of at most 119 bytes are written at once, unacknowledged. The frame format is
// in SlideWindowFrame.h, the rules in src/transports/SlideWindowEngine.h. Every received
// segment is delivered on its own (there is no message boundary on the wire) with
// transport_tcpDataReceived, datagrams with transport_udpDataReceived, through the
// multicast delegate.
//
// The protocol state is set once, at creation: start and stop only start and stop the
// worker; a stopped transport keeps its queue and sequence numbers.
//
// Threads: see BaseTransport. sendTCP/sendUDP from any thread; receive from one thread at
// a time; the rounds (transfer, checkControl, doPendingWork) from the worker, or from a
// test that drives them itself instead of starting the worker. The sender delegate is
// called from the worker (segments, polls, acknowledgements, rejections and poll answers)
// and from sendUDP's caller, never under an internal lock.
#pragma once

#include <functional>
#include <memory>

#include "QueltLibrary/BaseTransport.h"
#include "QueltLibrary/Clock.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/SlideWindowCounters.h"
#include "QueltLibrary/SlideWindowFrame.h"

namespace qlt {

class SlideWindowEngine;

class QLT_EXPORT SWTransport : public BaseTransport {
 public:
  static constexpr size_t kSegmentSize = kTcpSegmentSize;  // 120
  static constexpr double kPollTimeout = kTcpPollTimeout;  // 0.3 s

  // The retransmission timer reads `clock` (a ManualClock in simulations).
  static std::shared_ptr<SWTransport> create(std::shared_ptr<Clock> clock = Clock::monotonic());
  ~SWTransport() override;

  void sendTCP(const uint8_t* bytes, uint64_t length) override;
  // Writes at once when length < 120; otherwise logs "UDP data length is too large than
  // 120" and sends nothing.
  void sendUDP(const uint8_t* bytes, uint64_t length) override;
  void receive(const Data& value) override;
  // Rounds of transfer, checkControl and doPendingWork until `thread` is closing.
  void run(const std::shared_ptr<ThreadBase>& thread) override;

 protected:
  double round() override;

 public:
  // Resets the send queue and the send sequence (done once, at creation).
  void initState();
  // Releases `count` segments from the head of the queue.
  void ackReceived(uint64_t count);
  // Puts queued segments on the wire as far as the window allows.
  void transfer();
  // Sends the oldest segment again and a status poll when something is in flight and the
  // timer has run out.
  void checkControl();
  // Writes the acknowledgement and the rejection owed to the peer.
  void doPendingWork();
  // Bit 0: an acknowledgement is owed; bit 1: a rejection, for the sequence in bits 4-5.
  uint64_t pendingWork() const;
  void setPendingWork(uint64_t bits);

  SlideWindowCounters counters() const;
  std::optional<SlideWindowCounters> windowCounters() const override { return counters(); }
  // Payload bytes queued: not yet sent, or sent and not yet acknowledged.
  uint64_t unacknowledged() const override;
  // Called for every frame written and every value received, on the thread doing it.
  // Must be quick and must not call back into this transport. Empty function: off.
  void setFrameTrace(FrameTrace trace) override;

  // Protocol state, for tests and tools.
  uint64_t readPos() const;
  uint8_t ackWindow() const;
  uint8_t remoteAck() const;
  size_t queuedSegments() const;
  uint8_t inFlight() const;

 private:
  class Face;
  explicit SWTransport(std::shared_ptr<Clock> clock);

  std::unique_ptr<Face> face_;
  std::unique_ptr<SlideWindowEngine> engine_;
};

}  // namespace qlt
