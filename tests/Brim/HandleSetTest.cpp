#include "platform/Brim/HandleSet.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace Brim {
namespace {

// A member whose hash the test chooses, so that runs of equal and neighbouring hashes can be made.
struct Item {
  std::uint64_t n;
  std::uint32_t h;
  std::uint32_t hash() const { return h; }
};

Item* findIn(const HandleSet<Item>& set, const Item& like) {
  return set.find(like.h, [&](const Item* i) { return i->n == like.n; });
}

// Random inserts and removals against a plain model, for hash functions from good to degenerate
// (all equal: the equality test alone tells members apart): every member stays findable through
// growth, removal marks and their clearing, nothing removed is found, and removal marks do not
// make the table grow without bound.
TEST(HandleSet, MatchesAModelUnderChurnWhateverTheHash) {
  const std::pair<const char*, std::uint32_t (*)(std::uint64_t)> cases[] = {
      {"spread", [](std::uint64_t n) { return static_cast<std::uint32_t>(n * 0x9E3779B1u); }},
      {"counter", [](std::uint64_t n) { return static_cast<std::uint32_t>(n); }},
      {"37 values", [](std::uint64_t n) { return static_cast<std::uint32_t>(n % 37); }},
      {"all equal", [](std::uint64_t) { return 7u; }},
  };
  for (auto [name, hashOf] : cases) {
    std::vector<Item> items;
    for (std::uint64_t n = 0; n < 600; ++n) items.push_back(Item{n, hashOf(n)});
    std::vector<bool> in(items.size());
    HandleSet<Item> set;
    std::mt19937_64 rng(11);
    std::size_t maxCapacity = 0;
    for (int step = 0; step < 60000; ++step) {
      // Mostly a working set of ~200 that keeps moving, so that removal marks pile up.
      Item& item = items[(static_cast<std::uint64_t>(step) / 50 + rng() % 200) % items.size()];
      ASSERT_EQ(findIn(set, item), in[item.n] ? &item : nullptr) << name << " step " << step;
      if (in[item.n]) {
        set.erase(&item, item.h);
      } else {
        set.insert(&item, item.h);
      }
      in[item.n] = !in[item.n];
      if (step > 10000) maxCapacity = std::max(maxCapacity, set.capacity());
    }
    std::size_t visited = 0, strangers = 0;
    set.forEach([&](Item* i) { ++(in[i->n] ? visited : strangers); });
    EXPECT_EQ(strangers, 0u) << name;
    EXPECT_EQ(visited, static_cast<std::size_t>(std::count(in.begin(), in.end(), true))) << name;
    EXPECT_EQ(set.size(), visited) << name;
    for (Item& item : items) EXPECT_EQ(findIn(set, item), in[item.n] ? &item : nullptr) << name << " value " << item.n;
    // At most ~250 live members: 1024 slots would already leave more than 3/4 of them free.
    EXPECT_LE(maxCapacity, 1024u) << name;
  }
}

TEST(HandleSetDeathTest, RefusesAddressesThatDoNotFitBesideTheFingerprint) {
  HandleSet<Item> set;
  auto* high = reinterpret_cast<Item*>(std::uintptr_t{1} << 50);
  EXPECT_DEATH(set.insert(high, 1), "address != 0 && \\(address & ~kPointerMask\\) == 0");
}

// Hashes a peer could aim at one home if the table spread them with a fixed multiplier: 1024 of
// them all land at home 0 of 2048 slots (and so of every smaller table) under the multiplier a
// table without a secret would use. The table's own multiplier scatters them: no member sits more
// than a few dozen slots past its home (60 at most over 200 seeds), where the aimed layout would put
// the last one 1023 past.
TEST(HandleSet, HashesAimedAtOneHomeDoNotMakeARun) {
  constexpr std::uint64_t kFixed = 0x9E3779B97F4A7C15ull;
  std::vector<Item> items;
  for (std::uint32_t h = 0; items.size() < 1024; ++h) {
    if (((std::uint64_t{h} * kFixed) >> (64 - 11)) == 0) items.push_back({items.size(), h});
  }
  HandleSet<Item> set;
  for (Item& i : items) set.insert(&i, i.h);
  ASSERT_EQ(set.capacity(), 2048u);
  std::size_t longest = 0;
  for (const Item& i : items) longest = std::max(longest, set.displacement(&i, i.h));
  EXPECT_LT(longest, 256u);
}

}  // namespace
}  // namespace Brim
