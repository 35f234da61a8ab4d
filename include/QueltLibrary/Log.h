// Logging: one function with printf-style texts and a replaceable sink.
//
// QLTLog("P state = %d", state) formats the text and hands one line to the sink. The
// conversions understood are %d %i %u %ld %lu %lld %llu %zu %x %f %s %@ and %%; every
// argument is formatted by its own type, so a mismatch cannot read garbage: %@ and %s
// print an object's description (anything with a description() member, a string, a
// shared_ptr to such an object, or "(null)" for an empty pointer or optional).
//
// The default sink is quiet unless the environment variable QLT_LOG names a destination:
// "stderr", or a file to append to (if it cannot be opened or written, standard error says
// so once). There it writes "2026-11-23 08:21:25.123 QueltLibrary[pid:tid] text". QLT_LOG is
// read once, when the first line is logged. setLogSink replaces the default sink (an empty
// function restores it); the sink may be called from any thread, never while the library
// holds a lock. setLogSink returns once the sink it replaced has no call left running on
// another thread, so whatever that sink used may go then (a sink must therefore not wait
// for the thread that replaces it).
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "QueltLibrary/Export.h"

namespace qlt {

using LogSink = std::function<void(std::string_view line)>;

// Installs a sink for every later log line; returns the previous one (empty = default).
QLT_EXPORT LogSink setLogSink(LogSink sink);
// Hands one finished line to the current sink.
QLT_EXPORT void logLine(std::string_view line);
// For programming errors: logs `message`, writes it to standard error too (the sink may
// be gone or buffered), and aborts.
[[noreturn]] QLT_EXPORT void failLoudly(std::string_view message);

namespace detail {

template <class T>
concept HasDescription = requires(const T& t) {
  { t.description() } -> std::convertible_to<std::string>;
};

// One formatted argument: either a number or a text.
struct QLT_EXPORT LogArg {
  enum class Kind { Signed, Unsigned, Float, Text } kind;
  long long s = 0;
  unsigned long long u = 0;
  double f = 0;
  std::string text;

  static LogArg sig(long long v) { return {Kind::Signed, v, 0, 0, {}}; }
  static LogArg uns(unsigned long long v) { return {Kind::Unsigned, 0, v, 0, {}}; }
  static LogArg flt(double v) { return {Kind::Float, 0, 0, v, {}}; }
  static LogArg txt(std::string v) { return {Kind::Text, 0, 0, 0, std::move(v)}; }
};

template <class T>
LogArg toLogArg(const T& v) {
  using D = std::decay_t<T>;
  if constexpr (std::is_same_v<D, bool>) {
    return LogArg::sig(v ? 1 : 0);
  } else if constexpr (std::is_enum_v<D> || (std::is_integral_v<D> && std::is_signed_v<D>)) {
    return LogArg::sig(static_cast<long long>(v));
  } else if constexpr (std::is_integral_v<D>) {
    return LogArg::uns(static_cast<unsigned long long>(v));
  } else if constexpr (std::is_floating_point_v<D>) {
    return LogArg::flt(static_cast<double>(v));
  } else if constexpr (std::is_array_v<std::remove_cvref_t<T>> &&
                       std::is_convertible_v<const D&, std::string_view>) {  // never null
    return LogArg::txt(std::string(std::string_view(v)));
  } else if constexpr (std::is_convertible_v<const D&, std::string_view>) {
    if constexpr (std::is_pointer_v<D>) {
      return LogArg::txt(v ? std::string(v) : std::string("(null)"));
    } else {
      return LogArg::txt(std::string(std::string_view(v)));
    }
  } else if constexpr (HasDescription<D>) {
    return LogArg::txt(v.description());
  } else if constexpr (requires {
                         v.get();
                         *v;
                       }) {  // smart pointers
    if (!v) return LogArg::txt("(null)");
    return toLogArg(*v);
  } else if constexpr (requires {
                         v.has_value();
                         *v;
                       }) {  // optionals
    if (!v.has_value()) return LogArg::txt("(null)");
    return toLogArg(*v);
  } else if constexpr (std::is_pointer_v<D>) {
    return LogArg::uns(reinterpret_cast<uintptr_t>(v));
  } else {
    static_assert(sizeof(D) == 0, "QLTLog: this argument type cannot be formatted");
  }
}

QLT_EXPORT std::string formatLog(std::string_view format, const LogArg* args, size_t count);

}  // namespace detail

// Formats `format` with `args` and writes one line. See the header comment.
template <class... Args>
void QLTLog(std::string_view format, const Args&... args) {
  if constexpr (sizeof...(Args) == 0) {
    logLine(detail::formatLog(format, nullptr, 0));
  } else {
    const detail::LogArg a[] = {detail::toLogArg(args)...};
    logLine(detail::formatLog(format, a, sizeof...(Args)));
  }
}

// Only the formatting, for display strings and tests.
template <class... Args>
std::string formatString(std::string_view format, const Args&... args) {
  if constexpr (sizeof...(Args) == 0) {
    return detail::formatLog(format, nullptr, 0);
  } else {
    const detail::LogArg a[] = {detail::toLogArg(args)...};
    return detail::formatLog(format, a, sizeof...(Args));
  }
}

}  // namespace qlt
