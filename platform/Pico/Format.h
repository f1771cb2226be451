#pragma once
// The fmt-based trace, throw and assertion family.
//
//   PICO_FMTRACE(8, " {} new{} id {:#x}", static_cast<const void*>(this), name(), id);
//   Pico::fmthrow<Kelp::RangeException>("Shelf table full (occupancy:{} tableSize:{}) {}", n, cap, name);
//   PICO_FMASSERT(count <= 4, "community count {} above 4", count);
//
// Traces are off unless switched on, per level, by traceLevelIs() or by the environment variable
// BGPCOMMON_TRACE (a comma-separated list of levels, e.g. "8", read when the library is loaded).
// Level 8 is this library's operational trace. A disabled trace costs one load and one predictable
// branch; its arguments are not evaluated.

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "platform/Pico/Assert.h"

namespace Pico {

using String = std::string;

// Where a trace line was written from; rendered as its position prefix.
struct SourcePos {
  const char* file;
  unsigned line;
  const char* function;
};

namespace detail {
extern std::atomic<std::uint32_t> traceMask;
void emitTrace(const SourcePos& pos, int level, std::string_view message);
[[noreturn]] void fmassertFail(const char* expr, const SourcePos& pos, std::string_view message);
}  // namespace detail

// The trace level this library writes its operational traces at.
inline constexpr int kTraceLevelOperational = 8;

inline bool traceEnabled(int level) {
  return level >= 0 && level < 32 &&
         (detail::traceMask.load(std::memory_order_relaxed) & (1u << level)) != 0;
}
void traceLevelIs(int level, bool enabled);
// Receives each complete trace line (without the trailing newline). The default writes to stderr.
// Pass an empty function to restore the default.
void traceSinkIs(std::function<void(std::string_view)> sink);
// Re-reads BGPCOMMON_TRACE (done once at load; exposed for tests and long-lived processes).
void traceLevelsFromEnvironment();

// Formats and writes one trace line: "[level] file:line function:" followed by the message.
template <typename... Args>
void fmtrace(const SourcePos& pos, int level, fmt::format_string<Args...> format, Args&&... args) {
  if (!traceEnabled(level)) return;
  detail::emitTrace(pos, level, fmt::format(format, std::forward<Args>(args)...));
}

// Throws Exception constructed from the formatted message.
template <typename Exception, typename... Args>
[[noreturn]] void fmthrow(fmt::format_string<Args...> format, Args&&... args) {
  throw Exception(fmt::format(format, std::forward<Args>(args)...));
}

template <typename... Args>
[[noreturn]] void fmassertFail(const char* expr, const SourcePos& pos,
                               fmt::format_string<Args...> format, Args&&... args) {
  detail::fmassertFail(expr, pos, fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace Pico

#define PICO_SOURCE_POS() (::Pico::SourcePos{PICO_SOURCE_NAME(), __LINE__, __PRETTY_FUNCTION__})

#define PICO_FMTRACE(level, ...)                                       \
  do {                                                                 \
    if (::Pico::traceEnabled(level)) [[unlikely]]                      \
      ::Pico::fmtrace(PICO_SOURCE_POS(), (level), __VA_ARGS__);        \
  } while (0)

// Asserts like PICO_ASSERT; the report's expression text carries the formatted message too:
// "cond (message)".
#define PICO_FMASSERT(expr, ...)                                                 \
  (static_cast<bool>(expr) ? void(0)                                            \
                           : ::Pico::fmassertFail(#expr, PICO_SOURCE_POS(), __VA_ARGS__))
