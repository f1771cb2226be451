// The route-target subcommand, run as the shell runs it.
#include <gtest/gtest.h>

#include "tests/Support/RunTool.h"
#include "tools/ExitStatus.h"

namespace {

testing_support::ToolResult routeTarget(const std::string& args) {
  return testing_support::runTool("route-target " + args, true);
}

TEST(RouteTargetCommand, ShowsEachTextOnOneLine) {
  auto r = routeTarget("100:5 1.4464:5 10.0.0.1:7 100L:5 0x0003020000000001");
  EXPECT_EQ(r.status, tools::exitOk);
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

}  // namespace
