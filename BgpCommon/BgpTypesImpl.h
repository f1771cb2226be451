#pragma once
// Per-neighbour route limits and the advertisement delay.
//
// MaxRoutes         how many routes a neighbour may send before the session is torn down (or, with
//                   warningOnly, before a warning is raised), and when to warn on the way up;
// MaxAcceptedRoutes how many received routes are accepted;
// MaxAdvRoutes      how many routes are advertised to the neighbour;
// OutDelay          how long outbound advertisements are held back, and to which changes that
//                   applies.
//
// Each is a plain value: it prints and parses its long text form
//   Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': 800, 'warningOnly': True})
// and has a short display form from toStrep():
//   <routes=1000;warningOnly=yes;warningThreshold=800>
// The short forms are for display only: no parser reads them. None of the four is hashable.
// All four default to zero; the configured defaults live in their tristates.

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/Kelp/ValueType.h"
#include "platform/Routing/OutDelayApplyType.h"

namespace Routing::Bgp {

using Routing::OutDelayApplyType;

// A qualified type name, or another text, carried as a template argument
// ("Routing::Bgp::TristateMaxRoutes").
template <std::size_t N>
struct TypeNameLiteral {
  char chars[N]{};
  constexpr TypeNameLiteral(const char (&text)[N]) {
    for (std::size_t i = 0; i < N; ++i) chars[i] = text[i];
  }
};

struct MaxRoutes : Kelp::ValueBase<MaxRoutes> {
  std::uint32_t routes = 0;            // the route limit
  std::uint32_t warningThreshold = 0;  // the count at which a warning is raised
  bool warningOnly = false;            // reaching the limit only warns

  MaxRoutes() = default;
  MaxRoutes(std::uint32_t r, std::uint32_t threshold, bool onlyWarn)
      : routes(r), warningThreshold(threshold), warningOnly(onlyWarn) {}
  explicit MaxRoutes(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  // "<routes=R;warningOnly=yes|no;warningThreshold=W>": warningOnly is shown before the threshold.
  Kelp::String toStrep() const;

  friend constexpr auto kelpType(Kelp::Tag<MaxRoutes>) {
    return Kelp::valueType<MaxRoutes>("Routing::Bgp::MaxRoutes",
                                      Kelp::field("routes", &MaxRoutes::routes),
                                      Kelp::field("warningThreshold", &MaxRoutes::warningThreshold),
                                      Kelp::field("warningOnly", &MaxRoutes::warningOnly),
                                      Kelp::function("toStrep", &MaxRoutes::toStrep));
  }
};

// A limit on the routes of one direction of a session: how many, and from how many on to warn.
// `Name` is the qualified type name, `Label` names the limit in the short form.
template <TypeNameLiteral Name, TypeNameLiteral Label>
struct RouteLimit : Kelp::ValueBase<RouteLimit<Name, Label>> {
  std::uint32_t routes = 0;  // the limit
  std::uint32_t warningThreshold = 0;

  RouteLimit() = default;
  RouteLimit(std::uint32_t r, std::uint32_t threshold) : routes(r), warningThreshold(threshold) {}
  explicit RouteLimit(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  // "<LABEL=R;warningThreshold=W>"
  Kelp::String toStrep() const {
    return "<" + Kelp::String(Label.chars) + "=" + std::to_string(routes) +
           ";warningThreshold=" + std::to_string(warningThreshold) + ">";
  }

  friend constexpr auto kelpType(Kelp::Tag<RouteLimit>) {
    return Kelp::valueType<RouteLimit>(Name.chars, Kelp::field("routes", &RouteLimit::routes),
                                       Kelp::field("warningThreshold", &RouteLimit::warningThreshold),
                                       Kelp::function("toStrep", &RouteLimit::toStrep));
  }
};

// "<acceptedRoutes=R;warningThreshold=W>"
using MaxAcceptedRoutes = RouteLimit<"Routing::Bgp::MaxAcceptedRoutes", "acceptedRoutes">;
// "<advRoutes=R;warningThreshold=W>"
using MaxAdvRoutes = RouteLimit<"Routing::Bgp::MaxAdvRoutes", "advRoutes">;

struct OutDelay : Kelp::ValueBase<OutDelay> {
  std::uint32_t delay = 0;  // passed through unchanged; the unit is the configuration's
  OutDelayApplyType apply = OutDelayApplyType::applyAll;

  OutDelay() = default;
  OutDelay(std::uint32_t d, OutDelayApplyType a) : delay(d), apply(a) {}
  explicit OutDelay(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  // "<delay=D;apply=NAME>"
  Kelp::String toStrep() const;

  friend constexpr auto kelpType(Kelp::Tag<OutDelay>) {
    return Kelp::valueType<OutDelay>("Routing::Bgp::OutDelay", Kelp::field("delay", &OutDelay::delay),
                                     Kelp::field("apply", &OutDelay::apply),
                                     Kelp::function("toStrep", &OutDelay::toStrep));
  }
};

}  // namespace Routing::Bgp
