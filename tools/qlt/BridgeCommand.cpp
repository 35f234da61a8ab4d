// qlt bridge: a transparent, binary-safe byte pipe between DEVICE and stdin/stdout, a
// pseudo-terminal or one TCP client.
//
// One thread (the command's) polls the local end and an eventfd. The library delivers the
// device's bytes on the tool's queue, where they are appended to an inbox and the eventfd
// is written; state changes and Ctrl-C write it too. So an idle bridge sleeps in poll()
// without a time-out. Only while bytes are owed to the device and the bridge waits for
// them to drain (above the high-water mark, or at the end of stdin) does it wait for the
// transport's "everything acknowledged" event, which writes the eventfd as well.

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "BridgeEnd.h"
#include "Commands.h"
#include "Errors.h"
#include "Numbers.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "Session.h"
#include "Terminal.h"
#include "Waiter.h"

namespace qlt::cli {
namespace {

using Clock = std::chrono::steady_clock;

// Reading the local end stops while this many bytes are owed to the device, and resumes at
// kLowWater. The device's bytes wait for a reader up to kHeldLimit. One read or write of the
// local end moves at most kChunk bytes.
constexpr uint64_t kHighWater = uint64_t{64} * 1024;
constexpr uint64_t kLowWater = uint64_t{16} * 1024;
constexpr size_t kHeldLimit = size_t{1} << 20;
constexpr size_t kChunk = 4096;

struct BridgeOptions {
  CommonOptions common;
  std::string device;
  bool pty = false;
  std::string link;
  std::string tcp;
  std::string transport = "sw";
  bool reconnect = false;
  double timeoutS = 10.0;
  double lingerS = 1.0;
};

// ---- waking the poll loop ----

std::atomic<int> gWakeFd{-1};
struct sigaction gPrevious[3];
constexpr int kSignals[3] = {SIGINT, SIGTERM, SIGHUP};

void wake(int fd) {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t n = ::write(fd, &one, sizeof one);  // a full counter is awake
}

extern "C" void onSignal(int signal) {
  const int saved = errno;
  if (const int fd = gWakeFd.load(); fd >= 0) wake(fd);
  for (int i = 0; i < 3; ++i) {
    const auto handler = gPrevious[i].sa_handler;
    if (kSignals[i] == signal && handler != SIG_IGN && handler != SIG_DFL) handler(signal);
  }
  errno = saved;
}

// An eventfd that the tool's queue and the interrupt signals write: on top of the tool's
// own handler (which marks the interrupt), a signal landing on any thread wakes poll().
class WakeUp {
 public:
  WakeUp() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (fd_ < 0) throw Failure("cannot make an eventfd: " + std::to_string(errno));
    gWakeFd.store(fd_);
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    for (int i = 0; i < 3; ++i) ::sigaction(kSignals[i], &sa, &gPrevious[i]);
    ::signal(SIGPIPE, SIG_IGN);  // a client or reader gone is an error return, not death
  }
  ~WakeUp() {
    for (int i = 0; i < 3; ++i) ::sigaction(kSignals[i], &gPrevious[i], nullptr);
    gWakeFd.store(-1);
    ::close(fd_);
  }
  WakeUp(const WakeUp&) = delete;
  WakeUp& operator=(const WakeUp&) = delete;
  int fd() const { return fd_; }
  void drain() {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t n = ::read(fd_, &count, sizeof count);
  }

 private:
  const int fd_;
};

// ---- the device's bytes, on their way to the local end ----

// Filled on the tool's queue, emptied by the bridge's thread.
class Inbox {
 public:
  explicit Inbox(int wakeFd) : wakeFd_(wakeFd) {}
  void add(const Data& d) {
    bool first = false;
    {
      std::lock_guard lock(mutex_);
      received_ += d.size();
      lastArrival_ = Clock::now();
      if (bytes_.size() + d.size() > kHeldLimit) {
        first = discarded_ == 0;
        discarded_ += d.size();
      } else {
        bytes_.append(reinterpret_cast<const char*>(d.bytes()), d.size());
      }
    }
    if (first)
      printError(
          "qlt bridge: nobody reads the device's bytes; beyond 1 MiB they are "
          "discarded (counted at the end)");
    wake(wakeFd_);
  }
  // Moves what has arrived onto the end of `out`.
  void take(std::string& out) {
    std::lock_guard lock(mutex_);
    out += bytes_;
    bytes_.clear();
  }
  Clock::time_point lastArrival() {
    std::lock_guard lock(mutex_);
    return lastArrival_;
  }
  uint64_t received() {
    std::lock_guard lock(mutex_);
    return received_;
  }
  uint64_t discarded() {
    std::lock_guard lock(mutex_);
    return discarded_;
  }

