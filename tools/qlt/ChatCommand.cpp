// qlt chat: send each typed line, print each received payload, until Ctrl-D.

#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cerrno>
#include <memory>

#include "Commands.h"
#include "Errors.h"
#include "Numbers.h"
#include "Session.h"
#include "Terminal.h"
#include "Waiter.h"

namespace qlt::cli {
namespace {

struct ChatOptions {
  CommonOptions common;
  std::string device;
  std::string transport = "sw";
  bool udp = false;
  double timeoutS = 10.0;
  std::string eol = "lf";  // what ends each line sent: lf, cr, crlf or none
};

std::string lineEnding(const std::string& eol) {
  if (eol == "cr") return "\r";
  if (eol == "crlf") return "\r\n";
  if (eol == "none") return "";
  return "\n";
}

// A received payload as lines for people: split at line feeds (a carriage return before
// one, and one line ending at the very end, are not shown), each line as text or hex.
std::vector<std::string> shownLines(std::string text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  std::vector<std::string> lines;
  size_t start = 0;
  for (;;) {
    const size_t nl = text.find('\n', start);
    std::string line = text.substr(start, nl == std::string::npos ? std::string::npos : nl - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(describePayload(line));
    if (nl == std::string::npos) return lines;
    start = nl + 1;
  }
}

// Reads stdin line by line without blocking the check for a dropped link or Ctrl-C.
class LineReader {
 public:
  static constexpr size_t kLongestLine = 4096;
  enum class Result { Line, End, Idle };
  Result next(std::string& line, int waitMs) {
    for (;;) {
      const auto nl = pending_.find('\n');
      if (nl != std::string::npos) {
        line = pending_.substr(0, nl);
        pending_.erase(0, nl + 1);
        return Result::Line;
      }
      if (eof_) {
        if (pending_.empty()) return Result::End;
        line.swap(pending_);
        pending_.clear();
        return Result::Line;
      }
      pollfd p{STDIN_FILENO, POLLIN, 0};
      const int r = ::poll(&p, 1, waitMs);
      if (r == 0 || (r < 0 && errno == EINTR)) return Result::Idle;
      char buf[4096];
      const ssize_t n = ::read(STDIN_FILENO, buf, sizeof buf);
      if (n < 0 && errno == EINTR) return Result::Idle;
      if (n <= 0) {
        eof_ = true;
        continue;
      }
      pending_.append(buf, static_cast<size_t>(n));
      if (pending_.find('\n') == std::string::npos) {
        // No line yet. A "line" that never ends is sent in pieces rather than held forever.
        if (pending_.size() >= kLongestLine) {
          line = pending_.substr(0, kLongestLine);
          pending_.erase(0, kLongestLine);
          return Result::Line;
        }
        return Result::Idle;  // let the caller look at the link and Ctrl-C in between
      }
    }
  }

 private:
  std::string pending_;
  bool eof_ = false;
};

int runChat(const ChatOptions& o) {
  const TransportKind transport = parseTransport(o.transport);
  if (o.udp && transport != TransportKind::SlidingWindow)
    throw UsageError("--udp needs the sliding-window transport (--transport sw)");
  const std::string ending = lineEnding(o.eol);
  // Received payloads on stdout; states and notes on stderr.
  setStdoutCarriesData(true);
  Session session(o.common);
  session.powerOn(5.0);
  auto peripheral = session.find(o.device, o.timeoutS);

  ConnectionEvents events;
  events.onState = [](int32_t, const std::string& text) { printStatus("[" + text + "]"); };
  auto received = std::make_shared<std::atomic<uint64_t>>(0);  // payloads, for the drain at the end
  events.onData = [received](const Data& d, bool datagram) {
    received->fetch_add(1);
    for (const auto& line : shownLines(d.toString()))
      printLine(std::string(datagram ? "< (udp) " : "< ") + line);
  };
  Connection connection(session, peripheral, transport, events);
  connection.open(o.timeoutS);
  printStatus("connected to '" + connection.deviceName() + "' over " + transportName(transport) +
              (o.udp ? " (datagrams)" : "") + "; type lines to send, Ctrl-D to leave");

  LineReader reader;
  std::string line;
  bool endOfInput = false;
  for (;;) {
    if (interruptRequested()) {  // Ctrl-C: leave as cleanly as Ctrl-D (then exit 130)
      acknowledgeInterrupt();
      break;
    }
    if (connection.dropped())
      throw Failure("the connection to '" + connection.deviceName() + "' was lost");
    const auto r = reader.next(line, 100);
    if (r == LineReader::Result::End) {
      endOfInput = true;
      break;
    }
    if (r == LineReader::Result::Idle) continue;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    line += ending;
    if (line.empty()) {
      printStatus("(an empty line carries no bytes with --eol none; nothing sent)");
      continue;
    }
    const Data data = Data::fromString(line);
    if (o.udp) {
      if (line.size() > 119) {
        printStatus("(a datagram carries at most 119 bytes; this line has " +
                    std::to_string(line.size()) + ")");
        continue;
      }
      connection.sendUDP(data);
    } else {
      connection.sendTCP(data);
    }
  }
  if (endOfInput) {
    // Input ended (Ctrl-D, or the end of a piped file): let what was typed leave, and its
    // answer arrive, before disconnecting, so that `echo hi | qlt chat DEVICE` shows the echo.
    Waiter pause;
    const auto sent = [&] { return connection.counters().bytesQueued == 0; };
    for (int i = 0; i < 100 && !sent() && !connection.dropped(); ++i)
      pause.waitUntil([] { return false; }, 0.05);
    uint64_t seen = received->load();
    for (int quiet = 0; quiet < 4 && !connection.dropped();) {  // 200 ms without a payload
      pause.waitUntil([] { return false; }, 0.05);
      const uint64_t now = received->load();
      quiet = now == seen ? quiet + 1 : 0;
      seen = now;
    }
  }
  if (!connection.dropped()) connection.close(5.0);
  return kExitOk;
}

}  // namespace

CommandAction addChatCommand(CLI::App& app) {
  auto o = std::make_shared<ChatOptions>();
  auto* cmd = app.add_subcommand(
      "chat",
      "Interactive: connect to DEVICE, send each line typed (ended as --eol says), print each "
      "payload received on stdout (UTF-8 text, hex when it holds control or invalid bytes) and "
      "every connection state on stderr; Ctrl-D disconnects cleanly (Ctrl-C too, exit 130)");
  cmd->add_option("DEVICE", o->device, kDeviceHelp)->required();
  cmd->add_option("--transport", o->transport,
                  "sw: the sliding window (acknowledged, ordered); nus: plain 20-byte chunks")
      ->check(CLI::IsMember({"sw", "nus"}))
      ->capture_default_str();
  cmd->add_flag("--udp", o->udp,
                "Send each line as a datagram (unacknowledged, at most 119 bytes)");
  addNumberOption(*cmd, "--timeout", o->timeoutS, "Seconds to find and connect to the device", 0.1,
                  600, "a number of seconds")
      ->default_str("10");
  cmd->add_option("--eol", o->eol,
                  "What ends each line sent: lf (\\n), cr (\\r), crlf (\\r\\n) or none; a "
                  "received payload's own line ending is not shown")
      ->check(CLI::IsMember({"lf", "cr", "crlf", "none"}))
      ->capture_default_str();
  addCommonOptions(*cmd, o->common, /*movesData=*/true);
  cmd->footer(
      "Examples:\n"
      "  qlt chat QLT-Echo                          chat with the simulated echo device\n"
      "  qlt chat QLT-Echo --trace                  ... and watch every frame\n"
      "  qlt chat 51D0E001-0000-4000-8000-0000000000C1 --transport nus --eol crlf\n"
      "                                             stock UART firmware: plain chunks, CR LF\n"
      "The sliding window (sw) needs a device that runs the same protocol; a device with stock\n"
      "UART firmware needs --transport nus.");
  return [o] { return runChat(*o); };
}

}  // namespace qlt::cli
