#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "bgpcommon/version.h"

#include "tests/Support/RunTool.h"
#include "tools/ExitStatus.h"

namespace {

using testing_support::runTool;

std::size_t count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// Both reports as text, and as one JSON object: each VRF gets half of the paths, and each of its
// RibOuts advertises all of them.
TEST(EventsTrackingCommand, DemoPrintsBothReports) {
  const std::string args = "events-tracking demo --vrfs 2 --ribouts 3 --paths 1000 --advertise-threshold 300 400";
  auto r = runTool(args);
  ASSERT_EQ(r.status, tools::exitOk) << r.out;
  EXPECT_EQ(r.out.find("$ show bgp instance internal events tracking start advertise-threshold 300 400\n"
                       "Starting BGP Events Tracking\n"),
            0u);
  EXPECT_NE(r.out.find("BGP Events Tracking Summary:\nTotal paths in BGP RIB changed from 0 to 1000\n"
                       "\nNumber of Vrfs that processed events: \t 2\n"),
            std::string::npos);
  EXPECT_NE(r.out.find("\nNumber of RibOuts that processed events: \t 2\n"), std::string::npos);
  EXPECT_EQ(count(r.out, "RIB processing time to reach 300 paths threshold:\t "), 3u);      // summary + 2 VRFs
  EXPECT_EQ(count(r.out, "RibOut processing time to reach 400 paths threshold:\t "), 7u);  // summary + 6
  EXPECT_EQ(count(r.out, "  Number of paths processed:\t 500\n"), 6u);
  std::size_t at = r.out.find("BGP Events Tracking Detail:");
  for (const char* line : {"\nVrf Name : \t default\n", "\nRibOut Id : \t 1\n", "\nRibOut Id : \t 3\n",
                           "\nVrf Name : \t vrf-1\n", "\nRibOut Id : \t 101\n", "\nRibOut Id : \t 103\n"}) {
    at = r.out.find(line, at);
    ASSERT_NE(at, std::string::npos) << line;
  }
  EXPECT_NE(r.out.find("Stopping BGP Events Tracking\n"), std::string::npos);

  auto j = runTool(args + " --json", true);
  ASSERT_EQ(j.status, tools::exitOk) << j.out;
  // What the text does not show: the RibOut count, and that every VRF reached its RIB threshold.
  const nlohmann::json report = nlohmann::json::parse(j.out);
  EXPECT_EQ(report["pathsAfter"], 1000);
  EXPECT_EQ(report["summary"]["ribOuts"], 6);
  ASSERT_EQ(report["vrfs"].size(), 2u);
  for (const auto& vrf : report["vrfs"]) EXPECT_FALSE(vrf["rib"]["thresholdReached"].is_null());
  EXPECT_EQ(report["vrfs"][1]["ribOuts"][2]["ribOutId"], 103);
  EXPECT_EQ(report["vrfs"][1]["ribOuts"][2]["paths"], 500);
}

// The run with no options: threshold times are shown, and in each VRF the first update message
// comes no later than the RIB's first event (workers interleave, so a few runs are looked at).
TEST(EventsTrackingCommand, DefaultRunShowsThresholdsAndKeepsTheOrder) {
  const std::string update = "First update message received at: \t ", rib = "First event processed by RIB at:\t ";
  for (int run = 0; run < 3; ++run) {
    auto r = runTool("events-tracking demo");
    ASSERT_EQ(r.status, tools::exitOk) << r.out;
    EXPECT_EQ(count(r.out, "RIB processing time to reach 3333 paths threshold:\t "), 4u);      // summary + 3 VRFs
    EXPECT_EQ(count(r.out, "RibOut processing time to reach 3333 paths threshold:\t "), 7u);  // summary + 6
    for (std::size_t at = r.out.find("\nVrf Name : "); at != std::string::npos; at = r.out.find("\nVrf Name : ", at + 1)) {
      const std::size_t u = r.out.find(update, at) + update.size(), e = r.out.find(rib, at) + rib.size();
      EXPECT_LE(r.out.substr(u, 23), r.out.substr(e, 23)) << r.out.substr(at, 200);
    }
  }
}

// Every bad command line exits 2 (usage), whichever subcommand it reaches; help exits 0, says how
// the thresholds count and lists every exit status.
TEST(EventsTrackingCommand, BadCommandLinesExitTwo) {
  for (const char* args : {"events-tracking demo --vrfs 0", "events-tracking demo --advertise-threshold 5",
                           "events-tracking demo --paths x", "events-tracking", "value parse", "route-target",
                           "route-target --bogus 1:1", "igp-results show", "igp-results write t --size 0",
                           "value parse --json -a Routing::Bgp::MaxRoutes 1", "demo --routes x", "demo --routes 0",
                           "demo --routes 1000001", "no-such-command", ""}) {
    EXPECT_EQ(runTool(args).status, tools::exitUsage) << args;
  }
  auto help = runTool("events-tracking demo --help");
  EXPECT_EQ(help.status, tools::exitOk);
  EXPECT_NE(help.out.find("per VRF and per RibOut"), std::string::npos) << help.out;
  const auto top = runTool("--help");
  EXPECT_EQ(top.status, tools::exitOk);
  EXPECT_NE(top.out.find("Usage: bgpcommon "), std::string::npos);
  EXPECT_NE(top.out.find("BGPCOMMON_SHM_ROOT"), std::string::npos);
  for (const auto& e : tools::kExitStatuses) {
    EXPECT_NE(top.out.find("\n  " + std::to_string(e.status) + "  " + e.text), std::string::npos) << e.status;
  }
  EXPECT_EQ(runTool("--version").out, std::string("bgpcommon ") + BGPCOMMON_VERSION + "\n");
}

}  // namespace
