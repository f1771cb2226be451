#include "BgpCommon/IgpResultStatusReaderHelper.h"

#include "platform/Kelp/Registry.h"
#include "platform/Pico/Assert.h"
#include "platform/Toggle/Toggle.h"

namespace Routing::BgpRedistribute {

bool IgpResultStatusReaderHelper::staticRouteCommunities() {
  // A function-local static: initialised once, thread-safely, by the first caller.
  static const bool enabled = getToggleState("StaticRouteCommunities", "Ira.json", true);
  return enabled;
}

IgpResultLookup IgpResultStatusReaderHelper::lookup(const Rib::RouteKey&, Rib::RoutingProtocol protocol,
                                                    std::uint32_t attrSetId) const {
  // Other protocols carry their route tag in the identifier; so do static routes while their
  // communities are switched off. The short-circuit keeps the toggle unread until a static route
  // comes by.
  if (protocol != Rib::RoutingProtocol::protocolStatic || !staticRouteCommunities()) {
    IgpResultLookup answer(IgpResult(IgpResultId()), IgpResultReturnType::resultTagOnly);
    answer.igpResult.tag = attrSetId;
    return answer;
  }
  PICO_ASSERT(staticConfigIgpResultStatus() != nullptr);
  if (attrSetId == 0) return IgpResultLookup(IgpResult(IgpResultId()), IgpResultReturnType::resultDefault);
  // The table's reader copies the record out whole. A damaged entry has been handed to the table's
  // corruption handler by the reader and reads as absent.
  std::optional<IgpResult> stored = staticConfigIgpResultStatus_->result(IgpResultId(attrSetId));
  if (stored) return IgpResultLookup(*stored, IgpResultReturnType::resultFound);
  return IgpResultLookup(IgpResult(IgpResultId()), IgpResultReturnType::resultNotFound);
}

Kelp::Ptr<IgpResultStatusReaderHelper> igpResultStatusReaderHelperFactory(const Kelp::Ptr<const IgpResultStatus>& status) {
  return Kelp::makePtr<IgpResultStatusReaderHelper>(status);
}

Kelp::Ptr<IgpResultStatusReaderHelper> IgpResultStatusReaderHelperIs(const Kelp::Ptr<const IgpResultStatus>& status) {
  return igpResultStatusReaderHelperFactory(status);
}

namespace {
const Kelp::TypeInfo readerHelperType =
    Kelp::entityType("Routing::BgpRedistribute::IgpResultStatusReaderHelper",
                     {"lookup", "routeKey", "protocol", "attrSetId", "igpResult", "returnType",
                      "staticConfigIgpResultStatus"});
const Kelp::TypeModule module("IgpResultStatusReaderHelper",
                              {Kelp::typeInfo<IgpResultReturnType>(), Kelp::typeInfo<IgpResultLookup>(),
                               &readerHelperType});
}  // namespace

}  // namespace Routing::BgpRedistribute
