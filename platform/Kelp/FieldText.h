#pragma once
// The long text form of a described value type, printed and parsed field by field:
//   Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': 800, 'warningOnly': True})

#include "platform/Kelp/TextForm.h"
#include "platform/Kelp/ValueDesc.h"

namespace Kelp {

template <typename T>
void printFields(String& out, const T& v) {
  const auto& d = typeDescOf<T>;
  out += "Value('";
  out += d.name;
  out += "', ** {";
  bool first = true;
  forEachField(d, [&](const auto& f) {
    out += first ? "'" : ", '";
    out += f.name;
    out += "': ";
    TextForm<typename std::decay_t<decltype(f)>::Member>::print(out, v.*(f.member));
    first = false;
  });
  out += "})";
}

// Reads the long text form into `v`, field by field; leaves the range after "})".
// (Unconstrained so that a type's own range constructor, defined inside the class, can call it.)
template <typename T>
void parseFields(CharRange& r, T& v) {
  const auto& d = typeDescOf<T>;
  r.needString({"Value('", d.name, "', ** {"});
  bool first = true;
  forEachField(d, [&](const auto& f) {
    using M = typename std::decay_t<decltype(f)>::Member;
    r.needString({first ? "'" : ", '", f.name, "': "});
    v.*(f.member) = deserializeAttr<M>(r, f.name);
    first = false;
  });
  r.needString("})");
}

// Whether every field of T can be read from text.
template <typename T>
constexpr bool fieldsReadableFromText() {
  bool readable = true;
  forEachField(typeDescOf<T>, [&](const auto& f) {
    readable = readable && ReadableFromText<typename std::decay_t<decltype(f)>::Member>;
  });
  return readable;
}

template <Described T>
struct TextForm<T> {
  static constexpr bool kReadable = fieldsReadableFromText<T>();
  static void print(String& out, const T& v) { printFields(out, v); }
  static void parse(CharRange& r, T& v) { parseFields(r, v); }
};

}  // namespace Kelp
