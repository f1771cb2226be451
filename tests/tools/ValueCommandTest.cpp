#include <gtest/gtest.h>

#include "tests/Support/RunTool.h"

namespace {

using testing_support::runTool;

TEST(ValueCommand, ParsePrintsTheLongFormBack) {
  const std::string text =
      "Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': 800, 'warningOnly': True})";
  auto r = runTool("value parse Routing::Bgp::MaxRoutes \"" + text + "\"");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, text + "\n");
}

TEST(ValueCommand, BadTextAndUnknownTypeExitOne) {
  auto r = runTool("value parse Routing::Bgp::MaxRoutes \"Value('Routing::Bgp::MaxRoutes', ** {'routes': x\"");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "routes: expected an unsigned number at offset 47, found \"x\"\n");
  r = runTool("value parse No::Such x");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("unknown type 'No::Such'"), std::string::npos);
}

TEST(ValueCommand, ListNamesRegisteredTypes) {
  auto r = runTool("value list");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("Routing::Bgp::MaxRoutes\n"), std::string::npos);
  EXPECT_NE(r.out.find("Routing::OutDelayApplyType\n"), std::string::npos);
}

}  // namespace
