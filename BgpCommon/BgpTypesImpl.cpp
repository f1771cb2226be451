#include "BgpCommon/BgpTypesImpl.h"

#include <sstream>

#include "platform/Kelp/Registry.h"

namespace Routing::Bgp {

Kelp::String MaxRoutes::toStrep() const {
  std::ostringstream os;
  os << "<routes=" << routes << ";warningOnly=" << (warningOnly ? "yes" : "no")
     << ";warningThreshold=" << warningThreshold << ">";
  return os.str();
}

Kelp::String OutDelay::toStrep() const {
  std::ostringstream os;
  os << "<delay=" << delay << ";apply=" << stringValue(apply) << ">";
  return os.str();
}

namespace {
const Kelp::TypeModule module("BgpTypesImpl", {Kelp::typeInfo<MaxRoutes>(), Kelp::typeInfo<MaxAcceptedRoutes>(),
                                               Kelp::typeInfo<MaxAdvRoutes>(), Kelp::typeInfo<OutDelay>()});
}

}  // namespace Routing::Bgp
