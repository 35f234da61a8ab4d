// qlt send / qlt receive: a file through the sliding window.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <system_error>
#include <utility>

#include "Commands.h"
#include "Errors.h"
#include "Numbers.h"
#include "Session.h"
#include "Terminal.h"
#include "Waiter.h"

namespace qlt::cli {
namespace {

struct TransferOptions {
  CommonOptions common;
  std::string device;
  std::string file;
  double timeoutS = 10.0;    // to find and connect; also the stall limit
  uint64_t bytes = 0;        // receive: stop after this many bytes (0: no limit)
  double idleS = 3.0;        // receive: stop after this much silence once data has come
  bool keepPartial = false;  // receive: keep what arrived of a failed transfer
};

std::string osError(const std::string& what, const std::string& file, int error) {
  return "cannot " + what + " '" + file + "': " + std::generic_category().message(error);
}

// Where receive writes. A regular file (or a new one) is written beside the target as
// "FILE.receiving-PID" and renamed over FILE only once the transfer has succeeded, so a
// failed receive never touches an existing FILE; its bytes are kept as "FILE.partial" only
// when asked. Anything else (a device such as /dev/null, a pipe) is written directly.
// Every write and the close are checked.
class OutputFile {
 public:
  OutputFile(std::string target, bool keepPartial)
      : target_(std::move(target)), keepPartial_(keepPartial) {
    struct stat st {};
    direct_ = ::stat(target_.c_str(), &st) == 0 && !S_ISREG(st.st_mode);
    path_ = direct_ ? target_ : target_ + ".receiving-" + std::to_string(::getpid());
    fd_ = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC | (direct_ ? 0 : O_CREAT | O_TRUNC | O_EXCL),
                 0644);
    if (fd_ < 0) throw Failure(osError("write", direct_ ? target_ : path_, errno));
  }
  ~OutputFile() {
    if (fd_ >= 0) ::close(fd_);
    if (committed_ || direct_) return;
    if (keepPartial_ && written_ > 0 && std::rename(path_.c_str(), partialPath().c_str()) == 0) {
      printError("qlt receive: the " + std::to_string(written_) + " bytes that arrived are in '" +
                 partialPath() + "'");
      return;
    }
    ::unlink(path_.c_str());
  }
  std::string partialPath() const { return target_ + ".partial"; }

  // "" on success, else the reason.
  std::string write(const uint8_t* data, size_t size) {
    while (size > 0) {
      const ssize_t n = ::write(fd_, data, size);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return osError("write", target_, n < 0 ? errno : ENOSPC);
      data += n;
      size -= static_cast<size_t>(n);
      written_ += static_cast<uint64_t>(n);
    }
    return "";
  }
  // Flushes, closes and renames into place; throws Failure with the OS's reason.
  void commit() {
    const int fd = std::exchange(fd_, -1);
    if (!direct_ && ::fsync(fd) != 0) {
      const int e = errno;
      ::close(fd);
      throw Failure(osError("write", target_, e));
    }
    if (::close(fd) != 0) throw Failure(osError("write", target_, errno));
    if (!direct_ && std::rename(path_.c_str(), target_.c_str()) != 0)
      throw Failure(osError("replace", target_, errno));
    committed_ = true;
  }

