#include "platform/Brim/HandleSet.h"

#include <algorithm>
#include <map>
#include <memory>
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

// Random inserts and removals against a plain model, for hash functions from good to degenerate:
// every member stays findable through growth, removal marks and their clearing, nothing removed
// is found, and removal marks do not make the table grow without bound.
TEST(HandleSet, MatchesAModelUnderChurnWhateverTheHash) {
  struct Case {
    const char* name;
    std::uint32_t (*hashOf)(std::uint64_t);
  };
  const Case cases[] = {
      {"spread", [](std::uint64_t n) { return static_cast<std::uint32_t>(n * 0x9E3779B1u); }},
      {"counter", [](std::uint64_t n) { return static_cast<std::uint32_t>(n); }},
      {"37 values", [](std::uint64_t n) { return static_cast<std::uint32_t>(n % 37); }},
      {"all equal", [](std::uint64_t) { return 7u; }},
  };
  for (const Case& c : cases) {
    constexpr std::uint64_t kValues = 600;
    std::vector<std::unique_ptr<Item>> items;
    for (std::uint64_t n = 0; n < kValues; ++n) items.push_back(std::make_unique<Item>(Item{n, c.hashOf(n)}));
    HandleSet<Item> set;
    std::map<std::uint64_t, bool> in;
    std::mt19937_64 rng(11);
    std::size_t maxCapacity = 0;
    for (int step = 0; step < 60000; ++step) {
      // Mostly a working set of ~200 that keeps moving, so that removal marks pile up.
      const std::uint64_t n = (static_cast<std::uint64_t>(step) / 50 + rng() % 200) % kValues;
      Item* item = items[n].get();
      if (!in[n]) {
        ASSERT_EQ(findIn(set, *item), nullptr) << c.name << " step " << step;
        set.insert(item, item->h);
        in[n] = true;
      } else {
        ASSERT_EQ(findIn(set, *item), item) << c.name << " step " << step;
        set.erase(item, item->h);
        in[n] = false;
      }
      if (step > 10000) maxCapacity = std::max(maxCapacity, set.capacity());
    }
    std::size_t live = 0;
    for (const auto& [n, present] : in) {
      live += present;
      EXPECT_EQ(findIn(set, *items[n]), present ? items[n].get() : nullptr) << c.name << " value " << n;
    }
    EXPECT_EQ(set.size(), live) << c.name;
    std::size_t visited = 0;
    set.forEach([&](Item* i) {
      ++visited;
      EXPECT_TRUE(in[i->n]) << c.name;
    });
    EXPECT_EQ(visited, live) << c.name;
    // At most ~250 live members: 1024 slots would already leave more than 3/4 of them free.
    EXPECT_LE(maxCapacity, 1024u) << c.name;
  }
}

// Among members with one hash (and so one fingerprint) the equality test decides, and removing
// some leaves the others findable behind them.
TEST(HandleSet, EqualHashesAreToldApartByTheEqualityTest) {
  std::vector<Item> items;
  for (std::uint64_t n = 0; n < 300; ++n) items.push_back(Item{n, 0xABCD1234u});
  HandleSet<Item> set;
  for (Item& i : items) set.insert(&i, i.h);
  for (std::uint64_t n = 0; n < 300; n += 2) set.erase(&items[n], items[n].h);
  for (std::uint64_t n = 0; n < 300; ++n) {
    EXPECT_EQ(findIn(set, items[n]), n % 2 == 0 ? nullptr : &items[n]) << n;
  }
  EXPECT_EQ(set.size(), 150u);
}

// A steady flow of new members in and old ones out leaves removal marks behind; the table clears
// them by rebuilding at its size instead of growing for ever.
TEST(HandleSet, SteadyTurnoverKeepsTheTableSize) {
  constexpr std::size_t kLive = 850;
  std::vector<Item> items(200000);
  HandleSet<Item> set;
  std::size_t capacityAfterWarmUp = 0;
  for (std::size_t n = 0; n < items.size(); ++n) {
    items[n] = Item{n, static_cast<std::uint32_t>(n * 0x9E3779B1u)};
    set.insert(&items[n], items[n].h);
    if (n >= kLive) set.erase(&items[n - kLive], items[n - kLive].h);
    if (n == 10 * kLive) capacityAfterWarmUp = set.capacity();
  }
  EXPECT_EQ(set.size(), kLive);
  EXPECT_EQ(set.capacity(), capacityAfterWarmUp);
  for (std::size_t n = items.size() - kLive; n < items.size(); ++n) ASSERT_EQ(findIn(set, items[n]), &items[n]);
}

TEST(HandleSetDeathTest, RefusesAddressesThatDoNotFitBesideTheFingerprint) {
  HandleSet<Item> set;
  auto* high = reinterpret_cast<Item*>(std::uintptr_t{1} << 50);
  EXPECT_DEATH(set.insert(high, 1), "address != 0 && \\(address & ~kPointerMask\\) == 0");
}

}  // namespace
}  // namespace Brim

namespace Brim {
namespace {

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
