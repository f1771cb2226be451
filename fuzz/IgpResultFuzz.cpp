// The IGP result records from arbitrary input, as bytes and as text.
//  - Bytes: IgpResult::deserialize either throws Kelp::RangeException or reads a record that
//    serializes back to the same bytes (all but the padding byte) and reads back equal;
//    FilteredRoute::deserialize likewise; a prefix key decodes to a prefix or to the default one.
//  - Text: IgpResultId, CommunityIndex, FilteredRoute and the community list either read a value
//    whose long text form reads back equal, or throw Kelp::RangeException.
// Anything else aborts.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "BgpCommon/FilteredRtStatus.h"

namespace {

using namespace Routing::BgpRedistribute;

template <typename T>
void checkText(std::string_view text) {
  try {
    Kelp::CharRange r(text);
    const T v = Kelp::parseValue<T>(r);
    if (!(Kelp::strepToValue<T>(Kelp::valueToStrep(v)) == v)) std::abort();
  } catch (const Kelp::RangeException&) {
  }
}

void checkRecordBytes(std::span<const std::uint8_t> in) {
  try {
    const IgpResult r = IgpResult::deserialize(in);
    if (r.serializeLen() != IgpResult::deserializeLen(in)) std::abort();
    // What serialize writes: the input with the DN flags as 0/1 and the padding byte left alone.
    std::uint8_t expected[IgpResult::maxSerializedLen];
    std::memcpy(expected, in.data(), r.serializeLen());
    expected[5] = expected[5] != 0;
    expected[6] = expected[6] != 0;
    std::uint8_t out[IgpResult::maxSerializedLen];
    out[7] = in[7];
    r.serialize(out);
    if (std::memcmp(out, expected, r.serializeLen()) != 0) std::abort();
    if (!(IgpResult::deserialize(std::span(out, r.serializeLen())) == r)) std::abort();
  } catch (const Kelp::RangeException&) {
  }
  try {
    const FilteredRoute f = FilteredRoute::deserialize(in);
    std::uint8_t out[FilteredRoute::maxSerializedLen];
    f.serialize(out);
    if (f.serializeLen() != in.size() || std::memcmp(out, in.data(), in.size()) != 0) std::abort();
  } catch (const Kelp::RangeException&) {
  }
  if (in.size() <= KelpShelf::KeyCodec<Netzo::IpGenPrefix>::maxSize) {
    const Netzo::IpGenPrefix p = KelpShelf::KeyCodec<Netzo::IpGenPrefix>::decode(in);
    std::uint8_t key[KelpShelf::KeyCodec<Netzo::IpGenPrefix>::maxSize];
    std::uint32_t n = KelpShelf::KeyCodec<Netzo::IpGenPrefix>::encode(p, key);
    if (!(KelpShelf::KeyCodec<Netzo::IpGenPrefix>::decode(std::span(key, n)) == p)) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  checkRecordBytes(std::span(data, size));
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  checkText<IgpResultId>(text);
  checkText<CommunityIndex>(text);
  checkText<FilteredRoute>(text);
  checkText<CommunityArray>(text);
  return 0;
}
