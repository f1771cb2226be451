#include <gtest/gtest.h>

#include "tests/Support/RunTool.h"

namespace {

using testing_support::runTool;

// A text parses and prints back in the long form; a bad text or an unknown type exits 1 with its
// message, the name shown escaped as parse errors show text (no control byte reaches the terminal).
TEST(ValueCommand, ParsePrintsTheLongFormBackOrSaysWhyNot) {
  const std::string text =
      "Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': 800, 'warningOnly': True})";
  const std::pair<std::string, std::string> cases[] = {
      {"Routing::Bgp::MaxRoutes \"" + text + "\"", text},
      {"Routing::Bgp::MaxRoutes \"Value('Routing::Bgp::MaxRoutes', ** {'routes': x\"",
       "TEXT is not a Routing::Bgp::MaxRoutes: routes: expected an unsigned number at offset 47, found \"x\""},
      {"No::Such x", "unknown type \"No::Such\" (see 'bgpcommon value list')"},
      {"\"$(printf 'No\033[2J\\\\')\" x", "unknown type \"No\\x1b[2J\\\\\" (see 'bgpcommon value list')"},
  };
  for (const auto& [args, line] : cases) {
    auto r = runTool("value parse " + args);
    EXPECT_EQ(r.status, line == text ? 0 : 1) << args;
    EXPECT_EQ(r.out, line + "\n") << args;
  }
}

TEST(ValueCommand, TourParsesEverySampleBack) {
  auto r = runTool("value tour");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("parsed back equal: yes"), std::string::npos);
  EXPECT_EQ(r.out.find("parsed back equal: NO"), std::string::npos);
}

}  // namespace
