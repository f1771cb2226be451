// bgpcommon demo: the redistribution flow across two processes, as a user runs it.
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/Shelf/ShelfTestSupport.h"
#include "tests/Support/RunTool.h"

namespace {

using testing_support::runTool;
using testing_support::TempRoot;

struct Pass {
  unsigned long long routes, found, deflt, notFound, tagOnly;
};

// The reader's count lines, one per pass.
std::vector<Pass> passesOf(const std::string& out) {
  static const std::regex line(
      R"(looked up (\d+) routes in [0-9.]+ ms \([0-9.]+ M lookups/s\): resultFound (\d+), resultDefault (\d+), )"
      R"(resultNotFound (\d+), resultTagOnly (\d+))");
  std::vector<Pass> passes;
  for (std::sregex_iterator it(out.begin(), out.end(), line), end; it != end; ++it) {
    const std::smatch& m = *it;
    passes.push_back({std::stoull(m[1]), std::stoull(m[2]), std::stoull(m[3]), std::stoull(m[4]), std::stoull(m[5])});
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
  std::vector<Pass> passes = passesOf(r.out);
  ASSERT_EQ(passes.size(), 3u) << r.out;
  for (const Pass& p : passes) {
    EXPECT_EQ(p.routes, 2000u);
    EXPECT_EQ(p.found + p.deflt + p.notFound + p.tagOnly, 2000u);
    EXPECT_EQ(p.notFound + p.tagOnly, 0u);
  }
  // One route in 25 matches no clause and carries no identifier.
  EXPECT_EQ(passes[0].found, 1920u);
  EXPECT_EQ(passes[0].deflt, 80u);
  // Released outcomes: their routes carry no identifier any more; then they are back.
  EXPECT_LT(passes[1].found, 1920u);
  EXPECT_EQ(passes[2].found, 1920u);

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

TEST(DemoCommand, ToggleOffMakesEveryLookupTagOnly) {
  auto r = runDemo("demo --routes 500", R"({"StaticRouteCommunities": false})");
  ASSERT_EQ(r.status, 0) << r.out;
  std::vector<Pass> passes = passesOf(r.out);
  ASSERT_EQ(passes.size(), 3u) << r.out;
  for (const Pass& p : passes) EXPECT_EQ(p.tagOnly, 500u);
}

TEST(DemoCommand, TablesStayUnderAGivenRootAndOptionsAreChecked) {
  TempRoot root;
  auto r = runDemo("demo --routes 100 --root " + root.path());
  ASSERT_EQ(r.status, 0) << r.out;
  // The tables stay, emptied of records as the routes let go of their results.
  EXPECT_NE(r.out.find("0 records left in the table"), std::string::npos) << r.out;
  struct stat st {};
  EXPECT_EQ(stat((root.path() + "/routing/rib/igpResultStatus/static").c_str(), &st), 0);
  EXPECT_EQ(stat((root.path() + "/routing/rib/filteredRtStatus/static").c_str(), &st), 0);

  EXPECT_NE(runTool("demo --routes 0").status, 0);
  EXPECT_NE(runTool("demo --routes 1000001").status, 0);

  auto values = runTool("demo --values");  // every configuration sample parses back equal
  EXPECT_EQ(values.status, 0);
  EXPECT_NE(values.out.find("parsed back equal: yes"), std::string::npos);
  EXPECT_EQ(values.out.find("parsed back equal: NO"), std::string::npos);
}

}  // namespace
