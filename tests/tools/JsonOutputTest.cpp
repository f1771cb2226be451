// The tool's --json output, read back as a program reading it would: with a JSON parser.
#include <atomic>
#include <chrono>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "BgpCommon/FilteredRtStatus.h"
#include "tests/Shelf/ShelfTestSupport.h"
#include "tests/Support/JsonCheck.h"
#include "tests/Support/RunTool.h"

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
  EXPECT_EQ(r.status, 1);
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
      "value parse --json Routing::BgpRedistribute::FilteredRoute "
      "\"Value('Routing::BgpRedistribute::FilteredRoute', ** {'key': 2001:db8::/32, 'igpResultId': 4294967295})\"",
  };
  for (const char* command : commands) {
    const auto r = runTool(command, true);
    ASSERT_EQ(r.status, 0) << command << r.err;
    EXPECT_EQ(testing_support::inexactInDouble(json::parse(r.out)), "") << command << ": " << r.out;
  }
}

// watch --json: a line per change, each a whole object; a record deleted shows as null. A watch
// that runs out of time before --count changes exits 3, one that never found its table 1.
TEST(JsonOutput, WatchPrintsOneObjectPerChange) {
  using namespace Routing::BgpRedistribute;
  testing_support::TempRoot root;
  const std::string at = " --root " + root.path();
  const auto none = runTool("igp-results watch none --timeout 0.2" + at, true);  // no table ever
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.err, "no table at " + root.path() + "/routing/rib/igpResultStatus/none yet: waiting for a writer\n"
                      "no table appeared at " + root.path() + "/routing/rib/igpResultStatus/none within --timeout\n");

  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto status = IgpResultStatus::createIgpResultStatusWriter("live", em, 64);
  status->resultIs(testing_support::versionedRecord(1, 1));
  std::atomic<bool> done = false;
  testing_support::ToolResult watch;
  std::thread watcher([&] {
    watch = runTool("igp-results watch live --json --count 6 --timeout 20" + at, true);
    done = true;
  });
  for (std::uint32_t v = 2; !done; ++v) {
    status->resultIs(testing_support::versionedRecord(2, v));
    status->resultDel(IgpResultId(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  watcher.join();
  ASSERT_EQ(watch.status, 0) << watch.out << watch.err;
  // The writer stays, the changes stop: fewer than --count arrive in time.
  EXPECT_EQ(runTool("igp-results watch live --count 5 --timeout 0.3" + at).status, 3);
  std::istringstream lines(watch.out);
  std::vector<json> events;
  for (std::string line; std::getline(lines, line);) events.push_back(json::parse(line));
  ASSERT_GE(events.size(), 6u);
  EXPECT_EQ(events[0], json({{"event", "resync"}, {"count", events[0]["count"]}}));
  std::size_t deleted = 0;
  for (std::size_t i = 1; i < events.size(); ++i) {
    if (events[i]["event"] == "writer") continue;
    ASSERT_EQ(events[i]["event"], "result") << events[i];
    EXPECT_EQ(events[i]["key"], 2);
    if (events[i]["result"].is_null()) {
      ++deleted;
    } else {
      EXPECT_EQ(events[i]["result"]["key"], 2);
    }
  }
  EXPECT_GT(deleted, 0u) << watch.out;
}

}  // namespace
