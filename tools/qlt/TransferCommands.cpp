// qlt send / qlt receive: a file through the sliding window.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>

#include "Commands.h"
#include "Errors.h"
#include "Session.h"
#include "Terminal.h"
#include "Waiter.h"

namespace qlt::cli {
namespace {

struct TransferOptions {
  CommonOptions common;
  std::string device;
  std::string file;
  double timeoutS = 10.0;  // to find and connect; also the stall limit
  uint64_t bytes = 0;      // receive: stop after this many bytes (0: no limit)
  double idleS = 3.0;      // receive: stop after this much silence once data has come
};

void printCounters(const TransferCounters& c) {
  printLine("  retransmissions  " + std::to_string(c.retransmissions));
  printLine("  polls            " + std::to_string(c.pollsSent) + " sent");
  printLine("  rejections       " + std::to_string(c.rejectionsSent) + " sent, " +
            std::to_string(c.rejectionsReceived) + " received");
}

int runSend(const TransferOptions& o) {
  std::ifstream in(o.file, std::ios::binary);
  if (!in) throw Failure("cannot read '" + o.file + "'");
  const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in),
                                   std::istreambuf_iterator<char>()};
  if (bytes.empty()) throw Failure("'" + o.file + "' is empty: nothing to send");

  Session session(o.common);
  session.powerOn(5.0);
  ConnectionEvents events;
  events.onState = [](int32_t, const std::string& text) { printLine("  state: " + text); };
  Connection connection(session, session.find(o.device, o.timeoutS), TransportKind::SlidingWindow,
                        events);
  connection.open(o.timeoutS);
  printLine("sending '" + o.file + "' (" + formatBytes(static_cast<double>(bytes.size())) +
            ") to '" + connection.deviceName() + "'");

  // Done when the device has acknowledged every byte: acknowledged segments leave the
  // transport's send queue, so what is still queued says how far it got.
  const uint64_t before = connection.counters().bytesQueued;
  const auto start = std::chrono::steady_clock::now();
  ProgressBar bar("sending", bytes.size());
  connection.sendTCP(Data(bytes.data(), bytes.size()));
  uint64_t acked = 0;
  auto lastProgress = start;
  Waiter pause;
  while (acked < bytes.size()) {
    pause.waitUntil([] { return false; }, 0.05);
    const uint64_t queued = connection.counters().bytesQueued;
    const uint64_t now = before + bytes.size() > queued ? before + bytes.size() - queued : 0;
    if (now != acked) {
      acked = now;
      lastProgress = std::chrono::steady_clock::now();
      bar.update(acked);
    }
    if (connection.dropped())
      throw Failure("the connection was lost after " + std::to_string(acked) + " bytes");
    if (std::chrono::steady_clock::now() - lastProgress > std::chrono::duration<double>(o.timeoutS))
      throw Failure("the device acknowledged nothing for " + seconds(o.timeoutS) + " (" +
                    std::to_string(acked) + " of " + std::to_string(bytes.size()) + " bytes)");
  }
  bar.finish();
  const double secs =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  printLine("summary");
  printLine("  bytes            " + std::to_string(bytes.size()) + " sent and acknowledged");
  printLine("  time             " + formatSeconds(secs));
  printLine("  goodput          " + formatRate(bytes.size() / secs));
  printCounters(connection.counters());
  connection.close(5.0);
  return kExitOk;
}

