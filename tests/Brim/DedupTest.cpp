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

TYPED_TEST(DedupTable, SameValueSameObjectUntilLastRelease) {
  auto a = this->intern(7);
  auto b = this->intern(7);
  auto c = this->intern(8);
  EXPECT_EQ(a.get(), b.get());
  EXPECT_NE(a.get(), c.get());
  EXPECT_EQ(this->table->size(), 2u);
  EXPECT_EQ(a->references(), 3u);  // a, b and the table
  EXPECT_EQ(a->dedupState(), DedupState::deduped);
  EXPECT_EQ(a->getDedupHashTable(), this->table.get());
  a->assertIsDeduped();

  b = nullptr;
  EXPECT_EQ(this->table->size(), 2u);
  a = nullptr;
  EXPECT_EQ(this->table->size(), 1u);
  NumberContent seven(7);
  EXPECT_EQ(this->table->find(seven, seven.hash()), nullptr);
  auto again = this->intern(7);
  EXPECT_TRUE(again->isDeduped());
  EXPECT_EQ(this->table->size(), 2u);
  EXPECT_EQ(again->references(), 2u);
}

TYPED_TEST(DedupTable, LookupsNeverInsert) {
  using Key = typename TestFixture::Key;
  NumberContent c(42);
  EXPECT_EQ(this->table->find(c, c.hash()), nullptr);
  Key like(42);
  EXPECT_EQ(this->table->lookup(like), nullptr);
  EXPECT_EQ(this->table->size(), 0u);
  auto k = this->intern(42);
  EXPECT_EQ(this->table->find(c, c.hash()).get(), k.get());
  EXPECT_EQ(this->table->lookup(like).get(), k.get());
  EXPECT_EQ(k->references(), 2u);  // the lookups' references are gone again
}

TYPED_TEST(DedupTable, ReadyHandleIsAdoptedOrAnsweredByTheOlderOne) {
  using Key = typename TestFixture::Key;
  auto fresh = Kelp::makePtr<Key>(5);
  EXPECT_EQ(fresh->dedupState(), DedupState::neverDeduped);
  EXPECT_FALSE(fresh->everDeduped());
  EXPECT_EQ(fresh->getDedupHashTable(), nullptr);
  auto in = Brim::handleCast<Key>(this->table->dedup(fresh.get()));
  EXPECT_EQ(in.get(), fresh.get());
  EXPECT_TRUE(fresh->isDeduped());
  // Deduping it again answers itself.
  EXPECT_EQ(this->table->dedup(fresh.get()).get(), fresh.get());

  auto twin = Kelp::makePtr<Key>(5);
  auto answer = this->table->dedup(twin.get());
  EXPECT_EQ(answer.get(), fresh.get());
  EXPECT_EQ(twin->dedupState(), DedupState::neverDeduped);
  EXPECT_EQ(twin->references(), 1u);  // untouched; dropped normally by its holder
}

TYPED_TEST(DedupTable, RemoveTakesAHandleOutButLeavesItAlive) {
  auto k = this->intern(9);
  EXPECT_TRUE(this->table->remove(k.get()));
  EXPECT_FALSE(this->table->remove(k.get()));
  EXPECT_EQ(k->dedupState(), DedupState::removedByTable);
  EXPECT_TRUE(k->everDeduped());
  EXPECT_FALSE(k->isDeduped());
  EXPECT_EQ(k->getDedupHashTable(), nullptr);
  EXPECT_EQ(k->references(), 1u);
  EXPECT_EQ(this->table->size(), 0u);
  auto other = this->intern(9);
  EXPECT_NE(other.get(), k.get());
  EXPECT_EQ(this->table->size(), 1u);
}

