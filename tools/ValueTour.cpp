// bgpcommon value tour: a short walk through the configuration value types.
#include "tools/ValueTour.h"

#include <cstdio>

#include "BgpCommon/BgpTypesImpl.h"
#include "platform/Kelp/Registry.h"
#include "tools/JsonSupport.h"

namespace tools {
namespace {

// A value of the tour as value tour --json shows it.
struct TourValue {
  Kelp::String what;
  Kelp::String type;
  Kelp::String longForm;
  Kelp::String shortForm;
  JsonRaw json;
  bool parsedBackEqual = false;
  friend constexpr auto kelpType(Kelp::Tag<TourValue>) {
    return Kelp::valueType<TourValue>(
        "tools::TourValue", Kelp::field("what", &TourValue::what), Kelp::field("type", &TourValue::type),
        Kelp::field("long", &TourValue::longForm), Kelp::field("short", &TourValue::shortForm),
        Kelp::field("json", &TourValue::json), Kelp::field("parsedBackEqual", &TourValue::parsedBackEqual));
  }
};
struct Tour {
  JsonList<TourValue> values;
  Kelp::String refused;  // a bad text
  Kelp::String message;  // and why it was refused
  std::uint64_t registeredTypes = 0;
  friend constexpr auto kelpType(Kelp::Tag<Tour>) {
    return Kelp::valueType<Tour>("tools::Tour", Kelp::field("values", &Tour::values),
                                 Kelp::field("refused", &Tour::refused), Kelp::field("message", &Tour::message),
                                 Kelp::field("registeredTypes", &Tour::registeredTypes));
  }
};

// A value's long and short forms, its JSON and whether the long form parses back equal.
template <typename T>
TourValue visit(const char* what, const T& v) {
  const Kelp::String text = Kelp::valueToStrep(v);
  return {what,
          Kelp::String(Kelp::typeNameOf<T>()),
          text,
          v.toStrep(),
          {Kelp::valueToJson(v)},
          Kelp::strepToValue<T>(text) == v};
}

}  // namespace

bool valueTour(bool json) {
  using namespace Routing::Bgp;
  Tour tour;
  tour.values.items = {visit("A neighbour's route limit", MaxRoutes(1000, 800, true)),
                       visit("Accepted-route limit", MaxAcceptedRoutes(5, 4)),
                       visit("Advertised-route limit", MaxAdvRoutes(20000, 18000)),
                       visit("Advertisement delay", OutDelay(30, Routing::OutDelayApplyType::applyChanged))};
  tour.refused = "Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': -1, 'warningOnly': True})";
  bool ok = true;
  try {
    Kelp::strepToValue<MaxRoutes>(tour.refused);
    ok = false;
  } catch (const Kelp::RangeException& e) {
    tour.message = e.what();
  }
  tour.registeredTypes = Kelp::registeredTypes().size();
  for (const TourValue& v : tour.values.items) ok = ok && v.parsedBackEqual;
  if (json) {
    std::printf("%s\n", Kelp::valueToJson(tour).c_str());
    return ok;
  }
  std::printf(
      "Configuration value types print a long text form that parses back exactly,\n"
      "and a short form for display.\n\n");
  for (const TourValue& v : tour.values.items) {
    std::printf("%s\n  long:  %s\n  short: %s\n  parsed back equal: %s\n", v.what.c_str(), v.longForm.c_str(),
                v.shortForm.c_str(), v.parsedBackEqual ? "yes" : "NO");
  }
  std::printf("\nBad text is refused with a message naming the field at fault:\n  %s\n", tour.message.c_str());
  std::printf("\n%zu types are registered (bgpcommon value list).\n", Kelp::registeredTypes().size());
  return ok;
}

}  // namespace tools
