// RouteTarget::stringValueIs on arbitrary text. Every accepted text must print, in both AS
// notations, to a text that parses back to the same value; a refused text may only throw
// Kelp::RangeException, or std::invalid_argument / std::out_of_range from the hex form, and must
// leave the value unchanged. RouteTarget::fromOperatorText, the strict reading, may only throw
// Kelp::RangeException, accepts only texts stringValueIs reads to the same value, and accepts every
// printed text. Anything else aborts.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>

#include "BgpCommon/RouteTarget.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using Routing::Bgp::RouteTarget;
  const Kelp::String text(reinterpret_cast<const char*>(data), size);
  constexpr std::uint64_t kSentinel = 0x5A5A5A5A5A5A5A5A;
  std::optional<RouteTarget> strict;
  try {
    strict = RouteTarget::fromOperatorText(text);
  } catch (const Kelp::RangeException&) {
  }
  RouteTarget rt(kSentinel);
  try {
    rt.stringValueIs(text);
  } catch (const Kelp::RangeException&) {
    if (rt.value != kSentinel || strict) std::abort();
    return 0;
  } catch (const std::invalid_argument&) {
    if (rt.value != kSentinel || strict) std::abort();
    return 0;
  } catch (const std::out_of_range&) {
    if (rt.value != kSentinel || strict) std::abort();
    return 0;
  }
  if (strict && *strict != rt) std::abort();
  for (bool asDot : {false, true}) {
    RouteTarget back;
    back.stringValueIs(rt.toStrep(asDot));  // an exception here escapes and aborts
    if (back.value != rt.value || RouteTarget::fromOperatorText(rt.toStrep(asDot)) != rt) std::abort();
  }
  if (Kelp::strepToValue<RouteTarget>(Kelp::valueToStrep(rt)) != rt) std::abort();
  return 0;
}
