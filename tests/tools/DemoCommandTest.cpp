// bgpcommon demo: the redistribution flow across two processes, as a user runs it.
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/Shelf/ShelfTestSupport.h"
#include "tests/Support/RunTool.h"
#include "tools/ReaderReport.h"

namespace {

using testing_support::runTool;
using testing_support::TempRoot;

using RT = Routing::BgpRedistribute::IgpResultReturnType;

// The reader's reports as the demo relays them ("    | " before each of its lines), one per pass.
std::vector<tools::ReaderReport> passesOf(const std::string& out) {
  std::vector<tools::ReaderReport> passes;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("    | ", 0) != 0) continue;
    tools::ReaderReport pass;
    if (pass.absorb(line.substr(6)) && pass.counted) passes.push_back(pass);
  }
  return passes;
}

std::string match(const std::string& out, const char* pattern) {
  std::smatch m;
  return std::regex_search(out, m, std::regex(pattern)) ? m[1].str() : "(no match)";
}

// Runs the demo with the toggle directory set (a directory without a toggle file when empty).
testing_support::ToolResult runDemo(const std::string& args, const std::string& toggleJson = "") {
  TempRoot toggles;
  if (!toggleJson.empty()) std::ofstream(toggles.path() + "/Ira.json") << toggleJson;
  setenv("BGPCOMMON_TOGGLE_DIR", toggles.path().c_str(), 1);
  auto r = runTool(args);
  unsetenv("BGPCOMMON_TOGGLE_DIR");
  return r;
}

TEST(DemoCommand, RedistributesAcrossTwoProcesses) {
  auto r = runDemo("demo --routes 2000");
  ASSERT_EQ(r.status, 0) << r.out;
  std::vector<tools::ReaderReport> passes = passesOf(r.out);
  ASSERT_EQ(passes.size(), 3u) << r.out;
  for (const tools::ReaderReport& p : passes) {
    EXPECT_EQ(p.routes, 2000u);
    EXPECT_EQ(p.count(RT::resultFound) + p.count(RT::resultDefault), 2000u);
    EXPECT_EQ(p.count(RT::resultNotFound) + p.count(RT::resultTagOnly), 0u);
  }
  // One route in 25 matches no clause and carries no identifier.
  EXPECT_EQ(passes[0].count(RT::resultFound), 1920u);
  EXPECT_EQ(passes[0].count(RT::resultDefault), 80u);
  // Released outcomes: their routes carry no identifier any more; then they are back.
  EXPECT_LT(passes[1].count(RT::resultFound), 1920u);
  EXPECT_EQ(passes[2].count(RT::resultFound), 1920u);

  const std::string freed = match(r.out, R"(identifiers ([0-9,]+) freed)");
  EXPECT_EQ(match(r.out, R"(received identifiers ([0-9,]+): the freed ones)"), freed);
  EXPECT_EQ(std::count(freed.begin(), freed.end(), ','), 2) << freed;
  EXPECT_NE(r.out.find("agreed in 3 of 3 passes"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("MISMATCH"), std::string::npos);

  // Its temporary tables are gone.
  const std::string root = match(r.out, R"(Tables under (\S+) \(temporary\))");
  struct stat st {};
  EXPECT_NE(stat(root.c_str(), &st), 0) << root;
}

// A toggle file that turns static-route communities off makes every lookup tag-only; a given root
// keeps the tables, emptied of records as the routes let go of their results.
TEST(DemoCommand, ToggleOffAndAGivenRoot) {
  TempRoot root;
  auto r = runDemo("demo --routes 500 --root " + root.path(), R"({"StaticRouteCommunities": false})");
  ASSERT_EQ(r.status, 0) << r.out;
  std::vector<tools::ReaderReport> passes = passesOf(r.out);
  ASSERT_EQ(passes.size(), 3u) << r.out;
  for (const tools::ReaderReport& p : passes) EXPECT_EQ(p.count(RT::resultTagOnly), 500u);
  EXPECT_NE(r.out.find("0 records left in the table"), std::string::npos) << r.out;
  struct stat st {};
  EXPECT_EQ(stat((root.path() + "/routing/rib/igpResultStatus/static").c_str(), &st), 0);
  EXPECT_EQ(stat((root.path() + "/routing/rib/filteredRtStatus/static").c_str(), &st), 0);
  EXPECT_NE(runTool("demo --routes 0").status, 0);
  EXPECT_NE(runTool("demo --routes 1000001").status, 0);
}

}  // namespace
