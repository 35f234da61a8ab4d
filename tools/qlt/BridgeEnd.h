// The local end of `qlt bridge`: where the bytes for the device come from and where the
// device's bytes go. One of three:
//
// - standard streams: stdin is read, stdout written; the end of stdin ends the input.
// - a pseudo-terminal: its slave side is in raw mode (bytes pass unchanged, no echo) and
//   held open by the bridge itself, so a serial program may open and close it as often as
//   it likes without ending the bridge; optionally a symbolic link names it.
// - a TCP listener: one client at a time; a second one is accepted and closed at once
//   (refused, with a note on stderr); a client that goes away lets the next one in.
//
// The bridge polls the descriptors this class hands out and calls back on readiness.
// Threads: one thread (the bridge's) uses an end; nothing here is shared.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace qlt::cli {

class BridgeEnd {
 public:
  // Throws Failure when the terminal cannot be made or `linkPath` exists and is not a
  // symbolic link (which is left untouched); a symbolic link there is replaced.
  static std::unique_ptr<BridgeEnd> pseudoTerminal(const std::string& linkPath);
  // `address` is "PORT", ":PORT", "HOST:PORT" or "[IPv6]:PORT"; without HOST, loopback.
  // Throws UsageError when it is malformed, Failure when it cannot be listened on.
  static std::unique_ptr<BridgeEnd> tcpListener(const std::string& address);
  static std::unique_ptr<BridgeEnd> standardStreams();
  // Closes everything; removes the symbolic link if it still names this terminal.
  ~BridgeEnd();
  BridgeEnd(const BridgeEnd&) = delete;
  BridgeEnd& operator=(const BridgeEnd&) = delete;

  // Where to connect: the terminal's path, "HOST:PORT" being listened on; "" for streams.
  const std::string& where() const { return where_; }
  // What to read from, write to and accept on; -1 when there is none right now (no TCP
  // client, the end of stdin reached).
  int inputFd() const { return inFd_; }
  int outputFd() const { return outFd_; }
  int listenFd() const { return listenFd_; }
  // Whether the input has ended for good (stdin only; a pty or listener never ends).
  bool inputEnded() const { return inputEnded_; }

  // After POLLIN on listenFd(): takes the client, or refuses it when one is connected.
  void accept();
  // After POLLIN on inputFd(): up to `size` bytes read (0: nothing now, or the input or
  // the client ended). Throws Failure when stdin fails.
  size_t read(uint8_t* buffer, size_t size);
  // After POLLOUT on outputFd(): how many of the `size` bytes were taken (a client that
  // went away is dropped: 0). Throws Failure when stdout fails.
  size_t write(const uint8_t* data, size_t size);

 private:
  enum class Kind { Streams, Terminal, Tcp };
  explicit BridgeEnd(Kind kind) : kind_(kind) {}
  void dropClient(const std::string& why);

  const Kind kind_;
  std::string where_;
  int inFd_ = -1;
  int outFd_ = -1;
  int listenFd_ = -1;
  int slaveFd_ = -1;        // the terminal's slave side, held open
  std::string linkPath_;    // the symbolic link made, or ""
  std::string clientName_;  // "127.0.0.1:40112" while a client is connected
  bool inputEnded_ = false;
};

// Splits "HOST:PORT" (see tcpListener) into host and port; throws UsageError.
void parseListenAddress(const std::string& address, std::string& host, uint16_t& port);

}  // namespace qlt::cli
