// The transport contract, and BaseTransport, which paces a transport's rounds.
//
// A transport sits between a connected peripheral's UART service and the application: it
// cuts messages into frames that fit one characteristic write and asks its sender
// delegate to write each one; it turns each received value, fed to receive(), back into
// payloads that it announces to its delegates on their own queues.
//
// Usage: create, setSenderDelegate, addDelegate, start; feed every notified value to
// receive(); sendTCP/sendUDP at any time; on disconnection stop, remove the delegate and
// drop the transport. A transport serves one connection.
//
// Threads: start, stop, sendTCP and sendUDP run on the caller's thread; receive on the
// thread that delivers notifications. A started transport needs no thread of its own: its
// rounds run one at a time as tasks on a serial queue of its own (the library's pool),
// only when there is work: something queued to send, a control frame owed (about 1 ms
// later, so that frames arriving together draw one answer), a deadline of the protocol
// (its timer thread waits for those), or nothing at all while idle. The sender delegate
// is called from the rounds and, for some frames, from the receiving thread, so it must
// accept calls from any thread; it should return once the write is queued (transports
// may call it while holding their queue lock).
//
// run(thread) is the same work as a loop polling `thread`'s isClosing() (about a round a
// millisecond), for code that drives a transport from a ThreadBase of its own.
//
// Lifetime: the rounds hold the transport weakly (its owner keeps it); destroying a
// transport stops it.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>

#include "QueltLibrary/Data.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/QLT_Object.h"
#include "QueltLibrary/SlideWindowCounters.h"
#include "QueltLibrary/ThreadBase.h"

namespace qlt {

class BaseTransport;
class RoundPacer;

// The operations every transport offers.
class QLT_EXPORT Transport {
 public:
  virtual ~Transport() = default;
  virtual void start() = 0;
  virtual void stop() = 0;
  // Queues a reliable message of `length` bytes.
  virtual void sendTCP(const uint8_t* bytes, uint64_t length) = 0;
  // Sends a datagram.
  virtual void sendUDP(const uint8_t* bytes, uint64_t length) = 0;
  // Hands one finished frame to the sender delegate.
  virtual void writeRequest(const uint8_t* bytes, uint64_t length) = 0;
  // Feeds one received value in.
  virtual void receive(const Data& value) = 0;
  // A polling worker loop, for a ThreadBase of the caller's; returns when `thread` is closing.
  virtual void run(const std::shared_ptr<ThreadBase>& thread) = 0;
};

// Who writes a transport's frames to the peer.
class QLT_EXPORT TransportSenderDelegate : public virtual Delegate {
 public:
  virtual void transport_requestWriteData(const std::shared_ptr<BaseTransport>& transport,
                                          const Data& data) = 0;
};

// Who receives a transport's payloads (through its multicast delegate, on its own queue).
class QLT_EXPORT TransportDelegate : public virtual Delegate {
 public:
  virtual void transport_tcpDataReceived(const std::shared_ptr<BaseTransport>& transport,
                                         const Data& data) = 0;
  virtual void transport_udpDataReceived(const std::shared_ptr<BaseTransport>& transport,
                                         const Data& data) = 0;
};

class QLT_EXPORT BaseTransport : public QLT_Object, public Transport, public ThreadBaseDelegate {
 public:
  // Sees every frame written (outgoing) and every value received, on the thread doing it.
  using FrameTrace = std::function<void(bool outgoing, const Data& frame)>;

  // A transport whose loop does nothing; concrete transports derive from it.
  static std::shared_ptr<BaseTransport> create();
  ~BaseTransport() override;

  void start() override;
  void stop() override;
  void sendTCP(const uint8_t* /*bytes*/, uint64_t /*length*/) override {}
  void sendUDP(const uint8_t* /*bytes*/, uint64_t /*length*/) override {}
  void writeRequest(const uint8_t* bytes, uint64_t length) override;
  void receive(const Data& /*value*/) override {}
  void run(const std::shared_ptr<ThreadBase>& /*thread*/) override {}

  // For tools. The sliding window's counters; nullopt for a transport without a window.
  virtual std::optional<SlideWindowCounters> windowCounters() const { return std::nullopt; }
  // Installs `trace` (empty: off); it must be quick and must not call back into the
  // transport. A transport that writes no frames of its own ignores it.
  // NOLINTNEXTLINE(performance-unnecessary-value-param): by value, so overrides can keep it
  virtual void setFrameTrace(FrameTrace /*trace*/) {}

  // Bytes accepted by sendTCP and not yet acknowledged by the peer (a transport without
  // acknowledgements: not yet written). Any thread.
  virtual uint64_t unacknowledged() const { return 0; }
  // Of the bytes that left unacknowledged(), those never acknowledged: sent in a session
  // that was lost across a dropped link (they may or may not have arrived). Counted before
  // they leave unacknowledged(), so a caller that sees the count fall and reads this after
  // knows whether everything was acknowledged. Any thread.
  virtual uint64_t bytesInDoubt() const { return 0; }
  // `handler` (empty: none) is called each time unacknowledged() falls to 0, on the
  // transport's own queue (for the window, possibly inside the receive() that brought the
  // last acknowledgement, which runs there in a sync()), with no lock held; it may call
  // into the transport.
  void setAllAcknowledgedHandler(std::function<void()> handler);

  std::shared_ptr<TransportSenderDelegate> senderDelegate() const;
  void setSenderDelegate(const std::shared_ptr<TransportSenderDelegate>& delegate);

  // Null: start() runs the rounds on the pool, with no thread of their own. Kept for
  // source compatibility.
  std::shared_ptr<ThreadBase> thread() const;

  // ThreadBaseDelegate
  void threadStarted(const std::shared_ptr<ThreadBase>& /*thread*/) override {}
  std::function<void()> threadRunloop(const std::shared_ptr<ThreadBase>& thread) override;
  void threadStopped(const std::shared_ptr<ThreadBase>& thread) override;

 protected:
  explicit BaseTransport(std::string className);
  // One round of a started transport: does what is due and returns the seconds until the
  // next round is due when nothing else happens (infinity: none). On the rounds' queue.
  virtual double round() { return std::numeric_limits<double>::infinity(); }
  // Asks for a round within `delaySeconds` (any thread; nothing when not started).
  void wakeRounds(double delaySeconds);
  // Calls the all-acknowledged handler, if any (no lock held).
  void notifyAllAcknowledged();
  std::shared_ptr<BaseTransport> sharedTransport() {
    return std::static_pointer_cast<BaseTransport>(shared_from_this());
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<RoundPacer> pacer_;                             // guarded by mutex_
  std::weak_ptr<TransportSenderDelegate> senderDelegate_;         // guarded by mutex_
  std::shared_ptr<const std::function<void()>> allAcknowledged_;  // guarded by mutex_
};

}  // namespace qlt
