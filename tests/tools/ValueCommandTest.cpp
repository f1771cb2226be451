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
  EXPECT_EQ(r.out, "TEXT is not a Routing::Bgp::MaxRoutes: routes: expected an unsigned number at offset 47, found \"x\"\n");
  // An unknown name is shown escaped, as parse errors show text: no control byte reaches the terminal.
  const std::pair<const char*, const char*> unknown[] = {
      {"No::Such", "unknown type \"No::Such\""},
      {"\"$(printf 'No\033[2J\\\\')\"", "unknown type \"No\\x1b[2J\\\\\""},
  };
  for (const auto& [arg, message] : unknown) {
    r = runTool(std::string("value parse ") + arg + " x");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, std::string(message) + " (see 'bgpcommon value list')\n") << arg;
  }
}

TEST(ValueCommand, ListNamesRegisteredTypes) {
  auto r = runTool("value list");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("Routing::Bgp::MaxRoutes\n"), std::string::npos);
  EXPECT_NE(r.out.find("Routing::OutDelayApplyType\n"), std::string::npos);
}

}  // namespace
