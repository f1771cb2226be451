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

#include <cstdint>

#include "platform/Kelp/ValueType.h"
#include "platform/Routing/OutDelayApplyType.h"

namespace Routing::Bgp {

using Routing::OutDelayApplyType;

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

struct MaxAcceptedRoutes : Kelp::ValueBase<MaxAcceptedRoutes> {
  std::uint32_t routes = 0;  // limit on accepted routes
  std::uint32_t warningThreshold = 0;

  MaxAcceptedRoutes() = default;
  MaxAcceptedRoutes(std::uint32_t r, std::uint32_t threshold) : routes(r), warningThreshold(threshold) {}
  explicit MaxAcceptedRoutes(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  // "<acceptedRoutes=R;warningThreshold=W>"
  Kelp::String toStrep() const;

  friend constexpr auto kelpType(Kelp::Tag<MaxAcceptedRoutes>) {
    return Kelp::valueType<MaxAcceptedRoutes>(
        "Routing::Bgp::MaxAcceptedRoutes", Kelp::field("routes", &MaxAcceptedRoutes::routes),
        Kelp::field("warningThreshold", &MaxAcceptedRoutes::warningThreshold),
        Kelp::function("toStrep", &MaxAcceptedRoutes::toStrep));
  }
};

struct MaxAdvRoutes : Kelp::ValueBase<MaxAdvRoutes> {
  std::uint32_t routes = 0;  // limit on advertised routes
  std::uint32_t warningThreshold = 0;

  MaxAdvRoutes() = default;
  MaxAdvRoutes(std::uint32_t r, std::uint32_t threshold) : routes(r), warningThreshold(threshold) {}
  explicit MaxAdvRoutes(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  // "<advRoutes=R;warningThreshold=W>"
  Kelp::String toStrep() const;

  friend constexpr auto kelpType(Kelp::Tag<MaxAdvRoutes>) {
    return Kelp::valueType<MaxAdvRoutes>("Routing::Bgp::MaxAdvRoutes",
                                         Kelp::field("routes", &MaxAdvRoutes::routes),
                                         Kelp::field("warningThreshold", &MaxAdvRoutes::warningThreshold),
                                         Kelp::function("toStrep", &MaxAdvRoutes::toStrep));
  }
};

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
