#include "platform/Kelp/Json.h"

#include <fmt/format.h>

namespace Kelp {

void jsonString(String& out, std::string_view s) {
  out += '"';
  for (char c : s) {
    const auto b = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (b < 0x20 || b > 0x7E) {
      out += fmt::format("\\u{:04x}", b);
    } else {
      out += c;
    }
  }
  out += '"';
}

void jsonNumber(String& out, std::uint64_t v) { fmt::format_to(std::back_inserter(out), "{}", v); }
void jsonNumber(String& out, std::int64_t v) { fmt::format_to(std::back_inserter(out), "{}", v); }

}  // namespace Kelp