 private:
  const int wakeFd_;
  std::mutex mutex_;
  std::string bytes_;                // guarded by mutex_
  uint64_t received_ = 0;            // guarded by mutex_
  uint64_t discarded_ = 0;           // guarded by mutex_
  Clock::time_point lastArrival_{};  // guarded by mutex_
};

// The device's bytes taken from the inbox, on their way to the local end.
struct Outgoing {
  std::string bytes;
  size_t at = 0;         // how much of `bytes` is written
  uint64_t written = 0;  // in all

  bool pending() const { return at < bytes.size(); }
  void refill(Inbox& inbox) {
    if (!pending()) {
      bytes.clear();
      at = 0;
    }
    if (bytes.size() - at < kChunk) inbox.take(bytes);
  }
  void writeTo(BridgeEnd& end) {
    const size_t n = end.write(reinterpret_cast<const uint8_t*>(bytes.data()) + at,
                               std::min(kChunk, bytes.size() - at));
    at += n;
    written += n;
  }
};

// ---- the link, and what is owed on it ----

// The connection to the device, made again after a drop when asked. "Owed" bytes have been
// handed to the transport and not yet acknowledged (sliding window) or not yet written
// (chunks): the transport's unacknowledged(). With the extended window the peripheral keeps
// the transport, and the session in it, across a drop: what is owed then waits for the next
// link, which resumes the stream, or begins a new session with the bytes sent and never
// acknowledged in doubt (the transport's bytesInDoubt()).
class Link {
 public:
  Link(Session& session, std::shared_ptr<QLT_Peripheral> peripheral, TransportKind kind,
       Inbox& inbox, int wakeFd)
      : session_(session),
        peripheral_(std::move(peripheral)),
        kind_(kind),
        keepsSession_(kind == TransportKind::SlidingWindow && !session.options().classicWindow),
        wakeFd_(wakeFd) {
    events_.onData = [&inbox](const Data& d, bool) { inbox.add(d); };
    // Once the state is recorded, so that the woken loop sees a drop.
    events_.onRecorded = [wakeFd] { wake(wakeFd); };
  }
  ~Link() { detach(); }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  // Connects (throws Failure, or Interrupted).
  void open(double timeoutS) {
    connection_.reset();
    connection_ = std::make_unique<Connection>(session_, peripheral_, kind_, events_);
    try {
      connection_->open(timeoutS);
    } catch (...) {
      connection_.reset();
      throw;
    }
    const auto transport = peripheral_->transport();
    if (transport == transport_) return;  // the session's, kept across the drop
    if (transport_) lost_ += transport_->unacknowledged() + takeDoubt();  // gone with it
    detach();
    transport_ = transport;
    doubt_ = transport_ ? transport_->bytesInDoubt() : 0;
    if (transport_) transport_->setAllAcknowledgedHandler([fd = wakeFd_] { wake(fd); });
  }
  bool up() const { return connection_ && !connection_->dropped(); }
  // The window the link negotiated ("extended", "classic"), "" once the link is down.
  std::string window() const {
    const TransferCounters c = up() ? connection_->counters() : TransferCounters{};
    return c.present ? c.window : "";
  }
  std::string name() const { return connection_ ? connection_->deviceName() : "the device"; }

