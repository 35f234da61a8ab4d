// qlt bench: goodput, echo latency and transport counters, beside the window's bound.

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "Echo.h"
#include "Errors.h"
#include "Numbers.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "Session.h"
#include "Stats.h"
#include "Terminal.h"

namespace qlt::cli {
namespace {

struct BenchOptions {
  CommonOptions common;
  std::string device;  // empty: the simulated echo device
  uint64_t bytes = uint64_t{64} * 1024;
  double loss = -1;  // < 0: the simulated radio's own (none unless --sim-config says)
  double intervalMs = -1;
  std::string transport = "sw";
  bool json = false;
  int pings = 30;
  double timeoutS = 10.0;
};

// Rounds to 3 decimals so the JSON stays readable.
double r3(double v) { return std::round(v * 1000) / 1000; }

int runBench(const BenchOptions& o) {
  const TransportKind transport = parseTransport(o.transport);
  setStdoutCarriesData(o.json);
  const bool onSim = resolvePlatform(o.common) == "sim";
  if (!onSim && o.device.empty())
    throw UsageError("on real hardware, name a device that echoes: --device DEVICE");
  SimLinkSettings link;
  if (o.loss >= 0) link.loss = o.loss;
  if (o.intervalMs >= 0) link.intervalMs = o.intervalMs;
  Session session(o.common, link);
  session.powerOn(5.0);

  // The simulated radio's echo devices: QLT-Echo runs a sliding window of its own and
  // echoes each payload; QLT-Chunk sends every written value back as it came.
  const std::string target = !o.device.empty()                 ? o.device
                             : transport == TransportKind::NUS ? "QLT-Chunk"
                                                               : "QLT-Echo";

  EchoSink sink;
  ConnectionEvents events;
  events.onData = [&sink](const Data& d, bool udp) { sink.onData(d, udp); };
  Connection connection(session, session.find(target, o.timeoutS), transport, events);
  connection.open(o.timeoutS);

  const auto payload = makePattern(o.bytes);
  const TransferCounters before = connection.counters();
  const EchoRun run = echoTransfer(connection, sink, payload, o.timeoutS, !o.json, "bench");
  const TransferCounters after = connection.counters();
  std::vector<double> latencies;
  if (run.verified && o.pings > 0)
    latencies = echoLatencies(connection, sink, o.pings, 16, o.timeoutS);
  connection.close(5.0);

  const double goodput = run.seconds > 0 && run.verified ? run.bytes / run.seconds : 0;
  // What the transport's design allows on this link (see the help text and docs/qlt.md).
  const LinkTiming timing = session.linkTiming();
  const bool sw = transport == TransportKind::SlidingWindow;
  const double bound = !onSim ? 0 : sw ? windowBoundBps({}, timing) : chunkerBoundBps(timing);
  const double intervalMs = timing.oneWayS * 1000;
  const TransferCounters c{after.retransmissions - before.retransmissions,
                           after.pollsSent - before.pollsSent,
                           after.rejectionsSent - before.rejectionsSent,
                           after.rejectionsReceived - before.rejectionsReceived, 0};

  if (o.json) {
    nlohmann::json j = {
        {"transport", transportName(transport)},
        {"device", connection.peripheral()->name().value_or(connection.deviceIdentifier())},
        {"bytes", run.bytes},
        {"echoed_bytes", run.echoed},
        {"seconds", r3(run.seconds)},
        {"goodput_Bps", r3(goodput)},
        {"bound_Bps", r3(bound)},
        {"verified", run.verified},
        {"latency_p50_ms", r3(percentile(latencies, 50))},
        {"latency_p99_ms", r3(percentile(latencies, 99))},
        {"latency_samples", latencies.size()},
        {"retransmissions", c.retransmissions},
        {"polls_sent", c.pollsSent},
        {"rejections_sent", c.rejectionsSent},
        {"rejections_received", c.rejectionsReceived},
        {"loss", session.airLoss()},
        {"interval_ms", r3(intervalMs)},
    };
    if (!run.verified) j["problem"] = run.problem;
    printLine(j.dump());
  } else {
    printLine("bench: " + std::to_string(run.bytes) + " bytes echoed by '" +
              connection.deviceName() + "' over " + transportName(transport));
    printLine("  verified         " +
              std::string(run.verified ? "yes, byte for byte" : "NO: " + run.problem));
    printLine("  time             " + formatSeconds(run.seconds));
    printLine("  goodput          " + formatRate(goodput) + " (measured)");
    if (bound > 0 && sw)
      printLine("  bound            " + formatRate(bound) + " (3 × 120 B per round trip of " +
                formatSeconds(windowRoundTripS({}, timing)) + ")");
    if (bound > 0 && !sw)
      printLine("  bound            " + formatRate(bound) + " (one 20 B chunk per worker round)");
    printLine("  echo latency     p50 " + formatSeconds(percentile(latencies, 50) / 1000) +
              ", p99 " + formatSeconds(percentile(latencies, 99) / 1000) + " (" +
              std::to_string(latencies.size()) + " round trips of 16 B)");
    printLine("  retransmissions  " + std::to_string(c.retransmissions));
    printLine("  polls            " + std::to_string(c.pollsSent) + " sent");
    printLine("  rejections       " + std::to_string(c.rejectionsSent) + " sent, " +
              std::to_string(c.rejectionsReceived) + " received");
    char loss[32];
    std::snprintf(loss, sizeof loss, "%g%%", session.airLoss() * 100);
    printLine("  link             loss " + std::string(loss) + ", interval " +
              formatSeconds(timing.oneWayS));
  }
  return run.verified ? kExitOk : kExitFailure;
}

}  // namespace

CommandAction addBenchCommand(CLI::App& app) {
  auto o = std::make_shared<BenchOptions>();
  auto* cmd = app.add_subcommand(
      "bench",
      "Measure goodput (bytes echoed back complete and in order / time), echo latency p50/p99 "
      "and the transport counters, beside the bound that the sliding window allows on the link");
  cmd->add_option(
      "--device", o->device,
      "A device that echoes what it receives (default on the simulated radio: QLT-Echo, "
      "or QLT-Chunk with --transport nus)");
  addByteOption(*cmd, "--bytes", o->bytes, "Payload size", 1, uint64_t{64} << 20)
      ->default_str("64KiB");
  addNumberOption(*cmd, "--loss", o->loss, "Fraction of frames lost on the simulated air", 0, 0.9,
                  "a fraction");
  addNumberOption(*cmd, "--interval-ms", o->intervalMs,
                  "Connection interval of the simulated link in ms", 0, 1000, "a number of ms");
  cmd->add_option("--transport", o->transport, "sw (sliding window) or nus (plain 20-byte chunks)")
      ->check(CLI::IsMember({"sw", "nus"}))
      ->capture_default_str();
  addCountOption(*cmd, "--pings", o->pings,
                 "Round trips of a 16-byte message for the latency figures", 0, 10000)
      ->default_str("30");
  addNumberOption(*cmd, "--timeout", o->timeoutS,
                  "Seconds to connect; also how long the echo may stall", 0.1, 600,
                  "a number of seconds")
      ->default_str("10");
  cmd->add_flag(
      "--json", o->json,
      "Print one JSON object: transport, bytes, seconds, goodput_Bps, bound_Bps, verified, "
      "latency_p50_ms, latency_p99_ms, retransmissions, polls_sent, rejections_sent, "
      "rejections_received, loss, interval_ms (and a few more)");
  addCommonOptions(*cmd, o->common, /*movesData=*/true);
  cmd->footer(
      "The bound (bound_Bps). The sender may have 3 segments of 120 bytes in flight; the\n"
      "acknowledgement that frees the window comes back one round trip after the first left:\n"
      "  round trip = 2 × one-way delay + 1 ms acknowledgement delay + write pacing\n"
      "  bound_Bps  = 3 × 120 B / round trip\n"
      "The one-way delay is the link's connection interval (--interval-ms); the acknowledgement\n"
      "waits for the receiver worker's next round (about 1 ms); the write pacing is the time the\n"
      "write path spends on a frame (1 / the link's write-rate limit; with a limit, the bound is\n"
      "also at most 120 B × that rate). Goodput is measured, never derived from the bound; it\n"
      "stays below it, because the echo crosses the link again through the device's window.\n"
      "With --transport nus there is no window: bound_Bps = 20 B / max(1 ms, write pacing), one\n"
      "chunk per worker round. On real hardware the link is not known and bound_Bps is 0.\n"
      "\nExamples:\n"
      "  qlt bench                               64 kB on the simulated echo device\n"
      "  qlt bench --loss 0.02 --interval-ms 15  a lossy, slower link\n"
      "  qlt bench --json | jq .goodput_Bps      for scripts\n"
      "  qlt bench --platform bluez --device 'My Echo'   real hardware (the device must echo)");
  return [o] { return runBench(*o); };
}

}  // namespace qlt::cli
