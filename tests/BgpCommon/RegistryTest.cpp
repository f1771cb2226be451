// The type registry over the library's own types, as generic code (the tool, Python) uses it.
#include <algorithm>
#include <fstream>
#include <iterator>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "BgpCommon/IgpPolicyTypes.h"
#include "platform/Kelp/Registry.h"

namespace Kelp {
namespace {

TEST(Registry, FindsTypesAndRoundTripsThroughThem) {
  const TypeInfo* t = findType("Routing::Bgp::MaxRoutes");
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(findType("Routing::Bgp::NoSuchType"), nullptr);
  std::any v = t->strepToValue("Value('Routing::Bgp::MaxRoutes', ** {'routes': 3, 'warningThreshold': 2, 'warningOnly': False})");
  // A value of another type is named as generic code knows it: by its registered name.
  const std::any other = findType("Routing::Bgp::MaxAcceptedRoutes")->defaultValue();
  const std::pair<std::any, const char*> mismatches[] = {
      {other, "got 'Routing::Bgp::MaxAcceptedRoutes'"}, {std::any(42), "got 'int'"}, {std::any(), "got 'empty'"}};
  for (const auto& [held, got] : mismatches) {
    EXPECT_THAT([&] { t->valueToStrep(held); },
                testing::ThrowsMessage<TypeException>("type error: expected 'Routing::Bgp::MaxRoutes', " + std::string(got)));
  }
  // Reflection through the registry, as generic code does it.
  std::any result;
  KelpAttrBase routes{t->attribute("routes")->id, "routes"};
  EXPECT_EQ(t->attributeOp(&result, v, &routes, attrOpGet, nullptr, {}), attrStatusDone);
  EXPECT_EQ(std::any_cast<std::uint32_t>(result), 3u);
  // The checked pointer conversion accepts only the value's own type.
  EXPECT_EQ(t->pointerAs(&v, t), &v);
  EXPECT_THROW(t->pointerAs(&v, findType("Routing::Bgp::OutDelay")), TypeException);
  EXPECT_THROW(t->pointerAs(&v, nullptr), TypeException);

  const TypeInfo* e = findType("Routing::OutDelayApplyType");
  EXPECT_EQ(e->kind == TypeKind::enumeration ? e->valueToStrep(e->strepToValue("applyNew")) : "", "applyNew");

  // A type holding a collection cannot be built from text, nor can one that holds such a type:
  // neither is offered the entry, so no text reaches the collection's assertion.
  const TypeInfo* lookup = findType("Routing::BgpRedistribute::IgpResultLookup");
  EXPECT_EQ(findType("Routing::BgpRedistribute::IgpResult")->strepToValue, nullptr);
  EXPECT_EQ(lookup->strepToValue, nullptr);
  EXPECT_EQ(lookup->fields[0].strepToValue, nullptr);
  EXPECT_NE(lookup->fields[1].strepToValue, nullptr);
}

// The fields of the value held in `v`, read through reflection, in declaration order.
std::vector<std::any> fieldsOf(const TypeInfo& t, std::any v) {
  std::vector<std::any> out;
  for (const FieldInfo& f : t.fields) {
    KelpAttrBase attr{t.attribute(f.name)->id, f.name};
    std::any field;
    EXPECT_EQ(t.attributeOp(&field, v, &attr, attrOpGet, nullptr, {}), attrStatusDone) << f.name;
    out.push_back(std::move(field));
  }
  return out;
}

TEST(Registry, EveryValueTypeIsRebuiltFromItsFields) {
  const std::type_info* scalars[] = {&typeid(bool), &typeid(std::uint8_t), &typeid(std::uint16_t),
                                     &typeid(std::uint32_t), &typeid(std::uint64_t)};
  int checked = 0;
  for (const TypeInfo* t : registeredTypes()) {
    if (t->kind != TypeKind::value) continue;
    SCOPED_TRACE(std::string(t->name));
    EXPECT_EQ(t->undescribedStorage(), "");
    if (t->defaultValue == nullptr) continue;
    // Each number or flag field given its own non-zero value, the others their defaults, reads
    // back as given: the constructor takes the fields in declaration order.
    std::vector<std::any> fields = fieldsOf(*t, t->defaultValue());
    for (std::size_t i = 0; i < fields.size(); ++i) {
      const FieldInfo& f = t->fields[i];
      if (std::ranges::any_of(scalars, [&](auto* s) { return *s == *f.cppType; })) {
        fields[i] = f.strepToValue(*f.cppType == typeid(bool) ? "True" : std::to_string(i + 1));
      }
    }
    std::vector<std::any> back = fieldsOf(*t, t->construct(fields));
    for (std::size_t i = 0; i < fields.size(); ++i) {
      EXPECT_EQ(t->fields[i].valueToStrep(back[i]), t->fields[i].valueToStrep(fields[i])) << t->fields[i].name;
    }
    ++checked;
  }
  EXPECT_GT(checked, 20);
}

TEST(Registry, ConstructRefusesWrongArguments) {
  const TypeInfo* t = findType("Routing::Bgp::MaxRoutes");
  std::vector<std::any> args{std::uint32_t(5), std::uint32_t(4)};  // built as given: the JSON test below
  EXPECT_THROW(t->construct(args), TypeException);
  args.push_back(std::uint8_t(1));
  EXPECT_THROW(t->construct(args), TypeException);
}

// JSON from the description: every registered type's default value gives a document a JSON
// parser takes, and the forms that matter are exact (numbers, names, one-field types unwrapped,
// unset numbers null, communities as operators write them, bytes above 0x7E escaped).
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
  EXPECT_EQ(limits->valueToJson(limits->construct(std::vector<std::any>{3u, 2u, true})),
            R"({"routes":3,"warningThreshold":2,"warningOnly":true})");
  Routing::BgpRedistribute::IgpResult r{Routing::BgpRedistribute::IgpResultId(7)};
  r.isisLevel = Routing::Isis::Level::level2;
  r.communityIs(Routing::BgpRedistribute::CommunityIndex(0), (65000u << 16) + 1);
  EXPECT_EQ(valueToJson(r),
            R"({"key":7,"preference":0,"ospfBitDn":false,"ospfv3BitDn":false,"metric":null,"isisLevel":"level2",)"
            R"("ospfMetricType":"typeUnset","ospfDomainId":0,"ospfRouteType":0,"tag":0,"community":["65000:1"]})");
  String text;
  jsonString(text, "a\"b\\c\n\x7e\x7f\xe9");
  EXPECT_EQ(text, R"("a\"b\\c\u000a~\u007f\udce9")");  // 0xE9 alone is no UTF-8: a lone surrogate
}

}  // namespace

// Enumerators' names and numbers are stored, sent to peers and written in configurations: every
// enumeration's are pinned (an enumerator inserted without an initializer renumbers the rest).
TEST(Registry, EnumerationsKeepTheirNamesAndNumbers) {
  std::string listed;
  for (const TypeInfo* t : registeredTypes()) {
    if (t->kind != TypeKind::enumeration) continue;
    listed.append(t->name);
    for (const EnumEntryInfo& e : t->enumerators) listed += " " + std::string(e.name) + "=" + std::to_string(e.value);
    listed += "\n";
  }
  std::ifstream pinned(BGPCOMMON_SOURCE_DIR "/tests/data/enumerations.txt");
  EXPECT_EQ(listed, std::string(std::istreambuf_iterator<char>(pinned), {}));
}

}  // namespace Kelp
