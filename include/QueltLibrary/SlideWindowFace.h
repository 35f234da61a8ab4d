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

#include "QueltLibrary/SlideWindowCounters.h"

namespace qlt {

class SlideWindowDriver;

class SlideWindowFace {
 public:
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
