// SlideWindowCounters: what a sliding-window engine has done so far, for a user to read.
//
// Every engine (SWTransport, BLESlideWindow) counts as it goes, with relaxed atomics;
// counters() returns a snapshot. The counters never change what goes on the wire.
#pragma once

#include <cstdint>

#include "QueltLibrary/Export.h"

namespace qlt {

// Which frame format a link's window speaks. Classic: the 3-segment window (a face that
// was not asked for the extension, or a peer that did not take it); Negotiating: the
// extension was offered and the answer is not in yet (the classic window runs meanwhile);
// Extended: both ends took the extension (docs/wide-window.md).
enum class WindowFormat : uint8_t { Classic, Negotiating, Extended };
// "classic", "negotiating", "extended".
QLT_EXPORT const char* toString(WindowFormat format);

// What a new link made of the extended window's session (a window that keeps its session
// across links: SlideWindowFace::linkUp). Resumed: the stream went on where the peer had it,
// nothing lost, nothing twice. Not resumed: a new session began (the device restarted, or is
// another device, or the session was held too long); the bytes sent on the old one and never
// acknowledged are in doubt (they may or may not have arrived) and are dropped; bytes queued
// and never sent go on in the new session.
struct QLT_EXPORT SessionChange {
  bool resumed = false;
  uint64_t bytesInDoubt = 0;
};

struct QLT_EXPORT SlideWindowCounters {
  WindowFormat format = WindowFormat::Classic;  // the format now, not a count
  uint64_t framesSent = 0;                      // every frame handed to the sender delegate
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
  // The extended window (segmentsSent, segmentsResent, pollsSent and acks* count its frames
  // too).
  uint64_t negotiationFramesSent = 0;  // offers, answers, confirmations, refusals written
  uint64_t windowFaults = 0;     // the peer's frames refused or clamped (logged once per kind)
  uint64_t segmentsLost = 0;     // extended segments found lost (and sent again)
  uint64_t segmentsHeld = 0;     // extended segments received out of order and held
  uint64_t segmentsDropped = 0;  // extended segments dropped: copies, outside the window
  uint64_t sessionsResumed = 0;  // links that went on with the session after a drop
  uint64_t sessionsLost = 0;     // sessions that ended with a new one
  uint64_t bytesInDoubt = 0;     // sent in lost sessions, never acknowledged: may have arrived
  // This end's send direction once extended (else 0): segment size, segments in flight.
  uint32_t extendedSegment = 0;
  uint32_t extendedWindow = 0;
};

}  // namespace qlt
