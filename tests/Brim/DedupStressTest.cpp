// Two threads interning and releasing overlapping values on one locked table. Run under the tsan
// preset, this is where a race between a last release and a concurrent lookup would show.
// Also: a table without its lock still leaves the counts of its keys shared between threads.

#include <map>
#include <random>
#include <set>
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
      const std::uint64_t v = rng() % 4 == 0 ? first + rng() % span : first + rng() % 4;
      const unsigned op = rng() % 4;
      if (op < 2) {
        held.push_back(StashNumberKey::intern(table, v));
        if (held.back()->n != v || !held.back()->isDeduped()) ++wrongObjects;
      } else if (op == 2 && !held.empty()) {
        std::swap(held[rng() % held.size()], held.back());
        held.pop_back();
      } else if (op == 3) {
        NumberContent c(v);
        auto found = table.find(c, c.hash());
        if (found && static_cast<StashNumberKey*>(found.get())->n != v) ++wrongObjects;
        if (held.size() > 64) held.erase(held.begin(), held.begin() + 32);  // values keep leaving the table
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

    // Every value still held is in the table exactly once, as the object its holders have, and
    // the table holds nothing else.
    std::map<std::uint64_t, const StashNumberKey*> inTable;
    for (const auto& h : table->handles()) {
      auto* k = static_cast<const StashNumberKey*>(h.get());
      EXPECT_TRUE(inTable.emplace(k->n, k).second) << "value " << k->n << " twice in the table";
    }
    std::set<std::uint64_t> heldValues;
    for (Worker* w : {&a, &b}) {
      for (const auto& k : w->held) {
        heldValues.insert(k->n);
        EXPECT_TRUE(inTable.count(k->n) == 1 && inTable[k->n] == k.get()) << "value " << k->n;
      }
    }
    EXPECT_EQ(inTable.size(), heldValues.size());
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
