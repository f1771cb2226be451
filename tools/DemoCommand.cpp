// bgpcommon demo: a short tour of the configuration value types.
#include <cstdio>

#include "BgpCommon/BgpTypesImpl.h"
#include "platform/Kelp/Registry.h"
#include "tools/Command.h"

namespace {

template <typename T>
void show(const char* what, const T& v) {
  Kelp::String text = Kelp::valueToStrep(v);
  T back = Kelp::strepToValue<T>(text);
  std::printf("%s\n  long:  %s\n  short: %s\n  parsed back equal: %s\n", what, text.c_str(),
              v.toStrep().c_str(), back == v ? "yes" : "NO");
}

void valueTour() {
  using namespace Routing::Bgp;
  std::printf("Configuration value types print a long text form that parses back exactly,\n"
              "and a short form for display.\n\n");
  show("A neighbour's route limit", MaxRoutes(1000, 800, true));
  show("Accepted-route limit", MaxAcceptedRoutes(5, 4));
  show("Advertised-route limit", MaxAdvRoutes(20000, 18000));
  show("Advertisement delay", OutDelay(30, Routing::OutDelayApplyType::applyChanged));

  std::printf("\nBad text is refused with a message naming the field at fault:\n");
  const char* bad = "Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': -1, "
                    "'warningOnly': True})";
  try {
    Kelp::strepToValue<MaxRoutes>(bad);
  } catch (const Kelp::RangeException& e) {
    std::printf("  %s\n", e.what());
  }
  std::printf("\n%zu types are registered (bgpcommon value list).\n", Kelp::registeredTypes().size());
}

tools::CommandRegistration reg("demo", [](CLI::App& app) {
  auto* demo = app.add_subcommand("demo", "Show the library at work");
  demo->callback(valueTour);
});

}  // namespace
