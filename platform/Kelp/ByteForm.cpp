#include "platform/Kelp/ByteForm.h"

#include <fmt/format.h>

#include "platform/Kelp/Exception.h"

namespace Kelp::detail {

void throwRecordTooShort(std::string_view typeName, std::size_t have, std::uint32_t need) {
  // Records are named by their last name component, as their owners speak of them.
  const std::size_t colon = typeName.rfind(':');
  const std::string_view shortName = colon == std::string_view::npos ? typeName : typeName.substr(colon + 1);
  throw RangeException(fmt::format("{} record of {} bytes is shorter than {}", shortName, have, need));
}

}  // namespace Kelp::detail
