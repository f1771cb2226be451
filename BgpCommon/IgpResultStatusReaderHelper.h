#pragma once
// The read side of static-route redistribution: which IGP result applies to a route.
//
// A route handed to redistribution carries a 32-bit attribute-set identifier. For a static route
// it names the deduplicated policy result that the configuring process published in its
// IgpResultStatus table; for every other protocol it is the route tag itself. lookup() answers the
// record to apply and how it was reached:
//
//   resultTagOnly   not a static route, or static-route communities are switched off: a default
//                   record (key 0) whose tag is the identifier; the table is not read
//   resultDefault   a static route without an identifier (0): the default record
//   resultFound     the record stored under the identifier (all fields, key included)
//   resultNotFound  the identifier is not in the table (withdrawn, or not yet published): the
//                   default record
//
//   auto em = Kelp::makePtr<KelpSharedMem::EntityManager>();
//   auto helper = igpResultStatusReaderHelperFactory(
//       IgpResultStatus::createIgpResultStatusReader("static", em));
//   IgpResultLookup r = helper->lookup(routeKey, Rib::RoutingProtocol::protocolStatic, attrSetId);
//
// Static-route communities are a feature toggle ("StaticRouteCommunities" in "Ira.json", on unless
// the file says otherwise), read the first time a static route is looked up and kept for the life
// of the process. lookup() holds no lock and may be called from any number of threads. A damaged
// table entry is reported to the table's corruption handler and reads as absent (resultNotFound).

#include <cstdint>

#include "BgpCommon/FilteredRtStatus.h"
#include "BgpCommon/IgpPolicyTypes.h"
#include "platform/Kelp/EnumType.h"
#include "platform/Kelp/Ptr.h"
#include "platform/Kelp/ValueType.h"
#include "platform/Pico/Assert.h"
#include "platform/Routing/RibTypes.h"

namespace Routing::BgpRedistribute {

KELP_ENUM(enum class, IgpResultReturnType, std::uint8_t, "Routing::BgpRedistribute::IgpResultReturnType", named,
          resultDefault = 0,
          resultFound = 1,
          resultNotFound = 2,
          resultTagOnly = 3)

// The answer of a lookup: the record to apply and how it was reached. It prints but is not read
// from text (its record holds a collection, so strepToValue does not compile for it) and is not
// hashable.
struct IgpResultLookup : Kelp::ValueBase<IgpResultLookup> {
  IgpResult igpResult{IgpResultId()};
  IgpResultReturnType returnType = IgpResultReturnType::resultDefault;

  IgpResultLookup() = default;
  IgpResultLookup(const IgpResult& r, IgpResultReturnType t) : igpResult(r), returnType(t) {}

  friend constexpr auto kelpType(Kelp::Tag<IgpResultLookup>) {
    return Kelp::valueType<IgpResultLookup>("Routing::BgpRedistribute::IgpResultLookup",
                                            Kelp::field("igpResult", &IgpResultLookup::igpResult),
                                            Kelp::field("returnType", &IgpResultLookup::returnType));
  }
};

class IgpResultStatusReaderHelper : public Kelp::PtrInterface {
 public:
  // `status` may be null, but then no static route may be looked up.
  explicit IgpResultStatusReaderHelper(const Kelp::Ptr<const IgpResultStatus>& status)
      : staticConfigIgpResultStatus_(status) {}

  // The table of results computed for static-route configuration; fixed for the helper's life.
  const Kelp::Ptr<const IgpResultStatus>& staticConfigIgpResultStatus() const { return staticConfigIgpResultStatus_; }

  // The record that applies to a route (see the top of this file). `routeKey` is not consulted.
  // A static route looked up through a helper without a table stops the process. Inlined, as the
  // table read it is built on is: a route's lookup costs that read and a few tests, no call.
  [[gnu::always_inline]] IgpResultLookup lookup(const Rib::RouteKey& routeKey, Rib::RoutingProtocol protocol,
                                                std::uint32_t attrSetId) const;

  // Whether static routes take their result from the table: the toggle "StaticRouteCommunities"
  // of "Ira.json", true when absent. Read once per process, on first use.
  static bool staticRouteCommunities() {
    // A function-local static: initialised once, thread-safely, by the first caller; after that a
    // test of its guard.
    static const bool enabled = readStaticRouteCommunities();
    return enabled;
  }

 private:
  static bool readStaticRouteCommunities();

  const Kelp::Ptr<const IgpResultStatus> staticConfigIgpResultStatus_;
};

inline IgpResultLookup IgpResultStatusReaderHelper::lookup(const Rib::RouteKey&, Rib::RoutingProtocol protocol,
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

Kelp::Ptr<IgpResultStatusReaderHelper> igpResultStatusReaderHelperFactory(const Kelp::Ptr<const IgpResultStatus>& status);
Kelp::Ptr<IgpResultStatusReaderHelper> IgpResultStatusReaderHelperIs(const Kelp::Ptr<const IgpResultStatus>& status);

}  // namespace Routing::BgpRedistribute
