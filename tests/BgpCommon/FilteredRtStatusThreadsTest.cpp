// One reader view shared by several threads while the writer rewrites records and restarts: the
// view's attaching and re-attaching must be safe to race with lookups (run under ThreadSanitizer).
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "BgpCommon/FilteredRtStatus.h"
#include "platform/Shelf/TempRoot.h"
#include "tests/Support/PolicyResults.h"

namespace Routing::BgpRedistribute {
namespace {

using testing_support::isWholeRecord;
using Shelf::TempRoot;
using testing_support::versionedRecord;

TEST(ShelfThreads, ReaderThreadsShareOneViewWhileTheWriterRestarts) {
  TempRoot root;
  constexpr std::uint32_t kKeys = 200;
  auto readerEm = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  auto view = IgpResultStatus::createIgpResultStatusReader("threads", readerEm);
  std::atomic<std::uint64_t> whole{0}, torn{0}, reports{0}, polled{0};
  view->resultControl()->corruptionHandlerIs([&](std::string_view) { ++reports; });
  std::atomic<bool> stop{false};
  auto check = [&](const IgpResult& r) { (isWholeRecord(r) ? whole : torn) += 1; };

  std::vector<std::thread> threads;
  for (std::uint32_t t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      std::uint32_t k = t;
      while (!stop.load()) {
        k = k % kKeys + 1;
        if (auto r = view->result(IgpResultId(k))) check(*r);
        if (k == kKeys) view->resultForEach(check);
      }
    });
  }
  threads.emplace_back([&] {
    while (!stop.load()) {
      view->resultControl()->waitForChanges(0.01);
      polled += view->resultControl()->poll();
    }
  });

  std::uint64_t version = 0;
  for (int generation = 0; generation < 4; ++generation) {
    auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
    auto status = IgpResultStatus::createIgpResultStatusWriter("threads", em, kKeys);
    for (int i = 0; i < 20000; ++i) status->resultIs(versionedRecord(1 + i % kKeys, ++version));
  }
  stop = true;
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(std::make_pair(torn.load(), reports.load()), std::make_pair(std::uint64_t{0}, std::uint64_t{0}));
  EXPECT_GT(std::min(whole.load(), polled.load()), 0u);
  EXPECT_EQ(view->resultControl()->reader()->generation(), 4u);
}

}  // namespace
}  // namespace Routing::BgpRedistribute
