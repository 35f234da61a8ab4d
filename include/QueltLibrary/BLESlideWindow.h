// BLESlideWindow: the sliding-window protocol of SWTransport, standing on its own.
//
// Not a transport: an application can put it over any byte pipe of its own. It speaks the
// same frame format (SlideWindowFrame.h) with 160-byte segments (datagrams of at most 159
// bytes), follows the same recovery rules (the core, swcore/qlt_sw.h) but polls never
// later than 1.0 s. Everything for its link runs on one serial queue of its own
// ("BLESlideWindow.link"), as SWTransport's does: sendTCP is posted there, receive runs
// there in a sync(), the rounds run there at the core's deadlines, with no thread of its
// own. Frames to write go to
// its sender delegate (slideWindow_requestWriteData); received payloads reach its delegates through
// the multicast delegate (slideWindow_tcpDataReceived, slideWindow_udpDataReceived), each on the
// delegate's own queue.
//
// Usage: create, setSenderDelegate, addDelegate, start; feed every value from the peer to
// receive(); sendTCP/sendUDP at any time; stop when done. The protocol state is set once,
// at creation.
//
// Threads: start, stop, sendTCP, sendUDP and receive from any thread; the rounds run on the
// link's queue (or a test drives them itself: SlideWindowFace). The sender delegate is
// called from that queue (every frame of the window, control frames included) and from
// sendUDP's caller, never under an internal lock; it should return once the write is
// queued.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "QueltLibrary/Clock.h"
#include "QueltLibrary/Data.h"
#include "QueltLibrary/Export.h"
#include "QueltLibrary/QLT_Object.h"
#include "QueltLibrary/SlideWindowCounters.h"
#include "QueltLibrary/SlideWindowFace.h"
#include "QueltLibrary/ThreadBase.h"

namespace qlt {

class BLESlideWindow;

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

// Who hears what each new link made of the window's session (SlideWindowFace::linkUp), on
// its own queue, in order with the payloads.
class QLT_EXPORT BLESlideWindowSessionDelegate : public virtual Delegate {
 public:
  virtual void slideWindow_sessionChanged(const std::shared_ptr<BLESlideWindow>& slideWindow,
                                          const SessionChange& change) = 0;
};

class QLT_EXPORT BLESlideWindow : public QLT_Object,
                                  public ThreadBaseDelegate,
                                  public SlideWindowFace {
 public:
  static constexpr size_t kSegmentSize = 160;
  static constexpr double kPollTimeout = 1.0;

  static std::shared_ptr<BLESlideWindow> create(std::shared_ptr<Clock> clock = Clock::monotonic());
  ~BLESlideWindow() override;

  // Starts the rounds; stop ends them (a round already running finishes).
  void start();
  void stop();

  // ThreadBaseDelegate
  void threadStarted(const std::shared_ptr<ThreadBase>& thread) override;
  std::function<void()> threadRunloop(const std::shared_ptr<ThreadBase>& thread) override;
  void threadStopped(const std::shared_ptr<ThreadBase>& thread) override;

  void receive(const Data& value);
  // A value that came on link `link` (SlideWindowFace::linkUp's number; the first is 0):
  // ignored unless that link is the current one.
  void receive(const Data& value, uint64_t link);
  void sendTCP(const uint8_t* bytes, uint64_t length);
  // Writes at once when length < 160; otherwise logs "UDP data length is too large than
  // 160" and sends nothing.
  void sendUDP(const uint8_t* bytes, uint64_t length);
  // Hands one frame to the sender delegate (dropped when there is none).
  void writeRequest(const uint8_t* bytes, uint64_t length);
  // A polling loop of rounds until the ThreadBase running it (thread()) is closing.
  void run();

  std::shared_ptr<BLESlideWindowSenderDelegate> senderDelegate() const;
  void setSenderDelegate(const std::shared_ptr<BLESlideWindowSenderDelegate>& delegate);
  // The ThreadBase running run(), when code runs one for it (threadRunloop); else null.
  std::shared_ptr<ThreadBase> thread() const;

  // Bytes accepted by sendTCP and not yet acknowledged by the peer.
  uint64_t unacknowledged() const;
  // Called for every frame written and every value received, on the thread doing it.
  // Must be quick and must not call back into this object. Empty function: off.
  void setFrameTrace(std::function<void(bool outgoing, const Data& frame)> trace);

 private:
  BLESlideWindow();
  std::shared_ptr<BLESlideWindow> self() {
    return std::static_pointer_cast<BLESlideWindow>(shared_from_this());
  }

  mutable std::mutex mutex_;
  std::shared_ptr<ThreadBase> thread_;                          // guarded by mutex_
  std::weak_ptr<BLESlideWindowSenderDelegate> senderDelegate_;  // guarded by mutex_
};

}  // namespace qlt
