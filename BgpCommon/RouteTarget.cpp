#include "BgpCommon/RouteTarget.h"

#include <bit>
#include <cstring>
#include <string>

#include <fmt/format.h>

#include "platform/Kelp/CharRange.h"
#include "platform/Kelp/Registry.h"
#include "platform/Pico/Assert.h"

namespace Routing::Bgp {

namespace {

using U64 = std::uint64_t;

constexpr U64 kSubtypeRouteTarget = 2;

constexpr unsigned typeOctet(U64 v) { return static_cast<unsigned>(v >> 56); }
constexpr unsigned subtypeOctet(U64 v) { return static_cast<unsigned>(v >> 48 & 0xFF); }

// The canonical community word: type, subtype 2, a 32-bit global and a 16-bit local administrator.
constexpr U64 makeWide(U64 type, U64 global, U64 local) {
  return type << 56 | kSubtypeRouteTarget << 48 | (global & 0xFFFFFFFF) << 16 | (local & 0xFFFF);
}

[[noreturn]] void fail(const char* message) { throw Kelp::RangeException(message); }

// A decimal number as Kelp::dectol reads it. Up to 19 digits cannot overflow, so the common case
// is converted here; anything else (empty, a non-digit, 20 digits or more) goes to dectol, which
// converts it or throws its own message.
U64 decimal(std::string_view digits) {
  if (!digits.empty() && digits.size() <= 19) {
    U64 v = 0;
    for (char c : digits) {
      const unsigned d = static_cast<unsigned char>(c) - unsigned{'0'};
      if (d > 9) return Kelp::dectol(digits, "RouteTarget");
      v = v * 10 + d;
    }
    return v;
  }
  return Kelp::dectol(digits, "RouteTarget");
}

constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool isHexDigit(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// Eight characters at a time in one 64-bit word (the first character in the lowest octet). A
// route target is 5 to 22 characters, so a few word tests replace most of a per-character loop.
// Each test marks the octets of a word that pass with 0x80 and the others with 0, exactly: no
// octet's carry reaches its neighbour.
constexpr U64 kOnes = 0x0101010101010101;
constexpr U64 kHigh = kOnes * 0x80;
constexpr U64 kLow7 = ~kHigh;

U64 load8(const char* p) {
  U64 w;
  std::memcpy(&w, p, sizeof w);
  if constexpr (std::endian::native == std::endian::big) w = __builtin_bswap64(w);
  return w;
}
constexpr U64 zeroOctets(U64 x) { return ~(((x & kLow7) + kLow7) | x) & kHigh; }
constexpr U64 octetsEqual(U64 w, char c) { return zeroOctets(w ^ (kOnes * static_cast<unsigned char>(c))); }
// Octets whose low seven bits are at least `c` (1..0x80); an octet's high bit is for the caller.
constexpr U64 octetsAtLeast(U64 w, unsigned c) { return ((w & kLow7) + kOnes * (0x80 - c)) & kHigh; }
// How many octets a test marked: their ones summed into the top octet by one multiplication
// (std::popcount is a library call on the baseline x86-64 instruction set).
constexpr std::size_t markedCount(U64 marks) { return static_cast<std::size_t>((marks >> 7) * kOnes >> 56); }

// The value of the eight hex digits in `w`, the first the most significant, or false when one of
// them is not a hex digit.
inline bool hexWord(U64 w, U64& out) {
  const U64 lower = w | kOnes * 0x20;  // 'A'..'F' folded onto 'a'..'f'; digits are unchanged
  const U64 digit = octetsAtLeast(w, '0') & ~octetsAtLeast(w, '9' + 1);
  const U64 letter = octetsAtLeast(lower, 'a') & ~octetsAtLeast(lower, 'f' + 1);
  if ((digit | letter) != kHigh || (w & kHigh) != 0) return false;
  // Each octet's nibble: the low four bits, plus 9 for a letter ('a' is 0x61: 1 + 9 = 10).
  U64 v = (w & kOnes * 0x0F) + (letter >> 7) * 9;
  // Pairs, then quads, then the halves: the earlier character of each pair is the higher nibble.
  v = (v & 0x000F000F000F000F) << 4 | (v >> 8 & 0x000F000F000F000F);
  v = (v & 0x000000FF000000FF) << 8 | (v >> 16 & 0x000000FF000000FF);
  out = (v & 0xFFFF) << 16 | (v >> 32 & 0xFFFF);
  return true;
}

// "0x" (or "0X") and exactly 16 hex digits, the hex form as it is written and printed, read into
// `out`. Any other text of 18 characters is left to the C library's conversion, whose leniency
// (leading blanks, a sign, stopping at a non-hex digit) and exceptions stringValueIs keeps; on
// this text the two agree, and this reading costs a fraction of the library call.
bool plainHex(std::string_view s, U64& out) {
  if (s.size() != 18 || s[0] != '0' || (s[1] != 'x' && s[1] != 'X')) return false;
  U64 high, low;
  if (!hexWord(load8(s.data() + 2), high) || !hexWord(load8(s.data() + 10), low)) return false;
  out = high << 32 | low;
  return true;
}

// A dotted quad as the address reader accepts it: four decimal octets of one to three digits, none
// above 255 and none with a leading zero, read into `hostOrder`. Anything else goes to the address
// reader itself, so that bad text keeps its own message; on this text the two agree.
bool plainDottedQuad(std::string_view s, std::uint32_t& hostOrder) {
  std::uint32_t address = 0;
  std::size_t i = 0;
  for (int octet = 0; octet < 4; ++octet) {
    if (octet != 0) {
      if (i >= s.size() || s[i] != '.') return false;
      ++i;
    }
    const std::size_t start = i;
    unsigned v = 0;
    while (i < s.size() && i - start < 3 && isDigit(s[i])) v = v * 10 + static_cast<unsigned>(s[i++] - '0');
    const std::size_t digits = i - start;
    if (digits == 0 || v > 255 || (digits > 1 && s[start] == '0')) return false;
    address = address << 8 | v;
  }
  if (i != s.size()) return false;
  hostOrder = address;
  return true;
}

// The strict reader's refusal: the text as typed (escaped, at most 64 bytes) and what is wrong.
[[noreturn]] void refuse(std::string_view text, std::string_view what) {
  throw Kelp::RangeException(fmt::format("RouteTarget: \"{}\": {}", Kelp::quoteExcerpt(text, 64), what));
}


// The decimal number in text[begin, end), which holds digits only: present, without a leading zero
// (which some readers take for octal) and at most `max`. `what` names it in a refusal.
U64 strictNumber(std::string_view text, std::size_t begin, std::size_t end, U64 max, std::string_view what) {
  if (begin == end) refuse(text, fmt::format("missing {} at offset {}", what, begin));
  if (text[begin] == '0' && end - begin > 1) refuse(text, fmt::format("{} with a leading zero at offset {}", what, begin));
  U64 v = 0;
  for (std::size_t i = begin; i < end; ++i) {
    v = v * 10 + static_cast<unsigned>(text[i] - '0');  // max < 2^32: no overflow before the check
    if (v > max) refuse(text, fmt::format("{} above {} at offset {}", what, max, begin));
  }
  return v;
}

}  // namespace

RouteTarget RouteTarget::fromTwoOctetAs(Netzo::AutonomousSystem asn, std::uint32_t localAdmin) {
  PICO_ASSERT(asn.value() <= 0xffff);
  return RouteTarget(U64{asn.value()} << 32 | localAdmin);
}

RouteTarget RouteTarget::fromFourOctetAs(Netzo::AutonomousSystem asn, std::uint16_t localAdmin) {
  return RouteTarget(U64{2} << 48 | U64{asn.value()} << 16 | localAdmin);
}

RouteTarget RouteTarget::fromIpaddress(Netzo::IpAddr addr, std::uint16_t localAdmin) {
  return RouteTarget(U64{1} << 48 | U64{addr.hostValue()} << 16 | localAdmin);
}

RouteTarget::ExtCommType RouteTarget::extCommType() const {
  unsigned t = typeOctet(value);
  return t <= 2 ? static_cast<ExtCommType>(t) : ExtCommType::invalidType;
}

RouteTarget::ExtCommSubtype RouteTarget::extCommSubtype() const {
  return subtypeOctet(value) == kSubtypeRouteTarget ? ExtCommSubtype::routeTarget : ExtCommSubtype::invalidSubtype;
}

bool RouteTarget::extCommValueIsValidRouteTarget() const {
  return typeOctet(value) <= 2 && subtypeOctet(value) == kSubtypeRouteTarget;
}

std::uint32_t RouteTarget::globalAdmin() const {
  switch (typeOctet(value)) {
    case 0: return static_cast<std::uint32_t>(value >> 32 & 0xFFFF);
    case 1:
    case 2: return static_cast<std::uint32_t>(value >> 16);
    default: return 0;
  }
}

std::uint32_t RouteTarget::localAdmin() const {
  switch (typeOctet(value)) {
    case 0: return static_cast<std::uint32_t>(value);
    case 1:
    case 2: return static_cast<std::uint32_t>(value & 0xFFFF);
    default: return 0;
  }
}

Netzo::AutonomousSystem RouteTarget::asn() const {
  switch (typeOctet(value)) {
    case 0: return static_cast<std::uint32_t>(value >> 32 & 0xFFFF);
    case 2: return static_cast<std::uint32_t>(value >> 16);
    default: return 0;
  }
}

Netzo::IpAddr RouteTarget::ipv4Addr() const {
  if (typeOctet(value) != 1) return Netzo::IpAddr();
  return Netzo::IpAddr::fromHostOrder(static_cast<std::uint32_t>(value >> 16));
}

std::uint32_t RouteTarget::hash(std::uint32_t seed) const { return Kelp::hashFields(*this, seed); }

// The checks run in a fixed order, and the first that fails names the fault:
//   1. scan to the separator, ":" or "L:", counting dots ("L" without ":" is an error);
//   2. no separator: the hex form, exactly 18 characters and no dots;
//   3. something before and after the separator;
//   4. the global part by its dots: 1 asdot AS, 3 IPv4 address, 0 plain AS, others an error;
//   5. for the four-octet forms, a local administrator of at most 65535.
void RouteTarget::stringValueIs(const Kelp::String& text) {
  const std::string_view s = text;
  const std::size_t n = s.size();
  // The hex form as printed holds no separator and no dot, so the checks below would come to
  // plainHex with nothing else decided.
  if (n == 18 && plainHex(s, value)) return;
  std::size_t dots = 0;
  std::size_t separator = std::string_view::npos;
  std::size_t localStart = 0;
  bool fourOctetForced = false;
  std::size_t i = 0;
  // Whole words up to the one holding the separator: its dots before the separator count, and
  // the loop below takes the separator itself.
  for (; i + 8 <= n; i += 8) {
    const U64 w = load8(s.data() + i);
    const U64 dotOctets = octetsEqual(w, '.');
    const U64 stop = octetsEqual(w, ':') | octetsEqual(w, 'L');
    if (stop != 0) {
      const unsigned before = static_cast<unsigned>(std::countr_zero(stop)) & ~7u;  // bits
      dots += markedCount(dotOctets & ((U64{1} << before) - 1));
      i += before / 8;
      break;
    }
    dots += markedCount(dotOctets);
  }
  for (; i < n; ++i) {
    const char c = s[i];
    if (c == ':') {
      separator = i;
      localStart = i + 1;
      break;
    }
    if (c == 'L') {
      if (i + 1 >= n || s[i + 1] != ':') fail("RouteTarget: colon not following L");
      separator = i;
      localStart = i + 2;
      fourOctetForced = true;
      break;
    }
    if (c == '.') ++dots;
  }

  if (separator == std::string_view::npos) {
    if (n != 18) fail("RouteTarget: incorrect hex size");
    if (dots != 0) fail("RouteTarget: missing colon");
    if (plainHex(s, value)) return;
    // The C library's conversion: an optional "0x", hex digits up to the first other character.
    // It reports no digits as std::invalid_argument and overflow as std::out_of_range, both
    // "stoull".
    value = std::stoull(text, nullptr, 16);
    return;
  }
  if (separator == 0) fail("RouteTarget: no data before colon");
  if (localStart >= n) fail("RouteTarget: no data after colon");

  const std::string_view global = s.substr(0, separator);
  const std::string_view local = s.substr(localStart);
  U64 type;
  U64 globalValue;
  switch (dots) {
    case 1: {  // asdot: high.low, combined in 32 bits
      const std::size_t dot = global.find('.');
      const U64 high = decimal(global.substr(0, dot));
      const U64 low = decimal(global.substr(dot + 1));
      globalValue = static_cast<std::uint32_t>(high << 16 | low);
      type = 2;
      break;
    }
    case 3: {
      std::uint32_t address;
      if (plainDottedQuad(global, address)) {
        globalValue = address;
      } else {
        Netzo::IpAddr parsed;
        parsed.stringValueIs(global);
        globalValue = parsed.hostValue();
      }
      type = 1;
      break;
    }
    case 0: {
      const U64 as = decimal(global);
      if (as > 0xFFFFFFFF) fail("RouteTarget: AS number exceeds 4 bytes");
      if (as < 65536 && !fourOctetForced) {
        // A two-octet AS leaves 32 bits for the local administrator; the number is kept in
        // 32 bits as read.
        const U64 localValue = static_cast<std::uint32_t>(decimal(local));
        value = kSubtypeRouteTarget << 48 | as << 32 | localValue;
        return;
      }
      globalValue = as;
      type = 2;
      break;
    }
    default:
      fail("RouteTarget: unexpected number of dots");
  }
  const U64 localValue = decimal(local);
  if (localValue > 0xFFFF) fail("RouteTarget: local admin exceeds 2 bytes");
  value = makeWide(type, globalValue, localValue);
}

// Checks the text against the operator forms, most basic fault first (characters, then the colon
// and the L, then the numbers left to right), and hands what passes to stringValueIs(), which then
// cannot lose a bit: every number is within its field and nothing follows the last digit.
RouteTarget RouteTarget::fromOperatorText(std::string_view text) {
  const std::size_t n = text.size();
  if (n == 0) refuse(text, "empty");
  RouteTarget rt;
  if (n >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    for (std::size_t i = 2; i < n; ++i) {
      if (!isHexDigit(text[i])) refuse(text, fmt::format("not a hex digit at offset {}", i));
    }
    if (n != 18) refuse(text, fmt::format("{} hex digits after 0x, expected 16", n - 2));
    rt.stringValueIs(Kelp::String(text));
    return rt;
  }

  // Before the colon digits and dots, and an L right before it; after it digits only.
  const std::size_t colon = text.find(':');
  const std::size_t globalLimit = colon == std::string_view::npos ? n : colon;
  for (std::size_t i = 0; i < n; ++i) {
    const char c = text[i];
    if (isDigit(c) || i == colon) continue;
    if (i < globalLimit && (c == '.' || (c == 'L' && i + 1 == globalLimit))) continue;
    if (c == ':') refuse(text, "more than one colon");
    refuse(text, fmt::format("unexpected \"{}\" at offset {}", Kelp::quoteExcerpt(text.substr(i, 1)), i));
  }
  if (colon == std::string_view::npos) refuse(text, "missing colon");
  const bool fourOctetForced = colon > 0 && text[colon - 1] == 'L';
  const std::size_t globalEnd = fourOctetForced ? colon - 1 : colon;
  if (globalEnd == 0) refuse(text, fourOctetForced ? "nothing before the L" : "nothing before the colon");
  if (colon + 1 == n) refuse(text, "nothing after the colon");

  std::size_t dotAt[3];
  std::size_t dots = 0;
  for (std::size_t i = 0; i < globalEnd; ++i) {
    if (text[i] == '.' && dots++ < 3) dotAt[dots - 1] = i;
  }
  if (dots != 0 && fourOctetForced) refuse(text, "L follows only a plain AS number");
  U64 localMax = 0xFFFF;
  switch (dots) {
    case 0:
      if (strictNumber(text, 0, globalEnd, 0xFFFFFFFF, "AS number") < 65536 && !fourOctetForced) localMax = 0xFFFFFFFF;
      break;
    case 1:  // asdot: two 16-bit halves
      strictNumber(text, 0, dotAt[0], 0xFFFF, "high half of the AS number");
      strictNumber(text, dotAt[0] + 1, globalEnd, 0xFFFF, "low half of the AS number");
      break;
    case 3: {
      const std::size_t bounds[] = {0, dotAt[0] + 1, dotAt[1] + 1, dotAt[2] + 1, globalEnd + 1};
      for (int i = 0; i < 4; ++i) strictNumber(text, bounds[i], bounds[i + 1] - 1, 255, "address octet");
      break;
    }
    default:
      refuse(text, fmt::format("{} dots before the colon: expected none (AS number), one (high.low AS number) or "
                               "three (IPv4 address)",
                               dots));
  }
  strictNumber(text, colon + 1, n, localMax, "local administrator");
  rt.stringValueIs(Kelp::String(text));
  return rt;
}

Kelp::String RouteTarget::toStrep(bool asDot) const {
  if (!extCommValueIsValidRouteTarget()) return fmt::format("0x{:016x}", value);
  switch (typeOctet(value)) {
    case 0:
      return fmt::format("{}:{}", Netzo::AutonomousSystem(globalAdmin()).displayString(asDot), localAdmin());
    case 1:
      return fmt::format("{}:{}", ipv4Addr().stringValue(), localAdmin());
    default: {
      // A four-octet AS below 65536 would read back as the two-octet form: "L" keeps it four.
      const Netzo::AutonomousSystem as = asn();
      return fmt::format("{}{}:{}", as.displayString(asDot), as.value() < 65536 ? "L" : "", localAdmin());
    }
  }
}

void kelpJson(Kelp::String& out, const RouteTarget& rt) { out += fmt::format("\"0x{:016x}\"", rt.value); }

namespace {
const Kelp::TypeModule module("RouteTarget", {Kelp::typeInfo<RouteTarget>(), Kelp::typeInfo<RouteTarget::ExtCommType>(),
                                              Kelp::typeInfo<RouteTarget::ExtCommSubtype>()});
}

}  // namespace Routing::Bgp
