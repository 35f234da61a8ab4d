// The sliding-window receive path under fuzzing: entry functions shared by the libFuzzer
// targets (fuzz/) and the unit test that replays their corpus.
//
// Both run one input through a fresh core (swcore/qlt_sw.h, SWTransport's constants) that
// has segments of its own in flight, and check after every step what must hold whatever
// arrives: at most 3 segments in flight, the queue never grows by receiving, every frame
// the core writes is well formed, a round ends with nothing due, and the receive sequence
// and the deliveries follow an independent model of the receiver. A broken invariant aborts (which
// the fuzzer reports).
#pragma once

#include <cstddef>
#include <cstdint>

namespace qlt::fuzz {

// The input, cut into values: a length byte, then that many bytes (as far as there are).
// A length byte with its top bit set also runs a worker round 100 ms later.
int runRaw(const uint8_t* data, size_t size);

// The input as a script of mostly valid frames: running sequence numbers, with fuzzed
// headers, lengths and payloads, acknowledgements and rejections around the window,
// polls, datagrams, rounds with time passing, and new messages to send.
int runStructured(const uint8_t* data, size_t size);

// The input into a core with the wide window on (either role): see SlideWindowFuzz.cpp.
int runWide(const uint8_t* data, size_t size);

}  // namespace qlt::fuzz
