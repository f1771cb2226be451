// Fuzzes the long text form of every registered type through the type registry.
// Input: a qualified type name, a newline, then the text; when the name is not registered, the
// first byte chooses a type (modulo the number of types with a text form) and the rest is the text.
// Accepted text must print to a text that parses back and prints the same; bad text may only
// throw Kelp::RangeException. Anything else aborts.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "platform/Kelp/Registry.h"

namespace {
const std::vector<const Kelp::TypeInfo*>& parsableTypes() {
  static const std::vector<const Kelp::TypeInfo*> types = [] {
    std::vector<const Kelp::TypeInfo*> v;
    for (const Kelp::TypeInfo* t : Kelp::registeredTypes()) {
      if (t->strepToValue != nullptr && t->valueToStrep != nullptr) v.push_back(t);
    }
    return v;
  }();
  return types;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto& types = parsableTypes();
  if (size < 1 || types.empty()) return 0;
  std::string_view input(reinterpret_cast<const char*>(data), size);
  const Kelp::TypeInfo* t = nullptr;
  std::string_view text;
  if (std::size_t nl = input.find('\n'); nl != std::string_view::npos) {
    t = Kelp::findType(input.substr(0, nl));
    text = input.substr(nl + 1);
  }
  if (t == nullptr || t->strepToValue == nullptr || t->valueToStrep == nullptr) {
    t = types[data[0] % types.size()];
    text = input.substr(1);
  }
  std::any value;
  try {
    value = t->strepToValue(text);
  } catch (const Kelp::RangeException&) {
    return 0;
  }
  Kelp::String printed = t->valueToStrep(value);
  std::any again;
  try {
    again = t->strepToValue(printed);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%.*s: printed text does not parse: %s\n  %s\n", static_cast<int>(t->name.size()),
                 t->name.data(), e.what(), printed.c_str());
    std::abort();
  }
  if (t->valueToStrep(again) != printed) {
    std::fprintf(stderr, "%.*s: print/parse not stable:\n  %s\n  %s\n", static_cast<int>(t->name.size()),
                 t->name.data(), printed.c_str(), t->valueToStrep(again).c_str());
    std::abort();
  }
  return 0;
}
