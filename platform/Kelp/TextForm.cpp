#include "platform/Kelp/TextForm.h"

#include <algorithm>

#include <fmt/format.h>

namespace Kelp {

void TextForm<bool>::parse(CharRange& r, bool& v) {
  if (r.skipIf("True")) {
    v = true;
  } else if (r.skipIf("False")) {
    v = false;
  } else {
    r.fail("expected True or False");
  }
}

std::uint64_t parseUnsigned(CharRange& r, std::uint64_t maxValue) {
  std::size_t start = r.position();
  if (r.peek() < '0' || r.peek() > '9') r.fail("expected an unsigned number");
  // The long form writes numbers as Python does, which has no leading zeros (and reads none).
  if (r.peek() == '0' && r.rest().size() > 1 && r.rest()[1] >= '0' && r.rest()[1] <= '9') {
    r.fail("leading zero in a number");
  }
  std::uint64_t v = 0;
  bool overflow = false;
  while (r.peek() >= '0' && r.peek() <= '9') {
    unsigned d = static_cast<unsigned>(r.next() - '0');
    if (v > (maxValue - d) / 10) overflow = true;
    if (!overflow) v = v * 10 + d;
  }
  if (overflow) r.failAt(start, fmt::format("number above {}", maxValue));
  return v;
}

void printUnsigned(String& out, std::uint64_t v) { fmt::format_to(std::back_inserter(out), "{}", v); }

namespace {

void appendEscaped(String& out, std::string_view v) {
  static constexpr char hex[] = "0123456789abcdef";
  for (char ch : v) {
    unsigned char c = static_cast<unsigned char>(ch);
    switch (c) {
      case '\'': out += "\\'"; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c >= 0x20 && c < 0x7f) {
          out.push_back(ch);
        } else {
          out += "\\x";
          out.push_back(hex[c >> 4]);
          out.push_back(hex[c & 15]);
        }
    }
  }
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

String parseEscaped(CharRange& r) {
  std::size_t start = r.position();
  r.needString("'");
  String out;
  for (;;) {
    if (r.empty()) r.failAt(start, "unterminated quoted text");
    char c = r.next();
    if (c == '\'') return out;
    if (c != '\\') {
      out.push_back(c);
      continue;
    }
    if (r.empty()) r.failAt(start, "unterminated quoted text");
    std::size_t escapeAt = r.position() - 1;
    char e = r.next();
    switch (e) {
      case '\'': out.push_back('\''); break;
      case '\\': out.push_back('\\'); break;
      case 'n': out.push_back('\n'); break;
      case 'r': out.push_back('\r'); break;
      case 't': out.push_back('\t'); break;
      case 'x': {
        int hi = hexDigit(r.peek());
        if (hi >= 0) r.advance(1);
        int lo = hi >= 0 ? hexDigit(r.peek()) : -1;
        if (lo < 0) r.failAt(escapeAt, "bad \\x escape");
        r.advance(1);
        out.push_back(static_cast<char>(hi * 16 + lo));
        break;
      }
      default:
        r.failAt(escapeAt, "unknown escape");
    }
  }
}

}  // namespace

void TextForm<String>::printQuoted(String& out, std::string_view v) {
  out.push_back('\'');
  appendEscaped(out, v);
  out.push_back('\'');
}

String TextForm<String>::parseQuoted(CharRange& r) { return parseEscaped(r); }

void TextForm<Bytes>::print(String& out, const Bytes& v) {
  out.push_back('b');
  TextForm<String>::printQuoted(out, std::string_view(reinterpret_cast<const char*>(v.data()), v.size()));
}

void TextForm<Bytes>::parse(CharRange& r, Bytes& v) {
  r.needString("b");
  String s = parseEscaped(r);
  v.assign(s.begin(), s.end());
}

std::uint64_t dectol(std::string_view text, std::string_view typeName) {
  // Unlike the long form, a decimal part of a text such as a route target may carry leading zeros.
  const std::size_t zeros = std::min(text.find_first_not_of('0'), text.size());
  CharRange r(text.substr(zeros == text.size() && zeros != 0 ? zeros - 1 : zeros));
  try {
    std::uint64_t v = parseUnsigned(r, ~std::uint64_t{0});
    r.checkAllDataConsumed();
    return v;
  } catch (const RangeException&) {
    throw RangeException(fmt::format("{}: expected a decimal number of at most 64 bits, found \"{}\"",
                                     typeName, quoteExcerpt(text)));
  }
}

}  // namespace Kelp
