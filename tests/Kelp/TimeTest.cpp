#include "platform/Kelp/Time.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

namespace {

TEST(Time, CurrentTimeCanBeFrozen) {
  const Kelp::Seconds before = Kelp::currentTime();
  EXPECT_GT(before, 1.6e9);  // a wall clock, in seconds
  Kelp::currentTimeIs(1700000000.25);
  EXPECT_EQ(Kelp::currentTime(), 1700000000.25);
  Kelp::currentTimeDel();
  EXPECT_GE(Kelp::currentTime(), before);
}

TEST(Time, LocalTimeFollowsTheTimeZone) {
  const char* old = std::getenv("TZ");
  std::string saved = old != nullptr ? old : "";
  setenv("TZ", "UTC0", 1);
  tzset();
  Kelp::LocalTime utc = Kelp::localTime(1700000000);
  setenv("TZ", "XYZ+5", 1);  // five hours west of UTC
  tzset();
  Kelp::LocalTime west = Kelp::localTime(1700000000);
  if (old != nullptr) setenv("TZ", saved.c_str(), 1);
  else unsetenv("TZ");
  tzset();
  EXPECT_EQ(utc.year, 2023);
  EXPECT_EQ(utc.month, 11);
  EXPECT_EQ(utc.day, 14);
  EXPECT_EQ(utc.hour, 22);
  EXPECT_EQ(utc.minute, 13);
  EXPECT_EQ(utc.second, 20);
  EXPECT_EQ(west.hour, 17);
  EXPECT_EQ(west.day, 14);
}

}  // namespace
