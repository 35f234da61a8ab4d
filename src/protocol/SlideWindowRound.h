// stepRound: an engine driven by events and timers instead of a thread that polls.
//
// A worker that loops over SlideWindowEngine::round() makes about a thousand rounds a
// second whether or not there is anything to do. stepRound runs one round and says when
// the next one is due, so the owner can sleep, or leave a timer, until then:
//   - zero: an acknowledgement is still owed (an input arrived during the round);
//   - the rest of the poll time-out (plus a millisecond, as the time-out is strict) when
//     segments are in flight: a status poll may be due then;
//   - nullopt when nothing is in flight: the engine has nothing to do until its next input.
// Times are on the engine's clock (a ManualClock in tests drives them by hand).
// Every input makes a round due at once: after sendTCP, sendUDP or receive the owner runs
// (or schedules) a round. Two rounds must not run at the same time; the owner serialises
// them (one queue, or one worker thread).
#pragma once

#include <chrono>
#include <optional>

#include "protocol/SlideWindowEngine.h"

namespace qlt {

std::optional<std::chrono::nanoseconds> stepRound(SlideWindowEngine& engine);

}  // namespace qlt
