#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/Pico/Format.h"

// The C library's assertion report. <assert.h> hides its declaration under NDEBUG; our assertion
// is always on, so it is declared here.
extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file, unsigned int line,
                                           const char* function) noexcept;

namespace Pico {

namespace detail {
std::atomic<std::uint32_t> traceMask{0};

namespace {
std::mutex& sinkMutex() {
  static std::mutex m;
  return m;
}
std::function<void(std::string_view)>& sink() {
  static std::function<void(std::string_view)> s;
  return s;
}
}  // namespace

void emitTrace(const SourcePos& pos, int level, std::string_view message) {
  std::string line = fmt::format("[{}] {}:{} {}:{}", level, pos.file, pos.line, pos.function, message);
  std::lock_guard<std::mutex> lock(sinkMutex());
  if (sink()) {
    sink()(line);
  } else {
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
}

void fmassertFail(const char* expr, const SourcePos& pos, std::string_view message) {
  std::string text = fmt::format("{} ({})", expr, message);
  assertFail(text.c_str(), pos.file, pos.line, pos.function);
}
}  // namespace detail

void assertFail(const char* expr, const char* file, unsigned line, const char* function) {
  __assert_fail(expr, file, line, function);
}

void traceLevelIs(int level, bool enabled) {
  if (level < 0 || level >= 32) return;
  if (enabled) {
    detail::traceMask.fetch_or(1u << level, std::memory_order_relaxed);
  } else {
    detail::traceMask.fetch_and(~(1u << level), std::memory_order_relaxed);
  }
}

void traceSinkIs(std::function<void(std::string_view)> s) {
  std::lock_guard<std::mutex> lock(detail::sinkMutex());
  detail::sink() = std::move(s);
}

void traceLevelsFromEnvironment() {
  const char* env = std::getenv("BGPCOMMON_TRACE");
  if (env == nullptr) return;
  std::uint32_t mask = 0;
  const char* p = env;
  while (*p != '\0') {
    char* end = nullptr;
    long level = std::strtol(p, &end, 10);
    if (end == p) {
      ++p;
      continue;
    }
    if (level >= 0 && level < 32) mask |= 1u << level;
    p = end;
  }
  detail::traceMask.store(mask, std::memory_order_relaxed);
}

namespace {
[[maybe_unused]] const bool traceInit = (traceLevelsFromEnvironment(), true);
}

}  // namespace Pico