int runReceive(const TransferOptions& o) {
  std::ofstream out(o.file, std::ios::binary | std::ios::trunc);
  if (!out) throw Failure("cannot write '" + o.file + "'");

  Session session(o.common);
  session.powerOn(5.0);
  Waiter waiter;
  uint64_t received = 0;  // guarded by waiter
  auto lastData = std::chrono::steady_clock::now();
  ConnectionEvents events;
  events.onState = [](int32_t, const std::string& text) { printLine("  state: " + text); };
  events.onData = [&](const Data& d, bool datagram) {
    if (datagram) return;  // a file travels as acknowledged segments only
    uint64_t room = UINT64_MAX;
    waiter.read([&] { room = o.bytes ? o.bytes - std::min(o.bytes, received) : UINT64_MAX; });
    const uint64_t n = std::min<uint64_t>(d.size(), room);  // exactly --bytes, no more
    out.write(reinterpret_cast<const char*>(d.bytes()), static_cast<std::streamsize>(n));
    waiter.update([&] {
      received += n;
      lastData = std::chrono::steady_clock::now();
    });
  };
  Connection connection(session, session.find(o.device, o.timeoutS), TransportKind::SlidingWindow,
                        events);
  connection.open(o.timeoutS);
  printLine("receiving from '" + connection.deviceName() + "' into '" + o.file + "'" +
            (o.bytes ? " (" + std::to_string(o.bytes) + " bytes)" : "") + "; Ctrl-C to stop");

  std::unique_ptr<ProgressBar> bar;
  if (o.bytes) bar = std::make_unique<ProgressBar>("receiving", o.bytes);
  const auto start = std::chrono::steady_clock::now();
  bool interrupted = false;
  for (;;) {
    uint64_t got = 0;
    std::chrono::steady_clock::time_point last;
    try {
      waiter.waitUntil([&] { return o.bytes && received >= o.bytes; }, 0.1);
    } catch (const Interrupted&) {
      interrupted = true;
    }
    waiter.read([&] {
      got = received;
      last = lastData;
    });
    if (bar) bar->update(got);
    if (interrupted || (o.bytes && got >= o.bytes) || connection.dropped()) break;
    const double silent =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - last).count();
    if (got > 0 && !o.bytes && silent > o.idleS) break;
    if (silent > std::max(o.timeoutS, o.idleS) && (got == 0 || o.bytes))
      throw Failure("nothing received for " + seconds(silent) + " (" + std::to_string(got) +
                    " bytes so far)");
  }
  if (bar) bar->finish();
  if (!connection.dropped()) connection.close(5.0);
  uint64_t got = 0;
  waiter.read([&] { got = received; });
  out.flush();
  const double secs =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  printLine("summary");
  printLine("  bytes            " + std::to_string(got) + " written to '" + o.file + "'");
  printLine("  time             " + formatSeconds(secs));
  printCounters(connection.counters());
  if (o.bytes && got < o.bytes)
    throw Failure("only " + std::to_string(got) + " of " + std::to_string(o.bytes) +
                  " bytes arrived");
  return kExitOk;
}

}  // namespace

CommandAction addSendCommand(CLI::App& app) {
  auto o = std::make_shared<TransferOptions>();
  auto* cmd = app.add_subcommand(
      "send",
      "Send FILE to DEVICE through the sliding window, with a progress bar and a summary; "
      "done when the device has acknowledged every byte");
  cmd->add_option("DEVICE", o->device, "Device identifier (UUID) or name")->required();
  cmd->add_option("FILE", o->file, "The file to send")->required()->check(CLI::ExistingFile);
  cmd->add_option("--timeout", o->timeoutS,
                  "Seconds to find and connect; also how long a stalled transfer may wait")
      ->check(CLI::Range(0.1, 600.0))
      ->capture_default_str();
  addCommonOptions(*cmd, o->common, /*movesData=*/true);
  cmd->footer("Example:\n  qlt send QLT-Echo firmware.bin --trace");
  return [o] { return runSend(*o); };
}

CommandAction addReceiveCommand(CLI::App& app) {
  auto o = std::make_shared<TransferOptions>();
  auto* cmd = app.add_subcommand(
      "receive",
      "Write what DEVICE sends through the sliding window into FILE, until --bytes "
      "have arrived, the device goes silent for --idle seconds, it disconnects, or "
      "Ctrl-C");
  cmd->add_option("DEVICE", o->device, "Device identifier (UUID) or name")->required();
  cmd->add_option("FILE", o->file, "The file to write (replaced)")->required();
  cmd->add_option("--bytes", o->bytes, "Stop after this many bytes (and fail if fewer arrive)");
  cmd->add_option("--idle", o->idleS, "Stop after this many seconds without data")
      ->check(CLI::Range(0.1, 3600.0))
      ->capture_default_str();
  cmd->add_option("--timeout", o->timeoutS, "Seconds to find and connect, and to wait for data")
      ->check(CLI::Range(0.1, 600.0))
      ->capture_default_str();
  addCommonOptions(*cmd, o->common, /*movesData=*/true);
  cmd->footer("Example:\n  qlt receive QLT-Source log.bin --bytes 100000");
  return [o] { return runReceive(*o); };
}

}  // namespace qlt::cli
