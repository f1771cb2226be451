#include "platform/Routing/BgpConfigTypes.h"

#include <gtest/gtest.h>

#include "tests/Support/BgpConfigSamples.h"
#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

using testing_support::expectValueConformance;
using testing_support::sampleValuesOf;

template <typename V>
void expectConformanceWithDefault() {
  std::vector<V> values = sampleValuesOf<V>();
  values.push_back(V{});
  expectValueConformance<V>(values);
}

TEST(BgpConfigTypes, Conformance) {
  expectConformanceWithDefault<TtlSecurityMaxHopValue>();
  expectConformanceWithDefault<RemovePrivateAs>();
  expectConformanceWithDefault<LocalAs>();
  expectConformanceWithDefault<AsnOrPeerFilter>();
  expectConformanceWithDefault<BgpTcpAuthKey>();
  expectConformanceWithDefault<AddPathSendConfig>();
  expectConformanceWithDefault<RfdPolicyAttachment>();
  testing_support::expectDamagedTextsRefused(BgpTcpAuthKey(BgpTcpAuthKey::Type::md5, "a'b", "c", 1));
  testing_support::expectDamagedTextsRefused(AddPathSendConfig(AddPathSendConfig::Kind::sendEcmp, 4, "PL"));
}

TEST(BgpConfigTypes, LongForms) {
  const std::pair<Kelp::String, Kelp::String> rows[] = {
      {Kelp::valueToStrep(TtlSecurityMaxHopValue(254)), "Value('Routing::Bgp::TtlSecurityMaxHopValue', ** {'hops': 254})"},
      {Kelp::valueToStrep(LocalAs(65001, true, false)),
       "Value('Routing::Bgp::LocalAs', ** {'asn': 65001, 'noPrepend': True, 'replaceAs': False})"},
      {Kelp::valueToStrep(AsnOrPeerFilter()),
       "Value('Routing::Bgp::AsnOrPeerFilter', ** {'type': asn, 'asn': 0, 'peerFilter': ''})"},
      {Kelp::valueToStrep(BgpTcpAuthKey(BgpTcpAuthKey::Type::md5, "it's\\", "", 0)),
       "Value('Routing::Bgp::BgpTcpAuthKey', ** {'type': md5, 'secret': 'it\\'s\\\\', 'keyChain': '', 'keyId': 0})"},
      {Kelp::valueToStrep(AddPathSendConfig(AddPathSendConfig::Kind::sendEcmp, 4, "{x}")),
       "Value('Routing::Bgp::AddPathSendConfig', ** {'kind': sendEcmp, 'limit': 4, 'prefixList': '{x}'})"},
      {Kelp::valueToStrep(AddPathSendConfig(AddPathSendConfig::Kind{9}, 0)),
       "Value('Routing::Bgp::AddPathSendConfig', ** {'kind': 9, 'limit': 0, 'prefixList': ''})"},
      {Kelp::valueToStrep(RfdPolicyAttachment("damp\xff", true)),
       "Value('Routing::Bgp::RfdPolicyAttachment', ** {'policyName': 'damp\\xff', 'logOnly': True})"},
  };
  for (const auto& [actual, expected] : rows) EXPECT_EQ(actual, expected);
}

TEST(BgpConfigTypes, DefaultsAndTruth) {
  // The remote AS defaults to "a single AS number"; everything else to zero.
  EXPECT_EQ(AsnOrPeerFilter().type, AsnOrPeerFilter::Type::asn);
  EXPECT_FALSE(AsnOrPeerFilter());
  EXPECT_TRUE(AsnOrPeerFilter(AsnOrPeerFilter::Type::unknown, 0, ""));
  EXPECT_TRUE(AsnOrPeerFilter(AsnOrPeerFilter::Type::asn, 0, "f"));
  EXPECT_FALSE(BgpTcpAuthKey());
  EXPECT_TRUE(BgpTcpAuthKey(BgpTcpAuthKey::Type::none, "", "", 1));
  EXPECT_FALSE(AddPathSendConfig());
  EXPECT_EQ(AddPathSendConfig().kind, AddPathSendConfig::Kind::sendAny);
  EXPECT_FALSE(RemovePrivateAs());
  EXPECT_TRUE(RemovePrivateAs(false, false, true));
  EXPECT_FALSE(TtlSecurityMaxHopValue());
  // Equality covers every field, texts included.
  EXPECT_NE(RfdPolicyAttachment("a", false), RfdPolicyAttachment("a ", false));
  EXPECT_NE(BgpTcpAuthKey(BgpTcpAuthKey::Type::md5, "k", "", 0), BgpTcpAuthKey(BgpTcpAuthKey::Type::md5, "", "k", 0));
}

