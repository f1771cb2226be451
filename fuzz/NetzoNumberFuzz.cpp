// The number parsers of Netzo (AutonomousSystem in asplain, asdot and asdot+, MplsLabel,
// MplsLabelStack) on arbitrary text; see NetzoFuzzCheck.h for the property. AS numbers must also
// read back from their asdot text.
#include <cstdint>

#include "fuzz/NetzoFuzzCheck.h"
#include "platform/Netzo/AutonomousSystem.h"
#include "platform/Netzo/MplsLabel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace Netzo;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const AutonomousSystem sentinel(4200000077u);
  fuzz_support::checkText(text, sentinel);
  AutonomousSystem as = sentinel;
  try {
    as.stringValueIs(text);
  } catch (const Kelp::RangeException&) {
  }
  if (AutonomousSystem::fromString(as.displayString(true)) != as) std::abort();
  fuzz_support::checkText(text, MplsLabel(77));
  fuzz_support::checkText(text, MplsLabelStack{MplsLabel(16), MplsLabel(77)});
  return 0;
}
