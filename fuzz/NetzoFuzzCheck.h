#pragma once
// The round-trip property every Netzo text parser must hold, checked on arbitrary text:
//  - stringValueIs either accepts the text, or throws Kelp::RangeException and leaves the value
//    unchanged;
//  - an accepted value prints (stringValue) to a text that reads back to the same value and prints
//    the same again;
//  - the in-range parser of the long text form either reads a value whose long form reads back
//    equal, or throws Kelp::RangeException.
// Any other exception escapes the fuzz target and aborts it.
#include <cstdlib>
#include <string_view>

#include "platform/Kelp/TextForm.h"

namespace fuzz_support {

template <typename T>
void checkText(std::string_view text, const T& sentinel) {
  T v = sentinel;
  try {
    v.stringValueIs(text);
  } catch (const Kelp::RangeException&) {
    if (!(v == sentinel)) std::abort();
    v = sentinel;
  }
  if (!(v == sentinel)) {
    const Kelp::String printed = v.stringValue();
    const T back = T::fromString(printed);
    if (!(back == v) || back.stringValue() != printed) std::abort();
  }
  try {
    Kelp::CharRange r(text);
    const T inRange = Kelp::parseValue<T>(r);
    if (r.position() > text.size()) std::abort();
    if (!(Kelp::strepToValue<T>(Kelp::valueToStrep(inRange)) == inRange)) std::abort();
  } catch (const Kelp::RangeException&) {
  }
}

}  // namespace fuzz_support