 private:
  const std::string target_;
  const bool keepPartial_;
  bool direct_ = false;
  std::string path_;
  int fd_ = -1;
  uint64_t written_ = 0;
  bool committed_ = false;
};

void printCounters(const TransferCounters& c) {
  printLine("  retransmissions  " + std::to_string(c.retransmissions));
  printLine("  polls            " + std::to_string(c.pollsSent) + " sent");
  printLine("  rejections       " + std::to_string(c.rejectionsSent) + " sent, " +
            std::to_string(c.rejectionsReceived) + " received");
}

int runSend(const TransferOptions& o) {
  std::ifstream in(o.file, std::ios::binary);
  if (!in) throw Failure(osError("read", o.file, errno));
  const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in),
                                   std::istreambuf_iterator<char>()};
  if (in.bad()) throw Failure(osError("read", o.file, errno));
  if (bytes.empty()) throw Failure("'" + o.file + "' is empty: nothing to send");

  Session session(o.common);
  session.powerOn(5.0);
  ConnectionEvents events;
  events.onState = [](int32_t, const std::string& text) { printStatus("  state: " + text); };
  Connection connection(session, session.find(o.device, o.timeoutS), TransportKind::SlidingWindow,
                        events);
  connection.open(o.timeoutS);
  printLine("sending '" + o.file + "' (" + formatBytes(static_cast<double>(bytes.size())) +
            ") to '" + connection.deviceName() + "'");

  // Done when the device has acknowledged every byte: acknowledged segments leave the
  // transport's send queue, so what is still queued says how far it got. Once the link is
  // gone the transport is too (its counters read 0): the last figure read before counts.
  const uint64_t before = connection.counters().bytesQueued;
  const auto start = std::chrono::steady_clock::now();
  ProgressBar bar("sending", bytes.size());
  connection.sendTCP(Data(bytes.data(), bytes.size()));
  uint64_t acked = 0;
  auto lastProgress = start;
  Waiter pause;
  std::string failure;
  while (acked < bytes.size()) {
    try {
      pause.waitUntil([] { return false; }, 0.05);
    } catch (const Interrupted&) {
      acknowledgeInterrupt();
      failure = "interrupted";
      break;
    }
    const bool dropped = connection.dropped();
    const TransferCounters c = connection.counters();
    if (dropped || !c.present) {
      failure = "the connection was lost";
      break;
    }
    const uint64_t now =
        before + bytes.size() > c.bytesQueued ? before + bytes.size() - c.bytesQueued : 0;
    if (now != acked) {
      acked = now;
      lastProgress = std::chrono::steady_clock::now();
      bar.update(acked);
    }
    if (std::chrono::steady_clock::now() - lastProgress >
        std::chrono::duration<double>(o.timeoutS)) {
      failure = "the device acknowledged nothing for " + seconds(o.timeoutS);
      break;
    }
  }
  bar.finish();
  const double secs =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  printLine("summary");
  printLine("  bytes            " + std::to_string(acked) + " of " + std::to_string(bytes.size()) +
            " sent and acknowledged");
  printLine("  time             " + formatSeconds(secs));
  printLine("  goodput          " + formatRate(acked / secs));
  printCounters(connection.counters());
  if (!connection.dropped()) connection.close(5.0);
  if (!failure.empty())
    throw Failure(failure + " (" + std::to_string(acked) + " of " + std::to_string(bytes.size()) +
                  " bytes acknowledged)");
  return kExitOk;
}

