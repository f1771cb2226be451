#include "platform/Kelp/EnumType.h"

namespace Kelp {

std::string_view readIdentifier(CharRange& r) {
  std::string_view rest = r.rest();
  std::size_t n = 0;
  while (n < rest.size()) {
    char c = rest[n];
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    if (!ok) break;
    ++n;
  }
  r.advance(n);
  return rest.substr(0, n);
}

}  // namespace Kelp
