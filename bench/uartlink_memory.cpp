// What streaming through UartLink costs in memory: a process sends N MB (200 by default)
// through send() to a device on the simulated radio that acknowledges and discards every
// segment (sw-sink), then flush()es. Goal: its peak resident memory (VmHWM) grows by at most
// the send buffer plus a small constant, however much is sent.
//
//   build/default/bench/qlt_uartlink_memory [MB]
//
// Prints the growth of VmHWM over the run, the send buffer, the goodput and the time flush()
// took; exits 1 when the growth exceeds the buffer plus 16 MB (the constant allows for the
// pool's threads and the allocator's arenas, not for the stream). To say where growth
// sits, it also prints the most the heap held beyond its start (every arena, sampled after
// each megabyte) and the most threads the process had.
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "QueltLibrary/QueltLibrary.h"
#include "QueltLibrary/UartLink.h"
#include "QueltLibrary/sim/SimRadio.h"

using namespace qlt;
using namespace std::chrono_literals;

namespace {

// A field of /proc/self/status: its number, in kB for sizes ("VmHWM", "Threads").
long statusValue(const std::string& field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field + ":", 0) == 0)
      return std::strtol(line.c_str() + field.size() + 1, nullptr, 10);
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  const long megabytes = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 200;
  auto radio = sim::SimRadio::create(false);
  sim::SimDeviceConfig sink;
  sink.identifier = UUID::literal("51D0E001-0000-4000-8000-00000000F001");
  sink.localName = "QLT-SwSink";
  sink.behaviour = sim::SimBehaviour::SwSink;
  sink.advertisingInterval = 0.01;
  radio->addDevice(sink);

  UartLink::Options options;
  options.manager = QLT_BLEManager::create(radio->backend());
  UartLink link(options);
  link.connect("QLT-SwSink");

  std::vector<uint8_t> chunk(1 << 20);
  for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<uint8_t>(i % 251);
  const Data block(chunk.data(), chunk.size());
  const long before = statusValue("VmHWM");
  const size_t heapBefore = mallinfo2().uordblks;
  size_t heapMost = heapBefore;
  long threadsMost = statusValue("Threads");
  const auto start = std::chrono::steady_clock::now();
  for (long i = 0; i < megabytes; ++i) {
    link.send(block);
    heapMost = std::max(heapMost, mallinfo2().uordblks);
    threadsMost = std::max(threadsMost, statusValue("Threads"));
  }
  const auto sent = std::chrono::steady_clock::now();
  const bool flushed = link.flush(60s);
  const auto done = std::chrono::steady_clock::now();
  const long growthKb = statusValue("VmHWM") - before;
  const double seconds = std::chrono::duration<double>(done - start).count();
  const auto received = radio->stats(sink.identifier).payloadBytesReceived;
  const long limitKb = static_cast<long>(options.sendBuffer / 1024) + 16 * 1024;
  std::printf(
      "sent %ld MB in %.1f s (%.1f MB/s); flush took %.1f ms; the device received %llu bytes\n"
      "VmHWM grew by %ld kB over the stream (send buffer %zu kB, limit %ld kB): %s\n"
      "the heap held at most %zu kB more than at the start; at most %ld threads\n",
      megabytes, seconds, megabytes / seconds,
      std::chrono::duration<double, std::milli>(done - sent).count(),
      static_cast<unsigned long long>(received), growthKb, options.sendBuffer / 1024, limitKb,
      growthKb <= limitKb ? "within" : "EXCEEDED", (heapMost - heapBefore) / 1024, threadsMost);
  const bool ok = flushed && growthKb <= limitKb &&
                  received == static_cast<unsigned long long>(megabytes) << 20;
  return ok ? 0 : 1;
}
