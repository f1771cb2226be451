#include <gtest/gtest.h>

#include "platform/Pico/Format.h"

namespace {

static_assert(std::string_view(Pico::sourceName("/a/b/BgpCommon/RouteTarget.cpp").data()) == "BgpCommon/RouteTarget");
static_assert(std::string_view(Pico::sourceName("/x/platform/Kelp/Ptr.h").data()) == "Kelp/Ptr");
static_assert(std::string_view(Pico::sourceName("/x/BgpCommon/sub/BgpCommon/A.b.cpp").data()) == "BgpCommon/A.b");

int checkedDivide(int a, int b) {
  PICO_ASSERT(b != 0);
  return a / b;
}

TEST(PicoAssertDeathTest, ReportsExpressionSourceAndFunction) {
  EXPECT_EQ(checkedDivide(6, 3), 2);
  // glibc: "prog: file:line: function: Assertion `expr' failed."
  EXPECT_DEATH(checkedDivide(1, 0),
               "tests/Pico/AssertTraceTest:[0-9]+: int .*checkedDivide\\(int, int\\): Assertion `b != 0' failed");
  EXPECT_DEATH(PICO_FMASSERT(1 + 1 == 3, "arithmetic is {}", "broken"),
               "Assertion `1 \\+ 1 == 3 \\(arithmetic is broken\\)' failed");
}

TEST(PicoTrace, OffByDefaultOnPerLevelWithPositionPrefix) {
  std::vector<std::string> lines;
  Pico::traceSinkIs([&](std::string_view l) { lines.emplace_back(l); });
  int evaluated = 0;
  auto arg = [&] { return ++evaluated; };
  Pico::traceLevelIs(8, false);
  PICO_FMTRACE(8, " value {}", arg());
  EXPECT_TRUE(lines.empty() && evaluated == 0);  // arguments of a disabled trace are not evaluated

  Pico::traceLevelIs(8, true);
  PICO_FMTRACE(8, " value {:#x}", 255);
  PICO_FMTRACE(7, " other level");
  Pico::traceLevelIs(8, false);
  Pico::traceSinkIs(nullptr);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines[0].starts_with("[8] tests/Pico/AssertTraceTest:") &&
              lines[0].ends_with("OffByDefaultOnPerLevelWithPositionPrefix_Test::TestBody(): value 0xff"))
      << lines[0];
}

// The environment selects the levels; switching one off leaves the others as they were.
TEST(PicoTrace, EnvironmentSelectsLevels) {
  setenv("BGPCOMMON_TRACE", "3,8", 1);
  Pico::traceLevelsFromEnvironment();
  EXPECT_TRUE(Pico::traceEnabled(8) && Pico::traceEnabled(3) && !Pico::traceEnabled(4));
  Pico::traceLevelIs(8, false);
  EXPECT_TRUE(!Pico::traceEnabled(8) && Pico::traceEnabled(3));
  setenv("BGPCOMMON_TRACE", "", 1);
  Pico::traceLevelsFromEnvironment();
  EXPECT_FALSE(Pico::traceEnabled(8));
  unsetenv("BGPCOMMON_TRACE");
}

}  // namespace
