#include "BgpCommon/IgpPolicyTypes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "BgpCommon/IgpResultStatusReaderHelper.h"
#include "platform/Kelp/Registry.h"
#include "tests/Support/PolicyResults.h"
#include "tests/Support/ValueConformance.h"

namespace Routing::BgpRedistribute {
namespace {

using Routing::Bgp::IgpResult_;
using testing_support::expectValueConformance;
using testing_support::rangeMessage;

const char* const kIndexRangeMessage =
    "Routing::BgpRedistribute::CommunityIndex::value < Routing::BgpRedistribute::CommunityIndex::min or > "
    "Routing::BgpRedistribute::CommunityIndex::max not allowed";

// A record with every field set and two communities, NO_EXPORT first.
IgpResult fullRecord() {
  IgpResult r{IgpResultId(0x01020304)};
  r.preference = 110;
  r.ospfBitDn = true;
  r.metric.valueIs(20);
  r.isisLevel = Isis::Level::level2;
  r.ospfMetricType = Ospf::OspfExtMetricType::type1;
  r.ospfDomainId = 0x1122334455667788ull;
  r.ospfRouteType = 5;
  r.tag = 0xDEADBEEFu;
  r.communityIs(CommunityIndex(0), 0xFFFFFF01u);
  r.communityIs(CommunityIndex(1), 100);
  return r;
}

TEST(IgpPolicyTypes, IdentifiersAndBuildingBlocks) {
  expectValueConformance<IgpResultId>({IgpResultId(), IgpResultId(7), IgpResultId(4294967295u)});
  expectValueConformance<CommunityIndex>({CommunityIndex(0), CommunityIndex(3)});
  expectValueConformance<RoutePreference>({RoutePreference(0), RoutePreference(110), RoutePreference(255)});
  expectValueConformance<RouteTag>({RouteTag(0), RouteTag(4294967295u)});
  EXPECT_EQ(Kelp::valueToStrep(IgpResultId(7)), "7");
  EXPECT_EQ(rangeMessage([] { Kelp::strepToValue<IgpResultId>("x"); }),
            "value: expected an unsigned number at offset 0, found \"x\"");
  // An index beyond the last slot, built or parsed.
  EXPECT_EQ(rangeMessage([] { CommunityIndex(4); }), kIndexRangeMessage);
  const char* const four = "Value('Routing::BgpRedistribute::CommunityIndex', ** {'value': 4})";
  EXPECT_EQ(rangeMessage([&] { Kelp::strepToValue<CommunityIndex>(four); }), kIndexRangeMessage);
  // Metrics: unset prints as None; a set one holds at most 2^63-1.
  EXPECT_EQ(Kelp::valueToStrep(Kelp::MaybeU63()), "None");
  EXPECT_EQ(Kelp::strepToValue<Kelp::MaybeU63>("9223372036854775807"), Kelp::MaybeU63(Kelp::MaybeU63::kMaxValue));
  EXPECT_THROW(Kelp::strepToValue<Kelp::MaybeU63>("9223372036854775808"), Kelp::RangeException);
  EXPECT_THROW(Kelp::MaybeU63(Kelp::MaybeU63::kUnsetBit), Kelp::RangeException);
}

// Each row applies operations to a fresh array ('i' communityIs, 'd' communityDel returning
// `value`, 'a' communityDelAll) and states the used values that result. Records and policy results
// hold their communities in this array.
TEST(IgpPolicyTypes, CommunityArrayKeepsItsCountOnASetValue) {
  struct Op { char kind; std::uint32_t index, value; };
  const std::pair<std::vector<Op>, std::vector<std::uint32_t>> rows[] = {
      {{{'i', 2, 30}}, {0, 0, 30}},
      {{{'i', 2, 30}, {'d', 2, 30}}, {}},
      {{{'i', 0, 10}, {'i', 1, 20}, {'d', 0, 10}}, {0, 20}},
      {{{'i', 0, 10}, {'i', 2, 30}, {'d', 2, 30}}, {10}},
      {{{'i', 3, 40}, {'i', 0, 10}, {'d', 3, 40}}, {10}},
      {{{'i', 0, 10}, {'i', 1, 20}, {'d', 3, 0}}, {10, 20}},
      {{{'d', 1, 0}}, {}},
      {{{'i', 1, 20}, {'i', 1, 0}}, {0, 0}},
      {{{'i', 0, 10}, {'i', 3, 40}, {'a', 0, 0}}, {}},
      {{{'i', 0, 10}, {'i', 1, 20}, {'d', 1, 20}, {'i', 2, 30}}, {10, 0, 30}},
  };
  for (std::size_t r = 0; r < std::size(rows); ++r) {
    CommunityArray a;
    for (const Op& op : rows[r].first) {
      if (op.kind == 'i') a.communityIs(CommunityIndex(op.index), op.value);
      else if (op.kind == 'd') EXPECT_EQ(a.communityDel(CommunityIndex(op.index)), op.value) << "row " << r;
      else a.communityDelAll();
    }
    std::vector<std::uint32_t> used;
    for (auto it = a.begin(); it; ++it) used.push_back(it.value());
    EXPECT_EQ(used, rows[r].second) << "row " << r;
  }

  // The iterator form refuses a position past the last slot before changing anything.
  IgpResult r{IgpResultId(1)};
  r.communityIs(CommunityIndex(0), 10);
  CommunityArray::Iterator past(&r.community, 4), second(&r.community, 1);
  EXPECT_EQ(rangeMessage([&] { r.communityIs(past, 1); }), kIndexRangeMessage);
  EXPECT_EQ(rangeMessage([&] { r.communityDel(past); }), kIndexRangeMessage);
  EXPECT_EQ(r.community.count(), 1u);
  r.communityIs(second, 20);
  EXPECT_EQ(r.communityDel(second), 20u);
  EXPECT_EQ(r.community.count(), 1u);
}

// A fresh record's text, and golden vectors read both ways: the layout byte for byte.
TEST(IgpPolicyTypes, TextAndSerializedLayout) {
  IgpResult fresh{IgpResultId(7)};
  EXPECT_EQ(Kelp::valueToStrep(fresh),
            "Value('Routing::BgpRedistribute::IgpResult', ** {'key': 7, 'preference': 0, 'ospfBitDn': False, "
            "'ospfv3BitDn': False, 'metric': None, 'isisLevel': levelUnset, 'ospfMetricType': typeUnset, "
            "'ospfDomainId': 0, 'ospfRouteType': 0, 'tag': 0, 'community': []})");
  EXPECT_FALSE(IgpResult(IgpResultId()));
  EXPECT_TRUE(fresh);  // its key differs from a default record's
  const std::vector<std::uint8_t> freshBytes = {
      7, 0, 0, 0, 0, 0, 0, 0xEE,                         // key, preference, DN bits, padding
      0, 0, 0, 0, 0, 0, 0, 0x80,                         // metric: unset
      4, 0, 0, 0, 3, 0, 0, 0,                            // isisLevel, ospfMetricType
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,    // ospfDomainId, ospfRouteType
      0, 0, 0, 0, 0, 0, 0, 0,                            // tag, community count
  };
  const IgpResult full = fullRecord();
  const std::vector<std::uint8_t> fullBytes = {
      4, 3, 2, 1, 110, 1, 0, 0xEE,
      20, 0, 0, 0, 0, 0, 0, 0,
      2, 0, 0, 0, 1, 0, 0, 0,
      0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 5, 0, 0, 0, 0, 0, 0, 0,
      0xEF, 0xBE, 0xAD, 0xDE, 2, 0, 0, 0,
      0x01, 0xFF, 0xFF, 0xFF, 100, 0, 0, 0,
  };
  for (const auto& [value, golden] : {std::pair{fresh, freshBytes}, std::pair{full, fullBytes}}) {
    ASSERT_EQ(value.serializeLen(), golden.size());
    std::vector<std::uint8_t> out(golden.size(), 0xEE);  // the padding byte is not written
    value.serialize(out.data());
    EXPECT_EQ(out, golden);
    EXPECT_EQ(IgpResult::deserializeLen(golden), golden.size());
    EXPECT_EQ(IgpResult::deserialize(golden), value);
  }

  std::vector<std::uint8_t> bad = fullBytes;
  bad[44] = 5;
  EXPECT_EQ(rangeMessage([&] { IgpResult::deserialize(bad); }), "array count 5 above its limit 4");
  EXPECT_EQ(rangeMessage([&] { IgpResult::deserializeLen(bad); }), "array count 5 above its limit 4");
  EXPECT_EQ(rangeMessage([&] { IgpResult::deserialize(std::span(fullBytes).first(55)); }),
            "IgpResult record of 55 bytes is shorter than 56");
  EXPECT_EQ(rangeMessage([&] { IgpResult::deserialize(std::span(fullBytes).first(47)); }),
            "IgpResult record of 47 bytes is shorter than 48");
  EXPECT_EQ(rangeMessage([] { Kelp::strepToValue<CommunityArray>("[1, 2, 3, 4, 5]"); }), "array count 5 above its limit 4");
}

// Readers of the shared table decode records from words where they can: what they get must be what
// deserialize gives, and a record deserialize refuses or reads otherwise than byte for byte (a flag
// other than 0 or 1) is left to deserialize. Records of every length decode from exactly their own
// bytes, and slots beyond the count come back empty, as in a fresh record: setting the last shows them.
TEST(IgpPolicyTypes, DecodingFromWordsAgreesWithDeserialize) {
  // count; bytes after the record (0x5A, counted in its length); a flag byte (5 or 6) set to 2;
  // a count field stored in its place (when >= 0); bytes cut off the end; decodable from words.
  struct Case { std::uint32_t count, extra; int flagByte, countField; std::uint32_t shortBy; bool decodable; };
  const Case cases[] = {
      {0, 0, 0, -1, 0, true},  {1, 0, 0, -1, 0, true},  {2, 0, 0, -1, 0, true},  {3, 0, 0, -1, 0, true},
      {4, 0, 0, -1, 0, true},  {1, 12, 0, -1, 0, true}, {3, 4, 0, -1, 0, true},  {2, 0, 5, -1, 0, false},
      {2, 0, 6, -1, 0, false}, {2, 0, 0, 5, 0, false},  {2, 0, 0, 3, 0, false},  {2, 0, 0, -1, 1, false},
      {0, 0, 0, -1, 1, false},
  };
  for (const Case& c : cases) {
    IgpResult r = fullRecord();
    r.ospfv3BitDn = true;
    r.community = CommunityArray();
    for (std::uint32_t i = 0; i < c.count; ++i) r.communityIs(CommunityIndex(i), 0xA0000001u + i);
    std::uint8_t bytes[IgpResult::maxSerializedLen] = {};
    r.serialize(bytes);
    const std::uint32_t len = r.serializeLen() + c.extra - c.shortBy;
    std::fill(bytes + r.serializeLen(), bytes + r.serializeLen() + c.extra, 0x5A);
    std::fill(bytes + len, std::end(bytes), 0);
    if (c.flagByte != 0) bytes[c.flagByte] = 2;
    if (c.countField >= 0) bytes[44] = static_cast<std::uint8_t>(c.countField);
    std::uint64_t words[IgpResult::maxSerializedLen / 8];
    std::memcpy(words, bytes, sizeof bytes);
    SCOPED_TRACE(testing::Message() << c.count << " " << c.extra << " " << c.flagByte << " " << c.countField << " " << c.shortBy);
    ASSERT_EQ(IgpResult::wordsDecodable(words, len), c.decodable);
    if (!c.decodable) continue;
    const std::vector<std::uint8_t> exact(bytes, bytes + len);
    IgpResult back = IgpResult::fromWords(words), read = IgpResult::deserialize(exact);
    EXPECT_EQ(Kelp::valueToStrep(back), Kelp::valueToStrep(read));
    for (IgpResult* x : {&back, &read, &r}) x->communityIs(CommunityIndex(CommunityArray::kSlots - 1), 1);
    EXPECT_EQ(back, r);
    EXPECT_EQ(read, r);
  }
}

TEST(IgpPolicyTypes, PolicyResultHashEqualityAndTruth) {
  IgpResult_ fresh;
  EXPECT_EQ(Kelp::valueToStrep(fresh),
            "Value('Routing::Bgp::IgpResult_', ** {'preferenceStorage': 0, 'tagStorage': 0, 'metric': None, "
            "'dps': 0x0, 'isisLevel': levelUnset, 'ospfMetricType': typeUnset, 'ospfBitDn': False, "
            "'ospfv3BitDn': False, 'ospfDomainId': 0, 'ospfRouteType': 0, 'community': []})");
  EXPECT_FALSE(fresh);

  // Every field takes part in equality; the OSPF domain and route types and dps are left out of the
  // hash on purpose: they share a bucket and still differ, and the truth test sees them.
  const IgpResult_ full = testing_support::fullPolicyResult();
  for (const auto& change : testing_support::policyResultChanges()) {
    IgpResult_ c = full;
    change.apply(c);
    EXPECT_NE(c, full) << change.what;
    EXPECT_EQ(c.hash() != full.hash(), change.hashed) << change.what;
  }
  IgpResult_ withDps;
  withDps.dps = Kelp::makePtr<Kelp::PtrInterface>();
  EXPECT_EQ(withDps.hash(), fresh.hash());
  EXPECT_NE(withDps, fresh);
  EXPECT_TRUE(withDps);
  // The policy library's own equality, on its part of a result, sees each of its four fields.
  using Base = Policy::Result_;
  for (auto change : {+[](Base& r) { r.preferenceIs(1); }, +[](Base& r) { r.tagIs(1); }, +[](Base& r) { r.metric.valueIs(0); },
                      +[](Base& r) { r.dps = Kelp::makePtr<Kelp::PtrInterface>(); }}) {
    Base a, b;
    change(b);
    EXPECT_FALSE(a == b);
  }
}

TEST(IgpPolicyTypes, EveryRecordFieldButItsKeyIsAnOutcomeField) {
  // A record field left out of the outcome would be published as its default whatever policy set.
  std::vector<std::string> recordFields, outcomeFields;
  Kelp::forEachField(Kelp::typeDescOf<IgpResult>, [&](const auto& f) {
    if (std::string(f.name) != "key") recordFields.push_back(f.name);
  });
  Bgp::forEachOutcomeField([&](const auto& f) { outcomeFields.push_back(f.name); });
  std::sort(recordFields.begin(), recordFields.end());
  std::sort(outcomeFields.begin(), outcomeFields.end());
  EXPECT_EQ(outcomeFields, recordFields);
}

// Reading text into a record that holds a collection, or into a value holding one, does not compile;
// generic code is not offered the entry; the range constructor itself can only abort.
template <typename T>
concept ReadsText = requires(std::string_view text) { Kelp::strepToValue<T>(text); };
static_assert(!ReadsText<IgpResult> && !ReadsText<IgpResult_> && !ReadsText<IgpResultLookup>);
static_assert(ReadsText<IgpResultId> && ReadsText<IgpResultReturnType>);

TEST(IgpPolicyTypes, RecordsWithACollectionCannotBeReadFromText) {
  const Kelp::TypeInfo* record = Kelp::findType("Routing::BgpRedistribute::IgpResult");
  EXPECT_THROW(record->hash(std::any(IgpResult(IgpResultId(1)))), Kelp::UnhashableException);
  EXPECT_EQ(record->strepToValue, nullptr);
  EXPECT_DEATH({ Kelp::CharRange r(""); IgpResult{r}; }, "No String constructor for IgpResult - has collection");
  EXPECT_DEATH({ Kelp::CharRange r(""); IgpResult_{r}; }, "No String constructor for IgpResult_ - has collection");
}

}  // namespace
}  // namespace Routing::BgpRedistribute
