#include "BgpCommon/IgpResultStatusReaderHelper.h"

#include "platform/Kelp/Registry.h"
#include "platform/Toggle/Toggle.h"

namespace Routing::BgpRedistribute {

bool IgpResultStatusReaderHelper::readStaticRouteCommunities() {
  return getToggleState("StaticRouteCommunities", "Ira.json", true);
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