  void send(const uint8_t* bytes, size_t size) {
    handed_ += size;
    connection_->sendTCP(Data(bytes, size));
  }
  // Bytes owed to the device now (the transport of a dropped link keeps its count).
  uint64_t owed() const { return transport_ ? transport_->unacknowledged() : 0; }
  bool keepsSession() const { return keepsSession_; }
  // After a drop: what was owed is gone with the transport, unless `keep`: the session
  // keeps it for the next link.
  void forget(bool keep) {
    connection_.reset();
    if (!keep) detach();
  }
  // Bytes found in doubt since the last call: a new session began where the last one could
  // not resume (the device restarted, or the session was held too long), and they were sent
  // on it and never acknowledged. Counted before they leave owed().
  uint64_t takeDoubt() {
    if (!transport_) return 0;
    const uint64_t now = transport_->bytesInDoubt();
    return now - std::exchange(doubt_, now);
  }
  // Lost when the transport changed under a held session (another peripheral's link).
  uint64_t takeLost() { return std::exchange(lost_, 0); }
  uint64_t handed() const { return handed_; }
  void close() {  // disconnects if still connected, and ends a session held
    detach();
    connection_.reset();
    peripheral_->endSession();
  }

 private:
  Session& session_;
  const std::shared_ptr<QLT_Peripheral> peripheral_;
  const TransportKind kind_;
  const bool keepsSession_;  // the extended window: the peripheral keeps its transport
  ConnectionEvents events_;
  void detach() {
    if (transport_) transport_->setAllAcknowledgedHandler(nullptr);
    transport_ = nullptr;
  }

