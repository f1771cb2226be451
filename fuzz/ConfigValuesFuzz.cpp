// Fuzzes the long text forms of the configuration value types: the tristates, the
// configuration-library types they wrap and AddPathSendEffectiveConfig.
//
// Input: one selector byte, then either
//   - (selector even) a text parsed as the selected registered type: it must be refused with
//     RangeException or accepted, and what was accepted must print to a text that parses back to
//     the same text;
//   - (selector odd) arbitrary bytes placed in every text field of the string-bearing tristates,
//     which must survive print then parse unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "BgpCommon/AddPathSendEffectiveConfig.h"
#include "BgpCommon/TristateTypes.h"
#include "platform/Kelp/Registry.h"

namespace {

using namespace Routing::Bgp;

const std::vector<const Kelp::TypeInfo*>& fuzzedTypes() {
  static const std::vector<const Kelp::TypeInfo*> types = [] {
    std::vector<const Kelp::TypeInfo*> out;
    for (const Kelp::TypeModule* m : Kelp::registeredModules()) {
      if (m->name() != "TristateTypes" && m->name() != "BgpConfigTypes" && m->name() != "AddPathSendEffectiveConfig") {
        continue;
      }
      for (const Kelp::TypeInfo* t : m->types()) out.push_back(t);
    }
    return out;
  }();
  return types;
}

template <typename T>
void roundTrip(const T& v) {
  Kelp::String text = Kelp::valueToStrep(v);
  if (!(Kelp::strepToValue<T>(text) == v)) std::abort();
}

void parseText(std::uint8_t selector, std::string_view text) {
  const auto& types = fuzzedTypes();
  const Kelp::TypeInfo* t = types[(selector >> 1) % types.size()];
  std::any v;
  try {
    v = t->strepToValue(text);
  } catch (const Kelp::RangeException&) {
    return;
  }
  Kelp::String printed = t->valueToStrep(v);
  if (t->valueToStrep(t->strepToValue(printed)) != printed) std::abort();
}

void embedBytes(std::string_view bytes) {
  Kelp::String s(bytes);
  roundTrip(TristateBgpTcpAuthKey::valueSet(BgpTcpAuthKey(BgpTcpAuthKey::Type::md5, s, s, 1)));
  roundTrip(TristateAsnOrPeerFilter(AsnOrPeerFilter(AsnOrPeerFilter::Type::peerFilter, 0, s), false));
  roundTrip(TristateAddPathSendConfig::valueSet(AddPathSendConfig(AddPathSendConfig::Kind::sendEcmp, 2, s)));
  roundTrip(TristateRfdPolicyAttachment::valueSet(RfdPolicyAttachment(s, true)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
  if (data[0] & 1) {
    embedBytes(rest);
  } else {
    parseText(data[0], rest);
  }
  return 0;
}
