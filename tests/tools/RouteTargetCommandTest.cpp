// The route-target subcommand, run as the shell runs it.
#include <gtest/gtest.h>

#include "tests/Support/RunTool.h"

namespace {

testing_support::ToolResult routeTarget(const std::string& args) {
  return testing_support::runTool("route-target " + args, true);
}

TEST(RouteTargetCommand, ShowsEachTextOnOneLine) {
  auto r = routeTarget("100:5 1.4464:5 10.0.0.1:7 100L:5 0x0003020000000001");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out,
            "0x0002006400000005 twoOctetAs routeTarget global=100 local=5 100:5\n"
            "0x0202000111700005 fourOctetAs routeTarget global=70000 local=5 70000:5\n"
            "0x01020a0000010007 ipv4Address routeTarget global=167772161 local=7 10.0.0.1:7\n"
            "0x0202000000640005 fourOctetAs routeTarget global=100 local=5 100L:5\n"
            "0x0003020000000001 twoOctetAs invalidSubtype global=512 local=1 0x0003020000000001\n");
  EXPECT_EQ(routeTarget("--asdot 70000:5").out,
            "0x0202000111700005 fourOctetAs routeTarget global=70000 local=5 1.4464:5\n");
}

TEST(RouteTargetCommand, BadTextsFailWithTheirMessages) {
  // Each refusal names the text at fault (escaped).
  auto r = routeTarget("5: 100:1 1.2.3:4 zz0000000000000000 0xzz \"$(printf '\\033')\"");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "0x0002006400000001 twoOctetAs routeTarget global=100 local=1 100:1\n");
  EXPECT_EQ(r.err,
            "\"5:\": RouteTarget: no data after colon\n"
            "\"1.2.3:4\": RouteTarget: unexpected number of dots\n"
            "\"zz0000000000000000\": RouteTarget: not 0x and 16 hex digits\n"
            "\"0xzz\": RouteTarget: incorrect hex size\n"
            "\"\\x1b\": RouteTarget: incorrect hex size\n");

  // Texts the library accepts but would store as another route target are refused, saying what
  // would be stored; the largest numbers each form holds still pass.
  r = routeTarget("100:4294967296 65536.0:1 1.65536:1 100:4294967295 65535.65535:65535");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out,
            "0x00020064ffffffff twoOctetAs routeTarget global=100 local=4294967295 100:4294967295\n"
            "0x0202ffffffffffff fourOctetAs routeTarget global=4294967295 local=65535 4294967295:65535\n");
  EXPECT_EQ(r.err,
            "\"100:4294967296\": local administrator out of range; the library would store 100:0\n"
            "\"65536.0:1\": half of the dotted AS number out of range; the library would store 0L:1\n"
            "\"1.65536:1\": half of the dotted AS number out of range; the library would store 65536:1\n");
}

}  // namespace
