#include "BgpCommon/TristateTypes.h"

#include <gtest/gtest.h>

#include "tests/Support/BgpConfigSamples.h"
#include "tests/Support/RunTool.h"
#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

using testing_support::sampleValuesOf;

// The same behaviour suite runs on every member.
template <typename T>
class Tristates : public ::testing::Test {
 protected:
  using V = typename T::ValueType;

  // Unset, set to the default, and every sample both set and unset.
  static std::vector<T> members() {
    std::vector<T> out = {T{}, T::valueInvalid(), T::valueSet(T::valueDefault), T(T::valueDefault, false),
                          T::valueSet(V{})};
    for (const V& v : sampleValuesOf<V>()) {
      out.push_back(T::valueSet(v));
      out.push_back(T(v, false));
    }
    return out;
  }
  static V sample() { return sampleValuesOf<V>().front(); }
};

using AllTristates =
    ::testing::Types<TristateMaxRoutes, TristateAfiSafiMaxRoutes, TristateMaxAcceptedRoutes, TristateMaxAdvRoutes,
                     TristateOutDelay, TristateBgpTtlSecMaxHop, TristateExtendedNextHopCapability,
                     TristateReflectorClient, TristateSoftReconfigInbound, TristatePolicyActionType,
                     TristateRemovePrivateAs, TristateLocalAs, TristateAsnOrPeerFilter, TristateBgpTcpAuthKey,
                     TristateAddPathSendConfig, TristateRfdPolicyAttachment>;
// Test names carry the member's name: Tristates/TristateMaxRoutes.Reflection.
struct MemberName {
  template <typename T>
  static std::string GetName(int) {
    std::string_view name = Kelp::typeNameOf<T>();
    return std::string(name.substr(name.rfind(':') + 1));
  }
};
TYPED_TEST_SUITE(Tristates, AllTristates, MemberName);

TYPED_TEST(Tristates, PrintThenParseReturnsAnEqualValue) {
  testing_support::expectValueConformance<TypeParam>(this->members());
  testing_support::expectDamagedTextsRefused(TypeParam::valueSet(this->sample()));
}

TYPED_TEST(Tristates, TextNestsTheWrappedValuesWholeText) {
  using T = TypeParam;
  const auto v = this->sample();
  EXPECT_EQ(Kelp::valueToStrep(T::valueSet(v)), Kelp::String("Value('") + Kelp::String(Kelp::typeNameOf<T>()) +
                                                   "', ** {'value': " + Kelp::valueToStrep(v) + ", 'isSet': True})");
}

// The command-line tool reaches every member through the type registry.
TYPED_TEST(Tristates, ToolParsesAndPrintsIt) {
  const Kelp::String text = Kelp::valueToStrep(TypeParam::valueSet(this->sample()));
  Kelp::String quoted = "'";  // for the shell: ' becomes '\''
  for (char c : text) quoted += c == '\'' ? Kelp::String("'\\''") : Kelp::String(1, c);
  quoted += "'";
  auto r = testing_support::runTool("value parse " + Kelp::String(Kelp::typeNameOf<TypeParam>()) + " " + quoted);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, text + "\n");
}

TYPED_TEST(Tristates, TruthAndInvalid) {
  using T = TypeParam;
  using V = typename T::ValueType;
  EXPECT_FALSE(T{});
  EXPECT_EQ(T{}, T::valueInvalid());
  EXPECT_EQ(T::valueInvalid().value, V{});
  EXPECT_FALSE(T::valueInvalid().isSet);
  EXPECT_TRUE(T::valueSet(T::valueDefault));
  EXPECT_NE(T::valueSet(T::valueDefault), T::valueInvalid());
  EXPECT_TRUE(T::valueSet(V{}));
  for (const V& v : sampleValuesOf<V>()) {
    if (v == V{}) continue;
    // Unset but holding a value: true, and not the invalid tristate.
    EXPECT_TRUE(T(v, false)) << v;
    EXPECT_NE(T(v, false), T::valueInvalid()) << v;
    EXPECT_NE(T(v, false), T::valueSet(v)) << v;
  }
}

