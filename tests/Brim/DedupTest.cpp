#include "platform/Brim/Dedup.h"

#include <map>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Brim/KelpStash.h"
#include "tests/Brim/DedupTestSupport.h"

namespace Brim {
namespace {

using testing_support::HeapNumberKey;
using testing_support::NumberContent;
using testing_support::StashNumberKey;

// One behaviour suite for every table variant: ordinary or stash heap, with or without the lock.
template <typename K, typename T, bool Lock>
struct Variant {
  using Key = K;
  using Table = T;
  static constexpr bool useLock = Lock;
};
using Variants = ::testing::Types<Variant<HeapNumberKey, DedupHashTableUnorderedSet, false>,
                                  Variant<HeapNumberKey, DedupHashTableUnorderedSet, true>,
                                  Variant<StashNumberKey, KelpStash::DedupHashTableUnorderedSet, false>,
                                  Variant<StashNumberKey, KelpStash::DedupHashTableUnorderedSet, true>>;

// Counts what a table reports, and checks the handle's state when told.
struct CountingNotifiee : DedupHashTableLifeTimeNotifiee {
  mutable std::map<std::uint64_t, int> inserted, removed;
  void handleInsert(const Kelp::Ptr<DedupHandleBase>& h) const override {
    EXPECT_TRUE(h->isDeduped());
    ++inserted[numberOf(h.get())];
  }
  void handleRemove(DedupHandleBase* h) const override {
    EXPECT_FALSE(h->isDeduped());
    ++removed[numberOf(h)];
  }
  mutable int stops = 0;
  void handleNotificationStop(const Kelp::Ptr<const DedupHashTable>&) const override { ++stops; }
  static std::uint64_t numberOf(const DedupHandleBase* h) {
    if (auto* s = dynamic_cast<const StashNumberKey*>(h)) return s->n;
    return static_cast<const HeapNumberKey*>(h)->n;
  }
};

template <typename V>
class DedupTable : public ::testing::Test {
 protected:
  using Key = typename V::Key;
  Kelp::Ptr<DedupHashTable> table = Kelp::Ptr<DedupHashTable>(new typename V::Table(V::useLock));
  Kelp::Ptr<Key> intern(std::uint64_t n) { return Key::intern(*table, n); }
};
TYPED_TEST_SUITE(DedupTable, Variants);

// One object per value while anyone holds it. Lookups (by content, by a like handle) never insert,
// and the references they hand out go with them: the last outside release takes the value out.
TYPED_TEST(DedupTable, SameValueSameObjectUntilLastRelease) {
  NumberContent seven(7);
  typename TestFixture::Key like(7);
  EXPECT_EQ(this->table->find(seven, seven.hash()), nullptr);
  EXPECT_EQ(this->table->lookup(like), nullptr);
  auto a = this->intern(7);
  auto b = this->intern(7);
  auto c = this->intern(8);
  EXPECT_EQ(a.get(), b.get());
  EXPECT_NE(a.get(), c.get());
  EXPECT_EQ(a->dedupState(), DedupState::deduped);
  EXPECT_EQ(a->getDedupHashTable(), this->table.get());
  EXPECT_EQ(this->table->find(seven, seven.hash()).get(), a.get());
  EXPECT_EQ(this->table->lookup(like).get(), a.get());
  b = nullptr;
  EXPECT_EQ(this->table->size(), 2u);
  a = nullptr;
  EXPECT_EQ(this->table->size(), 1u);
  EXPECT_EQ(this->table->find(seven, seven.hash()), nullptr);
  EXPECT_TRUE(this->intern(7)->isDeduped());
}

// A ready handle is adopted, or answered by the older equal one; remove() takes a handle out but
// leaves it alive, and interning its value again makes a new one.
TYPED_TEST(DedupTable, ReadyHandlesAndRemoval) {
  using Key = typename TestFixture::Key;
  auto fresh = Kelp::makePtr<Key>(5);
  EXPECT_FALSE(fresh->everDeduped());
  EXPECT_EQ(this->table->dedup(fresh.get()).get(), fresh.get());
  EXPECT_EQ(this->table->dedup(fresh.get()).get(), fresh.get());  // again: itself
  auto twin = Kelp::makePtr<Key>(5);
  EXPECT_EQ(this->table->dedup(twin.get()).get(), fresh.get());
  EXPECT_EQ(twin->dedupState(), DedupState::neverDeduped);
  EXPECT_TRUE(this->table->remove(fresh.get()));
  EXPECT_FALSE(this->table->remove(fresh.get()));
  EXPECT_EQ(fresh->dedupState(), DedupState::removedByTable);
  EXPECT_TRUE(fresh->everDeduped());
  EXPECT_EQ(fresh->getDedupHashTable(), nullptr);
  EXPECT_EQ(this->table->size(), 0u);
  EXPECT_NE(this->intern(5).get(), fresh.get());
}

TYPED_TEST(DedupTable, NotifieeHearsInsertLastReleaseAndRemove) {
  auto n = Kelp::makePtr<CountingNotifiee>();
  this->table->lifeTimeNotifieeIs(n);
  this->table->hasNotificationActiveIs(true);
  {
    auto a = this->intern(1);
    auto b = this->intern(1);
    auto c = this->intern(2);
    auto d = this->intern(3);
    EXPECT_EQ(n->inserted, (std::map<std::uint64_t, int>{{1, 1}, {2, 1}, {3, 1}}));
    a = nullptr;
    EXPECT_TRUE(n->removed.empty());
    this->table->remove(d.get());
    EXPECT_EQ(n->removed, (std::map<std::uint64_t, int>{{3, 1}}));
  }
  EXPECT_EQ(n->removed, (std::map<std::uint64_t, int>{{1, 1}, {2, 1}, {3, 1}}));
  this->table->hasNotificationActiveIs(false);
  this->intern(4);
  EXPECT_EQ(n->inserted.count(4), 0u);
  this->table->lifeTimeNotifieeIs(nullptr);
  EXPECT_EQ(n->stops, 1);
}

TYPED_TEST(DedupTable, KeysKeepTheirTableAlive) {
  auto k = this->intern(11);
  DedupHashTable* raw = this->table.get();
  this->table = nullptr;  // the owner lets go; the key still refers to the table
  EXPECT_EQ(TestFixture::Key::intern(*raw, 11).get(), k.get());
  k = nullptr;  // the last key goes, and with it the table (checked by the sanitizers)
}

TEST(DedupHandleDeathTest, AssertIsDeduped) {
  auto k = Kelp::makePtr<HeapNumberKey>(1);
  EXPECT_DEATH(k->assertIsDeduped(), "isDeduped\\(\\)");
  DedupHandleBase::assertIsDedupedDisabledIs(true);
  k->assertIsDeduped();
  DedupHandleBase::assertIsDedupedDisabledIs(false);
}

// A long seeded sequence of interns and releases against a plain model: the references each value
// has outside the table.
TEST(DedupModel, RandomInternReleaseMatchesReferenceCounts) {
  const auto before = KelpStash::heapStats();
  {
    auto table = Kelp::Ptr<DedupHashTable>(new KelpStash::DedupHashTableUnorderedSet(false));
    std::mt19937_64 rng(20240611);
    std::vector<std::vector<Kelp::Ptr<StashNumberKey>>> held(512);  // by value
    for (int step = 0; step < 1000000; ++step) {
      const std::uint64_t v = rng() % held.size();
      std::vector<Kelp::Ptr<StashNumberKey>>& h = held[v];
      if (rng() % 2 == 0) {
        h.push_back(StashNumberKey::intern(*table, v));
        ASSERT_EQ(h.back().get(), h.front().get()) << "step " << step;
      } else if (!h.empty()) {
        std::swap(h[rng() % h.size()], h.back());
        h.pop_back();
      }
      if (step % 4096 != 0 && step >= 2000) continue;
      std::size_t live = 0;
      for (std::uint64_t value = 0; value < held.size(); ++value) {
        if (held[value].empty()) continue;
        ++live;
        ASSERT_EQ(held[value].front()->references(), held[value].size() + 1) << "value " << value;
        NumberContent c(value);
        ASSERT_EQ(table->find(c, c.hash()).get(), held[value].front().get());
      }
      ASSERT_EQ(table->size(), live) << "step " << step;
    }
    held.clear();
    EXPECT_EQ(table->size(), 0u);
  }
  EXPECT_EQ(KelpStash::heapStats().objectsInUse, before.objectsInUse);
  EXPECT_EQ(KelpStash::heapStats().bytesInUse, before.bytesInUse);
}

}  // namespace
}  // namespace Brim
