// SimRandom: the small seeded generator behind every random decision of the simulated
// radio (splitmix64). Its sequence depends only on the seed, on every platform and
// standard library, so a seeded run repeats exactly.
//
// Thread safety: none; each user keeps its own, guarded by its own lock or queue.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "QueltLibrary/UUID.h"

namespace qlt::sim {

class SimRandom {
 public:
  explicit SimRandom(uint64_t seed = 0) : state_(seed) {}

  // Mixes several values (a seed, an identifier, a counter, a stream number) into a seed.
  static uint64_t seedFrom(std::initializer_list<uint64_t> parts) {
    uint64_t s = 0x51ED5EEDULL;
    for (uint64_t part : parts) s = mix(s ^ mix(part + 0x9E3779B97F4A7C15ULL));
    return s;
  }
  static uint64_t hashOf(const UUID& uuid) {
    uint64_t h = 0;
    for (uint8_t byte : uuid.bytes()) h = mix(h ^ byte);
    return h;
  }

  uint64_t next() {
    state_ += 0x9E3779B97F4A7C15ULL;
    return mix(state_);
  }
  // Uniform in [0, 1).
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  // True with probability p (never for p <= 0, always for p >= 1).
  bool chance(double p) {
    if (p <= 0) return false;
    if (p >= 1) return true;
    return uniform() < p;
  }
  // Uniform integer in [-spread, spread].
  int around(int spread) {
    if (spread <= 0) return 0;
    return static_cast<int>(next() % (2 * static_cast<uint64_t>(spread) + 1)) - spread;
  }

 private:
  static uint64_t mix(uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  uint64_t state_;
};

}  // namespace qlt::sim
