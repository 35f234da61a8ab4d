#include "Terminal.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qlt::cli {
namespace {

std::mutex& outputLock() {
  static std::mutex m;
  return m;
}

// The bar currently on screen (guarded by the output lock); lines printed meanwhile go
// above it.
ProgressBar* activeBar = nullptr;
std::string activeBarText;  // guarded by the output lock

std::string fixed(double v, int decimals) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
  return buf;
}

void writeRaw(std::string_view s) { std::fwrite(s.data(), 1, s.size(), stdout); }

bool gStdoutCarriesData = false;  // guarded by the output lock
int gStdoutErrno = 0;             // guarded by the output lock: the first failed write's reason

// Flushes stdout (under the output lock), noting the reason of the first failure.
void flushLocked() {
  if (std::fflush(stdout) != 0 && gStdoutErrno == 0) gStdoutErrno = errno;
}

// The length of the UTF-8 sequence at `s[i]` and its code point, or 0 when it is invalid.
size_t utf8Sequence(std::string_view s, size_t i, uint32_t& cp) {
  const auto b = static_cast<unsigned char>(s[i]);
  size_t n = b < 0x80 ? 1 : (b >> 5) == 6 ? 2 : (b >> 4) == 14 ? 3 : (b >> 3) == 30 ? 4 : 0;
  if (n == 0 || i + n > s.size()) return 0;
  cp = n == 1 ? b : b & (0x7f >> n);
  for (size_t k = 1; k < n; ++k) {
    const auto c = static_cast<unsigned char>(s[i + k]);
    if ((c >> 6) != 2) return 0;
    cp = (cp << 6) | (c & 0x3f);
  }
  static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kSmallest[n] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return 0;
  return n;
}

bool isControl(uint32_t cp) { return cp < 0x20 || (cp >= 0x7f && cp < 0xa0); }

}  // namespace

void setStdoutCarriesData(bool data) {
  std::lock_guard lock(outputLock());
  gStdoutCarriesData = data;
}

void printStatus(std::string_view line) {
  bool toStderr;
  {
    std::lock_guard lock(outputLock());
    toStderr = gStdoutCarriesData;
  }
  if (toStderr) {
    printError(line);
  } else {
    printLine(line);
  }
}

void printError(std::string_view line) {
  std::lock_guard lock(outputLock());
  std::fflush(stdout);
  std::string text(line);
  text += '\n';
  std::fwrite(text.data(), 1, text.size(), stderr);
}

std::string displayText(std::string_view text, size_t maxChars) {
  std::string out;
  size_t chars = 0;
  for (size_t i = 0; i < text.size();) {
    if (chars == maxChars) return out + "…";
    uint32_t cp = 0;
    const size_t n = utf8Sequence(text, i, cp);
    if (n == 0 || isControl(cp)) {
      char buf[8];
      for (size_t k = 0; k < std::max<size_t>(n, 1); ++k) {
        std::snprintf(buf, sizeof buf, "\\x%02x", static_cast<unsigned char>(text[i + k]));
        out += buf;
      }
      i += std::max<size_t>(n, 1);
    } else {
      out.append(text.substr(i, n));
      i += n;
    }
    ++chars;
  }
  return out;
}

bool stdoutIsTerminal() {
  static const bool terminal = [] {
    if (!::isatty(STDOUT_FILENO)) return false;
    const char* term = std::getenv("TERM");  // NOLINT(concurrency-mt-unsafe): read once
    return !(term && std::strcmp(term, "dumb") == 0);
  }();
  return terminal;
}

void printLine(std::string_view line) {
  std::lock_guard lock(outputLock());
  if (activeBar) writeRaw("\r\033[K");
  writeRaw(line);
  writeRaw("\n");
  if (activeBar) writeRaw(activeBarText);
  flushLocked();
}

int stdoutWriteError() {
  std::lock_guard lock(outputLock());
  flushLocked();
  return gStdoutErrno ? gStdoutErrno : (std::ferror(stdout) ? EIO : 0);
}

std::string formatBytes(double bytes) {
  if (bytes < 1000) return fixed(bytes, 0) + " B";
  if (bytes < 1000 * 1000) return fixed(bytes / 1000, 1) + " kB";
  if (bytes < 1000.0 * 1000 * 1000) return fixed(bytes / 1e6, 2) + " MB";
  return fixed(bytes / 1e9, 2) + " GB";
}

std::string formatRate(double bytesPerSecond) { return formatBytes(bytesPerSecond) + "/s"; }

