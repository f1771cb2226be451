#include "BgpCommon/TristateTypes.h"

#include <gtest/gtest.h>

#include "tests/Support/BgpConfigSamples.h"
#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

using testing_support::sampleValuesOf;

template <typename T>
class Tristates : public ::testing::Test {};

using AllTristates =
    ::testing::Types<TristateMaxRoutes, TristateAfiSafiMaxRoutes, TristateMaxAcceptedRoutes, TristateMaxAdvRoutes,
                     TristateOutDelay, TristateBgpTtlSecMaxHop, TristateExtendedNextHopCapability,
                     TristateReflectorClient, TristateSoftReconfigInbound, TristatePolicyActionType,
                     TristateRemovePrivateAs, TristateLocalAs, TristateAsnOrPeerFilter, TristateBgpTcpAuthKey,
                     TristateAddPathSendConfig, TristateRfdPolicyAttachment>;
// Test names carry the member's name: Tristates/TristateMaxRoutes.Behaviour.
struct MemberName {
  template <typename T>
  static std::string GetName(int) {
    std::string_view name = Kelp::typeNameOf<T>();
    return std::string(name.substr(name.rfind(':') + 1));
  }
};
TYPED_TEST_SUITE(Tristates, AllTristates, MemberName);

// The one pattern, on every member.
TYPED_TEST(Tristates, Behaviour) {
  using T = TypeParam;
  using V = typename T::ValueType;
  const std::vector<V> samples = sampleValuesOf<V>();
  const V v = samples.front();

  // Print then parse: unset, set to the default, and every sample both set and unset.
  std::vector<T> members = {T{}, T::valueSet(T::valueDefault), T(T::valueDefault, false), T::valueSet(V{})};
  for (const V& s : samples) {
    members.push_back(T::valueSet(s));
    members.push_back(T(s, false));
  }
  testing_support::expectValueConformance<T>(members);
  testing_support::expectDamagedTextsRefused(T::valueSet(v));

  // The text nests the wrapped value's whole text.
  const Kelp::String good = Kelp::valueToStrep(T::valueSet(v));
  const Kelp::String head = Kelp::String("Value('") + Kelp::String(Kelp::typeNameOf<T>()) + "', ** {'value': ";
  const std::size_t isSetAt = head.size() + Kelp::valueToStrep(v).size();
  EXPECT_EQ(good, head + Kelp::valueToStrep(v) + ", 'isSet': True})");

  // Parse errors name "value" or "isSet", or the piece of the template that is missing.
  const std::pair<Kelp::String, Kelp::String> bad[] = {
      {head + "Bogus" + good.substr(isSetAt), "value: "},
      {head + good.substr(head.size() + 1), "value: "},  // first character of the value dropped
      {head + good.substr(isSetAt), "value: "},          // no value at all
      {good.substr(0, isSetAt) + ", 'isSet': true})", "isSet: expected True or False at offset " +
                                                          std::to_string(isSetAt + 11)},
      {good.substr(0, isSetAt) + ", 'isSet':True})", "expected \", 'isSet': \" at offset " + std::to_string(isSetAt)},
      {good.substr(0, good.size() - 2) + "}", "expected \"})\" at offset " + std::to_string(good.size() - 2)},
  };
  for (const auto& [text, messageStart] : bad) {
    EXPECT_EQ(testing_support::rangeMessage([&] { Kelp::strepToValue<T>(text); }).substr(0, messageStart.size()),
              messageStart)
        << text;
  }

  // Truth and the invalid tristate: unset but holding a value is true, and not the invalid one.
  EXPECT_FALSE(T{});
  EXPECT_EQ(T{}, T::valueInvalid());
  EXPECT_EQ(T::valueInvalid().value, V{});
  EXPECT_FALSE(T::valueInvalid().isSet);
  EXPECT_TRUE(T::valueSet(T::valueDefault));
  EXPECT_NE(T::valueSet(T::valueDefault), T::valueInvalid());
  EXPECT_TRUE(T::valueSet(V{}));
  for (const V& s : samples) {
    if (s == V{}) continue;
    EXPECT_TRUE(T(s, false)) << s;
    EXPECT_NE(T(s, false), T::valueInvalid()) << s;
    EXPECT_NE(T(s, false), T::valueSet(s)) << s;
  }

  // Reflection: value and isSet are get only, valueSet takes its argument, valueDefault is a
  // constant, valueInvalid a function; whole-object truth and equality, no ordering.
  EXPECT_EQ(testing_support::attributeList<T>(), "value isSet valueSet() valueDefault valueInvalid()");
  T t = T::valueSet(v);
  const T invalid = T::valueInvalid();
  std::any result;
  auto op = [&](int id, int code, const std::any& arg = {}) { return testing_support::attrOp(result, t, id, code, arg); };
  ASSERT_EQ(op(2, 0), 0);
  EXPECT_EQ(std::any_cast<V>(result), v);
  ASSERT_EQ(op(3, 0), 0);
  EXPECT_TRUE(std::any_cast<bool>(result));
  ASSERT_EQ(op(4, 10, v), 0);
  EXPECT_EQ(std::any_cast<T>(result), T::valueSet(v));
  ASSERT_EQ(op(5, 0), 0);
  EXPECT_EQ(std::any_cast<V>(result), T::valueDefault);
  ASSERT_EQ(op(6, 10), 0);
  EXPECT_EQ(std::any_cast<T>(result), T::valueInvalid());
  EXPECT_THROW(op(4, 10), Kelp::TypeException);  // valueSet needs its argument
  const int refused[][3] = {{2, 1, 1}, {3, 1, 1}, {5, 1, 1},   // id, operation, answer: nothing is settable
                            {4, 0, 1}, {6, 0, 1}, {2, 10, 1},  // wrong operation
                            {1, 0, 2}, {7, 0, 2}, {-1, 0, 2}};  // no such attribute
  for (const auto& [id, code, status] : refused) {
    EXPECT_EQ(op(id, code, code == 1 ? std::any(false) : std::any()), status) << id << "/" << code;
  }
  EXPECT_EQ(t, T::valueSet(v));
  EXPECT_EQ(testing_support::attrOp(result, t, 0, Kelp::attrOpTruth), 0);
  EXPECT_TRUE(std::any_cast<bool>(result));
  EXPECT_EQ(testing_support::attrOp(result, t, 0, Kelp::attrOpEqual, {}, &invalid), 0);
  EXPECT_FALSE(std::any_cast<bool>(result));
  EXPECT_EQ(testing_support::attrOp(result, t, 0, Kelp::attrOpLess, {}, &invalid), 1);
  EXPECT_EQ(testing_support::attrOp(result, t, 0, 14, {}, &invalid), 1);
}