TEST(BgpConfigTypes, Enumerations) {
  // Names and numbers read back through sequenceToValue; the range stops after the enumerator.
  struct Row {
    const char* text;
    std::uint32_t value;
  };
  const Row reflector[] = {{"notClient", 0}, {"client", 1}, {"meshedClient", 2}, {"4000000000", 4000000000u}};
  for (const Row& row : reflector) {
    const Kelp::String text = Kelp::String(row.text) + ", ";  // the range does not own its text
    Kelp::CharRange r(text);
    ReflectorClient e{};
    sequenceToValue(r, &e);
    EXPECT_EQ(static_cast<std::uint32_t>(e), row.value) << row.text;
    EXPECT_EQ(r.rest(), ", ");
    EXPECT_EQ(valueToStrep(e), row.text);
  }
  EXPECT_EQ(stringValue(ExtendedNextHopCapability::extendedNextHopEnabled), "extendedNextHopEnabled");
  EXPECT_EQ(valueToStrep(SoftReconfigInboundState::softReconfigKeepNone), "softReconfigKeepNone");
  EXPECT_EQ(Kelp::strepToValue<PolicyActionType>("policyActionDeny"), PolicyActionType::policyActionDeny);
  EXPECT_EQ(Kelp::strepToValue<AddPathSendConfig::Kind>("sendBackup"), AddPathSendConfig::Kind::sendBackup);
  ASSERT_NE(ReflectorClientInstance(2u), nullptr);
  EXPECT_EQ(ReflectorClientInstance(2u)->name, "meshedClient");
  EXPECT_EQ(AddPathSendConfig::KindInstance("sendEcmp")->value, 4u);
  EXPECT_EQ(BgpTcpAuthKey::TypeInstance(3u), nullptr);
  // 8-bit enumerations refuse numbers above 255.
  EXPECT_THROW(Kelp::strepToValue<ExtendedNextHopCapability>("256"), Kelp::RangeException);

  ExtendedNextHopCapability e{};
  Kelp::CharRange r("enabled");
  try {
    sequenceToValue(r, &e);
    ADD_FAILURE();
  } catch (const Kelp::RangeException& ex) {
    EXPECT_STREQ(ex.what(), "expected a Routing::Bgp::ExtendedNextHopCapability enumerator at offset 0, found \"enabled\"");
  }
}

TEST(BgpConfigTypes, ParseErrorsNameTheField) {
  struct Row {
    const char* text;
    const char* message;
  };
  const Row rows[] = {
      {"Value('Routing::Bgp::BgpTcpAuthKey', ** {'type': sha1, 'secret': '', 'keyChain': '', 'keyId': 0})",
       "type: expected a Routing::Bgp::BgpTcpAuthKey::Type enumerator at offset 49, found \"sha1, 'secret': '', 'key...\""},
      // an unescaped quote ends the text early: the template, not the field, is then at fault
      {"Value('Routing::Bgp::BgpTcpAuthKey', ** {'type': md5, 'secret': 'abc, 'keyChain': '', 'keyId': 0})",
       "expected \", 'keyChain': \" at offset 71, found \"keyChain': '', 'keyId': ...\""},
      {"Value('Routing::Bgp::BgpTcpAuthKey', ** {'type': md5, 'secret': 'a\\q', 'keyChain': '', 'keyId': 0})",
       "secret: unknown escape at offset 66, found \"\\\\q', 'keyChain': '', 'ke...\""},
      {"Value('Routing::Bgp::BgpTcpAuthKey', ** {'type': md5, 'secret': '', 'keyChain': '', 'keyId': 256})",
       "keyId: number above 255 at offset 93, found \"256})\""},
      {"Value('Routing::Bgp::AsnOrPeerFilter', ** {'type': asn, 'asn': 1, 'peerFilter': \"f\"})",
       "peerFilter: expected \"'\" at offset 80, found \"\\\"f\\\"})\""},
  };
  for (const Row& row : rows) {
    try {
      if (Kelp::String(row.text).find("AsnOrPeerFilter") != Kelp::String::npos) {
        Kelp::strepToValue<AsnOrPeerFilter>(row.text);
      } else {
        Kelp::strepToValue<BgpTcpAuthKey>(row.text);
      }
      ADD_FAILURE() << "accepted: " << row.text;
    } catch (const Kelp::RangeException& e) {
      EXPECT_STREQ(e.what(), row.message) << row.text;
    }
  }
}

}  // namespace
}  // namespace Routing::Bgp
