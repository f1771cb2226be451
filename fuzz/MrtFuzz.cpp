// The MRT reader on arbitrary octets read as a plain file. Anything thrown or any crash aborts;
// AddressSanitizer catches a read past the input. Beyond that:
// - every damage names an offset inside the input, at or after its record's;
// - reading ends at the end of the input, or with a damage that says reading stops;
// - every route has a peer and attributes, and attributes read without damage write back to the
//   octets they were read from.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "BgpCommon/BgpMrt.h"

namespace {
using namespace Routing::Bgp;

struct Check : MrtVisitor {
  std::size_t size = 0;
  U64 damagedRecord = ~U64{0};  // the last record damage was reported in

  void route(const MrtRoute& r) override {
    if (r.peer == nullptr || r.attributes == nullptr || r.options == nullptr) std::abort();
    (void)r.prefix.stringValue();
    if (r.record->offset == damagedRecord || r.kind != MrtRoute::Kind::ribEntry) return;
    Serialize out;
    writePathAttributes(out, *r.attributes, *r.options);
    const auto& in = r.attributeOctets;
    if (in.size() != out.writeOffset() || (!in.empty() && std::memcmp(in.data(), out.data(), in.size()) != 0)) {
      std::abort();
    }
  }
  void damage(const MrtDamage& d) override {
    if (!d || d.offset > size || d.recordOffset > d.offset) std::abort();
    (void)d.toStrep();
    damagedRecord = d.recordOffset;
  }
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  MrtFile file(std::span<const U8>(data, size));
  MrtDecoder decoder;
  Check check;
  check.size = size;
  readMrt(file, decoder, check);
  if (file.offset() != size && !file.damage().stopsReading && decoder.damages() == 0) std::abort();
  return 0;
}