std::string formatSeconds(double seconds) {
  if (seconds < 1.0) return fixed(seconds * 1000, 1) + " ms";
  return fixed(seconds, 2) + " s";
}

std::string describePayload(std::string_view bytes) {
  bool printable = true;
  for (size_t i = 0; i < bytes.size() && printable;) {
    uint32_t cp = 0;
    const size_t n = utf8Sequence(bytes, i, cp);
    printable = n > 0 && (!isControl(cp) || cp == '\t');
    i += std::max<size_t>(n, 1);
  }
  if (printable) return std::string(bytes);
  std::string out = "hex:";
  char buf[4];
  for (char c : bytes) {
    std::snprintf(buf, sizeof buf, "%02x", static_cast<unsigned char>(c));
    out += ' ';
    out += buf;
  }
  return out;
}

// ---- ProgressBar ----

ProgressBar::ProgressBar(std::string label, uint64_t total)
    : label_(std::move(label)),
      total_(total),
      started_(std::chrono::steady_clock::now()),
      enabled_(stdoutIsTerminal() && !gStdoutCarriesData) {
  if (!enabled_) return;
  std::lock_guard lock(outputLock());
  if (!activeBar) activeBar = this;
  drawLocked(true);
}

ProgressBar::~ProgressBar() { finish(); }

void ProgressBar::update(uint64_t done) {
  if (!enabled_) return;
  std::lock_guard lock(outputLock());
  if (finished_) return;
  done_ = std::min(done, total_);
  drawLocked(false);
}

void ProgressBar::finish() {
  if (!enabled_) return;
  std::lock_guard lock(outputLock());
  if (finished_) return;
  drawLocked(true);
  finished_ = true;
  if (activeBar == this) {
    activeBar = nullptr;
    activeBarText.clear();
  }
  writeRaw("\n");
  std::fflush(stdout);
}

void ProgressBar::drawLocked(bool force) {
  const auto now = std::chrono::steady_clock::now();
  if (!force && now - lastDraw_ < std::chrono::milliseconds(50) && done_ < total_) return;
  lastDraw_ = now;

  constexpr int kWidth = 24;
  const double fraction = total_ ? static_cast<double>(done_) / static_cast<double>(total_) : 1.0;
  const int filled = static_cast<int>(fraction * kWidth);
  const double seconds = std::chrono::duration<double>(now - started_).count();
  std::string text = "\r\033[K  " + label_ + " [" + std::string(filled, '#') +
                     std::string(kWidth - filled, '.') + "] " + fixed(fraction * 100, 0) + "%  " +
                     formatBytes(static_cast<double>(done_)) + " / " +
                     formatBytes(static_cast<double>(total_));
  if (seconds > 0.05) text += "  " + formatRate(static_cast<double>(done_) / seconds);
  if (activeBar == this) activeBarText = text;
  writeRaw(text);
  std::fflush(stdout);
}

// ---- LiveTable ----

LiveTable::LiveTable(std::vector<std::string> headers) : headers_(std::move(headers)) {}

std::vector<std::string> LiveTable::render(
    const std::vector<std::vector<std::string>>& rows) const {
  std::vector<size_t> widths(headers_.size());
  for (size_t c = 0; c < headers_.size(); ++c) widths[c] = headers_[c].size();
  for (const auto& row : rows)
    for (size_t c = 0; c < row.size() && c < widths.size(); ++c)
      widths[c] = std::max(widths[c], row[c].size());

  auto line = [&](const std::vector<std::string>& cells) {
    std::string out;
    for (size_t c = 0; c < widths.size(); ++c) {
      const std::string cell = c < cells.size() ? cells[c] : "";
      out += cell;
      if (c + 1 < widths.size()) out += std::string(widths[c] - cell.size() + 2, ' ');
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
  };
  std::vector<std::string> lines{line(headers_)};
  for (const auto& row : rows) lines.push_back(line(row));
  return lines;
}

void LiveTable::show(const std::vector<std::vector<std::string>>& rows) {
  if (!stdoutIsTerminal()) return;
  const auto lines = render(rows);
  std::lock_guard lock(outputLock());
  std::string out;
  if (linesOnScreen_ > 0) out += "\033[" + std::to_string(linesOnScreen_) + "F";  // up, column 0
  for (const auto& l : lines) out += "\033[K" + l + "\n";
  linesOnScreen_ = lines.size();
  writeRaw(out);
  std::fflush(stdout);
}

}  // namespace qlt::cli
