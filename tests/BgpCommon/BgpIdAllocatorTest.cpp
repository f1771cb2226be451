#include "BgpCommon/BgpIdAllocator.h"

#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "platform/Pico/Format.h"

namespace Routing::Bgp {
namespace {

std::vector<U32> allocateN(BgpIdAllocator& a, int n) {
  std::vector<U32> out;
  for (int i = 0; i < n; ++i) out.push_back(a.allocate());
  return out;
}

TEST(BgpIdAllocator, ReusesFreedIdentifiersFirstInFirstOut) {
  auto a = bgpIdAllocatorFactory("IgpResultId");
  EXPECT_EQ(allocateN(*a, 3), (std::vector<U32>{1, 2, 3}));
  a->free(2);
  a->free(1);
  EXPECT_EQ(a->freeIdFront(), 2u);
  EXPECT_EQ(a->freeIdBack(), 1u);
  EXPECT_EQ(a->debugString(), "BgpIdAllocator 'IgpResultId' largestAllocatedId 3 freeId [2, 1]");
  EXPECT_EQ(allocateN(*a, 3), (std::vector<U32>{2, 1, 4}));
  EXPECT_EQ(a->largestAllocatedId(), 4u);

  // A double free is not detected: the identifier comes back twice.
  a->free(3);
  a->free(3);
  EXPECT_EQ(allocateN(*a, 3), (std::vector<U32>{3, 3, 5}));

  // The epoch allocator is the same allocator under a fixed name.
  auto epochs = bgpInstanceEpochAllocatorFactory();
  EXPECT_EQ(epochs->name(), "BgpInstanceEpoch");
  EXPECT_EQ(allocateN(*epochs, 2), (std::vector<U32>{1, 2}));
  epochs->free(1);
  EXPECT_EQ(allocateN(*epochs, 2), (std::vector<U32>{1, 3}));
}

// The queue accessors restore a saved queue; allocate then reuses from what they left.
TEST(BgpIdAllocator, QueueAccessors) {
  auto a = bgpIdAllocatorFactory("q");
  EXPECT_EQ(a->freeIdDeq(), 0u);  // empty: 0 and nothing changes
  for (U32 id : {7u, 8u, 9u}) a->freeIdEnq(id);  // indices 0 1 2
  EXPECT_EQ(a->freeIdDeq(), 7u);
  a->freeIdIs(2, 19);  // existing entry
  a->freeIdIs(5, 15);  // a new one behind the tail
  a->freeIdDel(1);
  EXPECT_EQ(a->debugString(), "BgpIdAllocator 'q' largestAllocatedId 0 freeId [19, 15]");
  EXPECT_EQ(allocateN(*a, 3), (std::vector<U32>{19, 15, 1}));
  a->freeIdEnq(4);
  a->freeIdDelAll();
  EXPECT_EQ(a->largestAllocatedIdInc(9), 10u);
  EXPECT_EQ(a->allocate(), 11u);
}

TEST(BgpIdAllocatorDeathTest, InvalidIdentifierIsFatal) {
  auto a = bgpIdAllocatorFactory("d");
  EXPECT_DEATH(a->free(0), "BgpIdAllocator::invalidId\\(\\) != id");
  a->largestAllocatedIdInc(4294967294u);
  EXPECT_EQ(a->allocate(), 4294967295u);  // the largest identifier is still handed out
  a->free(4294967295u);
  EXPECT_EQ(a->allocate(), 4294967295u);  // and reused
  EXPECT_DEATH(a->allocate(), "BgpIdAllocator::invalidId\\(\\) != id");  // the counter would wrap to 0
}

// Level-8 trace lines name the allocator, the mode and the identifier in hexadecimal.
TEST(BgpIdAllocator, TraceLines) {
  std::vector<std::string> lines;  // the source line number replaced by N
  Pico::traceSinkIs([&](std::string_view line) {
    lines.push_back(std::regex_replace(std::string(line), std::regex("^(\\[8\\] BgpCommon/BgpIdAllocator:)[0-9]+ "), "$1N "));
  });
  Pico::traceLevelIs(8, true);
  auto a = bgpIdAllocatorFactory("Epoch");
  a->allocate();
  a->allocate();
  a->free(2);
  a->allocate();
  a->largestAllocatedIdInc(0x1d);
  a->allocate();
  Pico::traceLevelIs(8, false);
  a->allocate();  // off: no line
  Pico::traceSinkIs({});

  const std::string self = fmt::format(" {} ", static_cast<const void*>(a.get()));
  const std::string allocate = "[8] BgpCommon/BgpIdAllocator:N U32 Routing::Bgp::BgpIdAllocator::allocate():" + self;
  const std::string free = "[8] BgpCommon/BgpIdAllocator:N void Routing::Bgp::BgpIdAllocator::free(U32):" + self;
  EXPECT_EQ(lines, (std::vector<std::string>{allocate + "newEpoch id 0x1", allocate + "newEpoch id 0x2",
                                             free + "free Epoch id 0x2", allocate + "reuseEpoch id 0x2",
                                             allocate + "newEpoch id 0x20"}));
}

// Two threads allocating and freeing never hold the same identifier at once, and with reuse
// first no fresh identifier is made while one waits in the queue.
TEST(BgpIdAllocator, ThreadsNeverShareAnIdentifier) {
  auto a = bgpIdAllocatorFactory("threads");
  constexpr int kRounds = 100000;
  constexpr int kHeld = 8;  // identifiers each thread holds at a time
  std::vector<std::atomic<U32>> holder(4 * kHeld + 2);
  std::atomic<int> clashes{0}, outOfRange{0};
  auto work = [&](U32 me) {
    std::vector<U32> mine;
    for (int i = 0; i < kRounds; ++i) {
      U32 id = a->allocate();
      if (id >= holder.size()) {
        ++outOfRange;
        continue;
      }
      U32 expected = 0;
      if (!holder[id].compare_exchange_strong(expected, me)) ++clashes;
      mine.push_back(id);
      if (mine.size() == kHeld || i % 3 == 0) {
        U32 back = mine.front();
        mine.erase(mine.begin());
        holder[back].store(0);
        a->free(back);
      }
    }
    for (U32 id : mine) {
      holder[id].store(0);
      a->free(id);
    }
  };
  std::thread t1(work, 1), t2(work, 2);
  t1.join();
  t2.join();
  EXPECT_EQ(clashes.load(), 0);
  EXPECT_EQ(outOfRange.load(), 0);
  // At most 2 * kHeld identifiers are out at once, so no more were ever made.
  EXPECT_LE(a->largestAllocatedId(), U32{2 * kHeld});
  EXPECT_EQ(a->freeId().size(), a->largestAllocatedId());
}

}  // namespace
}  // namespace Routing::Bgp
