// qlt bench: goodput, echo latency and transport counters, beside the window's bound.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "Echo.h"
#include "Errors.h"
#include "Numbers.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "QueltLibrary/SlideWindowFrame.h"
#include "QueltLibrary/sim/LinkParameters.h"
#include "Session.h"
#include "Stats.h"
#include "Terminal.h"
#include "Waiter.h"

namespace qlt::cli {
namespace {

struct BenchOptions {
  CommonOptions common;
  std::string device;  // empty: the simulated echo (or, with -R, source) device
  uint64_t bytes = uint64_t{64} * 1024;
  double durationS = 0;  // > 0: measure for this long instead of --bytes
  double everyS = 0;     // > 0: report goodput per interval of this length
  bool reverse = false;  // device → host: a source device sends, the host measures
  double loss = -1;      // < 0: the simulated radio's own (none unless --sim-config says)
  LinkOptions link;
  std::string transport = "sw";
  bool json = false;
  int pings = 30;
  double timeoutS = 10.0;
};

// Rounds to 3 decimals so the JSON stays readable.
double r3(double v) { return std::round(v * 1000) / 1000; }

// "0.61"
std::string formatShare(double share) {
  char text[16];
  std::snprintf(text, sizeof text, "%.2f", share);
  return text;
}

// What arrives, checked as it comes: the counting pattern, exactly once and in order. Once
// the stream is measured (and, echoed, drained), payloads go to the echo sink instead, for
// the latency probes. Payloads arrive on the tool's queue; the command's thread waits.
struct Meter {
  Waiter waiter;
  PatternCheck check;  // guarded by waiter
  std::atomic<bool> pinging{false};
  EchoSink sink;

