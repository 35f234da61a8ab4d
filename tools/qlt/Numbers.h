// Numeric options, checked strictly: every number a command takes is finite, within the
// option's range and fully parsed; a byte count may carry a unit. A bad value is a usage
// error (exit 2) that names the option: "--timeout: 'nan' is not a number of seconds
// between 0.1 and 600".
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace qlt::cli {

// "1.5", "2e-3": a finite decimal number in [min, max]; std::nullopt otherwise (NaN,
// infinities, trailing text, out of range).
std::optional<double> parseNumber(const std::string& text, double min, double max);
// "4096", "64k" / "64K" / "64kB" (×1000), "64KiB" (×1024), "1M", "1MiB", "2G", "2GiB": a
// whole number of bytes in [min, max]; std::nullopt otherwise (negatives, fractions,
// overflow, unknown units).
std::optional<uint64_t> parseByteCount(const std::string& text, uint64_t min, uint64_t max);
// A 16-bit identifier such as a Bluetooth company identifier: decimal ("89") or
// hexadecimal with 0x ("0x0059"), 0 to 0xFFFF; std::nullopt otherwise (signs, spaces
// inside, trailing text, out of range).
std::optional<uint16_t> parseCompanyId(const std::string& text);

// Adds an option whose value must satisfy parseNumber(min, max); `what` describes it in the
// error ("a number of seconds"). The help shows the range.
CLI::Option* addNumberOption(CLI::App& command, const std::string& name, double& target,
                             const std::string& help, double min, double max,
                             const std::string& what = "a number");
// The same for whole counts (--pings).
CLI::Option* addCountOption(CLI::App& command, const std::string& name, int& target,
                            const std::string& help, int min, int max);
// The same for byte counts (--bytes), with units.
CLI::Option* addByteOption(CLI::App& command, const std::string& name, uint64_t& target,
                           const std::string& help, uint64_t min, uint64_t max);

}  // namespace qlt::cli
