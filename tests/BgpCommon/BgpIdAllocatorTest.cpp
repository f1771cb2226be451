#include "BgpCommon/BgpIdAllocator.h"

#include <atomic>
#include <deque>
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
  EXPECT_EQ(a->debugString(), "BgpIdAllocator 'IgpResultId' largestAllocatedId 3 freeId [2, 1]");
  EXPECT_EQ(allocateN(*a, 3), (std::vector<U32>{2, 1, 4}));
  EXPECT_EQ(a->largestAllocatedId(), 4u);

  // A double free is not detected: the identifier comes back twice.
  a->free(3);
  a->free(3);
  EXPECT_EQ(allocateN(*a, 3), (std::vector<U32>{3, 3, 5}));
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
  constexpr std::size_t kHeld = 8;  // identifiers each thread holds at a time
  std::vector<std::atomic<U32>> holder(4 * kHeld + 2);
  std::atomic<int> clashes{0};
  auto work = [&](U32 me) {
    std::deque<U32> mine;
    auto release = [&] {
      holder[mine.front()].store(0);
      a->free(mine.front());
      mine.pop_front();
    };
    for (int i = 0; i < 100000; ++i) {
      const U32 id = a->allocate();
      U32 expected = 0;
      if (id < holder.size() && holder[id].compare_exchange_strong(expected, me)) {
        mine.push_back(id);
      } else {
        ++clashes;  // held by the other thread, or more identifiers made than were ever out
      }
      if (!mine.empty() && (mine.size() == kHeld || i % 3 == 0)) release();
    }
    while (!mine.empty()) release();
  };
  std::thread t1(work, 1), t2(work, 2);
  t1.join();
  t2.join();
  EXPECT_EQ(clashes.load(), 0);
  // At most 2 * kHeld identifiers are out at once, so no more were ever made.
  EXPECT_LE(a->largestAllocatedId(), U32{2 * kHeld});
  EXPECT_EQ(a->freeId().size(), a->largestAllocatedId());
}

}  // namespace
}  // namespace Routing::Bgp
