#include "BgpCommon/FilteredRtStatus.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/Kelp/Registry.h"
#include "platform/Pico/Format.h"

std::uint32_t KelpShelf::KeyCodec<Netzo::IpGenPrefix>::encode(const Netzo::IpGenPrefix& p, std::uint8_t* out) {
  out[0] = static_cast<std::uint8_t>(p.family());
  out[1] = p.length();
  std::size_t n = p.address().octetCount();
  std::memcpy(out + 2, p.address().octets(), n);
  return static_cast<std::uint32_t>(2 + n);
}

namespace {
// The prefix at the front of `b` and the bytes it took, or nothing when the bytes are no prefix.
std::optional<std::pair<Netzo::IpGenPrefix, std::size_t>> decodePrefix(Shelf::Bytes b) {
  using Netzo::AddressFamily;
  if (b.size() < 2) return std::nullopt;
  auto family = static_cast<AddressFamily>(b[0]);
  if (family != AddressFamily::ipUnknown && family != AddressFamily::ipv4 && family != AddressFamily::ipv6) {
    return std::nullopt;
  }
  std::size_t n = family == AddressFamily::ipv4 ? 4 : family == AddressFamily::ipv6 ? 16 : 0;
  if (b.size() < 2 + n || b[1] > Netzo::maxPrefixLength(family)) return std::nullopt;
  Netzo::IpGenAddr address;
  if (family == AddressFamily::ipv4) {
    std::uint32_t nbo;
    std::memcpy(&nbo, b.data() + 2, 4);
    address = Netzo::IpAddr::fromNetworkOrder(nbo);
  } else if (family == AddressFamily::ipv6) {
    Netzo::Ip6Addr::Octets octets;
    std::memcpy(octets.data(), b.data() + 2, 16);
    address = Netzo::Ip6Addr(octets);
  } else if (b[1] != 0) {
    return std::nullopt;
  }
  return std::make_pair(Netzo::IpGenPrefix(address, b[1]), 2 + n);
}
}  // namespace

Netzo::IpGenPrefix KelpShelf::KeyCodec<Netzo::IpGenPrefix>::decode(Shelf::Bytes b) {
  auto p = decodePrefix(b);
  return p && p->second == b.size() ? p->first : Netzo::IpGenPrefix();
}

namespace Routing::BgpRedistribute {

std::uint32_t FilteredRoute::serializeLen() const {
  return static_cast<std::uint32_t>(2 + key.address().octetCount() + 4);
}

void FilteredRoute::serialize(std::uint8_t* out) const {
  std::uint32_t n = KelpShelf::KeyCodec<Netzo::IpGenPrefix>::encode(key, out);
  std::memcpy(out + n, &igpResultId.value, 4);
}

FilteredRoute FilteredRoute::deserialize(std::span<const std::uint8_t> in) {
  auto p = decodePrefix(in);
  if (!p || in.size() != p->second + 4) {
    Pico::fmthrow<Kelp::RangeException>("FilteredRoute record of {} bytes does not hold a prefix and an id", in.size());
  }
  std::uint32_t id;
  std::memcpy(&id, in.data() + p->second, 4);
  return FilteredRoute(p->first, IgpResultId(id));
}

Kelp::Ptr<IgpResultStatus> IgpResultStatus::createIgpResultStatusWriter(
    const Kelp::String& name, const Kelp::Ptr<KelpSharedMem::EntityManager>& em, std::uint32_t size) {
  const Kelp::String path = mountPath(name);
  em->mount(path, kTypeName, {KelpSharedMem::MountMode::writer, {{Kelp::String(kCollection), size}}});
  Kelp::Ptr<IgpResultStatus> igpResultStatus = Kelp::ptrDynamicCast<IgpResultStatus>(em->entity(path));
  PICO_ASSERT(igpResultStatus);
  igpResultStatus->resultDelAll();
  return igpResultStatus;
}

Kelp::Ptr<IgpResultStatus> IgpResultStatus::createIgpResultStatusReader(
    const Kelp::String& name, const Kelp::Ptr<KelpSharedMem::EntityManager>& em) {
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
