#include "BgpCommon/BgpRouteKey.h"

#include <sstream>

#include "BgpCommon/BgpDedupTablesHelper.h"
#include "platform/Kelp/Registry.h"
#include "platform/Pico/Assert.h"

namespace Routing::Bgp {

Afi RouteKeyBase::afi() const {
  PICO_ASSERT(0 && "Must override in derived class");
  return afiUnknown;
}

Safi RouteKeyBase::safi() const {
  PICO_ASSERT(0 && "Must override in derived class");
  return safiUnknown;
}

NlriType RouteKeyBase::nlriType() const {
  PICO_ASSERT(0 && "Must override in derived class");
  return NlriType::unknown;
}

void RouteKeyBase::qtPut(Trackle::RingBuf*) const { PICO_ASSERT(0 && "Must override in derived class"); }

bool RouteKeyBase::lessThan(const Kelp::Ptr<const RouteKeyBase>&) const {
  PICO_ASSERT(0 && "Must override in derived class");
  return false;
}

Kelp::String RouteKeyBase::toStrepImpl() const {
  std::ostringstream os;
  os << this;
  return os.str();
}

AfiSafi RouteKeyBase::afiSafi() const {
  return AfiSafi::fromValue(std::uint32_t{safi()} << 16 | (std::uint32_t{afi()} & 0xFFFF));
}

Kelp::String RouteKeyBase::toStrep() const { return Routing::Bgp::toStrep(this); }

Kelp::Ptr<const RouteKeyBase> RouteKeyBase::dedup(const RouteKeyDedupTableBase* table) {
  PICO_ASSERT(table->afiSafi() == afiSafi());
  return Brim::handleCast<const RouteKeyBase>(table->hashTable()->dedup(this));
}

Kelp::String toStrep(const RouteKeyBase* key) { return key == nullptr ? Kelp::String("NULL") : key->toStrepImpl(); }

std::ostream& operator<<(std::ostream& os, const RouteKeyBase* key) {
  if (key == nullptr) return os << "NULL";
  // A key's formatter may change flags, width, fill or precision; the caller's stream keeps its own.
  const std::ios_base::fmtflags flags = os.flags();
  const std::streamsize width = os.width();
  const std::streamsize precision = os.precision();
  const char fill = os.fill();
  key->formatDerivedType(os);
  os.flags(flags);
  os.width(width);
  os.precision(precision);
  os.fill(fill);
  return os;
}

RouteKeyDedupTableBase::RouteKeyDedupTableBase(AfiSafi afiSafi, bool multiThreaded)
    : afiSafi_(afiSafi), multiThreaded_(multiThreaded) {
  handleInitializedBase();
}

void RouteKeyDedupTableBase::handleInitializedBase() {
  hashTable_ = DedupTablesHelperIs()->createStashDedupHashTable(multiThreaded_);
}

namespace {
const Kelp::TypeInfo routeKeyBaseType =
    Kelp::entityType("Routing::Bgp::RouteKeyBase", {"afi", "safi", "nlriType", "afiSafi", "afisafi", "dedup",
                                                    "dedupTable", "lessThan", "toStrep", "toStrepImpl"});
const Kelp::TypeInfo routeKeyDedupTableBaseType =
    Kelp::entityType("Routing::Bgp::RouteKeyDedupTableBase", {"afiSafi", "multiThreaded", "hashTable"});
const Kelp::TypeModule module("BgpRouteKey", {&routeKeyBaseType, &routeKeyDedupTableBaseType});
}  // namespace

}  // namespace Routing::Bgp
