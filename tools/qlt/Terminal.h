// Terminal output for qlt: what goes to stdout, in which form.
//
// Progress bars and live tables are drawn only when stdout is a terminal; otherwise the
// tool writes plain lines, so that its output pipes and logs cleanly. Errors go to stderr
// through fail() (see Errors.h), never through these helpers.
//
// Thread safety: every function here takes one process-wide output lock, so library
// callbacks (on their own queues) and the command's thread may print at the same time
// without interleaving characters within a line.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace qlt::cli {

// Whether stdout is an interactive terminal (and not TERM=dumb).
bool stdoutIsTerminal();

// Writes one line (a newline is added) to stdout, under the output lock. If a progress
// bar is on screen, the line is printed above it and the bar is redrawn.
void printLine(std::string_view line);
// Whether stdout carries the command's data (JSON, received payloads). Once set, status
// lines (states, traces, notes) and progress go to stderr, so stdout stays data only.
void setStdoutCarriesData(bool data);
// A status line: to stdout, or to stderr once stdout carries data.
void printStatus(std::string_view line);
// A line to stderr, under the output lock.
void printError(std::string_view line);
// Flushes stdout; the reason (an errno value) of the first write to it that failed, else 0.
int stdoutWriteError();

// "64.0 kB", "1.2 MB", "512 B" (decimal units, as rates are usually quoted).
std::string formatBytes(double bytes);
// "12.3 kB/s".
std::string formatRate(double bytesPerSecond);
// "1.23 s", "45.6 ms".
std::string formatSeconds(double seconds);
// A payload for people: the text when it is valid UTF-8 without control characters (tab
// allowed), otherwise "hex: 01 02 ff".
std::string describePayload(std::string_view bytes);
// Text that comes from a device (its name), made safe for a terminal: control characters
// and invalid UTF-8 as \xNN escapes, at most `maxChars` characters (then "…").
std::string displayText(std::string_view text, size_t maxChars = 40);

// A one-line progress bar, redrawn at most every 50 ms, on a terminal only:
//   "  sending   [##########..........]  50%  32.8 kB / 65.5 kB  21.4 kB/s"
// Off a terminal it draws nothing; the command prints its own summary.
class ProgressBar {
 public:
  ProgressBar(std::string label, uint64_t total);
  ~ProgressBar();  // finish()
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // Sets how much is done (clamped to the total); may be called from any thread.
  void update(uint64_t done);
  // Draws the final state and ends the line. Idempotent.
  void finish();

 private:
  void drawLocked(bool force);

  const std::string label_;
  const uint64_t total_;
  const std::chrono::steady_clock::time_point started_;
  std::chrono::steady_clock::time_point lastDraw_{};
  uint64_t done_ = 0;      // guarded by the output lock
  bool finished_ = false;  // guarded by the output lock
  const bool enabled_;
};

// A table that redraws itself in place on a terminal (scan's device list). Off a
// terminal, nothing is redrawn: the command prints plain lines as rows appear.
class LiveTable {
 public:
  explicit LiveTable(std::vector<std::string> headers);
  // Replaces the rows and, on a terminal, redraws the table in place.
  void show(const std::vector<std::vector<std::string>>& rows);
  // Renders rows as aligned text lines (header first); used by show() and for plain output.
  std::vector<std::string> render(const std::vector<std::vector<std::string>>& rows) const;

 private:
  const std::vector<std::string> headers_;
  size_t linesOnScreen_ = 0;
};

}  // namespace qlt::cli
