// qlt demo: the library's main job, end to end, on the simulated radio.

#include <CLI/CLI.hpp>
#include <memory>

#include "Commands.h"
#include "Echo.h"
#include "Errors.h"
#include "Numbers.h"
#include "Session.h"
#include "Terminal.h"

namespace qlt::cli {
namespace {

struct DemoOptions {
  CommonOptions common;
  double loss = -1;  // < 0: the simulated radio's own (none unless --sim-config says)
  LinkOptions link;
  uint64_t bytes = uint64_t{64} * 1024;
  std::string message = "Hello from qlt";
  double scanS = 1.5;
};

void printSummary(const EchoRun& run, const TransferCounters& c, bool verbose) {
  printLine("summary");
  printLine("  bytes            " + std::to_string(run.bytes) + " sent, " +
            std::to_string(run.echoed) + " echoed back, " +
            (run.verified ? "identical" : "NOT identical"));
  printLine("  time             " + formatSeconds(run.seconds));
  printLine("  goodput          " + formatRate(run.seconds > 0 ? run.bytes / run.seconds : 0) +
            " (measured: bytes echoed back / time)");
  if (verbose)
    printLine("  window           " + c.window +
              (c.extendedSegment ? ": segments of " + std::to_string(c.extendedSegment) + " B, " +
                                       std::to_string(c.extendedWindow) + " in flight"
                                 : ""));
  printLine("  retransmissions  " + std::to_string(c.retransmissions));
  printLine("  polls            " + std::to_string(c.pollsSent) + " sent");
  printLine("  rejections       " + std::to_string(c.rejectionsSent) + " sent, " +
            std::to_string(c.rejectionsReceived) + " received");
}

int runDemo(DemoOptions o) {
  if (explicitPlatform(o.common).empty()) o.common.platform = "sim";  // whatever the machine has
  if (resolvePlatform(o.common) != "sim")
    throw UsageError(
        "the demo runs on the simulated radio only; against hardware use "
        "'qlt bench --platform bluez --device DEVICE'");
  SimLinkSettings link;
  link.startPoweredOff = true;  // so that the demo shows the manager powering on
  if (o.loss >= 0) link.loss = o.loss;
  applyLinkOptions(o.link, link);
  Session session(o.common, link);

  printLine("qlt demo: scan, connect, send and verify an echo on the simulated radio");
  printLine("powering on:");
  session.powerOn(5.0, /*show=*/true);

  printLine("scanning " + formatSeconds(o.scanS) +
            " with a filter that keeps devices advertising the UART service...");
  LiveTable table({"identifier", "name", "RSSI", "NUS"});
  ScanFilter uart;
  uart.nusOnly = true;
  const auto devices = session.scan(uart, o.scanS, nullptr);
  std::vector<std::vector<std::string>> rows;
  rows.reserve(devices.size());
  for (const auto& d : devices)
    rows.push_back({d.identifier, d.name.empty() ? "(no name)" : displayText(d.name),
                    std::to_string(d.rssi), d.nus ? "yes" : "no"});
  for (const auto& line : table.render(rows)) printLine("  " + line);

  const DeviceInfo* echo = nullptr;
  for (const auto& d : devices)
    if (d.name.find("Echo") != std::string::npos) echo = &d;
  if (!echo)
    throw Failure("no echo device found among " + std::to_string(devices.size()) + " devices");

  printLine("connecting to '" + displayText(echo->name) + "' (sliding-window transport)");
  EchoSink sink;
  ConnectionEvents events;
  events.onState = [](int32_t, const std::string& text) { printLine("  state: " + text); };
  events.onData = [&sink](const Data& d, bool udp) { sink.onData(d, udp); };
  Connection connection(session, session.find(echo->identifier, 5.0), TransportKind::SlidingWindow,
                        events);
  connection.open(10.0);

  const std::vector<uint8_t> message(o.message.begin(), o.message.end());
  const EchoRun hello = echoTransfer(connection, sink, message, 10.0, false, "");
  if (!hello.verified) throw Failure("the short message: " + hello.problem);
  printLine("sent \"" + o.message + "\", echo: \"" + describePayload(o.message) + "\" (" +
            formatSeconds(hello.seconds) + ")");

  printLine("sending " + std::to_string(o.bytes) +
            " bytes through the sliding window and checking the echo byte for byte");
  const auto payload = makePattern(o.bytes);
  const EchoRun run = echoTransfer(connection, sink, payload, 15.0, true, "echo");
  printSummary(run, connection.counters(), o.common.verbose);

  printLine("disconnecting");
  connection.close(5.0);
  if (!run.verified) throw Failure("transfer failed: " + run.problem);
  printLine("done: every byte came back exactly once and in order");
  return kExitOk;
}

}  // namespace

CommandAction addDemoCommand(CLI::App& app) {
  auto o = std::make_shared<DemoOptions>();
  auto* cmd = app.add_subcommand(
      "demo",
      "The library's main job on the simulated radio: power on, scan with a filter, connect to "
      "the echo device, send a short message and a 64 kB payload through the sliding window, "
      "verify the echo byte for byte, show the summary, disconnect");
  addNumberOption(*cmd, "--loss", o->loss,
                  "Fraction of frames dropped above the link layer, to watch the recovery", 0, 0.9,
                  "a fraction");
  addLinkOptions(*cmd, o->link);
  addByteOption(*cmd, "--bytes", o->bytes, "Size of the payload sent through the window", 1,
                uint64_t{16} << 20)
      ->default_str("64KiB");
  cmd->add_option("--message", o->message, "The short message sent first")->capture_default_str();
  addCommonOptions(*cmd, o->common, /*movesData=*/true);
  cmd->footer(
      "Examples:\n"
      "  qlt demo                           the whole job, in a few seconds\n"
      "  qlt demo --loss 0.05 --trace       5% of frames lost: watch rejections and polls\n"
      "  qlt demo --profile linux           a Linux central's 30 ms link\n"
      "  qlt demo --interval-ms 0           the instant link: the engines alone\n"
      "Exit codes: 0 when the echo is verified, 1 otherwise, 2 bad usage.");
  return [o] { return runDemo(*o); };
}

}  // namespace qlt::cli
