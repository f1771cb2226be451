#include "BgpCommon/PathAttributeSet.h"

#include <absl/hash/hash.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

#include "BgpCommon/BgpDeserialize.h"
#include "platform/Kelp/Exception.h"
#include "platform/Kelp/Registry.h"
#include "platform/Pico/Format.h"

namespace Routing::Bgp {

static_assert(sizeof(PathAttributeSet) == 24, "a set is the dedup header, 8 octets, then its octets");

PathAttributeSet::PathAttributeSet(const Content& c)
    : mpReachWord_(c.mpReachWord), length_(static_cast<std::uint16_t>(c.octets.size())), fourOctetAs_(c.fourOctetAs) {
  if (!c.octets.empty()) std::memcpy(reinterpret_cast<U8*>(this + 1), c.octets.data(), c.octets.size());
}

Brim::DedupHandleBase* PathAttributeSet::alloc(const Brim::DedupContentHandle& content) {
  auto& c = static_cast<const Content&>(content);
  void* block = KelpStash::allocate(sizeof(PathAttributeSet) + c.octets.size());
  return ::new (block) PathAttributeSet(c);
}

void PathAttributeSet::operator delete(PathAttributeSet* p, std::destroying_delete_t) {
  const std::size_t size = sizeof(PathAttributeSet) + p->length_;
  p->~PathAttributeSet();
  KelpStash::deallocate(p, size);
}

// Abseil's hash of the octets: a set is tens of octets long, where its word-at-a-time mixing runs
// several times faster than a field-by-field accumulator. Its seed differs from process to process,
// which costs nothing here (the table is the process's own) and keeps a peer from aiming sets at
// one run of slots.
std::uint32_t PathAttributeSet::hashOf(std::span<const U8> octets, std::uint32_t mpReachWord, bool fourOctetAs) {
  const std::size_t h = absl::HashOf(
      std::string_view(reinterpret_cast<const char*>(octets.data()), octets.size()), mpReachWord, fourOctetAs);
  return static_cast<std::uint32_t>(h ^ (h >> 32));
}

bool PathAttributeSet::same(std::span<const U8> o, std::uint32_t mpReachWord, bool fourOctetAs) const {
  return length_ == o.size() && mpReachWord_ == mpReachWord && (fourOctetAs_ != 0) == fourOctetAs &&
         std::memcmp(octets().data(), o.data(), o.size()) == 0;
}

SessionOptions PathAttributeSet::options() const {
  SessionOptions o;
  o.fourOctetAs = fourOctetAs_ != 0;
  o.mrtAbbreviatedMpReach = AfiSafi::fromValue(mpReachWord_);
  return o;
}

ReadError PathAttributeSet::read(PathAttributes& out) const { return AttributeSetView{octets(), options()}.read(out); }

ReadError AttributeSetView::read(PathAttributes& out) const {
  Deserialize in(octets);
  return readPathAttributes(in, options, out);
}

PathAttributeSetDedupTable::PathAttributeSetDedupTable(bool multiThreaded)
    : table_(Kelp::makePtr<KelpStash::DedupHashTableUnorderedSet>(multiThreaded)) {}

Kelp::Ptr<const PathAttributeSet> PathAttributeSetDedupTable::dedup(std::span<const U8> octets,
                                                                    const SessionOptions& options) const {
  if (octets.size() > PathAttributeSet::kMaxOctets) {
    Pico::fmthrow<Kelp::RangeException>("PathAttributeSet: {} octets, more than {}", octets.size(),
                                        PathAttributeSet::kMaxOctets);
  }
  const PathAttributeSet::Content content(octets, options);
  return table_->findOrDedupAs<const PathAttributeSet>(content, content.hash(), &PathAttributeSet::alloc);
}

namespace {
// `octets` with a whole MP_REACH_NLRI of the family `abbreviated` names rewritten in the abbreviated
// form, into `out`; false (and `out` untouched) when there is none. Attributes that do not parse are
// left as they are: the set keeps them for its reader to refuse.
bool abbreviateMpReach(std::span<const U8> octets, AfiSafi abbreviated, std::vector<U8>& out) {
  for (std::size_t i = 0; i + 3 <= octets.size();) {
    const U8 flags = octets[i], type = octets[i + 1];
    const std::size_t head = flags & attrFlagExtendedLength ? 4 : 3;
    if (i + head > octets.size()) return false;
    const std::size_t length = head == 4 ? std::size_t{octets[i + 2]} << 8 | octets[i + 3] : octets[i + 2];
    const std::size_t value = i + head;
    if (value + length > octets.size()) return false;
    if (type == U8(AttrType::mpReachNlri) && length >= 5 && octets[value] + 1u != length &&
        AfiSafi(static_cast<Afi>(octets[value] << 8 | octets[value + 1]), static_cast<Safi>(octets[value + 2])) ==
            abbreviated &&
        4u + octets[value + 3] + 1 <= length) {
      const std::size_t nextHop = octets[value + 3];
      out.assign(octets.begin(), octets.begin() + static_cast<std::ptrdiff_t>(i + head));
      if (head == 4) {
        out[i + 2] = 0, out[i + 3] = static_cast<U8>(1 + nextHop);
      } else {
        out[i + 2] = static_cast<U8>(1 + nextHop);
      }
      out.insert(out.end(), octets.begin() + static_cast<std::ptrdiff_t>(value + 3),
                 octets.begin() + static_cast<std::ptrdiff_t>(value + 4 + nextHop));
      out.insert(out.end(), octets.begin() + static_cast<std::ptrdiff_t>(value + length), octets.end());
      return true;
    }
    i = value + length;
  }
  return false;
}
}  // namespace

std::span<const U8> ribEntryAttributes(std::span<const U8> octets, const SessionOptions& options,
                                       std::vector<U8>& scratch) {
  if (options.mrtAbbreviatedMpReach.afi() != afiUnknown &&
      abbreviateMpReach(octets, options.mrtAbbreviatedMpReach, scratch)) {
    return scratch;
  }
  return octets;
}

Kelp::Ptr<const PathAttributeSet> PathAttributeSetDedupTable::dedupRibEntry(std::span<const U8> octets,
                                                                            const SessionOptions& options,
                                                                            std::vector<U8>& scratch) const {
  return dedup(ribEntryAttributes(octets, options, scratch), options);
}

Kelp::Ptr<const PathAttributeSet> PathAttributeSetDedupTable::find(std::span<const U8> octets,
                                                                   const SessionOptions& options) const {
  const PathAttributeSet::Content content(octets, options);
  return Brim::handleCast<const PathAttributeSet>(table_->find(content, content.hash()));
}

// ---- PackedAttributeSets -------------------------------------------------------------------

namespace {
constexpr std::size_t kMaxChunks = 4095;  // numbers and number + 1 (a slot's) fit in 32 bits
// The slot a hash starts from among 2^bits: its product with a fixed odd constant, high bits (the
// hash is Abseil's, seeded per process, so a peer cannot aim sets at one run of slots).
std::size_t homeOf(std::uint32_t hash, std::size_t mask) {
  return static_cast<std::size_t>((std::uint64_t{hash} * 0x9E3779B97F4A7C15ull) >> 32) & mask;
}
}  // namespace

std::uint8_t PackedAttributeSets::optionsIndex(const SessionOptions& options) {
  const std::uint32_t word = options.mrtAbbreviatedMpReach.value();
  auto same = [&](const Options& o) { return o.mpReachWord == word && o.fourOctetAs == options.fourOctetAs; };
  if (lastOptions_ < options_.size() && same(options_[lastOptions_])) return lastOptions_;
  std::size_t i = 0;
  while (i < options_.size() && !same(options_[i])) ++i;
  if (i == options_.size()) {
    if (i > 255) Pico::fmthrow<Kelp::RangeException>("PackedAttributeSets: more than 256 distinct options");
    options_.push_back({word, options.fourOctetAs});
  }
  return lastOptions_ = static_cast<std::uint8_t>(i);
}

PackedAttributeSets::Number PackedAttributeSets::intern(std::span<const U8> octets, const SessionOptions& options) {
  if (octets.size() > PathAttributeSet::kMaxOctets) {
    Pico::fmthrow<Kelp::RangeException>("PathAttributeSet: {} octets, more than {}", octets.size(),
                                        PathAttributeSet::kMaxOctets);
  }
  const std::uint8_t option = optionsIndex(options);
  const std::size_t h = absl::HashOf(std::string_view(reinterpret_cast<const char*>(octets.data()), octets.size()), option);
  const auto hash = static_cast<std::uint32_t>(h ^ (h >> 32));
  if ((size_ + 1) * 4 > slots_.size() * 3) grow();
  const std::size_t mask = slots_.size() - 1;
  std::size_t i = homeOf(hash, mask);
  for (;; i = (i + 1) & mask) {
    const std::uint64_t s = slots_[i];
    if (s == 0) break;
    if (static_cast<std::uint32_t>(s >> 32) != hash) continue;
    const auto n = static_cast<Number>(s - 1);
    const U8* p = at(n);
    if ((std::size_t{p[0]} | std::size_t{p[1]} << 8) == octets.size() && p[2] == option &&
        (octets.empty() || std::memcmp(p + kHeader, octets.data(), octets.size()) == 0)) {
      return n;
    }
  }
  const Number n = append(octets, option);
  slots_[i] = std::uint64_t{hash} << 32 | (std::uint64_t{n} + 1);
  ++size_;
  return n;
}

PackedAttributeSets::Number PackedAttributeSets::append(std::span<const U8> octets, std::uint8_t option) {
  const std::size_t need = kHeader + octets.size();
  if (used_ + need > kChunkBytes) {
    if (chunks_.size() == kMaxChunks) {
      Pico::fmthrow<Kelp::RangeException>("PackedAttributeSets: more than {} octets of sets", kMaxChunks * kChunkBytes);
    }
    // Not zeroed: the pages of a chunk become resident as sets are written into them.
    chunks_.push_back(std::unique_ptr<U8[]>(new U8[kChunkBytes]));
    used_ = 0;
  }
  U8* p = chunks_.back().get() + used_;
  p[0] = static_cast<U8>(octets.size()), p[1] = static_cast<U8>(octets.size() >> 8), p[2] = option;
  if (!octets.empty()) std::memcpy(p + kHeader, octets.data(), octets.size());
  const auto n = static_cast<Number>((chunks_.size() - 1) << kChunkBits | used_);
  used_ += need;
  return n;
}

void PackedAttributeSets::grow() {
  std::vector<std::uint64_t> old(std::max<std::size_t>(64, slots_.size() * 2));
  old.swap(slots_);
  const std::size_t mask = slots_.size() - 1;
  for (const std::uint64_t s : old) {
    if (s == 0) continue;
    std::size_t i = homeOf(static_cast<std::uint32_t>(s >> 32), mask);
    while (slots_[i] != 0) i = (i + 1) & mask;
    slots_[i] = s;
  }
}

AttributeSetView PackedAttributeSets::operator[](Number n) const {
  const U8* p = at(n);
  const Options& o = options_[p[2]];
  AttributeSetView v{{p + kHeader, std::size_t{p[0]} | std::size_t{p[1]} << 8}, {}};
  v.options.fourOctetAs = o.fourOctetAs;
  v.options.mrtAbbreviatedMpReach = AfiSafi::fromValue(o.mpReachWord);
  return v;
}

std::size_t PackedAttributeSets::allocatedBytes() const {
  return chunks_.size() * kChunkBytes + slots_.capacity() * sizeof(std::uint64_t);
}

void PackedAttributeSets::clear() {
  std::vector<std::unique_ptr<U8[]>>().swap(chunks_);
  std::vector<std::uint64_t>().swap(slots_);
  options_.clear();
  used_ = kChunkBytes;
  size_ = 0;
  lastOptions_ = 0;
}

namespace {
const Kelp::TypeInfo setType =
    Kelp::entityType("Routing::Bgp::PathAttributeSet", {"octets", "options", "read", "alloc"});
const Kelp::TypeInfo tableType =
    Kelp::entityType("Routing::Bgp::PathAttributeSetDedupTable", {"dedup", "find", "size", "hashTable"});
const Kelp::TypeModule module("PathAttributeSet", {&setType, &tableType});
}  // namespace

}  // namespace Routing::Bgp
