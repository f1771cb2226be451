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

// Pooled objects are counted in their size class, the block just freed is the next one handed out,
// and objects made and freed by other threads (gone by then) are accounted too.
TEST(KelpStash, ObjectsAreCountedReusedAndCrossThreads) {
  const HeapStats s0 = heapStats();
  std::vector<Kelp::Ptr<Small>> v;
  std::thread maker([&] {
    for (int i = 0; i < 1000; ++i) v.push_back(Kelp::makePtr<Small>());
  });
  maker.join();
  EXPECT_EQ(heapStats().objectsInUse - s0.objectsInUse, 1000);
  EXPECT_EQ(heapStats().bytesInUse - s0.bytesInUse, 1000 * 32);
  auto big = Kelp::makePtr<Big>();  // not pooled, not counted
  EXPECT_EQ(heapStats().objectsInUse - s0.objectsInUse, 1000);
  const void* last = v.back().get();
  v.pop_back();
  EXPECT_EQ(Kelp::makePtr<Small>().get(), last);
  std::thread freer([&] { v.clear(); });
  freer.join();
  EXPECT_EQ(heapStats().objectsInUse, s0.objectsInUse);
  EXPECT_EQ(heapStats().bytesInUse, s0.bytesInUse);
}

TEST(KelpStash, EverySizeClassHandsOutDistinctAlignedBlocks) {
  for (std::size_t size = 1; size <= kMaxPooledSize; size += 7) {
    std::vector<char*> blocks;
    for (int i = 0; i < 100; ++i) {
      blocks.push_back(static_cast<char*>(allocate(size)));
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(blocks.back()) % 8, 0u);
      std::memset(blocks.back(), 0xAB, size);  // the whole block is usable
    }
    std::sort(blocks.begin(), blocks.end());
    for (std::size_t i = 1; i < blocks.size(); ++i) ASSERT_GE(blocks[i] - blocks[i - 1], static_cast<std::ptrdiff_t>(size));
    for (char* p : blocks) deallocate(p, size);
  }
}

// A table learnt and then lost gives its memory back: slabs whose blocks have all come back are
// returned to the system, all but a chunk kept for the next table, a few more empty slabs
// and what a thread cache holds; a few survivors scattered over the chunks keep only their slabs.
TEST(KelpStash, EmptiedSlabsGoBack) {
  for (int keepEvery : {0, 20000}) {
    SCOPED_TRACE(keepEvery);
    const HeapStats s0 = heapStats();
    std::vector<Kelp::Ptr<Small>> v, survivors;
    for (int i = 0; i < 300000; ++i) v.push_back(Kelp::makePtr<Small>());
    EXPECT_GE(heapStats().bytesReserved, 300000 * 32);
    for (std::size_t i = 0; keepEvery != 0 && i < v.size(); i += keepEvery) survivors.push_back(v[i]);
    v = {};
    EXPECT_LE(heapStats().bytesReserved - s0.bytesReserved,
              static_cast<std::int64_t>(4 << 20) + static_cast<std::int64_t>(survivors.size()) * (64 << 10));
    for (int i = 0; i < 1000; ++i) v.push_back(Kelp::makePtr<Small>());  // and the pool serves again
    EXPECT_EQ(heapStats().objectsInUse - s0.objectsInUse, static_cast<std::int64_t>(1000 + survivors.size()));
    v = {};
  }
}

}  // namespace
}  // namespace KelpStash
