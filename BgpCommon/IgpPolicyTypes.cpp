#include "BgpCommon/IgpPolicyTypes.h"

#include <cstring>

#include "platform/Brim/FieldHash.h"
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

IgpResult sampleIgpResult(std::uint32_t key, std::uint64_t version) {
  IgpResult r{IgpResultId(key)};
  r.preference = static_cast<std::uint8_t>(key % 200 + 1);
  r.tag = key * 10;
  r.metric.valueIs(version * 3);
  r.ospfDomainId = version;
  for (std::uint32_t i = 0; i < key % 5; ++i) r.communityIs(CommunityIndex(i), (65000u << 16) + key + i);
  return r;
}

}  // namespace Routing::BgpRedistribute

namespace Routing::Bgp {

IgpResult_::IgpResult_(Kelp::CharRange&) {
  PICO_ASSERT(false && "No String constructor for IgpResult_ - has collection");
}

std::uint32_t IgpResult_::hash(std::uint32_t seed) const {
  Brim::HashMix h(seed);
  forEachOutcomeField([&](const auto& f) {
    if constexpr (std::decay_t<decltype(f)>::hashed) Brim::mixField(h, this->*(f.inResult));
  });
  return h.value();
}

BgpRedistribute::IgpResult outcomeRecord(const IgpResult_& result, std::uint32_t id) {
  BgpRedistribute::IgpResult record{BgpRedistribute::IgpResultId(id)};
  forEachOutcomeField([&](const auto& f) { BgpRedistribute::assignOutcome(record.*(f.inRecord), result.*(f.inResult)); });
  return record;
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
