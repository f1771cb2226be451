#pragma once
// Shared pieces of the Netzo text parsers (internal to platform/Netzo).
//
// Every Netzo type parses a whole text in stringValueIs() and, as a field of a described value
// type, reads itself from a Kelp::CharRange: it takes the longest run of characters that can
// belong to it, parses that run as a whole, and on failure reports the position in the range.

#include <string_view>

#include "platform/Kelp/CharRange.h"
#include "platform/Kelp/Exception.h"

namespace Netzo::detail {

// Throws Kelp::RangeException "<what> "<text>"" (the text quoted and cut at 64 characters).
[[noreturn]] void throwBadText(std::string_view what, std::string_view text);

// Consumes and returns the longest run of characters for which accept(c) holds.
template <typename Accept>
std::string_view takeWhile(Kelp::CharRange& r, Accept accept) {
  std::string_view rest = r.rest();
  std::size_t n = 0;
  while (n < rest.size() && accept(rest[n])) ++n;
  r.advance(n);
  return rest.substr(0, n);
}

// Runs parse() on a token taken from `r` at `start`; a RangeException it throws is re-thrown with
// the token's position in the range.
template <typename Parse>
void parseTokenAt(const Kelp::CharRange& r, std::size_t start, Parse parse) {
  try {
    parse();
  } catch (const Kelp::RangeException& e) {
    r.failAt(start, e.what());
  }
}

constexpr bool isDecimalDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool isHexDigit(char c) {
  return isDecimalDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
// Characters of IPv4 and IPv6 address text (IPv6 may end in a dotted quad).
constexpr bool isIpv4Char(char c) { return isDecimalDigit(c) || c == '.'; }
constexpr bool isIpChar(char c) { return isHexDigit(c) || c == '.' || c == ':'; }

}  // namespace Netzo::detail
