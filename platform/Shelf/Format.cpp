#include "platform/Shelf/Format.h"

#include "platform/Pico/Assert.h"

namespace Shelf::detail {

#if defined(__x86_64__)
const bool kCrcInstruction = [] {
  __builtin_cpu_init();
  return __builtin_cpu_supports("sse4.2") != 0;
}();
#endif

std::uint64_t tableChecksum(Bytes words) {
  PICO_ASSERT(words.size() % 8 == 0 && words.size() <= kMaxSlotBytes);
  alignas(8) std::uint8_t scratch[kMaxSlotBytes];
  return copyAndSumWith<CrcTableStep>(scratch, words.data(), 0, 0, words.size());
}

std::optional<std::uint64_t> instructionChecksum(Bytes words) {
  PICO_ASSERT(words.size() % 8 == 0 && words.size() <= kMaxSlotBytes);
  if (!kCrcInstruction) return std::nullopt;
  alignas(8) std::uint8_t scratch[kMaxSlotBytes];
  return copyAndSumWith<CrcInstructionStep>(scratch, words.data(), 0, 0, words.size());
}
}  // namespace Shelf::detail
