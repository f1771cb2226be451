#include "platform/Kelp/Time.h"

#include <atomic>
#include <ctime>

namespace Kelp {

namespace {
std::atomic<bool> frozen{false};
std::atomic<Seconds> frozenAt{0.0};
}  // namespace

Seconds currentTime() {
  if (frozen.load(std::memory_order_acquire)) return frozenAt.load(std::memory_order_relaxed);
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<Seconds>(ts.tv_sec) + static_cast<Seconds>(ts.tv_nsec) * 1e-9;
}

void currentTimeIs(Seconds now) {
  frozenAt.store(now, std::memory_order_relaxed);
  frozen.store(true, std::memory_order_release);
}

void currentTimeDel() { frozen.store(false, std::memory_order_release); }

LocalTime localTime(std::int64_t t) {
  std::time_t tt = static_cast<std::time_t>(t);
  std::tm tm{};
  localtime_r(&tt, &tm);
  return LocalTime{tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
}

}  // namespace Kelp
