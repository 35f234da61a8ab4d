// SlideWindowFace: what SWTransport and BLESlideWindow share, the protocol state of their
// link and its rounds driven by hand.
//
// Both run the same sliding-window core (swcore/qlt_sw.h) through one driver that does
// everything for the link on one serial queue of its own. These calls run there too, in a
// sync() (inline when called from there), so they see every sendTCP and receive made
// before them. Tests and tools call them; a started face runs its rounds by itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "QueltLibrary/Export.h"
#include "QueltLibrary/SlideWindowCounters.h"

namespace qlt {

class SlideWindowDriver;

// What the extended window sizes itself by: the link's facts (0: not known; the window
// then assumes the largest a BLE link may need: a 2M PHY, 251-byte PDUs, a 50 ms interval).
struct QLT_EXPORT WindowLink {
  size_t valueLimit = 0;  // the largest value one write or notification carries (ATT_MTU - 3)
  double intervalMs = 0;  // the connection interval
  double phyMbps = 0;     // 1 (LE 1M) or 2 (LE 2M)
  size_t dataLength = 0;  // link-layer payload octets per PDU (27..251)
};

class QLT_EXPORT SlideWindowFace {
 public:
  // The extended ("wide") window, off by default: a face keeps the classic window unless the
  // application asks for the extension here, before start(). With it on, the face offers the
  // extension when it starts (it is the central's end of the link) and switches to it only
  // when the device answers; a device that does not answer within the poll time-out is
  // spoken to in the classic format, as before (docs/wide-window.md). `link` sizes the
  // segments (as large as a value may be) and the slots (enough to fill the link's round
  // trip). Called after start(), it changes nothing and logs so.
  void setExtendedWindow(bool enabled, WindowLink link = {});
  bool extendedWindow() const;
  // The format the link's window speaks now (counters().format).
  WindowFormat windowFormat() const;

  // A session across links. With the extended window the face may outlive its link: the
  // owner calls linkLost(link()) when the link drops (nothing more is written or taken; what
  // is queued or unacknowledged stays) and linkUp() when the next link to the same device
  // is ready, and feeds every value with the number of the link it came on (receive(value,
  // link): a value of an earlier link is ignored). The next link resumes the stream where
  // the device has it, or begins a new session: the face's session delegate hears which,
  // with the bytes in doubt (SessionChange). A session held longer than its hold time (30 s
  // by default) without a link is forgotten, as is one forgetSession() ends while the link
  // is down; its bytes in doubt are reported then. Without the extension a link that comes
  // up reports what the last one had in flight the same way. Any thread; linkLost with the
  // number of a link that is no longer the current one changes nothing. linkUp(link) hands
  // the window the new link's facts first: a link with a smaller ATT MTU gets frames that
  // fit it (what the last link left unacknowledged is cut again to the new size), within the
  // buffers sized when the window was configured; linkUp() keeps the last link's facts.
  void linkLost(uint64_t link);
  uint64_t linkUp();
  uint64_t linkUp(const WindowLink& link);
  uint64_t link() const;
  void forgetSession();
  void setSessionHoldTime(double seconds);
  double sessionHoldTime() const;

  // Empties the send queue and resets the send sequence (the receive sequence stays).
  void initState();
  // Releases `count` segments from the head of the queue.
  void ackReceived(uint64_t count);
  // One round's three steps: puts queued segments on the wire as far as the window allows;
  // sends the oldest segment again and a status poll when its answer is late; writes the
  // acknowledgement and the rejection owed to the peer.
  void transfer();
  void checkControl();
  void doPendingWork();
  // Bit 0: an acknowledgement is owed; bit 1: a rejection, for the sequence in bits 4-5.
  uint64_t pendingWork() const;
  void setPendingWork(uint64_t bits);

  SlideWindowCounters counters() const;
  // Protocol state, for tests and tools.
  uint64_t readPos() const;
  uint8_t ackWindow() const;
  uint8_t remoteAck() const;
  size_t queuedSegments() const;
  uint8_t inFlight() const;

 protected:
  SlideWindowFace();
  ~SlideWindowFace();
  SlideWindowFace(const SlideWindowFace&) = delete;
  SlideWindowFace& operator=(const SlideWindowFace&) = delete;

  std::shared_ptr<SlideWindowDriver> driver_;  // set by the face's create(), then kept
};

}  // namespace qlt
