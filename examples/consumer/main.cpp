// Uses the installed library: parses a route target and a route limit, and prints them.
#include <cstdio>

#include "BgpCommon/BgpTypesImpl.h"
#include "BgpCommon/RouteTarget.h"
#include "platform/Kelp/Registry.h"

int main(int argc, char** argv) {
  Routing::Bgp::RouteTarget rt;
  rt.stringValueIs(argc > 1 ? argv[1] : "70000:5");
  std::printf("route target %s (asdot %s)\n", rt.toStrep(false).c_str(), rt.toStrep(true).c_str());

  auto limit = Kelp::strepToValue<Routing::Bgp::MaxRoutes>(
      "Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': 800, 'warningOnly': True})");
  std::printf("max routes %s\n", limit.toStrep().c_str());
  std::printf("%zu registered types\n", Kelp::registeredTypes().size());
  return limit.routes == 1000 ? 0 : 1;
}
