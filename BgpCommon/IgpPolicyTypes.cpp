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

namespace {
template <typename T>
void putLe(std::uint8_t* out, T v) {
  std::memcpy(out, &v, sizeof v);  // the layout is the little-endian native one
}
template <typename T>
T getLe(const std::uint8_t* in) {
  T v;
  std::memcpy(&v, in, sizeof v);
  return v;
}
}  // namespace

std::uint32_t IgpResult::serializeLen() const {
  if (community.count() > CommunityArray::kSlots) throwArrayRange(community.count(), CommunityArray::kSlots);
  return minSerializedLen + 4 * community.count();
}

void IgpResult::serialize(std::uint8_t* out) const {
  const std::uint32_t count = community.count();
  if (count > CommunityArray::kSlots) throwArrayRange(count, CommunityArray::kSlots);
  putLe(out + 0, key.value);
  putLe(out + 4, preference.value);
  putLe<std::uint8_t>(out + 5, ospfBitDn ? 1 : 0);
  putLe<std::uint8_t>(out + 6, ospfv3BitDn ? 1 : 0);
  putLe(out + 8, metric.raw());
  putLe(out + 16, static_cast<std::uint32_t>(isisLevel));
  putLe(out + 20, static_cast<std::uint32_t>(ospfMetricType));
  putLe(out + 24, ospfDomainId);
  putLe(out + 32, ospfRouteType);
  putLe(out + 40, tag.value);
  putLe(out + 44, count);
  std::memcpy(out + 48, community.data(), 4u * count);
}

namespace {
// The length of the record at `in`, checked against what `in` holds at least.
std::uint32_t recordLen(std::span<const std::uint8_t> in) {
  if (in.size() < IgpResult::minSerializedLen) {
    Pico::fmthrow<Kelp::RangeException>("IgpResult record of {} bytes is shorter than {}", in.size(),
                                        IgpResult::minSerializedLen);
  }
  std::uint32_t count = getLe<std::uint32_t>(in.data() + 44);
  if (count > CommunityArray::kSlots) throwArrayRange(count, CommunityArray::kSlots);
  return IgpResult::minSerializedLen + 4 * count;
}
}  // namespace

std::uint32_t IgpResult::deserializeLen(std::span<const std::uint8_t> in) { return recordLen(in); }

IgpResult IgpResult::deserialize(std::span<const std::uint8_t> in) {
  const std::uint32_t len = recordLen(in);
  if (in.size() < len) Pico::fmthrow<Kelp::RangeException>("IgpResult record of {} bytes is shorter than {}", in.size(), len);
  const std::uint8_t* p = in.data();
  IgpResult r(IgpResultId(getLe<std::uint32_t>(p)));
  r.preference = getLe<std::uint8_t>(p + 4);
  r.ospfBitDn = p[5] != 0;
  r.ospfv3BitDn = p[6] != 0;
  r.metric = Brim::MaybeU63::fromRaw(getLe<std::uint64_t>(p + 8));
  r.isisLevel = static_cast<Isis::Level>(getLe<std::uint32_t>(p + 16));
  r.ospfMetricType = static_cast<Ospf::OspfExtMetricType>(getLe<std::uint32_t>(p + 20));
  r.ospfDomainId = getLe<std::uint64_t>(p + 24);
  r.ospfRouteType = getLe<std::uint64_t>(p + 32);
  r.tag = getLe<std::uint32_t>(p + 40);
  // The values present, without branching on how many there are (readers of the status table
  // decode records of every length in turn, and a mispredicted branch there costs more than this):
  // a slot beyond the count reads the count field, which is always there, and is masked to 0 as in
  // a fresh array. The table keeps the compiler from turning the selection back into branches.
  static constexpr std::uint32_t kPresent[CommunityArray::kSlots + 1][CommunityArray::kSlots] = {
      {0, 0, 0, 0}, {1, 0, 0, 0}, {1, 1, 0, 0}, {1, 1, 1, 0}, {1, 1, 1, 1}};
  const std::uint32_t count = (len - minSerializedLen) / 4;
  auto slot = [p, present = kPresent[count]](std::uint32_t i) {
    return getLe<std::uint32_t>(p + 44 + 4 * (i + 1) * present[i]) & (0u - present[i]);
  };
  r.community.assignSlots(count, slot(0), slot(1), slot(2), slot(3));
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