  void onData(const Data& d, bool datagram) {
    if (pinging.load()) return sink.onData(d, datagram);
    waiter.update([&] { check.consume(d.bytes(), d.size()); });
  }
};

struct Interval {
  double startS, endS;
  uint64_t bytes;
  double rate() const { return endS > startS ? bytes / (endS - startS) : 0; }
};

struct StreamRun {
  uint64_t sent = 0;     // written by the host (echo only)
  uint64_t bytes = 0;    // arrived while measuring
  uint64_t arrived = 0;  // arrived in all (echo: after the drain)
  double seconds = 0;    // measured: from the first write (or, -R, ready) to the end
  std::string problem;   // empty: verified
  bool interrupted = false;
  std::vector<Interval> intervals;
};

std::string intervalLine(const Interval& i, double bound) {
  char when[40], line[120], share[16] = "";
  std::snprintf(when, sizeof when, "%.2f-%.2f s", i.startS, i.endS);
  if (bound > 0) std::snprintf(share, sizeof share, "%5.0f %%", 100 * i.rate() / bound);
  std::snprintf(line, sizeof line, "  %-16s %10llu B %10.1f kB/s  %s", when,
                static_cast<unsigned long long>(i.bytes), i.rate() / 1000, share);
  return line;
}

// Streams the counting pattern (echoed: the host writes it and the device sends it back;
// reverse: the device sends it), until --bytes have arrived or -t has passed, printing
// each -i interval as it ends. The host keeps about 0.5 s of the echo (at least 16 KiB)
// in flight. Stops
// early on a wrong byte, a lost link, a stall of --timeout, or Ctrl-C.
StreamRun stream(Connection& connection, Meter& m, const BenchOptions& o, double intervalBound) {
  StreamRun run;
  const uint64_t target = o.durationS > 0 ? 0 : o.bytes;  // 0: for a duration
  const auto start = std::chrono::steady_clock::now();
  auto elapsed = [&] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  std::unique_ptr<ProgressBar> bar;
  if (target && o.everyS == 0 && !o.json) bar = std::make_unique<ProgressBar>("bench", target);
  if (o.everyS > 0) printStatus("  interval                arrived       goodput  of bound");
  Interval open{0, 0, 0};
  uint64_t got = 0, atOpen = 0;
  double lastProgress = 0, nextEdge = o.everyS;
  std::vector<uint8_t> chunk;
  // The chunker has no recovery: once its echo is wrong, the run goes on to count what
  // never came back (the first fault is kept) instead of stopping at the first gap.
  const bool counting = o.transport == "nus" && !o.reverse && target > 0;
  std::string firstWrong;
  constexpr double kQuietS = 1.0;  // an echo silent this long after the last write is over
  for (bool done = false; !done;) {
    double now = elapsed();
    if (!o.reverse) {  // keep the echo busy
      const uint64_t wanted = std::clamp<uint64_t>(
          static_cast<uint64_t>(got / std::max(now, 0.001) * 0.5), 16384, uint64_t{1} << 20);
      for (uint64_t out = run.sent > got ? run.sent - got : 0;
           (!target || run.sent < target) && out < wanted; out += chunk.size()) {
        uint64_t n = std::min<uint64_t>(16384, wanted - out);
        if (target) n = std::min(n, target - run.sent);
        chunk.resize(n);
        fillCountingPattern(run.sent, chunk.data(), n);
        connection.sendTCP(Data(chunk.data(), n));
        run.sent += n;
      }
    }
    double wait = 0.05;
    if (o.everyS > 0) wait = std::min(wait, nextEdge - now);
    if (o.durationS > 0) wait = std::min(wait, o.durationS - now);
    std::string wrong;
    try {
      m.waiter.waitUntil(
          [&] {
            return m.check.bytes() != got || (!m.check.ok() && firstWrong.empty()) ||
                   (target && got >= target);
          },
          std::max(wait, 0.0));
    } catch (const Interrupted&) {
      acknowledgeInterrupt();  // the summary and the disconnection still wait
      run.interrupted = true;
    }
    m.waiter.read([&] {
      if (m.check.bytes() != got) lastProgress = elapsed();
      got = m.check.bytes();
      wrong = m.check.problem();
    });
    now = elapsed();
    if (bar) bar->update(got);
    if (o.everyS > 0 && now >= nextEdge) {
      open.endS = now;
      open.bytes = got - atOpen;
      run.intervals.push_back(open);
      printStatus(intervalLine(open, intervalBound));
      open = {now, 0, 0};
      atOpen = got;
      while (nextEdge <= now) nextEdge += o.everyS;
    }
    done = true;
    if (!wrong.empty() && counting) {
      if (firstWrong.empty()) firstWrong = wrong;
      if (run.interrupted || connection.dropped() || got >= run.sent ||
          (run.sent >= target && now - lastProgress > kQuietS)) {
        run.problem = std::to_string(run.sent > got ? run.sent - got : 0) + " of " +
                      std::to_string(run.sent) + " bytes never came back (" + firstWrong + ")";
      } else {
        done = false;
      }
    } else if (!wrong.empty()) {
      run.problem = wrong;
    } else if (run.interrupted) {
      run.problem = "interrupted";
    } else if (connection.dropped()) {
      run.problem = "the connection was lost";
    } else if (now - lastProgress > o.timeoutS) {
      run.problem =
          "nothing arrived for " + seconds(o.timeoutS) + " after " + std::to_string(got) + " bytes";
    } else {
      done = (target && got >= target) || (o.durationS > 0 && now >= o.durationS);
    }
    run.bytes = got;
    run.seconds = now;
  }
  if (bar) bar->finish();
  // The last part of an interval, unless it is a sliver left by timing.
  if (o.everyS > 0 && run.seconds - open.startS > 0.05 * o.everyS) {
    open.endS = run.seconds;
    open.bytes = got - atOpen;
    run.intervals.push_back(open);
    printStatus(intervalLine(open, intervalBound));
  }
  run.arrived = got;
  if (!o.reverse && run.problem.empty()) {  // every byte written must come back, and no more
    for (;;) {
      uint64_t now = 0;
      try {
        m.waiter.waitUntil([&] { return m.check.bytes() >= run.sent || !m.check.ok(); },
                           o.timeoutS);
      } catch (const Interrupted&) {
        acknowledgeInterrupt();
        run.interrupted = true;
      }
      m.waiter.read([&] {
        now = m.check.bytes();
        run.problem = m.check.problem();
      });
      if (!run.problem.empty() || now >= run.sent) {
        run.arrived = now;
        if (run.problem.empty() && now > run.sent)
          run.problem =
              std::to_string(now) + " bytes came back for " + std::to_string(run.sent) + " written";
        break;
      }
      if (run.interrupted || now == run.arrived) {
        run.problem = run.interrupted ? "interrupted"
                                      : "the echo stalled: " + std::to_string(now) + " of " +
                                            std::to_string(run.sent) + " bytes came back";
        run.arrived = now;
        break;
      }
      run.arrived = now;
    }
  }
  return run;
}

int runBench(const BenchOptions& o) {
  const TransportKind transport = parseTransport(o.transport);
  const bool sw = transport == TransportKind::SlidingWindow;
  if (o.reverse && !sw)
    throw UsageError("-R needs the sliding window: the source devices send through it");
  setStdoutCarriesData(o.json);
  const bool onSim = resolvePlatform(o.common) == "sim";
  if (!onSim && o.device.empty())
    throw UsageError(o.reverse ? "on real hardware, name a device that sends: --device DEVICE"
                               : "on real hardware, name a device that echoes: --device DEVICE");
  SimLinkSettings link;
  if (o.loss >= 0) link.loss = o.loss;
  applyLinkOptions(o.link, link);
  Session session(o.common, link);
  session.powerOn(5.0);

  // The simulated radio's devices: QLT-Echo runs a sliding window of its own and echoes
  // each payload; QLT-Chunk sends every written value back as it came; QLT-Source streams
  // the counting pattern while notifications are on.
  const std::string target = !o.device.empty() ? o.device
                             : o.reverse       ? "QLT-Source"
                             : sw              ? "QLT-Echo"
                                               : "QLT-Chunk";

  Meter meter;
  ConnectionEvents events;
  events.onData = [&meter](const Data& d, bool udp) { meter.onData(d, udp); };
  Connection connection(session, session.find(target, o.timeoutS), transport, events);
  connection.open(o.timeoutS);
  const platform::LinkInfo facts = connection.linkInfo();  // read while the link is up

  // What the transport's design allows on this link (see the help text and docs/qlt.md).
  const LinkTiming timing = session.linkTiming();
  const Traffic traffic = o.reverse ? Traffic::OneWay : Traffic::Echo;
  const double streamBound = !onSim ? 0
                             : sw   ? windowBoundBps({}, timing, traffic)
                                    : chunkerBoundBps(timing);
  if (o.everyS > 0)
    printStatus("bench: " + std::string(o.reverse ? "from '" : "echoed by '") +
                connection.deviceName() + "' over " + transportName(transport));

  const TransferCounters before = connection.counters();
  // Segments lost one way: the host's writes in an echo, the device's notifications with -R.
  const bool written = !o.reverse;
  const uint64_t lostBefore = session.segmentsLost(connection.deviceIdentifier(), written);
  const StreamRun run = stream(connection, meter, o, streamBound);
  const TransferCounters after = connection.counters();
  const uint64_t segmentsLost =
      session.segmentsLost(connection.deviceIdentifier(), written) - lostBefore;
  const bool extended = after.window == "extended";
  const bool verified = run.problem.empty();
  std::vector<double> latencies;
  if (verified && !o.reverse && o.pings > 0) {
    meter.pinging = true;
    latencies = echoLatencies(connection, meter.sink, o.pings, 16, o.timeoutS);
  }
  if (!connection.dropped()) connection.close(5.0);

  const double goodput = run.seconds > 0 && verified ? run.bytes / run.seconds : 0;
  const double bound = !onSim || run.bytes == 0 || extended ? 0
                       : sw ? windowBoundBps({}, timing, traffic, run.bytes)
                            : chunkerBoundBps(timing);
  const auto parameters = session.linkParameters(connection.deviceIdentifier());
  const sim::LinkParameters air = parameters.value_or(sim::LinkParameters{});
  // The most the link could carry of this traffic: the window's frames (the classic 1-byte
  // header and 120 bytes; the extended 3-byte header and the negotiated segment), or the
  // chunker's 20-byte values.
  const size_t payload = !sw ? 20 : extended ? after.extendedSegment : kTcpSegmentSize;
  const size_t header = !sw ? 0 : extended ? 3 : 1;
  const sim::LinkTraffic shape = o.reverse ? sim::LinkTraffic::OneWay : sim::LinkTraffic::Echo;
  const double physical =
      !parameters ? 0 : sim::physicalLimitBps(air, payload + header, payload, shape, run.bytes);
  // The link's own limit, whatever the transport: values as large as a write may be (at most
  // 512 bytes), each with a 3-byte header; classic and extended runs are both measured
  // against it.
  const size_t value = std::min<size_t>(facts.maxWriteLength, 512);
  const double linkLimit = !parameters || value <= 3
                               ? 0
                               : sim::physicalLimitBps(air, value, value - 3, shape, run.bytes);
  // Segments sent again: the host's own in an echo; with -R the device's, each one either a
  // lost segment's repair or a copy that the host dropped.
  const uint64_t resent = o.reverse ? segmentsLost + after.segmentsDropped - before.segmentsDropped
                                    : after.retransmissions - before.retransmissions;
  const TransferCounters c{after.retransmissions - before.retransmissions,
                           after.pollsSent - before.pollsSent,
                           after.rejectionsSent - before.rejectionsSent,
                           after.rejectionsReceived - before.rejectionsReceived, 0};

  if (o.json) {
    nlohmann::json j = {
        {"transport", transportName(transport)},
        {"direction", o.reverse ? "reverse" : "echo"},
        {"device", connection.peripheral()->name().value_or(connection.deviceIdentifier())},
        {"bytes", run.bytes},
        {"received_bytes", run.arrived},
        {"seconds", r3(run.seconds)},
        {"goodput_Bps", r3(goodput)},
        {"bound_Bps", r3(bound)},
        {"physical_limit_Bps", r3(physical)},
        {"link_limit_Bps", r3(linkLimit)},
        {"window", sw ? after.window : "none"},
        {"segment_bytes", extended ? after.extendedSegment
                          : sw     ? kTcpSegmentSize
                                   : 0},
        {"window_segments", extended ? after.extendedWindow
                            : sw     ? 3
                                     : 0},
        {"segments_sent", after.segmentsSent - before.segmentsSent},
        {"segments_lost", segmentsLost},
        {"resent_per_lost", segmentsLost > 0 ? r3(static_cast<double>(resent) / segmentsLost) : 0},
        {"link", parameters ? air.description() : "unknown (real hardware)"},
        {"verified", verified},
        {"latency_p50_ms", r3(percentile(latencies, 50))},
        {"latency_p99_ms", r3(percentile(latencies, 99))},
        {"latency_samples", latencies.size()},
        {"retransmissions", c.retransmissions},
        {"polls_sent", c.pollsSent},
        {"rejections_sent", c.rejectionsSent},
        {"rejections_received", c.rejectionsReceived},
        {"loss", session.airLoss()},
        {"interval_ms", r3(air.intervalMs)},
        {"phy", sim::phyName(air.phy)},
        {"data_length", air.dataLength},
        {"mtu", air.mtu},
        {"per", air.packetErrorRate},
    };
    if (!o.reverse) j["echoed_bytes"] = run.arrived;
    j["link"] = linkJson(facts);
    if (o.everyS > 0) {
      j["intervals"] = nlohmann::json::array();
      for (const auto& i : run.intervals) {
        j["intervals"].push_back(
            {{"start_s", r3(i.startS)},
             {"end_s", r3(i.endS)},
             {"bytes", i.bytes},
             {"goodput_Bps", r3(i.rate())},
             {"bound_share", streamBound > 0 ? r3(i.rate() / streamBound) : 0}});
      }
    }
    if (!verified) j["problem"] = run.problem;
    printLine(j.dump());
  } else {
    printLine("bench: " + std::to_string(run.bytes) + " bytes " +
              (o.reverse ? "sent by '" : "echoed by '") + connection.deviceName() + "' over " +
              transportName(transport) + (o.reverse ? " (device → host)" : ""));
    printLine("  verified         " + std::string(verified
                                                      ? "yes, every byte exactly once and in order"
                                                      : "NO: " + run.problem));
    printLine("  time             " + formatSeconds(run.seconds));
    std::string shares;
    if (physical > 0) shares += formatShare(goodput / physical) + " of the link's limit";
    if (bound > 0 && sw)
      shares +=
          (shares.empty() ? "" : ", ") + formatShare(goodput / bound) + " of the window's bound";
    if (physical > 0 && bound > 0 && sw)
      shares += physical < bound ? ": the link is the limit" : ": the window is the limit";
    printLine("  goodput          " + formatRate(goodput) + " (measured" +
              (shares.empty() ? "" : "; " + shares) + ")");
    if (physical > 0)
      printLine("  physical limit   " + formatRate(physical) + " (" + air.description() + ")");
    if (bound > 0 && sw)
      printLine("  bound            " + formatRate(bound) + " (3 × 120 B per round trip of " +
                formatSeconds(windowRoundTripS({}, timing, traffic)) + ", for " +
                std::to_string(run.bytes) + " bytes)");
    if (onSim && bound == 0 && sw && !extended && run.bytes > 0)
      printLine(
          "  bound            none (no delay on the link, and the echo acknowledges at once)");
    if (bound > 0 && !sw)
      printLine("  bound            " + formatRate(bound) + " (one 20 B chunk per worker round)");
    if (!o.reverse)
      printLine("  echo latency     p50 " + formatSeconds(percentile(latencies, 50) / 1000) +
                ", p99 " + formatSeconds(percentile(latencies, 99) / 1000) + " (" +
                std::to_string(latencies.size()) + " round trips of 16 B)");
    if (sw && o.common.verbose)
      printLine("  window           " + after.window +
                (extended ? ": segments of " + std::to_string(after.extendedSegment) + " B, " +
                                std::to_string(after.extendedWindow) + " in flight"
                          : ": 3 segments of 120 B"));
    printLine("  retransmissions  " + std::to_string(c.retransmissions) +
              (segmentsLost > 0 ? " (" + std::to_string(segmentsLost) + " segments lost)" : ""));
    printLine("  polls            " + std::to_string(c.pollsSent) + " sent");
    printLine("  rejections       " + std::to_string(c.rejectionsSent) + " sent, " +
              std::to_string(c.rejectionsReceived) + " received");
    char loss[32];
    std::snprintf(loss, sizeof loss, "%g%%", session.airLoss() * 100);
    printLine("  link             " + (parameters ? air.description() : std::string("not known")) +
              "; host drops " + loss);
  }
  return verified ? kExitOk : kExitFailure;
}

}  // namespace

CommandAction addBenchCommand(CLI::App& app) {
  auto o = std::make_shared<BenchOptions>();
  auto* cmd = app.add_subcommand(
      "bench",
      "Measure goodput (bytes that arrive complete and in order / time: echoed back by the "
      "device, or with -R sent by it), echo latency p50/p99 and the transport counters, beside "
      "the bound that the sliding window allows on the link");
  cmd->add_option(
      "--device", o->device,
      "A device that echoes what it receives, or with -R one that sends the counting pattern "
      "(default on the simulated radio: QLT-Echo, QLT-Chunk with --transport nus, QLT-Source "
      "with -R)");
  auto* bytes = addByteOption(*cmd, "--bytes", o->bytes, "Stop once this many bytes have arrived",
                              1, uint64_t{64} << 20)
                    ->default_str("64KiB");
  addNumberOption(*cmd, "-t,--time", o->durationS,
                  "Measure for this many seconds instead of a byte count", 0.01, 86400,
                  "a number of seconds")
      ->excludes(bytes);
  addNumberOption(*cmd, "-i,--report-interval", o->everyS,
                  "Print the goodput of every interval of this many seconds as it ends", 0.01, 3600,
                  "a number of seconds");
  cmd->add_flag("-R,--reverse", o->reverse,
                "Device to host: the device sends the counting pattern (byte i is i mod 251) "
                "while notifications are on; the host measures and checks every byte");
  addNumberOption(*cmd, "--loss", o->loss,
                  "Fraction of writes and notifications dropped above the link layer (a host or "
                  "firmware fault; the air itself loses nothing)",
                  0, 0.9, "a fraction");
  addLinkOptions(*cmd, o->link);
  cmd->add_option("--transport", o->transport, "sw (sliding window) or nus (plain 20-byte chunks)")
      ->check(CLI::IsMember({"sw", "nus"}))
      ->capture_default_str();
  addCountOption(*cmd, "--pings", o->pings,
                 "Round trips of a 16-byte message for the latency figures (not with -R)", 0, 10000)
      ->default_str("30");
  addNumberOption(*cmd, "--timeout", o->timeoutS,
                  "Seconds to connect; also how long the data may stall", 0.1, 600,
                  "a number of seconds")
      ->default_str("10");
  cmd->add_flag(
      "--json", o->json,
      "Print one JSON object: transport, direction, bytes, seconds, goodput_Bps, bound_Bps, "
      "verified, latency_p50_ms, latency_p99_ms, retransmissions, polls_sent, rejections_sent, "
      "rejections_received, loss, interval_ms (and a few more); with -i also intervals, an "
      "array of {start_s, end_s, bytes, goodput_Bps, bound_share} (the lines go to stderr)");
  addCommonOptions(*cmd, o->common, /*movesData=*/true);
  cmd->footer(
      "What is measured. bench streams the counting pattern (byte i is i mod 251): written by\n"
      "the host and echoed back, or with -R sent by the device. Every byte that arrives is\n"
      "checked: a byte skipped, repeated or corrupted is a failure (exit 1). It stops when\n"
      "--bytes have arrived or after -t seconds (an echo then waits for what is still in flight\n"
      "and checks it too). -i prints each interval as it ends: start-end, bytes, kB/s and the\n"
      "share of the bound below.\n"
      "\n"
      "The bound (bound_Bps). The sender may have 3 segments of 120 bytes in flight; the\n"
      "acknowledgement that frees the window comes back one round trip after the first left:\n"
      "  round trip = 2 × one-way delay + 1 ms acknowledgement delay + write pacing\n"
      "  bound_Bps  = 3 × 120 B / round trip\n"
      "The one-way delay is one frame's air time on the simulated link (plus any delay its\n"
      "faults add); the acknowledgement\n"
      "waits for the receiver worker's next round (about 1 ms), except in an echo, where it\n"
      "leaves at once with the answer; the write pacing is the time the write path spends on a\n"
      "frame (1 / the link's write-rate limit; with a limit, the bound is also at most 120 B ×\n"
      "that rate). For the N bytes measured, the bound is N / the shortest time they can take:\n"
      "  (⌈N / 360⌉ - 1) × round trip + one-way delay (2 × for an echo) + write pacing\n"
      "so a short transfer is held to its own bound. -i reports against the bound of an endless\n"
      "stream. Goodput is measured, never derived from the bound. With --transport nus there is\n"
      "no window: bound_Bps = 20 B / max(1 ms, write pacing), one chunk per worker round. On\n"
      "real hardware the link is not known and bound_Bps is 0; so it is for an echo over a link\n"
      "without delay (nothing but the machine limits it).\n"
      "\n"
      "The physical limit (physical_limit_Bps): the most the simulated link could carry of\n"
      "this traffic, from its interval, PHY, data length and per-event limit: values packed as\n"
      "PDUs into connection events (docs/qlt.md has the formula). No run can beat it; bench\n"
      "says whether the link or the window is the limit. 0 for the instant link.\n"
      "\nExamples:\n"
      "  qlt bench                               64 kB on the simulated echo device (phone)\n"
      "  qlt bench -t 10 -i 1 --profile fastest  10 s, a line per second, like iperf3\n"
      "  qlt bench -R -t 5 -i 1                  device to host (QLT-Source)\n"
      "  qlt bench --per 0.1                     air errors: slower, nothing lost\n"
      "  qlt bench --loss 0.02 --interval-ms 30  drops above the link layer, a slower link\n"
      "  qlt bench --interval-ms 0               the instant link: the engines alone\n"
      "  qlt bench --json | jq .goodput_Bps      for scripts\n"
      "  qlt bench --platform bluez --device 'My Echo'   real hardware (the device must echo)");
  return [o] { return runBench(*o); };
}

}  // namespace qlt::cli
