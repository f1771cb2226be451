#include "BgpCommon/BgpTypesImpl.h"

#include <gtest/gtest.h>

#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

using testing_support::attrOp;
using testing_support::expectValueConformance;
using testing_support::rangeMessage;

TEST(RouteLimits, Conformance) {
  expectValueConformance<MaxRoutes>({{}, {1000, 800, true}, {0, 0, true}, {4294967295u, 4294967295u, false}});
  expectValueConformance<MaxAcceptedRoutes>({{}, {5, 4}, {0, 1}, {4294967295u, 0}});
  expectValueConformance<MaxAdvRoutes>({{}, {20000, 18000}, {1, 0}});
  expectValueConformance<OutDelay>({{}, {30, OutDelayApplyType::applyNew}, {0, OutDelayApplyType::applyChanged},
                                    {7, OutDelayApplyType::applyAll}});
  testing_support::expectDamagedTextsRefused(MaxRoutes(1, 2, true));
  testing_support::expectDamagedTextsRefused(OutDelay(3, OutDelayApplyType::applyNew));
}

// Each value's long form, its short display form, and no parser taking the short form back.
TEST(RouteLimits, LongAndShortForms) {
  auto expectForms = [](const auto& v, const char* longForm, const char* shortForm) {
    EXPECT_EQ(Kelp::valueToStrep(v), longForm);
    EXPECT_EQ(v.toStrep(), shortForm);
    EXPECT_THROW(Kelp::strepToValue<std::decay_t<decltype(v)>>(shortForm), Kelp::RangeException);
  };
  expectForms(MaxRoutes(1000, 800, true),
              "Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': 800, 'warningOnly': True})",
              "<routes=1000;warningOnly=yes;warningThreshold=800>");  // warningOnly before the threshold
  expectForms(MaxRoutes(1, 2, false),
              "Value('Routing::Bgp::MaxRoutes', ** {'routes': 1, 'warningThreshold': 2, 'warningOnly': False})",
              "<routes=1;warningOnly=no;warningThreshold=2>");
  expectForms(MaxAcceptedRoutes(5, 4), "Value('Routing::Bgp::MaxAcceptedRoutes', ** {'routes': 5, 'warningThreshold': 4})",
              "<acceptedRoutes=5;warningThreshold=4>");
  expectForms(MaxAdvRoutes(6, 3), "Value('Routing::Bgp::MaxAdvRoutes', ** {'routes': 6, 'warningThreshold': 3})",
              "<advRoutes=6;warningThreshold=3>");
  expectForms(OutDelay(30, OutDelayApplyType::applyNew),
              "Value('Routing::Bgp::OutDelay', ** {'delay': 30, 'apply': applyNew})", "<delay=30;apply=applyNew>");
}

TEST(RouteLimits, ParseErrorsNameTheFieldAtFault) {
  const std::pair<const char*, const char*> rows[] = {
      // missing blank after a field name's colon
      {"Value('Routing::Bgp::MaxRoutes', ** {'routes':1, 'warningThreshold': 2, 'warningOnly': True})",
       "expected \"'routes': \" at offset 37, found \"'routes':1, 'warningThre...\""},
      // another type name
      {"Value('Routing::Bgp::MaxAdvRoutes', ** {'routes': 1, 'warningThreshold': 2})",
       "expected \"Value('Routing::Bgp::MaxRoutes', ** {\" at offset 0, found \"Value('Routing::Bgp::Max...\""},
      // bad numbers and words
      {"Value('Routing::Bgp::MaxRoutes', ** {'routes': x, 'warningThreshold': 2, 'warningOnly': True})",
       "routes: expected an unsigned number at offset 47, found \"x, 'warningThreshold': 2...\""},
      {"Value('Routing::Bgp::MaxRoutes', ** {'routes': 4294967296, 'warningThreshold': 2, 'warningOnly': True})",
       "routes: number above 4294967295 at offset 47, found \"4294967296, 'warningThre...\""},
      {"Value('Routing::Bgp::MaxRoutes', ** {'routes': 01, 'warningThreshold': 2, 'warningOnly': True})",
       "routes: leading zero in a number at offset 47, found \"01, 'warningThreshold': ...\""},
      {"Value('Routing::Bgp::MaxRoutes', ** {'routes': 1, 'warningThreshold': 2, 'warningOnly': true})",
       "warningOnly: expected True or False at offset 88, found \"true})\""},
      {"Value('Routing::Bgp::MaxRoutes', ** {'routes': 1, 'warningThreshold': 2, 'warningOnly': True}",
       "expected \"})\" at offset 92, found \"}\""},
  };
  for (const auto& [text, message] : rows) {
    EXPECT_EQ(rangeMessage([&] { Kelp::strepToValue<MaxRoutes>(text); }), message) << text;
  }
  // An enumeration field's errors stand at the field's offset in the whole text.
  const std::pair<const char*, const char*> applyRows[] = {
      {"applyNever", "apply: expected a Routing::OutDelayApplyType enumerator at offset 57, found \"applyNever})\""},
      {"256", "apply: number above 255 at offset 57, found \"256})\""},
      {"5", "apply: no Routing::OutDelayApplyType enumerator numbered 5 at offset 57, found \"5})\""},
  };
  for (const auto& [apply, message] : applyRows) {
    const std::string text = std::string("Value('Routing::Bgp::OutDelay', ** {'delay': 5, 'apply': ") + apply + "})";
    EXPECT_EQ(rangeMessage([&] { Kelp::strepToValue<OutDelay>(text); }), message) << text;
  }
}

// Reflection: attributes numbered from 2 in declaration order; fields refuse set, toStrep is
// callable; whole-object truth is any field non-zero or true.
TEST(RouteLimits, Reflection) {
  EXPECT_EQ(testing_support::attributeList<MaxRoutes>(), "routes warningThreshold warningOnly toStrep()");
  EXPECT_EQ(testing_support::attributeList<MaxAcceptedRoutes>(), "routes warningThreshold toStrep()");
  EXPECT_EQ(testing_support::attributeList<MaxAdvRoutes>(), "routes warningThreshold toStrep()");
  EXPECT_EQ(testing_support::attributeList<OutDelay>(), "delay apply toStrep()");

  MaxRoutes m(1000, 800, true);
  std::any result;
  EXPECT_EQ(attrOp(result, m, 3, Kelp::attrOpSet, std::any(std::uint32_t{5})), 1);
  EXPECT_EQ(m, MaxRoutes(1000, 800, true));
  EXPECT_EQ(attrOp(result, m, 5, Kelp::attrOpCall), 0);
  EXPECT_EQ(std::any_cast<Kelp::String>(result), m.toStrep());
  auto truth = [&](auto v) {
    EXPECT_EQ(attrOp(result, v, 0, Kelp::attrOpTruth), 0);
    return std::any_cast<bool>(result);
  };
  EXPECT_FALSE(truth(MaxRoutes(0, 0, false)));
  EXPECT_TRUE(truth(MaxRoutes(0, 0, true)));
  EXPECT_TRUE(truth(MaxRoutes(0, 1, false)));
  EXPECT_TRUE(truth(MaxAdvRoutes(1, 0)));
  EXPECT_FALSE(truth(OutDelay()));
  EXPECT_TRUE(truth(OutDelay(0, OutDelayApplyType::applyNew)));
}

}  // namespace
}  // namespace Routing::Bgp
