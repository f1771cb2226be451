// The tool's --json output, read back as a program reading it would: with a JSON parser.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/Support/JsonCheck.h"
#include "tests/Support/RunTool.h"
#include "tools/ExitStatus.h"

namespace {

using nlohmann::json;
using testing_support::runTool;

TEST(JsonOutput, ValuesAndRouteTargetsParse) {
  const auto names = runTool("value list", true);
  const json types = json::parse(runTool("value list --json", true).out);
  ASSERT_EQ(types.size(), static_cast<std::size_t>(std::count(names.out.begin(), names.out.end(), '\n')));
  EXPECT_TRUE(std::find(types.begin(), types.end(), json{{"name", "Routing::Bgp::MaxRoutes"}, {"kind", "value"}}) !=
              types.end());

  const json v = json::parse(runTool("value parse --json Routing::Bgp::MaxRoutes \"Value('Routing::Bgp::MaxRoutes', "
                                     "** {'routes': 1000, 'warningThreshold': 800, 'warningOnly': True})\"")
                                 .out);
  EXPECT_EQ(v, json({{"routes", 1000}, {"warningThreshold", 800}, {"warningOnly", true}}));

  // Refused texts go to standard error; the array holds the others, each naming its text.
  const auto r = runTool("route-target --json --asdot 100:5 5: 1.4464:5", true);
  EXPECT_EQ(r.status, tools::exitFailure);
  const json rts = json::parse(r.out);
  ASSERT_EQ(rts.size(), 2u) << r.out;
  EXPECT_EQ(rts[0]["value"], "0x0002006400000005");
  EXPECT_EQ(rts[1], json({{"input", "1.4464:5"}, {"value", "0x0202000111700005"}, {"type", "fourOctetAs"},
                          {"subtype", "routeTarget"}, {"global", 70000}, {"local", 5}, {"text", "1.4464:5"}}));
}

// What the tool prints with --json, read as a reader holding numbers as doubles reads it, loses
// nothing: 64-bit values come as strings.
TEST(JsonOutput, ExactInADouble) {
  const char* commands[] = {
      "route-target --json 4294967295:65535 0xffffffffffffffff",
      "value tour --json",
      "demo --routes 100 --json",
      "value parse --json Routing::BgpRedistribute::FilteredRoute "
      "\"Value('Routing::BgpRedistribute::FilteredRoute', ** {'key': 2001:db8::/32, 'igpResultId': 4294967295})\"",
  };
  for (const char* command : commands) {
    const auto r = runTool(command, true);
    ASSERT_EQ(r.status, tools::exitOk) << command << r.err;
    EXPECT_EQ(testing_support::inexactInDouble(json::parse(r.out)), "") << command << ": " << r.out;
  }
}

}  // namespace
