// The read side of redistribution: which record applies to a route, and how it was reached.
//
// Static-route communities are a toggle that a process reads once, on its first static lookup. So
// every case that depends on it runs in a fresh process: the test program re-executed, as
// GoogleTest's "threadsafe" death tests do, with the toggle directory set in that process only.
#include "BgpCommon/IgpResultStatusReaderHelper.h"

#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Kelp/Registry.h"
#include "platform/Shelf/TempRoot.h"
#include "tests/Support/PolicyResults.h"

namespace Routing::BgpRedistribute {
namespace {

using Rib::RoutingProtocol;
using Shelf::TempRoot;
using testing_support::versionedRecord;

const Rib::RouteKey kRoute(Netzo::IpGenPrefix::fromString("10.1.0.0/16"));
constexpr RoutingProtocol kStatic = RoutingProtocol::protocolStatic;

IgpResultLookup tagOnly(std::uint32_t tag) {
  IgpResultLookup l(IgpResult(IgpResultId()), IgpResultReturnType::resultTagOnly);
  l.igpResult.tag = tag;
  return l;
}
IgpResultLookup plain(IgpResultReturnType t) { return IgpResultLookup(IgpResult(IgpResultId()), t); }

// Runs `body` in a fresh process whose toggle file holds `toggleJson` (no file when empty); the
// process exits 0 when `body` returns no complaint, else prints it and exits 1.
void inFreshProcess(const std::string& toggleJson, const std::function<std::string()>& body) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const std::string complaint = [&] {
          TempRoot toggles;
          if (!toggleJson.empty()) std::ofstream(toggles.path() + "/Ira.json") << toggleJson;
          setenv("BGPCOMMON_TOGGLE_DIR", toggles.path().c_str(), 1);
          return body();
        }();
        std::fputs(complaint.c_str(), stderr);
        std::fflush(stderr);
        _exit(complaint.empty() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

// A writer holding records 7 and 9, and a reader of it through its own read-only mapping.
struct Tables {
  TempRoot root;
  Kelp::Ptr<KelpSharedMem::EntityManager> em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  Kelp::Ptr<IgpResultStatus> writer = IgpResultStatus::createIgpResultStatusWriter("static", em, 16);
  Kelp::Ptr<KelpSharedMem::EntityManager> readerEm = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  IgpResult seven = versionedRecord(7, 3), nine = versionedRecord(9, 4);
  Kelp::Ptr<IgpResultStatus> reader = [this] {
    writer->resultIs(seven);
    writer->resultIs(nine);
    return IgpResultStatus::createIgpResultStatusReader("static", readerEm);
  }();
};

struct Row { const char* what; RoutingProtocol protocol; std::uint32_t attrSetId; IgpResultLookup want; };

std::string check(const Kelp::Ptr<const IgpResultStatus>& table, const std::vector<Row>& rows) {
  std::string complaints;
  for (const Row& r : rows) {
    IgpResultLookup got = igpResultStatusReaderHelperFactory(table)->lookup(kRoute, r.protocol, r.attrSetId);
    if (!(got == r.want)) complaints += std::string(r.what) + ":\n  got  " + Kelp::valueToStrep(got) + "\n";
  }
  return complaints;
}

TEST(IgpResultStatusReaderHelper, EveryCaseWithTheToggleOn) {
  inFreshProcess("", [] {
    Tables t;
    const std::vector<Row> rows = {
        {"ospf carries its tag", RoutingProtocol::protocolOspf, 1234, tagOnly(1234)},
        {"connected, no tag", RoutingProtocol::protocolConnected, 0, tagOnly(0)},
        {"static without an id", kStatic, 0, plain(IgpResultReturnType::resultDefault)},
        {"static, id 7", kStatic, 7, IgpResultLookup(t.seven, IgpResultReturnType::resultFound)},
        {"static, id 9", kStatic, 9, IgpResultLookup(t.nine, IgpResultReturnType::resultFound)},
        {"static, id 8 absent", kStatic, 8, plain(IgpResultReturnType::resultNotFound)},
        {"static, largest id", kStatic, 0xFFFFFFFFu, plain(IgpResultReturnType::resultNotFound)},
    };
    std::string complaints;
    if (!IgpResultStatusReaderHelper::staticRouteCommunities()) complaints += "toggle read as off\n";
    // Through a reader in its own mapping, and through the writer's own entity.
    complaints += check(t.reader, rows) + check(t.writer, rows);
    // A withdrawn record is not found any more; without a table, other protocols are still answered.
    t.writer->resultDel(IgpResultId(7));
    complaints += check(t.reader, {{"static, id 7 withdrawn", kStatic, 7, plain(IgpResultReturnType::resultNotFound)}});
    return complaints + check(nullptr, {{"bgp without a table", RoutingProtocol::protocolBgp, 5, tagOnly(5)}});
  });
}

// With the toggle off every static route is tag-only, and the toggle is read once: switching it on
// afterwards changes nothing in this process. The table is never read, so it may be missing.
TEST(IgpResultStatusReaderHelper, ToggleOffMakesStaticRoutesTagOnly) {
  inFreshProcess(R"({"StaticRouteCommunities": false})", [] {
    Tables t;
    const std::vector<Row> rows = {{"static, id 7", kStatic, 7, tagOnly(7)},
                                   {"static, id 0", kStatic, 0, tagOnly(0)},
                                   {"ospf", RoutingProtocol::protocolOspf, 8, tagOnly(8)}};
    std::string complaints = check(t.reader, rows) + check(nullptr, rows);
    std::ofstream(std::string(getenv("BGPCOMMON_TOGGLE_DIR")) + "/Ira.json") << R"({"StaticRouteCommunities": true})";
    return complaints + check(t.reader, rows);
  });
}

// lookup takes no lock: threads share one helper, its first static lookup (which reads the toggle)
// included, while the writer keeps replacing records. Every answer is a whole record of some
// version, or not found while its key is briefly absent.
TEST(IgpResultStatusReaderHelper, ThreadsShareAHelperWhileTheWriterChangesRecords) {
  inFreshProcess("", [] {
    Tables t;
    auto helper = igpResultStatusReaderHelperFactory(t.reader);
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0}, found{0};
    std::vector<std::thread> readers;
    for (int n = 0; n < 3; ++n) {
      readers.emplace_back([&] {
        while (!stop.load()) {
          for (std::uint32_t id : {7u, 9u, 11u}) {
            const IgpResultLookup l = helper->lookup(kRoute, kStatic, id);
            const bool isFound = l.returnType == IgpResultReturnType::resultFound;
            found += isFound;
            torn += isFound ? !testing_support::isWholeRecord(l.igpResult) || l.igpResult.key.value != id
                            : l.returnType != IgpResultReturnType::resultNotFound;
          }
        }
      });
    }
    // The writer goes on until the readers have found records a while (on a loaded machine they
    // may not be scheduled at all during a fixed number of changes), within a bound.
    for (std::uint64_t v = 10; v < 20000 || (found.load() < 3000 && v < 4000000); ++v) {
      t.writer->resultIs(versionedRecord(7, v));
      if (v % 2 == 0) t.writer->resultIs(versionedRecord(11, v));
      else t.writer->resultDel(IgpResultId(11));
    }
    stop = true;
    for (auto& th : readers) th.join();
    return (torn.load() != 0 ? std::to_string(torn.load()) + " torn or wrong answers\n" : std::string()) +
           (found.load() == 0 ? "nothing found\n" : "");
  });
}

TEST(IgpResultStatusReaderHelperDeathTest, StaticLookupWithoutATable) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto helper = igpResultStatusReaderHelperFactory(nullptr);
  EXPECT_DEATH(
      {
        setenv("BGPCOMMON_TOGGLE_DIR", "/nonexistent/bgpcommon-toggles", 1);  // no file: the toggle is on
        helper->lookup(kRoute, kStatic, 7);
      },
      "staticConfigIgpResultStatus\\(\\) != nullptr");
}

}  // namespace
}  // namespace Routing::BgpRedistribute
