#include "platform/Kelp/HashMap2018.h"

#include <map>
#include <random>

#include <gtest/gtest.h>

namespace {

// Keys hash with the framework's hash under the collection's own seed.
TEST(HashMap2018, HashesWithTheCollectionSeed) {
  Kelp::HashMap2018<std::uint32_t, int> a(1), b(2);
  Kelp::Hash h(1);
  h.hashMix(std::uint32_t{77});
  EXPECT_EQ(a.hash(77), h.result());
  EXPECT_NE(a.hash(77), b.hash(77));
}

// Random operations against std::map as the model.
TEST(HashMap2018, BehavesLikeAMap) {
  Kelp::HashMap2018<std::uint16_t, std::uint32_t> m(0x1234);
  std::map<std::uint16_t, std::uint32_t> model;
  std::mt19937 rng(42);
  for (int i = 0; i < 20000; ++i) {
    const std::uint16_t k = rng() % 512;
    const std::uint32_t v = rng(), op = rng() % 4;
    auto it = model.find(k);
    const bool present = it != model.end();
    if (op == 0) {
      auto [p, added] = m.tryEmplace(k, v);
      EXPECT_EQ(added, !present);
      EXPECT_EQ(*p, present ? it->second : v);
      model.try_emplace(k, v);
    } else if (op == 1) {
      m.insertOrAssign(k, v);
      model[k] = v;
    } else if (op == 2) {
      std::optional<std::uint32_t> taken = m.take(k);
      ASSERT_EQ(taken, present ? std::optional(it->second) : std::nullopt);
      if (present) model.erase(it);
    } else {
      const std::uint32_t* p = m.find(k);
      ASSERT_EQ(p ? std::optional(*p) : std::nullopt, present ? std::optional(it->second) : std::nullopt);
    }
    ASSERT_EQ(m.size(), model.size());
  }
  std::map<std::uint16_t, std::uint32_t> walked(m.begin(), m.end());
  EXPECT_EQ(walked, model);
  EXPECT_TRUE(m.erase(walked.begin()->first));
  m.clear();
  EXPECT_TRUE(m.empty());
}

}  // namespace
