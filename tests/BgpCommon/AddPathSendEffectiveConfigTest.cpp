#include "BgpCommon/AddPathSendEffectiveConfig.h"

#include <gtest/gtest.h>

#include <array>
#include <tuple>

#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

using Effective = AddPathSendEffectiveConfig;
using Kind = AddPathSendConfig::Kind;

// Sorted by the backup flag first (false before true), then the any-limit, then the ECMP limit.
TEST(AddPathSendEffectiveConfig, ConformanceAndOrder) {
  const std::vector<Effective> sorted = {{false, 0, 0}, {false, 0, 65535}, {false, 1, 0}, {false, 1, 2},
                                         {false, 65535, 0}, {true, 0, 0}, {true, 0, 1}, {true, 2, 0}};
  testing_support::expectValueConformance<Effective>(sorted);
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    for (std::size_t j = 0; j < sorted.size(); ++j) EXPECT_EQ(sorted[i] < sorted[j], i < j) << i << " < " << j;
  }
  testing_support::expectDamagedTextsRefused(Effective(true, 3, 2));
  EXPECT_EQ(Kelp::valueToStrep(Effective(false, 65535, 0)),
            "Value('Routing::Bgp::AddPathSendEffectiveConfig', ** {'apBackupEnabled': False, 'apSendAnyLimit': "
            "65535, 'apSendEcmpLimit': 0})");
}

TEST(AddPathSendEffectiveConfig, FromAppPathSendConfig) {
  const std::tuple<Kind, std::uint32_t, Effective> rows[] = {
      {Kind::sendAny, 7, {false, 65535, 0}},  // the limit belongs to other kinds
      {Kind::sendDisabled, 9, {false, 0, 0}},       {Kind::sendLimited, 10, {false, 10, 0}},
      {Kind::sendLimited, 70000, {false, 4464, 0}},  // low 16 bits
      {Kind::sendLimited, 65535, {false, 65535, 0}}, {Kind::sendBackup, 5, {true, 0, 0}},
      {Kind::sendEcmp, 8, {false, 0, 8}},      {Kind::sendEcmp, 0, {false, 65535, 0}},  // no ECMP limit: every path
      {Kind::sendEcmp, 65536, {false, 0, 0}},  // low 16 bits are zero, yet not the limit-0 fallback
  };
  for (const auto& [kind, limit, expected] : rows) {
    EXPECT_EQ(Effective::fromAppPathSendConfig(AddPathSendConfig(kind, limit, "PL")), expected) << kind << " " << limit;
  }
}

TEST(AddPathSendEffectiveConfigDeathTest, UnknownKindStopsTheProcess) {
  EXPECT_DEATH(Effective::fromAppPathSendConfig(AddPathSendConfig(Kind{5}, 1)),
               "BgpCommon/AddPathSendEffectiveConfig:[0-9]+: static Routing::Bgp::AddPathSendEffectiveConfig "
               "Routing::Bgp::AddPathSendEffectiveConfig::fromAppPathSendConfig\\(const Routing::Bgp::"
               "AddPathSendConfig&\\): Assertion `false' failed");
}

TEST(AddPathSendEffectiveConfig, Aggregate) {
  const std::tuple<Effective, Effective, Effective> rows[] = {  // self, other, merged
      // backup wins and the other's limits are ignored
      {{false, 3, 0}, {true, 5, 0}, {true, 3, 0}}, {{false, 0, 0}, {true, 9, 9}, {true, 0, 0}},
      // an any-limit is raised, never lowered; the other's ECMP limit is then ignored
      {{false, 3, 0}, {false, 5, 9}, {false, 5, 0}}, {{false, 6, 1}, {false, 5, 9}, {false, 6, 1}},
      {{true, 3, 0}, {false, 65535, 0}, {true, 65535, 0}},
      // the ECMP limit only when the other has neither backup nor any-limit; nothing to merge
      {{false, 3, 2}, {false, 0, 7}, {false, 3, 7}}, {{false, 3, 8}, {false, 0, 7}, {false, 3, 8}},
      {{true, 4, 4}, {false, 0, 0}, {true, 4, 4}},
  };
  for (auto [self, other, expected] : rows) {
    self.aggregate(other);
    EXPECT_EQ(self, expected) << other;
  }
}

TEST(AddPathSendEffectiveConfig, PredicatesAndShortForm) {
  // value, then apSendAnyEnabled, apSendAnyNoLimitEnabled, apSendEcmpEnabled, enabled (and the truth test)
  const std::pair<Effective, std::array<bool, 4>> rows[] = {
      {{false, 0, 0}, {false, false, false, false}},  {{true, 0, 0}, {false, false, false, true}},
      {{false, 1, 0}, {true, false, false, true}},    {{false, 65534, 0}, {true, false, false, true}},
      {{false, 65535, 0}, {true, true, false, true}}, {{false, 0, 1}, {false, false, true, true}},
  };
  for (const auto& [v, expected] : rows) {
    EXPECT_EQ((std::array<bool, 4>{v.apSendAnyEnabled(), v.apSendAnyNoLimitEnabled(), v.apSendEcmpEnabled(), v.enabled()}),
              expected) << v;
    EXPECT_EQ(static_cast<bool>(v), expected[3]) << v;
  }
  EXPECT_EQ(Effective::fromAppPathSendConfig(AddPathSendConfig(Kind::sendAny, 0)).toStrep(),
            "apBackupEnabled=false; apSendAnyEnabled=true; apSendEcmpEnabled=false; apSendAnyLimit=65535; "
            "apSendEcmpLimit=0");
  EXPECT_EQ(Effective(true, 0, 12).toStrep(),
            "apBackupEnabled=true; apSendAnyEnabled=false; apSendEcmpEnabled=true; apSendAnyLimit=0; apSendEcmpLimit=12");
}

// Attributes (from 2): the fields apBackupEnabled, apSendAnyLimit, apSendEcmpLimit (settable, each
// from its own type only), the constants apDisabledLimit, apNoLimit, then the functions;
// aggregate (11) acts on the object, fromAppPathSendConfig (13) is static.
TEST(AddPathSendEffectiveConfig, Reflection) {
  Effective v(true, 300, 4);
  std::any result;
  EXPECT_THROW(testing_support::attrOp(result, v, 3, Kelp::attrOpSet, 5u), Kelp::TypeException);
  EXPECT_EQ(testing_support::attrOp(result, v, 3, Kelp::attrOpSet, std::uint16_t{301}), 0);
  EXPECT_EQ(testing_support::attrOp(result, v, 6, Kelp::attrOpGet), 0);
  EXPECT_EQ(std::any_cast<std::uint16_t>(result), 65535);
  EXPECT_EQ(testing_support::attrOp(result, v, 13, Kelp::attrOpCall, AddPathSendConfig(Kind::sendEcmp, 6)), 0);
  EXPECT_EQ(std::any_cast<Effective>(result), Effective(false, 0, 6));
  EXPECT_EQ(testing_support::attrOp(result, v, 11, Kelp::attrOpCall, Effective(false, 400, 0)), 0);
  EXPECT_EQ(v, Effective(true, 400, 4));
  EXPECT_EQ(testing_support::attrOp(result, v, 5, Kelp::attrOpSet, std::uint16_t{1}), 1);
}

}  // namespace
}  // namespace Routing::Bgp
