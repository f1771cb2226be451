#include "platform/Kelp/Json.h"

#include <fmt/format.h>

namespace Kelp {

namespace {

// The length of the valid UTF-8 sequence at the start of `s` (RFC 3629: shortest form, no
// surrogates, nothing above U+10FFFF), or 0 when it does not start with one.
std::size_t utf8SequenceLength(std::string_view s) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned b0 = byte(0);
  std::size_t n;
  unsigned low = 0x80;  // the range of the second byte, narrowed to refuse the invalid forms
  unsigned high = 0xBF;
  if (b0 < 0x80) return 1;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    n = 2;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    n = 3;
    if (b0 == 0xE0) low = 0xA0;   // overlong
    if (b0 == 0xED) high = 0x9F;  // surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    n = 4;
    if (b0 == 0xF0) low = 0x90;   // overlong
    if (b0 == 0xF4) high = 0x8F;  // above U+10FFFF
  } else {
    return 0;
  }
  if (s.size() < n || byte(1) < low || byte(1) > high) return 0;
  for (std::size_t i = 2; i < n; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  }
  return n;
}

}  // namespace

void jsonString(String& out, std::string_view s) {
  out += '"';
  for (std::size_t i = 0; i < s.size();) {
    const char c = s[i];
    const auto b = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
      ++i;
    } else if (b < 0x20 || b == 0x7F) {
      out += fmt::format("\\u{:04x}", b);
      ++i;
    } else if (b < 0x80) {
      out += c;
      ++i;
    } else if (const std::size_t n = utf8SequenceLength(s.substr(i)); n != 0) {
      out.append(s.substr(i, n));
      i += n;
    } else {
      out += fmt::format("\\udc{:02x}", b);
      ++i;
    }
  }
  out += '"';
}

void jsonNumber(String& out, std::uint64_t v) {
  if (v > jsonExactLimit) {
    fmt::format_to(std::back_inserter(out), "\"{}\"", v);
  } else {
    fmt::format_to(std::back_inserter(out), "{}", v);
  }
}

void jsonNumber(String& out, std::int64_t v) {
  const auto limit = static_cast<std::int64_t>(jsonExactLimit);
  if (v < -limit || v > limit) {
    fmt::format_to(std::back_inserter(out), "\"{}\"", v);
  } else {
    fmt::format_to(std::back_inserter(out), "{}", v);
  }
}

}  // namespace Kelp
