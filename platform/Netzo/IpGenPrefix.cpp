#include "platform/Netzo/IpGenPrefix.h"

#include <algorithm>

#include <fmt/format.h>

#include "platform/Kelp/Hash.h"
#include "platform/Kelp/Registry.h"
#include "platform/Netzo/NetzoText.h"
#include "platform/Pico/Assert.h"

namespace Netzo {

namespace {

constexpr std::string_view kNone = "None";

// Clears the bits of `o` (n octets, network order) beyond the first `length`.
void maskOctets(std::uint8_t* o, std::size_t n, unsigned length) {
  for (std::size_t i = 0; i < n; ++i) {
    unsigned bitsHere = length >= 8 * (i + 1) ? 8 : length > 8 * i ? length - 8 * i : 0;
    o[i] &= static_cast<std::uint8_t>(0xff00u >> bitsHere);
  }
}

}  // namespace

IpGenPrefix::IpGenPrefix(const IpGenAddr& address, unsigned length)
    : address_(address), length_(static_cast<std::uint8_t>(length)) {
  PICO_ASSERT(length <= maxPrefixLength(address.family()));
}

IpGenPrefix IpGenPrefix::fromString(std::string_view text) {
  IpGenPrefix p;
  p.stringValueIs(text);
  return p;
}

IpGenPrefix IpGenPrefix::masked() const {
  Ip6Addr::Octets o{};
  std::size_t n = address_.octetCount();
  std::copy_n(address_.octets(), n, o.begin());
  maskOctets(o.data(), n, length_);
  if (family() == AddressFamily::ipv4) {
    return IpGenPrefix(IpAddr(o[0], o[1], o[2], o[3]), length_);
  }
  if (family() == AddressFamily::ipv6) return IpGenPrefix(Ip6Addr(o), length_);
  return *this;
}

bool IpGenPrefix::contains(const IpGenAddr& a) const {
  if (a.family() != family() || family() == AddressFamily::ipUnknown) return false;
  return IpGenPrefix(a, length_).masked().address() == masked().address();
}

void IpGenPrefix::stringValueIs(std::string_view text) {
  if (text == kNone) {
    *this = IpGenPrefix();
    return;
  }
  std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) detail::throwBadText("invalid prefix (no \"/\")", text);
  IpGenAddr address;
  try {
    address.stringValueIs(text.substr(0, slash));
  } catch (const Kelp::RangeException&) {
    detail::throwBadText("invalid prefix address", text);
  }
  if (address.family() == AddressFamily::ipUnknown) detail::throwBadText("invalid prefix address", text);
  std::string_view digits = text.substr(slash + 1);
  unsigned length = 0;
  bool ok = !digits.empty() && digits.size() <= 3 && (digits.size() == 1 || digits[0] != '0');
  for (char c : digits) {
    ok = ok && detail::isDecimalDigit(c);
    length = length * 10 + static_cast<unsigned>(c - '0');
  }
  if (!ok || length > maxPrefixLength(address.family())) detail::throwBadText("invalid prefix length", text);
  address_ = address;
  length_ = static_cast<std::uint8_t>(length);
}

Kelp::String IpGenPrefix::stringValue() const {
  if (family() == AddressFamily::ipUnknown) return Kelp::String(kNone);
  return fmt::format("{}/{}", address_.stringValue(), length_);
}

std::uint32_t IpGenPrefix::hash(std::uint32_t seed) const {
  Kelp::Hash h(seed);
  h.hashMix(static_cast<std::uint8_t>(family()));
  h.hashMixBytes(address_.octets(), address_.octetCount());
  h.hashMix(length_);
  return h.result();
}

namespace {
const Kelp::TypeModule module("IpGenPrefix", {Kelp::typeInfo<IpGenPrefix>()});
}

}  // namespace Netzo

void Kelp::TextForm<Netzo::IpGenPrefix>::parse(CharRange& r, Netzo::IpGenPrefix& v) {
  using namespace Netzo::detail;
  std::size_t start = r.position();
  if (r.skipIf(Netzo::kNone)) {
    v = Netzo::IpGenPrefix();
    return;
  }
  takeWhile(r, isIpChar);
  if (r.skipIf("/")) takeWhile(r, isDecimalDigit);
  std::string_view token = r.text().substr(start, r.position() - start);
  parseTokenAt(r, start, [&] { v.stringValueIs(token); });
}
