#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/Support/RunTool.h"
#include "tools/ExitStatus.h"

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
      {"\"$(printf 'No\033[2J\\\\')\" x", "unknown type \"No\\x1b[2J\\\\\" (see 'bgpcommon value list')"},
  };
  for (const auto& [args, line] : cases) {
    auto r = runTool("value parse " + args);
    EXPECT_EQ(r.status, line == text ? tools::exitOk : tools::exitFailure) << args;
    EXPECT_EQ(r.out, line + "\n") << args;
  }
}

TEST(ValueCommand, TourParsesEverySampleBack) {
  auto r = runTool("value tour --json", true);
  EXPECT_EQ(r.status, tools::exitOk);
  const nlohmann::json tour = nlohmann::json::parse(r.out);
  ASSERT_EQ(tour["values"].size(), 4u) << r.out;
  for (const auto& v : tour["values"]) EXPECT_TRUE(v["parsedBackEqual"].get<bool>()) << v;
}

}  // namespace
