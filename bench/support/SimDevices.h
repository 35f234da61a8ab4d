// Helpers the benchmarks share: the process's OS threads, and numbered simulated devices.
#pragma once

#include <dirent.h>

#include <cstddef>
#include <cstdio>
#include <string>

#include "QueltLibrary/UUID.h"
#include "QueltLibrary/sim/SimDeviceConfig.h"

namespace qlt::bench {

// The threads of this process now (/proc/self/task).
inline size_t osThreads() {
  size_t n = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* e = readdir(dir)) n += e->d_name[0] != '.';
    closedir(dir);
  }
  return n;
}

// Device `i` of a numbered set: identifier `idPrefix` followed by i in 12 digits (the prefix
// is the first 24 characters of a UUID, "1D1E0000-0000-4000-8000-"), name `name`-i, an
// echo over the sliding window that accepts a connection at once.
inline sim::SimDeviceConfig numberedEcho(const char* idPrefix, const std::string& name, int i) {
  sim::SimDeviceConfig d;
  char id[40];
  std::snprintf(id, sizeof id, "%s%012d", idPrefix, i);
  d.identifier = *UUID::fromString(id);
  d.localName = name + "-" + std::to_string(i);
  d.behaviour = sim::SimBehaviour::SwEcho;
  d.connectDelay = 0.0;
  return d;
}

}  // namespace qlt::bench
