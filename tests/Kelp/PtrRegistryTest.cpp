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
    EXPECT_EQ(d->references(), 1u);
    Ptr<const Counted> c = d;
    EXPECT_EQ(d->references(), 2u);
    Ptr<const Counted> moved = std::move(c);
    EXPECT_FALSE(c);
    EXPECT_EQ(d->references(), 2u);
    EXPECT_TRUE(moved == d);
    EXPECT_EQ(ptrDynamicCast<const Derived>(moved).get(), d.get());
    moved = nullptr;
    EXPECT_EQ(d->references(), 1u);
    Counted* raw = d.release();
    EXPECT_EQ(destroyed, 0);
    Ptr<Counted> back = Ptr<Counted>::adopt(raw);
    EXPECT_EQ(back->references(), 1u);
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

TEST(Registry, FindsTypesAndRoundTripsThroughThem) {
  const TypeInfo* t = findType("Routing::Bgp::MaxRoutes");
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->kind, TypeKind::value);
  EXPECT_EQ(findType("Routing::Bgp::NoSuchType"), nullptr);
  std::any v = t->strepToValue("Value('Routing::Bgp::MaxRoutes', ** {'routes': 3, 'warningThreshold': 2, 'warningOnly': False})");
  // A value of another type is named as generic code knows it: by its registered name.
  const std::any other = findType("Routing::Bgp::MaxAcceptedRoutes")
                             ->strepToValue("Value('Routing::Bgp::MaxAcceptedRoutes', ** {'routes': 5, 'warningThreshold': 4})");
  const std::pair<std::any, const char*> mismatches[] = {
      {other, "got 'Routing::Bgp::MaxAcceptedRoutes'"}, {std::any(42), "got 'int'"}, {std::any(), "got 'empty'"}};
  for (const auto& [held, got] : mismatches) {
    try {
      t->valueToStrep(held);
      ADD_FAILURE() << got;
    } catch (const TypeException& e) {
      EXPECT_EQ(e.what(), "type error: expected 'Routing::Bgp::MaxRoutes', " + std::string(got));
    }
  }

  // Reflection through the registry, as generic code does it.
  std::any result;
  KelpAttrBase routes{t->attribute("routes")->id, "routes"};
  EXPECT_EQ(t->attributeOp(&result, v, &routes, attrOpGet, nullptr, {}), attrStatusDone);
  EXPECT_EQ(std::any_cast<std::uint32_t>(result), 3u);

  auto types = registeredTypes();
  EXPECT_TRUE(std::is_sorted(types.begin(), types.end(), [](auto* a, auto* b) { return a->name < b->name; }));
  const TypeInfo* e = findType("Routing::OutDelayApplyType");
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->kind, TypeKind::enumeration);
  EXPECT_EQ(e->valueToStrep(e->strepToValue("applyNew")), "applyNew");

  // A type holding a collection cannot be built from text, nor can one that holds such a type:
  // neither is offered the entry, so no text reaches the collection's assertion.
  for (const char* name : {"Routing::BgpRedistribute::IgpResult", "Routing::BgpRedistribute::IgpResultLookup"}) {
    ASSERT_NE(findType(name), nullptr) << name;
    EXPECT_EQ(findType(name)->strepToValue, nullptr) << name;
  }
}

}  // namespace
}  // namespace Kelp
