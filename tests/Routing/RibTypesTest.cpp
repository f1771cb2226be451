#include "platform/Routing/RibTypes.h"

#include <gtest/gtest.h>

#include "platform/Kelp/Registry.h"
#include "tests/Support/ValueConformance.h"

namespace Routing::Rib {
namespace {

TEST(RibTypes, RouteKeyAndProtocol) {
  const RouteKey v4(Netzo::IpGenPrefix::fromString("10.1.0.0/16"));
  const RouteKey v6(Netzo::IpGenPrefix::fromString("2001:db8::/32"));
  testing_support::expectValueConformance<RouteKey>({RouteKey(), v4, v6});
  EXPECT_EQ(Kelp::valueToStrep(v4), "Value('Routing::Rib::RouteKey', ** {'prefix': 10.1.0.0/16})");

  // Redistribution tells static routes by their number.
  static_assert(sizeof(RoutingProtocol) == 1);
  EXPECT_EQ(static_cast<unsigned>(RoutingProtocol::protocolStatic), 2u);
}

}  // namespace
}  // namespace Routing::Rib
