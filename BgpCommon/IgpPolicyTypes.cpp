#include "BgpCommon/IgpPolicyTypes.h"

#include <cstring>

#include "platform/Brim/HashMix.h"
#include "platform/Kelp/Registry.h"
#include "platform/Pico/Format.h"

namespace Routing::BgpRedistribute {

std::uint32_t CommunityIndex::checked(std::uint32_t v) {
  if (v > max) {
    throw Kelp::RangeException(
        "Routing::BgpRedistribute::CommunityIndex::value < Routing::BgpRedistribute::CommunityIndex::min or > "
        "Routing::BgpRedistribute::CommunityIndex::max not allowed");
  }
  return v;
}

void throwArrayRange(std::uint32_t count, std::uint32_t limit) {
  Pico::fmthrow<Kelp::RangeException>("array count {} above its limit {}", count, limit);
}

void CommunityArray::communityIs(CommunityIndex i, std::uint32_t value) {
  slots_[i.value] = value;
  if (i.value >= count_) count_ = i.value + 1;
}

std::uint32_t CommunityArray::communityDel(CommunityIndex i) {
  if (i.value >= count_) return 0;
  std::uint32_t old = slots_[i.value];
  slots_[i.value] = 0;
  if (i.value + 1 == count_) {
    // The count always ends on a value that was set: drop the zeros the deletion exposed.
    count_ = i.value;
    while (count_ > 0 && slots_[count_ - 1] == 0) --count_;
  }
  return old;
}

void CommunityArray::assign(std::uint32_t count, const std::uint32_t* values) {
  if (count > kSlots) throwArrayRange(count, kSlots);
  count_ = count;
  std::memcpy(slots_, values, 4u * count);
}

bool operator==(const CommunityArray& a, const CommunityArray& b) {
  return a.count_ == b.count_ && std::memcmp(a.slots_, b.slots_, 4u * std::min(a.count_, CommunityArray::kSlots)) == 0;
}

IgpResult::IgpResult(Kelp::CharRange&) {
  PICO_ASSERT(false && "No String constructor for IgpResult - has collection");
}

// The shared table's reader copies records in whole: that is sound only while the record's memory
// is its byte form, which a reordered or retyped field would silently break. Checked once, when the
// library loads.
[[maybe_unused]] const bool igpResultLayoutChecked = [] {
  PICO_ASSERT(Kelp::memoryIsByteForm<IgpResult>());
  return true;
}();

IgpResult IgpResult::deserialize(std::span<const std::uint8_t> in) {
  IgpResult r{IgpResultId()};
  Kelp::ByteForm<IgpResult>::get(in, r);
  return r;
}

}  // namespace Routing::BgpRedistribute

namespace Routing::Bgp {

IgpResult_::IgpResult_(Kelp::CharRange&) {
  PICO_ASSERT(false && "No String constructor for IgpResult_ - has collection");
}

std::uint32_t IgpResult_::hash(std::uint32_t seed) const {
  Kelp::Hash communities;
  communities.hashMixBytes(community.data(), 4u * community.count());
  Brim::HashMix h(seed);
  h.mixBytes4(static_cast<std::uint32_t>(isisLevel));
  h.mixBytes4(static_cast<std::uint32_t>(ospfMetricType));
  h.mixBytes1(preference().value);
  h.mixBytes4(tag().value);
  h.mixBytes8(metric.canonical());  // unset metrics are equal whatever their low bits
  h.mixBytes1(ospfBitDn ? 1 : 0);
  h.mixBytes1(ospfv3BitDn ? 1 : 0);
  h.mixBytes4(communities.result());
  return h.value();
}

}  // namespace Routing::Bgp

void Kelp::TextForm<Routing::BgpRedistribute::CommunityArray>::print(String& out,
                                                                       const Routing::BgpRedistribute::CommunityArray& a) {
  out += '[';
  for (std::uint32_t i = 0; i < a.count(); ++i) {
    if (i != 0) out += ", ";
    printUnsigned(out, a.data()[i]);
  }
  out += ']';
}

void Kelp::TextForm<Routing::BgpRedistribute::CommunityArray>::parse(CharRange& r,
                                                                       Routing::BgpRedistribute::CommunityArray& a) {
  using Routing::BgpRedistribute::CommunityArray;
  r.needString("[");
  std::uint32_t values[CommunityArray::kSlots];
  std::uint32_t n = 0;
  while (!r.skipIf("]")) {
    if (n != 0) r.needString(", ");
    if (n == CommunityArray::kSlots) Routing::BgpRedistribute::throwArrayRange(n + 1, CommunityArray::kSlots);
    values[n++] = static_cast<std::uint32_t>(parseUnsigned(r, 0xFFFFFFFFu));
  }
  a.assign(n, values);
}

namespace Routing::BgpRedistribute {
namespace {
const Kelp::TypeModule module("IgpPolicyTypes",
                              {Kelp::typeInfo<IgpResultId>(), Kelp::typeInfo<CommunityIndex>(),
                               Kelp::typeInfo<IgpResult>(), Kelp::typeInfo<Bgp::IgpResult_>()});
}
}  // namespace Routing::BgpRedistribute
