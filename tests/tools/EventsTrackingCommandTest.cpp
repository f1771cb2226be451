#include <gtest/gtest.h>

#include "tests/Support/RunTool.h"

namespace {

using testing_support::runTool;

std::size_t count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST(EventsTrackingCommand, DemoPrintsBothReports) {
  auto r = runTool("events-tracking demo --vrfs 2 --ribouts 3 --paths 1000 --advertise-threshold 300 400");
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out.find("$ show bgp instance internal events tracking start advertise-threshold 300 400\n"
                       "Starting BGP Events Tracking\n"),
            0u);
  EXPECT_NE(r.out.find("BGP Events Tracking Summary:\nTotal paths in BGP RIB changed from 0 to 1000\n"
                       "\nNumber of Vrfs that processed events: \t 2\n"),
            std::string::npos);
  EXPECT_NE(r.out.find("\nNumber of RibOuts that processed events: \t 2\n"), std::string::npos);
  EXPECT_EQ(count(r.out, "RIB processing time to reach 300 paths threshold:\t "), 3u);      // summary + 2 VRFs
  EXPECT_EQ(count(r.out, "RibOut processing time to reach 400 paths threshold:\t "), 7u);  // summary + 6
  // Each VRF gets half of the paths, and each of its RibOuts advertises all of them.
  EXPECT_EQ(count(r.out, "  Number of paths processed:\t 500\n"), 6u);
  std::size_t at = r.out.find("BGP Events Tracking Detail:");
  for (const char* line : {"\nVrf Name : \t default\n", "\nRibOut Id : \t 1\n", "\nRibOut Id : \t 3\n",
                           "\nVrf Name : \t vrf-1\n", "\nRibOut Id : \t 101\n", "\nRibOut Id : \t 103\n"}) {
    std::size_t next = r.out.find(line, at);
    EXPECT_NE(next, std::string::npos) << line;
    at = next;
  }
  EXPECT_NE(r.out.find("Stopping BGP Events Tracking\n"), std::string::npos);
}

TEST(EventsTrackingCommand, BadOptionsAreRefused) {
  EXPECT_NE(runTool("events-tracking demo --vrfs 0").status, 0);
  EXPECT_NE(runTool("events-tracking demo --advertise-threshold 5").status, 0);
}

}  // namespace
