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
TYPED_TEST_SUITE(Tristates, AllTristates);

// The one pattern, on every member.
TYPED_TEST(Tristates, Behaviour) {
  using T = TypeParam;
  using V = typename T::ValueType;
  const std::vector<V> samples = sampleValuesOf<V>();
  const V v = samples.front();

  // The wrapped type alone (enumerations have no conformance of their own), then the tristate:
  // unset, set to the default, and every sample both set and unset.
  std::vector<V> values = samples;
  values.push_back(V{});
  if constexpr (!std::is_enum_v<V>) testing_support::expectValueConformance<V>(values);
  std::vector<T> members = {T{}, T::valueSet(T::valueDefault), T(T::valueDefault, false), T::valueSet(V{})};
  for (const V& s : samples) members.insert(members.end(), {T::valueSet(s), T(s, false)});
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

  // Every other default is the wrapped type's zero value (the remote AS's: a single AS number).
  if constexpr (!std::is_same_v<T, TristateMaxRoutes> && !std::is_same_v<T, TristateBgpTtlSecMaxHop>) {
    EXPECT_EQ(T::valueDefault, V{});
  }

  // Truth and the invalid tristate: unset but holding a value is true, and not the invalid one.
  EXPECT_FALSE(T{});
  EXPECT_EQ(T{}, T::valueInvalid());
  EXPECT_TRUE(T::valueSet(V{}));
  for (const V& s : samples) EXPECT_EQ(bool(T(s, false)), !(s == V{})) << s;

  // Reflection (value 2, isSet 3, valueSet() 4, valueDefault 5, valueInvalid() 6): fields are get
  // only, valueSet takes its argument; whole-object truth and equality, no ordering.
  T t = T::valueSet(v);
  const T invalid = T::valueInvalid();
  std::any result;
  auto op = [&](int id, int code, const std::any& arg = {}, const T* other = nullptr) {
    return testing_support::attrOp(result, t, id, code, arg, other);
  };
  ASSERT_EQ(op(4, Kelp::attrOpCall, v), 0);
  EXPECT_EQ(std::any_cast<T>(result), T::valueSet(v));
  ASSERT_EQ(op(5, Kelp::attrOpGet), 0);
  EXPECT_EQ(std::any_cast<V>(result), T::valueDefault);
  EXPECT_THROW(op(4, Kelp::attrOpCall), Kelp::TypeException);  // valueSet needs its argument
  EXPECT_EQ(op(2, Kelp::attrOpSet, V{}), 1);                     // nothing is settable
  EXPECT_EQ(op(7, Kelp::attrOpGet), 2);                          // no such attribute
  EXPECT_EQ(t, T::valueSet(v));
  ASSERT_EQ(op(0, Kelp::attrOpEqual, {}, &invalid), 0);
  EXPECT_FALSE(std::any_cast<bool>(result));
  EXPECT_EQ(op(0, Kelp::attrOpLess, {}, &invalid), 1);
}

// The defaults that are not the zero value; an unset tristate holds zero (its truth test is false).
TEST(TristateTypes, ValueDefaults) {
  EXPECT_EQ(TristateMaxRoutes::valueDefault, MaxRoutes(256000, 204800, false));
  EXPECT_EQ(TristateBgpTtlSecMaxHop::valueDefault, TtlSecurityMaxHopValue(254));
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
