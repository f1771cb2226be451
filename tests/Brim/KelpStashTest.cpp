#include "platform/Brim/KelpStash.h"

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace KelpStash {
namespace {

struct Small : PtrInterface {
  std::uint64_t a = 1, b = 2;  // 32 octets with the header
};
struct Big : PtrInterface {
  char payload[400] = {};  // above the pooled sizes: ordinary operator new
};

TEST(KelpStash, ObjectsAreCountedInTheirSizeClassAndReused) {
  const HeapStats s0 = heapStats();
  std::vector<Kelp::Ptr<Small>> v;
  for (int i = 0; i < 1000; ++i) v.push_back(Kelp::makePtr<Small>());
  const HeapStats s1 = heapStats();
  EXPECT_EQ(s1.objectsInUse - s0.objectsInUse, 1000);
  EXPECT_EQ(s1.bytesInUse - s0.bytesInUse, 1000 * 32);
  auto big = Kelp::makePtr<Big>();  // not pooled, not counted
  EXPECT_EQ(heapStats().objectsInUse, s1.objectsInUse);
  const void* last = v.back().get();
  v.pop_back();
  auto again = Kelp::makePtr<Small>();
  EXPECT_EQ(again.get(), last);  // the block just freed is the next one handed out
  again = nullptr;
  v.clear();
  EXPECT_EQ(heapStats().objectsInUse, s0.objectsInUse);
  EXPECT_EQ(heapStats().bytesInUse, s0.bytesInUse);
}

TEST(KelpStash, EverySizeClassHandsOutDistinctAlignedBlocks) {
  for (std::size_t size = 1; size <= kMaxPooledSize; size += 7) {
    std::vector<void*> blocks;
    for (int i = 0; i < 100; ++i) {
      void* p = allocate(size);
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(p) % 8, 0u);
      std::memset(p, 0xAB, size);  // the whole block is usable
      blocks.push_back(p);
    }
    std::sort(blocks.begin(), blocks.end());
    for (std::size_t i = 1; i < blocks.size(); ++i) {
      ASSERT_GE(static_cast<char*>(blocks[i]) - static_cast<char*>(blocks[i - 1]),
                static_cast<std::ptrdiff_t>(size));
    }
    for (void* p : blocks) deallocate(p, size);
  }
}

// Objects freed by another thread, and by threads that have exited, are accounted and reusable.
TEST(KelpStash, ObjectsCrossThreads) {
  const HeapStats s0 = heapStats();
  std::vector<Kelp::Ptr<Small>> made;
  std::thread maker([&] {
    for (int i = 0; i < 5000; ++i) made.push_back(Kelp::makePtr<Small>());
  });
  maker.join();
  EXPECT_EQ(heapStats().objectsInUse - s0.objectsInUse, 5000);
  std::thread freer([&] { made.clear(); });
  freer.join();
  EXPECT_EQ(heapStats().objectsInUse, s0.objectsInUse);
}

// A table learnt and then lost gives its memory back: slabs whose blocks have all come back are
// returned to the system, all but a chunk kept for the next table and what a thread cache holds.
TEST(KelpStash, EmptiedSlabsGoBack) {
  const HeapStats s0 = heapStats();
  std::vector<Kelp::Ptr<Small>> v;
  for (int i = 0; i < 300000; ++i) v.push_back(Kelp::makePtr<Small>());
  EXPECT_GE(heapStats().bytesReserved, 300000 * 32);
  v = {};
  EXPECT_LE(heapStats().bytesReserved - s0.bytesReserved, 4 << 20);
  for (int i = 0; i < 1000; ++i) v.push_back(Kelp::makePtr<Small>());  // and the pool serves again
  EXPECT_EQ(heapStats().objectsInUse - s0.objectsInUse, 1000);
}

}  // namespace
}  // namespace KelpStash
