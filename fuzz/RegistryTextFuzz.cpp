// Fuzzes the long text form of every registered type through the type registry.
// Input: a qualified type name, a newline, then the text; when the name is not registered, the
// first byte chooses a type (modulo the number of types with a text form) and the rest is the text.
// Accepted text must print to a text that parses back and prints the same; bad text may only
// throw Kelp::RangeException. A value that text produced must then survive everything generic code
// can do with it: print, hash, compare, every attribute it answers (and what those answer in turn),
// and being handed to every function of every registered type. Anything else aborts.
#include <any>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string_view>
#include <vector>

#include "platform/Kelp/Registry.h"

namespace {

using Kelp::TypeInfo;

void exercise(const TypeInfo* t, const std::any& value, int depth);

// Calls one attribute operation; a refused argument (TypeException) or a refused value
// (RangeException) is an answer, anything else escapes and aborts. What the call answers is
// exercised in turn when its type is registered.
void attempt(const TypeInfo* t, std::any obj, const Kelp::AttrInfo& a, int op, std::span<const std::any> args,
             int depth) {
  const Kelp::KelpAttrBase attr{a.id, a.name};
  std::any result;
  try {
    if (t->attributeOp(&result, obj, &attr, op, nullptr, args) != Kelp::attrStatusDone) return;
  } catch (const Kelp::TypeException&) {
    return;
  } catch (const Kelp::RangeException&) {
    return;
  }
  if (const TypeInfo* r = result.has_value() ? Kelp::findType(result.type()) : nullptr) exercise(r, result, depth - 1);
}

void exercise(const TypeInfo* t, const std::any& value, int depth) {
  if (depth < 0) return;
  (void)t->valueToStrep(value);
  if (t->hash != nullptr) {
    try {
      (void)t->hash(value);
    } catch (const Kelp::UnhashableException&) {
    }
  }
  if (t->attributeOp == nullptr) return;
  std::any obj = value, result;
  for (int op : {Kelp::attrOpTruth, Kelp::attrOpEqual, Kelp::attrOpLess}) {
    (void)t->attributeOp(&result, obj, nullptr, op, &value, {});
  }
  for (const Kelp::AttrInfo& a : t->attributes) {
    attempt(t, value, a, Kelp::attrOpGet, {}, depth);
    attempt(t, value, a, Kelp::attrOpCall, {}, depth);
    attempt(t, value, a, Kelp::attrOpCall, std::span<const std::any>(&value, 1), depth);
  }
  // Handed to the functions of every type, as a conversion or a merge takes it.
  for (const TypeInfo* u : Kelp::registeredTypes()) {
    if (u->attributeOp == nullptr || u->defaultValue == nullptr) continue;
    const std::any self = u->defaultValue();
    for (const Kelp::AttrInfo& a : u->attributes) {
      if (a.kind == Kelp::AttrKind::function) attempt(u, self, a, Kelp::attrOpCall, std::span<const std::any>(&value, 1), depth);
    }
  }
}

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
  exercise(t, value, 2);
  return 0;
}
