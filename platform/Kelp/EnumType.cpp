#include "platform/Kelp/EnumType.h"

namespace Kelp {

std::string_view readIdentifier(CharRange& r) {
  std::string_view rest = r.rest();
  std::size_t n = 0;
  while (n < rest.size()) {
    if (!isIdentifierChar(rest[n])) break;
    ++n;
  }
  r.advance(n);
  return rest.substr(0, n);
}

}  // namespace Kelp
