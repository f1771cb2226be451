#include "platform/Kelp/Time.h"

#include <gtest/gtest.h>

namespace {

// Local time is checked through the events-tracking reports, which print it under a fixed zone.
TEST(Time, CurrentTimeCanBeFrozen) {
  const Kelp::Seconds before = Kelp::currentTime();
  EXPECT_GT(before, 1.6e9);  // a wall clock, in seconds
  Kelp::currentTimeIs(1700000000.25);
  EXPECT_EQ(Kelp::currentTime(), 1700000000.25);
  Kelp::currentTimeDel();
  EXPECT_GE(Kelp::currentTime(), before);
}

}  // namespace
