// BLESlideWindow: the sliding-window protocol of SWTransport, standing on its own.
//
// Not a transport: an application can put it over any byte pipe of its own. It speaks the
// same frame format (SlideWindowFrame.h) with 160-byte segments (datagrams of at most 159
// bytes), follows the same recovery rules (src/transports/SlideWindowEngine.h) but polls
// never later than 1.0 s. Started, it runs its rounds as BaseTransport does: on a queue of
// its own, only when there is work, with no thread of its own. Frames to write go to its
// sender delegate (slideWindow_requestWriteData); received payloads reach its delegates
// through the multicast delegate (slideWindow_tcpDataReceived,
// slideWindow_udpDataReceived), each on the delegate's own queue.
//
// Usage: create, setSenderDelegate, addDelegate, start; feed every value from the peer to
// receive(); sendTCP/sendUDP at any time; stop when done. The protocol state is set once,
// at creation.
//
// Threads: start, stop, sendTCP and sendUDP from any thread; receive from one thread at a
// time; the rounds from the worker (or from a test that drives them itself). The sender
// delegate is called from the worker (every frame of the window, control frames included)
// and from sendUDP's caller, never under an internal lock; it should return once the
// write is queued.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/Data.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/QLT_Object.h"
#include "QueltLibrary/SlideWindowCounters.h"
#include "QueltLibrary/ThreadBase.h"

namespace qlt {

class BLESlideWindow;
class SlideWindowEngine;
class RoundPacer;

// Who writes the slide window's frames to the peer.
class QLT_EXPORT BLESlideWindowSenderDelegate : public virtual Delegate {
 public:
  virtual void slideWindow_requestWriteData(const std::shared_ptr<BLESlideWindow>& slideWindow,
                                            const Data& data) = 0;
};

// Who receives the slide window's payloads (on its own queue).
class QLT_EXPORT BLESlideWindowDelegate : public virtual Delegate {
 public:
  virtual void slideWindow_tcpDataReceived(const std::shared_ptr<BLESlideWindow>& slideWindow,
                                           const Data& data) = 0;
  virtual void slideWindow_udpDataReceived(const std::shared_ptr<BLESlideWindow>& slideWindow,
                                           const Data& data) = 0;
};

class QLT_EXPORT BLESlideWindow : public QLT_Object, public ThreadBaseDelegate {
 public:
  static constexpr size_t kSegmentSize = 160;
  static constexpr double kPollTimeout = 1.0;

  static std::shared_ptr<BLESlideWindow> create(std::shared_ptr<Clock> clock = Clock::monotonic());
  ~BLESlideWindow() override;

  // Resets the send queue and the send sequence (done once, at creation).
  void initState();
  // Starts the rounds; stop ends them (a round already running finishes).
  void start();
  void stop();

  // ThreadBaseDelegate
  void threadStarted(const std::shared_ptr<ThreadBase>& thread) override;
  std::function<void()> threadRunloop(const std::shared_ptr<ThreadBase>& thread) override;
  void threadStopped(const std::shared_ptr<ThreadBase>& thread) override;

  void receive(const Data& value);
  void ackReceived(uint64_t count);
  void sendTCP(const uint8_t* bytes, uint64_t length);
  // Writes at once when length < 160; otherwise logs "UDP data length is too large than
  // 160" and sends nothing.
  void sendUDP(const uint8_t* bytes, uint64_t length);
  // Hands one frame to the sender delegate (dropped when there is none).
  void writeRequest(const uint8_t* bytes, uint64_t length);
  void transfer();
  void checkControl();
  void doPendingWork();
  // A polling loop of rounds until the ThreadBase running it (thread()) is closing.
  void run();

  std::shared_ptr<BLESlideWindowSenderDelegate> senderDelegate() const;
  void setSenderDelegate(const std::shared_ptr<BLESlideWindowSenderDelegate>& delegate);
  uint64_t pendingWork() const;
  void setPendingWork(uint64_t bits);
  // The ThreadBase running run(), when code runs one for it (threadRunloop); else null.
  std::shared_ptr<ThreadBase> thread() const;

  SlideWindowCounters counters() const;
  // Called for every frame written and every value received, on the thread doing it.
  // Must be quick and must not call back into this object. Empty function: off.
  void setFrameTrace(std::function<void(bool outgoing, const Data& frame)> trace);

  // Protocol state, for tests and tools.
  uint64_t readPos() const;
  uint8_t ackWindow() const;
  uint8_t remoteAck() const;
  size_t queuedSegments() const;
  uint8_t inFlight() const;

 private:
  class Face;
  explicit BLESlideWindow(std::shared_ptr<Clock> clock);
  std::shared_ptr<BLESlideWindow> self() {
    return std::static_pointer_cast<BLESlideWindow>(shared_from_this());
  }

  mutable std::mutex mutex_;
  std::shared_ptr<ThreadBase> thread_;                          // guarded by mutex_
  std::shared_ptr<RoundPacer> pacer_;                           // guarded by mutex_
  std::weak_ptr<BLESlideWindowSenderDelegate> senderDelegate_;  // guarded by mutex_
  std::unique_ptr<Face> face_;
  std::unique_ptr<SlideWindowEngine> engine_;
};

}  // namespace qlt
