#include "BgpCommon/BgpTypesImpl.h"

#include <gtest/gtest.h>

#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

using testing_support::expectValueConformance;

TEST(RouteLimits, Conformance) {
  expectValueConformance<MaxRoutes>({{}, {1000, 800, true}, {0, 0, true}, {4294967295u, 4294967295u, false}});
  expectValueConformance<MaxAcceptedRoutes>({{}, {5, 4}, {0, 1}, {4294967295u, 0}});
  expectValueConformance<MaxAdvRoutes>({{}, {20000, 18000}, {1, 0}});
  expectValueConformance<OutDelay>({{}, {30, OutDelayApplyType::applyNew}, {0, OutDelayApplyType::applyChanged},
                                    {7, static_cast<OutDelayApplyType>(9)}});
  testing_support::expectDamagedTextsRefused(MaxRoutes(1, 2, true));
  testing_support::expectDamagedTextsRefused(OutDelay(3, OutDelayApplyType::applyNew));
}

TEST(RouteLimits, LongAndShortForms) {
  struct Row {
    Kelp::String longForm;
    Kelp::String shortForm;
  };
  const Row rows[] = {
      {Kelp::valueToStrep(MaxRoutes(1000, 800, true)),
       "<routes=1000;warningOnly=yes;warningThreshold=800>"},
      {Kelp::valueToStrep(MaxAcceptedRoutes(5, 4)), "<acceptedRoutes=5;warningThreshold=4>"},
      {Kelp::valueToStrep(MaxAdvRoutes(6, 3)), "<advRoutes=6;warningThreshold=3>"},
      {Kelp::valueToStrep(OutDelay(30, OutDelayApplyType::applyNew)), "<delay=30;apply=applyNew>"},
  };
  EXPECT_EQ(rows[0].longForm,
            "Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': 800, 'warningOnly': True})");
  EXPECT_EQ(rows[1].longForm, "Value('Routing::Bgp::MaxAcceptedRoutes', ** {'routes': 5, 'warningThreshold': 4})");
  EXPECT_EQ(rows[2].longForm, "Value('Routing::Bgp::MaxAdvRoutes', ** {'routes': 6, 'warningThreshold': 3})");
  EXPECT_EQ(rows[3].longForm, "Value('Routing::Bgp::OutDelay', ** {'delay': 30, 'apply': applyNew})");
  EXPECT_EQ(MaxRoutes(1000, 800, true).toStrep(), rows[0].shortForm);
  EXPECT_EQ(MaxRoutes(1, 2, false).toStrep(), "<routes=1;warningOnly=no;warningThreshold=2>");
  EXPECT_EQ(MaxAcceptedRoutes(5, 4).toStrep(), rows[1].shortForm);
  EXPECT_EQ(MaxAdvRoutes(6, 3).toStrep(), rows[2].shortForm);
  EXPECT_EQ(OutDelay(30, OutDelayApplyType::applyNew).toStrep(), rows[3].shortForm);
  // No parser accepts the short forms.
  for (const Row& row : rows) {
    EXPECT_THROW(Kelp::strepToValue<MaxRoutes>(row.shortForm), Kelp::RangeException);
    EXPECT_THROW(Kelp::strepToValue<OutDelay>(row.shortForm), Kelp::RangeException);
  }
}

TEST(RouteLimits, ParseErrorsNameTheFieldAtFault) {
  struct Row {
    const char* text;
    const char* message;
  };
  const Row rows[] = {
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
      {"Value('Routing::Bgp::MaxRoutes', ** {'routes': 1, 'warningThreshold': 2, 'warningOnly': true})",
       "warningOnly: expected True or False at offset 88, found \"true})\""},
      {"Value('Routing::Bgp::MaxRoutes', ** {'routes': 1, 'warningThreshold': 2, 'warningOnly': True}",
       "expected \"})\" at offset 92, found \"}\""},
  };
  for (const Row& row : rows) {
    try {
      Kelp::strepToValue<MaxRoutes>(row.text);
      ADD_FAILURE() << "accepted: " << row.text;
    } catch (const Kelp::RangeException& e) {
      EXPECT_STREQ(e.what(), row.message) << row.text;
    }
  }
  try {
    Kelp::strepToValue<OutDelay>("Value('Routing::Bgp::OutDelay', ** {'delay': 1, 'apply': applyNever})");
    ADD_FAILURE();
  } catch (const Kelp::RangeException& e) {
    EXPECT_STREQ(e.what(),
                 "apply: expected a Routing::OutDelayApplyType enumerator at offset 57, found \"applyNever})\"");
  }
}

