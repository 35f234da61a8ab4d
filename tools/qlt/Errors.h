// How a qlt command fails: it throws one of these, main() prints "qlt: <message>" on
// stderr and exits with the code. Messages are plain words for people:
// "no device named 'foo' found within 5.0 s".
#pragma once

#include <stdexcept>
#include <string>

namespace qlt::cli {

enum ExitCode : int {
  kExitOk = 0,
  kExitFailure = 1,        // device not found, transfer failed, time-out, I/O error
  kExitUsage = 2,          // bad command line
  kExitInterrupted = 130,  // Ctrl-C, SIGTERM or SIGHUP
};

// The command could not do its job (exit code 1).
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The command line asks for something that cannot be done (exit code 2), beyond what the
// parser itself checks: "--platform bluez" in a build without BlueZ, a malformed config.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace qlt::cli