  const int wakeFd_;
  std::unique_ptr<Connection> connection_;
  std::shared_ptr<BaseTransport> transport_;  // the current link's (or the session's)
  uint64_t doubt_ = 0;                        // transport_->bytesInDoubt() taken so far
  uint64_t lost_ = 0;                         // of a session's transport that was replaced
  uint64_t handed_ = 0;                       // all links
};

// ---- the bridge ----

int runBridge(const BridgeOptions& o) {
  const TransportKind kind = parseTransport(o.transport);
  setStdoutCarriesData(true);
  // The local end first: a bad address or link fails before any radio work.
  std::unique_ptr<BridgeEnd> local = o.pty           ? BridgeEnd::pseudoTerminal(o.link)
                                     : o.tcp.empty() ? BridgeEnd::standardStreams()
                                                     : BridgeEnd::tcpListener(o.tcp);
  if (!local->where().empty()) printLine(local->where());

  WakeUp wakeUp;
  Inbox inbox(wakeUp.fd());
  Session session(o.common);
  session.powerOn(5.0);
  Link link(session, session.find(o.device, o.timeoutS), kind, inbox, wakeUp.fd());
  link.open(o.timeoutS);
  const std::string name = link.name();
  printError("qlt bridge: '" + name + "' over " + transportName(kind) + " ⇄ " +
             (local->where().empty() ? "stdin/stdout" : local->where()) + "; Ctrl-C to stop");

  Outgoing out;
  uint64_t lost = 0;  // owed to the device when a link dropped, or in doubt in a lost session
  // A new session where the last could not resume: its bytes in doubt are named at once.
  const auto countDoubt = [&] {
    if (const uint64_t doubt = link.takeDoubt() + link.takeLost()) {
      lost += doubt;
      printError("qlt bridge: a new session began with '" + name + "': " + std::to_string(doubt) +
                 " bytes sent were never confirmed (the device may or may not have had them)");
    }
  };
  bool paused = false;
  bool interrupted = false;
  std::string failure;
  double backoffS = 1;
  Clock::time_point retryAt{}, drainedAt{};
  uint8_t buffer[kChunk];

  for (;;) {
    if (interruptRequested()) {
      acknowledgeInterrupt();  // the counts and the disconnection still run
      interrupted = true;
      break;
    }
    const auto now = Clock::now();
    countDoubt();
    if (!link.up() && retryAt == Clock::time_point{}) {
      const uint64_t owedNow = link.owed();
      // With the session kept, what is owed waits in it for the next link.
      const bool kept = o.reconnect && link.keepsSession();
      link.forget(kept);
      if (!kept) lost += owedNow;
      // The device's answers go quiet from the next link on, not from before the drop: it
      // may still have a resumed stream to send.
      drainedAt = {};
      const std::string what =
          "the link to '" + name + "' was lost" +
          (owedNow ? " with " + std::to_string(owedNow) + " bytes unconfirmed" +
                         (kept ? ", kept for the next link" : "")
                   : "");
      if (!o.reconnect) {
        failure = what;
        break;
      }
      printError("qlt bridge: " + what + "; reconnecting in " + seconds(backoffS));
      retryAt = now + std::chrono::duration_cast<Clock::duration>(
                          std::chrono::duration<double>(backoffS));
    }
    if (!link.up() && now >= retryAt) {
      try {
        link.open(o.timeoutS);
        printError("qlt bridge: reconnected to '" + name + "'");
        backoffS = 1;
        retryAt = {};
      } catch (const Interrupted&) {
        continue;  // handled at the top
      } catch (const Failure& e) {
        backoffS = std::min(backoffS * 2, 30.0);
        printError("qlt bridge: " + std::string(e.what()) + "; next attempt in " +
                   seconds(backoffS));
        retryAt = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double>(backoffS));
      }
      continue;
    }
    const bool up = link.up();
    const uint64_t owed = up ? link.owed() : 0;
    paused = owed > (paused ? kLowWater : kHighWater);
    out.refill(inbox);

    // Finished: stdin has ended, the device has everything, its answers have gone quiet.
    int timeoutMs = -1;
    if (local->inputEnded() && up && owed == 0) {
      if (drainedAt == Clock::time_point{}) drainedAt = now;
      const auto quietSince = std::max(drainedAt, inbox.lastArrival());
      const double left = o.lingerS - std::chrono::duration<double>(now - quietSince).count();
      if (left <= 0 && !out.pending()) break;
      timeoutMs = std::max(1, static_cast<int>(left * 1000) + 1);
    } else if (!up) {
      timeoutMs = static_cast<int>(std::max<int64_t>(
          0, std::chrono::duration_cast<std::chrono::milliseconds>(retryAt - now).count() + 1));
    }

    std::vector<pollfd> fds{{wakeUp.fd(), POLLIN, 0}};
    const bool reading = up && !paused && local->inputFd() >= 0;
    if (reading) fds.push_back({local->inputFd(), POLLIN, 0});
    const bool writing = out.pending() && local->outputFd() >= 0;
    // The same descriptor for both (a terminal, a client): one entry.
    if (writing && reading && fds.back().fd == local->outputFd()) {
      fds.back().events |= POLLOUT;
    } else if (writing) {
      fds.push_back({local->outputFd(), POLLOUT, 0});
    }
    if (local->listenFd() >= 0) fds.push_back({local->listenFd(), POLLIN, 0});
    if (::poll(fds.data(), fds.size(), timeoutMs) < 0) {
      if (errno == EINTR) continue;
      throw Failure("poll failed: " + std::to_string(errno));
    }
    if (fds[0].revents) wakeUp.drain();
    // Ready descriptors, as they were when polled (a client may leave in between).
    const int in = reading ? local->inputFd() : -1, outFd = local->outputFd();
    for (size_t i = 1; i < fds.size(); ++i) {
      const auto& p = fds[i];
      if (!p.revents) continue;
      if (p.fd == local->listenFd()) {
        local->accept();
        continue;
      }
      if (p.fd == in && (p.revents & (POLLIN | POLLHUP | POLLERR))) {
        if (const size_t n = local->read(buffer, sizeof buffer)) link.send(buffer, n);
      }
      if (writing && p.fd == outFd && local->outputFd() == outFd &&
          (p.revents & (POLLOUT | POLLERR | POLLHUP))) {
        out.writeTo(*local);
      }
    }
  }

  countDoubt();
  const uint64_t owedAtEnd = link.owed();  // a session held while down still owes its bytes
  if (o.common.verbose && kind == TransportKind::SlidingWindow && !link.window().empty())
    printError("qlt bridge: the " + link.window() + " window");
  link.close();
  // What the device sent before the end still goes out, within a few seconds.
  for (const auto until = Clock::now() + std::chrono::seconds(3);
       Clock::now() < until && local->outputFd() >= 0;) {
    out.refill(inbox);
    if (!out.pending()) break;
    pollfd p{local->outputFd(), POLLOUT, 0};
    if (::poll(&p, 1, 100) > 0) out.writeTo(*local);
  }
  if (failure.empty() && !interrupted && lost > 0)  // the end of stdin, after a reconnection
    failure = std::to_string(lost) + " bytes were unconfirmed when a link dropped";
  const uint64_t handed = link.handed();
  const uint64_t discarded = inbox.discarded();
  const uint64_t confirmed = handed - lost - owedAtEnd;
  printError("qlt bridge: " + std::to_string(handed) + " bytes to the device (" +
             std::to_string(confirmed) +
             (kind == TransportKind::NUS ? " written" : " acknowledged") +
             (lost ? ", " + std::to_string(lost) + " unconfirmed at a drop" : "") + "), " +
             std::to_string(inbox.received()) + " bytes from it (" + std::to_string(out.written) +
             " passed on" +
             (discarded ? ", " + std::to_string(discarded) + " discarded unread" : "") + ")");
  if (!failure.empty()) throw Failure(failure);
  return interrupted ? kExitInterrupted : kExitOk;
}

}  // namespace

