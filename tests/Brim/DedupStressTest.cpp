// Two threads interning and releasing overlapping values on one locked table. Run under the tsan
// preset, this is where a race between a last release and a concurrent lookup would show.
// Also: a table without its lock still leaves the counts of its keys shared between threads.

#include <map>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Brim/KelpStash.h"
#include "tests/Brim/DedupTestSupport.h"

namespace Brim {
namespace {

using testing_support::HeapNumberKey;
using testing_support::NumberContent;
using testing_support::StashNumberKey;

struct Worker {
  std::uint64_t first;  // values first .. first+span-1
  std::uint64_t span;
  std::uint32_t seed;
  std::vector<Kelp::Ptr<StashNumberKey>> held;
  int wrongObjects = 0;

  void run(DedupHashTable& table, int steps) {
    std::mt19937 rng(seed);
    for (int i = 0; i < steps; ++i) {
      // Mostly a handful of hot values, so that last releases and lookups of one value collide.
      std::uint64_t v = rng() % 4 == 0 ? first + rng() % span : first + rng() % 4;
      switch (rng() % 4) {
        case 0:
        case 1: {
          auto k = StashNumberKey::intern(table, v);
          if (k->n != v || !k->isDeduped()) ++wrongObjects;
          held.push_back(std::move(k));
          break;
        }
        case 2:
          if (!held.empty()) {
            std::size_t j = rng() % held.size();
            std::swap(held[j], held.back());
            held.pop_back();
          }
          break;
        default: {
          NumberContent c(v);
          if (auto found = table.find(c, c.hash()); found && static_cast<StashNumberKey*>(found.get())->n != v) {
            ++wrongObjects;
          }
          // Keep the working set small so that values keep leaving the table.
          if (held.size() > 64) held.erase(held.begin(), held.begin() + 32);
        }
      }
    }
  }
};

TEST(DedupStress, TwoThreadsInternAndReleaseOverlappingValues) {
  const auto before = KelpStash::heapStats();
  {
    auto table = Kelp::Ptr<DedupHashTable>(new KelpStash::DedupHashTableUnorderedSet(true));
    // Both threads share the hot values 100..103 and half of their ranges.
    Worker a{100, 200, 1}, b{100, 400, 2};
    constexpr int kSteps = 200000;
    std::thread ta([&] { a.run(*table, kSteps); });
    std::thread tb([&] { b.run(*table, kSteps); });
    ta.join();
    tb.join();
    EXPECT_EQ(a.wrongObjects, 0);
    EXPECT_EQ(b.wrongObjects, 0);

    // Every value still held is in the table exactly once, as the object its holders have.
    std::map<std::uint64_t, const StashNumberKey*> heldObject;
    for (Worker* w : {&a, &b}) {
      for (const auto& k : w->held) {
        auto [it, added] = heldObject.emplace(k->n, k.get());
        EXPECT_EQ(it->second, k.get()) << "two objects for value " << k->n;
        EXPECT_TRUE(k->isDeduped());
      }
    }
    std::map<std::uint64_t, int> inTable;
    for (const auto& h : table->handles()) ++inTable[static_cast<const StashNumberKey*>(h.get())->n];
    EXPECT_EQ(inTable.size(), heldObject.size());
    for (const auto& [value, count] : inTable) {
      EXPECT_EQ(count, 1) << value;
      EXPECT_EQ(heldObject.count(value), 1u) << "value " << value << " in the table but held by no one";
    }
    a.held.clear();
    b.held.clear();
    EXPECT_EQ(table->size(), 0u);
  }
  const auto after = KelpStash::heapStats();
  EXPECT_EQ(after.objectsInUse, before.objectsInUse);
}

// A table without its lock belongs to one thread, but a key its owner holds may still be copied and
// released by other threads that never touch the table: their counts must not lose updates.
TEST(DedupStress, KeyOfOneThreadTableCopiedByTwoThreadsKeepsAnExactCount) {
  for (int run = 0; run < 20; ++run) {
    auto table = Kelp::Ptr<DedupHashTable>(new DedupHashTableUnorderedSet(false));
    const Kelp::Ptr<HeapNumberKey> held = HeapNumberKey::intern(*table, 7);
    const std::uint32_t expected = held->references();  // the owner's and the table's
    auto copyAndRelease = [&] {
      for (int i = 0; i < 100000; ++i) Kelp::Ptr<HeapNumberKey> copy = held;
    };
    std::thread ta(copyAndRelease), tb(copyAndRelease);
    ta.join();
    tb.join();
    ASSERT_EQ(held->references(), expected) << "run " << run;
    EXPECT_EQ(table->size(), 1u);
  }
}

}  // namespace
}  // namespace Brim
