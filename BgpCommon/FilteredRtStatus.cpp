#include "BgpCommon/FilteredRtStatus.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/Kelp/Registry.h"
#include "platform/Pico/Format.h"

Netzo::IpGenPrefix KelpShelf::KeyCodec<Netzo::IpGenPrefix>::decode(Shelf::Bytes b) {
  Netzo::IpGenPrefix p;
  if (b.size() < Codec::kMin || !Codec::canonical(b.data()) || Codec::storedSize(b.data()) != b.size()) return p;
  Codec::get(b.data(), p);
  return p;
}

namespace Routing::BgpRedistribute {

static_assert(Kelp::ByteForm<FilteredRoute>::kMax == FilteredRoute::maxSerializedLen);

std::uint32_t FilteredRoute::serializeLen() const { return Kelp::ByteForm<FilteredRoute>::size(*this); }

void FilteredRoute::serialize(std::uint8_t* out) const { Kelp::ByteForm<FilteredRoute>::put(out, *this); }

FilteredRoute FilteredRoute::deserialize(std::span<const std::uint8_t> in) {
  FilteredRoute r;
  Kelp::ByteForm<FilteredRoute>::get(in, r);
  // A stored value is exactly one record: bytes after it mean it is not one.
  if (const std::uint32_t n = r.serializeLen(); n != in.size()) {
    Pico::fmthrow<Kelp::RangeException>("FilteredRoute record of {} bytes is longer than {}", in.size(), n);
  }
  return r;
}

namespace {
// The table's name is the last component of its mount path: a name with a '/' would mount a table
// somewhere else below the root.
void checkTableName(const Kelp::String& name) {
  if (name.find('/') != Kelp::String::npos) {
    Pico::fmthrow<Kelp::RangeException>("IgpResultStatus name '{}' refused: it holds a '/'",
                                        name.size() > 64 ? name.substr(0, 64) + "..." : name);
  }
}
}  // namespace

Kelp::Ptr<IgpResultStatus> IgpResultStatus::createIgpResultStatusWriter(
    const Kelp::String& name, const Kelp::Ptr<KelpSharedMem::EntityManager>& em, std::uint32_t size) {
  checkTableName(name);
  const Kelp::String path = mountPath(name);
  em->mount(path, kTypeName, {KelpSharedMem::MountMode::writer, {{Kelp::String(kCollection), size}}});
  Kelp::Ptr<IgpResultStatus> igpResultStatus = Kelp::ptrDynamicCast<IgpResultStatus>(em->entity(path));
  PICO_ASSERT(igpResultStatus);
  igpResultStatus->resultDelAll();
  return igpResultStatus;
}

Kelp::Ptr<IgpResultStatus> IgpResultStatus::createIgpResultStatusReader(
    const Kelp::String& name, const Kelp::Ptr<KelpSharedMem::EntityManager>& em) {
  checkTableName(name);
  const Kelp::String path = mountPath(name);
  em->mount(path, kTypeName, {KelpSharedMem::MountMode::reader, {}});
  return Kelp::ptrDynamicCast<IgpResultStatus>(em->entity(path));
}

Kelp::Ptr<IgpResultStatus> igpResultStatusFactory(const Kelp::String& name) {
  return Kelp::makePtr<IgpResultStatus>(name);
}

bool FilteredRtStatus::routesProcessed() const {
  const auto& c = recordControl();
  return c ? c->scalar(kRoutesProcessedScalar) != 0 : routesProcessed_;
}

void FilteredRtStatus::routesProcessedIs(bool processed) {
  if (processed == routesProcessed()) return;
  const auto& c = recordControl();
  if (c) {
    c->scalarIs(kRoutesProcessedScalar, processed ? 1 : 0);
  } else {
    routesProcessed_ = processed;
  }
  notifyAll([](Notifiee& n) { n.onRoutesProcessed(); });
}

void FilteredRtStatus::onScalarChange(std::uint32_t index) {
  if (index == kRoutesProcessedScalar) notifyAll([](Notifiee& n) { n.onRoutesProcessed(); });
}

Kelp::Ptr<FilteredRtStatus> filteredRtStatusFactory(const Kelp::String& name) {
  return Kelp::makePtr<FilteredRtStatus>(name);
}

namespace {

const KelpSharedMem::TableEntityRegistration<IgpResultStatus> igpResultStatusType;
const KelpSharedMem::TableEntityRegistration<FilteredRtStatus> filteredRtStatusType;

const Kelp::TypeModule module("FilteredRtStatus",
                              {Kelp::typeInfo<FilteredRoute>(), igpResultStatusType.typeInfo(), filteredRtStatusType.typeInfo()});

}  // namespace
}  // namespace Routing::BgpRedistribute