TYPED_TEST(DedupTable, NotifieeHearsInsertAndLastRelease) {
  auto n = Kelp::makePtr<CountingNotifiee>();
  this->table->lifeTimeNotifieeIs(n);
  this->table->hasNotificationActiveIs(true);
  {
    auto a = this->intern(1);
    auto b = this->intern(1);
    auto c = this->intern(2);
    EXPECT_EQ(n->inserted, (std::map<std::uint64_t, int>{{1, 1}, {2, 1}}));
    EXPECT_TRUE(n->removed.empty());
    a = nullptr;
    EXPECT_TRUE(n->removed.empty());
  }
  EXPECT_EQ(n->removed, (std::map<std::uint64_t, int>{{1, 1}, {2, 1}}));
  this->table->hasNotificationActiveIs(false);
  this->intern(3);
  EXPECT_EQ(n->inserted.count(3), 0u);
  this->table->lifeTimeNotifieeIs(nullptr);
  EXPECT_EQ(n->stops, 1);
}

TYPED_TEST(DedupTable, KeysKeepTheirTableAlive) {
  auto k = this->intern(11);
  DedupHashTable* raw = this->table.get();
  this->table = nullptr;  // the owner lets go; the key still refers to the table
  EXPECT_EQ(k->getDedupHashTable(), raw);
  EXPECT_EQ(raw->size(), 1u);
  auto same = TestFixture::Key::intern(*raw, 11);
  EXPECT_EQ(same.get(), k.get());
  same = nullptr;
  k = nullptr;  // the last key goes, and with it the table (checked by the sanitizers)
}

TEST(DedupHandleDeathTest, AssertIsDeduped) {
  auto k = Kelp::makePtr<HeapNumberKey>(1);
  EXPECT_DEATH(k->assertIsDeduped(), "isDeduped\\(\\)");
  DedupHandleBase::assertIsDedupedDisabledIs(true);
  k->assertIsDeduped();
  DedupHandleBase::assertIsDedupedDisabledIs(false);
}

TEST(DedupHandle, InternedStashKeyCostsItsFieldsPlusSixteenOctets) {
  EXPECT_EQ(sizeof(DedupHandleBase), 16u);
  EXPECT_EQ(sizeof(KelpStash::DedupHandleWithTableInHeap), 16u);
  EXPECT_EQ(sizeof(StashNumberKey), 24u);
}

// A long seeded sequence of interns and releases against a plain model of how many references
// each value has outside the table.
TEST(DedupModel, RandomInternReleaseMatchesReferenceCounts) {
  const auto before = KelpStash::heapStats();
  {
    auto table = Kelp::Ptr<DedupHashTable>(new KelpStash::DedupHashTableUnorderedSet(false));
    std::mt19937_64 rng(20240611);
    constexpr std::uint64_t kValues = 512;
    std::vector<std::vector<Kelp::Ptr<StashNumberKey>>> held(kValues);
    std::map<std::uint64_t, std::size_t> expected;  // value -> outside references
    for (int step = 0; step < 1000000; ++step) {
      std::uint64_t v = rng() % kValues;
      if (rng() % 2 == 0) {
        auto k = StashNumberKey::intern(*table, v);
        if (!held[v].empty()) ASSERT_EQ(k.get(), held[v].front().get()) << "step " << step;
        held[v].push_back(std::move(k));
        ++expected[v];
      } else if (!held[v].empty()) {
        std::size_t i = rng() % held[v].size();
        std::swap(held[v][i], held[v].back());
        held[v].pop_back();
        if (--expected[v] == 0) expected.erase(v);
      }
      if (step % 4096 == 0 || step < 2000) {
        ASSERT_EQ(table->size(), expected.size()) << "step " << step;
        for (const auto& [value, refs] : expected) {
          ASSERT_EQ(held[value].front()->references(), refs + 1) << "value " << value;
          NumberContent c(value);
          ASSERT_EQ(table->find(c, c.hash()).get(), held[value].front().get());
        }
      }
    }
    held.clear();
    EXPECT_EQ(table->size(), 0u);
  }
  const auto after = KelpStash::heapStats();
  EXPECT_EQ(after.objectsInUse, before.objectsInUse);
  EXPECT_EQ(after.bytesInUse, before.bytesInUse);
}

}  // namespace
}  // namespace Brim
