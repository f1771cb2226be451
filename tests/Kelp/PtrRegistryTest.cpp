#include <thread>

#include <gtest/gtest.h>

#include "platform/Kelp/Ptr.h"
#include "platform/Kelp/Registry.h"

namespace Kelp {
namespace {

struct Counted : PtrInterface {
  explicit Counted(int* destroyed) : destroyed_(destroyed) {}
  ~Counted() override { ++*destroyed_; }
  int* destroyed_;
};
struct Derived : Counted {
  using Counted::Counted;
};

TEST(Ptr, CountsCopiesMovesAndConversions) {
  int destroyed = 0;
  {
    Ptr<Derived> d = makePtr<Derived>(&destroyed);
    Ptr<const Counted> c = d;
    EXPECT_EQ(d->references(), 2u);
    Ptr<const Counted> moved = std::move(c);
    EXPECT_FALSE(c);
    EXPECT_EQ(d->references(), 2u);
    EXPECT_EQ(ptrDynamicCast<const Derived>(moved).get(), d.get());
    moved = nullptr;
    EXPECT_EQ(d->references(), 1u);
    Ptr<Counted> back = Ptr<Counted>::adopt(d.release());
    EXPECT_TRUE(destroyed == 0 && back->references() == 1u);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(Ptr, ThreadsSharingOneObjectDestroyItOnce) {
  int destroyed = 0;
  Ptr<Counted> shared = makePtr<Counted>(&destroyed);
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([copy = shared] {
      for (int i = 0; i < 100000; ++i) Ptr<Counted> local = copy;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(shared->references(), 1u);
  shared = nullptr;
  EXPECT_EQ(destroyed, 1);
}

// Two modules may register one type name (a library reloaded while its old copy is still mapped):
// the newer registration wins, and unloading the older module leaves it in place.
TEST(Registry, UnloadingAnOlderModuleKeepsTheNewerType) {
  TypeInfo older = entityType("Test::Reloaded", {"a"});
  TypeInfo newer = entityType("Test::Reloaded", {"a"});
  auto* first = new TypeModule("ReloadedOld", {&older});
  {
    TypeModule second("ReloadedNew", {&newer});
    EXPECT_EQ(findType("Test::Reloaded"), &newer);
    delete first;
    EXPECT_EQ(findType("Test::Reloaded"), &newer);
  }
  EXPECT_EQ(findType("Test::Reloaded"), nullptr);
}

// Types that leave a member out of their description: one between fields, one after them.
struct Between : ValueBase<Between> {
  std::uint8_t a = 0;
  std::uint64_t hidden = 0;
  std::uint64_t b = 0;
  friend constexpr auto kelpType(Tag<Between>) {
    return valueType<Between>("T::Between", field("a", &Between::a), field("b", &Between::b));
  }
};
struct After : ValueBase<After> {
  std::uint32_t a = 0;
  std::uint32_t hidden = 0;
  friend constexpr auto kelpType(Tag<After>) { return valueType<After>("T::After", field("a", &After::a)); }
};
TEST(Registry, AMemberLeftOutOfTheDescriptionIsFound) {
  EXPECT_EQ(undescribedStorage<Between>(), "T::Between: bytes 1 to 15 before field 'b' belong to no described field");
  EXPECT_EQ(undescribedStorage<After>(), "T::After: bytes 4 to 7 after the last described field belong to no described field");
}

}  // namespace
}  // namespace Kelp
