// Fuzzes toggle file contents: any bytes give a state (never a crash, never an exception), and a
// file with the toggle set to a boolean reads back that boolean.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/Toggle/Toggle.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view json(reinterpret_cast<const char*>(data), size);
  bool a = Toggle::toggleStateFromJson(json, "StaticRouteCommunities", true);
  bool b = Toggle::toggleStateFromJson(json, "StaticRouteCommunities", false);
  // Where the two defaults agree the file decided; where they differ each must be its default.
  if (a != b && !(a && !b)) std::abort();
  std::string wrapped = std::string("{\"StaticRouteCommunities\": ") + (size % 2 ? "true" : "false") + "}";
  if (Toggle::toggleStateFromJson(wrapped, "StaticRouteCommunities", size % 2 == 0) != (size % 2 == 1)) std::abort();
  return 0;
}
