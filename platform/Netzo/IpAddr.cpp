#include "platform/Netzo/IpAddr.h"

#include <arpa/inet.h>

#include <cstring>

#include <fmt/format.h>

#include "platform/Kelp/Hash.h"
#include "platform/Kelp/Registry.h"
#include "platform/Netzo/NetzoText.h"
#include "platform/Pico/Assert.h"

namespace Netzo {

namespace detail {

void throwBadText(std::string_view what, std::string_view text) {
  throw Kelp::RangeException(fmt::format("{} \"{}\"", what, Kelp::quoteExcerpt(text, 64)));
}

}  // namespace detail

namespace {

// inet_pton wants a terminated string. Text longer than any address of the family, or holding a
// NUL (which inet_pton would take for the end), is refused before it is copied.
bool parseAddress(int family, std::string_view text, void* out) {
  char buf[INET6_ADDRSTRLEN];
  std::size_t limit = family == AF_INET ? INET_ADDRSTRLEN - 1 : INET6_ADDRSTRLEN - 1;
  if (text.size() > limit || text.find('\0') != std::string_view::npos) return false;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  return inet_pton(family, buf, out) == 1;
}

Kelp::String formatAddress(int family, const void* address) {
  char buf[INET6_ADDRSTRLEN];
  const char* s = inet_ntop(family, address, buf, sizeof buf);
  PICO_ASSERT(s != nullptr);
  return Kelp::String(s);
}

constexpr std::string_view kNone = "None";

}  // namespace

// ---- IpAddr --------------------------------------------------------------------------------

IpAddr IpAddr::fromString(std::string_view text) {
  IpAddr a;
  a.stringValueIs(text);
  return a;
}

void IpAddr::copyTo(std::uint8_t* out) const { std::memcpy(out, &nbo_, 4); }

void IpAddr::stringValueIs(std::string_view text) {
  std::uint32_t nbo;
  if (!parseAddress(AF_INET, text, &nbo)) detail::throwBadText("invalid IPv4 address", text);
  nbo_ = nbo;
}

Kelp::String IpAddr::stringValue() const { return formatAddress(AF_INET, &nbo_); }

std::uint32_t IpAddr::hash(std::uint32_t seed) const {
  Kelp::Hash h(seed);
  h.hashMix(hostValue());
  return h.result();
}

// ---- Ip6Addr -------------------------------------------------------------------------------

Ip6Addr::Ip6Addr(const std::uint8_t* octets) { std::memcpy(octets_.data(), octets, 16); }

Ip6Addr Ip6Addr::fromNetworkWords(const std::uint32_t* words) {
  Ip6Addr a;
  std::memcpy(a.octets_.data(), words, 16);
  return a;
}

Ip6Addr Ip6Addr::fromNetworkWords(std::uint32_t w0, std::uint32_t w1, std::uint32_t w2, std::uint32_t w3) {
  const std::uint32_t words[4] = {w0, w1, w2, w3};
  return fromNetworkWords(words);
}

Ip6Addr Ip6Addr::fromString(std::string_view text) {
  Ip6Addr a;
  a.stringValueIs(text);
  return a;
}

void Ip6Addr::copyTo(std::uint8_t* out) const { std::memcpy(out, octets_.data(), 16); }

void Ip6Addr::networkWords(std::uint32_t* out) const { std::memcpy(out, octets_.data(), 16); }

std::array<std::uint32_t, 4> Ip6Addr::networkWords() const {
  std::array<std::uint32_t, 4> w;
  networkWords(w.data());
  return w;
}

void Ip6Addr::stringValueIs(std::string_view text) {
  Octets o;
  if (!parseAddress(AF_INET6, text, o.data())) detail::throwBadText("invalid IPv6 address", text);
  octets_ = o;
}

Kelp::String Ip6Addr::stringValue() const { return formatAddress(AF_INET6, octets_.data()); }

std::uint32_t Ip6Addr::hash(std::uint32_t seed) const {
  Kelp::Hash h(seed);
  h.hashMixBytes(octets_.data(), octets_.size());
  return h.result();
}

// ---- IpGenAddr -----------------------------------------------------------------------------

IpGenAddr IpGenAddr::fromString(std::string_view text) {
  IpGenAddr a;
  a.stringValueIs(text);
  return a;
}

IpAddr IpGenAddr::ipv4() const {
  PICO_ASSERT(af_ == AddressFamily::ipv4);
  std::uint32_t nbo;
  std::memcpy(&nbo, octets_.data(), 4);
  return IpAddr::fromNetworkOrder(nbo);
}

Ip6Addr IpGenAddr::ipv6() const {
  PICO_ASSERT(af_ == AddressFamily::ipv6);
  return Ip6Addr(octets_);
}

void IpGenAddr::stringValueIs(std::string_view text) {
  if (text == kNone) {
    *this = IpGenAddr();
    return;
  }
  Ip6Addr::Octets o{};
  bool six = text.find(':') != std::string_view::npos;
  if (!parseAddress(six ? AF_INET6 : AF_INET, text, o.data())) detail::throwBadText("invalid IP address", text);
  af_ = six ? AddressFamily::ipv6 : AddressFamily::ipv4;
  octets_ = o;
}

Kelp::String IpGenAddr::stringValue() const {
  switch (af_) {
    case AddressFamily::ipv4: return formatAddress(AF_INET, octets_.data());
    case AddressFamily::ipv6: return formatAddress(AF_INET6, octets_.data());
    default: return Kelp::String(kNone);
  }
}

std::uint32_t IpGenAddr::hash(std::uint32_t seed) const {
  Kelp::Hash h(seed);
  h.hashMix(static_cast<std::uint8_t>(af_));
  h.hashMixBytes(octets_.data(), octetCount());
  return h.result();
}

namespace {
const Kelp::TypeModule module("IpAddr", {Kelp::typeInfo<IpAddr>(), Kelp::typeInfo<Ip6Addr>(),
                                         Kelp::typeInfo<IpGenAddr>(), Kelp::typeInfo<AddressFamily>()});
}

}  // namespace Netzo

// ---- Text forms ----------------------------------------------------------------------------

namespace Kelp {

void TextForm<Netzo::IpAddr>::parse(CharRange& r, Netzo::IpAddr& v) {
  std::size_t start = r.position();
  std::string_view token = Netzo::detail::takeWhile(r, Netzo::detail::isIpv4Char);
  Netzo::detail::parseTokenAt(r, start, [&] { v.stringValueIs(token); });
}

void TextForm<Netzo::Ip6Addr>::parse(CharRange& r, Netzo::Ip6Addr& v) {
  std::size_t start = r.position();
  std::string_view token = Netzo::detail::takeWhile(r, Netzo::detail::isIpChar);
  Netzo::detail::parseTokenAt(r, start, [&] { v.stringValueIs(token); });
}

void TextForm<Netzo::IpGenAddr>::parse(CharRange& r, Netzo::IpGenAddr& v) {
  std::size_t start = r.position();
  std::string_view token = r.startsWith(Netzo::kNone) ? (r.advance(Netzo::kNone.size()), Netzo::kNone)
                                                      : Netzo::detail::takeWhile(r, Netzo::detail::isIpChar);
  Netzo::detail::parseTokenAt(r, start, [&] { v.stringValueIs(token); });
}

}  // namespace Kelp