TEST(RouteLimits, TruthTest) {
  EXPECT_FALSE(MaxRoutes(0, 0, false));
  EXPECT_TRUE(MaxRoutes(0, 0, true));
  EXPECT_TRUE(MaxRoutes(0, 1, false));
  EXPECT_FALSE(MaxAcceptedRoutes());
  EXPECT_TRUE(MaxAdvRoutes(1, 0));
  EXPECT_FALSE(OutDelay());
  EXPECT_TRUE(OutDelay(0, OutDelayApplyType::applyNew));
}

// Reflection: get answers, set is refused, toStrep is callable, whole-object operations.
TEST(RouteLimits, Reflection) {
  MaxRoutes m(1000, 800, true);
  const MaxRoutes zero;
  std::any result;
  auto attr = [](int id) { return Kelp::KelpAttrBase{id, ""}; };
  struct Row {
    int id;
    int op;
    int status;
  };
  const Row rows[] = {{2, 0, 0}, {3, 0, 0}, {4, 0, 0}, {5, 10, 0},  // get, call
                      {2, 1, 1}, {4, 1, 1}, {5, 0, 1}, {2, 10, 1},  // read-only, wrong operation
                      {1, 0, 2}, {6, 0, 2}, {100, 0, 2}};           // no such attribute
  for (const Row& row : rows) {
    Kelp::KelpAttrBase a = attr(row.id);
    std::any arg = std::uint32_t{5};
    EXPECT_EQ(Kelp::genericIfAttributeOp(&result, &m, &a, row.op, nullptr, std::span<const std::any>(&arg, row.op == 1)),
              row.status)
        << row.id << "/" << row.op;
  }
  EXPECT_EQ(m, MaxRoutes(1000, 800, true));
  Kelp::KelpAttrBase threshold = attr(3), call = attr(5);
  Kelp::genericIfAttributeOp(&result, &m, &threshold, 0, nullptr);
  EXPECT_EQ(std::any_cast<std::uint32_t>(result), 800u);
  Kelp::genericIfAttributeOp(&result, &m, &call, 10, nullptr);
  EXPECT_EQ(std::any_cast<Kelp::String>(result), m.toStrep());

  EXPECT_EQ(Kelp::genericIfAttributeOp(&result, &m, nullptr, 11, nullptr), 0);
  EXPECT_TRUE(std::any_cast<bool>(result));
  MaxRoutes z;
  Kelp::genericIfAttributeOp(&result, &z, nullptr, 11, nullptr);
  EXPECT_FALSE(std::any_cast<bool>(result));
  Kelp::genericIfAttributeOp(&result, &m, nullptr, 12, &zero);
  EXPECT_FALSE(std::any_cast<bool>(result));
  EXPECT_EQ(Kelp::genericIfAttributeOp(&result, &m, nullptr, 13, &zero), 1);  // no ordering
  EXPECT_EQ(Kelp::genericIfAttributeOp(&result, &m, nullptr, 14, &zero), 1);

  // Attribute numbering follows declaration order from 2.
  const Kelp::TypeInfo* t = Kelp::findType("Routing::Bgp::OutDelay");
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->attributes.size(), 3u);
  EXPECT_EQ(t->attribute("delay")->id, 2);
  EXPECT_EQ(t->attribute("apply")->id, 3);
  EXPECT_EQ(t->attribute("toStrep")->id, 4);
}

}  // namespace
}  // namespace Routing::Bgp
