#include "Echo.h"

#include <algorithm>

#include "Session.h"
#include "Terminal.h"

namespace qlt::cli {

void EchoSink::onData(const Data& payload, bool /*datagram*/) {
  waiter_.update(
      [&] { bytes_.insert(bytes_.end(), payload.bytes(), payload.bytes() + payload.size()); });
}

uint64_t EchoSink::received() {
  uint64_t n = 0;
  waiter_.read([&] { n = bytes_.size(); });
  return n;
}

void EchoSink::clear() {
  waiter_.update([&] { bytes_.clear(); });
}

bool EchoSink::waitFor(uint64_t bytes, double stallS, ProgressBar* bar) {
  uint64_t seen = received();
  auto lastProgress = std::chrono::steady_clock::now();
  while (seen < bytes) {
    uint64_t now = seen;
    // Wake at least every 100 ms to draw the bar and check for a stall.
    waiter_.waitUntil([&] { return bytes_.size() != seen || bytes_.size() >= bytes; }, 0.1);
    waiter_.read([&] { now = bytes_.size(); });
    if (now != seen) {
      seen = now;
      lastProgress = std::chrono::steady_clock::now();
      if (bar) bar->update(seen);
    } else if (std::chrono::duration<double>(std::chrono::steady_clock::now() - lastProgress)
                   .count() > stallS) {
      return false;
    }
  }
  return true;
}

bool EchoSink::matches(const std::vector<uint8_t>& sent, std::string& why) {
  bool same = false;
  waiter_.read([&] {
    const auto mismatch = std::mismatch(sent.begin(), sent.end(), bytes_.begin(), bytes_.end());
    if (bytes_.size() != sent.size()) {
      why = std::to_string(bytes_.size()) + " bytes came back for " + std::to_string(sent.size()) +
            " sent";
    } else if (mismatch.first != sent.end()) {
      why = "the echo differs from what was sent at byte " +
            std::to_string(mismatch.first - sent.begin());
    } else {
      same = true;
    }
  });
  return same;
}

std::vector<uint8_t> makePattern(size_t length, uint32_t seed) {
  std::vector<uint8_t> out(length);
  uint32_t x = seed * 2654435761u + 12345u;
  for (size_t i = 0; i < length; ++i) {
    x = x * 1664525u + 1013904223u;  // a fixed LCG: reproducible, not periodic within 64 kB
    out[i] = static_cast<uint8_t>(x >> 24);
  }
  return out;
}

EchoRun echoTransfer(Connection& connection, EchoSink& sink, const std::vector<uint8_t>& payload,
                     double stallS, bool showProgress, const std::string& label) {
  sink.clear();
  EchoRun run;
  run.bytes = payload.size();
  const auto start = std::chrono::steady_clock::now();
  std::unique_ptr<ProgressBar> bar;
  if (showProgress) bar = std::make_unique<ProgressBar>(label, payload.size());
  connection.sendTCP(Data(payload.data(), payload.size()));
  const bool complete = sink.waitFor(payload.size(), stallS, bar.get());
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (bar) bar->finish();
  run.echoed = sink.received();
  if (!complete) {
    run.problem = "the echo stalled: nothing came back for " + cli::seconds(stallS) + " after " +
                  std::to_string(run.echoed) + " of " + std::to_string(run.bytes) + " bytes";
    return run;
  }
  run.verified = sink.matches(payload, run.problem);
  return run;
}

std::vector<double> echoLatencies(Connection& connection, EchoSink& sink, int count,
                                  size_t messageBytes, double stallS) {
  std::vector<double> out;
  for (int i = 0; i < count; ++i) {
    sink.clear();
    const auto message = makePattern(messageBytes, 1000 + i);
    const auto start = std::chrono::steady_clock::now();
    connection.sendTCP(Data(message.data(), message.size()));
    if (!sink.waitFor(message.size(), stallS)) {
      throw Failure("no echo of a " + std::to_string(messageBytes) + "-byte message within " +
                    cli::seconds(stallS));
    }
    out.push_back(
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
            .count());
    std::string why;
    if (!sink.matches(message, why)) throw Failure("latency probe: " + why);
  }
  return out;
}

}  // namespace qlt::cli
