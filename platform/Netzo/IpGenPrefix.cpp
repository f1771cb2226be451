#include "platform/Netzo/IpGenPrefix.h"

#include <algorithm>
#include <cstring>

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

namespace {
// The address octets a prefix of this family holds in its byte form, or -1 for no family of a prefix.
int octetsOf(std::uint8_t family) {
  switch (static_cast<Netzo::AddressFamily>(family)) {
    case Netzo::AddressFamily::ipUnknown: return 0;
    case Netzo::AddressFamily::ipv4: return 4;
    case Netzo::AddressFamily::ipv6: return 16;
    default: return -1;
  }
}
}  // namespace

bool Kelp::ByteCodec<Netzo::IpGenPrefix>::canonical(const std::uint8_t* in) {
  const int n = octetsOf(in[0]);
  return n >= 0 && in[1] <= Netzo::maxPrefixLength(static_cast<Netzo::AddressFamily>(in[0]));
}

void Kelp::ByteCodec<Netzo::IpGenPrefix>::validate(const std::uint8_t* in) {
  if (!canonical(in)) throw Kelp::RangeException("bytes do not hold a prefix");
}

void Kelp::ByteCodec<Netzo::IpGenPrefix>::get(const std::uint8_t* in, Netzo::IpGenPrefix& p) {
  using Netzo::AddressFamily;
  Netzo::IpGenAddr address;
  switch (static_cast<AddressFamily>(in[0])) {
    case AddressFamily::ipv4: {
      std::uint32_t nbo;
      std::memcpy(&nbo, in + 2, 4);
      address = Netzo::IpAddr::fromNetworkOrder(nbo);
      break;
    }
    case AddressFamily::ipv6: {
      Netzo::Ip6Addr::Octets octets;
      std::memcpy(octets.data(), in + 2, 16);
      address = Netzo::Ip6Addr(octets);
      break;
    }
    default:
      break;
  }
  p = Netzo::IpGenPrefix(address, in[1]);
}
