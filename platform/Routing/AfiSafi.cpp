#include "platform/Routing/AfiSafi.h"

#include "platform/Kelp/Hash.h"
#include "platform/Kelp/Registry.h"

namespace Routing::Bgp {

std::uint32_t AfiSafi::hash(std::uint32_t seed) const {
  Kelp::Hash h(seed);
  h.hashMix(word_);
  return h.result();
}

std::ostream& operator<<(std::ostream& os, AfiSafi a) { return os << Kelp::valueToStrep(a); }

namespace {
const Kelp::TypeModule module("AfiSafi", {Kelp::typeInfo<Afi>(), Kelp::typeInfo<Safi>(), Kelp::typeInfo<NlriType>(),
                                          Kelp::typeInfo<AfiSafi>()});
}

}  // namespace Routing::Bgp

void Kelp::TextForm<Routing::Bgp::AfiSafi>::print(String& out, Routing::Bgp::AfiSafi v) {
  out += '(';
  TextForm<Routing::Bgp::Afi>::print(out, v.afi());
  out += ", ";
  TextForm<Routing::Bgp::Safi>::print(out, v.safi());
  out += ')';
}

void Kelp::TextForm<Routing::Bgp::AfiSafi>::parse(CharRange& r, Routing::Bgp::AfiSafi& v) {
  Routing::Bgp::Afi afi;
  Routing::Bgp::Safi safi;
  r.needString("(");
  TextForm<Routing::Bgp::Afi>::parse(r, afi);
  r.needString(", ");
  TextForm<Routing::Bgp::Safi>::parse(r, safi);
  r.needString(")");
  v = Routing::Bgp::AfiSafi(afi, safi);
}
