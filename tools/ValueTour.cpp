// bgpcommon value tour: a short walk through the configuration value types.
#include <cstdio>

#include "BgpCommon/BgpTypesImpl.h"
#include "platform/Kelp/Registry.h"
#include "tools/ValueTour.h"

namespace tools {
namespace {

// Prints a value's long and short forms and whether the long form parses back equal; false when
// it does not.
template <typename T>
bool show(const char* what, const T& v) {
  const Kelp::String text = Kelp::valueToStrep(v);
  const bool same = Kelp::strepToValue<T>(text) == v;
  std::printf("%s\n  long:  %s\n  short: %s\n  parsed back equal: %s\n", what, text.c_str(), v.toStrep().c_str(),
              same ? "yes" : "NO");
  return same;
}

}  // namespace

bool valueTour() {
  using namespace Routing::Bgp;
  std::printf("Configuration value types print a long text form that parses back exactly,\n"
              "and a short form for display.\n\n");
  bool ok = show("A neighbour's route limit", MaxRoutes(1000, 800, true));
  ok &= show("Accepted-route limit", MaxAcceptedRoutes(5, 4));
  ok &= show("Advertised-route limit", MaxAdvRoutes(20000, 18000));
  ok &= show("Advertisement delay", OutDelay(30, Routing::OutDelayApplyType::applyChanged));

  std::printf("\nBad text is refused with a message naming the field at fault:\n");
  const char* bad = "Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': -1, "
                    "'warningOnly': True})";
  try {
    Kelp::strepToValue<MaxRoutes>(bad);
    ok = false;
  } catch (const Kelp::RangeException& e) {
    std::printf("  %s\n", e.what());
  }
  std::printf("\n%zu types are registered (bgpcommon value list).\n", Kelp::registeredTypes().size());
  return ok;
}

}  // namespace tools
