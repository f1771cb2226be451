#include <algorithm>
#include <optional>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/Kelp/Ptr.h"
#include "platform/Kelp/Registry.h"
#include "BgpCommon/IgpPolicyTypes.h"

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

namespace Kelp {
namespace {

// The fields of the value held in `v`, read through reflection, in declaration order.
std::vector<std::any> fieldsOf(const TypeInfo& t, std::any v) {
  std::vector<std::any> out;
  for (const FieldInfo& f : t.fields) {
    const AttrInfo* a = t.attribute(f.name);
    KelpAttrBase attr{a->id, a->name};
    std::any field;
    EXPECT_EQ(t.attributeOp(&field, v, &attr, attrOpGet, nullptr, {}), attrStatusDone) << f.name;
    out.push_back(std::move(field));
  }
  return out;
}

bool equalValues(const TypeInfo& t, std::any a, const std::any& b) {
  std::any result;
  EXPECT_EQ(t.attributeOp(&result, a, nullptr, attrOpEqual, &b, {}), attrStatusDone);
  return std::any_cast<bool>(result);
}

// A non-zero value of an unsigned or bool field, different for each position; none for other types.
std::optional<std::any> distinctValue(const std::type_info& type, std::size_t i) {
  const auto n = static_cast<std::uint8_t>(i + 1);
  if (type == typeid(bool)) return std::any(true);
  if (type == typeid(std::uint8_t)) return std::any(std::uint8_t(n));
  if (type == typeid(std::uint16_t)) return std::any(std::uint16_t(n));
  if (type == typeid(std::uint32_t)) return std::any(std::uint32_t(n));
  if (type == typeid(std::uint64_t)) return std::any(std::uint64_t(n));
  return std::nullopt;
}

bool sameScalar(const std::any& a, const std::any& b) {
  if (a.type() != b.type()) return false;
  if (a.type() == typeid(bool)) return std::any_cast<bool>(a) == std::any_cast<bool>(b);
  if (a.type() == typeid(std::uint8_t)) return std::any_cast<std::uint8_t>(a) == std::any_cast<std::uint8_t>(b);
  if (a.type() == typeid(std::uint16_t)) return std::any_cast<std::uint16_t>(a) == std::any_cast<std::uint16_t>(b);
  if (a.type() == typeid(std::uint32_t)) return std::any_cast<std::uint32_t>(a) == std::any_cast<std::uint32_t>(b);
  return std::any_cast<std::uint64_t>(a) == std::any_cast<std::uint64_t>(b);
}

TEST(Registry, EveryValueTypeIsRebuiltFromItsFields) {
  int checked = 0;
  for (const TypeInfo* t : registeredTypes()) {
    if (t->kind != TypeKind::value) continue;
    SCOPED_TRACE(std::string(t->name));
    ASSERT_NE(t->construct, nullptr);
    EXPECT_EQ(t->undescribedStorage(), "");
    ASSERT_EQ(t->fields.size(), static_cast<std::size_t>(std::count_if(t->attributes.begin(), t->attributes.end(),
                                                          [](const AttrInfo& a) { return a.kind == AttrKind::field; })));
    if (t->defaultValue == nullptr) continue;
    std::any zero = t->defaultValue();
    std::vector<std::any> fields = fieldsOf(*t, zero);
    EXPECT_TRUE(equalValues(*t, t->construct(fields), zero));

    // Each scalar field given its own non-zero value reads back as given: the constructor takes
    // the fields in declaration order.
    for (std::size_t i = 0; i < fields.size(); ++i) {
      if (auto d = distinctValue(*t->fields[i].cppType, i)) fields[i] = *d;
    }
    std::vector<std::any> back = fieldsOf(*t, t->construct(fields));
    for (std::size_t i = 0; i < fields.size(); ++i) {
      if (distinctValue(*t->fields[i].cppType, i)) EXPECT_TRUE(sameScalar(back[i], fields[i])) << t->fields[i].name;
    }
    ++checked;
  }
  EXPECT_GT(checked, 20);
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

TEST(Registry, ConstructRefusesWrongArguments) {
  const TypeInfo* t = findType("Routing::Bgp::MaxRoutes");
  ASSERT_NE(t, nullptr);
  std::vector<std::any> args{std::uint32_t(5), std::uint32_t(4), true};
  EXPECT_EQ(t->valueToStrep(t->construct(args)),
            "Value('Routing::Bgp::MaxRoutes', ** {'routes': 5, 'warningThreshold': 4, 'warningOnly': True})");
  args.pop_back();
  EXPECT_THROW(t->construct(args), TypeException);
  args.push_back(std::uint8_t(1));
  EXPECT_THROW(t->construct(args), TypeException);
}

TEST(Registry, ValuesHoldingARecordThatRefusesTextOfferNoParser) {
  // IgpResult asserts when built from text; a lookup result holds one.
  for (const char* name : {"Routing::BgpRedistribute::IgpResult", "Routing::BgpRedistribute::IgpResultLookup"}) {
    const TypeInfo* t = findType(name);
    ASSERT_NE(t, nullptr) << name;
    EXPECT_EQ(t->strepToValue, nullptr) << name;
  }
  const TypeInfo* lookup = findType("Routing::BgpRedistribute::IgpResultLookup");
  EXPECT_EQ(lookup->fields[0].strepToValue, nullptr);
  EXPECT_NE(lookup->fields[1].strepToValue, nullptr);
}

TEST(Registry, PointerTestAcceptsOnlyTheValuesOwnType) {
  const TypeInfo* t = findType("Routing::Bgp::MaxRoutes");
  const TypeInfo* other = findType("Routing::Bgp::OutDelay");
  ASSERT_NE(t, nullptr);
  ASSERT_NE(other, nullptr);
  std::any v = t->defaultValue();
  const void* p = &v;
  EXPECT_EQ(t->pointerAs(p, t), p);
  EXPECT_THROW(t->pointerAs(p, other), TypeException);
  EXPECT_THROW(t->pointerAs(p, nullptr), TypeException);
}

}  // namespace
}  // namespace Kelp

namespace Kelp {
namespace {

// JSON from the description: every registered type's default value gives a document a JSON
// parser takes, and the forms that matter are exact (numbers, names, one-field types unwrapped,
// unset numbers null, communities as operators write them, text escaped).
TEST(Registry, EveryValueHasItsJson) {
  std::size_t checked = 0;
  for (const TypeInfo* t : registeredTypes()) {
    if (t->defaultValue == nullptr || t->valueToJson == nullptr) continue;
    const String j = t->valueToJson(t->defaultValue());
    EXPECT_TRUE(nlohmann::json::accept(j)) << t->name << ": " << j;
    ++checked;
  }
  EXPECT_GT(checked, 30u);
  const TypeInfo* limits = findType("Routing::Bgp::MaxRoutes");
  ASSERT_NE(limits, nullptr);
  EXPECT_EQ(limits->valueToJson(limits->strepToValue(
                "Value('Routing::Bgp::MaxRoutes', ** {'routes': 3, 'warningThreshold': 2, 'warningOnly': True})")),
            R"({"routes":3,"warningThreshold":2,"warningOnly":true})");
  Routing::BgpRedistribute::IgpResult r{Routing::BgpRedistribute::IgpResultId(7)};
  r.isisLevel = Routing::Isis::Level::level2;
  r.communityIs(Routing::BgpRedistribute::CommunityIndex(0), (65000u << 16) + 1);
  EXPECT_EQ(valueToJson(r),
            R"({"key":7,"preference":0,"ospfBitDn":false,"ospfv3BitDn":false,"metric":null,"isisLevel":"level2",)"
            R"("ospfMetricType":"typeUnset","ospfDomainId":0,"ospfRouteType":0,"tag":0,"community":["65000:1"]})");
  String text;
  jsonString(text, "a\"b\\c\n\xe9");
  EXPECT_EQ(text, R"("a\"b\\c\u000a\u00e9")");
}

}  // namespace
}  // namespace Kelp
