// bgpcommon demo: the redistribution flow across two processes, as a user runs it, read through
// its --json summary.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/Shelf/TempRoot.h"
#include "tests/Support/RunTool.h"
#include "tools/ExitStatus.h"

namespace {

using nlohmann::json;
using testing_support::runTool;
using Shelf::TempRoot;

// Runs the demo with the toggle directory set (a directory without a toggle file when empty) and
// returns its summary.
json runDemo(const std::string& args, const std::string& toggleJson = "") {
  TempRoot toggles;
  if (!toggleJson.empty()) std::ofstream(toggles.path() + "/Ira.json") << toggleJson;
  setenv("BGPCOMMON_TOGGLE_DIR", toggles.path().c_str(), 1);
  auto r = runTool(args + " --json", true);
  unsetenv("BGPCOMMON_TOGGLE_DIR");
  EXPECT_EQ(r.status, tools::exitOk) << r.err;
  return json::parse(r.out, nullptr, false);
}

// The reader's passes: found, default, not found, tag only.
std::vector<std::array<int, 4>> passes(const json& summary) {
  std::vector<std::array<int, 4>> out;
  for (const json& p : summary["passes"]) {
    EXPECT_TRUE(p["agreed"].get<bool>()) << p;
    out.push_back({p["resultFound"], p["resultDefault"], p["resultNotFound"], p["resultTagOnly"]});
  }
  return out;
}

TEST(DemoCommand, RedistributesAcrossTwoProcesses) {
  const json s = runDemo("demo --routes 2000");
  // One route in 25 matches no clause and carries no identifier; released outcomes' routes carry
  // none either, until new outcomes take the freed identifiers.
  const auto p = passes(s);
  ASSERT_EQ(p.size(), 3u) << s;
  EXPECT_EQ(p[0], (std::array<int, 4>{1920, 80, 0, 0}));
  EXPECT_LT(p[1][0], 1920);
  EXPECT_EQ(p[1][0] + p[1][1], 2000);
  EXPECT_EQ(p[2], p[0]);
  EXPECT_EQ(s["freed"].size(), 3u);
  EXPECT_TRUE(s["freedReused"].get<bool>());
  // Its temporary tables are gone.
  struct stat st {};
  EXPECT_TRUE(s["temporary"].get<bool>());
  EXPECT_NE(stat(s["root"].get<std::string>().c_str(), &st), 0) << s["root"];
}

// A toggle file that turns static-route communities off makes every lookup tag-only; a given root
// keeps the tables, emptied of records as the routes let go of their results.
TEST(DemoCommand, ToggleOffAndAGivenRoot) {
  TempRoot root;
  const json s = runDemo("demo --routes 500 --root " + root.path(), R"({"StaticRouteCommunities": false})");
  for (const auto& p : passes(s)) EXPECT_EQ(p, (std::array<int, 4>{0, 0, 0, 500}));
  const auto shown = runTool("igp-results show static --root " + root.path());
  EXPECT_EQ(shown.out, "no records: the table is empty\n");
  struct stat st {};
  EXPECT_EQ(stat((root.path() + "/routing/rib/filteredRtStatus/static").c_str(), &st), 0);
}

// --rib: the routes are the distinct prefixes of a real table, each looked up by the reader.
TEST(DemoCommand, OnThePrefixesOfARibDump) {
  const std::string file = "/usr/lib/python3/dist-packages/data/rib.20140523.0600_firstMB.bz2";
  FILE* p = popen(("bgpdump -m " + file + " 2>/dev/null | cut -d'|' -f6 | sort -u | wc -l").c_str(), "r");
  int prefixes = 0;
  if (p == nullptr || std::fscanf(p, "%d", &prefixes) != 1) prefixes = 0;
  if (p != nullptr) pclose(p);
  ASSERT_GT(prefixes, 1000) << "bgpdump and python3-pyasn come from scripts/setup";
  const json s = runDemo("demo --rib " + file);
  EXPECT_EQ(s["routes"], prefixes);
  EXPECT_EQ(s["rib"], file);
  const auto p0 = passes(s);
  ASSERT_EQ(p0.size(), 3u) << s;
  EXPECT_EQ(p0[0], (std::array<int, 4>{prefixes - prefixes / 25, prefixes / 25, 0, 0}));
  EXPECT_EQ(runDemo("demo --routes 500 --rib " + file)["routes"], 500);
}

}  // namespace
