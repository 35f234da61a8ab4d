// Collecting what an echo device sends back, and measuring it.
//
// An EchoSink is handed to a Connection as its onData; the command then sends and waits
// for the echo. Received payloads are joined in arrival order (the library delivers
// segments, not the sender's messages), so "verified" means: the bytes that came back are
// exactly the bytes sent, complete and in order.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "QueltLibrary/Data.h"
#include "Waiter.h"

namespace qlt::cli {

class ProgressBar;
class Connection;

class EchoSink {
 public:
  // For ConnectionEvents::onData (runs on the tool's queue).
  void onData(const Data& payload, bool datagram);

  uint64_t received();
  // Forgets what has arrived so far.
  void clear();
  // Waits until at least `bytes` have arrived. Gives up (false) when nothing new arrives
  // for `stallS` seconds. Updates `bar` (when given) as bytes arrive.
  bool waitFor(uint64_t bytes, double stallS, ProgressBar* bar = nullptr);
  // Whether what arrived equals `sent` exactly; otherwise `why` says where they differ.
  bool matches(const std::vector<uint8_t>& sent, std::string& why);

 private:
  Waiter waiter_;
  std::vector<uint8_t> bytes_;  // guarded by waiter_
};

// A payload that shows reordering or loss at once: a counter pattern, not zeros.
std::vector<uint8_t> makePattern(size_t length, uint32_t seed = 1);

struct EchoRun {
  uint64_t bytes = 0;   // sent
  uint64_t echoed = 0;  // came back
  double seconds = 0;   // from the first write to the last echoed byte
  bool verified = false;
  std::string problem;  // when not verified
};

// Writes `payload` as one message and waits for its echo (see EchoSink::waitFor).
EchoRun echoTransfer(Connection& connection, EchoSink& sink, const std::vector<uint8_t>& payload,
                     double stallS, bool showProgress, const std::string& label);

// `count` round trips of a small message, one at a time; the latencies in milliseconds.
std::vector<double> echoLatencies(Connection& connection, EchoSink& sink, int count,
                                  size_t messageBytes, double stallS);

}  // namespace qlt::cli
