// The shared-memory table commands (igp-results, filtered-routes) as an operator runs them against
// tables a writer in this process fills.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <sstream>

#include "BgpCommon/FilteredRtStatus.h"
#include "tests/Shelf/ShelfTestSupport.h"
#include "tests/Support/RunTool.h"

namespace {

using namespace Routing::BgpRedistribute;
using testing_support::versionedRecord;

std::string fileText(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Started with neither --timeout nor --count, watch follows the table until SIGINT ends it: exit
// 0, and every change it saw printed, down to a whole last line.
TEST(TableCommands, WatchRunsUntilInterrupted) {
  testing_support::TempRoot root;
  auto status =
      IgpResultStatus::createIgpResultStatusWriter("t", Kelp::makePtr<KelpSharedMem::EntityManager>(root.path()), 64);
  status->resultIs(versionedRecord(1, 1));
  const std::string out = ::testing::TempDir() + "bgpcommon-watch-interrupted.txt";
  const pid_t pid = testing_support::startTool("igp-results watch t --json --root " + root.path(), out);
  ASSERT_GT(pid, 0);
  std::string expected = "{\"event\":\"resync\",\"count\":1}\n";
  // Each change is made once the one before it was printed, so that each line shows the value its
  // change stored (watch prints the value a key holds when it hears of the change).
  auto untilPrinted = [&](std::uint32_t key, const std::string& result) {
    if (key != 0) expected += "{\"event\":\"result\",\"key\":" + std::to_string(key) + ",\"result\":" + result + "}\n";
    for (int i = 0; i < 3000 && fileText(out).size() < expected.size(); ++i) usleep(10'000);
  };
  untilPrinted(0, "");
  for (std::uint32_t v : {1, 2}) {
    for (std::uint32_t key : {2, 3}) {
      status->resultIs(versionedRecord(key, v));
      untilPrinted(key, Kelp::valueToJson(versionedRecord(key, v)));
    }
  }
  status->resultDel(IgpResultId(1));
  untilPrinted(1, "null");
  kill(pid, SIGINT);
  EXPECT_EQ(testing_support::waitTool(pid), 0);
  EXPECT_EQ(fileText(out), expected);
  std::remove(out.c_str());
}

}  // namespace
