#include "Numbers.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace qlt::cli {
namespace {

std::string trimmed(const std::string& s) {
  const auto b = s.find_first_not_of(" \t");
  const auto e = s.find_last_not_of(" \t");
  return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

std::string shortNumber(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", v);
  return buf;
}

}  // namespace

std::optional<double> parseNumber(const std::string& text, double min, double max) {
  const std::string t = trimmed(text);
  if (t.empty()) return std::nullopt;
  // Only plain decimal notation: strtod would also take "nan", "inf" and hexadecimal.
  if (t.find_first_not_of("0123456789.eE+-") != std::string::npos) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(t.c_str(), &end);
  if (end != t.c_str() + t.size() || errno == ERANGE || !std::isfinite(v)) return std::nullopt;
  if (v < min || v > max) return std::nullopt;
  return v;
}

std::optional<uint64_t> parseByteCount(const std::string& text, uint64_t min, uint64_t max) {
  const std::string t = trimmed(text);
  size_t digits = 0;
  while (digits < t.size() && t[digits] >= '0' && t[digits] <= '9') ++digits;
  if (digits == 0) return std::nullopt;
  errno = 0;
  const uint64_t number = std::strtoull(t.substr(0, digits).c_str(), nullptr, 10);
  if (errno == ERANGE) return std::nullopt;
  std::string unit = trimmed(t.substr(digits));
  uint64_t scale = 1;
  if (!unit.empty() && unit != "B") {
    const bool binary = unit.size() >= 2 && unit.substr(1) == "iB";
    const bool decimal = unit.size() == 1 || (unit.size() == 2 && unit[1] == 'B');
    if (!binary && !decimal) return std::nullopt;
    const uint64_t base = binary ? 1024 : 1000;
    int power = 0;
    switch (unit[0]) {
      case 'k':
      case 'K':
        power = 1;
        break;
      case 'M':
        power = 2;
        break;
      case 'G':
        power = 3;
        break;
      default:
        return std::nullopt;
    }
    for (int i = 0; i < power; ++i) scale *= base;
  }
  if (number > UINT64_MAX / scale) return std::nullopt;
  const uint64_t v = number * scale;
  if (v < min || v > max) return std::nullopt;
  return v;
}

std::optional<uint16_t> parseCompanyId(const std::string& text) {
  const std::string t = trimmed(text);
  const bool hex = t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X');
  const std::string digits = hex ? t.substr(2) : t;
  const char* allowed = hex ? "0123456789abcdefABCDEF" : "0123456789";
  if (digits.empty() || digits.size() > 6 || digits.find_first_not_of(allowed) != std::string::npos)
    return std::nullopt;
  const unsigned long v = std::strtoul(digits.c_str(), nullptr, hex ? 16 : 10);
  if (v > 0xFFFF) return std::nullopt;
  return static_cast<uint16_t>(v);
}

CLI::Option* addNumberOption(CLI::App& command, const std::string& name, double& target,
                             const std::string& help, double min, double max,
                             const std::string& what) {
  const std::string range = shortNumber(min) + " to " + shortNumber(max);
  auto* option = command.add_option(
      name,
      [&target, name, min, max, what, range](const CLI::results_t& values) {
        const auto v = parseNumber(values.at(0), min, max);
        if (!v) {
          throw CLI::ValidationError(name,
                                     "'" + values.at(0) + "' is not " + what + " from " + range);
        }
        target = *v;
        return true;
      },
      help + " [" + range + "]");
  option->type_name("NUMBER")->expected(1);
  return option;
}

CLI::Option* addCountOption(CLI::App& command, const std::string& name, int& target,
                            const std::string& help, int min, int max) {
  auto* option = command.add_option(
      name,
      [&target, name, min, max](const CLI::results_t& values) {
        const auto v = parseByteCount(values.at(0), static_cast<uint64_t>(std::max(0, min)),
                                      static_cast<uint64_t>(max));
        if (!v || values.at(0).find_first_not_of("0123456789 ") != std::string::npos) {
          throw CLI::ValidationError(name, "'" + values.at(0) + "' is not a whole number from " +
                                               std::to_string(min) + " to " + std::to_string(max));
        }
        target = static_cast<int>(*v);
        return true;
      },
      help + " [" + std::to_string(min) + " to " + std::to_string(max) + "]");
  option->type_name("N")->expected(1);
  return option;
}

CLI::Option* addByteOption(CLI::App& command, const std::string& name, uint64_t& target,
                           const std::string& help, uint64_t min, uint64_t max) {
  auto* option = command.add_option(
      name,
      [&target, name, min, max](const CLI::results_t& values) {
        const auto v = parseByteCount(values.at(0), min, max);
        if (!v) {
          throw CLI::ValidationError(name, "'" + values.at(0) + "' is not a byte count from " +
                                               std::to_string(min) + " to " + std::to_string(max) +
                                               " (units: k, M, G, KiB, MiB, GiB)");
        }
        target = *v;
        return true;
      },
      help + " (64k, 1M, 1MiB ...)");
  option->type_name("BYTES")->expected(1);
  return option;
}

}  // namespace qlt::cli
