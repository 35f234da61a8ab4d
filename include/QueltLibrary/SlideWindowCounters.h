// SlideWindowCounters: what a sliding-window engine has done so far, for a user to read.
//
// Every engine (SWTransport, BLESlideWindow) counts as it goes, with relaxed atomics;
// counters() returns a snapshot. The counters never change what goes on the wire.
#pragma once

#include <cstdint>

#include "QueltLibrary/Export.h"

namespace qlt {

struct QLT_EXPORT SlideWindowCounters {
  uint64_t framesSent = 0;          // every frame handed to the sender delegate
  uint64_t framesReceived = 0;      // every value fed to receive(), malformed ones included
  uint64_t segmentsSent = 0;        // "TCP" segment frames written, first sends and resends
  uint64_t segmentsResent = 0;      // of those, segments that had been on the wire before
  uint64_t pollsSent = 0;           // status polls
  uint64_t acksSent = 0;            // acknowledgements (owed ones and poll answers)
  uint64_t rejectionsSent = 0;      // rejections (of unexpected segments and poll answers)
  uint64_t rejectionsReceived = 0;  // rejections read
  uint64_t rejectionsHonoured = 0;  // of those, rejections inside the window (went back)
  uint64_t acksReceived = 0;        // acknowledgements read
  uint64_t malformedIgnored = 0;    // empty, short or unknown control frames ignored
  uint64_t tcpDelivered = 0;        // "TCP" payloads delivered to the delegates
  uint64_t udpDelivered = 0;        // "UDP" payloads delivered to the delegates
  uint64_t bytesQueued = 0;         // payload bytes in the send queue now (sent or not)
};

}  // namespace qlt
