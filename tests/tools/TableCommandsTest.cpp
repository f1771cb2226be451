// The shared-memory table commands (igp-results, filtered-routes) as an operator runs them against
// tables a writer in this process fills.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include <fmt/format.h>

#include "BgpCommon/FilteredRtStatus.h"
#include "platform/Shelf/TempRoot.h"
#include "tests/Support/PolicyResults.h"
#include "tests/Support/RunTool.h"
#include "tools/ExitStatus.h"

namespace {

using tools::exitFailure;
using tools::exitOk;
using tools::exitTimedOut;

using namespace Routing::BgpRedistribute;
using nlohmann::json;
using testing_support::runTool;
using testing_support::versionedRecord;

std::string fileText(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Each row a command, its exit status, what it prints and what it says on standard error.
TEST(TableCommands, ListShowAndWatchCurrent) {
  Shelf::TempRoot root;
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto results = IgpResultStatus::createIgpResultStatusWriter("vrf1", em, 64);
  auto empty = IgpResultStatus::createIgpResultStatusWriter("empty", em, 8);
  IgpResult a{IgpResultId(7)}, b{IgpResultId(12)};
  a.preference = 110, a.metric.valueIs(20), a.tag = 5, a.isisLevel = Routing::Isis::Level::level2;
  a.communityIs(CommunityIndex(0), 65000u << 16 | 1), a.communityIs(CommunityIndex(1), 65000u << 16 | 2);
  results->resultIs(b), results->resultIs(a);
  const std::string routesPath = "routing/rib/filteredRtStatus/static";
  em->mount(routesPath, FilteredRtStatus::kTypeName, {KelpSharedMem::MountMode::writer, {{"filteredRoute", 16}}});
  auto routes = Kelp::ptrDynamicCast<FilteredRtStatus>(em->entity(routesPath));
  routes->filteredRouteIs(FilteredRoute(Netzo::IpGenPrefix::fromString("2001:db8::/32"), IgpResultId(12)));
  routes->filteredRouteIs(FilteredRoute(Netzo::IpGenPrefix::fromString("10.0.1.0/24"), IgpResultId(7)));
  const std::string header =
      "key  preference  ospfBitDn  ospfv3BitDn  metric  isisLevel   ospfMetricType  ospfDomainId  ospfRouteType  "
      "tag  community\n";
  const std::string rowA =
      "7    110         false      false        20      level2      typeUnset       0             0"
      "              5    65000:1,65000:2\n";
  const std::string rowB =
      "12   0           false      false        -       levelUnset  typeUnset       0             0"
      "              0    -\n";
  // A file at a table's path that is not a table: named once, as refused, and not waited on.
  std::ofstream(root.path() + "/routing/rib/igpResultStatus/junk") << "hello\n";
  const std::string junk = "refused: Shelf " + root.path() +
                           "/routing/rib/igpResultStatus/junk: file of 6 bytes is too short to hold a table\n";
  const std::tuple<std::string, int, std::string, std::string> rows[] = {
      {"igp-results show vrf1", exitOk, header + rowA + rowB + "2 records\n", ""},
      {"igp-results show vrf1 12 99", exitFailure, header + rowB + "1 record\n", "no record with key 99\n"},
      {"igp-results show empty", exitOk, "no records: the table is empty\n", ""},
      {"filtered-routes show static 10.0.1.0/24", exitOk, "key          igpResultId\n10.0.1.0/24  7\n1 record\n", ""},
      {"igp-results watch vrf1 --current --count 3", exitOk,
       "resync 2\n7 " + Kelp::valueToStrep(a) + "\n12 " + Kelp::valueToStrep(b) + "\n", ""},
      {"filtered-routes watch static --current --json --count 2", exitOk,
       "{\"event\":\"resync\",\"count\":2}\n"
       "{\"event\":\"key\",\"key\":\"10.0.1.0/24\",\"record\":{\"key\":\"10.0.1.0/24\",\"igpResultId\":7}}\n",
       ""},
      {"igp-results watch vrf1 --count 2 --timeout 0.2", exitTimedOut, "resync 2\n", ""},
      {"igp-results watch none --timeout 0.2", exitFailure, "",
       "no table at " + root.path() +
           "/routing/rib/igpResultStatus/none yet: waiting for a writer\nno table appeared at " + root.path() +
           "/routing/rib/igpResultStatus/none within --timeout\n"},
      {"igp-results show junk", exitFailure, "", junk},
      {"igp-results watch junk --timeout 10", exitFailure, "", junk},
  };
  for (const auto& [args, status, out, err] : rows) {
    const auto r = runTool(args + " --root " + root.path(), true);
    EXPECT_EQ(std::tie(r.status, r.out, r.err), std::tie(status, out, err)) << args;
  }

  std::remove((root.path() + "/routing/rib/igpResultStatus/junk").c_str());
  std::ofstream(root.path() + "/routing/rib/igpResultStatus/a\nb");  // refused, and the others listed all the same
  em->unmount("routing/rib/igpResultStatus/empty");
  empty = nullptr;  // its writer closes
  EXPECT_EQ(runTool("igp-results watch empty --json --count 2 --root " + root.path()).out,
            "{\"event\":\"resync\",\"count\":0}\n{\"event\":\"writer closed\"}\n");
  const json tables = json::parse(runTool("igp-results list --json --root " + root.path(), true).out);
  ASSERT_EQ(tables.size(), 3u) << tables;
  // kind, name, records, writer open, changes
  const std::tuple<std::string, std::string, int, bool, int> want[] = {{"igp-results", "empty", 0, false, 2},
                                                                       {"igp-results", "vrf1", 2, true, 3},
                                                                       {"filtered-routes", "static", 2, true, 2}};
  for (std::size_t i = 0; i < 3; ++i) {
    const json& t = tables[i];
    EXPECT_EQ(std::make_tuple(t["kind"], t["name"], t["records"], t["writerOpen"], t["changes"]), want[i]) << t;
    EXPECT_EQ(std::make_tuple(t["version"], t["writerPid"]), std::make_tuple(Shelf::detail::kVersion, getpid())) << t;
    EXPECT_GT(t["created"].get<double>(), 1.7e9) << t;
    EXPECT_GE(t["lastChange"].get<double>(), t["created"].get<double>()) << t;
  }
  EXPECT_TRUE(runTool("igp-results list --root " + root.path(), true)
                  .out.starts_with("kind             name    records  capacity  version  writer"));
}

// Started with neither --timeout nor --count, watch follows the table until SIGINT ends it: exit
// 0, and every change it saw printed, down to a whole last line.
TEST(TableCommands, WatchRunsUntilInterrupted) {
  Shelf::TempRoot root;
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
    if (key != 0) expected += "{\"event\":\"key\",\"key\":" + std::to_string(key) + ",\"record\":" + result + "}\n";
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

// Interrupted while it builds its file, write publishes its table before the signal ends it (no
// half-built file left); --hold inf holds until a signal.
TEST(TableCommands, InterruptedWriteLeavesNoHalfBuiltFile) {
  Shelf::TempRoot root;
  const std::string at = " --root " + root.path(), half = root.path() + "/routing/rib/igpResultStatus/.t.new";
  const std::string out = ::testing::TempDir() + "write.txt";
  pid_t pid = testing_support::startTool("igp-results write t --records 1 --size 3000000" + at, out);
  for (int i = 0; i < 100000 && access(half.c_str(), F_OK) != 0; ++i) usleep(100);
  kill(pid, SIGINT);
  const int status = testing_support::waitTool(pid);
  EXPECT_EQ(std::make_pair(status, access(half.c_str(), F_OK)), std::make_pair(128 + SIGINT, -1));
  pid = testing_support::startTool("igp-results write h --records 1 --hold inf" + at, out);
  for (int i = 0; i < 3000 && fileText(out).empty(); ++i) usleep(10'000);
  kill(pid, SIGTERM);
  EXPECT_EQ(testing_support::waitTool(pid), 128 + SIGTERM);
  std::remove(out.c_str());
}

// Another user who may not open a table's folder is told so, not "no table" (nor left waiting).
TEST(TableCommands, AFolderAnotherUserCannotOpenIsSaid) {
  if (geteuid() != 0 || system("runuser -u nobody true 2>/dev/null") != 0) GTEST_SKIP() << "root plays nobody";
  Shelf::TempRoot root;
  IgpResultStatus::createIgpResultStatusWriter("t", Kelp::makePtr<KelpSharedMem::EntityManager>(root.path()), 8);
  const std::string dir = root.path() + "/routing/rib/igpResultStatus", denied = ": Permission denied\n";
  ASSERT_EQ(chmod(root.path().c_str(), 0755) | chmod(dir.c_str(), 0700), 0);
  for (const std::string command : {"show t", "watch t", "list"}) {
    const auto r = runTool("igp-results " + command + " --root " + root.path(), true, "runuser -u nobody -- ");
    EXPECT_EQ(std::make_pair(r.status, r.err),
              std::make_pair(int(exitFailure), command == "list" ? "refused: cannot list " + dir + "/" + denied
                                                                 : "refused: Shelf " + dir + "/t: cannot open " + dir + denied));
  }
}

// A table beyond the room left on its file system (a small /dev/shm) is an error, not a SIGBUS. On
// a tmpfs of 1 MiB in a mount namespace of its own (root only).
TEST(TableCommands, WriteBeyondTheRoomOfTheFileSystemFails) {
  if (system("unshare -m true 2>/dev/null") != 0) GTEST_SKIP() << "cannot make a mount namespace (root only)";
  const auto r = runTool("igp-results write t --records 1 --size 100000 --root /mnt", true,
                         "unshare -m sh -c 'mount -t tmpfs -o size=1m tmpfs /mnt && exec \"$0\" \"$@\"' ");
  EXPECT_EQ(std::make_pair(r.status, r.err),
            std::make_pair(1, std::string("Shelf /mnt/routing/rib/igpResultStatus/t: cannot size: No space left on device\n")));
}

// The tool beside a live writer: show prints every record, sorted by key, as text and as JSON; a
// second writer is refused with the holder named; show prints every record it can decode, reports
// the one it cannot and fails; watch prints the changes as they come.
TEST(ShelfProcess, TheToolBesideALiveWriter) {
  Shelf::TempRoot root;
  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto status = IgpResultStatus::createIgpResultStatusWriter("tool", em, 512);
  std::string expected;
  for (std::uint32_t k = 300; k >= 1; --k) {
    status->resultIs(versionedRecord(k, k * 11));
    expected = Kelp::valueToStrep(versionedRecord(k, k * 11)) + "\n" + expected;
  }
  const std::string at = " --root " + root.path();
  const auto text = runTool("igp-results show tool --long" + at);
  EXPECT_EQ(std::make_pair(text.status, text.out), std::make_pair(int(exitOk), expected));
  const auto json = runTool("igp-results show tool --json" + at);
  ASSERT_EQ(json.status, exitOk) << json.out;
  const nlohmann::json records = nlohmann::json::parse(json.out);
  ASSERT_EQ(records.size(), 300u);
  for (const auto& j : records) {
    const IgpResult want = versionedRecord(j["key"].get<std::uint32_t>(), j["metric"].get<std::uint64_t>());
    const auto& domain = j["ospfDomainId"];  // a decimal string beyond 2^53
    EXPECT_EQ(std::make_tuple(j["tag"].get<std::uint32_t>(),
                              std::stoull(domain.is_string() ? domain.get<std::string>() : domain.dump()),
                              j["isisLevel"].get<std::string>(), j["community"].size()),
              std::make_tuple(want.tag.value, want.ospfDomainId, Routing::Isis::stringValue(want.isisLevel), want.community.count()));
  }
  const auto missing = runTool("igp-results show nothing" + at);
  EXPECT_EQ(std::make_pair(missing.status, missing.out),
            std::make_pair(int(exitFailure), "no table at " + root.path() + "/routing/rib/igpResultStatus/nothing\n"));

  const auto second = runTool("igp-results write tool --records 1" + at);
  EXPECT_EQ(second.status, exitFailure);
  EXPECT_NE(second.out.find(fmt::format("another writer (pid {}) has this table open", getpid())), std::string::npos)
      << second.out;

  const std::uint32_t id = 999;
  const std::uint8_t junk[3] = {0xFF, 0xFF, 0xFF};
  status->resultControl()->writer()->put({reinterpret_cast<const std::uint8_t*>(&id), 4}, 0, {junk, 3});
  const auto show = runTool("igp-results show tool --long" + at, true);
  EXPECT_EQ(show.status, exitFailure);
  EXPECT_EQ(show.out, expected);
  EXPECT_TRUE(show.err.starts_with("corruption: Shelf ")) << show.err;
  EXPECT_NE(show.err.find(": the record of key e7030000 does not decode: "), std::string::npos) << show.err;
  EXPECT_EQ(std::count(show.err.begin(), show.err.end(), '\n'), 1) << show.err;

  // watch prints each change as it comes, after a resync for the table it found.
  std::atomic<bool> done = false;
  std::thread slow([&] {
    for (std::uint32_t k = 301; k <= 500 && !done; ++k) {
      status->resultIs(versionedRecord(k, k));
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  const auto watch = runTool("igp-results watch tool --count 4 --timeout 30" + at, true);
  done = true;
  slow.join();
  std::istringstream lines(watch.out);
  std::vector<std::string> changes;  // but the writer's comings and goings
  for (std::string line; std::getline(lines, line);) if (!line.starts_with("writer ")) changes.push_back(line);
  ASSERT_GE(changes.size(), 4u) << watch.out;
  EXPECT_TRUE(changes[0].starts_with("resync ")) << watch.out;
  for (std::size_t i = 1; i < changes.size(); ++i) {
    const std::uint32_t key = std::stoul(changes[i]);
    EXPECT_EQ(changes[i], std::to_string(key) + " " + Kelp::valueToStrep(versionedRecord(key, key)));
  }

  // watch's timeout is wall-clock time, however busy the writer.
  done = false;
  std::thread busy([&] {
    for (std::uint64_t v = 1; !done; ++v) status->resultIs(versionedRecord(1 + v % 5, v));
  });
  const auto start = std::chrono::steady_clock::now();
  const auto timed = runTool("igp-results watch tool --timeout 1" + at);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  done = true;
  busy.join();
  EXPECT_EQ(timed.status, exitOk);
  EXPECT_GE(seconds, 1.0);
  EXPECT_LT(seconds, 10.0);
}

}  // namespace
