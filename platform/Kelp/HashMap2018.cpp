#include "platform/Kelp/HashMap2018.h"

#include <cstdlib>
#include <random>

namespace Kelp {

std::uint32_t processHashSeed() {
  static const std::uint32_t seed = [] {
    if (const char* env = std::getenv("BGPCOMMON_HASH_SEED"); env != nullptr && *env != '\0') {
      char* end = nullptr;
      unsigned long v = std::strtoul(env, &end, 0);
      if (end != env && *end == '\0') return static_cast<std::uint32_t>(v);
    }
    return static_cast<std::uint32_t>(std::random_device{}());
  }();
  return seed;
}

}  // namespace Kelp
