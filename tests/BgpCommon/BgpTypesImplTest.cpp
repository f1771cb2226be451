#include "BgpCommon/BgpTypesImpl.h"

#include <gtest/gtest.h>

#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

using testing_support::rangeMessage;

// Conformance of these types runs with the tristates that wrap them (TristateTypesTest).
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
      // a bad number and word (the number readers' own messages are TextFormTest's)
      {"Value('Routing::Bgp::MaxRoutes', ** {'routes': x, 'warningThreshold': 2, 'warningOnly': True})",
       "routes: expected an unsigned number at offset 47, found \"x, 'warningThreshold': 2...\""},
      {"Value('Routing::Bgp::MaxRoutes', ** {'routes': 1, 'warningThreshold': 2, 'warningOnly': true})",
       "warningOnly: expected True or False at offset 88, found \"true})\""},
      {"Value('Routing::Bgp::MaxRoutes', ** {'routes': 1, 'warningThreshold': 2, 'warningOnly': True}",
       "expected \"})\" at offset 92, found \"}\""},
  };
  for (const auto& [text, message] : rows) {
    EXPECT_EQ(rangeMessage([&] { Kelp::strepToValue<MaxRoutes>(text); }), message) << text;
  }
  // An enumeration field's errors stand at the field's offset in the whole text.
  EXPECT_EQ(rangeMessage([] { Kelp::strepToValue<OutDelay>("Value('Routing::Bgp::OutDelay', ** {'delay': 5, 'apply': 5})"); }),
            "apply: no Routing::OutDelayApplyType enumerator numbered 5 at offset 57, found \"5})\"");
}

}  // namespace
}  // namespace Routing::Bgp
