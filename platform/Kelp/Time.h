#pragma once
// Time in the framework: Kelp::Seconds and the current time.
//
// Kelp::Seconds is a double holding seconds since 1970-01-01 00:00:00 UTC, with the fraction
// below the second; time stamps that may be unset use 0.0 for "never". currentTime() is the
// wall clock (CLOCK_REALTIME) unless a test froze it with currentTimeIs(), so that durations up
// to "now" come out the same on every run:
//
//   Kelp::currentTimeIs(1700000000.5);   // now is fixed
//   ...
//   Kelp::currentTimeDel();              // back to the wall clock
//
// localTime() breaks a time down in the process's time zone (TZ, as tzset() read it).

#include <cstdint>

namespace Kelp {

using Seconds = double;

// Now, in seconds since the epoch (UTC).
Seconds currentTime();
// Freezes currentTime() at `now` (any thread may read it meanwhile).
void currentTimeIs(Seconds now);
// Returns currentTime() to the wall clock.
void currentTimeDel();

struct LocalTime {
  int year;    // e.g. 2024
  int month;   // 1..12
  int day;     // day of the month, 1..31
  int hour;    // 0..23
  int minute;  // 0..59
  int second;  // 0..60
};
// `t`'s whole seconds since the epoch broken down in local time.
LocalTime localTime(std::int64_t t);

}  // namespace Kelp
