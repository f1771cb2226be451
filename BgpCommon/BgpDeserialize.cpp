#include "BgpCommon/BgpDeserialize.h"

#include <ostream>

#include <fmt/format.h>

namespace Routing::Bgp {

Kelp::String ReadError::toStrep() const {
  if (attributeType != 0) {
    return fmt::format("{} at offset {} in attribute {}: {}", stringValue(rule), offset, attributeType,
                       stringValue(action));
  }
  return fmt::format("{} at offset {}: {}", stringValue(rule), offset, stringValue(action));
}

std::ostream& operator<<(std::ostream& os, const ReadError& e) { return os << e.toStrep(); }

Netzo::MplsLabelStack NlriEntry::labelStack() const {
  Netzo::MplsLabelStack stack;
  for (std::size_t i = 0; i < labelCount(); ++i) {
    const U32 field = labelField(i);
    stack.entryAppend(Netzo::NetU32::fromHost(Netzo::MplsLabelStack::makeEntry(Netzo::MplsLabel(field >> 4), 0,
                                                                               (field & 1) != 0, 0)));
  }
  return stack;
}

namespace {
// The address of `bits` bits whose octets start at `p` (enough of them are there).
Netzo::IpGenPrefix prefixFrom(const U8* p, unsigned bits, Netzo::AddressFamily family) {
  Netzo::Ip6Addr::Octets a{};
  std::memcpy(a.data(), p, (bits + 7) / 8);
  if (family == Netzo::AddressFamily::ipv4) return Netzo::IpGenPrefix(Netzo::IpAddr(a[0], a[1], a[2], a[3]), bits);
  return Netzo::IpGenPrefix(Netzo::Ip6Addr(a), bits);
}
}  // namespace

bool Deserialize::readPrefix(Netzo::IpGenPrefix& out, Netzo::AddressFamily family) {
  NlriEntry e;
  if (!readNlri(e, family, false, false)) return false;
  out = e.prefix;
  return true;
}

// Every failure is reported at the entry's first octet, and leaves the cursor there.
bool Deserialize::readNlri(NlriEntry& out, Netzo::AddressFamily family, bool addPath, bool labelled, bool withdrawal) {
  const U32 at = offset();
  const U8* p = p_;
  const std::size_t avail = remaining();
  std::size_t used = 0;
  U32 pathId = 0;
  if (addPath) {
    if (avail < 4) return fail(ReadRule::truncated, at);
    pathId = Netzo::ntoh32(loadMemory<U32>(p));
    used = 4;
  }
  if (avail < used + 1) return fail(ReadRule::truncated, at);
  U32 bits = p[used++];
  // RFC 8277: the length counts the label fields' 24 bits each, then the prefix's bits.
  const std::size_t labelsAt = used;
  if (labelled) {
    for (;;) {
      if (bits < 24) return fail(ReadRule::badLabelStack, at);
      if (avail < used + 3) return fail(ReadRule::truncated, at);
      const bool bottom = (p[used + 2] & 1) != 0;
      used += 3;
      bits -= 24;
      if (withdrawal || bottom) break;
    }
  }
  if (bits > Netzo::maxPrefixLength(family)) return fail(ReadRule::badPrefixLength, at);
  if (avail < used + (bits + 7) / 8) return fail(ReadRule::truncated, at);
  out.pathId = pathId;
  out.labelFields = {p + labelsAt, used - labelsAt};
  out.prefix = prefixFrom(p + used, bits, family);
  p_ = p + used + (bits + 7) / 8;
  return true;
}

bool Deserialize::readMplsLabelStack(Netzo::MplsLabelStack& out) {
  const U8* const start = p_;
  out.entryDelAll();
  for (;;) {
    U24 field;
    if (!readFields(field)) {
      p_ = start;
      return false;
    }
    const bool bottom = (field.value & 1) != 0;
    out.entryAppend(
        Netzo::NetU32::fromHost(Netzo::MplsLabelStack::makeEntry(Netzo::MplsLabel(field.value >> 4), 0, bottom, 0)));
    if (bottom) return true;
  }
}

}  // namespace Routing::Bgp
