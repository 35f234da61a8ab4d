// SWTransport: the reliable transport, a go-back-N sliding window over the UART service.
//
// "TCP" messages are cut into segments of 120 bytes and queued; the rounds put at most 3
// unacknowledged segments on the wire (sequence numbers modulo 4), send the oldest
// segment again and a status poll when no answer came for about a round trip as they
// estimate it (never later than 0.3 s), and acknowledge what arrived. A gap in the
// received segments draws one rejection (once more if it persists), which makes the sender
// go back; the sender honours a rejection of the same segment once per round trip. "UDP"
// datagrams of at most 119 bytes are written at once, unacknowledged. The frame format and
// the rules are the core's (swcore/qlt_sw.h). Every received segment is delivered on its
// own (there is no message boundary on the wire) with transport_tcpDataReceived, datagrams
// with transport_udpDataReceived, through the multicast delegate.
//
// The protocol state is set once, at creation: start and stop only start and stop the
// rounds; a stopped transport keeps its queue and sequence numbers.
//
// Threads: see BaseTransport. Everything for the link runs on one serial queue of the
// transport's own ("SWTransport.link"): sendTCP is posted there and returns at once (it has
// no bound: what the core's queue cannot take yet waits in order); receive runs there in a
// sync(), on the receiving thread once the queue is free; the rounds run there at the
// core's deadlines. sendUDP writes its datagram on the caller's
// thread, in order with that queue. The sender delegate is called from that queue (every
// frame of the window) and from sendUDP's caller, never under an internal lock. The
// state accessors and the rounds by hand (SlideWindowFace) run on that queue in a sync().
#pragma once

#include <functional>
#include <memory>

#include "QueltLibrary/BaseTransport.h"
#include "QueltLibrary/Clock.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/SlideWindowCounters.h"
#include "QueltLibrary/SlideWindowFace.h"
#include "QueltLibrary/SlideWindowFrame.h"

namespace qlt {

// Who hears what each new link made of the window's session (SlideWindowFace::linkUp),
// through the transport's multicast delegate, on its own queue, in order with the payloads.
class QLT_EXPORT TransportSessionDelegate : public virtual Delegate {
 public:
  virtual void transport_sessionChanged(const std::shared_ptr<BaseTransport>& transport,
                                        const SessionChange& change) = 0;
};

class QLT_EXPORT SWTransport : public BaseTransport, public SlideWindowFace {
 public:
  static constexpr size_t kSegmentSize = kTcpSegmentSize;  // 120
  static constexpr double kPollTimeout = kTcpPollTimeout;  // 0.3 s

  // The round-trip and poll timing reads `clock` (a ManualClock in simulations).
  static std::shared_ptr<SWTransport> create(std::shared_ptr<Clock> clock = Clock::monotonic());
  ~SWTransport() override;

  void start() override;
  void stop() override;
  void sendTCP(const uint8_t* bytes, uint64_t length) override;
  // Writes at once when length < 120; otherwise logs "UDP data length is too large than
  // 120" and sends nothing.
  void sendUDP(const uint8_t* bytes, uint64_t length) override;
  void receive(const Data& value) override;
  // A value that came on link `link` (SlideWindowFace::linkUp's number; the first link is
  // 0): ignored unless that link is the current one.
  void receive(const Data& value, uint64_t link);
  // Rounds of transfer, checkControl and doPendingWork until `thread` is closing.
  void run(const std::shared_ptr<ThreadBase>& thread) override;

  std::optional<SlideWindowCounters> windowCounters() const override { return counters(); }
  uint64_t unacknowledged() const override;
  uint64_t bytesInDoubt() const override;
  // Called for every frame written and every value received, on the thread doing it.
  // Must be quick and must not call back into this transport. Empty function: off.
  void setFrameTrace(FrameTrace trace) override;

 private:
  SWTransport();
};

}  // namespace qlt