TEST(TristateTypes, ValueDefaults) {
  EXPECT_EQ(TristateMaxRoutes::valueDefault, MaxRoutes(256000, 204800, false));
  EXPECT_EQ(TristateAfiSafiMaxRoutes::valueDefault, MaxRoutes(0, 0, false));
  EXPECT_EQ(TristateMaxAcceptedRoutes::valueDefault, MaxAcceptedRoutes(0, 0));
  EXPECT_EQ(TristateMaxAdvRoutes::valueDefault, MaxAdvRoutes(0, 0));
  EXPECT_EQ(TristateOutDelay::valueDefault, OutDelay(0, OutDelayApplyType{0}));
  EXPECT_EQ(TristateBgpTtlSecMaxHop::valueDefault, TtlSecurityMaxHopValue(254));
  EXPECT_EQ(TristateExtendedNextHopCapability::valueDefault, ExtendedNextHopCapability{0});
  EXPECT_EQ(TristateReflectorClient::valueDefault, ReflectorClient{0});
  EXPECT_EQ(TristateSoftReconfigInbound::valueDefault, SoftReconfigInboundState{0});
  EXPECT_EQ(TristatePolicyActionType::valueDefault, PolicyActionType{0});
  EXPECT_EQ(TristateRemovePrivateAs::valueDefault, RemovePrivateAs(false, false, false));
  EXPECT_EQ(TristateLocalAs::valueDefault, LocalAs(0, false, false));
  EXPECT_EQ(TristateAsnOrPeerFilter::valueDefault, AsnOrPeerFilter(AsnOrPeerFilter::Type{1}, 0, ""));
  EXPECT_EQ(TristateBgpTcpAuthKey::valueDefault, BgpTcpAuthKey());
  EXPECT_EQ(TristateAddPathSendConfig::valueDefault, AddPathSendConfig());
  EXPECT_EQ(TristateRfdPolicyAttachment::valueDefault, RfdPolicyAttachment());
  // The default is a constant of the type, not what an unset tristate holds.
  EXPECT_NE(TristateMaxRoutes().value, TristateMaxRoutes::valueDefault);
  EXPECT_NE(TristateBgpTtlSecMaxHop().value, TristateBgpTtlSecMaxHop::valueDefault);
}

TEST(TristateTypes, ExactTexts) {
  EXPECT_EQ(Kelp::valueToStrep(TristateMaxRoutes::valueSet(TristateMaxRoutes::valueDefault)),
            "Value('Routing::Bgp::TristateMaxRoutes', ** {'value': Value('Routing::Bgp::MaxRoutes', ** {'routes': "
            "256000, 'warningThreshold': 204800, 'warningOnly': False}), 'isSet': True})");
  EXPECT_EQ(Kelp::valueToStrep(TristateReflectorClient(ReflectorClient::meshedClient, false)),
            "Value('Routing::Bgp::TristateReflectorClient', ** {'value': meshedClient, 'isSet': False})");
  // The key is embedded as the key type prints it: quoted and escaped, never masked.
  EXPECT_EQ(Kelp::valueToStrep(TristateBgpTcpAuthKey::valueSet(BgpTcpAuthKey(BgpTcpAuthKey::Type::md5, "s3'}", "", 0))),
            "Value('Routing::Bgp::TristateBgpTcpAuthKey', ** {'value': Value('Routing::Bgp::BgpTcpAuthKey', ** "
            "{'type': md5, 'secret': 's3\\'}', 'keyChain': '', 'keyId': 0}), 'isSet': True})");
  // A nested field's error carries both names.
  EXPECT_EQ(testing_support::rangeMessage([] {
              Kelp::strepToValue<TristateMaxRoutes>(
                  "Value('Routing::Bgp::TristateMaxRoutes', ** {'value': Value('Routing::Bgp::MaxRoutes', ** "
                  "{'routes': x, 'warningThreshold': 0, 'warningOnly': False}), 'isSet': True})");
            }),
            "value: routes: expected an unsigned number at offset 101, found \"x, 'warningThreshold': 0...\"");
}

}  // namespace
}  // namespace Routing::Bgp