CommandAction addBridgeCommand(CLI::App& app) {
  auto o = std::make_shared<BridgeOptions>();
  auto* cmd = app.add_subcommand(
      "bridge",
      "A transparent, binary-safe byte pipe to DEVICE: stdin to the device and the device to "
      "stdout, or a pseudo-terminal (--pty) any serial program can open, or one TCP client "
      "(--tcp). Byte counts each way on stderr at the end");
  cmd->add_option("DEVICE", o->device, kDeviceHelp)->required();
  auto* pty = cmd->add_flag("--pty", o->pty,
                            "Make a pseudo-terminal and print its path on stdout; serial "
                            "programs may open and close it freely");
  cmd->add_option("--link", o->link,
                  "With --pty: also a symbolic link PATH to it (an existing symbolic link is "
                  "replaced, anything else refused), removed at the end")
      ->type_name("PATH")
      ->needs(pty);
  cmd->add_option("--tcp", o->tcp,
                  "Listen on [HOST:]PORT (loopback without HOST; PORT 0 picks one) and print "
                  "the address on stdout; one client at a time, a second one is refused")
      ->type_name("[HOST:]PORT")
      ->excludes(pty);
  cmd->add_option("--transport", o->transport,
                  "sw: the sliding window (acknowledged, ordered, exactly once); nus: plain "
                  "20-byte chunks for stock UART firmware")
      ->check(CLI::IsMember({"sw", "nus"}))
      ->capture_default_str();
  cmd->add_flag("--reconnect", o->reconnect,
                "When the link drops, connect again (waiting 1, 2, 4 ... 30 s between tries) "
                "and keep the terminal or socket open; without it a lost link is exit 1");
  addNumberOption(*cmd, "--timeout", o->timeoutS, "Seconds to find and connect to the device", 0.1,
                  600, "a number of seconds")
      ->default_str("10");
  addNumberOption(*cmd, "--linger", o->lingerS,
                  "At the end of stdin, once the device has acknowledged everything: keep "
                  "passing its bytes on until it has been silent this long",
                  0, 600, "a number of seconds")
      ->default_str("1");
  addCommonOptions(*cmd, o->common, /*movesData=*/true);
  cmd->footer(
      "Examples:\n"
      "  qlt bridge QLT-Echo < in.bin > out.bin            a file there and back\n"
      "  qlt bridge QLT-Echo --pty --link /tmp/ttyBLE      then: screen /tmp/ttyBLE\n"
      "  qlt bridge QLT-Echo --tcp 7000                    then: nc 127.0.0.1 7000\n"
      "  qlt bridge 51D0E001-0000-4000-8000-0000000000C1 --transport nus --pty --reconnect\n"
      "Reading stops while 64 KiB are owed to the device and resumes at 16 KiB, so memory stays\n"
      "bounded; the device's bytes wait (up to 1 MiB) until someone reads them. After a drop\n"
      "with --reconnect and the extended window (the default), the next link resumes the\n"
      "stream where the device has it: nothing lost, nothing twice. A device that cannot\n"
      "resume (restarted, or down past its 30 s hold) begins a new session: the bytes it may\n"
      "or may not have had are counted as unconfirmed, not resent; so are those the old link\n"
      "had not confirmed with --classic-window or nus. Exit: 0 at the end of stdin with every\n"
      "byte confirmed, 1 on a lost link (or unconfirmed bytes), 130 on Ctrl-C.");
  return [o] { return runBridge(*o); };
}

}  // namespace qlt::cli
