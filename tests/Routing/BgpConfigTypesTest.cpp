#include "platform/Routing/BgpConfigTypes.h"

#include <gtest/gtest.h>

#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

// Conformance of these types runs with the tristates that wrap them (TristateTypesTest).
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
      {Kelp::valueToStrep(RfdPolicyAttachment("damp\xff", true)),
       "Value('Routing::Bgp::RfdPolicyAttachment', ** {'policyName': 'damp\\xff', 'logOnly': True})"},
  };
  for (const auto& [actual, expected] : rows) EXPECT_EQ(actual, expected);
}

TEST(BgpConfigTypes, DefaultsAndTruth) {
  // The remote AS defaults to "a single AS number"; everything else to zero.
  EXPECT_FALSE(AsnOrPeerFilter());
  EXPECT_TRUE(AsnOrPeerFilter(AsnOrPeerFilter::Type::unknown, 0, ""));
  EXPECT_FALSE(BgpTcpAuthKey());
  EXPECT_FALSE(AddPathSendConfig());
  EXPECT_TRUE(RemovePrivateAs(false, false, true));
}

// The 32-bit ReflectorClient reads a number too; a number naming no enumerator never comes from
// text: code switching over the kinds may rely on it.
TEST(BgpConfigTypes, EnumerationsFromText) {
  EXPECT_EQ(Kelp::strepToValue<ReflectorClient>("1"), ReflectorClient::client);
  EXPECT_THROW(Kelp::strepToValue<ReflectorClient>("4000000000"), Kelp::RangeException);
  EXPECT_THROW(Kelp::strepToValue<ExtendedNextHopCapability>("256"), Kelp::RangeException);  // 8 bits
  EXPECT_THROW(Kelp::strepToValue<AddPathSendConfig>(
                   "Value('Routing::Bgp::AddPathSendConfig', ** {'kind': 5, 'limit': 4, 'prefixList': ''})"),
               Kelp::RangeException);
}

TEST(BgpConfigTypes, ParseErrorsNameTheField) {
  const std::pair<const char*, const char*> rows[] = {
      {"Value('Routing::Bgp::BgpTcpAuthKey', ** {'type': sha1, 'secret': '', 'keyChain': '', 'keyId': 0})",
       "type: expected a Routing::Bgp::BgpTcpAuthKey::Type enumerator at offset 49, found \"sha1, 'secret': '', 'key...\""},
      // an unescaped quote ends the text early: the template, not the field, is then at fault
      {"Value('Routing::Bgp::BgpTcpAuthKey', ** {'type': md5, 'secret': 'abc, 'keyChain': '', 'keyId': 0})",
       "expected \", 'keyChain': \" at offset 71, found \"keyChain': '', 'keyId': ...\""},
  };
  for (const auto& [text, message] : rows) {
    EXPECT_EQ(testing_support::rangeMessage([&] { Kelp::strepToValue<BgpTcpAuthKey>(text); }), message) << text;
  }
}

}  // namespace
}  // namespace Routing::Bgp