TYPED_TEST(Tristates, ParseErrorsNameValueOrIsSet) {
  using T = TypeParam;
  const Kelp::String good = Kelp::valueToStrep(T::valueSet(this->sample()));
  const Kelp::String head = Kelp::String("Value('") + Kelp::String(Kelp::typeNameOf<T>()) + "', ** {'value': ";
  const std::size_t isSetAt = good.rfind(", 'isSet': ");
  ASSERT_EQ(good.compare(0, head.size(), head), 0);
  struct Row {
    Kelp::String text;
    Kelp::String messageStart;
  };
  const Row rows[] = {
      {head + "Bogus" + good.substr(isSetAt), "value: "},
      {head + good.substr(head.size() + 1), "value: "},  // first character of the value dropped
      {head + good.substr(isSetAt), "value: "},          // no value at all
      {good.substr(0, isSetAt) + ", 'isSet': true})", "isSet: expected True or False at offset " +
                                                          std::to_string(isSetAt + 11)},
      {good.substr(0, isSetAt) + ", 'isSet':True})", "expected \", 'isSet': \" at offset " + std::to_string(isSetAt)},
      {good.substr(0, good.size() - 2) + "}", "expected \"})\" at offset " + std::to_string(good.size() - 2)},
  };
  for (const Row& row : rows) {
    try {
      Kelp::strepToValue<T>(row.text);
      ADD_FAILURE() << "accepted: " << row.text;
    } catch (const Kelp::RangeException& e) {
      EXPECT_EQ(Kelp::String(e.what()).substr(0, row.messageStart.size()), row.messageStart)
          << e.what() << "\n" << row.text;
    }
  }
}

// 2 value, 3 isSet (get only), 4 valueSet (call, 1 argument), 5 valueDefault (get), 6 valueInvalid (call).
TYPED_TEST(Tristates, Reflection) {
  using T = TypeParam;
  using V = typename T::ValueType;
  const Kelp::TypeInfo* info = Kelp::findType(Kelp::typeNameOf<T>());
  ASSERT_NE(info, nullptr);
  const char* names[] = {"value", "isSet", "valueSet", "valueDefault", "valueInvalid"};
  ASSERT_EQ(info->attributes.size(), 5u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(info->attributes[i].name, names[i]);

  const V v = this->sample();
  T t = T::valueSet(v);
  const T before = t;
  std::any result;
  std::any arg = v;
  const std::span<const std::any> one(&arg, 1), none;
  auto op = [&](int id, int code, std::span<const std::any> args) {
    Kelp::KelpAttrBase a{id, ""};
    return Kelp::genericIfAttributeOp(&result, &t, &a, code, nullptr, args);
  };
  ASSERT_EQ(op(2, 0, none), 0);
  EXPECT_EQ(std::any_cast<V>(result), v);
  ASSERT_EQ(op(3, 0, none), 0);
  EXPECT_TRUE(std::any_cast<bool>(result));
  ASSERT_EQ(op(4, 10, one), 0);
  EXPECT_EQ(std::any_cast<T>(result), T::valueSet(v));
  ASSERT_EQ(op(5, 0, none), 0);
  EXPECT_EQ(std::any_cast<V>(result), T::valueDefault);
  ASSERT_EQ(op(6, 10, none), 0);
  EXPECT_EQ(std::any_cast<T>(result), T::valueInvalid());
  EXPECT_THROW(op(4, 10, none), Kelp::TypeException);  // valueSet needs its argument

  struct Row {
    int id, code, status;
  };
  const Row refused[] = {{2, 1, 1}, {3, 1, 1}, {5, 1, 1},   // nothing is settable
                         {4, 0, 1}, {6, 0, 1}, {2, 10, 1},  // wrong operation
                         {1, 0, 2}, {7, 0, 2}, {-1, 0, 2}};  // no such attribute
  std::any flag = false;
  for (const Row& row : refused) {
    EXPECT_EQ(op(row.id, row.code, row.code == 1 ? std::span<const std::any>(&flag, 1) : none), row.status)
        << row.id << "/" << row.code;
  }
  EXPECT_EQ(t, before);

  const T invalid = T::valueInvalid();
  EXPECT_EQ(Kelp::genericIfAttributeOp(&result, &t, nullptr, 11, nullptr), 0);
  EXPECT_TRUE(std::any_cast<bool>(result));
  EXPECT_EQ(Kelp::genericIfAttributeOp(&result, &t, nullptr, 12, &invalid), 0);
  EXPECT_FALSE(std::any_cast<bool>(result));
  EXPECT_EQ(Kelp::genericIfAttributeOp(&result, &t, nullptr, 13, &invalid), 1);  // no ordering
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
  try {
    Kelp::strepToValue<TristateMaxRoutes>(
        "Value('Routing::Bgp::TristateMaxRoutes', ** {'value': Value('Routing::Bgp::MaxRoutes', ** {'routes': x, "
        "'warningThreshold': 0, 'warningOnly': False}), 'isSet': True})");
    ADD_FAILURE();
  } catch (const Kelp::RangeException& e) {
    EXPECT_STREQ(e.what(), "value: routes: expected an unsigned number at offset 101, found \"x, 'warningThreshold': 0...\"");
  }
}

}  // namespace
}  // namespace Routing::Bgp