int runReceive(const TransferOptions& o) {
  OutputFile out(o.file, o.keepPartial);

  Session session(o.common);
  session.powerOn(5.0);
  Waiter waiter;
  uint64_t received = 0;   // guarded by waiter
  std::string writeError;  // guarded by waiter: the first failed write
  auto lastData = std::chrono::steady_clock::now();
  ConnectionEvents events;
  events.onState = [](int32_t, const std::string& text) { printStatus("  state: " + text); };
  events.onData = [&](const Data& d, bool datagram) {
    if (datagram) return;  // a file travels as acknowledged segments only
    uint64_t room = UINT64_MAX;
    bool failed = false;
    waiter.read([&] {
      room = o.bytes ? o.bytes - std::min(o.bytes, received) : UINT64_MAX;
      failed = !writeError.empty();
    });
    if (failed) return;
    const uint64_t n = std::min<uint64_t>(d.size(), room);  // exactly --bytes, no more
    const std::string error = out.write(d.bytes(), n);
    waiter.update([&] {
      received += n;
      lastData = std::chrono::steady_clock::now();
      if (!error.empty()) writeError = error;
    });
  };
  Connection connection(session, session.find(o.device, o.timeoutS), TransportKind::SlidingWindow,
                        events);
  connection.open(o.timeoutS);
  printLine("receiving from '" + connection.deviceName() + "' into '" + o.file + "'" +
            (o.bytes ? " (" + std::to_string(o.bytes) + " bytes)" : "") + "; Ctrl-C to abort");

  std::unique_ptr<ProgressBar> bar;
  if (o.bytes) bar = std::make_unique<ProgressBar>("receiving", o.bytes);
  const auto start = std::chrono::steady_clock::now();
  std::string failure;
  for (;;) {
    uint64_t got = 0;
    std::chrono::steady_clock::time_point last;
    try {
      waiter.waitUntil([&] { return (o.bytes && received >= o.bytes) || !writeError.empty(); },
                       0.1);
    } catch (const Interrupted&) {
      acknowledgeInterrupt();  // the summary and the disconnection still wait
      failure = "interrupted";
    }
    waiter.read([&] {
      got = received;
      last = lastData;
      if (failure.empty()) failure = writeError;
    });
    if (bar) bar->update(got);
    if (!failure.empty() || (o.bytes && got >= o.bytes)) break;
    if (connection.dropped()) {
      failure = "the connection was lost";
      break;
    }
    const double silent =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - last).count();
    if (got > 0 && !o.bytes && silent > o.idleS) break;
    if (silent > std::max(o.timeoutS, o.idleS) && (got == 0 || o.bytes)) {
      failure = "nothing received for " + seconds(silent);
      break;
    }
  }
  if (bar) bar->finish();
  if (!connection.dropped()) connection.close(5.0);
  uint64_t got = 0;
  waiter.read([&] {
    got = received;
    if (failure.empty()) failure = writeError;
  });
  if (failure.empty() && o.bytes && got < o.bytes)
    failure = "only " + std::to_string(got) + " of " + std::to_string(o.bytes) + " bytes arrived";
  if (failure.empty() && got == 0) failure = "nothing arrived";
  if (failure.empty()) out.commit();
  const double secs =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  printLine("summary");
  printLine("  bytes            " + std::to_string(got) +
            (failure.empty() ? " written to '" + o.file + "'"
                             : " received; '" + o.file + "' left as it was"));
  printLine("  time             " + formatSeconds(secs));
  printCounters(connection.counters());
  if (!failure.empty()) throw Failure(failure + " (" + std::to_string(got) + " bytes received)");
  return kExitOk;
}

}  // namespace

CommandAction addSendCommand(CLI::App& app) {
  auto o = std::make_shared<TransferOptions>();
  auto* cmd = app.add_subcommand(
      "send",
      "Send FILE to DEVICE through the sliding window, with a progress bar and a summary; "
      "done when the device has acknowledged every byte");
  cmd->add_option("DEVICE", o->device, kDeviceHelp)->required();
  cmd->add_option("FILE", o->file, "The file to send")->required()->check(CLI::ExistingFile);
  addNumberOption(*cmd, "--timeout", o->timeoutS,
                  "Seconds to find and connect; also how long a stalled transfer may wait", 0.1,
                  600, "a number of seconds")
      ->default_str("10");
  addCommonOptions(*cmd, o->common, /*movesData=*/true);
  cmd->footer("Example:\n  qlt send QLT-Echo firmware.bin --trace");
  return [o] { return runSend(*o); };
}

CommandAction addReceiveCommand(CLI::App& app) {
  auto o = std::make_shared<TransferOptions>();
  auto* cmd = app.add_subcommand(
      "receive",
      "Write what DEVICE sends through the sliding window into FILE, until --bytes "
      "have arrived or the device goes silent for --idle seconds. FILE is replaced only when "
      "the transfer succeeds; a lost link, a time-out or Ctrl-C (exit 130) leave it as it was");
  cmd->add_option("DEVICE", o->device, kDeviceHelp)->required();
  cmd->add_option("FILE", o->file, "The file to write (replaced on success)")->required();
  addByteOption(*cmd, "--bytes", o->bytes, "Stop after this many bytes (and fail if fewer arrive)",
                1, UINT64_MAX);
  addNumberOption(*cmd, "--idle", o->idleS, "Stop after this many seconds without data", 0.1, 3600,
                  "a number of seconds")
      ->default_str("3");
  addNumberOption(*cmd, "--timeout", o->timeoutS,
                  "Seconds to find and connect, and to wait for data", 0.1, 600,
                  "a number of seconds")
      ->default_str("10");
  cmd->add_flag("--keep-partial", o->keepPartial,
                "When the transfer fails, keep what arrived as FILE.partial");
  addCommonOptions(*cmd, o->common, /*movesData=*/true);
  cmd->footer("Example:\n  qlt receive QLT-Source log.bin --bytes 100000");
  return [o] { return runReceive(*o); };
}

}  // namespace qlt::cli
